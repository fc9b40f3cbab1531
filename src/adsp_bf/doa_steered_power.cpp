// Steered response power of the direction search: for each candidate
// weight set, the squared magnitude of the weighted sum of the unit-magnitude
// microphone bins, weighted per bin and summed over the search band.
//
// This is the hot loop of the direction finder (72 sets x 205 bins x 3
// microphones per hop). The SSE2 version gives each of four sets its own
// lane and performs exactly the plain loop's operations, in the same order,
// per lane; only the weights are transposed on the fly from the four sets,
// which are read in place.
#include "adsp_bf/adsp_doa.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorn {

namespace {

float SetPower(const float* set, const float (*unit)[3][2], const float* w) {
  float score = 0.0f;
  for (int k = kDoaLowBin; k <= kDoaHighBin; ++k) {
    const float* wk = set + 6 * k;
    const float(*x)[2] = unit[k - kDoaLowBin];
    float re = 0.0f, im = 0.0f;
    for (int m = 0; m < 3; ++m) {
      re += wk[2 * m] * x[m][0] - wk[2 * m + 1] * x[m][1];
      im += wk[2 * m + 1] * x[m][0] + wk[2 * m] * x[m][1];
    }
    score += (re * re + im * im) * w[k];
  }
  return score;
}

}  // namespace

void DoaSteeredPowerPlain(const float* const* sets, int num_sets, const float (*unit)[3][2], const float* w,
                          float* scores) {
  for (int d = 0; d < num_sets; ++d) scores[d] = SetPower(sets[d], unit, w);
}

#if defined(__SSE2__)
void DoaSteeredPowerSse2(const float* const* sets, int num_sets, const float (*unit)[3][2], const float* w,
                         float* scores) {
  int d = 0;
  for (; d + 4 <= num_sets; d += 4) {
    const float* s0 = sets[d];
    const float* s1 = sets[d + 1];
    const float* s2 = sets[d + 2];
    const float* s3 = sets[d + 3];
    __m128 score = _mm_setzero_ps();
    for (int k = kDoaLowBin; k <= kDoaHighBin; ++k) {
      const int at = 6 * k;
      // Rows re0 im0 re1 im1 of the four sets, transposed to one lane per set.
      __m128 w_re0 = _mm_loadu_ps(s0 + at);
      __m128 w_im0 = _mm_loadu_ps(s1 + at);
      __m128 w_re1 = _mm_loadu_ps(s2 + at);
      __m128 w_im1 = _mm_loadu_ps(s3 + at);
      _MM_TRANSPOSE4_PS(w_re0, w_im0, w_re1, w_im1);
      // re2 im2 of each set.
      const __m128 t01 = _mm_unpacklo_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(s0 + at + 4)),
                                         _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(s1 + at + 4)));
      const __m128 t23 = _mm_unpacklo_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(s2 + at + 4)),
                                         _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(s3 + at + 4)));
      const __m128 w_re2 = _mm_movelh_ps(t01, t23);
      const __m128 w_im2 = _mm_movehl_ps(t23, t01);

      const float(*x)[2] = unit[k - kDoaLowBin];
      const __m128 w_re[3] = {w_re0, w_re1, w_re2};
      const __m128 w_im[3] = {w_im0, w_im1, w_im2};
      __m128 re = _mm_setzero_ps(), im = _mm_setzero_ps();
      for (int m = 0; m < 3; ++m) {
        const __m128 x_re = _mm_set1_ps(x[m][0]);
        const __m128 x_im = _mm_set1_ps(x[m][1]);
        re = _mm_add_ps(re, _mm_sub_ps(_mm_mul_ps(w_re[m], x_re), _mm_mul_ps(w_im[m], x_im)));
        im = _mm_add_ps(im, _mm_add_ps(_mm_mul_ps(w_im[m], x_re), _mm_mul_ps(w_re[m], x_im)));
      }
      const __m128 power = _mm_add_ps(_mm_mul_ps(re, re), _mm_mul_ps(im, im));
      score = _mm_add_ps(score, _mm_mul_ps(power, _mm_set1_ps(w[k])));
    }
    _mm_storeu_ps(scores + d, score);
  }
  for (; d < num_sets; ++d) scores[d] = SetPower(sets[d], unit, w);
}
#endif

}  // namespace vorn
