// Speech presence for the enhanced profile: noise tracking and the judgement,
// per band and per hop, of whether the near talker speaks.
//
// Noise. Each bin's noise power follows the periodogram weighted by the
// probability that the bin holds noise alone, judged from its a posteriori
// SNR against a fixed speech SNR of 15 dB. That follows a noise that rises
// or falls between syllables (babble, a passing car) within a few hundred
// milliseconds, and it leaves a bin alone while speech dominates it, so a
// sustained vowel is not learned as noise. Its one weakness, a step up in
// noise that looks like speech to it, is covered by a floor: a bias-corrected
// minimum of the smoothed power over the last 1.5 s lifts the estimate when
// it has stayed below the noise that long. The probability is capped below 1
// while it has been near 1 for a while, so a bin cannot freeze for ever.
//
// Presence. Three cues, each robust to a different noise:
//  - excess: per band, how far the power stands above the noise; the hop's
//    cue is the mean over the speech bands (62 Hz to 4 kHz) in dB;
//  - harmonicity: voiced speech puts its energy on multiples of a pitch; the
//    excess magnitude spectrum, with its envelope removed, correlates with
//    itself shifted by the pitch. Noise does not, and a mixture of many
//    voices (diffuse speech-shaped noise) hardly does;
//  - level: other talkers in the room (babble) stand above the noise estimate
//    as well, but well below the talker, who is nearest; a hop far below the
//    talker's recent level counts against speech.
// The far end's echo counts as noise: where the loudspeaker plays, the
// talker has to stand above the echo the reference predicts as well. With
// the canceller on, the cues are taken from its input rather than its
// output: the talker is whole there, and the noise there does not step up
// and down as the canceller's suppression engages. Behind a beam they are
// taken from one microphone, whose noise the beam's blend does not reshape
// from hop to hop; the band presence then stays on the beam's output.
#include <algorithm>
#include <cmath>

#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr float kNoiseFloorPower = 1e-3f;  // below any int16 signal's bin power
constexpr int kStartHops = 8;              // hops averaged as noise before tracking starts
constexpr int kHopsMax = 1 << 30;

// Bin presence against a speech SNR of 15 dB with even prior odds.
constexpr float kSpeechSnr = 31.622777f;
constexpr float kLikelihoodScale = kSpeechSnr / (1.0f + kSpeechSnr);
constexpr float kNoiseSmoothing = 0.9f;    // per hop: about 80 ms
constexpr float kSppMeanSmoothing = 0.9f;
constexpr float kSppStagnation = 0.99f;    // a bin this sure of speech for this long ...
constexpr float kSppCap = 0.998f;          // ... is let to learn a little
constexpr float kPowerSmoothing = 0.8f;    // smoothing ahead of the floor search
constexpr float kFloorBias = 1.5f;         // minimum of a smoothed periodogram lies below its mean

// Band cue: logistic in the band's excess SNR.
constexpr float kBandCentreDb = 3.0f;
constexpr float kBandSlope = 0.9f;
constexpr float kBandRelease = 0.5f;  // share of the old band presence kept when it falls

constexpr int kCueFirstBand = 1;   // bins 2..127: 62 Hz to 4 kHz
constexpr int kCueLastBand = 19;
constexpr int kCueFirstBin = 2;
constexpr int kCueLastBin = 127;
constexpr float kExcessCapDb = 25.0f;

// Harmonicity over 94 Hz .. 3 kHz, pitch 62.5 .. 400 Hz.
constexpr int kHarmFirstBin = 3;
constexpr int kHarmLastBin = 96;
constexpr int kPitchLagMin = 40;
constexpr int kPitchLagMax = 256;

// Talker level (voiced: three hops in a row with clear pitch harmonics, 3 dB
// above noise and echo): rises towards louder voiced hops, sinks 0.05 dB with each
// quieter one (6 dB a second of voice: a talker who steps back), and holds
// while nobody speaks, so a long stretch of noise never becomes the talker.
constexpr float kLevelAttack = 0.3f;
constexpr float kLevelDecayDb = 0.05f;
constexpr float kLevelVoicedHarmonicity = 1.0f;
constexpr float kLevelVoicedSnrDb = 3.0f;
constexpr int kLevelVoicedRun = 3;  // hops in a row: noise seldom looks voiced for 24 ms
constexpr float kLevelUnknownDb = -100.0f;
constexpr float kBelowMaxDb = 40.0f;  // before any voice, every hop counts as far below the talker

// Echo: the loudspeaker's power per bin is held and let die at 0.7 dB a hop
// (88 dB/s: the echo's delay and a room's reverberation stay covered). The
// coupling per band is a least-squares fit of the input's excess over its
// noise against the held power, over the hops where the loudspeaker plays
// and the last hop stood less than 3 dB above noise and predicted echo
// (about a second). It starts at 0 dB, as loud
// as the loudspeaker, with the weight of a quiet loudspeaker, so real
// evidence takes over within a few hops. The talker then has to stand above
// twice the predicted echo; per bin, so a talker between the far end's
// harmonics is still heard.
constexpr float kEchoHeldDecay = 0.85f;
constexpr float kCouplingSmoothing = 0.99f;     // per hop: 0.8 s
constexpr float kCouplingPrior = 1e8f;          // (1e4 per bin)^2: the start's weight
constexpr float kEchoMargin = 2.0f;
constexpr float kReferenceFloorPower = 100.0f;  // per bin: about -70 dBFS; quieter plays no echo worth judging
constexpr float kCouplingUpdateSnrDb = 3.0f;  // the last hop stood no higher above noise and echo
constexpr int kTopBands = 4;

float Logistic(float z) { return 1.0f / (1.0f + std::exp(-z)); }

float Db(float power) { return 10.0f * std::log10(power); }

// The probability-weighted noise update of one bin array; `hops` counts the
// hops analysed, the first kStartHops of which are simply averaged.
void TrackBinNoise(float* noise, float* spp_mean, const float* power, int hops) {
  if (hops <= kStartHops) {
    const float w = 1.0f / static_cast<float>(hops);
    for (int k = 0; k < kNsBins; ++k) noise[k] += w * (power[k] - noise[k]);
    return;
  }
  for (int k = 0; k < kNsBins; ++k) {
    const float n = std::max(noise[k], kNoiseFloorPower);
    const float x = power[k] / n * kLikelihoodScale;
    // exp(-x) below 2e-9 leaves the probability at 1 in float.
    float spp = x > 20.0f ? 1.0f : 1.0f / (1.0f + (1.0f + kSpeechSnr) * std::exp(-x));
    spp_mean[k] = kSppMeanSmoothing * spp_mean[k] + (1.0f - kSppMeanSmoothing) * spp;
    if (spp_mean[k] > kSppStagnation) spp = std::min(spp, kSppCap);
    noise[k] = kNoiseSmoothing * n + (1.0f - kNoiseSmoothing) * (spp * n + (1.0f - spp) * power[k]);
  }
}

// One signal's noise: the probability-weighted update, lifted by the floor
// search when it has stayed below the noise for a whole window.
void TrackNoise(NoiseTracker* t, const float* power) {
  if (t->hops < kHopsMax) ++t->hops;
  TrackBinNoise(t->noise, t->spp_mean, power, t->hops);

  // Floor search over the power smoothed across three bins and in time.
  for (int k = 0; k < kNsBins; ++k) {
    const float left = power[k > 0 ? k - 1 : k], right = power[k < kNsBins - 1 ? k + 1 : k];
    const float across = 0.25f * left + 0.5f * power[k] + 0.25f * right;
    t->smooth_power[k] =
        t->hops == 1 ? across : kPowerSmoothing * t->smooth_power[k] + (1.0f - kPowerSmoothing) * across;
    t->stretch_min[k] = t->stretch_hops == 0 ? t->smooth_power[k] : std::min(t->stretch_min[k], t->smooth_power[k]);
  }
  if (++t->stretch_hops == kNoiseSubWindowHops) {
    t->stretch_hops = 0;
    float* row = t->stretch_mins[t->stretch_index];
    for (int k = 0; k < kNsBins; ++k) row[k] = t->stretch_min[k];
    t->stretch_index = (t->stretch_index + 1) % kNoiseSubWindows;
    if (t->stretches_filled < kNoiseSubWindows) ++t->stretches_filled;
    for (int k = 0; k < kNsBins; ++k) {
      float m = t->stretch_mins[0][k];
      for (int r = 1; r < t->stretches_filled; ++r) m = std::min(m, t->stretch_mins[r][k]);
      t->window_min[k] = m;
    }
  }
  // Only a full window of evidence may lift the estimate.
  if (t->stretches_filled == kNoiseSubWindows)
    for (int k = 0; k < kNsBins; ++k) t->noise[k] = std::max(t->noise[k], kFloorBias * t->window_min[k]);
}

// Windowed 512-point power spectrum of an analysis buffer after it takes a hop.
void HopPower(float* au, const short* in, float* spectrum, float* power) {
  SaveFrameMoveAu(au, const_cast<short*>(in), kNsFftLen, kNsHop);
  AddWin(au, hanmming_win, kNsFftLen, spectrum);
  fft_rel(spectrum, kNsFftLen, kNsFftOrder);
  GetPsd(spectrum, kNsFftLen, power);
}

// The signal the talker is judged on and the loudspeaker: that signal's
// power, its noise, and the echo the loudspeaker is predicted to put there
// (per bin; none without the canceller).
void AnalyseNear(EnhancedPresenceState* st, const NsEchoCues& echo, float* power, float* noise, float* echo_power) {
  float spectrum[kNsFftLen], reference[kNsBins];
  HopPower(st->near_au, echo.near, spectrum, power);
  TrackNoise(&st->near_noise, power);
  if (echo.reference == nullptr) {
    for (int k = 0; k < kNsBins; ++k) {
      noise[k] = std::max(st->near_noise.noise[k], kNoiseFloorPower);
      echo_power[k] = 0.0f;
    }
    return;
  }
  HopPower(st->reference_au, echo.reference, spectrum, reference);
  for (int k = 0; k < kNsBins; ++k) {
    st->reference_held[k] = std::max(reference[k], kEchoHeldDecay * st->reference_held[k]);
    noise[k] = std::max(st->near_noise.noise[k], kNoiseFloorPower);
  }
  for (int b = 0; b < kPresenceBands; ++b) {
    float held = 0.0f, excess = 0.0f;
    for (int k = kBandEdges[b]; k < kBandEdges[b + 1]; ++k) {
      held += st->reference_held[k];
      excess += std::max(power[k] - noise[k], 0.0f);
    }
    const float bins = static_cast<float>(kBandEdges[b + 1] - kBandEdges[b]);
    if (held >= kReferenceFloorPower * bins && st->recent_cues[0][kCueFrameSnr] < kCouplingUpdateSnrDb) {
      st->coupling_num[b] = kCouplingSmoothing * st->coupling_num[b] + (1.0f - kCouplingSmoothing) * excess * held;
      st->coupling_den[b] = kCouplingSmoothing * st->coupling_den[b] + (1.0f - kCouplingSmoothing) * held * held;
    }
    const float coupling = kEchoMargin * st->coupling_num[b] / st->coupling_den[b];
    for (int k = kBandEdges[b]; k < kBandEdges[b + 1]; ++k)
      echo_power[k] = st->reference_held[k] >= kReferenceFloorPower ? coupling * st->reference_held[k] : 0.0f;
  }
}

// 0..~0.8: how strongly the excess magnitude spectrum repeats at a pitch
// spacing. The spectrum's envelope is removed (its local five-bin mean), and
// the inverse transform of what remains peaks at the pitch period; its height
// against the spectrum's total magnitude is the cue.
float Harmonicity(const float* power, const float* noise) {
  float mag[kNsBins] = {};
  for (int k = kHarmFirstBin - 2; k <= kHarmLastBin + 2; ++k) mag[k] = std::sqrt(std::max(power[k] - noise[k], 0.0f));
  float ripple[kNsFftLen] = {};
  float total = 0.0f;
  for (int k = kHarmFirstBin; k <= kHarmLastBin; ++k) {
    const float envelope = 0.2f * (mag[k - 2] + mag[k - 1] + mag[k] + mag[k + 1] + mag[k + 2]);
    ripple[k] = mag[k] - envelope;
    total += std::fabs(ripple[k]);
  }
  if (total <= 1e-3f) return 0.0f;
  ifft_rel(ripple, kNsFftLen, kNsFftOrder);  // a real, even spectrum: the cosine sum, scaled by 1/512
  float peak = 0.0f;
  for (int lag = kPitchLagMin; lag <= kPitchLagMax; ++lag) peak = std::max(peak, ripple[lag]);
  return peak * static_cast<float>(kNsFftLen) / total;
}

}  // namespace

static_assert(kBandEdges[kCueFirstBand] == kCueFirstBin && kBandEdges[kCueLastBand + 1] == kCueLastBin + 1);

float EnhancedOutputPresence(const EnhancedPresenceState& st) {
  // The flag network judges the frame; the hop presence of at least one of
  // the hops around it must agree, so that a frame neither network is sure
  // of on its own is not called speech.
  float hop_prob = 0.0f;
  for (int back = 1; back <= kFlagAgreeHops; ++back) hop_prob = std::max(hop_prob, st.recent_prob[back]);
  return std::min(Logistic(NetLogit(kFlagNet, &st.recent_cues[1][0])), hop_prob);
}

void EnhancedPresenceInit(EnhancedPresenceState* st) {
  *st = EnhancedPresenceState{};
  st->talker_level_db = kLevelUnknownDb;
  for (int b = 0; b < kPresenceBands; ++b) st->coupling_num[b] = st->coupling_den[b] = kCouplingPrior;
  for (float& l : st->level_history) l = 0.0f;
}

void EnhancedPresenceHop(EnhancedPresenceState* st, const short* in, const NsEchoCues& echo, NsHopAnalysis* hop) {
  HopPower(st->au, in, hop->spectrum, hop->power);
  TrackNoise(&st->noise, hop->power);

  // What the talker has to stand above: the noise, and where the loudspeaker
  // plays, its echo. With the canceller on, both are judged on its input;
  // behind a beam, on one microphone.
  float near_power[kNsBins], near_noise[kNsBins], echo_power[kNsBins];
  const bool judged_apart = echo.near != nullptr;
  if (judged_apart) AnalyseNear(st, echo, near_power, near_noise, echo_power);
  const float* power = judged_apart ? near_power : hop->power;
  float floor[kNsBins];
  float echo_sum = 0.0f, speech_band_power = 0.0f;
  for (int k = 0; k < kNsBins; ++k) {
    floor[k] = judged_apart ? near_noise[k] + echo_power[k] : std::max(st->noise.noise[k], kNoiseFloorPower);
    if (k >= kCueFirstBin && k <= kCueLastBin) {
      echo_sum += judged_apart ? echo_power[k] : 0.0f;
      speech_band_power += power[k];
    }
  }
  hop->echo = std::min(echo_sum / (speech_band_power + kNoiseFloorPower), 1.0f);

  // Band cue, and the band presence: on the same signal, or on the
  // suppressor's input against its own noise (and the echo predicted).
  const bool own_bands = judged_apart && echo.bands_on_input;
  float excess_sum = 0.0f;
  float top[kTopBands] = {};  // the highest band excesses, falling
  for (int b = 0; b < kPresenceBands; ++b) {
    float p = 0.0f, n = 0.0f, own_p = 0.0f, own_n = 0.0f;
    for (int k = kBandEdges[b]; k < kBandEdges[b + 1]; ++k) {
      p += power[k];
      n += floor[k];
      if (own_bands) {
        own_p += hop->power[k];
        own_n += std::max(st->noise.noise[k], kNoiseFloorPower) + echo_power[k];
      }
    }
    const float excess_db = Db(std::max(p / n - 1.0f, 0.01f));
    const float band_db = own_bands ? Db(std::max(own_p / own_n - 1.0f, 0.01f)) : excess_db;
    const float now = Logistic(kBandSlope * (band_db - kBandCentreDb));
    st->band_prob[b] = std::max(now, kBandRelease * st->band_prob[b] + (1.0f - kBandRelease) * now);
    hop->band_prob[b] = st->band_prob[b];
    if (b >= kCueFirstBand && b <= kCueLastBand) {
      float e = std::clamp(excess_db, 0.0f, kExcessCapDb);
      excess_sum += e;
      for (float& t : top)
        if (e > t) std::swap(e, t);
    }
  }
  const float excess = excess_sum / static_cast<float>(kCueLastBand - kCueFirstBand + 1);

  float excess_power = 0.0f, noise_power = 0.0f;
  for (int k = kCueFirstBin; k <= kCueLastBin; ++k) {
    excess_power += std::max(power[k] - floor[k], 0.0f);
    noise_power += floor[k];
  }
  const float level_db = Db(excess_power + 1.0f);
  const float below_talker =
      st->talker_level_db <= kLevelUnknownDb ? kBelowMaxDb : std::clamp(st->talker_level_db - level_db, 0.0f, kBelowMaxDb);

  float recent_peak = level_db;
  for (float l : st->level_history) recent_peak = std::max(recent_peak, l);
  st->level_history[st->level_at] = level_db;
  st->level_at = (st->level_at + 1) % kLevelHistory;

  hop->cues[kCueExcess] = excess;
  hop->cues[kCueExcessTop] = (top[0] + top[1] + top[2] + top[3]) / static_cast<float>(kTopBands);
  hop->cues[kCueFrameSnr] = std::clamp(Db(excess_power / noise_power + 1e-4f), -20.0f, 40.0f);
  hop->cues[kCueHarmonicity] = Harmonicity(power, floor);
  hop->cues[kCueBelowTalker] = below_talker;
  hop->cues[kCueDecay] = std::min(recent_peak - level_db, 30.0f);
  hop->cues[kCueEcho] = hop->echo;

  for (int back = kCueHistory - 1; back > 0; --back)
    for (int c = 0; c < kPresenceCues; ++c) st->recent_cues[back][c] = st->recent_cues[back - 1][c];
  for (int c = 0; c < kPresenceCues; ++c) st->recent_cues[0][c] = hop->cues[c];
  hop->prob = Logistic(NetLogit(kPresenceNet, &st->recent_cues[0][0]));
  for (int back = kCueHistory - 1; back > 0; --back) st->recent_prob[back] = st->recent_prob[back - 1];
  st->recent_prob[0] = hop->prob;
  hop->snr_db = hop->cues[kCueFrameSnr];

  // The talker's level follows hops that are clearly a voice well above the
  // noise (judged from the cues alone, so the network's inputs do not
  // depend on its own output).
  const bool voiced_hop =
      hop->cues[kCueHarmonicity] > kLevelVoicedHarmonicity && hop->cues[kCueFrameSnr] > kLevelVoicedSnrDb;
  st->voiced_run = voiced_hop ? std::min(st->voiced_run + 1, kLevelVoicedRun) : 0;
  const bool voiced = st->voiced_run >= kLevelVoicedRun;
  if (voiced && level_db > st->talker_level_db)
    st->talker_level_db = st->talker_level_db <= kLevelUnknownDb
                              ? level_db
                              : st->talker_level_db + kLevelAttack * (level_db - st->talker_level_db);
  else if (voiced)
    st->talker_level_db -= kLevelDecayDb;
  st->prob = hop->prob;
}

}  // namespace vorn
