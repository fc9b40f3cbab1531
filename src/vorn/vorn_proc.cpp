// The front end's entry points.
//
// The core owns no signal processing: per 16 ms frame it runs the
// beamformer, the echo canceller in 64-sample blocks, the suppressor on two
// 128-sample halves (or the multi-channel post filter over three beams), the
// VAD path and the AGC, copying data between the modules' states. Mode and
// switches are re-read from the caller's record at the start of every call,
// so a mode change takes effect on the next frame. The value returned is the
// last module result assigned; a failed parameter check returns before any
// state is touched. This file is the classic profile's frame; a buffer set to
// the enhanced profile runs vorn_proc_enhanced.cpp's instead.
#include <cstring>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/level_control.h"
#include "adsp_agc/analog_agc.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_util.h"
#include "conf_read/conf_read.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_multi_channel_post_filter.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
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

extern "C" int32_t VornInit(T_VornParam* pm, char* config_file) {
  AssetCheck();
  if (pm == nullptr) return 1;
  ConfigDefault(pm, kVornModeCount);
  int32_t profile = kConfProfileAbsent;
  bool agc_target_given = false;
  float agc_target_dbfs = 0.0f;

  if (config_file != nullptr) {
    // The reader borrows the start of the state buffer before it is cleared
    // (from the aligned state base: its record holds integers). A size too
    // small to reach that base is refused here rather than trusted.
    if (pm->p_data == nullptr) return -1;
    char* scratch = reinterpret_cast<char*>(VornStateOf(pm));
    const long scratch_len = static_cast<long>(pm->buff_size) - (scratch - reinterpret_cast<char*>(pm->p_data));
    T_VornKey* keys = nullptr;
    if (scratch_len <= 0 || LoadConfFileInit(scratch, static_cast<int>(scratch_len)) != 0) return -1;
    if (LoadConfFileProc(config_file, scratch, &keys) != 0) return -1;
    std::memcpy(pm->in_argv, keys, sizeof(pm->in_argv));
    if (LoadConfFileProfile(config_file, scratch, &profile) != 0) return -1;
    if (LoadConfFileAgcTarget(config_file, scratch, &agc_target_given, &agc_target_dbfs) != 0) return -1;
    if (agc_target_given && !LevelTargetInRange(agc_target_dbfs)) return -1;
  }

  if (pm->p_data != nullptr && pm->buff_size > 0) std::memset(pm->p_data, 0, static_cast<size_t>(pm->buff_size));
  SwitchMode(pm);
  const int32_t check = VornParamCheck(pm);
  if (check != 0) return check;

  TVornState* st = VornStateOf(pm);
  FillBfParam(pm, st);
  st->bf_pm.inner_interface_flag = 1;

  for (int i = 0; i < 3; ++i) {
    FillNsParam(&st->ns_pm[i], st->ns_buff[i]);
    const int rc = AdspNsInit(&st->ns_pm[i]);
    if (rc != 0) return rc;
  }
  FillNsParam(&st->ns_vad_pm, st->ns_vad_buff);
  SetNsLevel(&st->ns_vad_pm, 1.0f);
  const int ns_rc = AdspNsInit(&st->ns_vad_pm);
  if (ns_rc != 0) return ns_rc;

  if (DigitalAgc_Init(st->agc_buff, kRegionAgcBuffSize, kSampleRate) != 0) return 100;
  // The canceller is always prepared, with mode 0's filter file, so that a
  // later mode may switch it on mid-stream.
  if (AdspAec_Init(AecInstanceOf(st), kRegionAecBuffSize, kSampleRate, kSampleRate, pm->aec_flag,
                   pm->in_argv[0].preaec_filter_path) != 0)
    return 100;
  const int bf_rc = BFInit(&st->bf_pm);
  if (bf_rc != 0) return bf_rc;
  // Every enhanced module is prepared whatever the profile, so that the
  // profile may change at any frame boundary.
  TVornEnhancedState* enhanced = EnhancedStateOf(st);
  VornInitEnhanced(pm, st);
  if (agc_target_given) LevelSetTarget(&enhanced->modules.level, agc_target_dbfs);
  enhanced->profile = profile == kConfProfileAbsent ? kProfileClassic : profile;
  enhanced->magic = kEnhancedMagic;
  return 0;
}

extern "C" int32_t VornProc(T_VornParam* pm, short* inp, short* aec_ref, short* out, short* mic_oder) {
  short tmp_in[kFrameLen] = {};
  short tmp_out[kFrameLen] = {};
  short aec_vad_in[kFrameLen] = {};
  short vad_out[kFrameLen] = {};
  float subcohXd[kCohLen] = {};

  if (pm != nullptr) SwitchMode(pm);
  const int32_t check = VornParamCheck(pm);
  if (check != 0) return check;
  if (inp == nullptr || out == nullptr || mic_oder == nullptr) return 1;
  if (pm->aec_flag >= 1 && aec_ref == nullptr) return 1;

  TVornState* st = VornStateOf(pm);
  if (EnhancedStateOf(st)->profile == kProfileEnhanced) return VornProcEnhanced(pm, st, inp, aec_ref, out, mic_oder);
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
    rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in, tmp_out);
    rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in + kHalfLen, tmp_out + kHalfLen);
  } else if (pm->ns_flag == 2) {
    if (rtn != 0) return rtn;
    VornMultiChannelPostFilter(pm, tmp_out);
  }

  if (pm->ns_flag == 0 && pm->doa_flag != 0) {
    // Keep the noise estimate current for direction finding.
    short discard[kFrameLen];
    rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in, discard);
    rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, tmp_in + kHalfLen, discard + kHalfLen);
  }

  if (pm->doa_update_flag == 1) VornGetNosieEstFromNsToBf(&st->ns_pm[0], &st->bf_pm);

  std::memcpy(tmp_in, tmp_out, sizeof tmp_in);
  short* vad_in = pm->aec_flag == 3 ? aec_vad_in : tmp_in;
  pm->vad_flag = VornVadProc(pm, vad_in, aec_ref, subcohXd, kVadCohLen, vad_out);

  if (pm->agc_flag != 0) rtn = RunDigitalAgc(pm, st, tmp_in, tmp_out);
  pm->azimuth = st->bf_pm.azimuth;
  std::memcpy(out, tmp_out, sizeof tmp_out);
  return rtn;
}

extern "C" int32_t VornDoa(T_VornParam* pm, short* inp, short* mic_oder, int sample_len_pre_channel) {
  if (pm == nullptr || pm->p_data == nullptr) return 1;
  const int32_t check = VornParamCheck(pm);
  if (check != 0) return check;

  TVornState* st = VornStateOf(pm);
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
