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

#include "adsp_agc/level_control.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beam_enhanced.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_multi_channel_post_filter.h"

namespace vorn {
namespace {

int32_t BeamStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  // The classic frame reports the beamformer's code only through later
  // stages' results; so does this one.
  float spectrum[kBfChannels][kBfFftLen];
  fr.rtn = BfAnalyse(&st->bf_pm, fr.inp, fr.mic_order, spectrum);
  if (fr.rtn != 0) return 0;
  const TVornEnhancedState* enhanced = EnhancedStateOf(st);
  const BeamRequest request{pm->bf_flag, pm->bf_azimuth, pm->doa_flag, enhanced->last_presence.frame_prob,
                            enhanced->last_direction.azimuth_deg, enhanced->last_direction.confidence};
  const auto* analysis = static_cast<const T_AudioDspState*>(st->bf_pm.p_data);
  const float* const latest[kBfChannels] = {analysis->au[0] + kBfHop, analysis->au[1] + kBfHop,
                                            analysis->au[2] + kBfHop};
  EnhancedBeamProc(&EnhancedStateOf(st)->modules.beam, request, latest, spectrum, fr.beam);
  return 0;
}

int32_t EchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  fr.echo.reference_active = false;
  if (pm->aec_flag >= 1)
    for (int i = 0; i < kFrameLen && !fr.echo.reference_active; ++i) fr.echo.reference_active = fr.aec_ref[i] != 0;
  fr.echo.far_activity = fr.echo.reference_active ? 1.0f : 0.0f;
  if (pm->aec_flag < 1) {
    std::memcpy(fr.echo_out, fr.beam, sizeof fr.echo_out);
    return 0;
  }
  return CancelEcho(pm, st, fr.beam, fr.aec_ref, fr.echo_out, fr.vad_in, fr.subcoh);
}

int32_t SuppressStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  std::memcpy(fr.clean, fr.echo_out, sizeof fr.clean);
  if (pm->ns_flag == 1) {
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out, fr.clean);
    fr.rtn = AdspNsProc(&st->ns_pm[0], nullptr, nullptr, nullptr, fr.echo_out + kHalfLen, fr.clean + kHalfLen);
  } else if (pm->ns_flag == 2) {
    if (fr.rtn != 0) return fr.rtn;
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
  // Until a presence estimate of its own runs, the speech flag stands in.
  fr.presence.frame_prob = pm->vad_flag != 0 ? 1.0f : 0.0f;
  EnhancedStateOf(st)->last_presence = fr.presence;
}

void LevelStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  if (pm->agc_flag == 0) {
    std::memcpy(fr.out, fr.clean, sizeof fr.out);
    return;
  }
  // agc_flag 1 and 2 both mean "on"; the level control has no modes.
  const LevelCues cues{fr.presence.frame_prob, fr.echo.far_activity >= 0.5f, fr.echo.double_talk};
  LevelProc(&EnhancedStateOf(st)->modules.level, cues, fr.clean, fr.out);
  fr.rtn = 0;
}

void DirectionStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  pm->azimuth = st->bf_pm.azimuth;
  fr.direction = {static_cast<float>(pm->azimuth), 0.0f};
  EnhancedStateOf(st)->last_direction = fr.direction;
}

}  // namespace

void VornInitEnhanced(const T_VornParam* pm, TVornState* st) {
  (void)pm;
  EnhancedModules& modules = EnhancedStateOf(st)->modules;
  EnhancedBeamInit(&modules.beam);
  LevelInit(&modules.level);
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
