// SSE2 stages of the 128-point real FFT. Each register holds two complex
// values (re, im, re, im). The radix-4 stages gather the same butterfly input
// of two neighbouring twiddle groups into one register, so one aligned load
// of a lane-ordered table (cos duplicated, sin sign-paired) gives both groups'
// factors, and every group is handled by the same general butterfly. A complex
// product w * z is computed as wr * z + (-wi, +wi) * swap(z), which rounds
// exactly like the plain wr * zr - wi * zi, wr * zi + wi * zr; only the groups
// where the plain stages take shortcuts for trivial twiddles differ, by float
// rounding. The real-data stages walk the spectrum from both ends at once,
// reversing the pair order of the upper end.
#include "adsp_aec/aec_rdft.h"

#if defined(__SSE2__)

#include <emmintrin.h>

#include <cstdint>

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {

struct Twiddles {
  __m128 wk1r, wk1i, wk2r, wk2i, wk3r, wk3i;
};

// Factors of twiddle groups 2p and 2p + 1.
inline Twiddles LoadTwiddles(int p) {
  return {_mm_load_ps(rdft_wk1r.data() + 4 * p), _mm_load_ps(rdft_wk1i.data() + 4 * p),
          _mm_load_ps(rdft_wk2r.data() + 4 * p), _mm_load_ps(rdft_wk2i.data() + 4 * p),
          _mm_load_ps(rdft_wk3r.data() + 4 * p), _mm_load_ps(rdft_wk3i.data() + 4 * p)};
}

inline __m128 SwapReIm(__m128 z) { return _mm_shuffle_ps(z, z, _MM_SHUFFLE(2, 3, 0, 1)); }

inline __m128 ComplexMul(__m128 wr, __m128 wi_signed, __m128 z) {
  return _mm_add_ps(_mm_mul_ps(wr, z), _mm_mul_ps(wi_signed, SwapReIm(z)));
}

inline __m128 NegateEven() { return _mm_castsi128_ps(_mm_set_epi32(0, INT32_MIN, 0, INT32_MIN)); }
inline __m128 NegateOdd() { return _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0)); }

// Radix-4 butterfly on inputs z0..z3 (positions j, j1, j2, j3), in place.
inline void Butterfly(__m128& z0, __m128& z1, __m128& z2, __m128& z3, const Twiddles& w) {
  const __m128 s01 = _mm_add_ps(z0, z1);
  const __m128 d01 = _mm_sub_ps(z0, z1);
  const __m128 s23 = _mm_add_ps(z2, z3);
  const __m128 d23 = _mm_sub_ps(z2, z3);
  const __m128 i_d23 = _mm_xor_ps(SwapReIm(d23), NegateEven());  // i * d23
  z0 = _mm_add_ps(s01, s23);
  z2 = ComplexMul(w.wk2r, w.wk2i, _mm_sub_ps(s01, s23));
  z1 = ComplexMul(w.wk1r, w.wk1i, _mm_add_ps(d01, i_d23));
  z3 = ComplexMul(w.wk3r, w.wk3i, _mm_sub_ps(d01, i_d23));
}

inline __m128 LowPairs(__m128 a, __m128 b) { return _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 1, 0)); }
inline __m128 HighPairs(__m128 a, __m128 b) { return _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 2, 3, 2)); }

// Two floats c[i], c[i + 1] without reading past them.
inline __m128 LoadPair(const float* c) {
  return _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(c)));
}

}  // namespace

void cft1st_128_SSE2(float* a) {
  // Block j (16 floats) holds groups 2k and 2k + 1 (k = j / 16), four complex
  // values each at spacing 2.
  for (int k = 0; k < 8; ++k) {
    float* block = a + 16 * k;
    const __m128 a01 = _mm_load_ps(block);
    const __m128 a23 = _mm_load_ps(block + 4);
    const __m128 b01 = _mm_load_ps(block + 8);
    const __m128 b23 = _mm_load_ps(block + 12);
    __m128 z0 = LowPairs(a01, b01);
    __m128 z1 = HighPairs(a01, b01);
    __m128 z2 = LowPairs(a23, b23);
    __m128 z3 = HighPairs(a23, b23);
    Butterfly(z0, z1, z2, z3, LoadTwiddles(k));
    _mm_store_ps(block, LowPairs(z0, z1));
    _mm_store_ps(block + 4, LowPairs(z2, z3));
    _mm_store_ps(block + 8, HighPairs(z0, z1));
    _mm_store_ps(block + 12, HighPairs(z2, z3));
  }
}

void cftmdl_128_SSE2(float* a) {
  // l = 8: group g occupies a[32 g .. 32 g + 31], with butterfly inputs at
  // spacing 8. Groups 2p and 2p + 1 are processed together.
  for (int p = 0; p < 2; ++p) {
    const Twiddles w = LoadTwiddles(p);
    float* group_a = a + 64 * p;
    float* group_b = group_a + 32;
    for (int j = 0; j < 8; j += 4) {
      __m128 lo[4], hi[4];
      for (int q = 0; q < 4; ++q) {
        const __m128 va = _mm_load_ps(group_a + j + 8 * q);
        const __m128 vb = _mm_load_ps(group_b + j + 8 * q);
        lo[q] = LowPairs(va, vb);
        hi[q] = HighPairs(va, vb);
      }
      Butterfly(lo[0], lo[1], lo[2], lo[3], w);
      Butterfly(hi[0], hi[1], hi[2], hi[3], w);
      for (int q = 0; q < 4; ++q) {
        _mm_store_ps(group_a + j + 8 * q, LowPairs(lo[q], hi[q]));
        _mm_store_ps(group_b + j + 8 * q, HighPairs(lo[q], hi[q]));
      }
    }
  }
}

namespace {

// One step of the real-data stages for the pairs (j2, j2 + 2) and their
// mirrors (128 - j2, 126 - j2); j2 = 2 mod 4, so the mirror load is aligned.
// forward selects rftfsub's signs, otherwise rftbsub's.
template <bool forward>
inline void RealStageStep(float* a, const float* c, int j2) {
  const int j1 = j2 / 2;
  const __m128 wki_pair = LoadPair(c + j1);            // c[j1], c[j1 + 1]
  const __m128 wkc_pair = LoadPair(c + 31 - j1);       // c[31 - j1], c[32 - j1]
  const __m128 wki = _mm_unpacklo_ps(wki_pair, wki_pair);
  const __m128 wkr = _mm_sub_ps(_mm_set1_ps(0.5f), _mm_shuffle_ps(wkc_pair, wkc_pair, _MM_SHUFFLE(0, 0, 1, 1)));

  float* mirror = a + 126 - j2;
  const __m128 j_pairs = _mm_loadu_ps(a + j2);
  const __m128 k_raw = _mm_load_ps(mirror);
  const __m128 k_pairs = _mm_shuffle_ps(k_raw, k_raw, _MM_SHUFFLE(1, 0, 3, 2));

  const __m128 x = _mm_add_ps(j_pairs, _mm_xor_ps(k_pairs, NegateEven()));  // (aj - ak, aj' + ak')
  if constexpr (forward) {
    const __m128 y = ComplexMul(wkr, _mm_xor_ps(wki, NegateEven()), x);
    _mm_storeu_ps(a + j2, _mm_sub_ps(j_pairs, y));
    const __m128 k_out = _mm_add_ps(k_pairs, _mm_xor_ps(y, NegateOdd()));
    _mm_store_ps(mirror, _mm_shuffle_ps(k_out, k_out, _MM_SHUFFLE(1, 0, 3, 2)));
  } else {
    const __m128 y = ComplexMul(wkr, _mm_xor_ps(wki, NegateOdd()), x);
    _mm_storeu_ps(a + j2, _mm_add_ps(_mm_xor_ps(j_pairs, NegateOdd()), _mm_xor_ps(y, NegateEven())));
    const __m128 k_out = _mm_add_ps(_mm_xor_ps(k_pairs, NegateOdd()), y);
    _mm_store_ps(mirror, _mm_shuffle_ps(k_out, k_out, _MM_SHUFFLE(1, 0, 3, 2)));
  }
}

}  // namespace

void rftfsub_128_SSE2(float* a) {
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

void rftbsub_128_SSE2(float* a) {
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

}  // namespace vorn

#endif  // defined(__SSE2__)
