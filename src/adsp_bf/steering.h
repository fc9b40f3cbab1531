// Weights of the enhanced profile's steered beams, designed at run time for
// any look direction and any subset of working microphones.
//
// A beam is Y(k) = sum_m W_m(k) X_m(k) over the packed 512-point spectra of
// the last two hops, brought back by overlap-save. For a plane wave from the
// look direction in the array plane it equals what microphone 0's position
// receives, delayed by kBeamDelay samples: unit gain and no phase shift
// against that microphone at every frequency. Microphone 0's position is the
// reference even when microphone 0 itself is left out.
#pragma once

#include <cstdint>

#include "adsp_bf/audio_dsp_proc.h"

namespace vorn {

// A quarter block: the filters' responses then sit inside the half of the
// overlap-save output that is kept. The classic beams have the same delay.
constexpr int kBeamDelay = 128;
constexpr uint32_t kAllMics = 0x7u;

enum BeamKind : int32_t {
  kBeamDelayAndSum = 0,  // equal weights on the aligned microphones
  kBeamMvdr = 1,         // least diffuse-noise power for the same look response
};

struct BeamDesign {
  float azimuth_deg;   // look direction, the array's own convention
  int32_t kind;        // BeamKind
  uint32_t live_mask;  // bit m: microphone m takes part
};

// Complex weight of each microphone per bin, real and imaginary parts apart
// so that the product runs over contiguous bins.
struct BeamWeights {
  float re[kBfChannels][kBfNumBins];
  float im[kBfChannels][kBfNumBins];
};

// Lead in samples of microphone m over the array centre for a far source in
// the array plane at azimuth_deg.
double MicLeadSamples(int m, double azimuth_deg);

// Designs `design` into `weights`; microphones outside the live mask get 0.
// The MVDR beam assumes a spherically diffuse noise field with a diagonal
// loading of kMvdrDiagonalLoading, as the classic MVDR tables do.
void DesignBeam(const BeamDesign& design, BeamWeights* weights);

// The beam's packed spectrum: Y(k) = sum_m W_m(k) X_m(k), microphones added
// in order 0, 1, 2; DC and Nyquist real.
void ApplyBeam(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y);
constexpr double kMvdrDiagonalLoading = 0.1;

// Per bin k, exp(+j 2 pi k (lead_to - lead_from - delay) / 512): moves a plane
// wave from azimuth_deg as microphone `from` hears it to where microphone
// `to` hears it, `delay` samples later. [bin][re, im].
void AlignmentPhases(int from, int to, double azimuth_deg, double delay, float phases[kBfNumBins][2]);

// exp(-j 2 pi k kBeamDelay / 512), exactly: (-j)^k.
void CommonDelayFactor(int k, float* re, float* im);

}  // namespace vorn
