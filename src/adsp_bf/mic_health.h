// Watches the three microphones for the two faults that ruin a beam: a
// microphone that has gone dead (digital zeros, or any constant) and one that
// clips. A faulty microphone is left out of the beams until it has behaved
// for a while again.
#pragma once

#include <cstdint>

namespace vorn {

struct MicHealth {
  uint16_t dead_score[3];     // rises on frames of dead evidence, falls on clean ones
  uint16_t clipped_score[3];  // the same for clipping
  uint32_t dead_mask;         // bit m: microphone m is judged dead
  uint32_t clipped_mask;      // bit m: microphone m is judged clipping
  uint32_t excluded_mask;     // bit m: the caller has left microphone m out
};

void MicHealthInit(MicHealth* health);

// One frame of 256 interleaved samples per microphone; microphone m is read
// from slot order[m] (each 0..2).
void MicHealthUpdate(MicHealth* health, const short* inp, const short order[3]);

// Microphones the beams may use: never empty.
uint32_t MicHealthLive(const MicHealth* health);

}  // namespace vorn
