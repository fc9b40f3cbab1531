// The MVDR beam learned from the room: per band, the spatial covariance of
// the noise (hops where the talker is silent) and of the noisy talker (hops
// where the talker speaks) give the talker's transfer function relative to
// microphone 0 as it really reaches the array, reverberation included, and
// the noise field as it really is. The beam designed from them passes
// microphone 0's own image of the talker unchanged and takes the least noise
// power that allows.
#pragma once

#include <cstdint>

#include "adsp_bf/steering.h"

namespace vorn {

// The talker's covariance is kept per band of kNoisyBandBins bins: the
// transfer function of a room changes from bin to bin, and the weights are
// limited to 256 taps, which resolve two bins. The noise field's covariance
// changes slowly with frequency and is kept per band of kNoiseBandBins. The
// last band of each holds the Nyquist bin alone.
constexpr int kNoisyBandBins = 2;
constexpr int kNoiseBandBins = 8;
constexpr int kNoisyBands = (kBfNumBins - 1) / kNoisyBandBins + 1;
constexpr int kNoiseBands = (kBfNumBins - 1) / kNoiseBandBins + 1;
static_assert(kNoiseBandBins % kNoisyBandBins == 0, "a talker band lies inside one noise band");
constexpr int kHermitian3 = 9;

struct LearnedBeam {
  // Entry by entry (three powers, then the real and imaginary parts of the
  // pairs 0-1, 0-2, 1-2), band by band: the mean per bin over the band.
  float noise[kHermitian3][kNoiseBands];
  float noisy[kHermitian3][kNoisyBands];  // the talker plus the noise
  int32_t noise_hops;                     // hops behind each, capped at the averaging length
  int32_t noisy_hops;
  int32_t fresh_talker;  // talker hops taken in since the beam was last designed
  int32_t hop_phase;     // 0..3: which hops are taken in (see LearnedBeamObserve)
  float azimuth_deg;     // the look direction the talker was learned under
};

void LearnedBeamReset(LearnedBeam* lb);

// One hop of the microphones' packed spectra. presence: the talker's speech
// presence, 0..1; hops in between the two thresholds teach nothing. Only
// every fourth hop is taken in: neighbours share half their samples, and a
// covariance averaged over seconds needs no more.
void LearnedBeamObserve(LearnedBeam* lb, float spectrum[kBfChannels][kBfFftLen], float presence);

// Forgets the talker (another one is wanted) but keeps the noise.
void LearnedBeamForgetTalker(LearnedBeam* lb);

// Whether both covariances have seen enough hops to design from.
bool LearnedBeamReady(const LearnedBeam* lb);

// Designs the beam into `weights`, in phase with microphone 0's image and
// delayed by kBeamDelay like the designed beams. Bands where the talker has
// left no trace above the noise take the look direction's free-field
// steering against the learned noise. When the learned talker is not in the
// look direction `azimuth_deg` (or was heard in too few bands to tell) it
// returns false and leaves `weights` alone: the free-field MVDR design
// (DesignBeam) is wanted whole, and the caller may hold it already.
// Either way the design marks the talker hops seen so far as used
// (fresh_talker).
bool LearnedBeamDesign(LearnedBeam* lb, float azimuth_deg, BeamWeights* weights);

}  // namespace vorn
