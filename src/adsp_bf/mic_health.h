// Watches the three microphones for the two faults that ruin a beam: a
// microphone that has gone dead (digital zeros, any constant, or far quieter
// than the others) and one that clips (or runs far hotter than the others,
// which clips on the next loud sound). A faulty microphone is left out of the
// beams until it has behaved for a while again.
#pragma once

#include <cstdint>

#include "common/simd4.h"

namespace vorn {

struct MicHealth {
  float power[3];             // smoothed mean square of the frames
  uint32_t frames;            // frames seen, saturating
  uint16_t dead_score[3];     // rises on frames of dead evidence, falls on clean ones
  uint16_t clipped_score[3];  // the same for clipping
  uint32_t dead_mask;         // bit m: microphone m is judged dead
  uint32_t clipped_mask;      // bit m: microphone m is judged clipping
  uint32_t excluded_mask;     // bit m: the caller has left microphone m out
};

void MicHealthInit(MicHealth* health);

// One frame: latest[m] holds microphone m's 256 new samples (whole numbers,
// as the beamformer's analysis buffers keep them).
void MicHealthUpdate(MicHealth* health, const float* const latest[3]);

// Smallest and largest sample and energy of a frame of 256: the reference
// (plain) and, where the build has four-lane vectors (SSE2 or NEON), sixteen
// samples at a time in four vectors with the same partial sums, so both give
// the same bits.
struct FrameStats {
  float lo, hi, energy;
};
FrameStats FrameStatsPlain(const float* x);
#if defined(VORN_SIMD4)
FrameStats FrameStatsSimd(const float* x);
#endif

// Microphones the beams may use: never empty.
uint32_t MicHealthLive(const MicHealth* health);

}  // namespace vorn
