// Three delay-and-sum beams 120 degrees apart, the first on the configured
// look direction, for the multi-channel post filter (which compares them
// rather than choosing one).
//
// The DC and Nyquist accumulators are deliberately not cleared between
// beams: beam b's DC bin starts from beam b-1's real part of bin 255 (the DC
// accumulator doubles as the per-bin real accumulator), and the Nyquist bin
// sums the Nyquist products of beams 0..b. The carries are part of what these
// beams are and stay; they touch only the two real-only edge bins.
//
// The vector twin forms four bins per vector as the fixed beam's does.
#include "adsp_bf/beamformer.h"
#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/weight_tables.h"
#include "common/simd4.h"

namespace vorn {
namespace {

constexpr int kHalf = kBfFftLen / 2;

// The weight set of beam b: 120 degrees on per beam from the look direction.
const float* BeamWeights(int b, int angle) {
  // The call record bounds bf_azimuth only for the steered fixed beams; an
  // angle outside 0..359 is taken modulo 360 here so that it can never pick
  // a set outside the table.
  int beam_angle = angle % 360;
  if (beam_angle < 0) beam_angle += 360;
  for (int i = 0; i < b; ++i) {
    beam_angle += 120;
    if (beam_angle > 359) beam_angle -= 360;
  }
  return doa_tab[beam_angle / 5];
}

// Bins 0 and 256, with the carries.
void EdgeBins(float f[3][512], const float* w, float* y, MbfCarry& carry) {
  for (int m = 0; m < kBfChannels; ++m) carry.re += w[2 * m] * f[m][0];
  y[0] = carry.re;
  for (int m = 0; m < kBfChannels; ++m) carry.nyquist += w[6 * kHalf + 2 * m] * f[m][kHalf];
  y[kHalf] = carry.nyquist;
}

void BinAt(float f[3][512], const float* w, float* y, MbfCarry& carry, int k) {
  float acc_re, acc_im;
  WeightedBin(f, w + 6 * k, k, acc_re, acc_im);
  y[k] = acc_re;
  y[kBfFftLen - k] = acc_im;
  carry.re = acc_re;
}

}  // namespace

void MbfBeamPlain(float f[3][512], float* y, int b, int angle, MbfCarry& carry) {
  const float* w = BeamWeights(b, angle);
  EdgeBins(f, w, y, carry);
  for (int k = 1; k < kHalf; ++k) BinAt(f, w, y, carry, k);
}

#if defined(VORN_SIMD4)
void MbfBeamSimd(float f[3][512], float* y, int b, int angle, MbfCarry& carry) {
  using namespace simd;
  const float* w = BeamWeights(b, angle);
  EdgeBins(f, w, y, carry);
  int k = 1;
  for (; k + 4 <= kHalf; k += 4) {
    F4 re, im;
    WeightedBins4(f, w, k, re, im);
    Store(y + k, re);
    StoreReversed(y + kBfFftLen - k, im);
  }
  // The tail ends on bin 255, whose real part is the carry.
  for (; k < kHalf; ++k) BinAt(f, w, y, carry, k);
}
#endif

void MbfBeam(float f[3][512], float* y, int b, int angle, MbfCarry& carry) {
#if defined(VORN_SIMD4)
  MbfBeamSimd(f, y, b, angle, carry);
#else
  MbfBeamPlain(f, y, b, angle, carry);
#endif
}

void VornMbf(float f[3][512], float out[3][512], int angle) {
  MbfCarry carry;
  for (int b = 0; b < 3; ++b) MbfBeam(f, out[b], b, angle, carry);
}

}  // namespace vorn
