// Hand-offs between module states, and the speech-detection path.
//
// The VAD listens to the processed frame through a suppressor instance of its
// own. When the echo canceller runs, two far-end measures steer it: the
// ratio of the reference's energy to what is left after cancellation (a high
// ratio means the loudspeaker dominates, so a wake-up VAD switches to its
// echo-aware rule) and the mean far/near coherence.
#include "vorn/vorn_data_exchange.h"

#include <cmath>
#include <cstring>

#include "vorn/vorn_state.h"

namespace vorn {
namespace {

T_AudioDspState* BfState(TBfParam* pm) { return static_cast<T_AudioDspState*>(pm->p_data); }
T_AdspNsState* NsState(TNsParam* pm) { return static_cast<T_AdspNsState*>(pm->p_data); }

constexpr int kVadHalf = 128;

}  // namespace

void VornGetMbfTimeSignalFromBf(TBfParam* pm, short out[3][256]) {
  std::memcpy(out, BfState(pm)->inner_data_exchange.mbf_au, sizeof(short) * 3 * 256);
}

void VornGetMbfTimeSignalFromBfToNs(TBfParam* bf_pm, TNsParam* ns_pm) {
  std::memcpy(NsState(ns_pm)->inner_data_exchange.mbf_au, BfState(bf_pm)->inner_data_exchange.mbf_au,
              sizeof(short) * 3 * 256);
}

void VornGetNosieEstFromNsToBf(TNsParam* ns_pm, TBfParam* bf_pm) {
  std::memcpy(BfState(bf_pm)->ns_psd, NsState(ns_pm)->lambda_d, sizeof(float) * kNsBins);
}

int VornVadProc(T_VornParam* vorn_pm, const short* au, const short* aec_ref, const float* corr_far_near, int corr_len,
                short* ns_out) {
  TVornState* st = VornStateOf(vorn_pm);
  TNsParam* vad_pm = &st->ns_vad_pm;
  vad_pm->vad_mode = vorn_pm->vad_mode;

  if (vorn_pm->aec_flag > 0) {
    float corr_sum = 0.0f;
    for (int i = 0; i < corr_len; ++i) corr_sum += corr_far_near[i];
    const float mean_corr = corr_len > 0 ? corr_sum / static_cast<float>(corr_len) : 0.0f;

    float e_au = 1e-8f, e_ref = 1e-8f;
    for (int i = 0; i < 256; ++i) {
      e_au += static_cast<float>(au[i]) * static_cast<float>(au[i]);
      e_ref += static_cast<float>(aec_ref[i]) * static_cast<float>(aec_ref[i]);
    }
    const float ratio_db = 10.0f * std::log10(e_ref / (1e-8f + e_au) + 1e-8f);
    SetNsRefToAecRatio(vad_pm, ratio_db);
    SetNsMeanCorr(vad_pm, mean_corr);
    vad_pm->speech_iterfrence_flag = ratio_db < 10.0f ? 0 : 1;
    if (vad_pm->vad_mode == 1 && ratio_db > 3.0f) vad_pm->vad_mode = 3;
  }

  // Both halves share one scratch area, as the suppressor only uses it as
  // its (unused here) spectral output. A null ns_out skips the synthesis.
  float scratch[kNsFftLen];
  NsVadProc(vad_pm, scratch, nullptr, nullptr, au, ns_out);
  const int first = vad_pm->vad_flag;
  NsVadProc(vad_pm, scratch, nullptr, nullptr, au + kVadHalf, ns_out != nullptr ? ns_out + kVadHalf : nullptr);
  const int second = vad_pm->vad_flag;
  return (first != 0 || second != 0) ? 1 : 0;
}

}  // namespace vorn
