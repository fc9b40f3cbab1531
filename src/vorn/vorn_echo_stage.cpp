// The enhanced echo stage over one frame: four 64-sample blocks through the
// canceller's enhanced path, and the frame's echo picture from their
// reports.
//
// The picture tells the later stages what the canceller knows and they
// cannot: whether the far end talks, whether echo reaches the microphones,
// and whether a near talker is heard beside it. Echo alone (echo present, no
// near talker) is what the speech detector must not call speech and what the
// level control must not lift. The echo return loss is measured over blocks
// of echo alone, where the microphone's power is the echo's.
//
// A reference that is one of the microphones (a miswired channel) would
// have the canceller remove the talker along with everything else; while
// the reference correlates with a microphone at lag 0 the stage passes the
// beam through and says so in the picture.
#include "vorn/vorn_echo_stage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/adsp_common_util.h"
#include "vorn/vorn_enhanced_state.h"

namespace vorn {
namespace {

constexpr int kBlocks = kFrameLen / kAecBlock;
constexpr int kMics = 3;
constexpr float kCheckKeep = 0.94f;          // about a second of frames
constexpr float kMicCopyCorrelation = 0.98f;
// Powers summed over about a second of echo alone: one block's far end
// against its echo swings by several dB with where the syllables fall in
// the room's tail, and decibels averaged over blocks are not the loss.
constexpr float kErlKeep = 0.996f;
constexpr int kEchoTailFrames = 16;  // 256 ms
static_assert(kLeadHistoryBlocks * kAecBlock + kFrameLen <= kReferenceRing, "the ring must hold the longest lead");
constexpr float kEchoGainFloor = 0.1f;     // -20 dB
constexpr float kCapNearActivity = 0.25f;  // one block of four
constexpr float kEchoOverFloor = 4.0f;     // 6 dB

// Updates the miswiring check with one frame; true while the reference is a
// copy of some microphone.
bool ReferenceIsMicrophone(ReferenceCheck* check, const short* inp, const short* ref) {
  float ref_energy = 0.0f, cross[kMics] = {}, mic_energy[kMics] = {};
  for (int i = 0; i < kFrameLen; ++i) {
    const float r = static_cast<float>(ref[i]);
    ref_energy += r * r;
    for (int m = 0; m < kMics; ++m) {
      const float v = static_cast<float>(inp[kMics * i + m]);
      cross[m] += r * v;
      mic_energy[m] += v * v;
    }
  }
  check->ref_energy = kCheckKeep * check->ref_energy + ref_energy;
  bool copy = false;
  for (int m = 0; m < kMics; ++m) {
    check->cross[m] = kCheckKeep * check->cross[m] + cross[m];
    check->mic_energy[m] = kCheckKeep * check->mic_energy[m] + mic_energy[m];
    const float norm = std::sqrt(check->ref_energy * check->mic_energy[m]);
    if (norm > 0.0f && check->cross[m] > kMicCopyCorrelation * norm) copy = true;
  }
  return copy;
}

float Db(float ratio) { return 10.0f * std::log10(ratio); }

// Stores the frame's reference and reads it back `delay` samples late.
void AlignReference(EchoStageState* echo, const short* ref, int delay, short* aligned) {
  for (int i = 0; i < kFrameLen; ++i) echo->reference_ring[(echo->reference_at + i) % kReferenceRing] = ref[i];
  const int from = echo->reference_at - delay + kReferenceRing;
  for (int i = 0; i < kFrameLen; ++i) aligned[i] = echo->reference_ring[(from + i) % kReferenceRing];
  echo->reference_at = (echo->reference_at + kFrameLen) % kReferenceRing;
}

// The canceller's bins are 125 Hz wide, the presence bands' bins 31.25 Hz:
// a presence bin k sits nearest the canceller's bin (k + 2) / 4.
constexpr int kNsBinsPerAecBin = 4;
constexpr int AecBinOf(int ns_bin) { return (ns_bin + kNsBinsPerAecBin / 2) / kNsBinsPerAecBin; }
static_assert(AecBinOf(kNsBins - 1) == kAecBins - 1, "the bands must end where the canceller's bins do");

// Adds one block's residual echo and error let through per presence band.
void AddBandPowers(const AecEnhancedBlock& report, float* left, float* passed) {
  for (int b = 0; b < kPresenceBands; ++b) {
    for (int j = AecBinOf(kBandEdges[b]); j <= AecBinOf(kBandEdges[b + 1] - 1); ++j) {
      left[b] += report.residual_bins[j];
      passed[b] += report.passed_bins[j];
    }
  }
}

}  // namespace

bool EchoGainCaps(const EnhancedFrame& fr, float caps[2][kNsBins]) {
  if (!fr.echo.echo_present || fr.echo.near_activity > kCapNearActivity || fr.echo.reference_is_microphone)
    return false;
  for (int h = 0; h < 2; ++h)
    for (int b = 0; b < kPresenceBands; ++b)
      for (int k = kBandEdges[b]; k < kBandEdges[b + 1]; ++k)
        caps[h][k] = std::max(fr.ns_hops[h].band_prob[b], kEchoGainFloor);
  return true;
}

EchoStageState* EchoStageOf(TVornState* st) { return &EnhancedStateOf(st)->modules.echo; }

void EchoStageInit(EchoStageState* echo) {
  std::memset(echo, 0, sizeof(*echo));
  AecEnhancedInit(&echo->canceller);
  echo->erl_db = kNoEchoReturnLossDb;
  echo->frames_since_echo = kEchoTailFrames;
  echo->picture.erl_db = kNoEchoReturnLossDb;
}

int32_t RunEchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr) {
  EchoStageState* echo = EchoStageOf(st);
  EchoPicture& pic = fr.echo;
  pic = EchoPicture{};
  pic.erl_db = echo->erl_db;
  if (pm->aec_flag < 1) {
    std::memcpy(fr.echo_out, fr.beam, sizeof fr.echo_out);
    echo->picture = pic;
    return 0;
  }
  for (int i = 0; i < kFrameLen && !pic.reference_active; ++i) pic.reference_active = fr.aec_ref[i] != 0;
  pic.reference_is_microphone = ReferenceIsMicrophone(&echo->reference_check, fr.inp, fr.aec_ref);
  if (pic.reference_is_microphone) {
    std::memcpy(fr.echo_out, fr.beam, sizeof fr.echo_out);
    std::memcpy(fr.vad_in, fr.beam, sizeof fr.vad_in);
    echo->picture = pic;
    return 0;
  }

  int far_blocks = 0, near_blocks = 0, echo_blocks = 0, double_talk_blocks = 0;
  float echo_power = 0.0f, residual_power = 0.0f, floor_power = 0.0f, heard_echo_power = 0.0f;
  float band_left[kPresenceBands] = {}, band_passed[kPresenceBands] = {};
  for (int b = 0; b < kBlocks; ++b) {
    const int at = b * kAecBlock;
    float near[kAecBlock], far[kAecBlock], out[kAecBlock];
    for (int i = 0; i < kAecBlock; ++i) {
      near[i] = static_cast<float>(fr.beam[at + i]);
      far[i] = static_cast<float>(fr.aec_ref[at + i]);
    }
    AecEnhancedBlock report{};
    const int32_t rc = AecEnhancedProcess(AecInstanceOf(st), &echo->canceller, near, far, out, fr.subcoh, &report);
    if (rc != 0) return rc;
    Float2PCM(out, fr.echo_out + at, kAecBlock);
    far_blocks += report.far_active;
    near_blocks += report.near_active;
    echo_blocks += report.echo_present;
    double_talk_blocks += report.far_active && report.near_active ? 1 : 0;
    echo_power += report.echo_power / kBlocks;
    residual_power += report.residual_power / kBlocks;
    floor_power += report.floor_power / kBlocks;
    heard_echo_power += (report.echo_power + report.error_residual_power) / kBlocks;
    AddBandPowers(report, band_left, band_passed);
    pic.lead_ms = static_cast<float>((report.lag_blocks + kLeadMarginBlocks) * kAecBlock * 1000 / kSampleRate);
    if (report.echo_present && !report.near_active && report.near_power > 0.0f && report.far_power > 0.0f) {
      echo->erl_far = kErlKeep * echo->erl_far + report.far_power;
      echo->erl_near = kErlKeep * echo->erl_near + report.near_power;
      echo->erl_db = Db(echo->erl_far / echo->erl_near);
    }
  }
  // The filters' window starts lag_blocks late, just ahead of the echo's
  // main energy: the reference delayed as much is in step with its echo.
  AlignReference(echo, fr.aec_ref, echo->canceller.lead.lag_blocks * kAecBlock, fr.aligned_ref);
  // One output serves both: the recognition path and the speech detector
  // hear the same suppressed, comfort-filled signal.
  std::memcpy(fr.vad_in, fr.echo_out, sizeof fr.vad_in);

  pic.far_activity = static_cast<float>(far_blocks) / kBlocks;
  pic.near_activity = static_cast<float>(near_blocks) / kBlocks;
  pic.near_activity_held = 0.5f * (pic.near_activity + echo->last_near_activity);
  echo->last_near_activity = pic.near_activity;
  pic.double_talk = double_talk_blocks > 0;
  // The room keeps ringing after the far end stops: echo counts as present
  // for a while after it was last heard.
  echo->frames_since_echo = echo_blocks > 0 ? 0 : std::min(echo->frames_since_echo + 1, kEchoTailFrames);
  pic.echo_present = echo->frames_since_echo < kEchoTailFrames;
  // Echo alone also needs the echo loud enough this frame to be what the
  // speech presence hears: the filters' estimate of it at the microphones
  // and the residual they are thought to miss, together 6 dB over the
  // error's noise floor. (The residual term keeps the echo counted while the
  // filters have yet to learn it.) An echo under the noise (a quiet far end,
  // the gaps between its syllables) cannot make the cancelled signal sound
  // like a talker.
  pic.echo_only = pic.echo_present && near_blocks == 0 && heard_echo_power > kEchoOverFloor * floor_power;
  pic.echo_power = echo_power;
  pic.residual_echo_power = residual_power;
  // The comfort noise is left out of both: a band the residual suppressor
  // filled with it holds neither echo nor talker.
  for (int b = 0; b < kPresenceBands; ++b)
    pic.band_echo_left[b] = band_passed[b] > 0.0f ? band_left[b] / band_passed[b] : 1.0f;
  pic.erl_db = echo->erl_db;
  echo->picture = pic;
  return 0;
}

}  // namespace vorn
