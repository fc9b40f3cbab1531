// Speech presence and the suppression gain.
//
// The a priori speech absence probability of a bin is read from how the
// smoothed a priori SNR looks at three scales: around the bin (3 bins), over a
// wide band (31 bins) and over the whole frame, each mapped to a likelihood
// by a ramp between -10 and -5 dB. A frame-level factor also tracks whether
// the frame SNR is falling away from its recent peak (speech offsets). Bins
// sitting on long-term spectral peaks of the noise (tones, hum) get their
// absence probability raised. The gain is the log-spectral-amplitude gain
// where speech is present and a floor where it is absent, blended
// geometrically by the presence probability; next to tonal noise peaks the
// floor is lowered so the tone is not left standing out.
//
// The presence probability and the geometric blend are formed in double.
#include <cmath>

#include "adsp_ns/adsp_ns_kernels.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr float kMinLikelihood = 0.005f;
constexpr float kMaxAbsence = 0.998f;
constexpr int kPeakFirstBin = 6;  // tonal-peak rules cover bins 6..199
constexpr int kPeakLastBin = 199;
constexpr int kLocalTestFirst = 3;  // the local likelihood's mean test reads bins 3 .. 125
constexpr int kLocalTestPast = 126;

}  // namespace

void EstAbsenceProb(T_AdspNsState *ns_st, float *q, int first_bin, int last_bin) {
  T_AdspNsState &st = *ns_st;
  float local_xi[kNsBins];
  float global_xi[kNsBins];
  float local_likelihood[kNsBins];

  SmoothData(st.xi, st.eta, 0.7f, kNsBins);
  // The local likelihood is read over the band of its mean test and over the
  // bins asked for; only those are formed.
  const int local_first = first_bin < kLocalTestFirst ? first_bin : kLocalTestFirst;
  const int local_last = last_bin > kLocalTestPast - 1 ? last_bin : kLocalTestPast - 1;
  ConvRange(st.b_xi_local, 3, st.xi, kNsBins, local_first, local_last + 1, local_xi);
  ConvRange(st.b_xi_global, 31, st.xi, kNsBins, first_bin, last_bin + 1, global_xi);

  const float previous_frame_xi = st.xi_frame;
  st.xi_frame = DataMean(st.xi, 2, kNsBins);
  const float frame_db = NsPowerDb(st.xi_frame);

  NsRampOfRatio(local_xi + local_first, local_likelihood + local_first, local_last - local_first + 1);
  for (int k = local_first; k <= local_last; ++k)
    local_likelihood[k] = local_likelihood[k] > 1.0f ? 1.0f : local_likelihood[k];
  // A frame whose low and middle band looks like noise throughout loses its
  // local evidence in the speech band, so isolated noise bins do not pass.
  if (DataMean(local_likelihood, kLocalTestFirst, kLocalTestPast) < 0.25f) {
    for (int k = 16; k < 114; ++k) local_likelihood[k] = kMinLikelihood;
  }

  float frame_likelihood;
  if (frame_db < -10.0f) {
    frame_likelihood = kMinLikelihood;
  } else if (st.xi_frame - previous_frame_xi < 0.0f) {
    const float peak_db = st.xi_m_db;
    if (frame_db > peak_db - 5.0f) {
      frame_likelihood = 1.0f;
    } else if (frame_db <= peak_db - 10.0f) {
      frame_likelihood = kMinLikelihood;
    } else {
      frame_likelihood = ((frame_db - peak_db + 10.0f) / 5.0f) * 0.995f + kMinLikelihood;
    }
  } else {
    st.xi_m_db = frame_db < 0.0f ? 0.0f : (frame_db > 10.0f ? 10.0f : frame_db);
    frame_likelihood = 1.0f;
  }

  float global_likelihood[kNsBins];
  if (first_bin <= last_bin)
    NsRampOfRatio(global_xi + first_bin, global_likelihood + first_bin, last_bin - first_bin + 1);
  for (int k = first_bin; k <= last_bin; ++k) {
    const float absence = 1.0f - local_likelihood[k] * frame_likelihood * global_likelihood[k];
    q[k] = absence < kMaxAbsence ? absence : kMaxAbsence;
  }
}

void UpdateAbsenceProb(float *lambda_dav_long, float *q, int first_bin, int last_bin) {
  const float *ldl = lambda_dav_long;
  // A bin's result depends only on its own value and on how many of the
  // peaks beside it fire, so bins outside the range can be left out.
  const auto raise = [&](int bin) {
    if (bin >= first_bin && bin <= last_bin) q[bin] = 0.3f * q[bin] + 0.6986f;
  };
  for (int k = kPeakFirstBin; k <= kPeakLastBin; ++k) {
    if (ldl[k] > 2.3f * (ldl[k - 2] + ldl[k + 2])) {
      raise(k);
      raise(k - 1);
      raise(k + 1);
    }
  }
}

void EstGain(T_AdspNsState *ns_st, float *q, const NsSharedTerms &terms, float *g, int first_bin, int last_bin) {
  const T_AdspNsState &st = *ns_st;
  const float *ldl = st.lambda_dav_long;
  const float *noise = st.lambda_d;
  const float snr_weight = 2.0f * st.long_eta / (st.long_eta + 5.0f);
  int peak_count = 0;  // the tonal-peak run starts at kPeakFirstBin, so a range starting later replays it
  float presences[kNsBins];
  float floors[kNsBins];
  if (last_bin < first_bin) return;
  NsGainPresence(q + first_bin, st.eta + first_bin, st.v + first_bin, terms.exp_neg_v + first_bin,
                 presences + first_bin, last_bin - first_bin + 1);

  for (int k = first_bin < kPeakFirstBin ? first_bin : kPeakFirstBin; k <= last_bin; ++k) {
    if (k < first_bin) {
      if (k <= kPeakLastBin) peak_count = ldl[k + 1] > 2.07f * (ldl[k - 1] + ldl[k + 3]) ? 2 : peak_count - 1;
      continue;
    }
    float floor = st.g_f;
    if (k >= kPeakFirstBin && k <= kPeakLastBin) {
      // Near a long-term noise peak the floor follows the local noise valley,
      // so a hum is pulled down to the level of its surroundings.
      bool lower_floor;
      if (ldl[k + 1] > 2.07f * (ldl[k - 1] + ldl[k + 3])) {
        lower_floor = true;
        peak_count = 2;
      } else {
        lower_floor = peak_count >= 1;
        --peak_count;
      }
      if (lower_floor) {
        float valley = noise[k - 2] < noise[k] ? noise[k - 2] : noise[k];
        valley = noise[k + 2] < valley ? noise[k + 2] : valley;
        floor = (st.g_f * valley / (st.s[k] + 1e-8f)) * snr_weight;
      }
    }
    floors[k] = floor * st.external_ns_level;
  }
  NsGainBlend(floors + first_bin, terms.lsa_gain + first_bin, presences + first_bin, g + first_bin,
              last_bin - first_bin + 1);
}

void NsFreqFilter(float *spectrum, float *gain, float *out) {
  // Below 156 Hz and at Nyquist there is no speech worth keeping.
  for (int k = 0; k < kNsFirstPassedBin; ++k) gain[k] = 0.0f;
  for (int k = kNsLastPassedBin + 1; k < kNsBins; ++k) gain[k] = 0.0f;
  out[0] = 0.0f;
  out[kNsFftLen / 2] = 0.0f;
  for (int k = 1; k < kNsFftLen / 2; ++k) {
    out[k] = spectrum[k] * gain[k];
    out[kNsFftLen - k] = spectrum[kNsFftLen - k] * gain[k];
  }
}

}  // namespace vorn
