// The enhanced profile's frame.
//
// The same chain as the classic frame (beam, echo, suppression, speech
// detection, level), run as named stages over one frame record so that each
// stage can read what earlier ones learned about this frame: the echo
// picture, the speech presence, the talker's direction. Each stage calls the
// module's enhanced path where one exists and the classic module otherwise.
// The classic frame (vorn_proc.cpp) never branches on the profile.
#include "vorn/vorn_proc_enhanced.h"

#include <cstring>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_multi_channel_post_filter.h"

namespace vorn {
namespace {

int32_t BeamStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  (void)pm;
  fr.rtn = BfProc(&st->bf_pm, fr.inp, fr.beam, fr.mic_order);
  return 0;
}

int32_t EchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) { return RunEchoStage(pm, st, fr); }

int32_t SuppressStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  std::memcpy(fr.clean, fr.echo_out, sizeof fr.clean);
  if (pm->ns_flag == 1) {
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out, fr.clean);
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out + kHalfLen, fr.clean + kHalfLen);
  } else if (pm->ns_flag == 2) {
    if (fr.rtn != 0) return fr.rtn;
    // With the canceller on, the post filter's gains go onto its output: the
    // beams it reads still carry the echo.
    if (pm->aec_flag >= 1)
      VornMultiChannelPostFilterOnCancelled(pm, fr.echo_out, EchoStageOf(st)->post_filter_history, fr.clean);
    else
      VornMultiChannelPostFilter(pm, fr.clean);
  }
  if (pm->ns_flag == 0 && pm->doa_flag != 0) {
    // Keep the noise estimate current for direction finding.
    short discard[kFrameLen];
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out, discard);
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out + kHalfLen, discard + kHalfLen);
  }
  if (pm->doa_update_flag == 1) VornGetNosieEstFromNsToBf(&st->ns_pm[0], &st->bf_pm);
  return 0;
}

void VadStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  short vad_out[kFrameLen];
  short* vad_in = pm->aec_flag == 3 ? fr.vad_in : fr.clean;
  pm->vad_flag = VornVadProc(pm, vad_in, fr.aec_ref, fr.subcoh, kVadCohLen, vad_out);
  // Echo alone is never speech: the canceller hears no near talker beside it.
  if (fr.echo.echo_only) pm->vad_flag = 0;
  // Until a presence estimate of its own runs, the speech flag stands in.
  fr.presence.frame_prob = pm->vad_flag != 0 ? 1.0f : 0.0f;
  EnhancedStateOf(st)->last_presence = fr.presence;
}

void LevelStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  // Echo without speech neither moves the gain nor gets it: the frame
  // passes as the suppressor left it, and the gain control's state waits
  // for the talker.
  if (pm->agc_flag == 0 || (fr.echo.echo_present && pm->vad_flag == 0)) {
    std::memcpy(fr.out, fr.clean, sizeof fr.out);
    return;
  }
  fr.rtn = RunDigitalAgc(pm, st, fr.clean, fr.out);
}

void DirectionStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  pm->azimuth = st->bf_pm.azimuth;
  fr.direction = {static_cast<float>(pm->azimuth), 0.0f};
  EnhancedStateOf(st)->last_direction = fr.direction;
}

}  // namespace

void VornInitEnhanced(const T_VornParam* pm, TVornState* st) {
  (void)pm;
  EchoStageInit(EchoStageOf(st));
}

int32_t VornProcEnhanced(T_VornParam* pm, TVornState* st, short* inp, short* aec_ref, short* out, short* mic_order) {
  EnhancedFrame fr{};
  fr.inp = inp;
  fr.aec_ref = aec_ref;
  fr.mic_order = mic_order;
  FillBfParam(pm, st);
  RefreshNsParams(pm, st);

  int32_t rc = BeamStage(pm, st, fr);
  if (rc == 0) rc = EchoStage(pm, st, fr);
  if (rc == 0) rc = SuppressStage(pm, st, fr);
  if (rc != 0) return rc;
  VadStage(pm, st, fr);
  LevelStage(pm, st, fr);
  DirectionStage(pm, st, fr);
  std::memcpy(out, fr.out, sizeof fr.out);
  return fr.rtn;
}

int32_t VornDoaEnhanced(T_VornParam* pm, TVornState* st, short* inp, short* mic_order, int samples_per_channel) {
  FillBfParamForDoa(pm, st);
  TBfParam& bf = st->bf_pm;
  const int rc = (pm->doa_flag == 2 || pm->doa_flag == 3) ? VornDoaProc(&bf, inp, mic_order, samples_per_channel)
                                                          : AudioDspDoa(&bf, inp, mic_order, samples_per_channel);
  pm->azimuth = bf.azimuth;
  return rc;
}

}  // namespace vorn
