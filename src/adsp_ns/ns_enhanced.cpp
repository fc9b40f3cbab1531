// The enhanced profile's suppressor: gains driven by the shared presence.
//
// Per bin, a Wiener gain from a decision-directed a priori SNR (the previous
// hop's output power blended with this hop's excess) keeps the talker where
// the estimate is sure of it; that gain is an MSE-optimal shape, which is
// what keeps the output close to the talker's waveform. It is allowed above
// the floor only as far as the bin's band holds signal above the noise, so
// an isolated noise peak in a band judged empty is held at the floor
// instead of sounding as a short tone (musical noise); and away from the
// talker (other voices, the far end's echo) only a quarter of that. "Near
// the talker" is the hop presence held as it dies by 0.2 dB a hop, because
// the talker's reverberation is part of what the listener should hear and
// the presence rightly says the talker has stopped. The floor itself follows the
// hop's presence: shallow while the talker speaks, so misjudged bins inside
// speech are damped rather than removed, and deep in pauses, where it sets
// how much quieter the noise gets. It rises within a hop and falls over about
// 60 ms, so pauses do not pump.
//
// Other voices (babble) rise and fall between their syllables, so the noise
// estimate, which must not learn the talker, sits below them. Where the
// talker is surely silent the suppressor keeps its own average of the
// power. It learns with the sixth power of (1 - the held presence), so the
// talker's own tail between syllables hardly reaches it. The Wiener gain
// takes that average as the noise in full where the talker is surely silent
// (the cube of the same share) and three quarters of it while the talker
// speaks: the other voices go on under the talker, and the noise floor alone
// left them there (babble gained 2 dB of SNR; with the slower learning and
// the share under speech it gains about 5.5, and no other noise loses).
//
// Synthesis is the classic suppressor's: the same window again and
// overlap-add at hop 128, 384 samples of delay.
#include <algorithm>
#include <cmath>

#include "adsp_ns/ns_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr float kOverlapAddGain = 127.99999f;  // two unit-energy windows at hop 128
constexpr float kNoiseFloorPower = 1e-3f;
constexpr float kDecisionDirected = 0.9f;
constexpr float kMinPrioriSnr = 1e-3f;
constexpr float kFloorSpeech = 0.1778f;  // -15 dB while the talker speaks
constexpr float kFloorPause = 0.0316f;   // -30 dB in pauses
constexpr float kFloorFall = 0.85f;      // per hop towards a lower floor
constexpr float kFrameGate = 0.25f;      // share of the band presence kept away from the talker
constexpr float kPauseSmoothing = 0.9f;  // per hop of certain pause: about 80 ms
constexpr float kSpeechPauseShare = 0.75f;  // of the pause level taken as noise under the talker
constexpr float kTalkerHoldDecay = 0.95f;  // per hop: the talker's reverberation follows it for 150 ms or so

// The band each bin belongs to.
constexpr std::array<std::uint8_t, kNsBins> MakeBinBands() {
  std::array<std::uint8_t, kNsBins> bands{};
  for (int b = 0; b < kPresenceBands; ++b)
    for (int k = kBandEdges[b]; k < kBandEdges[b + 1]; ++k) bands[k] = static_cast<std::uint8_t>(b);
  return bands;
}
constexpr std::array<std::uint8_t, kNsBins> kBinBand = MakeBinBands();

// Saturating conversion to 16 bits. Unlike the classic TRUNC, an output that
// lands exactly on full scale stays there instead of dropping to 0.
void ToPcm(const float* x, short* out, int n) {
  for (int i = 0; i < n; ++i) {
    const float v = x[i];
    out[i] = v >= 32767.0f ? short{32767} : v <= -32768.0f ? short{-32768} : v == v ? static_cast<short>(v) : short{0};
  }
}

}  // namespace

void EnhancedSuppressorInit(EnhancedSuppressorState* st) {
  *st = EnhancedSuppressorState{};
  st->floor_gain = kFloorSpeech;
}

void EnhancedSuppressHop(EnhancedSuppressorState* st, const EnhancedPresenceState& presence, NsHopAnalysis* hop,
                         short* out) {
  const float target_floor = kFloorPause + (kFloorSpeech - kFloorPause) * hop->prob;
  st->floor_gain = target_floor > st->floor_gain ? target_floor
                                                 : kFloorFall * st->floor_gain + (1.0f - kFloorFall) * target_floor;
  const float floor = st->floor_gain;
  st->talker_hold = std::max(hop->prob, kTalkerHoldDecay * st->talker_hold);
  const float gate = kFrameGate + (1.0f - kFrameGate) * st->talker_hold;

  float gain[kNsBins];
  const float pause = (1.0f - st->talker_hold) * (1.0f - st->talker_hold) * (1.0f - st->talker_hold);
  const float pause_weight = (1.0f - kPauseSmoothing) * pause * pause;  // learning: (1 - held)^6
  const float pause_share = pause + (1.0f - pause) * kSpeechPauseShare;
  for (int k = 0; k < kNsBins; ++k) {
    st->pause_power[k] += pause_weight * (hop->power[k] - st->pause_power[k]);
    const float noise = std::max(std::max(presence.noise.noise[k], pause_share * st->pause_power[k]), kNoiseFloorPower);
    const float posterior = hop->power[k] / noise;
    const float prior = std::max(kDecisionDirected * st->clean_power[k] / noise +
                                     (1.0f - kDecisionDirected) * std::max(posterior - 1.0f, 0.0f),
                                 kMinPrioriSnr);
    const float wiener = prior / (1.0f + prior);
    const float presence_k = hop->band_prob[kBinBand[k]] * gate;
    const float g = floor + presence_k * std::max(wiener - floor, 0.0f);
    gain[k] = g;
    st->clean_power[k] = g * g * hop->power[k];
  }
  gain[0] = 0.0f;  // DC carries no speech, and a DC offset should not leak

  float* x = hop->spectrum;
  x[0] = 0.0f;
  x[kNsFftLen / 2] *= gain[kNsBins - 1];
  for (int k = 1; k < kNsFftLen / 2; ++k) {
    x[k] *= gain[k];
    x[kNsFftLen - k] *= gain[k];
  }
  ifft_rel(x, kNsFftLen, kNsFftOrder);
  for (int i = 0; i < kNsFftLen; ++i) st->ola[i] += kOverlapAddGain * hanmming_win[i] * x[i];
  ToPcm(st->ola, out, kNsHop);
  AddZero(st->ola, kNsFftLen, kNsHop);
}

}  // namespace vorn
