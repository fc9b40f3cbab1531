// Per-bin kernels of the suppressor's hop: the a posteriori and a priori SNR
// terms and the noise average update of the noise estimate, the gain under
// the speech hypothesis, and the likelihood ramp of the absence estimate.
//
// Each has its plain loop, the reference, and a four-lane twin
// (common/simd4.h) that performs the same operations in the same order per
// bin and so gives the same bits; the undecorated name runs the twin where
// the build has one. Steps the plain code rounds through a double library
// call (exp, log10, pow) stay scalar in both and the twins hand those bins to
// the plain per-bin code, except where a twin forms the function itself to
// far better than a float's precision and keeps a result only where that
// error cannot change the float it rounds to (the ramp, the gain presence's
// missing exponentials, the gain blend).
#pragma once

#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

// The SNR terms of one hop. In: the periodogram, the noise estimate, the
// decision-directed memory, the noise-only minimum, the smoothed periodogram
// and the a priori floor. Out: gamma (a posteriori SNR), eta (a priori SNR),
// v = gamma * eta / (eta + 1), and the two ratios to the minimum that the
// presence estimate tests (gamma_min of the periodogram, zeta of the smoothed
// one, both after the bias 1.66).
struct NsSnrIn {
  const float *psd, *noise, *eta_2term, *minimum, *smoothed;
  float eta_min;
};
struct NsSnrOut {
  float *gamma, *eta, *v, *gamma_min, *zeta;
};
void NsSnrTerms(const NsSnrIn &in, const NsSnrOut &out, int len);
void NsSnrTermsPlain(const NsSnrIn &in, const NsSnrOut &out, int len);

// The noise averages: held where the bin is surely speech (gamma_min above 3
// or zeta above 1.67), else moved towards the periodogram by the presence
// probability; lambda_d is the bias-compensated average.
struct NsNoiseAverages {
  float *lambda_dav, *lambda_dav_long, *lambda_d;
};
void NsNoiseUpdate(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                   const NsNoiseAverages &avg, int len);
void NsNoiseUpdatePlain(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                        const NsNoiseAverages &avg, int len);

// Gain under the speech hypothesis, ExpExpint(v) * eta / (eta + 1) (1 where
// v is not positive), and the decision-directed memory gain^2 * gamma.
void NsLsaGain(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int len);
void NsLsaGainPlain(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term,
                    int len);

// Likelihood of speech from a ratio of smoothed a priori SNRs: 0.005 up to
// -10 dB, 1 from -5 dB, a ramp between.
void NsRampOfRatio(const float *ratio, float *likelihood, int len);
void NsRampOfRatioPlain(const float *ratio, float *likelihood, int len);

// The rough speech indicator of the noise estimate: 1 where the periodogram
// and the smoothed periodogram both stay near the minimum (below 4.6 and 1.67
// times its bias-compensated value), else 0.
void NsNoiseIndicator(const float *psd, const float *smoothed, const float *minimum, float *indicator, int len);
void NsNoiseIndicatorPlain(const float *psd, const float *smoothed, const float *minimum, float *indicator,
                           int len);

// sum / weight where the weight exceeds 1e-10, else the held value.
void NsHeldRatio(const float *sum, const float *weight, const float *held, float *out, int len);
void NsHeldRatioPlain(const float *sum, const float *weight, const float *held, float *out, int len);

// The conditional speech-presence probability of the noise estimate: 0 where
// the periodogram is at or below its minimum, 1 where the bin is surely
// speech, and between (in double, with exp(-v), which is kept in exp_neg_v;
// -1 elsewhere) where the minimum leaves it open. The eight-lane twin keeps
// the exponential only where it took the library's, and leaves -1 where it
// formed its own: the gain rule then forms it again, and either way gives the
// same bits.
void NsPresence(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                double *exp_neg_v, int len);
void NsPresencePlain(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                     double *exp_neg_v, int len);

// The gain rule's speech-presence probability from the absence probability
// q: 1 / (1 + q / (1 - q) * (1 + eta) * exp(-v)) in double where q < 0.9,
// else 0; exp(-v) is taken from exp_neg_v where the noise estimate formed it
// (not negative) and computed otherwise.
void NsGainPresence(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                    int len);
void NsGainPresencePlain(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                         int len);

// The suppression gain of each bin: the floor where the presence probability
// is 0, the speech gain where it is 1, else floor^(1 - p) * speech^p in double.
void NsGainBlend(const float *floor, const float *speech, const float *presence, float *gain, int len);
void NsGainBlendPlain(const float *floor, const float *speech, const float *presence, float *gain, int len);

// The post filter's absence probability of each output bin, from three beams'
// smoothed periodograms s and noise estimates and beam 0's a posteriori SNR:
// 0.998 unless beam 0 stands above its noise, else a rule on that SNR and on
// the ratio of beam 0's excess power (s - noise, at least 1e-8) over the
// larger of the other two beams'. The last bin (Nyquist) compares against
// nothing, so its ratio is unbounded.
struct NsBeamPowers {
  const float *s[3], *noise[3], *gamma0;
};
void NsBeamAbsence(const NsBeamPowers &in, float *q, int len);
void NsBeamAbsencePlain(const NsBeamPowers &in, float *q, int len);

#if defined(VORN_SIMD4)
void NsBeamAbsenceSimd(const NsBeamPowers &in, float *q, int len);
void NsGainPresenceSimd(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                        int len);
void NsNoiseIndicatorSimd(const float *psd, const float *smoothed, const float *minimum, float *indicator, int len);
void NsHeldRatioSimd(const float *sum, const float *weight, const float *held, float *out, int len);
void NsPresenceSimd(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                    double *exp_neg_v, int len);
void NsSnrTermsSimd(const NsSnrIn &in, const NsSnrOut &out, int len);
void NsNoiseUpdateSimd(const float *psd, const float *gamma_min, const float *zeta, const float *presence,
                       const NsNoiseAverages &avg, int len);
void NsLsaGainSimd(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int len);
void NsRampOfRatioSimd(const float *ratio, float *likelihood, int len);
#endif

#if defined(VORN_AVX2)
// Eight-lane twins of the costliest kernels, compiled for AVX2 alone; the
// undecorated names take them where the processor has it (CpuHasAvx2).
void NsSnrTermsAvx2(const NsSnrIn &in, const NsSnrOut &out, int len);
void NsLsaGainAvx2(const float *v, const float *eta, const float *gamma, float *lsa_gain, float *eta_2term, int len);
void NsGainPresenceAvx2(const float *q, const float *eta, const float *v, const double *exp_neg_v, float *presence,
                        int len);
void NsGainBlendAvx2(const float *floor, const float *speech, const float *presence, float *gain, int len);
void NsBeamAbsenceAvx2(const NsBeamPowers &in, float *q, int len);
void NsPresenceAvx2(const float *gamma_min, const float *zeta, const float *v, const float *eta, float *presence,
                    double *exp_neg_v, int len);
#endif

// exp(-v) in double, as the presence terms take it.
double NsExpNeg(float v);
// 10 log10(ratio) through double, -100 for a ratio that is not positive.
float NsPowerDb(float ratio);
// The likelihood ramp on decibels.
float NsRamp(float snr_db);

}  // namespace vorn
