// Preparing an instance: the one path behind VornInit and the modern
// interface's init and reset.
#pragma once

#include <cstdint>

#include "conf_read/conf_read.h"
#include "vorn_proc.h"

namespace vorn {

struct InitOptions {
  const ConfSource* config = nullptr;  // the configuration to read, or none
  bool builtin_modes = true;           // start every mode from its built-in switches
  // Replaces the selected mode's switches (not its filter path) after the
  // configuration is read, when not null.
  const T_VornKey* mode_switches = nullptr;
  int32_t default_profile = VORN_PROFILE_CLASSIC;  // when the configuration names none
  int32_t forced_profile = kConfProfileAbsent;     // wins over the configuration when set
  bool keep_warnings = false;  // leave the last configuration's warnings (no configuration is read)
  const float* agc_target_dbfs = nullptr;  // the level target to keep, in range, when not null
};

// Fills pm->in_argv (built-in switches and/or the configuration), selects the
// mode, checks everything, and only then clears the buffer and prepares every
// module. Returns 0 or a code of VornInit's table; a refused call leaves the
// state as it was, only the configuration's warnings are replaced.
int32_t InitFrontEnd(T_VornParam* pm, const InitOptions& options);

}  // namespace vorn
