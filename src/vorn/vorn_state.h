// The layout of the caller's state buffer: one region per module, in a fixed
// order and with fixed sizes that the modules check.
#pragma once

#include <cstddef>
#include <cstdint>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "vorn/vorn_param.h"

namespace vorn {

struct TVornState {
  TNsParam ns_pm[3];        // the three suppressor instances of the main path
  TNsParam ns_vad_pm;       // the VAD's suppressor instance
  TBfParam bf_pm;           // beamformer and direction finding
  unsigned char bf_buff[kRegionBfBuffSize];
  unsigned char ns_buff[3][kRegionNsBuffSize];
  unsigned char ns_vad_buff[kRegionNsBuffSize];
  unsigned char agc_buff[kRegionAgcBuffSize];
  unsigned char aec_buff[kRegionAecBuffSize];
};

// The module call records hold one pointer each, so the record's size
// depends on the pointer width: 961,328 bytes with 8-byte pointers, 961,288
// with 4-byte ones.
constexpr int32_t kVornStateSize = sizeof(TVornState);
constexpr std::size_t kCallRecordsSize = 4 * sizeof(TNsParam) + sizeof(TBfParam);
static_assert(offsetof(TVornState, ns_vad_pm) == 3 * sizeof(TNsParam));
static_assert(offsetof(TVornState, bf_pm) == 4 * sizeof(TNsParam));
static_assert(offsetof(TVornState, bf_buff) == kCallRecordsSize);
static_assert(offsetof(TVornState, ns_buff) == kCallRecordsSize + 240000);
static_assert(offsetof(TVornState, ns_vad_buff) == kCallRecordsSize + 432000);
static_assert(offsetof(TVornState, agc_buff) == kCallRecordsSize + 496000);
static_assert(offsetof(TVornState, aec_buff) == kCallRecordsSize + 496388);
static_assert(sizeof(TVornState) == kCallRecordsSize + 961112);
static_assert(sizeof(void*) != 8 || kVornStateSize == 961328);
static_assert(sizeof(void*) != 4 || kVornStateSize == 961288);

// The state record sits at the first 64-byte boundary of the caller's buffer,
// so that no module depends on how the caller aligned it; the parameter check
// demands far more than the record plus this offset.
constexpr std::uintptr_t kStateAlign = 64;
static_assert(kVornStateSize + kStateAlign + 16 < kVornMinBuffSize);

inline TVornState* VornStateOf(const T_VornParam* pm) {
  const auto addr = reinterpret_cast<std::uintptr_t>(pm->p_data);
  return reinterpret_cast<TVornState*>((addr + kStateAlign - 1) & ~(kStateAlign - 1));
}

// The echo canceller's region starts 4 bytes past an 8-byte boundary; its
// instance is placed at the next 16-byte boundary. It may then run up to 12
// bytes past the region's end, which is the last region, into bytes the
// caller's buffer is guaranteed to have.
inline void* AecInstanceOf(TVornState* st) {
  const auto addr = reinterpret_cast<std::uintptr_t>(st->aec_buff);
  return reinterpret_cast<void*>((addr + 15) & ~std::uintptr_t{15});
}

}  // namespace vorn
