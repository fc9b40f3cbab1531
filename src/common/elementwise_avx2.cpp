// Eight-lane twins of the element-wise array helpers (and of the bin powers,
// element-wise over the spectrum's mirrored halves). Each lane performs the
// plain loop's operation on its element (vminps picks as a < b ? a : b does,
// NaN and signed zeros included; the products and sums keep their order and
// are never fused), so the bits are the plain loop's. An output that overlaps
// an input other than exactly takes the plain loop, whose element order then
// matters.
#include "common/adsp_common_util.h"

#if defined(VORN_AVX2)

namespace vorn {

namespace {

// True when out and in share memory without being the same array.
inline bool OverlapsOffset(const float *in, const float *out, int length) {
  return out != in && out < in + length && in < out + length;
}

}  // namespace

VORN_TARGET_AVX2 void SmoothDataAvx2(float *y, const float *x, float alpha, int length) {
  if (OverlapsOffset(x, y, length)) return SmoothDataPlain(y, x, alpha, length);
  const float beta = 1.0f - alpha;
  const __m256 a = _mm256_set1_ps(alpha), b = _mm256_set1_ps(beta);
  int i = 0;
  for (; i + 8 <= length; i += 8) {
    const __m256 kept = _mm256_mul_ps(a, _mm256_loadu_ps(y + i));
    _mm256_storeu_ps(y + i, _mm256_add_ps(kept, _mm256_mul_ps(b, _mm256_loadu_ps(x + i))));
  }
  if (i < length) SmoothDataPlain(y + i, x + i, alpha, length - i);
}

VORN_TARGET_AVX2 void DataMinAvx2(const float *a, const float *b, int length, float *c) {
  if (OverlapsOffset(a, c, length) || OverlapsOffset(b, c, length)) return DataMinPlain(a, b, length, c);
  int i = 0;
  for (; i + 8 <= length; i += 8) _mm256_storeu_ps(c + i, _mm256_min_ps(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i)));
  if (i < length) DataMinPlain(a + i, b + i, length - i, c + i);
}

VORN_TARGET_AVX2 void DataMultAvx2(const float *a, const float *b, int length, float scale, float *c) {
  if (OverlapsOffset(a, c, length) || OverlapsOffset(b, c, length)) return DataMultPlain(a, b, length, scale, c);
  const __m256 s = _mm256_set1_ps(scale);
  int i = 0;
  for (; i + 8 <= length; i += 8) {
    const __m256 product = _mm256_mul_ps(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i));
    _mm256_storeu_ps(c + i, _mm256_mul_ps(product, s));
  }
  if (i < length) DataMultPlain(a + i, b + i, length - i, scale, c + i);
}

VORN_TARGET_AVX2 void AddWinAvx2(const float *au, const float *win, int len, float *win_out) {
  if (OverlapsOffset(au, win_out, len) || OverlapsOffset(win, win_out, len)) return AddWinPlain(au, win, len, win_out);
  int i = 0;
  for (; i + 8 <= len; i += 8)
    _mm256_storeu_ps(win_out + i, _mm256_mul_ps(_mm256_loadu_ps(win + i), _mm256_loadu_ps(au + i)));
  if (i < len) AddWinPlain(au + i, win + i, len - i, win_out + i);
}

// psd[k] = f[k] f[k] + f[n - k] f[n - k], eight k at a time: the second
// operand's eight floats are loaded from f[n - k - 7] up and reversed.
VORN_TARGET_AVX2 void GetPsdAvx2(const float *f, int fft_len, float *psd) {
  const int half = fft_len / 2;
  if (fft_len <= 0 || OverlapsOffset(f, psd, fft_len)) return GetPsdPlain(f, fft_len, psd);
  psd[0] = f[0] * f[0];
  const __m256i backwards = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
  int k = 1;
  for (; k + 8 <= half; k += 8) {
    const __m256 re = _mm256_loadu_ps(f + k);
    const __m256 im = _mm256_permutevar8x32_ps(_mm256_loadu_ps(f + fft_len - k - 7), backwards);
    _mm256_storeu_ps(psd + k, _mm256_add_ps(_mm256_mul_ps(re, re), _mm256_mul_ps(im, im)));
  }
  for (; k < half; ++k) psd[k] = f[k] * f[k] + f[fft_len - k] * f[fft_len - k];
  psd[half] = f[half] * f[half];
}

}  // namespace vorn

#endif
