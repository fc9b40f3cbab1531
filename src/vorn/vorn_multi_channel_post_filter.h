// The multi-channel post filter as the core runs it on one frame.
#pragma once

#include "vorn_proc.h"

namespace vorn {

// Filters the frame's first beam against the two others into out (256
// samples) and sets pm->vad_flag from the beam instances' votes.
void VornMultiChannelPostFilter(T_VornParam* pm, short* out);

}  // namespace vorn
