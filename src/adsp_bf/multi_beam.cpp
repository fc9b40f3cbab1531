// Three delay-and-sum beams 120 degrees apart, the first on the configured
// look direction, for the multi-channel post filter (which compares them
// rather than choosing one).
//
// The DC and Nyquist accumulators are deliberately not cleared between
// beams: beam b's DC bin starts from beam b-1's real part of bin 255 (the DC
// accumulator doubles as the per-bin real accumulator), and the Nyquist bin
// sums the Nyquist products of beams 0..b. The carries are part of what these
// beams are and stay; they touch only the two real-only edge bins.
#include "adsp_bf/beamformer.h"
#include "adsp_bf/weight_tables.h"

namespace vorn {

void MbfBeam(float f[3][512], float* y, int b, int angle, MbfCarry& carry) {
  constexpr int kHalf = kBfFftLen / 2;
  // The call record bounds bf_azimuth only for the steered fixed beams; an
  // angle outside 0..359 is taken modulo 360 here so that it can never pick
  // a set outside the table.
  int beam_angle = angle % 360;
  if (beam_angle < 0) beam_angle += 360;
  for (int i = 0; i < b; ++i) {
    beam_angle += 120;
    if (beam_angle > 359) beam_angle -= 360;
  }
  const float* w = doa_tab[beam_angle / 5];

  float& acc_re = carry.re;
  for (int m = 0; m < kBfChannels; ++m) acc_re += w[2 * m] * f[m][0];
  y[0] = acc_re;
  for (int m = 0; m < kBfChannels; ++m) carry.nyquist += w[6 * kHalf + 2 * m] * f[m][kHalf];
  y[kHalf] = carry.nyquist;

  for (int k = 1; k < kHalf; ++k) {
    const float* wk = w + 6 * k;
    acc_re = 0.0f;
    float acc_im = 0.0f;
    for (int m = 0; m < kBfChannels; ++m) {
      const float w_re = wk[2 * m], w_im = wk[2 * m + 1];
      const float x_re = f[m][k], x_im = f[m][kBfFftLen - k];
      acc_re += w_re * x_re - w_im * x_im;
      acc_im += w_im * x_re + w_re * x_im;
    }
    y[k] = acc_re;
    y[kBfFftLen - k] = acc_im;
  }
}

void VornMbf(float f[3][512], float out[3][512], int angle) {
  MbfCarry carry;
  for (int b = 0; b < 3; ++b) MbfBeam(f, out[b], b, angle, carry);
}

}  // namespace vorn
