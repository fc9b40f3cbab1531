// Fixed beams: a per-bin complex weighted sum of the three microphone
// spectra with a weight set chosen from the constant tables.
#pragma once

#include "common/simd4.h"

namespace vorn {

// Writes one packed 512-point beam spectrum to out. fbf_type is the beam
// type (1 delay-and-sum, 2 MVDR, 3/4 GSC references, 5/6 sector beams,
// 7 the fixed set ls_w_300, anything else the fall-back mvdr_w_0); angle
// picks the direction for types 1 to 4.
void FixedBF(float f[3][512], float* out, int fbf_type, int angle);
void FixedBFPlain(float f[3][512], float* out, int fbf_type, int angle);

// Bin k in 1..255 of a weighted sum of the three microphones' packed
// spectra; wk points at the bin's weights (the microphones' re, im). The
// microphones are added in order 0, 1, 2 to +0: every beam and blocking
// output of the classic path sums a bin this way, and its vector twins
// follow the same order.
inline void WeightedBin(const float f[3][512], const float* wk, int k, float& re, float& im) {
  re = 0.0f;
  im = 0.0f;
  for (int m = 0; m < 3; ++m) {
    const float w_re = wk[2 * m], w_im = wk[2 * m + 1];
    const float x_re = f[m][k], x_im = f[m][512 - k];
    re += w_re * x_re - w_im * x_im;
    im += w_im * x_re + w_re * x_im;
  }
}

#if defined(VORN_SIMD4)
void FixedBFSimd(float f[3][512], float* out, int fbf_type, int angle);

// Bins k..k+3 (1 <= k, k + 3 <= 255) of the weighted sum with the weight
// set w (six floats per bin: the microphones' re, im), each lane adding the
// microphones in order 0, 1, 2 to +0 as the plain bin does. re holds the
// bins in order; im holds bin k + i's imaginary part in lane i, which the
// packed spectrum keeps at 512 - k - i.
inline void WeightedBins4(float f[3][512], const float* w, int k, simd::F4& re, simd::F4& im) {
  using namespace simd;
  // Pairs (re, im) p(bin, mic): v0 = p00 p01, v1 = p02 p10, v2 = p11 p12,
  // v3 = p20 p21, v4 = p22 p30, v5 = p31 p32.
  const float* wk = w + 6 * k;
  const F4 v0 = Load(wk), v1 = Load(wk + 4), v2 = Load(wk + 8), v3 = Load(wk + 12), v4 = Load(wk + 16),
           v5 = Load(wk + 20);
  const F4 pairs[3][2] = {{LowPairs(v0, SwapPairs(v1)), LowPairs(v3, SwapPairs(v4))},
                          {HighPairs(v0, SwapPairs(v2)), HighPairs(v3, SwapPairs(v5))},
                          {LowPairs(v1, SwapPairs(v2)), LowPairs(v4, SwapPairs(v5))}};
  re = Zero();
  im = Zero();
  for (int m = 0; m < 3; ++m) {
    F4 w_re, w_im;
    Deinterleave(pairs[m][0], pairs[m][1], w_re, w_im);
    const F4 x_re = Load(f[m] + k), x_im = LoadReversed(f[m] + 512 - k);
    re = Add(re, Sub(Mul(w_re, x_re), Mul(w_im, x_im)));
    im = Add(im, Add(Mul(w_im, x_re), Mul(w_re, x_im)));
  }
}
#endif

// Index 0, 1 or 2 of the delay-and-sum sector (0, 120, 240 degrees) with the
// most energy between about 531 Hz and 6.9 kHz.
int SelectBf(float f[3][512]);

}  // namespace vorn
