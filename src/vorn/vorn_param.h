// Parameters, operating modes and the layout of the caller's state buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn_proc.h"

namespace vorn {

// Sizes of the module regions; each module checks the size it is handed.
constexpr int32_t kRegionBfBuffSize = 240000;
constexpr int32_t kRegionNsBuffSize = 64000;
constexpr int32_t kRegionAgcBuffSize = 388;
constexpr int32_t kRegionAecBuffSize = 464724;
constexpr int32_t kVornParamSize = sizeof(T_VornParam);
constexpr int32_t kVornStateSlack = 256;
constexpr int32_t kVornMinBuffSize = VORN_MIN_BUFF_SIZE;
constexpr int kVornModeCount = VORN_MODE_COUNT;

// One pointer, 13 integers and three keys, whatever the pointer width: 1680
// bytes with 8-byte pointers, 1676 with 4-byte ones.
static_assert(sizeof(T_VornKey) == 540);
static_assert(offsetof(T_VornParam, in_argv) == sizeof(void*) + 13 * sizeof(int32_t));
static_assert(sizeof(T_VornParam) == offsetof(T_VornParam, in_argv) + 3 * sizeof(T_VornKey));
static_assert(sizeof(void*) != 8 || kVornParamSize == 1680);
static_assert(sizeof(void*) != 4 || kVornParamSize == 1676);

// An empty hook run first by VornInit.
void AssetCheck();

// Writes the built-in switches of modes 0..mode_num-1 (the filter path is
// left alone).
void ConfigDefault(T_VornParam* pm, int mode_num);

// Copies one key's switches (not its filter path) into the active fields.
void ApplyKey(const T_VornKey& key, T_VornParam* pm);
// ... or into another key.
void CopySwitches(const T_VornKey& from, T_VornKey* to);

// Copies the switches of in_argv[vorn_mode] into the active fields. Returns
// -1 and changes nothing for a mode outside 0..2.
int32_t SwitchMode(T_VornParam* pm);

// The record's own fields: 1 (no record or buffer), 2 (buffer too small), 3
// (another record layout), or 0.
int32_t VornCheckRecord(const T_VornParam* pm);

// Validates the record and its active switches; the first failing check
// decides the code (0 = valid).
int32_t VornParamCheck(const T_VornParam* pm);

// vorn_mode is a mode or VORN_MODE_CUSTOM.
bool VornModeKnown(int32_t mode);

// The three entries name the slots 0, 1 and 2 once each.
bool MicOrderValid(const short* order);

// What VornProc checks before it touches anything: the mode (selected into
// the active fields when it is one), the record and switches, the buffers,
// the microphone order. Returns 0 or the code VornProc returns.
int32_t VornCheckFrameCall(T_VornParam* pm, const short* inp, const short* aec_ref, const short* out,
                           const short* mic_order);

// The same for VornDoa (whose mode is not selected: it searches with the
// active fields as they stand).
int32_t VornCheckDoaCall(const T_VornParam* pm, const short* inp, const short* mic_order, int samples_per_channel);

}  // namespace vorn
