// The four-lane twins take four bins at a time: real parts forwards, the
// imaginary parts (stored backwards) loaded and turned round, so each lane
// performs the plain loop's operations on its bin in the plain loop's order.
#include "adsp_bf/beam_kernels.h"

#include "adsp_bf/steering.h"
#include "common/simd4.h"

namespace vorn {
namespace {

constexpr int kHalf = kBfFftLen / 2;

static_assert(kBlendBandBins == 4 && kBlendBands == 65, "bands of four bins and one for Nyquist");

float BinPower(const float* spectrum, int k) {
  return spectrum[k] * spectrum[k] + spectrum[kBfFftLen - k] * spectrum[kBfFftLen - k];
}

float BandPower(const float* spectrum, int b) {
  const int k = kBlendBandBins * b;
  return BinPower(spectrum, k) + BinPower(spectrum, k + 1) + BinPower(spectrum, k + 2) + BinPower(spectrum, k + 3);
}

// Band 0 holds DC, which has no imaginary part.
float FirstBandPower(const float* spectrum) {
  return spectrum[0] * spectrum[0] + BinPower(spectrum, 1) + BinPower(spectrum, 2) + BinPower(spectrum, 3);
}

// Bins first..last-1 of the beam, one at a time.
void ApplyBins(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y, int first, int last) {
  for (int m = 0; m < kBfChannels; ++m) {
    const float* xm = x[m];
    const float* w_re = weights.re[m];
    const float* w_im = weights.im[m];
    for (int k = first; k < last; ++k) {
      const float x_re = xm[k], x_im = xm[kBfFftLen - k];
      const float re = w_re[k] * x_re - w_im[k] * x_im;
      const float im = w_im[k] * x_re + w_re[k] * x_im;
      y[k] = m == 0 ? re : y[k] + re;
      y[kBfFftLen - k] = m == 0 ? im : y[kBfFftLen - k] + im;
    }
  }
}

void ApplyEdges(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y) {
  y[0] = 0.0f;
  y[kHalf] = 0.0f;
  for (int m = 0; m < kBfChannels; ++m) {
    y[0] += weights.re[m][0] * x[m][0];
    y[kHalf] += weights.re[m][kHalf] * x[m][kHalf];
  }
}

// Bin k of microphone 0 delayed by a quarter block: (re, im) times (-j)^k.
void DelayedBin(const float* x0, int k, float* re, float* im) {
  const float x_re = x0[k], x_im = x0[kBfFftLen - k];
  switch (k & 3) {
    case 0: *re = x_re; *im = x_im; break;
    case 1: *re = x_im; *im = -x_re; break;
    case 2: *re = -x_re; *im = -x_im; break;
    default: *re = -x_im; *im = x_re; break;
  }
}

void BlendBins(float s, const float* x0, float* y, int first, int last) {
  for (int k = first; k < last; ++k) {
    float r_re, r_im;
    DelayedBin(x0, k, &r_re, &r_im);
    y[k] += s * (r_re - y[k]);
    y[kBfFftLen - k] += s * (r_im - y[kBfFftLen - k]);
  }
}

// DC with band 0 (its delay factor is 1), Nyquist alone ((-j)^256 = 1).
void BlendEdges(const float share[kBlendBands], const float* x0, float* y) {
  y[0] += share[0] * (x0[0] - y[0]);
  y[kHalf] += share[kBlendBands - 1] * (x0[kHalf] - y[kHalf]);
}

}  // namespace

void BlendTowardsMic0Plain(const float share[kBlendBands], const float* x0, float* y) {
  BlendEdges(share, x0, y);
  BlendBins(share[0], x0, y, 1, kBlendBandBins);
  for (int b = 1; b + 1 < kBlendBands; ++b) BlendBins(share[b], x0, y, kBlendBandBins * b, kBlendBandBins * (b + 1));
}

void ApplyBeamPlain(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y) {
  ApplyBins(weights, x, y, 1, kHalf);
  ApplyEdges(weights, x, y);
}

void BandPowersPlain(const float* spectrum, float power[kBlendBands]) {
  power[0] = FirstBandPower(spectrum);
  for (int b = 1; b + 1 < kBlendBands; ++b) power[b] = BandPower(spectrum, b);
  power[kBlendBands - 1] = spectrum[kHalf] * spectrum[kHalf];
}

#if defined(VORN_SIMD4)

// Bins 1..252 four at a time, 253..255 alone.
void ApplyBeamSimd4(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y) {
  using namespace simd;
  constexpr int kVectorEnd = 1 + (kHalf - 1) / 4 * 4;
  for (int k = 1; k < kVectorEnd; k += 4) {
    F4 sum_re = Set1(0.0f), sum_im = Set1(0.0f);
    for (int m = 0; m < kBfChannels; ++m) {
      const F4 x_re = Load(x[m] + k);
      const F4 x_im = Reverse(Load(x[m] + kBfFftLen - k - 3));
      const F4 w_re = Load(weights.re[m] + k);
      const F4 w_im = Load(weights.im[m] + k);
      const F4 re = Sub(Mul(w_re, x_re), Mul(w_im, x_im));
      const F4 im = Add(Mul(w_im, x_re), Mul(w_re, x_im));
      sum_re = m == 0 ? re : Add(sum_re, re);
      sum_im = m == 0 ? im : Add(sum_im, im);
    }
    Store(y + k, sum_re);
    Store(y + kBfFftLen - k - 3, Reverse(sum_im));
  }
  ApplyBins(weights, x, y, kVectorEnd, kHalf);
  ApplyEdges(weights, x, y);
}

#if defined(VORN_AVX2)
// Bins 1..248 eight at a time, 249..255 alone: the four-lane kernel's
// operations lane by lane, the beam being the enhanced hop's largest pass.
VORN_TARGET_AVX2 void ApplyBeamAvx2(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y) {
  constexpr int kVectorEnd = 1 + (kHalf - 1) / 8 * 8;
  const __m256i reverse = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
  for (int k = 1; k < kVectorEnd; k += 8) {
    __m256 sum_re = _mm256_setzero_ps(), sum_im = _mm256_setzero_ps();
    for (int m = 0; m < kBfChannels; ++m) {
      const __m256 x_re = _mm256_loadu_ps(x[m] + k);
      const __m256 x_im = _mm256_permutevar8x32_ps(_mm256_loadu_ps(x[m] + kBfFftLen - k - 7), reverse);
      const __m256 w_re = _mm256_loadu_ps(weights.re[m] + k);
      const __m256 w_im = _mm256_loadu_ps(weights.im[m] + k);
      const __m256 re = _mm256_sub_ps(_mm256_mul_ps(w_re, x_re), _mm256_mul_ps(w_im, x_im));
      const __m256 im = _mm256_add_ps(_mm256_mul_ps(w_im, x_re), _mm256_mul_ps(w_re, x_im));
      sum_re = m == 0 ? re : _mm256_add_ps(sum_re, re);
      sum_im = m == 0 ? im : _mm256_add_ps(sum_im, im);
    }
    _mm256_storeu_ps(y + k, sum_re);
    _mm256_storeu_ps(y + kBfFftLen - k - 7, _mm256_permutevar8x32_ps(sum_im, reverse));
  }
  ApplyBins(weights, x, y, kVectorEnd, kHalf);
  ApplyEdges(weights, x, y);
}
#endif

// Bands 1..60 four at a time (a transpose turns four bands' bin powers into
// four sums), 61..63 alone.
void BandPowersSimd4(const float* spectrum, float power[kBlendBands]) {
  using namespace simd;
  constexpr int kVectorEnd = 1 + (kBlendBands - 2) / 4 * 4;
  power[0] = FirstBandPower(spectrum);
  for (int b = 1; b < kVectorEnd; b += 4) {
    F4 p[4];
    for (int i = 0; i < 4; ++i) {
      const int k = kBlendBandBins * (b + i);
      const F4 re = Load(spectrum + k);
      const F4 im = Reverse(Load(spectrum + kBfFftLen - k - 3));
      p[i] = Add(Mul(re, re), Mul(im, im));
    }
    Transpose(p[0], p[1], p[2], p[3]);
    Store(power + b, Add(Add(Add(p[0], p[1]), p[2]), p[3]));
  }
  for (int b = kVectorEnd; b + 1 < kBlendBands; ++b) power[b] = BandPower(spectrum, b);
  power[kBlendBands - 1] = spectrum[kHalf] * spectrum[kHalf];
}

// One band of four bins per step; band b starts at bin 4b, so its lanes
// take the delay factors 1, -j, -1, j in that order.
void BlendTowardsMic0Simd4(const float share[kBlendBands], const float* x0, float* y) {
  using namespace simd;
  BlendEdges(share, x0, y);
  BlendBins(share[0], x0, y, 1, kBlendBandBins);
  const M4 odd = Gt(Set(0.0f, 1.0f, 0.0f, 1.0f), Set1(0.5f));
  const F4 re_sign = Set(1.0f, 1.0f, -1.0f, -1.0f), im_sign = Set(1.0f, -1.0f, -1.0f, 1.0f);
  for (int b = 1; b + 1 < kBlendBands; ++b) {
    const int k = kBlendBandBins * b;
    const F4 s = Set1(share[b]);
    const F4 x_re = Load(x0 + k);
    const F4 x_im = Reverse(Load(x0 + kBfFftLen - k - 3));
    const F4 r_re = Mul(Select(odd, x_im, x_re), re_sign);
    const F4 r_im = Mul(Select(odd, x_re, x_im), im_sign);
    const F4 y_re = Load(y + k);
    const F4 y_im = Reverse(Load(y + kBfFftLen - k - 3));
    Store(y + k, Add(y_re, Mul(s, Sub(r_re, y_re))));
    Store(y + kBfFftLen - k - 3, Reverse(Add(y_im, Mul(s, Sub(r_im, y_im)))));
  }
}

#endif

}  // namespace vorn
