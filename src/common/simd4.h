// Four-lane single-precision vectors for the kernels that have a plain twin:
// SSE2 on x86-64, NEON on arm64, one kernel source for both.
//
// Only the operations that round exactly as the scalar ones do are offered:
// add, subtract, multiply, divide, square root (each an IEEE operation on
// every lane), comparisons, bitwise selection, sign flips and data movement.
// There is no fused multiply-add and no approximate reciprocal, and Min is spelled as the
// plain code's `a < b ? a : b` (NEON's own minimum treats NaN otherwise). A
// kernel that performs, per lane, the plain loop's operations in the plain
// loop's order therefore gives the plain loop's bits.
//
// VORN_SIMD4 is defined where one of the two is available; elsewhere the
// callers take their plain routines.
#pragma once

#if defined(__SSE2__)
#include <emmintrin.h>

#include <cstdint>
#define VORN_SIMD4 1
#elif defined(__aarch64__) && defined(__ARM_NEON)
#include <arm_neon.h>
#define VORN_SIMD4 1
#endif

#if defined(VORN_SIMD4)
namespace vorn::simd {

#if defined(__SSE2__)

using F4 = __m128;
using M4 = __m128;  // all-ones lanes where a comparison holds

inline F4 Load(const float* p) { return _mm_loadu_ps(p); }
inline void Store(float* p, F4 v) { _mm_storeu_ps(p, v); }
inline F4 Set1(float x) { return _mm_set1_ps(x); }
inline F4 Set(float l0, float l1, float l2, float l3) { return _mm_setr_ps(l0, l1, l2, l3); }
inline F4 Add(F4 a, F4 b) { return _mm_add_ps(a, b); }
inline F4 Sub(F4 a, F4 b) { return _mm_sub_ps(a, b); }
inline F4 Mul(F4 a, F4 b) { return _mm_mul_ps(a, b); }
inline F4 Div(F4 a, F4 b) { return _mm_div_ps(a, b); }
inline F4 Sqrt(F4 a) { return _mm_sqrt_ps(a); }
inline F4 Neg(F4 a) { return _mm_xor_ps(a, _mm_set1_ps(-0.0f)); }
inline F4 Abs(F4 a) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), a); }
inline M4 Lt(F4 a, F4 b) { return _mm_cmplt_ps(a, b); }
inline M4 Le(F4 a, F4 b) { return _mm_cmple_ps(a, b); }
inline M4 Gt(F4 a, F4 b) { return _mm_cmpgt_ps(a, b); }
inline M4 Ge(F4 a, F4 b) { return _mm_cmpge_ps(a, b); }
inline M4 Eq(F4 a, F4 b) { return _mm_cmpeq_ps(a, b); }
inline M4 And(M4 a, M4 b) { return _mm_and_ps(a, b); }
inline M4 Or(M4 a, M4 b) { return _mm_or_ps(a, b); }
inline M4 AndNot(M4 a, M4 b) { return _mm_andnot_ps(b, a); }  // a and not b
// Lanes of a where m holds, of b elsewhere.
inline F4 Select(M4 m, F4 a, F4 b) { return _mm_or_ps(_mm_and_ps(m, a), _mm_andnot_ps(m, b)); }
inline bool Any(M4 m) { return _mm_movemask_ps(m) != 0; }
inline bool All(M4 m) { return _mm_movemask_ps(m) == 0xf; }
// Bit i set where lane i of m holds.
inline int Bits(M4 m) { return _mm_movemask_ps(m); }
// Lanes in the opposite order.
inline F4 Reverse(F4 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 1, 2, 3)); }
// Lane moves for data held as (re, im) pairs.
inline F4 SwapInPairs(F4 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 3, 0, 1)); }  // 1 0 3 2
inline F4 SwapPairs(F4 v) { return _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 0, 3, 2)); }    // 2 3 0 1
inline F4 LowPairs(F4 a, F4 b) { return _mm_movelh_ps(a, b); }                          // a0 a1 b0 b1
inline F4 HighPairs(F4 a, F4 b) { return _mm_movehl_ps(b, a); }                         // a2 a3 b2 b3
// p[0] p[0] p[1] p[1], reading two floats only.
inline F4 LoadTwoDoubled(const float* p) {
  const __m128 pair = _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
  return _mm_unpacklo_ps(pair, pair);
}
// Flips the sign bit of lanes 0 and 2 (even) or 1 and 3 (odd), NaN included.
inline F4 NegateEven(F4 v) { return _mm_xor_ps(v, _mm_castsi128_ps(_mm_setr_epi32(INT32_MIN, 0, INT32_MIN, 0))); }
inline F4 NegateOdd(F4 v) { return _mm_xor_ps(v, _mm_castsi128_ps(_mm_setr_epi32(0, INT32_MIN, 0, INT32_MIN))); }

// Rows r0..r3 become columns: r_i lane j moves to r_j lane i.
inline void Transpose(F4& r0, F4& r1, F4& r2, F4& r3) { _MM_TRANSPOSE4_PS(r0, r1, r2, r3); }
// Four (re, im) pairs held in a, b split into their parts, and back.
inline void Deinterleave(F4 a, F4 b, F4& even, F4& odd) {
  even = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
  odd = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}
inline void Interleave(F4 even, F4 odd, F4& a, F4& b) {
  a = _mm_unpacklo_ps(even, odd);
  b = _mm_unpackhi_ps(even, odd);
}

// Two-lane doubles, for the steps the plain code rounds through double.
using D2 = __m128d;
inline D2 LowToDouble(F4 v) { return _mm_cvtps_pd(v); }
inline D2 HighToDouble(F4 v) { return _mm_cvtps_pd(_mm_movehl_ps(v, v)); }
inline F4 ToFloat(D2 lo, D2 hi) { return _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi)); }
inline D2 Set1D(double x) { return _mm_set1_pd(x); }
inline D2 DivD(D2 a, D2 b) { return _mm_div_pd(a, b); }
inline D2 SqrtD(D2 a) { return _mm_sqrt_pd(a); }
inline D2 AddD(D2 a, D2 b) { return _mm_add_pd(a, b); }
inline D2 SubD(D2 a, D2 b) { return _mm_sub_pd(a, b); }
inline D2 MulD(D2 a, D2 b) { return _mm_mul_pd(a, b); }
inline D2 LoadD(const double* p) { return _mm_loadu_pd(p); }
inline void StoreD(double* p, D2 v) { _mm_storeu_pd(p, v); }

#else  // NEON

using F4 = float32x4_t;
using M4 = uint32x4_t;

inline F4 Load(const float* p) { return vld1q_f32(p); }
inline void Store(float* p, F4 v) { vst1q_f32(p, v); }
inline F4 Set1(float x) { return vdupq_n_f32(x); }
inline F4 Set(float l0, float l1, float l2, float l3) {
  const float lanes[4] = {l0, l1, l2, l3};
  return vld1q_f32(lanes);
}
inline F4 Add(F4 a, F4 b) { return vaddq_f32(a, b); }
inline F4 Sub(F4 a, F4 b) { return vsubq_f32(a, b); }
inline F4 Mul(F4 a, F4 b) { return vmulq_f32(a, b); }
inline F4 Div(F4 a, F4 b) { return vdivq_f32(a, b); }
inline F4 Sqrt(F4 a) { return vsqrtq_f32(a); }
inline F4 Neg(F4 a) { return vnegq_f32(a); }
inline F4 Abs(F4 a) { return vabsq_f32(a); }
inline M4 Lt(F4 a, F4 b) { return vcltq_f32(a, b); }
inline M4 Le(F4 a, F4 b) { return vcleq_f32(a, b); }
inline M4 Gt(F4 a, F4 b) { return vcgtq_f32(a, b); }
inline M4 Ge(F4 a, F4 b) { return vcgeq_f32(a, b); }
inline M4 Eq(F4 a, F4 b) { return vceqq_f32(a, b); }
inline M4 And(M4 a, M4 b) { return vandq_u32(a, b); }
inline M4 Or(M4 a, M4 b) { return vorrq_u32(a, b); }
inline M4 AndNot(M4 a, M4 b) { return vbicq_u32(a, b); }
inline F4 Select(M4 m, F4 a, F4 b) { return vbslq_f32(m, a, b); }
inline bool Any(M4 m) { return vmaxvq_u32(m) != 0; }
inline bool All(M4 m) { return vminvq_u32(m) != 0; }
inline int Bits(M4 m) {
  const uint32x4_t bit = {1u, 2u, 4u, 8u};
  return static_cast<int>(vaddvq_u32(vandq_u32(m, bit)));
}
inline F4 Reverse(F4 v) {
  const F4 pairs = vrev64q_f32(v);  // 1 0 3 2
  return vextq_f32(pairs, pairs, 2);
}
inline F4 SwapInPairs(F4 v) { return vrev64q_f32(v); }
inline F4 SwapPairs(F4 v) { return vextq_f32(v, v, 2); }
inline F4 LowPairs(F4 a, F4 b) { return vcombine_f32(vget_low_f32(a), vget_low_f32(b)); }
inline F4 HighPairs(F4 a, F4 b) { return vcombine_f32(vget_high_f32(a), vget_high_f32(b)); }
inline F4 LoadTwoDoubled(const float* p) {
  const float32x2_t pair = vld1_f32(p);
  return vcombine_f32(vdup_lane_f32(pair, 0), vdup_lane_f32(pair, 1));
}
inline F4 NegateEven(F4 v) {
  const uint32x4_t sign = {0x80000000u, 0u, 0x80000000u, 0u};
  return vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(v), sign));
}
inline F4 NegateOdd(F4 v) {
  const uint32x4_t sign = {0u, 0x80000000u, 0u, 0x80000000u};
  return vreinterpretq_f32_u32(veorq_u32(vreinterpretq_u32_f32(v), sign));
}

inline void Transpose(F4& r0, F4& r1, F4& r2, F4& r3) {
  const float32x4x2_t t01 = vtrnq_f32(r0, r1);  // (r0_0 r1_0 r0_2 r1_2), (r0_1 r1_1 r0_3 r1_3)
  const float32x4x2_t t23 = vtrnq_f32(r2, r3);
  r0 = vcombine_f32(vget_low_f32(t01.val[0]), vget_low_f32(t23.val[0]));
  r1 = vcombine_f32(vget_low_f32(t01.val[1]), vget_low_f32(t23.val[1]));
  r2 = vcombine_f32(vget_high_f32(t01.val[0]), vget_high_f32(t23.val[0]));
  r3 = vcombine_f32(vget_high_f32(t01.val[1]), vget_high_f32(t23.val[1]));
}
inline void Deinterleave(F4 a, F4 b, F4& even, F4& odd) {
  even = vuzp1q_f32(a, b);
  odd = vuzp2q_f32(a, b);
}
inline void Interleave(F4 even, F4 odd, F4& a, F4& b) {
  a = vzip1q_f32(even, odd);
  b = vzip2q_f32(even, odd);
}

using D2 = float64x2_t;
inline D2 LowToDouble(F4 v) { return vcvt_f64_f32(vget_low_f32(v)); }
inline D2 HighToDouble(F4 v) { return vcvt_high_f64_f32(v); }
inline F4 ToFloat(D2 lo, D2 hi) { return vcvt_high_f32_f64(vcvt_f32_f64(lo), hi); }
inline D2 Set1D(double x) { return vdupq_n_f64(x); }
inline D2 DivD(D2 a, D2 b) { return vdivq_f64(a, b); }
inline D2 SqrtD(D2 a) { return vsqrtq_f64(a); }
inline D2 AddD(D2 a, D2 b) { return vaddq_f64(a, b); }
inline D2 SubD(D2 a, D2 b) { return vsubq_f64(a, b); }
inline D2 MulD(D2 a, D2 b) { return vmulq_f64(a, b); }
inline D2 LoadD(const double* p) { return vld1q_f64(p); }
inline void StoreD(double* p, D2 v) { vst1q_f64(p, v); }

#endif

inline F4 Zero() { return Set1(0.0f); }
inline F4 Min(F4 a, F4 b) { return Select(Lt(a, b), a, b); }
// Finite lanes (not infinite, not NaN).
inline M4 IsFinite(F4 a) { return Lt(Abs(a), Set1(__builtin_inff())); }
// Four entries ending at p, last first: p[0], p[-1], p[-2], p[-3].
inline F4 LoadReversed(const float* p) { return Reverse(Load(p - 3)); }
inline void StoreReversed(float* p, F4 v) { Store(p - 3, Reverse(v)); }

}  // namespace vorn::simd
#endif
