// One hop of the multi-channel post filter over three beam instances.
#pragma once

#include "adsp_ns/adsp_ns_proc.h"

namespace vorn {

// pm points to the three beam instances' records, side by side. Takes the
// next 128 samples of each beam (row b of mbf_time_signal), writes 128
// samples to mcpf_out and the hop's speech decision to *p_vad_flag; returns 0.
int VornMcpfProc(T_AdspNsParam* pm, short mbf_time_signal[][256], short* mcpf_out, int* p_vad_flag);

}  // namespace vorn
