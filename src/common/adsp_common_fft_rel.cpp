// Real-input FFT pair (Sorensen, Jones, Heideman and Burrus, 1987).
//
// Forward: a decimation-in-time radix-2 transform specialised to real input.
// After the bit-reversal permutation and the length-2 and length-4 passes,
// every stage combines two half-length real spectra; only the non-redundant
// half of each complex spectrum is kept, which yields the packing described
// in the header (real parts upward from 0, imaginary parts downward from n-1)
// with no extra unpacking pass.
//
// Inverse: the split-radix decimation-in-frequency counterpart, working on the
// packed Hermitian spectrum from the largest L-shaped butterfly down, then the
// length-2 butterflies and the permutation; the 1/n scale is applied once at
// the end.
//
// All twiddles come from sincos_t_ext (sin at index i*1024/G, cosine 256 entries
// on); nothing calls sin/cos at run time. For 128, 256 and 512 points the
// permutation is read from the bit-reversal table into a stack block; other
// sizes use the counter-based in-place swap.
//
// The sums of the forward stage butterflies are formed as 2a - (a - b) from
// the difference stored just before, not as a + b. The two round differently
// in the last bit, and the spectra (hence every module's output) must stay the
// same bytes from release to release, so the form is fixed. The length-2 and
// length-4 passes use plain sums.
//
// The vector versions run the same butterflies with four neighbouring
// twiddle indices j side by side: within a stage (forward) or a group size
// (inverse) each index of the block belongs to exactly one (group, j) pair,
// so the butterflies are independent and may run in any order; each lane
// performs the plain butterfly's operations in the plain order, which gives
// the plain transform's bits. Their twiddles come from per-stage tables built
// by the same compile-time rule as sincos_t_ext, so the values are the same
// floats. The forward transform's first stages run on four 16-float blocks
// at once, one per lane; the inverse's groups below 64 points likewise, on
// blocks of 32 and 16 (InverseTailColumns). Their permutations move sixteen
// floats at a time as 4 x 4 blocks (GatherBitReversedSimd).
#include "common/adsp_common_fft_rel.h"

#include <array>
#include <cstddef>

#include "common/adsp_common_rom.h"
#include "common/constexpr_trig.h"
#include "common/cpu_avx2.h"
#include "common/fft_rel_columns.h"
#include "common/simd4.h"

namespace vorn {
namespace {

constexpr int kMaxTablePoints = 512;
constexpr int kTwiddleTurn = 1024;  // sincos_t_ext holds sin over this many steps per turn
constexpr int kCosOffset = kTwiddleTurn / 4;
constexpr float kSqrtHalf = fft_columns::kFftSqrtHalf;

// y[p] = x[rev_m(p)] for n = 128, 256, 512. Bit reversal is its own inverse,
// so the same gather serves both directions.
void GatherBitReversed(const float *x, int n, float *y) {
  if (n == 512) {
    // rev9(p) = 2*rev8(p) for p < 256 and 2*rev8(p-256) + 1 above.
    for (int p = 0; p < 256; ++p) {
      const int src = 2 * fft256_read_indexes[p];
      y[p] = x[src];
      y[p + 256] = x[src + 1];
    }
  } else if (n == 256) {
    for (int p = 0; p < 256; ++p) y[p] = x[fft256_read_indexes[p]];
  } else {  // 128: rev7(p) = rev8(p) >> 1 for p < 128
    for (int p = 0; p < 128; ++p) y[p] = x[fft256_read_indexes[p] >> 1];
  }
}

#if defined(VORN_SIMD4)
// The same permutation, sixteen floats at a time. Split an index of m bits
// into its top two bits a, middle bits b and low two bits c: the reversal maps
// (a, b, c) to (rev2 c, rev b, rev2 a). For one b, the four runs of four
// floats at (c', rev b, 0..3) turned as a 4 x 4 block are the four runs of
// y at (a, b, 0..3), the rows taken in reversed two-bit order.
void GatherBitReversedSimd(const float *x, int n, float *y) {
  using namespace simd;
  const int quarter = n / 4;            // the stride of the top two bits
  const int middle = n / 16;            // values of b
  const int shift = n == 512 ? 3 : n == 256 ? 4 : 5;  // rev of b's bits from rev8
  for (int b = 0; b < middle; ++b) {
    const float *src = x + 4 * (fft256_read_indexes[b] >> shift);
    F4 r0 = Load(src), r1 = Load(src + 2 * quarter), r2 = Load(src + quarter), r3 = Load(src + 3 * quarter);
    Transpose(r0, r1, r2, r3);
    float *dst = y + 4 * b;
    Store(dst, r0);
    Store(dst + 2 * quarter, r1);
    Store(dst + quarter, r2);
    Store(dst + 3 * quarter, r3);
  }
}
#endif

// Powers of two from 4 to 1024 points: the twiddle table ends there. Anything
// else leaves the buffer untouched rather than index past it.
bool IsSupportedSize(const float *x, int n, int m) {
  return x != nullptr && m >= 2 && m <= 10 && n == (1 << m);
}

bool HasTablePermutation(int n) { return n == 128 || n == 256 || n == 512; }

void BitReverseInPlace(float *x, int n) {
  int j = 0;
  for (int i = 1; i < n - 1; ++i) {
    int k = n >> 1;
    while (j >= k) {  // carry into the lower bits
      j -= k;
      k >>= 1;
    }
    j += k;
    if (i < j) {
      const float t = x[i];
      x[i] = x[j];
      x[j] = t;
    }
  }
}


// ---- forward --------------------------------------------------------------

// Stage butterfly j of the group at i (the plain form).
inline void ForwardButterfly(float *x, int i, int j, int half, int group, float cc, float ss) {
  const int i1 = i + j;
  const int i2 = i - j + half;
  const int i3 = i1 + half;
  const int i4 = i - j + group;
  const float t1 = x[i3] * cc + x[i4] * ss;
  const float t2 = x[i3] * ss - x[i4] * cc;
  const float a2 = x[i2];
  x[i4] = a2 - t2;
  x[i3] = x[i4] - 2.0f * a2;  // -(a2 + t2)
  const float a1 = x[i1];
  x[i2] = a1 - t1;
  x[i1] = 2.0f * a1 - x[i2];  // a1 + t1
}

// Contiguous twiddles of the vector stages: entry q + j holds the cosine
// (sine) of stage butterfly j when a stage has q = quarter butterflies per
// group, for q = 8 .. 256 (up to 1024 points).
constexpr int kVectorMinTwiddles = 8;
constexpr int kTwiddleSlots = 512;

template <bool kCos>
constexpr std::array<float, kTwiddleSlots> MakeForwardTwiddles() {
  std::array<float, kTwiddleSlots> t{};
  for (int q = kVectorMinTwiddles; q < kTwiddleSlots; q *= 2) {
    const int step = kTwiddleTurn / (4 * q);
    for (int j = 0; j < q; ++j)
      t[q + j] = static_cast<float>(ct::SinTurn((kCos ? kCosOffset : 0) + j * step, kTwiddleTurn));
  }
  return t;
}

#if defined(VORN_SIMD4)
constexpr auto kForwardCos = MakeForwardTwiddles<true>();
constexpr auto kForwardSin = MakeForwardTwiddles<false>();

// Lanes 0..2 of a block: the butterflies 1..3 of a group go as the block at
// j = 1 whose last lane (butterfly 4, done with its own block) keeps the
// values it loaded.
inline simd::M4 FirstThreeLanes() { return simd::Lt(simd::Set(0.0f, 1.0f, 2.0f, 3.0f), simd::Set1(2.5f)); }

// Butterflies j .. j+3 of the group at i, one per lane; kFirstThree stores
// only the first three (j = 1).
template <bool kFirstThree = false>
inline void ForwardButterflies4(float *x, int i, int j, int quarter) {
  using namespace simd;
  const int half = 2 * quarter;
  const int group = 2 * half;
  const F4 cc = Load(&kForwardCos[static_cast<std::size_t>(quarter + j)]);
  const F4 ss = Load(&kForwardSin[static_cast<std::size_t>(quarter + j)]);
  const F4 two = Set1(2.0f);
  float *p1 = x + i + j;          // ascending with the lane
  float *p2 = x + i - j + half;   // descending
  float *p3 = p1 + half;
  float *p4 = x + i - j + group;
  const F4 x3 = Load(p3);
  const F4 x4 = LoadReversed(p4);
  const F4 t1 = Add(Mul(x3, cc), Mul(x4, ss));
  const F4 t2 = Sub(Mul(x3, ss), Mul(x4, cc));
  const F4 a2 = LoadReversed(p2);
  const F4 a1 = Load(p1);
  F4 new4 = Sub(a2, t2);
  F4 new3 = Sub(new4, Mul(two, a2));
  F4 new2 = Sub(a1, t1);
  F4 new1 = Sub(Mul(two, a1), new2);
  if constexpr (kFirstThree) {
    const M4 keep = FirstThreeLanes();
    new4 = Select(keep, new4, x4);
    new3 = Select(keep, new3, x3);
    new2 = Select(keep, new2, a2);
    new1 = Select(keep, new1, a1);
  }
  StoreReversed(p4, new4);
  Store(p3, new3);
  StoreReversed(p2, new2);
  Store(p1, new1);
}
#endif

#if defined(VORN_AVX2)
// Eight lanes, for the stages' blocks on processors with AVX2: lane l of a
// block is butterfly j + l, as in the four-lane blocks, so two neighbouring
// four-lane blocks become one with the same per-lane operations.
VORN_TARGET_AVX2 inline __m256 LoadReversed8(const float *p) {
  return _mm256_permutevar8x32_ps(_mm256_loadu_ps(p - 7), _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
}

VORN_TARGET_AVX2 inline void StoreReversed8(float *p, __m256 v) {
  _mm256_storeu_ps(p - 7, _mm256_permutevar8x32_ps(v, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0)));
}

VORN_TARGET_AVX2 inline void ForwardButterflies8(float *x, int i, int j, int quarter) {
  const int half = 2 * quarter;
  const int group = 2 * half;
  const __m256 cc = _mm256_loadu_ps(&kForwardCos[static_cast<std::size_t>(quarter + j)]);
  const __m256 ss = _mm256_loadu_ps(&kForwardSin[static_cast<std::size_t>(quarter + j)]);
  const __m256 two = _mm256_set1_ps(2.0f);
  float *p1 = x + i + j;
  float *p2 = x + i - j + half;
  float *p3 = p1 + half;
  float *p4 = x + i - j + group;
  const __m256 x3 = _mm256_loadu_ps(p3);
  const __m256 x4 = LoadReversed8(p4);
  const __m256 t1 = _mm256_add_ps(_mm256_mul_ps(x3, cc), _mm256_mul_ps(x4, ss));
  const __m256 t2 = _mm256_sub_ps(_mm256_mul_ps(x3, ss), _mm256_mul_ps(x4, cc));
  const __m256 a2 = LoadReversed8(p2);
  const __m256 a1 = _mm256_loadu_ps(p1);
  const __m256 new4 = _mm256_sub_ps(a2, t2);
  const __m256 new3 = _mm256_sub_ps(new4, _mm256_mul_ps(two, a2));
  const __m256 new2 = _mm256_sub_ps(a1, t1);
  const __m256 new1 = _mm256_sub_ps(_mm256_mul_ps(two, a1), new2);
  StoreReversed8(p4, new4);
  _mm256_storeu_ps(p3, new3);
  StoreReversed8(p2, new2);
  _mm256_storeu_ps(p1, new1);
}

// The blocks from butterfly 4 on of every group of a stage: 4..7 in four
// lanes, the rest eight at a time (quarter - 8 is a multiple of 8).
VORN_TARGET_AVX2 void ForwardStageBlocksAvx2(float *x, int n, int quarter) {
  for (int i = 0; i < n; i += 4 * quarter) {
    ForwardButterflies4(x, i, 4, quarter);
    for (int j = 8; j < quarter; j += 8) ForwardButterflies8(x, i, j, quarter);
  }
}
#endif

#if defined(VORN_SIMD4)
// The length-4 pass and the stages of 8 and 16 points stay inside blocks of
// 16 floats. Four neighbouring blocks, turned so that vector p holds float p
// of each, run them with one vector operation for each plain one, in the
// plain order; then they are turned back.
inline void ForwardButterflyColumns(simd::F4 *c, int j, int half, int group, float cos_j, float sin_j) {
  using namespace simd;
  const F4 cc = Set1(cos_j), ss = Set1(sin_j), two = Set1(2.0f);
  const int i1 = j, i2 = half - j, i3 = i1 + half, i4 = group - j;
  const F4 t1 = Add(Mul(c[i3], cc), Mul(c[i4], ss));
  const F4 t2 = Sub(Mul(c[i3], ss), Mul(c[i4], cc));
  const F4 a2 = c[i2];
  c[i4] = Sub(a2, t2);
  c[i3] = Sub(c[i4], Mul(two, a2));
  const F4 a1 = c[i1];
  c[i2] = Sub(a1, t1);
  c[i1] = Sub(Mul(two, a1), c[i2]);
}

// The first step of a stage's group at i (butterfly 0, whose twiddle is 1).
inline void ForwardGroupStartColumns(simd::F4 *c, int i, int quarter) {
  using namespace simd;
  const int half = 2 * quarter;
  const F4 t = c[i];
  c[i + half] = Sub(t, c[i + half]);
  c[i] = Sub(Mul(Set1(2.0f), t), c[i + half]);
  c[i + half + quarter] = Neg(c[i + half + quarter]);
}

void ForwardFirstStagesSimd(const float *scratch, float *x, int n) {
  using namespace simd;
  for (int b = 0; b < n; b += 64) {
    F4 c[16];
    for (int q = 0; q < 4; ++q) {
      for (int r = 0; r < 4; ++r) c[4 * q + r] = Load(scratch + b + 16 * r + 4 * q);
      Transpose(c[4 * q], c[4 * q + 1], c[4 * q + 2], c[4 * q + 3]);
    }
    for (int i = 0; i < 16; i += 4) {
      const F4 s0 = Add(c[i], c[i + 1]), d0 = Sub(c[i], c[i + 1]);
      const F4 s1 = Add(c[i + 2], c[i + 3]), d1 = Sub(c[i + 2], c[i + 3]);
      c[i] = Add(s0, s1);
      c[i + 1] = d0;
      c[i + 2] = Sub(s0, s1);
      c[i + 3] = Neg(d1);
    }
    for (int i = 0; i < 16; i += 8) {  // 8 points: quarter 2
      ForwardGroupStartColumns(c, i, 2);
      ForwardButterflyColumns(c + i, 1, 4, 8, sincos_t_ext[kCosOffset + 128], sincos_t_ext[128]);
    }
    ForwardGroupStartColumns(c, 0, 4);  // 16 points: quarter 4
    for (int j = 1; j < 4; ++j)
      ForwardButterflyColumns(c, j, 8, 16, sincos_t_ext[kCosOffset + j * 64], sincos_t_ext[j * 64]);
    for (int q = 0; q < 4; ++q) {
      Transpose(c[4 * q], c[4 * q + 1], c[4 * q + 2], c[4 * q + 3]);
      for (int r = 0; r < 4; ++r) Store(x + b + 16 * r + 4 * q, c[4 * q + r]);
    }
  }
}
#endif

// wide: the stages' blocks run eight lanes at a time (AVX2; the same bits).
template <bool kVector>
void ForwardTransform(float *x, int n, int m, bool wide = false) {
  int half = 2;
  int first_stage = 3;
#if defined(VORN_SIMD4)
  if (kVector && HasTablePermutation(n)) {
    float scratch[kMaxTablePoints];
    GatherBitReversedSimd(x, n, scratch);
    ForwardFirstStagesSimd(scratch, x, n);
    half = 8;
    first_stage = 5;
  } else
#endif
  // Permutation fused with the length-2 butterflies, then the length-4 pass.
  if (HasTablePermutation(n)) {
    float scratch[kMaxTablePoints];
    GatherBitReversed(x, n, scratch);
    for (int i = 0; i < n; i += 4) {
      const float a0 = scratch[i], a1 = scratch[i + 1], a2 = scratch[i + 2], a3 = scratch[i + 3];
      const float s0 = a0 + a1, d0 = a0 - a1;
      const float s1 = a2 + a3, d1 = a2 - a3;
      x[i] = s0 + s1;
      x[i + 1] = d0;
      x[i + 2] = s0 - s1;
      x[i + 3] = -d1;
    }
  } else {
    BitReverseInPlace(x, n);
    for (int i = 0; i < n; i += 2) {
      const float a = x[i], b = x[i + 1];
      x[i] = a + b;
      x[i + 1] = a - b;
    }
    for (int i = 0; i < n; i += 4) {
      const float a = x[i], b = x[i + 2];
      x[i] = a + b;
      x[i + 2] = a - b;
      x[i + 3] = -x[i + 3];
    }
  }

  for (int stage = first_stage; stage <= m; ++stage) {
    const int quarter = half;
    half = 2 * quarter;
    const int group = 2 * half;
    const int step = kTwiddleTurn / group;
    for (int i = 0; i < n; i += group) {
      const float t = x[i];
      x[i + half] = t - x[i + half];
      x[i] = 2.0f * t - x[i + half];
      x[i + half + quarter] = -x[i + half + quarter];
#if defined(VORN_SIMD4)
      if (kVector && quarter >= kVectorMinTwiddles) {
        if (wide) continue;  // the whole stage's blocks below
        // Blocks of four from butterfly 4 on: quarter - 4 is a multiple of 4.
        for (int j = 4; j < quarter; j += 4) ForwardButterflies4(x, i, j, quarter);
        continue;
      }
#endif
      for (int j = 1; j < quarter; ++j)
        ForwardButterfly(x, i, j, half, group, sincos_t_ext[kCosOffset + j * step], sincos_t_ext[j * step]);
    }
#if defined(VORN_SIMD4)
    // Butterflies 1..3 of every group, once the stage's other blocks are
    // stored: their block reads butterfly 4's values back, and a load
    // straddling a store still in flight waits for it.
    if (kVector && quarter >= kVectorMinTwiddles) {
#if defined(VORN_AVX2)
      if (wide) ForwardStageBlocksAvx2(x, n, quarter);
#endif
      for (int i = 0; i < n; i += group) ForwardButterflies4<true>(x, i, 1, quarter);
    }
#endif
  }
}

// ---- inverse --------------------------------------------------------------

struct InverseTwiddles {
  float cc1, ss1, cc3, ss3;
};

// L-shaped butterfly j of the group of length 4 * n4 at i (the plain form).
inline void InverseButterfly(float *x, int i, int j, int n4, const InverseTwiddles &w) {
  const int i1 = i + j;
  const int i2 = i1 + n4;
  const int i3 = i2 + n4;
  const int i4 = i3 + n4;
  const int i5 = i + n4 - j;
  const int i6 = i5 + n4;
  const int i7 = i6 + n4;
  const int i8 = i7 + n4;
  float t1 = x[i1] - x[i6];
  x[i1] = x[i1] + x[i6];
  float t2 = x[i5] - x[i2];
  x[i5] = x[i2] + x[i5];
  const float t3 = x[i8] + x[i3];
  x[i6] = x[i8] - x[i3];
  float t4 = x[i4] + x[i7];
  x[i2] = x[i4] - x[i7];
  const float t5 = t1 - t4;
  t1 = t1 + t4;
  t4 = t2 - t3;
  t2 = t2 + t3;
  x[i3] = t5 * w.cc1 + t4 * w.ss1;
  // -(t4 cc1) + t5 ss1 is this difference exactly; spelled as one, the NaN a
  // poisoned input leaves carries the same sign whatever instructions the
  // compiler picks for the negation.
  x[i7] = t5 * w.ss1 - t4 * w.cc1;
  x[i4] = t1 * w.cc3 - t2 * w.ss3;
  x[i8] = t2 * w.cc3 + t1 * w.ss3;
}

InverseTwiddles InverseTwiddlesOf(int j, int step) {
  return {sincos_t_ext[kCosOffset + j * step], sincos_t_ext[j * step], sincos_t_ext[kCosOffset + 3 * j * step],
          sincos_t_ext[3 * j * step]};
}

// Entry n8 + j: twiddle j of the group size with n8 = G/8 butterflies, for
// n8 = 8 .. 128 (up to 1024 points). kTriple picks the angle 3 j.
template <bool kCos, bool kTriple>
constexpr std::array<float, kTwiddleSlots / 2> MakeInverseTwiddles() {
  std::array<float, kTwiddleSlots / 2> t{};
  for (int n8 = kVectorMinTwiddles; n8 < kTwiddleSlots / 2; n8 *= 2) {
    const int step = kTwiddleTurn / (8 * n8);
    for (int j = 0; j < n8; ++j)
      t[n8 + j] =
          static_cast<float>(ct::SinTurn((kCos ? kCosOffset : 0) + (kTriple ? 3 : 1) * j * step, kTwiddleTurn));
  }
  return t;
}

#if defined(VORN_SIMD4)
constexpr auto kInverseCos1 = MakeInverseTwiddles<true, false>();
constexpr auto kInverseSin1 = MakeInverseTwiddles<false, false>();
constexpr auto kInverseCos3 = MakeInverseTwiddles<true, true>();
constexpr auto kInverseSin3 = MakeInverseTwiddles<false, true>();

// Butterflies j .. j+3 of the group at i, one per lane; kFirstThree stores
// only the first three (j = 1), as the forward blocks do.
template <bool kFirstThree = false>
inline void InverseButterflies4(float *x, int i, int j, int n4) {
  using namespace simd;
  const std::size_t at = static_cast<std::size_t>(n4 / 2 + j);
  const F4 cc1 = Load(&kInverseCos1[at]), ss1 = Load(&kInverseSin1[at]);
  const F4 cc3 = Load(&kInverseCos3[at]), ss3 = Load(&kInverseSin3[at]);
  float *p1 = x + i + j;  // ascending with the lane
  float *p2 = p1 + n4;
  float *p3 = p2 + n4;
  float *p4 = p3 + n4;
  float *p5 = x + i + n4 - j;  // descending
  float *p6 = p5 + n4;
  float *p7 = p6 + n4;
  float *p8 = p7 + n4;
  const F4 x1 = Load(p1), x2 = Load(p2), x3 = Load(p3), x4 = Load(p4);
  const F4 x5 = LoadReversed(p5), x6 = LoadReversed(p6), x7 = LoadReversed(p7), x8 = LoadReversed(p8);
  F4 t1 = Sub(x1, x6);
  F4 y[8];
  y[0] = Add(x1, x6);
  F4 t2 = Sub(x5, x2);
  y[4] = Add(x2, x5);
  const F4 t3 = Add(x8, x3);
  y[5] = Sub(x8, x3);
  F4 t4 = Add(x4, x7);
  y[1] = Sub(x4, x7);
  const F4 t5 = Sub(t1, t4);
  t1 = Add(t1, t4);
  t4 = Sub(t2, t3);
  t2 = Add(t2, t3);
  y[2] = Add(Mul(t5, cc1), Mul(t4, ss1));
  y[6] = Sub(Mul(t5, ss1), Mul(t4, cc1));
  y[3] = Sub(Mul(t1, cc3), Mul(t2, ss3));
  y[7] = Add(Mul(t2, cc3), Mul(t1, ss3));
  if constexpr (kFirstThree) {
    const M4 keep = FirstThreeLanes();
    const F4 old[8] = {x1, x2, x3, x4, x5, x6, x7, x8};
    for (int r = 0; r < 8; ++r) y[r] = Select(keep, y[r], old[r]);
  }
  Store(p1, y[0]);
  Store(p2, y[1]);
  Store(p3, y[2]);
  Store(p4, y[3]);
  StoreReversed(p5, y[4]);
  StoreReversed(p6, y[5]);
  StoreReversed(p7, y[6]);
  StoreReversed(p8, y[7]);
}
#endif

// The blocks from butterfly 4 on of every group of one size (the plain walk
// over its groups).
void InverseSizeBlocks4(float *x, int n, int group) {
  const int n4 = group >> 2;
  const int n8 = n4 >> 1;
  int start = 0;
  int stride = 2 * group;
  do {
    for (int i = start; i < n; i += stride) {
      for (int j = 4; j < n8; j += 4) InverseButterflies4(x, i, j, n4);
    }
    start = 2 * stride - group;
    stride = 4 * stride;
  } while (start < n - 1);
}

#if defined(VORN_AVX2)
VORN_TARGET_AVX2 inline void InverseButterflies8(float *x, int i, int j, int n4) {
  const std::size_t at = static_cast<std::size_t>(n4 / 2 + j);
  const __m256 cc1 = _mm256_loadu_ps(&kInverseCos1[at]), ss1 = _mm256_loadu_ps(&kInverseSin1[at]);
  const __m256 cc3 = _mm256_loadu_ps(&kInverseCos3[at]), ss3 = _mm256_loadu_ps(&kInverseSin3[at]);
  float *p1 = x + i + j;
  float *p2 = p1 + n4;
  float *p3 = p2 + n4;
  float *p4 = p3 + n4;
  float *p5 = x + i + n4 - j;
  float *p6 = p5 + n4;
  float *p7 = p6 + n4;
  float *p8 = p7 + n4;
  const __m256 x1 = _mm256_loadu_ps(p1), x2 = _mm256_loadu_ps(p2), x3 = _mm256_loadu_ps(p3),
               x4 = _mm256_loadu_ps(p4);
  const __m256 x5 = LoadReversed8(p5), x6 = LoadReversed8(p6), x7 = LoadReversed8(p7), x8 = LoadReversed8(p8);
  __m256 t1 = _mm256_sub_ps(x1, x6);
  const __m256 y0 = _mm256_add_ps(x1, x6);
  __m256 t2 = _mm256_sub_ps(x5, x2);
  const __m256 y4 = _mm256_add_ps(x2, x5);
  const __m256 t3 = _mm256_add_ps(x8, x3);
  const __m256 y5 = _mm256_sub_ps(x8, x3);
  __m256 t4 = _mm256_add_ps(x4, x7);
  const __m256 y1 = _mm256_sub_ps(x4, x7);
  const __m256 t5 = _mm256_sub_ps(t1, t4);
  t1 = _mm256_add_ps(t1, t4);
  t4 = _mm256_sub_ps(t2, t3);
  t2 = _mm256_add_ps(t2, t3);
  _mm256_storeu_ps(p1, y0);
  _mm256_storeu_ps(p2, y1);
  _mm256_storeu_ps(p3, _mm256_add_ps(_mm256_mul_ps(t5, cc1), _mm256_mul_ps(t4, ss1)));
  _mm256_storeu_ps(p4, _mm256_sub_ps(_mm256_mul_ps(t1, cc3), _mm256_mul_ps(t2, ss3)));
  StoreReversed8(p5, y4);
  StoreReversed8(p6, y5);
  StoreReversed8(p7, _mm256_sub_ps(_mm256_mul_ps(t5, ss1), _mm256_mul_ps(t4, cc1)));
  StoreReversed8(p8, _mm256_add_ps(_mm256_mul_ps(t2, cc3), _mm256_mul_ps(t1, ss3)));
}

// The same, 4..7 in four lanes and the rest eight at a time.
VORN_TARGET_AVX2 void InverseSizeBlocksAvx2(float *x, int n, int group) {
  const int n4 = group >> 2;
  const int n8 = n4 >> 1;
  int start = 0;
  int stride = 2 * group;
  do {
    for (int i = start; i < n; i += stride) {
      InverseButterflies4(x, i, 4, n4);
      for (int j = 8; j < n8; j += 8) InverseButterflies8(x, i, j, n4);
    }
    start = 2 * stride - group;
    stride = 4 * stride;
  } while (start < n - 1);
}
#endif

#if defined(VORN_SIMD4)
// Below group size 64 the L-shaped butterflies stay inside aligned blocks:
// once the groups of 64 and more are done, every aligned block of 32 floats
// is either one group of 32 (with everything below it) or two groups of 16,
// the quarters of a group of 64. Each such block runs the same butterflies
// wherever it lies, so four blocks of one kind, turned so that vector p holds
// float p of each, run them with one vector operation for each plain one, in
// the plain order, down to the length-2 butterflies and the 1/n scale.
//
// The whole inverse of a group of kN floats (16 or 32) below its own size,
// as the plain transform runs it, on columns.
template <int kN>
void InverseGroupColumns(simd::F4 *c, float inv_n) {
  using namespace simd;
  for (int group = kN; group >= 4; group >>= 1) {
    fft_columns::InverseQuarterPass(c, kN, group);
    const int step = kTwiddleTurn / group;
    for (int j = 1; j < group / 8; ++j) {
      const InverseTwiddles w = InverseTwiddlesOf(j, step);
      fft_columns::InverseTwiddledPass(c, kN, j, group, {Set1(w.cc1), Set1(w.ss1), Set1(w.cc3), Set1(w.ss3)});
    }
  }
  fft_columns::InverseLastPass(c, kN);
  const F4 scale = Set1(inv_n);
  for (int p = 0; p < kN; ++p) c[p] = Mul(c[p], scale);
}

// Which aligned blocks of 32 floats of an n-point transform are groups of 32:
// bit b of the mask stands for the block at 32 b. The plain loop's walk over
// the groups of one size, for the size 32.
constexpr unsigned GroupsOf32(int n) {
  unsigned mask = 0;
  int start = 0;
  int stride = 64;
  do {
    for (int i = start; i < n; i += stride) mask |= 1u << (i / 32);
    start = 2 * stride - 32;
    stride = 4 * stride;
  } while (start < n - 1);
  return mask;
}

// Runs InverseGroupColumns<kN> on the kN-float blocks of x listed in at
// (count of them), four at a time, writing them to out at the same places.
// A short last batch fills its spare lanes with zeros and drops them.
template <int kN>
void InverseBlocksColumns(const float *x, float *out, const int *at, int count, float inv_n) {
  using namespace simd;
  alignas(16) static constexpr float kZeros[kN] = {};
  float spare[kN];
  for (int b = 0; b < count; b += 4) {
    const float *src[4];
    float *dst[4];
    for (int r = 0; r < 4; ++r) {
      src[r] = b + r < count ? x + at[b + r] : kZeros;
      dst[r] = b + r < count ? out + at[b + r] : spare;
    }
    F4 c[kN];
    for (int q = 0; q < kN / 4; ++q) {
      for (int r = 0; r < 4; ++r) c[4 * q + r] = Load(src[r] + 4 * q);
      Transpose(c[4 * q], c[4 * q + 1], c[4 * q + 2], c[4 * q + 3]);
    }
    InverseGroupColumns<kN>(c, inv_n);
    for (int q = 0; q < kN / 4; ++q) {
      Transpose(c[4 * q], c[4 * q + 1], c[4 * q + 2], c[4 * q + 3]);
      for (int r = 0; r < 4; ++r) Store(dst[r] + 4 * q, c[4 * q + r]);
    }
  }
}

// Everything after the groups of 64 for n = 128, 256, 512: the column blocks
// into scratch, then the permutation back into x.
void InverseTailColumns(float *x, int n) {
  static_assert(GroupsOf32(512) != 0, "the walk must find groups of 32");
  const unsigned mask = n == 512 ? GroupsOf32(512) : n == 256 ? GroupsOf32(256) : GroupsOf32(128);
  int at32[kMaxTablePoints / 32];
  int at16[kMaxTablePoints / 16];
  int count32 = 0, count16 = 0;
  for (int b = 0; b < n / 32; ++b) {
    if ((mask >> b) & 1u) {
      at32[count32++] = 32 * b;
    } else {
      at16[count16++] = 32 * b;
      at16[count16++] = 32 * b + 16;
    }
  }
  const float inv_n = 1.0f / static_cast<float>(n);
  float scratch[kMaxTablePoints];
  InverseBlocksColumns<32>(x, scratch, at32, count32, inv_n);
  InverseBlocksColumns<16>(x, scratch, at16, count16, inv_n);
  GatherBitReversedSimd(scratch, n, x);
}
#endif

template <bool kVector>
void InverseTransform(float *x, int n, int m, [[maybe_unused]] bool wide = false) {
  // L-shaped butterflies, group length G = n down to 4.
#if defined(VORN_SIMD4)
  // The vector transform hands the groups below 64 to the column blocks.
  const bool column_tail = kVector && HasTablePermutation(n);
  const int last_k = column_tail ? m - 5 : m - 1;
#else
  const int last_k = m - 1;
#endif
  int group = 2 * n;
  for (int k = 1; k <= last_k; ++k) {
    int start = 0;
    int stride = group;
    group >>= 1;
    const int n4 = group >> 2;
    const int n8 = n4 >> 1;
    const int step = kTwiddleTurn / group;
    do {
      for (int i = start; i < n; i += stride) {
        int i1 = i;
        int i2 = i1 + n4;
        int i3 = i2 + n4;
        int i4 = i3 + n4;
        float t1 = x[i1] - x[i3];
        x[i1] = x[i1] + x[i3];
        x[i2] = 2.0f * x[i2];
        x[i3] = t1 - 2.0f * x[i4];
        x[i4] = t1 + 2.0f * x[i4];
        if (n4 != 1) {
          i1 += n8;
          i2 += n8;
          i3 += n8;
          i4 += n8;
          t1 = (x[i2] - x[i1]) * kSqrtHalf;
          const float t2 = (x[i4] + x[i3]) * kSqrtHalf;
          x[i1] = x[i1] + x[i2];
          x[i2] = x[i4] - x[i3];
          x[i3] = 2.0f * (-t2 - t1);
          x[i4] = 2.0f * (-t2 + t1);
        }
      }
      start = 2 * stride - group;
      stride = 4 * stride;
    } while (start < n - 1);

#if defined(VORN_SIMD4)
    if (kVector && n8 >= kVectorMinTwiddles) {
      // Group by group: blocks of four from butterfly 4 on.
#if defined(VORN_AVX2)
      if (wide)
        InverseSizeBlocksAvx2(x, n, group);
      else
#endif
        InverseSizeBlocks4(x, n, group);
      // Butterflies 1..3 last, as in the forward stages.
      start = 0;
      stride = 2 * group;
      do {
        for (int i = start; i < n; i += stride) InverseButterflies4<true>(x, i, 1, n4);
        start = 2 * stride - group;
        stride = 4 * stride;
      } while (start < n - 1);
      continue;
    }
#endif
    for (int j = 1; j < n8; ++j) {
      const InverseTwiddles w = InverseTwiddlesOf(j, step);
      start = 0;
      stride = 2 * group;
      do {
        for (int i = start; i < n; i += stride) InverseButterfly(x, i, j, n4, w);
        start = 2 * stride - group;
        stride = 4 * stride;
      } while (start < n - 1);
    }
  }

#if defined(VORN_SIMD4)
  if (column_tail) {
    InverseTailColumns(x, n);
    return;
  }
#endif
  // Length-2 butterflies.
  int start = 0;
  int stride = 4;
  do {
    for (int i = start; i < n; i += stride) {
      const float t = x[i];
      x[i] = t + x[i + 1];
      x[i + 1] = t - x[i + 1];
    }
    start = 2 * stride - 2;
    stride = 4 * stride;
  } while (start < n - 1);

  const float inv_n = 1.0f / n;
  if (HasTablePermutation(n)) {
    float scratch[kMaxTablePoints];
    GatherBitReversed(x, n, scratch);
    for (int i = 0; i < n; ++i) x[i] = scratch[i] * inv_n;
  } else {
    BitReverseInPlace(x, n);
    for (int i = 0; i < n; ++i) x[i] *= inv_n;
  }
}

}  // namespace

void FftRelPlain(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) ForwardTransform<false>(x, n, m);
}

void IfftRelPlain(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) InverseTransform<false>(x, n, m);
}

#if defined(VORN_SIMD4)
void FftRelSimd(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) ForwardTransform<true>(x, n, m);
}

void IfftRelSimd(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) InverseTransform<true>(x, n, m);
}
#endif

#if defined(VORN_AVX2)
void FftRelAvx2(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) ForwardTransform<true>(x, n, m, true);
}

void IfftRelAvx2(float *x, int n, int m) {
  if (IsSupportedSize(x, n, m)) InverseTransform<true>(x, n, m, true);
}
#endif

void fft_rel(float *x, const short n, const short m) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return FftRelAvx2(x, n, m);
#endif
#if defined(VORN_SIMD4)
  FftRelSimd(x, n, m);
#else
  FftRelPlain(x, n, m);
#endif
}

void ifft_rel(float *io, const short n, const short m) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return IfftRelAvx2(io, n, m);
#endif
#if defined(VORN_SIMD4)
  IfftRelSimd(io, n, m);
#else
  IfftRelPlain(io, n, m);
#endif
}

}  // namespace vorn
