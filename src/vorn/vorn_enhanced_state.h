// Where the enhanced profile keeps its state, and the record that says which
// profile runs.
//
// Both profiles run in the same caller buffer. The beamformer's region was
// sized at 240,000 bytes for a state of 128,032; the enhanced profile's
// modules keep their state in the unused tail of that region, which the
// beamformer never touches. VornInit clears it with the rest of the buffer and
// prepares every enhanced module whatever the profile, so the profile can be
// switched at any frame boundary.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_enhanced_modules.h"
#include "vorn/vorn_state.h"

namespace vorn {

// Marks a buffer VornInit has prepared; a buffer without it is refused by the
// profile switch rather than trusted.
constexpr uint32_t kEnhancedMagic = 0x4e524f56u;  // "VORN"

constexpr int32_t kProfileClassic = VORN_PROFILE_CLASSIC;
constexpr int32_t kProfileEnhanced = VORN_PROFILE_ENHANCED;

struct TVornEnhancedState {
  uint32_t magic;
  int32_t profile;
  // The previous frame's figures, for stages that run before this frame's
  // are known (the beam steers by the last direction found).
  SpeechPresence last_presence;
  TalkerDirection last_direction;
  EnhancedModules modules;       // one record per enhanced module
};

// The tail of the beamformer's region, from the first 64-byte boundary after
// its state.
constexpr std::size_t kEnhancedRegionOffset =
    (offsetof(TVornState, bf_buff) + sizeof(T_AudioDspState) + 63) / 64 * 64;
constexpr std::size_t kEnhancedRegionBytes = offsetof(TVornState, bf_buff) + kRegionBfBuffSize - kEnhancedRegionOffset;
static_assert(kEnhancedRegionOffset == 128256);
static_assert(kEnhancedRegionBytes == (sizeof(void*) == 8 ? 111960 : 111920));  // the call records hold pointers
static_assert(sizeof(TVornEnhancedState) <= kEnhancedRegionBytes, "enhanced state outgrew its region");
static_assert(alignof(TVornEnhancedState) <= 64);

inline TVornEnhancedState* EnhancedStateOf(TVornState* st) {
  return reinterpret_cast<TVornEnhancedState*>(reinterpret_cast<unsigned char*>(st) + kEnhancedRegionOffset);
}

}  // namespace vorn
