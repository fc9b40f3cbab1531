// The front end's parameter record as tests, benchmarks, the soak run and the
// quality bench set it up: over a caller's state buffer of the library's
// minimum size, optionally with switches kept in force on every frame.
#pragma once

#include "vorn_proc.h"

namespace vorn::sim {

// The active switches of a run; unnamed ones stay at these values.
struct FrontEndSwitches {
  int agc = 0, bf = 0, doa = 0, aec = 0, ns = 0, azimuth = 0, vad_mode = 1;
};

// p_data, buff_size and param_size set, everything else zero.
T_VornParam ParamOver(unsigned char* state);

// ParamOver with `switches` in the active fields and vorn_mode -1, so no
// mode overwrites them, and the caller's DOA update permission.
T_VornParam ParamKeeping(unsigned char* state, const FrontEndSwitches& switches, int doa_update_flag);

}  // namespace vorn::sim
