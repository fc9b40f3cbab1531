// The enhanced adaptive beam inside the beam module: a steered fixed beam,
// blocking outputs that null the look direction, and a frequency-domain
// canceller that adapts only while the talker is silent.
#pragma once

#include "adsp_bf/beam_enhanced.h"

namespace vorn {

void GscEnhancedInit(GscState* gsc);

// The adaptive beam's spectrum for one hop into `beam` (packed, with the
// fixed beam's delay): the fixed beam of `slot` minus the filtered blocking
// outputs. The filters adapt when `may_adapt` and the look direction is
// quiet.
void GscEnhancedBeam(GscState* gsc, const BeamSlot& slot, uint32_t live_mask, float spectrum[kBfChannels][kBfFftLen],
                     bool may_adapt, float* beam);

}  // namespace vorn
