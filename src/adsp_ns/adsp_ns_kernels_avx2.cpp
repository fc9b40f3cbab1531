// Eight-lane twins of the suppressor's costliest per-bin kernels, for
// processors with AVX2 (see common/cpu_avx2.h). Each lane performs the
// four-lane twin's operations in its order, so the bits are the plain loop's;
// the bins past the last full vector go to the four-lane twin, and a bin whose
// plain step calls a double library function goes to the plain step.
#include "adsp_ns/adsp_ns_kernels.h"

#if defined(VORN_AVX2)

namespace vorn {
namespace {

constexpr float kTiny = 1e-10f;
constexpr float kBiasMinimum = 1.66f;
constexpr float kNewTermWeight = 1.0f - 0.95f;
constexpr float kMemoryWeight = 0.95f;
constexpr float kGainAbsenceMax = 0.9f;
constexpr float kBeamTiny = 1e-8f;
constexpr float kBeamMaxAbsence = 0.998f;
constexpr float kBeamMinAbsence = 0.01f;
constexpr double kLn2High = 6.93147180369123816490e-01;  // ln 2's leading 32 bits: n * kLn2High is exact
constexpr double kLn2Low = 1.90821492927058770002e-10;   // ln 2 - kLn2High

VORN_TARGET_AVX2 inline __m256 Select8(__m256 mask, __m256 a, __m256 b) { return _mm256_blendv_ps(b, a, mask); }
VORN_TARGET_AVX2 inline __m256 Lt8(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
VORN_TARGET_AVX2 inline __m256 Gt8(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
VORN_TARGET_AVX2 inline __m256 Ge8(__m256 a, __m256 b) { return _mm256_cmp_ps(a, b, _CMP_GE_OQ); }

// (a x x + b x + c) / (x x + d x + e), grouped as ExpExpint groups it, with
// each lane's own coefficients.
struct RationalCoefficients8 {
  __m256 a, b, c, d, e;
};

VORN_TARGET_AVX2 inline __m256 Rational8(__m256 x, const RationalCoefficients8 &k) {
  const __m256 num = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(k.a, x), x), _mm256_mul_ps(k.b, x)), k.c);
  const __m256 den = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(x, x), _mm256_mul_ps(k.d, x)), k.e);
  return _mm256_div_ps(num, den);
}

VORN_TARGET_AVX2 inline __m256 InRange8(__m256 x, float lo, float hi) {
  return _mm256_and_ps(Ge8(x, _mm256_set1_ps(lo)), Lt8(x, _mm256_set1_ps(hi)));
}

// Where in_range is set, the lane takes the branch's coefficients.
VORN_TARGET_AVX2 inline void TakeBranch(__m256 in_range, float a, float b, float c, float d, float e,
                                        RationalCoefficients8 &k) {
  k.a = Select8(in_range, _mm256_set1_ps(a), k.a);
  k.b = Select8(in_range, _mm256_set1_ps(b), k.b);
  k.c = Select8(in_range, _mm256_set1_ps(c), k.c);
  k.d = Select8(in_range, _mm256_set1_ps(d), k.d);
  k.e = Select8(in_range, _mm256_set1_ps(e), k.e);
}

// ExpExpint on eight lanes. The three rational branches share one form, so
// each lane picks its branch's coefficients and a single rational (one
// division) serves them all, every lane doing what the plain branch does.
VORN_TARGET_AVX2 __m256 ExpExpint8(__m256 x) {
  const __m256 high = InRange8(x, 1.0f, 5.0f), middle = InRange8(x, 0.25f, 1.0f), low = InRange8(x, 0.001f, 0.25f);
  RationalCoefficients8 k{_mm256_set1_ps(1.01f), _mm256_set1_ps(0.1371f), _mm256_set1_ps(0.7789f),
                          _mm256_set1_ps(0.2453f), _mm256_set1_ps(0.4813f)};
  TakeBranch(middle, 0.9287f, 1.045f, 0.3339f, 0.991f, 0.0774f, k);
  TakeBranch(low, 1.092f, 0.2034f, 0.001081f, 0.03076f, 2.257e-5f, k);
  __m256 e = Select8(_mm256_or_ps(high, _mm256_or_ps(middle, low)), Rational8(x, k), _mm256_set1_ps(1.0f));
  const __m256 tiny = _mm256_and_ps(Gt8(x, _mm256_setzero_ps()), Lt8(x, _mm256_set1_ps(0.001f)));
  if (_mm256_movemask_ps(tiny) != 0) {
    const __m256d c = _mm256_set1_pd(0.7497);
    const __m128 lo = _mm256_cvtpd_ps(_mm256_div_pd(c, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(x)))));
    const __m128 hi = _mm256_cvtpd_ps(_mm256_div_pd(c, _mm256_sqrt_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(x, 1)))));
    e = Select8(tiny, _mm256_set_m128(hi, lo), e);
  }
  return e;
}

}  // namespace

VORN_TARGET_AVX2 void NsSnrTermsAvx2(const NsSnrIn &in, const NsSnrOut &out, int len) {
  const __m256 tiny = _mm256_set1_ps(kTiny), one = _mm256_set1_ps(1.0f), zero = _mm256_setzero_ps();
  const __m256 bias = _mm256_set1_ps(kBiasMinimum), new_weight = _mm256_set1_ps(kNewTermWeight);
  const __m256 memory_weight = _mm256_set1_ps(kMemoryWeight), eta_min = _mm256_set1_ps(in.eta_min);
  const __m256 abs_mask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
  const __m256 inf = _mm256_set1_ps(__builtin_inff());
  int k = 0;
  for (; k + 8 <= len; k += 8) {
    const __m256 psd = _mm256_loadu_ps(in.psd + k);
    const __m256 noise_raw = _mm256_loadu_ps(in.noise + k);
    const __m256 noise = Select8(Lt8(noise_raw, tiny), tiny, noise_raw);
    const __m256 gamma = _mm256_div_ps(psd, noise);
    _mm256_storeu_ps(out.gamma + k, gamma);
    const __m256 excess = _mm256_sub_ps(gamma, one);
    const __m256 new_term = Select8(Gt8(excess, zero), _mm256_mul_ps(new_weight, excess), zero);
    const __m256 eta_raw = _mm256_add_ps(new_term, _mm256_mul_ps(memory_weight, _mm256_loadu_ps(in.eta_2term + k)));
    const __m256 eta = Select8(Gt8(eta_raw, eta_min), eta_raw, eta_min);
    _mm256_storeu_ps(out.eta + k, eta);
    const __m256 eta_plus_one = _mm256_add_ps(eta, one);
    const __m256 v = _mm256_div_ps(_mm256_mul_ps(gamma, eta), eta_plus_one);
    const __m256 finite = Lt8(_mm256_and_ps(v, abs_mask), inf);  // false for infinity and NaN
    _mm256_storeu_ps(out.v + k, Select8(finite, v, _mm256_mul_ps(gamma, _mm256_div_ps(eta, eta_plus_one))));
    const __m256 min_raw = _mm256_loadu_ps(in.minimum + k);
    const __m256 minimum = Select8(Lt8(min_raw, tiny), tiny, min_raw);
    _mm256_storeu_ps(out.gamma_min + k, _mm256_div_ps(_mm256_div_ps(psd, bias), minimum));
    _mm256_storeu_ps(out.zeta + k, _mm256_div_ps(_mm256_div_ps(_mm256_loadu_ps(in.smoothed + k), bias), minimum));
  }
  if (k < len)
    NsSnrTermsSimd({in.psd + k, in.noise + k, in.eta_2term + k, in.minimum + k, in.smoothed + k, in.eta_min},
                   {out.gamma + k, out.eta + k, out.v + k, out.gamma_min + k, out.zeta + k}, len - k);
}

VORN_TARGET_AVX2 void NsLsaGainAvx2(const float *v, const float *eta, const float *gamma, float *lsa_gain,
                                    float *eta_2term, int len) {
  const __m256 one = _mm256_set1_ps(1.0f);
  int k = 0;
  for (; k + 8 <= len; k += 8) {
    const __m256 x = _mm256_loadu_ps(v + k), e = _mm256_loadu_ps(eta + k);
    const __m256 gain = Select8(Gt8(x, _mm256_setzero_ps()),
                                _mm256_div_ps(_mm256_mul_ps(ExpExpint8(x), e), _mm256_add_ps(e, one)), one);
    _mm256_storeu_ps(lsa_gain + k, gain);
    _mm256_storeu_ps(eta_2term + k, _mm256_mul_ps(_mm256_mul_ps(gain, gain), _mm256_loadu_ps(gamma + k)));
  }
  if (k < len) NsLsaGainSimd(v + k, eta + k, gamma + k, lsa_gain + k, eta_2term + k, len - k);
}

// The four-lane twin's rule eight bins at a time; the last bin (compared
// against nothing) and those past the last full vector go to it.
VORN_TARGET_AVX2 void NsBeamAbsenceAvx2(const NsBeamPowers &in, float *q, int len) {
  const __m256 tiny = _mm256_set1_ps(kBeamTiny), zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
  const __m256 two = _mm256_set1_ps(2.0f), half = _mm256_set1_ps(0.5f), ratio_knee = _mm256_set1_ps(1.75f);
  const __m256 low = _mm256_set1_ps(kBeamMinAbsence), high = _mm256_set1_ps(kBeamMaxAbsence);
  const auto excess = [&](int b, int k) VORN_TARGET_AVX2 {
    const __m256 d = _mm256_sub_ps(_mm256_loadu_ps(in.s[b] + k), _mm256_loadu_ps(in.noise[b] + k));
    return Select8(Ge8(d, tiny), d, tiny);
  };
  int k = 0;
  for (; k + 8 <= len - 1; k += 8) {
    const __m256 noise_raw = _mm256_loadu_ps(in.noise[0] + k);
    const __m256 above =
        Gt8(_mm256_div_ps(_mm256_loadu_ps(in.s[0] + k), Select8(Gt8(noise_raw, tiny), noise_raw, tiny)), one);
    const __m256 e1 = excess(1, k), e2 = excess(2, k);
    __m256 dmax = Select8(Gt8(e1, zero), e1, zero);
    dmax = Select8(Gt8(e2, dmax), e2, dmax);
    const __m256 rho = Select8(Gt8(dmax, zero), _mm256_div_ps(excess(0, k), dmax), _mm256_set1_ps(__builtin_inff()));
    const __m256 z = _mm256_loadu_ps(in.gamma0 + k);
    __m256 r = _mm256_div_ps(_mm256_sub_ps(two, z), _mm256_set1_ps(1.5f));
    const __m256 by_ratio = _mm256_div_ps(_mm256_sub_ps(ratio_knee, rho), _mm256_set1_ps(1.4f));
    r = Select8(Gt8(by_ratio, r), by_ratio, r);
    r = Select8(Lt8(r, low), low, r);
    r = Select8(Gt8(r, high), high, r);
    r = Select8(_mm256_and_ps(Gt8(z, two), Gt8(rho, ratio_knee)), low, r);
    r = Select8(_mm256_or_ps(Lt8(rho, one), _mm256_cmp_ps(z, half, _CMP_LE_OQ)), high, r);
    _mm256_storeu_ps(q + k, Select8(above, r, high));
  }
  const NsBeamPowers rest{{in.s[0] + k, in.s[1] + k, in.s[2] + k},
                          {in.noise[0] + k, in.noise[1] + k, in.noise[2] + k},
                          in.gamma0 + k};
  NsBeamAbsenceSimd(rest, q + k, len - k);
}

namespace {

// The margin the kernels below keep their own functions' results by: a
// hundred times and more their error bounds, and those of the library's
// calls they stand in for. Where x shrunk and grown by it rounds to one
// float, x and the library's value both round to that float.
constexpr double kRoundingMargin = 1e-12;

VORN_TARGET_AVX2 inline __m128 RoundsAsOneFloat(__m256d x) {
  const __m128 low = _mm256_cvtpd_ps(_mm256_mul_pd(x, _mm256_set1_pd(1.0 - kRoundingMargin)));
  return _mm_cmpeq_ps(low, _mm256_cvtpd_ps(_mm256_mul_pd(x, _mm256_set1_pd(1.0 + kRoundingMargin))));
}

// c0 + c1 x, a leaf of the series trees below.
VORN_TARGET_AVX2 inline __m256d Pair(__m256d x, double c0, double c1) {
  return _mm256_add_pd(_mm256_set1_pd(c0), _mm256_mul_pd(x, _mm256_set1_pd(c1)));
}

// exp(x) for |x| < 700, within 2e-15 of the true value relative to it:
// exp(x) = 2^n exp(r) with n the nearest integer to x / ln 2, r = x - n ln 2
// (ln 2 in two parts, the first of which n multiplies exactly), |r| < 0.35,
// and exp(r) by its series to r^13 (the rest is below 1e-17). The series is
// summed as a tree over r^2, r^4 and r^8 rather than by Horner's rule: a
// chain of four multiply-adds instead of thirteen, so the bins of a call
// overlap instead of waiting on one another.
VORN_TARGET_AVX2 inline __attribute__((always_inline)) __m256d ExpNear(__m256d x) {
  const __m256d n = _mm256_round_pd(_mm256_mul_pd(x, _mm256_set1_pd(1.4426950408889634)),
                                    _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  const __m256d r = _mm256_sub_pd(_mm256_sub_pd(x, _mm256_mul_pd(n, _mm256_set1_pd(kLn2High))),
                                  _mm256_mul_pd(n, _mm256_set1_pd(kLn2Low)));
  const __m256d r2 = _mm256_mul_pd(r, r);
  const __m256d r4 = _mm256_mul_pd(r2, r2);
  const __m256d r8 = _mm256_mul_pd(r4, r4);
  const __m256d to3 = _mm256_add_pd(Pair(r, 1.0, 1.0), _mm256_mul_pd(r2, Pair(r, 1.0 / 2, 1.0 / 6)));
  const __m256d to7 = _mm256_add_pd(Pair(r, 1.0 / 24, 1.0 / 120), _mm256_mul_pd(r2, Pair(r, 1.0 / 720, 1.0 / 5040)));
  const __m256d to11 =
      _mm256_add_pd(Pair(r, 1.0 / 40320, 1.0 / 362880), _mm256_mul_pd(r2, Pair(r, 1.0 / 3628800, 1.0 / 39916800)));
  const __m256d to13 = Pair(r, 1.0 / 479001600, 1.0 / 6227020800);
  const __m256d series = _mm256_add_pd(_mm256_add_pd(to3, _mm256_mul_pd(r4, to7)),
                                       _mm256_mul_pd(r8, _mm256_add_pd(to11, _mm256_mul_pd(r4, to13))));
  const __m128i biased = _mm_add_epi32(_mm256_cvtpd_epi32(n), _mm_set1_epi32(1023));
  return _mm256_mul_pd(series, _mm256_castsi256_pd(_mm256_slli_epi64(_mm256_cvtepi32_epi64(biased), 52)));
}

VORN_TARGET_AVX2 inline __attribute__((always_inline)) __m256d ExpNegNear(__m128 v) { return ExpNear(_mm256_sub_pd(_mm256_setzero_pd(), _mm256_cvtps_pd(v))); }

// ln x for a positive normal double, within 1e-15 of the true value plus
// 1e-16 of it: x = 2^e m with m in [sqrt 1/2, sqrt 2), ln m = 2 atanh(s) for
// s = (m - 1) / (m + 1), |s| < 0.172, by its series to s^21.
VORN_TARGET_AVX2 inline __attribute__((always_inline)) __m256d LnNear(__m256d x) {
  const __m256i bits = _mm256_castpd_si256(x);
  const __m256d two52 = _mm256_set1_pd(4503599627370496.0);
  // The biased exponent as a double: its integer placed under 2^52's exponent.
  __m256d e = _mm256_sub_pd(
      _mm256_castsi256_pd(_mm256_or_si256(_mm256_srli_epi64(bits, 52), _mm256_castpd_si256(two52))),
      _mm256_set1_pd(4503599627370496.0 + 1023.0));
  __m256d m = _mm256_castsi256_pd(_mm256_or_si256(_mm256_and_si256(bits, _mm256_set1_epi64x(0x000fffffffffffffLL)),
                                                  _mm256_castpd_si256(_mm256_set1_pd(1.0))));
  const __m256d high = _mm256_cmp_pd(m, _mm256_set1_pd(1.4142135623730951), _CMP_GT_OQ);
  m = _mm256_blendv_pd(m, _mm256_mul_pd(m, _mm256_set1_pd(0.5)), high);
  e = _mm256_add_pd(e, _mm256_and_pd(high, _mm256_set1_pd(1.0)));
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d s = _mm256_div_pd(_mm256_sub_pd(m, one), _mm256_add_pd(m, one));
  // The series in u = s^2 summed as a tree, like ExpNear's.
  const __m256d u = _mm256_mul_pd(s, s);
  const __m256d u2 = _mm256_mul_pd(u, u);
  const __m256d u4 = _mm256_mul_pd(u2, u2);
  const __m256d u8 = _mm256_mul_pd(u4, u4);
  const __m256d to3 = _mm256_add_pd(Pair(u, 1.0, 1.0 / 3), _mm256_mul_pd(u2, Pair(u, 1.0 / 5, 1.0 / 7)));
  const __m256d to7 = _mm256_add_pd(Pair(u, 1.0 / 9, 1.0 / 11), _mm256_mul_pd(u2, Pair(u, 1.0 / 13, 1.0 / 15)));
  const __m256d to10 = _mm256_add_pd(Pair(u, 1.0 / 17, 1.0 / 19), _mm256_mul_pd(u2, _mm256_set1_pd(1.0 / 21)));
  const __m256d series =
      _mm256_add_pd(_mm256_add_pd(to3, _mm256_mul_pd(u4, to7)), _mm256_mul_pd(u8, to10));
  const __m256d atanh2 = _mm256_mul_pd(_mm256_add_pd(s, s), series);
  return _mm256_add_pd(_mm256_mul_pd(e, _mm256_set1_pd(kLn2High)),
                       _mm256_add_pd(_mm256_mul_pd(e, _mm256_set1_pd(kLn2Low)), atanh2));
}

}  // namespace

// A bin whose exponential the noise estimate did not form gets ExpNegNear's
// instead of the library's: the presence moves by less than 1e-14 of itself
// between the two, so wherever it plus or minus 1e-12 of itself rounds to one
// float, both give that float. From v = 700 on, exp(-v) is below 1e-304, so
// with the factor before it below 1e200 in magnitude, 1 plus their product
// rounds to 1 and the presence is 1 whatever the exponential's last bits:
// those bins take 0 for it. The rare bin near a rounding boundary, and one
// whose v or factor is out of these ranges or NaN, takes the plain step.
VORN_TARGET_AVX2 void NsGainPresenceAvx2(const float *q, const float *eta, const float *v, const double *exp_neg_v,
                                         float *presence, int len) {
  const __m256d one = _mm256_set1_pd(1.0), zero = _mm256_setzero_pd();
  const __m256d factor_max = _mm256_set1_pd(1e200), sign_d = _mm256_set1_pd(-0.0);
  const __m128 absence_max = _mm_set1_ps(kGainAbsenceMax), v_max = _mm_set1_ps(700.0f);
  const __m128 sign = _mm_set1_ps(-0.0f);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const __m128 absence = _mm_loadu_ps(q + k);
    const __m128 open = _mm_cmplt_ps(absence, absence_max);
    const __m256d a = _mm256_cvtps_pd(absence);
    const __m256d eta_d = _mm256_cvtps_pd(_mm_loadu_ps(eta + k));
    const __m256d factor = _mm256_mul_pd(_mm256_div_pd(a, _mm256_sub_pd(one, a)), _mm256_add_pd(one, eta_d));
    __m256d e = _mm256_loadu_pd(exp_neg_v + k);
    const int missing = _mm_movemask_ps(open) & ~_mm256_movemask_pd(_mm256_cmp_pd(e, zero, _CMP_GE_OQ));
    int sure = 0;
    if (missing != 0) {
      const __m128 v4 = _mm_loadu_ps(v + k);
      const __m128 near = _mm_cmplt_ps(_mm_andnot_ps(sign, v4), v_max);
      const __m256d far = _mm256_and_pd(_mm256_cvtps_pd(_mm_cmpge_ps(v4, v_max)),
                                        _mm256_cmp_pd(_mm256_andnot_pd(sign_d, factor), factor_max, _CMP_LT_OQ));
      if (_mm_movemask_ps(near) & missing)
        e = _mm256_blendv_pd(e, ExpNegNear(v4), _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm_castps_si128(near))));
      e = _mm256_andnot_pd(far, e);
      sure = missing & (_mm_movemask_ps(near) | _mm256_movemask_pd(far));
    }
    const __m256d p = _mm256_div_pd(one, _mm256_add_pd(one, _mm256_mul_pd(factor, e)));
    _mm_storeu_ps(presence + k, _mm_and_ps(open, _mm256_cvtpd_ps(p)));
    if (missing != 0) {
      const int plain = missing & ~(sure & _mm_movemask_ps(RoundsAsOneFloat(p)));
      for (int bits = plain; bits != 0; bits &= bits - 1) {
        const int i = k + __builtin_ctz(static_cast<unsigned>(bits));
        NsGainPresencePlain(q + i, eta + i, v + i, exp_neg_v + i, presence + i, 1);
      }
    }
  }
  if (k < len) NsGainPresenceSimd(q + k, eta + k, v + k, exp_neg_v + k, presence + k, len - k);
}

// The presence where the minimum leaves it open, (1 - a) / ((1 - a) + (1 +
// eta) a exp(-v)) with a = (3 - gamma_min) / 2, from ExpNegNear's exponential:
// with every term positive (gamma_min in 1..3, eta not negative) it moves by
// less than 1e-14 of itself between the two, so wherever it plus or minus
// 1e-12 of itself rounds to one float, both give that float. From v = 700
// on, with eta finite, (1 + eta) a exp(-v) is below 1e-265, under half a unit
// of 1 - a's last place (1 - a is at least 2^-24), and the presence is 1
// whatever the exponential's bits. Those bins keep no exponential (-1), so
// the gain rule forms its own; the others take the plain step.
VORN_TARGET_AVX2 void NsPresenceAvx2(const float *gamma_min, const float *zeta, const float *v, const float *eta,
                                     float *presence, double *exp_neg_v, int len) {
  const __m128 one_f = _mm_set1_ps(1.0f), gamma_max = _mm_set1_ps(3.0f), zeta_max = _mm_set1_ps(1.67f);
  const __m128 v_max = _mm_set1_ps(700.0f), sign = _mm_set1_ps(-0.0f), zero_f = _mm_setzero_ps();
  const __m128 inf = _mm_set1_ps(__builtin_inff());
  const __m256d one = _mm256_set1_pd(1.0), half = _mm256_set1_pd(0.5), three = _mm256_set1_pd(3.0);
  const __m256d none = _mm256_set1_pd(-1.0);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const __m128 g = _mm_loadu_ps(gamma_min + k), z = _mm_loadu_ps(zeta + k);
    const __m128 sure_speech = _mm_or_ps(_mm_cmpgt_ps(g, gamma_max), _mm_cmpgt_ps(z, zeta_max));
    __m128 out = _mm_and_ps(sure_speech, one_f);
    _mm256_storeu_pd(exp_neg_v + k, none);
    int open = _mm_movemask_ps(
        _mm_and_ps(_mm_and_ps(_mm_cmpgt_ps(g, one_f), _mm_cmplt_ps(g, gamma_max)), _mm_cmplt_ps(z, zeta_max)));
    if (open != 0) {
      const __m128 v4 = _mm_loadu_ps(v + k), eta4 = _mm_loadu_ps(eta + k);
      const __m128 eta_usable = _mm_and_ps(_mm_cmpge_ps(eta4, zero_f), _mm_cmplt_ps(eta4, inf));
      const __m128 near = _mm_and_ps(eta_usable, _mm_cmplt_ps(_mm_andnot_ps(sign, v4), v_max));
      const __m128 far = _mm_and_ps(eta_usable, _mm_cmpge_ps(v4, v_max));
      const __m256d absence = _mm256_mul_pd(_mm256_sub_pd(three, _mm256_cvtps_pd(g)), half);
      const __m256d not_absent = _mm256_sub_pd(one, absence);
      const __m256d e = _mm256_andnot_pd(_mm256_cvtps_pd(far), ExpNegNear(v4));
      const __m256d p = _mm256_div_pd(
          not_absent,
          _mm256_add_pd(not_absent, _mm256_mul_pd(_mm256_mul_pd(_mm256_add_pd(one, _mm256_cvtps_pd(eta4)), absence), e)));
      const __m128 p4 = _mm256_cvtpd_ps(p);
      const __m128 steady = RoundsAsOneFloat(p);
      const int formed = open & _mm_movemask_ps(_mm_and_ps(_mm_or_ps(near, far), steady));
      const __m128 formed_lanes = _mm_castsi128_ps(
          _mm_cmpgt_epi32(_mm_and_si128(_mm_set1_epi32(formed), _mm_setr_epi32(1, 2, 4, 8)), _mm_setzero_si128()));
      out = _mm_or_ps(out, _mm_and_ps(formed_lanes, p4));
      open &= ~formed;
    }
    _mm_storeu_ps(presence + k, out);
    for (; open != 0; open &= open - 1) {
      const int i = k + __builtin_ctz(static_cast<unsigned>(open));
      NsPresencePlain(gamma_min + i, zeta + i, v + i, eta + i, presence + i, exp_neg_v + i, 1);
    }
  }
  if (k < len) NsPresencePlain(gamma_min + k, zeta + k, v + k, eta + k, presence + k, exp_neg_v + k, len - k);
}

// floor^(1 - p) * speech^p as exp((1 - p) ln floor + p ln speech): the
// exponent is within 3e-14 of the true one (|ln| < 104 for positive finite
// floats), so the result within 4e-14 of itself, and the library's two pow
// and their product within 1e-15. Wherever the result plus or minus 1e-12 of
// itself rounds to one float, both give that float; the rare bin near a
// rounding boundary, or with a floor or speech gain that is not positive and
// finite, or a weight outside 0..1, takes the plain step.
VORN_TARGET_AVX2 void NsGainBlendAvx2(const float *floor, const float *speech, const float *presence, float *gain,
                                      int len) {
  const __m256d one = _mm256_set1_pd(1.0);
  const __m128 zero = _mm_setzero_ps(), one_f = _mm_set1_ps(1.0f), inf = _mm_set1_ps(__builtin_inff());
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const __m128 f = _mm_loadu_ps(floor + k), s = _mm_loadu_ps(speech + k), p = _mm_loadu_ps(presence + k);
    const __m128 at_floor = _mm_cmpeq_ps(p, zero), at_speech = _mm_cmpeq_ps(p, one_f);
    const __m128 weighs = _mm_andnot_ps(_mm_or_ps(at_floor, at_speech), _mm_and_ps(_mm_cmpgt_ps(p, zero),
                                                                                   _mm_cmplt_ps(p, one_f)));
    const __m128 usable = _mm_and_ps(_mm_and_ps(_mm_cmpgt_ps(f, zero), _mm_cmplt_ps(f, inf)),
                                     _mm_and_ps(_mm_cmpgt_ps(s, zero), _mm_cmplt_ps(s, inf)));
    __m128 out = _mm_or_ps(_mm_and_ps(at_floor, f), _mm_and_ps(at_speech, s));
    int plain = 0xf & ~_mm_movemask_ps(_mm_or_ps(at_floor, at_speech));
    if (plain != 0) {
      const __m256d w = _mm256_cvtps_pd(p);
      const __m256d exponent = _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(one, w), LnNear(_mm256_cvtps_pd(f))),
                                             _mm256_mul_pd(w, LnNear(_mm256_cvtps_pd(s))));
      const __m256d blend = ExpNear(exponent);
      const __m128 sure = _mm_and_ps(_mm_and_ps(weighs, usable), RoundsAsOneFloat(blend));
      out = _mm_or_ps(out, _mm_and_ps(sure, _mm256_cvtpd_ps(blend)));
      plain &= ~_mm_movemask_ps(sure);
    }
    _mm_storeu_ps(gain + k, out);
    for (int bits = plain; bits != 0; bits &= bits - 1) {
      const int i = k + __builtin_ctz(static_cast<unsigned>(bits));
      NsGainBlendPlain(floor + i, speech + i, presence + i, gain + i, 1);
    }
  }
  if (k < len) NsGainBlendPlain(floor + k, speech + k, presence + k, gain + k, len - k);
}

}  // namespace vorn

#endif
