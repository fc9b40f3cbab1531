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

#include <algorithm>

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
// d, the same float. It is also mirrored about the line through microphone
// 0: the weights for -d are those for d with microphones 1 and 2 swapped,
// so the weight of microphone m for kTurn - i is that of microphone
// kMirror[(m + 2) % 3] for i. The test against the plain loop, which reads
// every set, holds the generated tables to both.
//
// So the vector loops read only the first half of each bin's first third
// (directions 0 to kTurn / 2) and form the nine products of those weights
// with the three microphone bins once: each product serves one direction
// turned and one mirrored. Each lane still sums its direction's three
// products over microphones 0, 1, 2 in that order, as the plain loop does;
// it starts from the first product rather than from zero, which can only
// change the sign of a zero sum, and that squares away.
constexpr int kTurn = kBfDirections / 3;
static_assert(kTurn * 3 == kBfDirections);
constexpr int kMirror[3] = {0, 2, 1};

// Which of the weights of a block a turned or mirrored direction pairs with
// microphone m: the direction i + t * kTurn reads microphone (m - t) of i;
// the direction (t + 1) * kTurn - i reads microphone kMirror[m - t - 1] of i.
constexpr int TurnedFrom(int t, int m) { return (m + 3 - t) % 3; }
constexpr int MirroredFrom(int t, int m) { return kMirror[(m + 5 - t) % 3]; }

// The other way round, for a product of microphone m's bin with the weight
// of microphone a: the turn t whose direction it serves turned, and the turn
// u whose direction it serves mirrored (TurnedFrom(t, m) == a, MirroredFrom(u, m) == a).
constexpr int TurnOf(int m, int a) { return (m + 3 - a) % 3; }
constexpr int MirrorTurnOf(int m, int a) { return (m + 5 - kMirror[a]) % 3; }

constexpr bool Inverse() {
  for (int m = 0; m < 3; ++m)
    for (int a = 0; a < 3; ++a)
      if (TurnedFrom(TurnOf(m, a), m) != a || MirroredFrom(MirrorTurnOf(m, a), m) != a) return false;
  return true;
}
static_assert(Inverse());


#if defined(VORN_SIMD4)
void DoaSteeredPowerSimd(const float* search_table, const float (*unit)[3][2], const float* w, float* scores) {
  using namespace simd;
  // Blocks at 0, 4 and 8 give directions 0 to 11 turned and kTurn - 11 to
  // kTurn mirrored; the middle direction (its own mirror image) comes from a
  // block at kTurn / 2 that is only turned.
  static_assert(kTurn == 24, "the blocks below cover a third of 24 directions");
  constexpr int kPairs = 3, kMiddle = kTurn / 2;
  F4 turned[3][kPairs], mirrored[3][kPairs], middle[3];
  for (int t = 0; t < 3; ++t) {
    middle[t] = Zero();
    for (int b = 0; b < kPairs; ++b) turned[t][b] = mirrored[t][b] = Zero();
  }
  for (int b = 0; b < kDoaBandBins; ++b) {
    const float* row = search_table + b * 6 * kBfDirections;  // re0 im0 re1 im1 re2 im2, 72 directions each
    const float(*x)[2] = unit[b];
    const F4 x_re[3] = {Set1(x[0][0]), Set1(x[1][0]), Set1(x[2][0])};
    const F4 x_im[3] = {Set1(x[0][1]), Set1(x[1][1]), Set1(x[2][1])};
    const F4 weight = Set1(w[kDoaLowBin + b]);
    for (int d = 0; d < kPairs; ++d) {
      F4 w_re[3], w_im[3];
      for (int m = 0; m < 3; ++m) {
        w_re[m] = Load(row + (2 * m) * kBfDirections + 4 * d);
        w_im[m] = Load(row + (2 * m + 1) * kBfDirections + 4 * d);
      }
      // Each product once, added to the sums of the two directions it serves.
      F4 t_re[3], t_im[3], m_re[3], m_im[3];
      for (int m = 0; m < 3; ++m) {
        for (int a = 0; a < 3; ++a) {
          const F4 re = Sub(Mul(w_re[a], x_re[m]), Mul(w_im[a], x_im[m]));
          const F4 im = Add(Mul(w_im[a], x_re[m]), Mul(w_re[a], x_im[m]));
          const int t = TurnOf(m, a), u = MirrorTurnOf(m, a);
          t_re[t] = m == 0 ? re : Add(t_re[t], re);
          t_im[t] = m == 0 ? im : Add(t_im[t], im);
          m_re[u] = m == 0 ? re : Add(m_re[u], re);
          m_im[u] = m == 0 ? im : Add(m_im[u], im);
        }
      }
      for (int t = 0; t < 3; ++t) {
        turned[t][d] = Add(turned[t][d], Mul(Add(Mul(t_re[t], t_re[t]), Mul(t_im[t], t_im[t])), weight));
        mirrored[t][d] = Add(mirrored[t][d], Mul(Add(Mul(m_re[t], m_re[t]), Mul(m_im[t], m_im[t])), weight));
      }
    }
    F4 w_re[3], w_im[3];
    for (int m = 0; m < 3; ++m) {
      w_re[m] = Load(row + (2 * m) * kBfDirections + kMiddle);
      w_im[m] = Load(row + (2 * m + 1) * kBfDirections + kMiddle);
    }
    for (int t = 0; t < 3; ++t) {
      F4 re = Zero(), im = Zero();
      for (int m = 0; m < 3; ++m) {
        const int from = TurnedFrom(t, m);
        re = Add(re, Sub(Mul(w_re[from], x_re[m]), Mul(w_im[from], x_im[m])));
        im = Add(im, Add(Mul(w_im[from], x_re[m]), Mul(w_re[from], x_im[m])));
      }
      middle[t] = Add(middle[t], Mul(Add(Mul(re, re), Mul(im, im)), weight));
    }
  }
  // The mirrored lanes run backwards; the block at 0 mirrors its first lane
  // onto the next turn's direction 0, one past the end for the last turn.
  float all[kBfDirections + 1];
  for (int t = 0; t < 3; ++t) {
    for (int d = 0; d < kPairs; ++d) StoreReversed(all + (t + 1) * kTurn - 4 * d, mirrored[t][d]);
    Store(all + t * kTurn + kMiddle, middle[t]);
  }
  for (int t = 0; t < 3; ++t)
    for (int d = 0; d < kPairs; ++d) Store(all + t * kTurn + 4 * d, turned[t][d]);
  std::copy_n(all, kBfDirections, scores);
}
#endif

#if defined(VORN_AVX2)
// The same walk with eight directions per vector: blocks at 0 and 8 give
// directions 0 to 15 turned and 9 to kTurn mirrored.
VORN_TARGET_AVX2 void DoaSteeredPowerAvx2(const float* search_table, const float (*unit)[3][2], const float* w,
                                          float* scores) {
  static_assert(kTurn == 24, "the blocks below cover a third of 24 directions");
  constexpr int kPairs = 2;
  __m256 turned[3][kPairs], mirrored[3][kPairs];
  for (int t = 0; t < 3; ++t)
    for (int b = 0; b < kPairs; ++b) turned[t][b] = mirrored[t][b] = _mm256_setzero_ps();
  for (int b = 0; b < kDoaBandBins; ++b) {
    const float* row = search_table + b * 6 * kBfDirections;
    const float(*x)[2] = unit[b];
    const __m256 x_re[3] = {_mm256_set1_ps(x[0][0]), _mm256_set1_ps(x[1][0]), _mm256_set1_ps(x[2][0])};
    const __m256 x_im[3] = {_mm256_set1_ps(x[0][1]), _mm256_set1_ps(x[1][1]), _mm256_set1_ps(x[2][1])};
    const __m256 weight = _mm256_set1_ps(w[kDoaLowBin + b]);
    for (int d = 0; d < kPairs; ++d) {
      __m256 w_re[3], w_im[3];
      for (int m = 0; m < 3; ++m) {
        w_re[m] = _mm256_loadu_ps(row + (2 * m) * kBfDirections + 8 * d);
        w_im[m] = _mm256_loadu_ps(row + (2 * m + 1) * kBfDirections + 8 * d);
      }
      __m256 t_re[3], t_im[3], m_re[3], m_im[3];
      for (int m = 0; m < 3; ++m) {
        for (int a = 0; a < 3; ++a) {
          const __m256 re = _mm256_sub_ps(_mm256_mul_ps(w_re[a], x_re[m]), _mm256_mul_ps(w_im[a], x_im[m]));
          const __m256 im = _mm256_add_ps(_mm256_mul_ps(w_im[a], x_re[m]), _mm256_mul_ps(w_re[a], x_im[m]));
          const int t = TurnOf(m, a), u = MirrorTurnOf(m, a);
          t_re[t] = m == 0 ? re : _mm256_add_ps(t_re[t], re);
          t_im[t] = m == 0 ? im : _mm256_add_ps(t_im[t], im);
          m_re[u] = m == 0 ? re : _mm256_add_ps(m_re[u], re);
          m_im[u] = m == 0 ? im : _mm256_add_ps(m_im[u], im);
        }
      }
      for (int t = 0; t < 3; ++t) {
        const __m256 tp = _mm256_add_ps(_mm256_mul_ps(t_re[t], t_re[t]), _mm256_mul_ps(t_im[t], t_im[t]));
        turned[t][d] = _mm256_add_ps(turned[t][d], _mm256_mul_ps(tp, weight));
        const __m256 mp = _mm256_add_ps(_mm256_mul_ps(m_re[t], m_re[t]), _mm256_mul_ps(m_im[t], m_im[t]));
        mirrored[t][d] = _mm256_add_ps(mirrored[t][d], _mm256_mul_ps(mp, weight));
      }
    }
  }
  const __m256i backwards = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
  float all[kBfDirections + 1];
  for (int t = 0; t < 3; ++t)
    for (int d = 0; d < kPairs; ++d) {
      _mm256_storeu_ps(all + (t + 1) * kTurn - 8 * d - 7, _mm256_permutevar8x32_ps(mirrored[t][d], backwards));
    }
  for (int t = 0; t < 3; ++t)
    for (int d = 0; d < kPairs; ++d) _mm256_storeu_ps(all + t * kTurn + 8 * d, turned[t][d]);
  std::copy_n(all, kBfDirections, scores);
}
#endif

}  // namespace vorn
