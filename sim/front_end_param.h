// The front end's parameter record as tests, benchmarks, the soak run and the
// quality bench set it up: over a caller's state buffer of the library's
// minimum size, optionally with switches kept in force on every frame.
#pragma once

#include "sim/switches.h"
#include "vorn_proc.h"

namespace vorn::sim {

// p_data, buff_size and param_size set, everything else zero.
T_VornParam ParamOver(unsigned char* state);

// ParamOver with `switches` in the active fields and vorn_mode -1, so no
// mode overwrites them, and the caller's DOA update permission.
T_VornParam ParamKeeping(unsigned char* state, const Switches& switches, int doa_update_flag);

}  // namespace vorn::sim
