// Run-time beam design. For a look direction az the array's steering vector
// is d_m(k) = exp(+j 2 pi k tau_m / 512), tau_m the lead of microphone m over
// the centre. With Gamma the diffuse-field coherence of the live microphones
// plus a diagonal loading, the MVDR weights are w = Gamma^-1 d / (d^H Gamma^-1 d).
// Every pair of microphones is one chord apart, so Gamma = a I + g 1 1^T
// with g = sin(x)/x of the chord and a = 1 + loading - g, whose inverse is
// (I - g / (a + n g) 1 1^T) / a: the design is a few operations per bin and
// no matrix solve. Delay-and-sum is the same formula with g = 0. The stored
// weights are conj(w) times d_0 (microphone 0's phase) and the common delay,
// so the look direction comes out exactly as microphone 0's position hears it.
// Steering vectors come from a per-bin rotation in double, which keeps its
// error far below float resolution over the 257 bins.
#include "adsp_bf/steering.h"

#include "adsp_bf/beam_kernels.h"
#include "common/simd4.h"

#include <cmath>
#include <complex>

#include "vorn_array.h"

namespace vorn {
namespace {

using Complex = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;
// Centre to microphone, in samples: the largest lead of a microphone over the
// centre for a source in the array plane.
constexpr double kRadiusSamples = VORN_ARRAY_RADIUS_M * VORN_SAMPLE_RATE_HZ / VORN_SPEED_OF_SOUND_M_S;
// Every pair of microphones is one chord, radius * sqrt(3), apart.
constexpr double kChordM = VORN_ARRAY_RADIUS_M * 1.7320508075688772;

// exp(-j 2 pi k kBeamDelay / 512) = (-j)^k for the quarter-block delay.
Complex CommonDelay(int k) {
  static_assert(kBeamDelay * 4 == kBfFftLen, "the delay factor below is (-j)^k");
  switch (k & 3) {
    case 0: return {1.0, 0.0};
    case 1: return {0.0, -1.0};
    case 2: return {-1.0, 0.0};
    default: return {0.0, 1.0};
  }
}

// Per-bin rotation of microphone m's steering phase.
Complex SteeringStep(int m, double azimuth_deg) {
  return std::polar(1.0, 2.0 * kPi * MicLeadSamples(m, azimuth_deg) / kBfFftLen);
}

double DiffuseCoherence(int k) {
  const double hz = k * static_cast<double>(VORN_SAMPLE_RATE_HZ) / kBfFftLen;
  const double x = 2.0 * kPi * hz * kChordM / VORN_SPEED_OF_SOUND_M_S;
  return x == 0.0 ? 1.0 : std::sin(x) / x;
}

}  // namespace

double MicLeadSamples(int m, double azimuth_deg) {
  return kRadiusSamples * std::cos((azimuth_deg - VORN_MIC_AZIMUTH_DEG(m)) * kPi / 180.0);
}

void DesignBeam(const BeamDesign& design, BeamWeights* weights) {
  Complex step[kBfChannels], d[kBfChannels];
  int live = 0;
  for (int m = 0; m < kBfChannels; ++m) {
    step[m] = SteeringStep(m, design.azimuth_deg);
    d[m] = 1.0;
    live += (design.live_mask >> m) & 1u;
  }
  for (int k = 0; k < kBfNumBins; ++k) {
    const double g = design.kind == kBeamMvdr ? DiffuseCoherence(k) : 0.0;
    const double a = 1.0 + (design.kind == kBeamMvdr ? kMvdrDiagonalLoading : 0.0) - g;
    const double beta = g / (a + live * g);
    Complex sum = 0.0;
    for (int m = 0; m < kBfChannels; ++m)
      if ((design.live_mask >> m) & 1u) sum += d[m];
    const double den = live - beta * std::norm(sum);
    const Complex look = d[0] * CommonDelay(k);
    for (int m = 0; m < kBfChannels; ++m) {
      Complex w = 0.0;
      if ((design.live_mask >> m) & 1u) w = std::conj((d[m] - beta * sum) / den) * look;
      weights->re[m][k] = static_cast<float>(w.real());
      weights->im[m][k] = static_cast<float>(w.imag());
    }
    for (int m = 0; m < kBfChannels; ++m) d[m] *= step[m];
  }
}

void ApplyBeam(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return ApplyBeamAvx2(weights, x, y);
#endif
#if defined(VORN_SIMD4)
  ApplyBeamSimd4(weights, x, y);
#else
  ApplyBeamPlain(weights, x, y);
#endif
}

void AlignmentPhases(int from, int to, double azimuth_deg, double delay, float phases[kBfNumBins][2]) {
  const Complex step = std::polar(
      1.0, 2.0 * kPi * (MicLeadSamples(to, azimuth_deg) - MicLeadSamples(from, azimuth_deg) - delay) / kBfFftLen);
  Complex rotation = 1.0;
  for (int k = 0; k < kBfNumBins; ++k) {
    phases[k][0] = static_cast<float>(rotation.real());
    phases[k][1] = static_cast<float>(rotation.imag());
    rotation *= step;
  }
}

void CommonDelayFactor(int k, float* re, float* im) {
  const Complex factor = CommonDelay(k);
  *re = static_cast<float>(factor.real());
  *im = static_cast<float>(factor.imag());
}

}  // namespace vorn
