// One hop of the multi-channel post filter over three beam instances.
#pragma once

#include "adsp_ns/adsp_ns_proc.h"

namespace vorn {

// pm points to the three beam instances' records, side by side. Takes the
// next 128 samples of each beam (row b of mbf_time_signal), writes 128
// samples to mcpf_out and the hop's speech decision to *p_vad_flag; returns 0.
int VornMcpfProc(T_AdspNsParam* pm, short mbf_time_signal[][256], short* mcpf_out, int* p_vad_flag);

// The two halves of one hop. The gain step analyses the three beams' next
// 128 samples and leaves the last beam's spectrum in `spectrum` (512
// floats, packed) and the output gains in `gain` (257). The synthesis step
// applies `gain` to `spectrum` and overlap-adds 128 samples into mcpf_out.
void VornMcpfGains(T_AdspNsParam* pm, short mbf_time_signal[][256], float* spectrum, float* gain, int* p_vad_flag);
void VornMcpfSynthesis(T_AdspNsParam* pm, float* spectrum, float* gain, short* mcpf_out);

}  // namespace vorn
