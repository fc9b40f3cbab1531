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

// The state record laid out at the start of the caller's buffer, regions in
// this order. The parameter records are held as raw bytes here; the front end
// views them through the module's own record type.
struct TVornState {
  unsigned char ns_pm[3][kRegionNsParamSize];
  unsigned char ns_vad_pm[kRegionNsParamSize];
  unsigned char bf_pm[kRegionBfParamSize];
  unsigned char bf_buff[kRegionBfBuffSize];
  unsigned char ns_buff[3][kRegionNsBuffSize];
  unsigned char ns_vad_buff[kRegionNsBuffSize];
  unsigned char agc_buff[kRegionAgcBuffSize];
  unsigned char aec_buff[kRegionAecBuffSize];
};

static_assert(sizeof(T_VornKey) == 540);
static_assert(sizeof(T_VornParam) == kVornParamSize);
static_assert(offsetof(T_VornParam, in_argv) == 60);
static_assert(sizeof(TVornState) == kVornStateSize);
static_assert(offsetof(TVornState, ns_vad_pm) == 120);
static_assert(offsetof(TVornState, bf_pm) == 160);
static_assert(offsetof(TVornState, bf_buff) == 216);
static_assert(offsetof(TVornState, ns_buff) == 240216);
static_assert(offsetof(TVornState, ns_vad_buff) == 432216);
static_assert(offsetof(TVornState, agc_buff) == 496216);
static_assert(offsetof(TVornState, aec_buff) == 496604);

// An empty hook run first by VornInit.
void AssetCheck();

// Writes the built-in switches of modes 0..mode_num-1 (the filter path is
// left alone).
void ConfigDefault(T_VornParam* pm, int mode_num);

// Copies the switches of in_argv[vorn_mode] into the active fields. Returns
// -1 and changes nothing for a mode outside 0..2.
int32_t SwitchMode(T_VornParam* pm);

// Validates the record; the first failing check decides the code (0 = valid).
int32_t VornParamCheck(const T_VornParam* pm);

}  // namespace vorn
