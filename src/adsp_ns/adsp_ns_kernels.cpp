// Per-bin kernels of the suppressor's hop (see adsp_ns_kernels.h). The plain
// per-bin steps below are the reference; the loops over bins call them, and
// the four-lane twins call them for the bins left over past the last full
// vector and for the bins whose plain step calls a double library function.
#include "adsp_ns/adsp_ns_kernels.h"

#include <cmath>
#include <limits>

#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr float kTiny = 1e-10f;
constexpr float kBiasMinimum = 1.66f;
constexpr float kBiasAverage = 1.4685f;  // mean / minimum of the smoothed periodogram
constexpr float kGammaMax = 3.0f;        // periodogram-to-minimum ratio that is surely speech
constexpr float kZetaMax = 1.67f;
constexpr float kMinLikelihood = 0.005f;
constexpr float kIndicatorPsd = 7.636f;      // 1.66 * 4.6
constexpr float kIndicatorSmooth = 2.7722f;  // 1.66 * 1.67
// Decision-directed a priori SNR: the weight of the new term is 1 - 0.95 as a
// float (0.050000012).
constexpr float kNewTermWeight = 1.0f - 0.95f;
constexpr float kMemoryWeight = 0.95f;

void SnrTermsAt(const NsSnrIn &in, const NsSnrOut &out, int k) {
  const float noise = in.noise[k] < kTiny ? kTiny : in.noise[k];
  const float gamma = in.psd[k] / noise;
  out.gamma[k] = gamma;
  const float excess = gamma - 1.0f;
  const float new_term = excess > 0.0f ? kNewTermWeight * excess : 0.0f;
  const float eta_raw = new_term + kMemoryWeight * in.eta_2term[k];
  const float eta = eta_raw > in.eta_min ? eta_raw : in.eta_min;
  out.eta[k] = eta;
  float v = gamma * eta / (eta + 1.0f);
  // After long digital silence the noise estimate sits at its floor, and the
  // first loud frame can push gamma * eta past the float range. Only then is
  // the division done first: every finite result keeps its usual rounding,
  // and the gain rule takes the same branch for a huge v as for an infinite one.
  if (!std::isfinite(v)) v = gamma * (eta / (eta + 1.0f));
  out.v[k] = v;
  const float minimum = in.minimum[k] < kTiny ? kTiny : in.minimum[k];
  out.gamma_min[k] = in.psd[k] / kBiasMinimum / minimum;
  out.zeta[k] = in.smoothed[k] / kBiasMinimum / minimum;
}

bool SurelySpeech(float gamma_min, float zeta) { return gamma_min > kGammaMax || zeta > kZetaMax; }

void NoiseUpdateAt(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                   const NsNoiseAverages &avg, int k) {
  if (!SurelySpeech(gamma_min[k], zeta[k])) {
    const float alpha = 0.85f + 0.15f * presence[k];
    const float alpha_long = 0.99f + 0.01f * presence[k];
    avg.lambda_dav[k] = alpha * avg.lambda_dav[k] + (1.0f - alpha) * psd[k];
    avg.lambda_dav_long[k] = alpha_long * avg.lambda_dav_long[k] + (1.0f - alpha_long) * psd[k];
  }
  avg.lambda_d[k] = kBiasAverage * avg.lambda_dav[k];
}

float NoiseIndicatorAt(float psd, float smoothed, float minimum) {
  return psd < kIndicatorPsd * minimum && smoothed < kIndicatorSmooth * minimum ? 1.0f : 0.0f;
}

float HeldRatioAt(float sum, float weight, float held) { return weight > kTiny ? sum / weight : held; }

// Only for a bin the minimum leaves open (1 < gamma_min < 3, zeta < 1.67).
void OpenPresenceAt(const float *gamma_min, const float *v, const float *eta, float *presence, double *exp_neg_v,
                    int k) {
  const double absence = (3.0 - static_cast<double>(gamma_min[k])) * 0.5;
  const double not_absent = 1.0 - absence;
  exp_neg_v[k] = std::exp(-static_cast<double>(v[k]));
  presence[k] =
      static_cast<float>(not_absent / (not_absent + (1.0 + static_cast<double>(eta[k])) * absence * exp_neg_v[k]));
}

void PresenceAt(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                double *exp_neg_v, int k) {
  presence[k] = 0.0f;
  exp_neg_v[k] = -1.0;
  if (gamma_min[k] > 1.0f && gamma_min[k] < kGammaMax && zeta[k] < kZetaMax)
    OpenPresenceAt(gamma_min, v, eta, presence, exp_neg_v, k);
  if (SurelySpeech(gamma_min[k], zeta[k])) presence[k] = 1.0f;
}

constexpr float kGainAbsenceMax = 0.9f;  // at or above it the gain rule takes the floor alone

float GainPresenceAt(const float *q, const float *eta, const float *v, const double *exp_neg_v, int k) {
  if (!(q[k] < kGainAbsenceMax)) return 0.0f;
  const double absence = q[k];
  const double e = exp_neg_v[k] >= 0.0 ? exp_neg_v[k] : NsExpNeg(v[k]);
  return static_cast<float>(1.0 / (1.0 + (absence / (1.0 - absence)) * (1.0 + static_cast<double>(eta[k])) * e));
}

float LsaGainAt(float v, float eta) {
  if (v > 5.0f) return eta / (eta + 1.0f);
  if (v > 0.0f) return ExpExpint(v) * eta / (eta + 1.0f);
  return 1.0f;
}

void LsaGainAt(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int k) {
  const float gain = LsaGainAt(v[k], eta[k]);
  lsa_gain[k] = gain;
  eta_2term[k] = gain * gain * gamma[k];
}

// The ramp is flat outside -10..-5 dB, so the logarithm is taken only for
// ratios near 0.1..0.316; the brackets keep a margin of several thousandths
// of a dB, so the result is that of the ramp on the logarithm.
constexpr float kRampLowRatio = 0.0999f;
constexpr float kRampHighRatio = 0.3165f;

float RampOfRatioAt(float ratio) {
  if (ratio < kRampLowRatio) return kMinLikelihood;
  if (ratio > kRampHighRatio) return 1.0f;
  return NsRamp(NsPowerDb(ratio));
}

constexpr float kBeamTiny = 1e-8f;
constexpr float kBeamMaxAbsence = 0.998f;
constexpr float kBeamMinAbsence = 0.01f;

float BeamExcess(float s, float noise) {
  const float d = s - noise;
  return d >= kBeamTiny ? d : kBeamTiny;
}

float BeamAbsenceAt(const NsBeamPowers &in, int k, bool others) {
  const float noise0 = in.noise[0][k] > kBeamTiny ? in.noise[0][k] : kBeamTiny;
  if (!(in.s[0][k] / noise0 > 1.0f)) return kBeamMaxAbsence;
  float dmax = 0.0f;
  if (others) {
    for (int b = 1; b < 3; ++b) {
      const float excess = BeamExcess(in.s[b][k], in.noise[b][k]);
      if (excess > dmax) dmax = excess;
    }
  }
  const float rho =
      dmax > 0.0f ? BeamExcess(in.s[0][k], in.noise[0][k]) / dmax : std::numeric_limits<float>::infinity();
  const float z = in.gamma0[k];
  if (rho < 1.0f) return kBeamMaxAbsence;
  if (z <= 0.5f) return kBeamMaxAbsence;
  if (z > 2.0f && rho > 1.75f) return kBeamMinAbsence;
  float q = (2.0f - z) / 1.5f;
  const float by_ratio = (1.75f - rho) / 1.4f;
  if (by_ratio > q) q = by_ratio;
  if (q < kBeamMinAbsence) q = kBeamMinAbsence;
  if (q > kBeamMaxAbsence) q = kBeamMaxAbsence;
  return q;
}

}  // namespace

double NsExpNeg(float v) { return std::exp(-static_cast<double>(v)); }

float NsPowerDb(float ratio) {
  return ratio > 0.0f ? static_cast<float>(10.0 * std::log10(static_cast<double>(ratio))) : -100.0f;
}

float NsRamp(float snr_db) {
  if (snr_db <= -10.0f) return kMinLikelihood;
  if (snr_db >= -5.0f) return 1.0f;
  return ((snr_db + 10.0f) / 5.0f) * 0.995f + kMinLikelihood;
}

void NsSnrTermsPlain(const NsSnrIn &in, const NsSnrOut &out, int len) {
  for (int k = 0; k < len; ++k) SnrTermsAt(in, out, k);
}

void NsGainPresencePlain(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                         int len) {
  for (int k = 0; k < len; ++k) presence[k] = GainPresenceAt(q, eta, v, exp_neg_v, k);
}

void NsGainBlendPlain(const float *floor, const float *speech, const float *presence, float *gain, int len) {
  for (int k = 0; k < len; ++k) {
    if (presence[k] == 0.0f) {
      gain[k] = floor[k];  // x^1 * y^0 is x exactly
    } else if (presence[k] == 1.0f) {
      gain[k] = speech[k];  // x^0 * y^1 is y exactly
    } else {
      const double weight = presence[k];
      gain[k] = static_cast<float>(std::pow(static_cast<double>(floor[k]), 1.0 - weight) *
                                   std::pow(static_cast<double>(speech[k]), weight));
    }
  }
}

void NsNoiseIndicatorPlain(const float *psd, const float *smoothed, const float *minimum, float *indicator,
                           int len) {
  for (int k = 0; k < len; ++k) indicator[k] = NoiseIndicatorAt(psd[k], smoothed[k], minimum[k]);
}

void NsHeldRatioPlain(const float *sum, const float *weight, const float *held, float *out, int len) {
  for (int k = 0; k < len; ++k) out[k] = HeldRatioAt(sum[k], weight[k], held[k]);
}

void NsPresencePlain(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                     double *exp_neg_v, int len) {
  for (int k = 0; k < len; ++k) PresenceAt(gamma_min, zeta, v, eta, presence, exp_neg_v, k);
}

void NsNoiseUpdatePlain(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                        const NsNoiseAverages &avg, int len) {
  for (int k = 0; k < len; ++k) NoiseUpdateAt(psd, gamma_min, zeta, presence, avg, k);
}

void NsLsaGainPlain(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term,
                    int len) {
  for (int k = 0; k < len; ++k) LsaGainAt(v, eta, gamma, lsa_gain, eta_2term, k);
}

void NsRampOfRatioPlain(const float *ratio, float *likelihood, int len) {
  for (int k = 0; k < len; ++k) likelihood[k] = RampOfRatioAt(ratio[k]);
}

void NsBeamAbsencePlain(const NsBeamPowers &in, float *q, int len) {
  for (int k = 0; k < len; ++k) q[k] = BeamAbsenceAt(in, k, k < len - 1);
}

#if defined(VORN_SIMD4)

// Every lane forms every candidate (the divisions of a lane whose branch
// drops them included); the selections then apply the plain step's tests in
// reverse order of precedence, so the earliest test that holds has the last word.
void NsBeamAbsenceSimd(const NsBeamPowers &in, float *q, int len) {
  using namespace simd;
  const F4 tiny = Set1(kBeamTiny), zero = Zero(), one = Set1(1.0f), two = Set1(2.0f), half = Set1(0.5f);
  const F4 ratio_knee = Set1(1.75f), low = Set1(kBeamMinAbsence), high = Set1(kBeamMaxAbsence);
  const auto excess = [&](int b, int k) {
    const F4 d = Sub(Load(in.s[b] + k), Load(in.noise[b] + k));
    return Select(Ge(d, tiny), d, tiny);
  };
  int k = 0;
  for (; k + 4 <= len - 1; k += 4) {
    const F4 noise_raw = Load(in.noise[0] + k);
    const M4 above = Gt(Div(Load(in.s[0] + k), Select(Gt(noise_raw, tiny), noise_raw, tiny)), one);
    const F4 e1 = excess(1, k), e2 = excess(2, k);
    F4 dmax = Select(Gt(e1, zero), e1, zero);
    dmax = Select(Gt(e2, dmax), e2, dmax);
    const F4 rho = Select(Gt(dmax, zero), Div(excess(0, k), dmax), Set1(std::numeric_limits<float>::infinity()));
    const F4 z = Load(in.gamma0 + k);
    F4 r = Div(Sub(two, z), Set1(1.5f));
    const F4 by_ratio = Div(Sub(ratio_knee, rho), Set1(1.4f));
    r = Select(Gt(by_ratio, r), by_ratio, r);
    r = Select(Lt(r, low), low, r);
    r = Select(Gt(r, high), high, r);
    r = Select(And(Gt(z, two), Gt(rho, ratio_knee)), low, r);
    r = Select(Or(Lt(rho, one), Le(z, half)), high, r);
    Store(q + k, Select(above, r, high));
  }
  for (; k < len; ++k) q[k] = BeamAbsenceAt(in, k, k < len - 1);
}

// Two bins per double vector. A bin whose exponential the noise estimate did
// not form gets it here from the plain step's double call.
void NsGainPresenceSimd(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                        int len) {
  using namespace simd;
  const D2 one = Set1D(1.0);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 absence = Load(q + k);
    const M4 open = Lt(absence, Set1(kGainAbsenceMax));
    D2 exp_lo = LoadD(exp_neg_v + k), exp_hi = LoadD(exp_neg_v + k + 2);
    const int missing = Bits(AndNot(open, Ge(ToFloat(exp_lo, exp_hi), Zero())));
    if (missing != 0) {
      double lanes[4];
      StoreD(lanes, exp_lo);
      StoreD(lanes + 2, exp_hi);
      for (int bits = missing; bits != 0; bits &= bits - 1) {
        const int i = __builtin_ctz(static_cast<unsigned>(bits));
        lanes[i] = NsExpNeg(v[k + i]);
      }
      exp_lo = LoadD(lanes);
      exp_hi = LoadD(lanes + 2);
    }
    const F4 e = Load(eta + k);
    const auto half = [&](D2 a, D2 eta_d, D2 exp_d) {
      return DivD(one, AddD(one, MulD(MulD(DivD(a, SubD(one, a)), AddD(one, eta_d)), exp_d)));
    };
    const D2 lo = half(LowToDouble(absence), LowToDouble(e), exp_lo);
    const D2 hi = half(HighToDouble(absence), HighToDouble(e), exp_hi);
    Store(presence + k, Select(open, ToFloat(lo, hi), Zero()));
  }
  for (; k < len; ++k) presence[k] = GainPresenceAt(q, eta, v, exp_neg_v, k);
}

void NsNoiseIndicatorSimd(const float *psd, const float *smoothed, const float *minimum, float *indicator, int len) {
  using namespace simd;
  const F4 psd_factor = Set1(kIndicatorPsd), smooth_factor = Set1(kIndicatorSmooth);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 m = Load(minimum + k);
    const M4 noise_like = And(Lt(Load(psd + k), Mul(psd_factor, m)), Lt(Load(smoothed + k), Mul(smooth_factor, m)));
    Store(indicator + k, Select(noise_like, Set1(1.0f), Zero()));
  }
  for (; k < len; ++k) indicator[k] = NoiseIndicatorAt(psd[k], smoothed[k], minimum[k]);
}

// Every lane divides; the lanes that keep their held value drop the quotient.
void NsHeldRatioSimd(const float *sum, const float *weight, const float *held, float *out, int len) {
  using namespace simd;
  const F4 tiny = Set1(kTiny);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 w = Load(weight + k);
    Store(out + k, Select(Gt(w, tiny), Div(Load(sum + k), w), Load(held + k)));
  }
  for (; k < len; ++k) out[k] = HeldRatioAt(sum[k], weight[k], held[k]);
}

// The lanes' tests decide 0 or 1 at once; the open bins, found from the mask
// bits, take the plain double step one by one.
void NsPresenceSimd(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                    double *exp_neg_v, int len) {
  using namespace simd;
  const F4 one = Set1(1.0f), gamma_max = Set1(kGammaMax), zeta_max = Set1(kZetaMax);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 g = Load(gamma_min + k), z = Load(zeta + k);
    const M4 sure = Or(Gt(g, gamma_max), Gt(z, zeta_max));
    Store(presence + k, Select(sure, one, Zero()));
    for (int i = 0; i < 4; ++i) exp_neg_v[k + i] = -1.0;
    for (int open = Bits(And(And(Gt(g, one), Lt(g, gamma_max)), Lt(z, zeta_max))); open != 0; open &= open - 1)
      OpenPresenceAt(gamma_min, v, eta, presence, exp_neg_v, k + __builtin_ctz(static_cast<unsigned>(open)));
  }
  for (; k < len; ++k) PresenceAt(gamma_min, zeta, v, eta, presence, exp_neg_v, k);
}

void NsSnrTermsSimd(const NsSnrIn &in, const NsSnrOut &out, int len) {
  using namespace simd;
  const F4 tiny = Set1(kTiny), one = Set1(1.0f), zero = Zero(), bias = Set1(kBiasMinimum);
  const F4 new_weight = Set1(kNewTermWeight), memory_weight = Set1(kMemoryWeight), eta_min = Set1(in.eta_min);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 psd = Load(in.psd + k);
    const F4 noise_raw = Load(in.noise + k);
    const F4 noise = Select(Lt(noise_raw, tiny), tiny, noise_raw);
    const F4 gamma = Div(psd, noise);
    Store(out.gamma + k, gamma);
    const F4 excess = Sub(gamma, one);
    const F4 new_term = Select(Gt(excess, zero), Mul(new_weight, excess), zero);
    const F4 eta_raw = Add(new_term, Mul(memory_weight, Load(in.eta_2term + k)));
    const F4 eta = Select(Gt(eta_raw, eta_min), eta_raw, eta_min);
    Store(out.eta + k, eta);
    const F4 eta_plus_one = Add(eta, one);
    const F4 v = Div(Mul(gamma, eta), eta_plus_one);
    Store(out.v + k, Select(IsFinite(v), v, Mul(gamma, Div(eta, eta_plus_one))));
    const F4 min_raw = Load(in.minimum + k);
    const F4 minimum = Select(Lt(min_raw, tiny), tiny, min_raw);
    Store(out.gamma_min + k, Div(Div(psd, bias), minimum));
    Store(out.zeta + k, Div(Div(Load(in.smoothed + k), bias), minimum));
  }
  for (; k < len; ++k) SnrTermsAt(in, out, k);
}

void NsNoiseUpdateSimd(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                       const NsNoiseAverages &avg, int len) {
  using namespace simd;
  const F4 gamma_max = Set1(kGammaMax), zeta_max = Set1(kZetaMax), one = Set1(1.0f);
  const F4 base = Set1(0.85f), slope = Set1(0.15f), base_long = Set1(0.99f), slope_long = Set1(0.01f);
  const F4 bias = Set1(kBiasAverage);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const M4 held = Or(Gt(Load(gamma_min + k), gamma_max), Gt(Load(zeta + k), zeta_max));
    const F4 p = Load(presence + k), x = Load(psd + k);
    const F4 alpha = Add(base, Mul(slope, p));
    const F4 alpha_long = Add(base_long, Mul(slope_long, p));
    const F4 dav = Load(avg.lambda_dav + k), dav_long = Load(avg.lambda_dav_long + k);
    const F4 moved = Add(Mul(alpha, dav), Mul(Sub(one, alpha), x));
    const F4 moved_long = Add(Mul(alpha_long, dav_long), Mul(Sub(one, alpha_long), x));
    const F4 dav_new = Select(held, dav, moved);
    Store(avg.lambda_dav + k, dav_new);
    Store(avg.lambda_dav_long + k, Select(held, dav_long, moved_long));
    Store(avg.lambda_d + k, Mul(bias, dav_new));
  }
  for (; k < len; ++k) NoiseUpdateAt(psd, gamma_min, zeta, presence, avg, k);
}

namespace {

// ExpExpint on four lanes: every branch formed, each lane taking its own.
simd::F4 ExpExpint4(simd::F4 x) {
  using namespace simd;
  const auto rational = [x](float a, float b, float c, float d, float e) {
    return Div(Add(Add(Mul(Mul(Set1(a), x), x), Mul(Set1(b), x)), Set1(c)),
               Add(Add(Mul(x, x), Mul(Set1(d), x)), Set1(e)));
  };
  const F4 low = rational(1.092f, 0.2034f, 0.001081f, 0.03076f, 2.257e-5f);
  const F4 middle = rational(0.9287f, 1.045f, 0.3339f, 0.991f, 0.0774f);
  const F4 high = rational(1.01f, 0.1371f, 0.7789f, 0.2453f, 0.4813f);
  F4 e = Set1(1.0f);
  e = Select(And(Ge(x, Set1(1.0f)), Lt(x, Set1(5.0f))), high, e);
  e = Select(And(Ge(x, Set1(0.25f)), Lt(x, Set1(1.0f))), middle, e);
  e = Select(And(Ge(x, Set1(0.001f)), Lt(x, Set1(0.25f))), low, e);
  const M4 tiny = And(Gt(x, Zero()), Lt(x, Set1(0.001f)));
  if (Any(tiny)) {
    const D2 c = Set1D(0.7497);
    const F4 root = ToFloat(DivD(c, SqrtD(LowToDouble(x))), DivD(c, SqrtD(HighToDouble(x))));
    e = Select(tiny, root, e);
  }
  return e;
}

}  // namespace

void NsLsaGainSimd(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int len) {
  using namespace simd;
  const F4 one = Set1(1.0f);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 x = Load(v + k), e = Load(eta + k);
    // Above 5 ExpExpint is 1, and 1 * eta is eta: one form serves both branches.
    const F4 gain = Select(Gt(x, Zero()), Div(Mul(ExpExpint4(x), e), Add(e, one)), one);
    Store(lsa_gain + k, gain);
    Store(eta_2term + k, Mul(Mul(gain, gain), Load(gamma + k)));
  }
  for (; k < len; ++k) LsaGainAt(v, eta, gamma, lsa_gain, eta_2term, k);
}

namespace {

// 10 log10(r) for a ratio inside the ramp's bracket, to within 1e-13 dB:
// ln r = ln c + 2 atanh(s) with s = (r - c) / (r + c) about the bracket's
// geometric centre c = 10^-0.75, where |s| < 0.281 and the atanh series
// stopped after s^23 leaves less than 1e-15. The series in u = s^2 is summed
// as a tree over u^2, u^4 and u^8, a chain of four multiply-adds rather than
// Horner's eleven, so neighbouring bins overlap instead of waiting.
simd::D2 BracketDb(simd::D2 r) {
  using namespace simd;
  const D2 centre = Set1D(0.17782794100389228);  // 10^-0.75
  const D2 s = DivD(SubD(r, centre), AddD(r, centre));
  const D2 u = MulD(s, s);
  const D2 u2 = MulD(u, u);
  const D2 u4 = MulD(u2, u2);
  const D2 u8 = MulD(u4, u4);
  const auto pair = [u](double c0, double c1) { return AddD(Set1D(c0), MulD(u, Set1D(c1))); };
  const D2 to3 = AddD(pair(1.0, 1.0 / 3), MulD(u2, pair(1.0 / 5, 1.0 / 7)));
  const D2 to7 = AddD(pair(1.0 / 9, 1.0 / 11), MulD(u2, pair(1.0 / 13, 1.0 / 15)));
  const D2 to11 = AddD(pair(1.0 / 17, 1.0 / 19), MulD(u2, pair(1.0 / 21, 1.0 / 23)));
  const D2 series = AddD(AddD(to3, MulD(u4, to7)), MulD(u8, to11));
  return AddD(Set1D(-7.5), MulD(Set1D(8.6858896380650366), MulD(s, series)));  // 20 / ln 10
}

}  // namespace

// The plain step rounds the double 10 log10(r) to a float. BracketDb is
// within 1e-13 dB of the true value and the library's log10 within about
// 1e-14, so wherever the true value plus or minus 1e-11 dB rounds to one
// float, both give that float; the rare bin near a rounding boundary (and
// NaN) takes the plain step instead. The ramp on the float is the plain
// step's float arithmetic.
void NsRampOfRatioSimd(const float *ratio, float *likelihood, int len) {
  using namespace simd;
  const F4 low = Set1(kRampLowRatio), high = Set1(kRampHighRatio);
  const F4 floor = Set1(kMinLikelihood), one = Set1(1.0f);
  const D2 margin = Set1D(1e-11);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 r = Load(ratio + k);
    const M4 below = Lt(r, low), above = Gt(r, high);
    if (All(Or(below, above))) {
      Store(likelihood + k, Select(below, floor, one));
      continue;
    }
    const D2 db_lo = BracketDb(LowToDouble(r)), db_hi = BracketDb(HighToDouble(r));
    const F4 db = ToFloat(SubD(db_lo, margin), SubD(db_hi, margin));
    const M4 sure = And(Eq(db, ToFloat(AddD(db_lo, margin), AddD(db_hi, margin))), And(Ge(r, low), Le(r, high)));
    F4 ramp = Add(Mul(Div(Add(db, Set1(10.0f)), Set1(5.0f)), Set1(0.995f)), floor);
    ramp = Select(Ge(db, Set1(-5.0f)), one, ramp);
    ramp = Select(Le(db, Set1(-10.0f)), floor, ramp);
    Store(likelihood + k, Select(sure, ramp, Select(below, floor, one)));
    const int unsure = ~Bits(Or(sure, Or(below, above))) & 0xf;
    for (int bits = unsure; bits != 0; bits &= bits - 1) {
      const int i = k + __builtin_ctz(static_cast<unsigned>(bits));
      likelihood[i] = RampOfRatioAt(ratio[i]);
    }
  }
  for (; k < len; ++k) likelihood[k] = RampOfRatioAt(ratio[k]);
}

#endif

void NsGainPresence(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                    int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsGainPresenceAvx2(q, eta, v, exp_neg_v, presence, len);
#endif
#if defined(VORN_SIMD4)
  NsGainPresenceSimd(q, eta, v, exp_neg_v, presence, len);
#else
  NsGainPresencePlain(q, eta, v, exp_neg_v, presence, len);
#endif
}

void NsGainBlend(const float *floor, const float *speech, const float *presence, float *gain, int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsGainBlendAvx2(floor, speech, presence, gain, len);
#endif
  NsGainBlendPlain(floor, speech, presence, gain, len);
}

void NsNoiseIndicator(const float *psd, const float *smoothed, const float *minimum, float *indicator, int len) {
#if defined(VORN_SIMD4)
  NsNoiseIndicatorSimd(psd, smoothed, minimum, indicator, len);
#else
  NsNoiseIndicatorPlain(psd, smoothed, minimum, indicator, len);
#endif
}

void NsHeldRatio(const float *sum, const float *weight, const float *held, float *out, int len) {
#if defined(VORN_SIMD4)
  NsHeldRatioSimd(sum, weight, held, out, len);
#else
  NsHeldRatioPlain(sum, weight, held, out, len);
#endif
}

void NsPresence(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                double *exp_neg_v, int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsPresenceAvx2(gamma_min, zeta, v, eta, presence, exp_neg_v, len);
#endif
#if defined(VORN_SIMD4)
  NsPresenceSimd(gamma_min, zeta, v, eta, presence, exp_neg_v, len);
#else
  NsPresencePlain(gamma_min, zeta, v, eta, presence, exp_neg_v, len);
#endif
}

void NsSnrTerms(const NsSnrIn &in, const NsSnrOut &out, int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsSnrTermsAvx2(in, out, len);
#endif
#if defined(VORN_SIMD4)
  NsSnrTermsSimd(in, out, len);
#else
  NsSnrTermsPlain(in, out, len);
#endif
}

void NsNoiseUpdate(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                   const NsNoiseAverages &avg, int len) {
#if defined(VORN_SIMD4)
  NsNoiseUpdateSimd(psd, gamma_min, zeta, presence, avg, len);
#else
  NsNoiseUpdatePlain(psd, gamma_min, zeta, presence, avg, len);
#endif
}

void NsLsaGain(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsLsaGainAvx2(v, eta, gamma, lsa_gain, eta_2term, len);
#endif
#if defined(VORN_SIMD4)
  NsLsaGainSimd(v, eta, gamma, lsa_gain, eta_2term, len);
#else
  NsLsaGainPlain(v, eta, gamma, lsa_gain, eta_2term, len);
#endif
}

void NsBeamAbsence(const NsBeamPowers &in, float *q, int len) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return NsBeamAbsenceAvx2(in, q, len);
#endif
#if defined(VORN_SIMD4)
  NsBeamAbsenceSimd(in, q, len);
#else
  NsBeamAbsencePlain(in, q, len);
#endif
}

void NsRampOfRatio(const float *ratio, float *likelihood, int len) {
#if defined(VORN_SIMD4)
  NsRampOfRatioSimd(ratio, likelihood, len);
#else
  NsRampOfRatioPlain(ratio, likelihood, len);
#endif
}

}  // namespace vorn
