// Parameters, operating modes and the layout of the caller's state buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn_proc.h"

namespace vorn {

// Sizes of the module regions; each module checks the size it is handed.
constexpr int32_t kRegionNsParamSize = 40;       // suppressor call record
constexpr int32_t kRegionBfParamSize = 56;       // beamformer call record
constexpr int32_t kRegionBfBuffSize = 240000;
constexpr int32_t kRegionNsBuffSize = 64000;
constexpr int32_t kRegionAgcBuffSize = 388;
constexpr int32_t kRegionAecBuffSize = 464724;
constexpr int32_t kVornParamSize = 1680;
constexpr int32_t kVornStateSize = 961328;
constexpr int32_t kVornStateSlack = 256;
constexpr int32_t kVornMinBuffSize = 1000000;
constexpr int kVornModeCount = 3;

static_assert(sizeof(T_VornKey) == 540);
static_assert(sizeof(T_VornParam) == kVornParamSize);
static_assert(offsetof(T_VornParam, in_argv) == 60);

// An empty hook run first by VornInit.
void AssetCheck();

// Writes the built-in switches of modes 0..mode_num-1 (the filter path is
// left alone).
void ConfigDefault(T_VornParam* pm, int mode_num);

// Copies one key's switches (not its filter path) into the active fields.
void ApplyKey(const T_VornKey& key, T_VornParam* pm);

// Copies the switches of in_argv[vorn_mode] into the active fields. Returns
// -1 and changes nothing for a mode outside 0..2.
int32_t SwitchMode(T_VornParam* pm);

// Validates the record; the first failing check decides the code (0 = valid).
int32_t VornParamCheck(const T_VornParam* pm);

}  // namespace vorn
