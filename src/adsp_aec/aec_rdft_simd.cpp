// Four-lane stages of the 128-point real FFT (common/simd4.h: SSE2 on x86-64,
// NEON on arm64, the same operations on both, so both give the same bits).
// Each vector holds two complex values (re, im, re, im). The radix-4 stages
// gather the same butterfly input of two neighbouring twiddle groups into one
// vector, so one load of a lane-ordered table (cos duplicated, sin
// sign-paired) gives both groups' factors, and every group is handled by the
// same general butterfly. A complex product w * z is computed as
// wr * z + (-wi, +wi) * swap(z), which rounds exactly like the plain
// wr * zr - wi * zi, wr * zi + wi * zr; only the groups where the plain stages
// take shortcuts for trivial twiddles differ, by float rounding. The
// real-data stages walk the spectrum from both ends at once, reversing the
// pair order of the upper end.
#include "adsp_aec/aec_rdft.h"

#if defined(VORN_SIMD4)

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {

using simd::F4;

struct Twiddles {
  F4 wk1r, wk1i, wk2r, wk2i, wk3r, wk3i;
};

// Factors of twiddle groups 2p and 2p + 1.
inline Twiddles LoadTwiddles(int p) {
  return {simd::Load(rdft_wk1r.data() + 4 * p), simd::Load(rdft_wk1i.data() + 4 * p),
          simd::Load(rdft_wk2r.data() + 4 * p), simd::Load(rdft_wk2i.data() + 4 * p),
          simd::Load(rdft_wk3r.data() + 4 * p), simd::Load(rdft_wk3i.data() + 4 * p)};
}

inline F4 ComplexMul(F4 wr, F4 wi_signed, F4 z) {
  return simd::Add(simd::Mul(wr, z), simd::Mul(wi_signed, simd::SwapInPairs(z)));
}

// Radix-4 butterfly on inputs z0..z3 (positions j, j1, j2, j3), in place.
inline void Butterfly(F4& z0, F4& z1, F4& z2, F4& z3, const Twiddles& w) {
  const F4 s01 = simd::Add(z0, z1);
  const F4 d01 = simd::Sub(z0, z1);
  const F4 s23 = simd::Add(z2, z3);
  const F4 d23 = simd::Sub(z2, z3);
  const F4 i_d23 = simd::NegateEven(simd::SwapInPairs(d23));  // i * d23
  z0 = simd::Add(s01, s23);
  z2 = ComplexMul(w.wk2r, w.wk2i, simd::Sub(s01, s23));
  z1 = ComplexMul(w.wk1r, w.wk1i, simd::Add(d01, i_d23));
  z3 = ComplexMul(w.wk3r, w.wk3i, simd::Sub(d01, i_d23));
}

}  // namespace

void cft1st_128_Simd(float* a) {
  // Block j (16 floats) holds groups 2k and 2k + 1 (k = j / 16), four complex
  // values each at spacing 2.
  for (int k = 0; k < 8; ++k) {
    float* block = a + 16 * k;
    const F4 a01 = simd::Load(block);
    const F4 a23 = simd::Load(block + 4);
    const F4 b01 = simd::Load(block + 8);
    const F4 b23 = simd::Load(block + 12);
    F4 z0 = simd::LowPairs(a01, b01);
    F4 z1 = simd::HighPairs(a01, b01);
    F4 z2 = simd::LowPairs(a23, b23);
    F4 z3 = simd::HighPairs(a23, b23);
    Butterfly(z0, z1, z2, z3, LoadTwiddles(k));
    simd::Store(block, simd::LowPairs(z0, z1));
    simd::Store(block + 4, simd::LowPairs(z2, z3));
    simd::Store(block + 8, simd::HighPairs(z0, z1));
    simd::Store(block + 12, simd::HighPairs(z2, z3));
  }
}

void cftmdl_128_Simd(float* a) {
  // l = 8: group g occupies a[32 g .. 32 g + 31], with butterfly inputs at
  // spacing 8. Groups 2p and 2p + 1 are processed together.
  for (int p = 0; p < 2; ++p) {
    const Twiddles w = LoadTwiddles(p);
    float* group_a = a + 64 * p;
    float* group_b = group_a + 32;
    for (int j = 0; j < 8; j += 4) {
      F4 lo[4], hi[4];
      for (int q = 0; q < 4; ++q) {
        const F4 va = simd::Load(group_a + j + 8 * q);
        const F4 vb = simd::Load(group_b + j + 8 * q);
        lo[q] = simd::LowPairs(va, vb);
        hi[q] = simd::HighPairs(va, vb);
      }
      Butterfly(lo[0], lo[1], lo[2], lo[3], w);
      Butterfly(hi[0], hi[1], hi[2], hi[3], w);
      for (int q = 0; q < 4; ++q) {
        simd::Store(group_a + j + 8 * q, simd::LowPairs(lo[q], hi[q]));
        simd::Store(group_b + j + 8 * q, simd::HighPairs(lo[q], hi[q]));
      }
    }
  }
}

namespace {

// One step of the real-data stages for the pairs (j2, j2 + 2) and their
// mirrors (128 - j2, 126 - j2). forward selects rftfsub's signs, otherwise
// rftbsub's.
template <bool forward>
inline void RealStageStep(float* a, const float* c, int j2) {
  const int j1 = j2 / 2;
  const F4 wki = simd::LoadTwoDoubled(c + j1);  // c[j1] twice, c[j1 + 1] twice
  const F4 wkr = simd::Sub(simd::Set1(0.5f), simd::SwapPairs(simd::LoadTwoDoubled(c + 31 - j1)));

  float* mirror = a + 126 - j2;
  const F4 j_pairs = simd::Load(a + j2);
  const F4 k_pairs = simd::SwapPairs(simd::Load(mirror));

  const F4 x = simd::Add(j_pairs, simd::NegateEven(k_pairs));  // (aj - ak, aj' + ak')
  if constexpr (forward) {
    const F4 y = ComplexMul(wkr, simd::NegateEven(wki), x);
    simd::Store(a + j2, simd::Sub(j_pairs, y));
    simd::Store(mirror, simd::SwapPairs(simd::Add(k_pairs, simd::NegateOdd(y))));
  } else {
    const F4 y = ComplexMul(wkr, simd::NegateOdd(wki), x);
    simd::Store(a + j2, simd::Add(simd::NegateOdd(j_pairs), simd::NegateEven(y)));
    simd::Store(mirror, simd::SwapPairs(simd::Add(simd::NegateOdd(k_pairs), y)));
  }
}

}  // namespace

void rftfsub_128_Simd(float* a) {
  const float* c = rdft_w.data() + 32;
  for (int j2 = 2; j2 < 62; j2 += 4) RealStageStep<true>(a, c, j2);
  // The last pair (j2 = 62, mirror 66) has no partner.
  const float wkr = 0.5f - c[1];
  const float wki = c[31];
  const float xr = a[62] - a[66];
  const float xi = a[63] + a[67];
  const float yr = wkr * xr - wki * xi;
  const float yi = wkr * xi + wki * xr;
  a[62] -= yr;
  a[63] -= yi;
  a[66] += yr;
  a[67] -= yi;
}

void rftbsub_128_Simd(float* a) {
  const float* c = rdft_w.data() + 32;
  a[1] = -a[1];
  for (int j2 = 2; j2 < 62; j2 += 4) RealStageStep<false>(a, c, j2);
  const float wkr = 0.5f - c[1];
  const float wki = c[31];
  const float xr = a[62] - a[66];
  const float xi = a[63] + a[67];
  const float yr = wkr * xr + wki * xi;
  const float yi = wkr * xi - wki * xr;
  a[62] = a[62] - yr;
  a[63] = yi - a[63];
  a[66] = yr + a[66];
  a[67] = yi - a[67];
  a[65] = -a[65];
}

// The last complex stages, two butterflies per vector (points j and j + 2).
// The plain butterfly subtracts in some lanes where it adds in the others;
// both are formed and each lane keeps its own, so every lane performs the
// plain operation.
namespace {

inline simd::M4 EvenLanes() { return simd::Lt(simd::Set(0.0f, 1.0f, 0.0f, 1.0f), simd::Set1(0.5f)); }

}  // namespace

void cftflast_128_Simd(float* a) {
  const simd::M4 even = EvenLanes();
  for (int j = 0; j < 32; j += 4) {
    const F4 a0 = simd::Load(a + j), a1 = simd::Load(a + j + 32);
    const F4 a2 = simd::Load(a + j + 64), a3 = simd::Load(a + j + 96);
    const F4 x0 = simd::Add(a0, a1), x1 = simd::Sub(a0, a1);
    const F4 x2 = simd::Add(a2, a3), x3 = simd::Sub(a2, a3);
    const F4 x3_swapped = simd::SwapInPairs(x3);  // (x3i, x3r)
    const F4 x1_minus = simd::Sub(x1, x3_swapped), x1_plus = simd::Add(x1, x3_swapped);
    simd::Store(a + j, simd::Add(x0, x2));
    simd::Store(a + j + 64, simd::Sub(x0, x2));
    simd::Store(a + j + 32, simd::Select(even, x1_minus, x1_plus));  // x1r - x3i, x1i + x3r
    simd::Store(a + j + 96, simd::Select(even, x1_plus, x1_minus));  // x1r + x3i, x1i - x3r
  }
}

void cftblast_128_Simd(float* a) {
  const simd::M4 even = EvenLanes();
  for (int j = 0; j < 32; j += 4) {
    const F4 a0 = simd::NegateOdd(simd::Load(a + j)), a1 = simd::Load(a + j + 32);  // (a[j], -a[j + 1])
    const F4 a2 = simd::Load(a + j + 64), a3 = simd::Load(a + j + 96);
    const F4 sum01 = simd::Add(a0, a1), diff01 = simd::Sub(a0, a1);
    const F4 x0 = simd::Select(even, sum01, diff01);  // a[j] + a[j1], -a[j + 1] - a[j1 + 1]
    const F4 x1 = simd::Select(even, diff01, sum01);  // a[j] - a[j1], -a[j + 1] + a[j1 + 1]
    const F4 x2 = simd::Add(a2, a3), x3 = simd::Sub(a2, a3);
    const F4 sum02 = simd::Add(x0, x2), diff02 = simd::Sub(x0, x2);
    const F4 x3_swapped = simd::SwapInPairs(x3);
    simd::Store(a + j, simd::Select(even, sum02, diff02));       // x0r + x2r, x0i - x2i
    simd::Store(a + j + 64, simd::Select(even, diff02, sum02));  // x0r - x2r, x0i + x2i
    simd::Store(a + j + 32, simd::Sub(x1, x3_swapped));          // x1r - x3i, x1i - x3r
    simd::Store(a + j + 96, simd::Add(x1, x3_swapped));          // x1r + x3i, x1i + x3r
  }
}

}  // namespace vorn

#endif  // defined(VORN_SIMD4)
