// The enhanced profile's frame and direction search, and the preparation of
// its modules.
#pragma once

#include <cstdint>

#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace vorn {

// Prepares every enhanced module's state (in the enhanced region, cleared by
// VornInit).
void VornInitEnhanced(const T_VornParam* pm, TVornState* st);

// One frame, after the caller's record and buffers have passed the same
// checks as the classic frame. Returns the code VornProc returns.
int32_t VornProcEnhanced(T_VornParam* pm, TVornState* st, const short* inp, const short* aec_ref, short* out,
                         const short* mic_order);

// The direction search over a stretch, after the parameter check.
int32_t VornDoaEnhanced(T_VornParam* pm, TVornState* st, const short* inp, const short* mic_order,
                        int samples_per_channel);

}  // namespace vorn
