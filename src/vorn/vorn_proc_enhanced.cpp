// The enhanced profile's frame.
//
// The same chain as the classic frame (beam, echo, suppression, speech
// detection, level), with a speech-presence stage ahead of the suppression,
// run as named stages over one frame record so that each
// stage can read what earlier ones learned about this frame: the echo
// picture, the speech presence, the talker's direction. Each stage calls the
// module's enhanced path where one exists and the classic module otherwise.
// The classic frame (vorn_proc.cpp) never branches on the profile.
#include "vorn/vorn_proc_enhanced.h"

#include <cmath>
#include <cstring>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "adsp_bf/util.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_multi_channel_post_filter.h"

namespace vorn {
namespace {

// The hop's microphone spectra for the direction stage, from the analysis
// buffers the beamformer has just slid forward.
void KeepMicSpectra(TVornState* st, EnhancedFrame& fr) {
  const auto* bf = static_cast<const T_AudioDspState*>(st->bf_pm.p_data);
  for (int m = 0; m < kBfChannels; ++m) {
    std::memcpy(fr.mic_spectra[m], bf->au[m], sizeof fr.mic_spectra[m]);
    fft_rel(fr.mic_spectra[m], kBfFftLen, kBfFftOrder);
  }
  fr.mic_spectra_ready = true;
}

int32_t BeamStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  // The direction stage tracks the talker; the classic per-hop tracker
  // inside the beamformer does not run.
  st->bf_pm.ext_doa_update_flag = 0;
  fr.rtn = BfProc(&st->bf_pm, fr.inp, fr.beam, fr.mic_order);
  if (fr.rtn == 0 && pm->doa_flag == 1) KeepMicSpectra(st, fr);
  return 0;
}

int32_t EchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) { return RunEchoStage(pm, st, fr); }

// Speech presence, once per frame, shared by every later stage: the
// suppressor's gains, the speech flag, and (through the enhanced state) the
// next frame's earlier stages.
void PresenceStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  TVornEnhancedState* enhanced = EnhancedStateOf(st);
  EnhancedSpeechRecords& speech = enhanced->modules.speech;
  const bool far_end = pm->aec_flag >= 1;
  for (int h = 0; h < 2; ++h) {
    const NsEchoCues cues{far_end ? fr.aec_ref + h * kHalfLen : nullptr, far_end ? fr.beam + h * kHalfLen : nullptr};
    EnhancedPresenceHop(&speech.presence, fr.echo_out + h * kHalfLen, cues, &fr.ns_hops[h]);
  }
  SpeechPresence& p = fr.presence;
  p.frame_prob = 0.5f * (fr.ns_hops[0].prob + fr.ns_hops[1].prob);
  p.output_prob = EnhancedOutputPresence(speech.presence);
  for (int b = 0; b < kPresenceBands; ++b) p.band_prob[b] = fr.ns_hops[1].band_prob[b];
  p.snr_db = 0.5f * (fr.ns_hops[0].snr_db + fr.ns_hops[1].snr_db);
  p.echo = 0.5f * (fr.ns_hops[0].echo + fr.ns_hops[1].echo);
  enhanced->last_presence = p;
}

int32_t SuppressStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  std::memcpy(fr.clean, fr.echo_out, sizeof fr.clean);
  EnhancedSpeechRecords& speech = EnhancedStateOf(st)->modules.speech;
  if (pm->ns_flag == 1) {
    EnhancedSuppressHop(&speech.suppressor, speech.presence, &fr.ns_hops[0], fr.clean);
    EnhancedSuppressHop(&speech.suppressor, speech.presence, &fr.ns_hops[1], fr.clean + kHalfLen);
    fr.rtn = 0;
  } else if (pm->ns_flag == 2) {
    if (fr.rtn != 0) return fr.rtn;
    // With the canceller on, the post filter's gains go onto its output: the
    // beams it reads still carry the echo.
    if (pm->aec_flag >= 1)
      VornMultiChannelPostFilterOnCancelled(pm, fr.echo_out, EchoStageOf(st)->post_filter_history, fr.clean);
    else
      VornMultiChannelPostFilter(pm, fr.clean);
    if (pm->doa_update_flag == 1) VornGetNosieEstFromNsToBf(&st->ns_pm[0], &st->bf_pm);
    return 0;
  } else if (pm->doa_flag != 0) {
    fr.rtn = 0;  // the presence stage keeps the noise estimate current for direction finding
  }
  if (pm->doa_update_flag == 1) {
    auto* bf = static_cast<T_AudioDspState*>(st->bf_pm.p_data);
    std::memcpy(bf->ns_psd, speech.presence.noise.noise, sizeof speech.presence.noise.noise);
  }
  return 0;
}

void VadStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  EnhancedSpeechRecords& speech = EnhancedStateOf(st)->modules.speech;
  // Echo alone is never speech: the canceller hears no near talker beside
  // it, so the decision sees no presence on those frames.
  pm->vad_flag = EnhancedVadDecide(&speech.vad, fr.echo.echo_only ? 0.0f : fr.presence.output_prob);
  if (pm->agc_flag != 0) {
    // The digital AGC reads its SNR figures from the classic VAD suppressor.
    short vad_out[kFrameLen];
    short* vad_in = pm->aec_flag == 3 ? fr.vad_in : fr.clean;
    VornVadProc(pm, vad_in, fr.aec_ref, fr.subcoh, kVadCohLen, vad_out);
  }
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

// A reference at or below -60 dBFS (RMS) is silence, not a far end the room
// could echo.
bool ReferenceAudible(const EnhancedFrame& fr) {
  if (!fr.echo.reference_active || fr.aec_ref == nullptr) return false;
  constexpr double kSilentRms = 32.0;
  double energy = 0.0;
  for (int i = 0; i < kFrameLen; ++i) energy += static_cast<double>(fr.aec_ref[i]) * fr.aec_ref[i];
  return energy > kSilentRms * kSilentRms * kFrameLen;
}

int AzimuthDegrees(float azimuth_deg) { return static_cast<int>(std::lround(azimuth_deg)) % 360; }

void DirectionStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  TVornEnhancedState* enhanced = EnhancedStateOf(st);
  TDoaTrackerEnhanced& tracker = enhanced->modules.doa_tracker;
  if (!fr.mic_spectra_ready) {
    // Tracking off: the azimuth and its confidence stay as they were.
    fr.direction = enhanced->last_direction;
    return;
  }
  const DoaHopCues cues{fr.presence.frame_prob, fr.echo.far_activity, ReferenceAudible(fr),
                        pm->doa_update_flag != 0};
  const DoaTrack track = DoaTrackerHop(&tracker, fr.mic_spectra, cues);
  if (track.found) pm->azimuth = AzimuthDegrees(track.azimuth_deg);
  fr.direction = {track.azimuth_deg, track.confidence};
  enhanced->last_direction = fr.direction;
}

}  // namespace

void VornInitEnhanced(const T_VornParam* pm, TVornState* st) {
  (void)pm;
  EnhancedSpeechRecords& speech = EnhancedStateOf(st)->modules.speech;
  EnhancedPresenceInit(&speech.presence);
  EnhancedSuppressorInit(&speech.suppressor);
  EnhancedVadInit(&speech.vad);
  DoaTrackerInit(&EnhancedStateOf(st)->modules.doa_tracker);
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
  if (rc == 0) PresenceStage(pm, st, fr);
  if (rc == 0) rc = SuppressStage(pm, st, fr);
  if (rc != 0) return rc;
  VadStage(pm, st, fr);
  LevelStage(pm, st, fr);
  DirectionStage(pm, st, fr);
  std::memcpy(out, fr.out, sizeof fr.out);
  return fr.rtn;
}

int32_t VornDoaEnhanced(T_VornParam* pm, TVornState* st, short* inp, short* mic_order, int samples_per_channel) {
  TDoaTrackerEnhanced& tracker = EnhancedStateOf(st)->modules.doa_tracker;
  DoaTrack found{};
  if (pm->doa_flag == 2 || pm->doa_flag == 3) {
    // The search over the stretch's samples.
    if (inp == nullptr) return kBfErrNull;
    short order[kBfChannels];
    if (!TakeMicOrder(mic_order, order)) return kBfErrParam;
    found = DoaUtteranceEnhanced(inp, order, samples_per_channel);
  } else if (pm->doa_flag == 1) {
    // The talker evidence the per-frame tracker has pooled since it was
    // last asked; the samples are not read.
    if (inp == nullptr || mic_order == nullptr) return kBfErrNull;
    if (static_cast<const T_AudioDspState*>(st->bf_pm.p_data)->frame_num == 0) return kBfErrNotReady;
    found = DoaTrackerPooled(&tracker);
    if (!found.found) found = {tracker.azimuth_deg, 0.0f, tracker.has_direction != 0};
  } else {
    return kBfErrParam;
  }
  pm->azimuth = found.found ? AzimuthDegrees(found.azimuth_deg) : 0;
  tracker.reported_confidence = found.found ? found.confidence : 0.0f;
  return 0;
}

}  // namespace vorn
