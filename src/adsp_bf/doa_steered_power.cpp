// Steered response power of the direction search: for each candidate
// weight set, the squared magnitude of the weighted sum of the unit-magnitude
// microphone bins, weighted per bin and summed over the search band.
//
// This is the hot loop of the direction finder (72 sets x 205 bins x 3
// microphones per hop). The plain loop scores one set at a time over the
// sets in place. The vector one walks the bins once over the transposed copy
// of the family (weight_tables.h), where one bin's weights for four
// neighbouring directions fill one vector: each lane performs exactly the
// plain loop's operations, in the same order, for its own direction, so the
// scores are the same bits.
#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/weight_tables.h"
#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

static_assert(kBfSearchFirstBin == kDoaLowBin && kBfSearchBins == kDoaBandBins,
              "the transposed tables cover the search band");

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

// The family turns with the array: the weight of microphone m for the
// direction 120 degrees (kTurn sets) past d is that of microphone m - 1 for
// d, the same float; the test against the plain loop, which reads every set,
// holds the generated tables to it. So the vector loops read only the first
// kTurn directions of each bin's row, a third of the table, and reuse them
// for the other two thirds with the microphones' roles turned; each lane
// still sums over microphones 0, 1, 2 in that order, as the plain loop does.
constexpr int kTurn = kBfDirections / 3;
static_assert(kTurn * 3 == kBfDirections);

#if defined(VORN_SIMD4)
void DoaSteeredPowerSimd(const float* search_table, const float (*unit)[3][2], const float* w, float* scores) {
  using namespace simd;
  static_assert(kTurn % 4 == 0);
  constexpr int kBlocks = kTurn / 4;
  F4 score[3][kBlocks];
  for (auto& turn : score)
    for (F4& s : turn) s = Zero();
  for (int b = 0; b < kDoaBandBins; ++b) {
    const float* row = search_table + b * 6 * kBfDirections;  // re0 im0 re1 im1 re2 im2, 72 directions each
    const float(*x)[2] = unit[b];
    const F4 x_re[3] = {Set1(x[0][0]), Set1(x[1][0]), Set1(x[2][0])};
    const F4 x_im[3] = {Set1(x[0][1]), Set1(x[1][1]), Set1(x[2][1])};
    const F4 weight = Set1(w[kDoaLowBin + b]);
    for (int d = 0; d < kBlocks; ++d) {
      F4 w_re[3], w_im[3];
      for (int m = 0; m < 3; ++m) {
        w_re[m] = Load(row + (2 * m) * kBfDirections + 4 * d);
        w_im[m] = Load(row + (2 * m + 1) * kBfDirections + 4 * d);
      }
      for (int t = 0; t < 3; ++t) {
        F4 re = Zero(), im = Zero();
        for (int m = 0; m < 3; ++m) {
          const int from = (m + 3 - t) % 3;
          re = Add(re, Sub(Mul(w_re[from], x_re[m]), Mul(w_im[from], x_im[m])));
          im = Add(im, Add(Mul(w_im[from], x_re[m]), Mul(w_re[from], x_im[m])));
        }
        score[t][d] = Add(score[t][d], Mul(Add(Mul(re, re), Mul(im, im)), weight));
      }
    }
  }
  for (int t = 0; t < 3; ++t)
    for (int d = 0; d < kBlocks; ++d) Store(scores + t * kTurn + 4 * d, score[t][d]);
}
#endif

#if defined(VORN_AVX2)
// The same walk with eight directions per vector.
VORN_TARGET_AVX2 void DoaSteeredPowerAvx2(const float* search_table, const float (*unit)[3][2], const float* w,
                                          float* scores) {
  static_assert(kTurn % 8 == 0);
  constexpr int kBlocks = kTurn / 8;
  __m256 score[3][kBlocks];
  for (auto& turn : score)
    for (__m256& s : turn) s = _mm256_setzero_ps();
  for (int b = 0; b < kDoaBandBins; ++b) {
    const float* row = search_table + b * 6 * kBfDirections;
    const float(*x)[2] = unit[b];
    const __m256 x_re[3] = {_mm256_set1_ps(x[0][0]), _mm256_set1_ps(x[1][0]), _mm256_set1_ps(x[2][0])};
    const __m256 x_im[3] = {_mm256_set1_ps(x[0][1]), _mm256_set1_ps(x[1][1]), _mm256_set1_ps(x[2][1])};
    const __m256 weight = _mm256_set1_ps(w[kDoaLowBin + b]);
    for (int d = 0; d < kBlocks; ++d) {
      __m256 w_re[3], w_im[3];
      for (int m = 0; m < 3; ++m) {
        w_re[m] = _mm256_loadu_ps(row + (2 * m) * kBfDirections + 8 * d);
        w_im[m] = _mm256_loadu_ps(row + (2 * m + 1) * kBfDirections + 8 * d);
      }
      for (int t = 0; t < 3; ++t) {
        __m256 re = _mm256_setzero_ps(), im = _mm256_setzero_ps();
        for (int m = 0; m < 3; ++m) {
          const int from = (m + 3 - t) % 3;
          re = _mm256_add_ps(re, _mm256_sub_ps(_mm256_mul_ps(w_re[from], x_re[m]), _mm256_mul_ps(w_im[from], x_im[m])));
          im = _mm256_add_ps(im, _mm256_add_ps(_mm256_mul_ps(w_im[from], x_re[m]), _mm256_mul_ps(w_re[from], x_im[m])));
        }
        const __m256 power = _mm256_add_ps(_mm256_mul_ps(re, re), _mm256_mul_ps(im, im));
        score[t][d] = _mm256_add_ps(score[t][d], _mm256_mul_ps(power, weight));
      }
    }
  }
  for (int t = 0; t < 3; ++t)
    for (int d = 0; d < kBlocks; ++d) _mm256_storeu_ps(scores + t * kTurn + 8 * d, score[t][d]);
}
#endif

}  // namespace vorn
