// The front end's entry points.
//
// The core owns no signal processing: per 16 ms frame it runs the
// beamformer, the echo canceller in 64-sample blocks, the suppressor on two
// 128-sample halves (or the multi-channel post filter over three beams), the
// VAD path and the AGC, copying data between the modules' states. Mode and
// switches are re-read from the caller's record at the start of every call,
// so a mode change takes effect on the next frame. Every check runs before
// any state is touched (vorn_param.cpp); after that, the first module that
// fails decides the code (the design returned the last module's result,
// which let a later success hide an earlier failure). This file is the
// classic profile's frame; a buffer set to the enhanced profile runs
// vorn_proc_enhanced.cpp's instead. VornInit lives in vorn_init.cpp.
#include <cstring>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_util.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_multi_channel_post_filter.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_proc_enhanced.h"
#include "vorn/vorn_proc_internal.h"

namespace vorn {

void Float2int32_SNR(const float* pfSnr, int32_t* piSnr, int hTh, int lTh, int num) {
  for (int i = 0; i < num; ++i) {
    if (pfSnr[i] > static_cast<float>(hTh))
      piSnr[i] = hTh * 1024;
    else if (pfSnr[i] < static_cast<float>(lTh))
      piSnr[i] = (0 - lTh) * 1024;  // a very low SNR maps to a large positive figure; the AGC expects it
    else
      piSnr[i] = static_cast<int32_t>(pfSnr[i] * 1024.0f);
  }
}

}  // namespace vorn

using namespace vorn;

extern "C" int32_t VornProc(T_VornParam* pm, const short* inp, const short* aec_ref, short* out,
                            const short* mic_oder) {
  const int32_t check = VornCheckFrameCall(pm, inp, aec_ref, out, mic_oder);
  if (check != VORN_OK) return check;
  TVornState* st = LocateState(pm);
  if (st == nullptr) return VORN_ERR_NOT_INITIALISED;
  const int32_t ready = KeepCancellerReady(pm, st);
  if (ready != 0) return ready;
  if (EnhancedStateOf(st)->profile == kProfileEnhanced) return VornProcEnhanced(pm, st, inp, aec_ref, out, mic_oder);

  short tmp_in[kFrameLen] = {};
  short tmp_out[kFrameLen] = {};
  short aec_vad_in[kFrameLen] = {};
  float subcohXd[kCohLen] = {};
  FillBfParam(pm, st);
  RefreshNsParams(pm, st);

  int32_t rtn = BfProc(&st->bf_pm, inp, tmp_out, mic_oder);
  std::memcpy(tmp_in, tmp_out, sizeof tmp_in);

  if (pm->aec_flag >= 1) {
    const int rc = CancelEcho(pm, st, tmp_in, aec_ref, tmp_out, aec_vad_in, subcohXd);
    if (rc != 0) return rc;
    std::memcpy(tmp_in, tmp_out, sizeof tmp_in);
  }

  if (pm->ns_flag == 1) {
    KeepFirstFailure(&rtn, AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in, tmp_out));
    KeepFirstFailure(&rtn, AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in + kHalfLen, tmp_out + kHalfLen));
  } else if (pm->ns_flag == 2) {
    if (rtn != 0) return rtn;
    VornMultiChannelPostFilter(pm, tmp_out);
  }

  if (pm->ns_flag == 0 && pm->doa_flag != 0) {
    // Keep the noise estimate current for direction finding.
    short discard[kFrameLen];
    KeepFirstFailure(&rtn, AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in, discard));
    KeepFirstFailure(&rtn, AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in + kHalfLen, discard + kHalfLen));
  }

  if (pm->doa_update_flag == 1) VornGetNosieEstFromNsToBf(&st->ns_pm[0], &st->bf_pm);

  std::memcpy(tmp_in, tmp_out, sizeof tmp_in);
  const short* vad_in = pm->aec_flag == 3 ? aec_vad_in : tmp_in;
  pm->vad_flag = VornVadProc(pm, vad_in, aec_ref, subcohXd, kVadCohLen, nullptr);

  if (pm->agc_flag != 0) KeepFirstFailure(&rtn, RunDigitalAgc(pm, st, tmp_in, tmp_out));
  pm->azimuth = st->bf_pm.azimuth;
  std::memcpy(out, tmp_out, sizeof tmp_out);
  return rtn;
}

extern "C" int32_t VornDoa(T_VornParam* pm, const short* inp, const short* mic_oder, int sample_len_pre_channel) {
  const int32_t check = VornCheckDoaCall(pm, inp, mic_oder, sample_len_pre_channel);
  if (check != VORN_OK) return check;
  TVornState* st = LocateState(pm);
  if (st == nullptr) return VORN_ERR_NOT_INITIALISED;
  if (EnhancedStateOf(st)->profile == kProfileEnhanced)
    return VornDoaEnhanced(pm, st, inp, mic_oder, sample_len_pre_channel);
  FillBfParamForDoa(pm, st);
  TBfParam& bf = st->bf_pm;

  const int rc = (pm->doa_flag == 2 || pm->doa_flag == 3)
                     ? VornDoaProc(&bf, inp, mic_oder, sample_len_pre_channel)
                     : AudioDspDoa(&bf, inp, mic_oder, sample_len_pre_channel);
  pm->azimuth = bf.azimuth;
  return rc;
}
