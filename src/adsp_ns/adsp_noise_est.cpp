// Noise power tracking for the suppressor: improved minima-controlled
// recursive averaging.
//
// A first minimum search over a smoothed periodogram gives a rough speech
// indicator per bin; a second periodogram, smoothed only over the bins that
// indicator calls noise, gives a minimum that speech cannot pull up. From that
// minimum comes a conditional speech-presence probability, and the noise
// average moves fast where speech is surely absent and freezes where it is
// surely present. Minimum tracking underestimates the mean of a chi-square
// periodogram, hence the fixed bias factor 1.4685 on the average and 1.66 on
// the minimum. Minima span 120 frames, kept as 8 sub-windows of 15 so the
// search window slides without storing 120 spectra.
//
// Arithmetic is single precision; the speech-presence probability and the
// exponential inside it are formed in double, as the gain rule does.
#include <cmath>

#include "adsp_ns/adsp_ns_kernels.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr int kSumFirstBin = 7;             // frame figures use bins 7..149
constexpr int kSumLastBin = 149;
constexpr int kWarmupFrames = 15;           // minima follow the periodogram until then
constexpr int kFastStartFrames = 50;        // long-term SNRs adapt faster until then

}  // namespace

void NoiseEst(T_AdspNsState *ns_st, float *psd, NsSharedTerms *terms) {
  T_AdspNsState &st = *ns_st;
  float smoothed_psd[kNsBins];
  float noise_indicator[kNsBins];
  float indicated_psd[kNsBins];
  float indicator_weight[kNsBins];
  float indicated_sum[kNsBins];

  Conv(psd, kNsBins, st.b, 3, smoothed_psd);

  if (st.frame < 2) {
    CopyData(st.lambda_d, psd, kNsBins);
    CopyData(st.s, smoothed_psd, kNsBins);
    CopyData(st.st, smoothed_psd, kNsBins);
    CopyData(st.lambda_dav, psd, kNsBins);
  } else {
    SmoothData(st.s, smoothed_psd, 0.9f, kNsBins);
  }

  if (st.frame < kWarmupFrames) {
    CopyData(st.s_min, st.s, kNsBins);
    CopyData(st.s_mact, st.s, kNsBins);
  } else {
    DataMin(st.s, st.s_min, kNsBins, st.s_min);
    DataMin(st.s, st.s_mact, kNsBins, st.s_mact);
  }

  NsNoiseIndicator(psd, st.s, st.s_min, noise_indicator, kNsBins);
  Conv(st.b, 3, noise_indicator, kNsBins, indicator_weight);
  DataMult(noise_indicator, psd, kNsBins, 1.0f, indicated_psd);
  Conv(st.b, 3, indicated_psd, kNsBins, indicated_sum);
  // A bin with no noise-like neighbour keeps its previous value.
  float noise_only_psd[kNsBins];
  NsHeldRatio(indicated_sum, indicator_weight, st.st, noise_only_psd, kNsBins);

  if (st.frame < kWarmupFrames) {
    CopyData(st.st, st.s, kNsBins);
    CopyData(st.s_min_t, st.st, kNsBins);
    CopyData(st.s_mact_t, st.st, kNsBins);
  } else {
    SmoothData(st.st, noise_only_psd, 0.9f, kNsBins);
    DataMin(st.s_min_t, st.st, kNsBins, st.s_min_t);
    DataMin(st.s_mact_t, st.st, kNsBins, st.s_mact_t);
  }

  // Per-bin SNR terms and the noise averages run as whole-spectrum kernels;
  // the presence probability between them calls exp, bin by bin, only where
  // the minimum leaves it open.
  float gamma_min[kNsBins];
  float zeta[kNsBins];
  NsSnrTerms({psd, st.lambda_d, st.eta_2term, st.s_min_t, st.s, st.eta_min},
             {st.gamma, st.eta, st.v, gamma_min, zeta}, kNsBins);
  float presence[kNsBins];
  NsPresence(gamma_min, zeta, st.v, st.eta, presence, terms->exp_neg_v, kNsBins);
  NsNoiseUpdate(psd, gamma_min, zeta, presence, {st.lambda_dav, st.lambda_dav_long, st.lambda_d}, kNsBins);

  float sum_noise = 0.0f;
  float sum_presence = 0.0f;
  float sum_psd = 0.0f;
  for (int k = kSumFirstBin; k <= kSumLastBin; ++k) {
    sum_noise += st.lambda_d[k];
    sum_presence += presence[k];
    sum_psd += psd[k];
  }

  if (st.t_ref_to_aec > 20.0f) {
    st.speech_interference_eng = st.speech_interference_eng < 0.0f
                                     ? sum_psd
                                     : 0.9f * st.speech_interference_eng + 0.1f * sum_psd;
    st.f_sir = sum_psd / (st.speech_interference_eng + 1e-5f);
  }
  // The band holds 143 bins; 144 is the divisor the thresholds were tuned with.
  st.phat_mean = sum_presence / 144.0f;
  st.f_snr = CalcDB(sum_psd, sum_noise);

  if (st.f_snr > 1.5f) {
    st.long_eta = st.frame < kFastStartFrames ? 0.7f * (0.99f * st.long_eta) + 0.307f * st.f_snr
                                              : 0.99f * st.long_eta + 0.01f * st.f_snr;
  }

  if (st.f_snr > 3.5f) {
    st.long_eta_high = st.frame < kFastStartFrames ? 0.7f * (0.99f * st.long_eta_high) + 0.307f * st.f_snr
                                                   : 0.99f * st.long_eta_high + 0.01f * st.f_snr;
  }
  if (st.frame > kFastStartFrames) {
    // The floor follows the long-term SNR: it stays low while the input is
    // mostly noise and opens up (to -5 dB) once speech stands well above it,
    // where deep suppression would only add musical noise. 2^long_eta is
    // formed in double and rounded once.
    float gain_floor = static_cast<float>(0.01766 * std::exp2(static_cast<double>(st.long_eta)) - 0.025);
    float eta_floor;
    if (gain_floor < 0.01f) {
      gain_floor = 0.01f;
      eta_floor = 0.0001f;
    } else if (gain_floor > 0.56f) {
      gain_floor = 0.56f;
      eta_floor = 0.3136f;
    } else {
      eta_floor = gain_floor * gain_floor;
    }
    st.g_f = gain_floor;
    st.eta_min = eta_floor * st.external_ns_level;
  }

  UpdatePsd(ns_st);

  // The gain under the speech hypothesis: its square times gamma is the
  // decision-directed memory, and the gain rule uses it as it stands.
  NsLsaGain(st.v, st.eta, st.gamma, terms->lsa_gain, st.eta_2term, kNsBins);
}

void UpdatePsd(T_AdspNsState *ns_st) {
  T_AdspNsState &st = *ns_st;
  if (++st.l_mod_lswitch < kNsSubWindowLen) return;
  st.l_mod_lswitch = 0;
  if (st.frame == kNsSubWindowLen) {
    // First switch after start: the whole window begins from the present.
    for (int row = 0; row < kNsSubWindows; ++row) {
      CopyData(st.sw + row * kNsBins, st.s, kNsBins);
      CopyData(st.swt + row * kNsBins, st.st, kNsBins);
    }
    return;
  }
  CopyData(st.sw + st.sw_idx * kNsBins, st.s_mact, kNsBins);
  CopyData(st.s_mact, st.s, kNsBins);
  CopyData(st.swt + st.sw_idx * kNsBins, st.s_mact_t, kNsBins);
  CopyData(st.s_mact_t, st.st, kNsBins);
  CopyData(st.s_min, st.sw, kNsBins);
  CopyData(st.s_min_t, st.swt, kNsBins);
  for (int row = 1; row < kNsSubWindows; ++row) {
    DataMin(st.sw + row * kNsBins, st.s_min, kNsBins, st.s_min);
    DataMin(st.swt + row * kNsBins, st.s_min_t, kNsBins, st.s_min_t);
  }
  st.sw_idx = (st.sw_idx + 1) % kNsSubWindows;
}

void MinTrace(const float *x, int rows, int len, float *out) {
  // The stride is len + 1: each older row is read one bin higher. The
  // spectral-scale mode was tuned with this diagonal search. The minimum is
  // taken in double, but every candidate is a float, so `out` holds the
  // running minimum exactly; walking the rows outside keeps the search free
  // of a reduction loop (which Debian's aarch64 g++ 12 fails to compile at -O3).
  const int stride = len + 1;
  for (int k = 0; k < len; ++k) out[k] = x[k];
  for (int j = 1; j < rows; ++j)
    for (int k = 0; k < len; ++k)
      out[k] = static_cast<float>(std::fmin(static_cast<double>(out[k]), static_cast<double>(x[k + j * stride])));
}

void GetNsScale(const float *amp, int len, const float *min, float *scale) {
  for (int k = 0; k < len; ++k) {
    double twice_min = 2.0 * static_cast<double>(min[k]);
    if (!(twice_min > 1e-8)) twice_min = 1e-8;
    const float ratio = static_cast<float>(static_cast<double>(amp[k]) / twice_min);
    if (ratio < 1.0f) {
      scale[k] = 0.0f;
    } else {
      const float kept = (ratio - 1.0f) / ratio;
      scale[k] = kept < 1.0f ? kept : 1.0f;
    }
  }
}

}  // namespace vorn
