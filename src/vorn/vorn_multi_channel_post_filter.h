// The multi-channel post filter as the core runs it on one frame.
#pragma once

#include "adsp_ns/adsp_ns_proc.h"
#include "vorn_proc.h"

namespace vorn {

// Filters the frame's first beam against the two others into out (256
// samples) and sets pm->vad_flag from the beam instances' votes.
void VornMultiChannelPostFilter(T_VornParam* pm, short* out);

// The enhanced profile's variant: the beams decide the gains, which are
// applied to `cancelled` (the echo canceller's 256 output samples) instead
// of the beam. `history` holds the last 512 cancelled samples between calls
// (zeros at first). `gain_cap` (may be null) bounds the gains per bin, one
// row per 128-sample half of the frame.
void VornMultiChannelPostFilterOnCancelled(T_VornParam* pm, const short* cancelled, float* history,
                                           const float (*gain_cap)[kNsBins], short* out);

}  // namespace vorn
