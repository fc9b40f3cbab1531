// The multi-channel post filter as the core runs it on one frame.
#pragma once

#include "vorn_proc.h"

namespace vorn {

// Filters the frame's first beam against the two others into out (256
// samples) and sets pm->vad_flag from the beam instances' votes.
void VornMultiChannelPostFilter(T_VornParam* pm, short* out);

// The enhanced profile's variant: the beams decide the gains, which are
// applied to `cancelled` (the echo canceller's 256 output samples) instead
// of the beam. `history` holds the last 512 cancelled samples between calls
// (zeros at first).
void VornMultiChannelPostFilterOnCancelled(T_VornParam* pm, const short* cancelled, float* history, short* out);

}  // namespace vorn
