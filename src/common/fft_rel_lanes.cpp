// The lane-transposed transforms. A block of n vectors holds the blocks'
// elements side by side; the bit-reversal permutation is folded into the
// turns that bring the blocks in (forward) and out (inverse), so the work
// between them is the plain transform's butterflies, with the plain
// twiddles and the plain forms (the forward's 2a - (a - b) sums included).
// Within a stage (forward) or a group size (inverse) the butterflies are
// independent, so they run twiddle by twiddle rather than group by group,
// which loads each twiddle once; every value still sees the same operations.
#include "common/fft_rel_lanes.h"

#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/cpu_avx2.h"
#include "common/fft_rel_columns.h"
#include "common/simd4.h"

namespace vorn {

#if defined(VORN_SIMD4)
namespace {

using simd::F4;

constexpr int kTwiddleTurn = 1024;  // sincos_t_ext: sin over this many steps per turn
constexpr int kCosOffset = kTwiddleTurn / 4;

// rev_m(p) for n = 128, 256, 512, from the 8-bit reversal table.
inline int Reversed(int p, int n) {
  if (n == 512) return p < 256 ? 2 * fft256_read_indexes[p] : 2 * fft256_read_indexes[p - 256] + 1;
  if (n == 256) return fft256_read_indexes[p];
  return fft256_read_indexes[p] >> 1;
}

// For p a multiple of 4, rev(p + q) = rev(p) + rev_2(q) n / 4.
struct FourReversed {
  int at[4];
};
inline FourReversed ReversedFour(int p, int n) {
  const int base = Reversed(p, n);
  return {{base, base + n / 2, base + n / 4, base + 3 * n / 4}};
}

// c[rev(p)] = (x[0][p], .., x[3][p]); missing blocks read as zeros.
template <int n>
void TurnInReversed(float *const *x, int count, F4 *c) {
  using namespace simd;
  for (int p = 0; p < n; p += 4) {
    F4 r[4];
    for (int b = 0; b < kFftRelLanes; ++b) r[b] = b < count ? Load(x[b] + p) : Zero();
    Transpose(r[0], r[1], r[2], r[3]);
    const FourReversed to = ReversedFour(p, n);
    for (int q = 0; q < 4; ++q) c[to.at[q]] = r[q];
  }
}

template <int n>
void TurnIn(float *const *x, int count, F4 *c) {
  using namespace simd;
  for (int p = 0; p < n; p += 4) {
    F4 r[4];
    for (int b = 0; b < kFftRelLanes; ++b) r[b] = b < count ? Load(x[b] + p) : Zero();
    Transpose(r[0], r[1], r[2], r[3]);
    for (int q = 0; q < 4; ++q) c[p + q] = r[q];
  }
}

template <int n>
void TurnOut(const F4 *c, int count, float *const *x) {
  using namespace simd;
  for (int p = 0; p < n; p += 4) {
    F4 r[4] = {c[p], c[p + 1], c[p + 2], c[p + 3]};
    Transpose(r[0], r[1], r[2], r[3]);
    for (int b = 0; b < count; ++b) Store(x[b] + p, r[b]);
  }
}

// x[b][p] = lane b of c[rev(p)] * scale.
template <int n>
void TurnOutReversedScaled(const F4 *c, int count, float scale, float *const *x) {
  using namespace simd;
  const F4 s = Set1(scale);
  for (int p = 0; p < n; p += 4) {
    F4 r[4];
    const FourReversed from = ReversedFour(p, n);
    for (int q = 0; q < 4; ++q) r[q] = Mul(c[from.at[q]], s);
    Transpose(r[0], r[1], r[2], r[3]);
    for (int b = 0; b < count; ++b) Store(x[b] + p, r[b]);
  }
}

// Butterfly j of every group of a forward stage (j = 1 .. quarter - 1).
inline void ForwardTwiddled(F4 *x, int n, int j, int quarter, int step) {
  using namespace simd;
  const int half = 2 * quarter;
  const int group = 2 * half;
  const F4 two = Set1(2.0f);
  const F4 cc = Set1(sincos_t_ext[kCosOffset + j * step]), ss = Set1(sincos_t_ext[j * step]);
  for (int i = 0; i < n; i += group) {
    F4 *p1 = x + i + j;
    F4 *p2 = x + i - j + half;
    F4 *p3 = p1 + half;
    F4 *p4 = x + i - j + group;
    const F4 t1 = Add(Mul(*p3, cc), Mul(*p4, ss));
    const F4 t2 = Sub(Mul(*p3, ss), Mul(*p4, cc));
    const F4 a2 = *p2;
    *p4 = Sub(a2, t2);
    *p3 = Sub(*p4, Mul(two, a2));
    const F4 a1 = *p1;
    *p2 = Sub(a1, t1);
    *p1 = Sub(Mul(two, a1), *p2);
  }
}

// The twiddles of butterfly j of a group size (step: kTwiddleTurn / group).
inline fft_columns::InverseTwiddleVectors InverseTwiddlesAt(int j, int step) {
  using namespace simd;
  return {Set1(sincos_t_ext[kCosOffset + j * step]), Set1(sincos_t_ext[j * step]),
          Set1(sincos_t_ext[kCosOffset + 3 * j * step]), Set1(sincos_t_ext[3 * j * step])};
}

#if defined(VORN_AVX2)
// With AVX2 the butterflies j and j + 1 of a group run side by side, j in
// the low four lanes: their ascending operands are neighbouring columns (one
// load), their descending ones too, the other way round (one load and a swap
// of the halves). Butterfly 1 runs alone.
VORN_TARGET_AVX2 inline __m256 Pair(const F4 *p) { return _mm256_loadu_ps(reinterpret_cast<const float *>(p)); }
VORN_TARGET_AVX2 inline void PutPair(F4 *p, __m256 v) { _mm256_storeu_ps(reinterpret_cast<float *>(p), v); }
// p[0] low, p[-1] high.
VORN_TARGET_AVX2 inline __m256 PairDown(const F4 *p) {
  const __m256 v = _mm256_loadu_ps(reinterpret_cast<const float *>(p - 1));
  return _mm256_permute2f128_ps(v, v, 1);
}
VORN_TARGET_AVX2 inline void PutPairDown(F4 *p, __m256 v) {
  _mm256_storeu_ps(reinterpret_cast<float *>(p - 1), _mm256_permute2f128_ps(v, v, 1));
}
VORN_TARGET_AVX2 inline __m256 TwiddlePair(int lo, int hi) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_set1_ps(sincos_t_ext[lo])), _mm_set1_ps(sincos_t_ext[hi]), 1);
}

VORN_TARGET_AVX2 void ForwardTwiddledAvx2(F4 *x, int n, int quarter, int step) {
  const int half = 2 * quarter;
  const int group = 2 * half;
  ForwardTwiddled(x, n, 1, quarter, step);
  const __m256 two = _mm256_set1_ps(2.0f);
  for (int j = 2; j < quarter; j += 2) {
    const __m256 cc = TwiddlePair(kCosOffset + j * step, kCosOffset + (j + 1) * step);
    const __m256 ss = TwiddlePair(j * step, (j + 1) * step);
    for (int i = 0; i < n; i += group) {
      F4 *p1 = x + i + j;
      F4 *p2 = x + i - j + half;
      F4 *p3 = p1 + half;
      F4 *p4 = x + i - j + group;
      const __m256 x3 = Pair(p3), x4 = PairDown(p4);
      const __m256 t1 = _mm256_add_ps(_mm256_mul_ps(x3, cc), _mm256_mul_ps(x4, ss));
      const __m256 t2 = _mm256_sub_ps(_mm256_mul_ps(x3, ss), _mm256_mul_ps(x4, cc));
      const __m256 a2 = PairDown(p2);
      const __m256 new4 = _mm256_sub_ps(a2, t2);
      PutPairDown(p4, new4);
      PutPair(p3, _mm256_sub_ps(new4, _mm256_mul_ps(two, a2)));
      const __m256 a1 = Pair(p1);
      const __m256 new2 = _mm256_sub_ps(a1, t1);
      PutPairDown(p2, new2);
      PutPair(p1, _mm256_sub_ps(_mm256_mul_ps(two, a1), new2));
    }
  }
}

VORN_TARGET_AVX2 void InverseTwiddledAvx2(F4 *x, int n, int group, int step) {
  const int n4 = group >> 2;
  const int n8 = n4 >> 1;
  if (n8 > 1) fft_columns::InverseTwiddledPass(x, n, 1, group, InverseTwiddlesAt(1, step));
  for (int j = 2; j < n8; j += 2) {
    const __m256 cc1 = TwiddlePair(kCosOffset + j * step, kCosOffset + (j + 1) * step);
    const __m256 ss1 = TwiddlePair(j * step, (j + 1) * step);
    const __m256 cc3 = TwiddlePair(kCosOffset + 3 * j * step, kCosOffset + 3 * (j + 1) * step);
    const __m256 ss3 = TwiddlePair(3 * j * step, 3 * (j + 1) * step);
    int start = 0;
    int stride = 2 * group;
    do {
      for (int i = start; i < n; i += stride) {
        F4 *p1 = x + i + j;
        F4 *p2 = p1 + n4;
        F4 *p3 = p2 + n4;
        F4 *p4 = p3 + n4;
        F4 *p5 = x + i + n4 - j;
        F4 *p6 = p5 + n4;
        F4 *p7 = p6 + n4;
        F4 *p8 = p7 + n4;
        const __m256 x1 = Pair(p1), x2 = Pair(p2), x3 = Pair(p3), x4 = Pair(p4);
        const __m256 x5 = PairDown(p5), x6 = PairDown(p6), x7 = PairDown(p7), x8 = PairDown(p8);
        __m256 t1 = _mm256_sub_ps(x1, x6);
        PutPair(p1, _mm256_add_ps(x1, x6));
        __m256 t2 = _mm256_sub_ps(x5, x2);
        PutPairDown(p5, _mm256_add_ps(x2, x5));
        const __m256 t3 = _mm256_add_ps(x8, x3);
        PutPairDown(p6, _mm256_sub_ps(x8, x3));
        __m256 t4 = _mm256_add_ps(x4, x7);
        PutPair(p2, _mm256_sub_ps(x4, x7));
        const __m256 t5 = _mm256_sub_ps(t1, t4);
        t1 = _mm256_add_ps(t1, t4);
        t4 = _mm256_sub_ps(t2, t3);
        t2 = _mm256_add_ps(t2, t3);
        PutPair(p3, _mm256_add_ps(_mm256_mul_ps(t5, cc1), _mm256_mul_ps(t4, ss1)));
        PutPairDown(p7, _mm256_sub_ps(_mm256_mul_ps(t5, ss1), _mm256_mul_ps(t4, cc1)));
        PutPair(p4, _mm256_sub_ps(_mm256_mul_ps(t1, cc3), _mm256_mul_ps(t2, ss3)));
        PutPairDown(p8, _mm256_add_ps(_mm256_mul_ps(t2, cc3), _mm256_mul_ps(t1, ss3)));
      }
      start = 2 * stride - group;
      stride = 4 * stride;
    } while (start < n - 1);
  }
}
#endif

// The forward transform on permuted columns.
template <int n, int m>
void ForwardColumns(F4 *x, [[maybe_unused]] bool wide) {
  using namespace simd;
  const F4 two = Set1(2.0f);
  for (int i = 0; i < n; i += 4) {
    const F4 s0 = Add(x[i], x[i + 1]), d0 = Sub(x[i], x[i + 1]);
    const F4 s1 = Add(x[i + 2], x[i + 3]), d1 = Sub(x[i + 2], x[i + 3]);
    x[i] = Add(s0, s1);
    x[i + 1] = d0;
    x[i + 2] = Sub(s0, s1);
    x[i + 3] = Neg(d1);
  }
  int half = 2;
  for (int stage = 3; stage <= m; ++stage) {
    const int quarter = half;
    half = 2 * quarter;
    const int group = 2 * half;
    const int step = kTwiddleTurn / group;
    for (int i = 0; i < n; i += group) {
      const F4 t = x[i];
      x[i + half] = Sub(t, x[i + half]);
      x[i] = Sub(Mul(two, t), x[i + half]);
      x[i + half + quarter] = Neg(x[i + half + quarter]);
    }
#if defined(VORN_AVX2)
    if (wide) {
      ForwardTwiddledAvx2(x, n, quarter, step);
      continue;
    }
#endif
    for (int j = 1; j < quarter; ++j) ForwardTwiddled(x, n, j, quarter, step);
  }
}

// The inverse transform down to the length-2 butterflies; the permutation
// and the scale come with the turn out.
template <int n, int m>
void InverseColumns(F4 *x, [[maybe_unused]] bool wide) {
  static_assert(n == 1 << m);
  for (int group = n; group >= 4; group >>= 1) {
    fft_columns::InverseQuarterPass(x, n, group);
    const int step = kTwiddleTurn / group;
#if defined(VORN_AVX2)
    if (wide) {
      InverseTwiddledAvx2(x, n, group, step);
      continue;
    }
#endif
    for (int j = 1; j < group / 8; ++j) fft_columns::InverseTwiddledPass(x, n, j, group, InverseTwiddlesAt(j, step));
  }
  fft_columns::InverseLastPass(x, n);
}

template <int n, int m>
void ForwardLanes(float *const *x, int count, bool wide) {
  alignas(32) F4 columns[n];
  TurnInReversed<n>(x, count, columns);
  ForwardColumns<n, m>(columns, wide);
  TurnOut<n>(columns, count, x);
}

template <int n, int m>
void InverseLanes(float *const *x, int count, bool wide) {
  alignas(32) F4 columns[n];
  TurnIn<n>(x, count, columns);
  InverseColumns<n, m>(columns, wide);
  TurnOutReversedScaled<n>(columns, count, 1.0f / static_cast<float>(n), x);
}

}  // namespace

void FftRelLanesSimd(float *const *x, int count, int n, int m, bool wide) {
  if (count < 1 || count > kFftRelLanes) return;
  if (n == 512 && m == 9) return ForwardLanes<512, 9>(x, count, wide);
  if (n == 256 && m == 8) return ForwardLanes<256, 8>(x, count, wide);
  if (n == 128 && m == 7) return ForwardLanes<128, 7>(x, count, wide);
  for (int b = 0; b < count; ++b) fft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

void IfftRelLanesSimd(float *const *x, int count, int n, int m, bool wide) {
  if (count < 1 || count > kFftRelLanes) return;
  if (n == 512 && m == 9) return InverseLanes<512, 9>(x, count, wide);
  if (n == 256 && m == 8) return InverseLanes<256, 8>(x, count, wide);
  if (n == 128 && m == 7) return InverseLanes<128, 7>(x, count, wide);
  for (int b = 0; b < count; ++b) ifft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

// A batch costs about as much whatever its count, and one or two blocks run
// faster through the single transforms.
constexpr int kFewestForLanes = 3;

void FftRelLanes(float *const *x, int count, int n, int m) {
  if (count >= kFewestForLanes) return FftRelLanesSimd(x, count, n, m, CpuHasAvx2());
  for (int b = 0; b < count; ++b) fft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

void IfftRelLanes(float *const *x, int count, int n, int m) {
  if (count >= kFewestForLanes) return IfftRelLanesSimd(x, count, n, m, CpuHasAvx2());
  for (int b = 0; b < count; ++b) ifft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

#else

void FftRelLanes(float *const *x, int count, int n, int m) {
  for (int b = 0; b < count && count <= kFftRelLanes; ++b) fft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

void IfftRelLanes(float *const *x, int count, int n, int m) {
  for (int b = 0; b < count && count <= kFftRelLanes; ++b) ifft_rel(x[b], static_cast<short>(n), static_cast<short>(m));
}

#endif

}  // namespace vorn
