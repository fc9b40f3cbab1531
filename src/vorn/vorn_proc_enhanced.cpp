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

#include "adsp_agc/level_control.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beam_enhanced.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "adsp_bf/util.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_multi_channel_post_filter.h"
#include "vorn/vorn_proc_internal.h"

namespace vorn {
namespace {

// A reference at or below -60 dBFS (RMS) is silence, not a far end the room
// could echo.
bool ReferenceLoud(const short* aec_ref) {
  if (aec_ref == nullptr) return false;
  constexpr double kSilentRms = 32.0;
  double energy = 0.0;
  for (int i = 0; i < kFrameLen; ++i) energy += static_cast<double>(aec_ref[i]) * aec_ref[i];
  return energy > kSilentRms * kSilentRms * kFrameLen;
}

int32_t BeamStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  // The classic frame reports the beamformer's code only through later
  // stages' results; so does this one. The direction stage tracks the
  // talker, so the classic per-hop tracker inside the analysis does not run;
  // the analysis's microphone spectra are the ones the tracker reads.
  st->bf_pm.ext_doa_update_flag = 0;
  fr.rtn = BfAnalyse(&st->bf_pm, fr.inp, fr.mic_order, fr.mic_spectra);
  if (fr.rtn != 0) return 0;
  fr.mic_spectra_ready = pm->doa_flag == 1;
  const TVornEnhancedState* enhanced = EnhancedStateOf(st);
  const BeamRequest request{pm->bf_flag, pm->bf_azimuth, pm->doa_flag, enhanced->last_presence.frame_prob,
                            enhanced->last_direction.azimuth_deg, enhanced->last_direction.confidence,
                            pm->aec_flag != 0 ? 1 : 0, fr.reference_loud ? 1 : 0};
  const auto* analysis = static_cast<const T_AudioDspState*>(st->bf_pm.p_data);
  const float* const latest[kBfChannels] = {analysis->au[0] + kBfHop, analysis->au[1] + kBfHop,
                                            analysis->au[2] + kBfHop};
  EnhancedBeamProc(&EnhancedStateOf(st)->modules.beam, request, latest, fr.mic_spectra, fr.beam);
  EnhancedBeamReference(&EnhancedStateOf(st)->modules.beam, pm->bf_flag, latest, fr.reference_mic);
  return 0;
}

int32_t EchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) { return RunEchoStage(pm, st, fr); }

// Speech presence, once per frame, shared by every later stage: the
// suppressor's gains, the speech flag, and (through the enhanced state) the
// next frame's earlier stages.
void PresenceStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  TVornEnhancedState* enhanced = EnhancedStateOf(st);
  EnhancedSpeechRecords& speech = enhanced->modules.speech;
  // A reference that is a microphone's own signal predicts the talker, not
  // an echo: it is no cue then. The reference comes delayed by the lead the
  // canceller found, so that it predicts the echo when it arrives.
  // Behind a beam, whether the talker speaks is judged on the microphone the
  // beam is in phase with, as the single-microphone chain judges it: the
  // beam's residual noise, coloured and moving with its blend, passed for
  // speech more often and the suppressor left about 2 dB more of it in. The
  // band presence, which gates the suppressor's bins, stays on the beam's
  // output, where the beam has lifted the talker's bands.
  const bool far_end = pm->aec_flag >= 1 && !fr.echo.reference_is_microphone;
  const bool beam = pm->bf_flag != 0;
  for (int h = 0; h < 2; ++h) {
    const NsEchoCues cues{far_end ? fr.aligned_ref + h * kHalfLen : nullptr,
                          far_end || beam ? fr.reference_mic + h * kHalfLen : nullptr, beam};
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

// The presence discounts whatever the far end's echo could explain, judged
// before the canceller; in double talk that takes the talker's bins along.
// Where the canceller itself hears a near talker beside the echo, the
// suppressor, which works on the cancelled signal, takes the talker back:
//   - in every band, where the canceller heard the talker in half the
//     blocks of this frame and the one before and the presence sees some
//     speech in the hop (the residual echo there is the canceller's to
//     remove; a hop with next to no speech stays as judged, since the
//     canceller holds its verdict through the talker's pauses);
//   - where it heard the talker in any block of the two frames, in the
//     bands where the residual echo it estimates it let through is 11.5 dB
//     under all it let through: the rest there is the talker's. Bands with
//     a fair share of residue stay as judged. Music's note onsets, which
//     the canceller can take for a talker for a block or two, leave about
//     10 dB between the two in most bands; lifting those let about 4 dB more
//     of the music's echo through in its far single talk.
constexpr float kLiftNearShare = 0.5f;
constexpr float kLiftPresence = 0.2f;
constexpr float kLiftBandShare = 0.125f;  // one block of eight
constexpr float kLiftEchoLeft = 0.07f;

void LiftPresenceBesideEcho(EnhancedFrame& fr) {
  if (fr.echo.near_activity_held < kLiftBandShare) return;
  const bool whole = fr.echo.near_activity_held >= kLiftNearShare;
  for (NsHopAnalysis& hop : fr.ns_hops) {
    const bool all_bands = whole && hop.prob >= kLiftPresence;
    if (all_bands) hop.prob = 1.0f;
    for (int b = 0; b < kPresenceBands; ++b)
      if (all_bands || fr.echo.band_echo_left[b] < kLiftEchoLeft) hop.band_prob[b] = 1.0f;
  }
}

int32_t SuppressStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  std::memcpy(fr.clean, fr.echo_out, sizeof fr.clean);
  EnhancedSpeechRecords& speech = EnhancedStateOf(st)->modules.speech;
  if (pm->ns_flag == 1) {
    LiftPresenceBesideEcho(fr);
    EnhancedSuppressHop(&speech.suppressor, speech.presence, &fr.ns_hops[0], fr.clean);
    EnhancedSuppressHop(&speech.suppressor, speech.presence, &fr.ns_hops[1], fr.clean + kHalfLen);
  } else if (pm->ns_flag == 2) {
    if (fr.rtn != 0) return fr.rtn;
    // With the canceller on, the post filter's gains go onto its output: the
    // beams it reads still carry the echo.
    if (pm->aec_flag >= 1) {
      float caps[2][kNsBins];
      const bool capped = EchoGainCaps(fr, caps);
      VornMultiChannelPostFilterOnCancelled(pm, fr.echo_out, EchoStageOf(st)->post_filter_history,
                                            capped ? caps : nullptr, fr.clean);
    }
    else
      VornMultiChannelPostFilter(pm, fr.clean);
    if (pm->doa_update_flag == 1) VornGetNosieEstFromNsToBf(&st->ns_pm[0], &st->bf_pm);
    return 0;
  }
  // Without suppression the presence stage still keeps the noise estimate
  // current for direction finding.
  if (pm->doa_update_flag == 1) {
    auto* bf = static_cast<T_AudioDspState*>(st->bf_pm.p_data);
    std::memcpy(bf->ns_psd, speech.presence.noise.noise, sizeof speech.presence.noise.noise);
  }
  return 0;
}

// Share of the canceller's blocks over two frames that must hear a near
// talker beside the echo for the speech flag to trust it.
constexpr float kTalkerHeardShare = 0.75f;

void VadStage(T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  EnhancedSpeechRecords& speech = EnhancedStateOf(st)->modules.speech;
  // The flag labels a frame 1.5 frames old: the canceller's near talker over
  // the last two frames covers it.
  FlagEchoCues echo;
  echo.echo_alone = fr.echo.echo_only;
  echo.talker_beside_echo = fr.echo.near_activity_held >= kTalkerHeardShare;
  echo.echo_settled = EnhancedVadEchoSettled(&speech.vad, fr.echo.lead_ms, fr.echo.reference_active);
  pm->vad_flag = EnhancedVadDecide(&speech.vad, fr.presence.output_prob, echo);
}

void LevelStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  if (pm->agc_flag == 0) {
    std::memcpy(fr.out, fr.clean, sizeof fr.out);
    return;
  }
  // agc_flag 1 and 2 both mean "on"; the level control has no modes.
  const LevelCues cues{fr.presence.frame_prob, fr.echo.far_activity >= 0.5f, fr.echo.double_talk};
  LevelProc(&EnhancedStateOf(st)->modules.level, cues, fr.clean, fr.out);
}

bool ReferenceAudible(const EnhancedFrame& fr) {
  return fr.echo.reference_active && fr.reference_loud;
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
  EnhancedModules& modules = EnhancedStateOf(st)->modules;
  EnhancedBeamInit(&modules.beam);
  LevelInit(&modules.level);
  EnhancedPresenceInit(&modules.speech.presence);
  EnhancedSuppressorInit(&modules.speech.suppressor);
  EnhancedVadInit(&modules.speech.vad);
  DoaTrackerInit(&modules.doa_tracker);
  EchoStageInit(&modules.echo);
}

int32_t VornProcEnhanced(T_VornParam* pm, TVornState* st, const short* inp, const short* aec_ref, short* out,
                         const short* mic_order) {
  EnhancedFrame fr{};
  fr.inp = inp;
  fr.aec_ref = aec_ref;
  fr.reference_loud = ReferenceLoud(aec_ref);
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

int32_t VornDoaEnhanced(T_VornParam* pm, TVornState* st, const short* inp, const short* mic_order,
                        int samples_per_channel) {
  // VornDoa has judged the arguments; these guard the calls below.
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
