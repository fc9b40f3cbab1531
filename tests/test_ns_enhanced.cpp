// The enhanced profile's speech presence, suppressor and speech flag, driven
// through the public calls as a device drives them: what they do with
// speech, noise, echo and hostile input, and the presence getter; and the
// speech flag's decision rule on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr std::size_t kFrame = 256;
constexpr std::size_t kRate = 16000;
constexpr std::size_t kSettleFrames = 2 * kRate / kFrame;  // the first 2 s

struct ChainRun {
  std::vector<std::int16_t> out;
  std::vector<std::uint8_t> flags;
  std::vector<float> probs;
};

// The wake-up chain with the canceller (aec 1), suppressor (ns 1) and no AGC,
// enhanced profile, over a signal all three microphones hear alike. An empty
// reference plays nothing.
ChainRun RunEnhanced(const sim::Signal& mic, const sim::Signal& reference = {}) {
  std::vector<unsigned char> state(1000000);
  T_VornParam pm = sim::ParamKeeping(state.data(), {.aec = 1, .ns = 1, .vad_mode = 2}, 0);
  EXPECT_EQ(VornInit(&pm, nullptr), 0);
  EXPECT_EQ(VornSetProfile(&pm, VORN_PROFILE_ENHANCED), 0);
  const std::vector<std::int16_t> pcm = sim::ToPcm(mic);
  std::vector<std::int16_t> ref = reference.empty() ? std::vector<std::int16_t>(pcm.size(), 0) : sim::ToPcm(reference);
  ref.resize(pcm.size(), 0);
  ChainRun run;
  short inp[3 * kFrame], out[kFrame], order[3] = {0, 1, 2};
  for (std::size_t f = 0; (f + 1) * kFrame <= pcm.size(); ++f) {
    for (std::size_t i = 0; i < kFrame; ++i)
      for (int m = 0; m < 3; ++m) inp[3 * i + static_cast<std::size_t>(m)] = pcm[f * kFrame + i];
    EXPECT_EQ(VornProc(&pm, inp, &ref[f * kFrame], out, order), 0);
    run.out.insert(run.out.end(), out, out + kFrame);
    run.flags.push_back(pm.vad_flag != 0 ? 1 : 0);
    float p = -1.0f;
    EXPECT_EQ(VornGetSpeechProbability(&pm, &p), 0);
    run.probs.push_back(p);
  }
  return run;
}

double RmsOf(const std::vector<std::int16_t>& x, std::size_t begin, std::size_t end) {
  double sum = 0.0;
  for (std::size_t i = begin; i < end; ++i) sum += static_cast<double>(x[i]) * x[i];
  return std::sqrt(sum / static_cast<double>(std::max<std::size_t>(end - begin, 1)));
}

double RmsOf(const sim::Signal& x, std::size_t begin, std::size_t end) {
  double sum = 0.0;
  for (std::size_t i = begin; i < end; ++i) sum += static_cast<double>(x[i]) * x[i];
  return std::sqrt(sum / static_cast<double>(std::max<std::size_t>(end - begin, 1)));
}

std::size_t FlagsFrom(const ChainRun& run, std::size_t first_frame) {
  std::size_t n = 0;
  for (std::size_t f = first_frame; f < run.flags.size(); ++f) n += run.flags[f];
  return n;
}

sim::Signal Square(std::size_t n, double period_samples, double amplitude) {
  sim::Signal x(n);
  for (std::size_t i = 0; i < n; ++i)
    x[i] = static_cast<float>(std::fmod(static_cast<double>(i), period_samples) < period_samples / 2 ? amplitude
                                                                                                     : -amplitude);
  return x;
}

TEST(EnhancedSpeech, HostileInputGivesBoundedOutputAndNoSpeechOnNoiseAlone) {
  const std::size_t n10 = 10 * kRate;
  sim::Signal step = sim::WhiteNoise(n10, 30.0, 7);
  const sim::Signal loud = sim::WhiteNoise(n10, 3000.0, 8);
  std::copy(loud.begin() + static_cast<long>(n10 / 2), loud.end(), step.begin() + static_cast<long>(n10 / 2));
  sim::Signal dc = sim::WhiteNoise(n10, 20.0, 9);
  for (float& v : dc) v += 5000.0f;
  struct Case {
    const char* name;
    sim::Signal mic;
    bool noise_alone;  // no speech flag may follow the first 2 s
  };
  const Case cases[] = {
      {"digital silence", sim::Signal(n10, 0.0f), true},
      {"full-scale square wave, 250 Hz", Square(n10, 64.0, 32767.0), false},
      {"full-scale square wave, 4 kHz", Square(n10, 4.0, 32767.0), false},
      {"DC offset under faint noise", dc, true},
      {"white noise stepping up by 40 dB", step, true},
      {"60 s of white noise", sim::WhiteNoise(60 * kRate, 1000.0, 10), true},
      {"60 s of pink noise", sim::PinkNoise(60 * kRate, 1000.0, 11), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ChainRun run = RunEnhanced(c.mic);
    ASSERT_EQ(run.out.size(), c.mic.size() / kFrame * kFrame);
    // The suppressor never adds level: its gains stay at or below one.
    EXPECT_LE(RmsOf(run.out, 0, run.out.size()), RmsOf(c.mic, 0, run.out.size()) * 1.05 + 1.0);
    for (float p : run.probs) ASSERT_TRUE(p >= 0.0f && p <= 1.0f) << p;
    if (c.noise_alone) {
      EXPECT_EQ(FlagsFrom(run, kSettleFrames), 0u);
    }
  }
}

TEST(EnhancedSpeech, FlagsTheTalkerAndNotTheNoiseOrTheEcho) {
  const std::size_t n = 12 * kRate;
  sim::SpeechLikeOptions voice;
  voice.lead_silence_s = 3.0;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 21, voice);
  sim::SpeechLikeOptions far_voice;
  far_voice.f0_hz = 210.0;
  const sim::SpeechLike far = sim::MakeSpeechLike(n, 22, far_voice);
  // The echo as the microphones hear it: the far end 6 dB down, 2 ms late.
  sim::Signal echo(n, 0.0f);
  for (std::size_t i = 32; i < n; ++i) echo[i] = 0.5f * far.samples[i - 32];
  const sim::Signal noise = sim::PinkNoise(n, 300.0, 23);  // 20 dB under the talker

  struct Case {
    const char* name;
    sim::Signal mic, reference;
    const std::vector<std::uint8_t>* talker;  // null: nobody near talks
  };
  const Case cases[] = {
      {"talker in pink noise", sim::Mix(talker.samples, noise), {}, &talker.active},
      {"far end's echo in pink noise", sim::Mix(echo, noise), far.samples, nullptr},
      {"talker over the far end's echo", sim::Mix(sim::Mix(talker.samples, echo), noise), far.samples,
       &talker.active},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ChainRun run = RunEnhanced(c.mic, c.reference);
    if (c.talker == nullptr) {
      EXPECT_LT(FlagsFrom(run, kSettleFrames), (run.flags.size() - kSettleFrames) / 20) << "more than 5 % flagged";
      continue;
    }
    // The flag labels the frame leaving the suppressor, 384 samples (1.5
    // frames) behind; compare it with the talker's syllables there.
    const std::vector<std::uint8_t> labels = sim::FrameLabels(*c.talker);
    std::size_t tp = 0, fp = 0, fn = 0;
    for (std::size_t f = 2 + kSettleFrames; f < run.flags.size(); ++f) {
      const bool label = labels[f - 2] != 0, flag = run.flags[f] != 0;
      tp += label && flag;
      fp += !label && flag;
      fn += label && !flag;
    }
    const double f1 = 2.0 * static_cast<double>(tp) / static_cast<double>(2 * tp + fp + fn);
    EXPECT_GT(f1, 0.8);
  }
}

TEST(EnhancedSpeech, SuppressesNoiseAndKeepsTheTalker) {
  const std::size_t n = 10 * kRate;
  sim::SpeechLikeOptions voice;
  voice.lead_silence_s = 4.0;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 31, voice);
  for (const auto& [name, noise] : {std::pair{"white", sim::WhiteNoise(n, 300.0, 32)},
                                    std::pair{"pink", sim::PinkNoise(n, 300.0, 33)}}) {
    SCOPED_TRACE(name);
    const ChainRun run = RunEnhanced(sim::Mix(talker.samples, noise));
    // Noise alone, 2-4 s: at least 20 dB quieter (output lags by 384 samples).
    const double noise_drop = 20.0 * std::log10(RmsOf(noise, 2 * kRate, 4 * kRate) /
                                                (RmsOf(run.out, 2 * kRate + 384, 4 * kRate + 384) + 1e-9));
    EXPECT_GT(noise_drop, 20.0);
    // The talker's syllables, 5-10 s: within 2 dB of the clean talker.
    const double talker_change = 20.0 * std::log10(RmsOf(run.out, 5 * kRate + 384, n - 384) /
                                                   RmsOf(talker.samples, 5 * kRate, n - 768));
    EXPECT_NEAR(talker_change, 0.0, 2.0);
  }
}

// The flag rises on two frames above the onset threshold or one above the
// sure bar, stays up down to the lower one, and on echo alone rises only
// well above it once the echo has settled and stays only above the echo bar;
// with the canceller hearing a talker beside the echo a little presence
// raises it at once.
TEST(EnhancedSpeech, FlagRisesAtTheOnsetAndHoldsAtTheLowerThreshold) {
  ASSERT_LT(kFlagThreshold, kFlagOnsetThreshold);
  ASSERT_LE(kFlagOnsetThreshold, kFlagEchoThreshold);
  ASSERT_LT(kFlagOnsetThreshold + 0.01f, kFlagSureThreshold);
  ASSERT_LT(kFlagRiseOverEchoThreshold, 1.0f);
  const float between = 0.5f * (kFlagThreshold + kFlagOnsetThreshold);
  const float under_echo_bar = std::nextafter(kFlagEchoThreshold, 0.0f);
  const float under_rise_bar = std::nextafter(kFlagRiseOverEchoThreshold, 0.0f);
  const FlagEchoCues none, alone{true, false, false}, settled{true, false, true}, talker{false, true, false};
  struct Step {
    float prob;
    FlagEchoCues echo;
    int flag;
  };
  const Step steps[] = {
      {between, none, 0},                      // not enough to raise it
      {kFlagOnsetThreshold + 0.01f, none, 0},  // one frame over the onset is not enough ...
      {between, none, 0},
      {kFlagSureThreshold + 0.01f, none, 1},   // ... unless it stands over the sure bar
      {kFlagThreshold - 0.01f, none, 0},       // dropped
      {kFlagOnsetThreshold + 0.01f, none, 0},  // two frames in a row over the onset
      {kFlagOnsetThreshold + 0.01f, none, 1},  // raise it
      {between, none, 1},                      // held
      {kFlagThreshold - 0.01f, none, 0},       // dropped
      {between, none, 0},                      // not raised again on the lower bar
      {1.0f, none, 1},                         // raised
      {under_echo_bar, alone, 0},              // echo alone under its bar is no talker
      {between, none, 0},                      // and leaves the flag down
      {1.0f, alone, 0},                        // nor does echo alone raise it before it settles
      {under_rise_bar, settled, 0},            // nor, settled, under the rise bar
      {kFlagRiseOverEchoThreshold, settled, 0},
      {1.0f, settled, 1},                      // but above it
      {kFlagThreshold - 0.01f, none, 0},       // dropped
      {1.0f, none, 1},                         // raised
      {kFlagEchoThreshold, alone, 0},          // the echo bar holds for a flag already up
      {0.2f, talker, 1},                       // the canceller hears a talker: a little presence raises it
      {0.01f, talker, 0},                      // but not none
      {0.2f, alone, 0},                        // and echo alone stays echo alone
  };
  EnhancedVadState st;
  EnhancedVadInit(&st);
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(EnhancedVadDecide(&st, steps[i].prob, steps[i].echo), steps[i].flag);
  }
  // Over the echo bar a talker already flagged keeps the flag.
  if (kFlagEchoThreshold < 1.0f) {
    EXPECT_EQ(EnhancedVadDecide(&st, 1.0f, none), 1);
    EXPECT_EQ(EnhancedVadDecide(&st, 1.0f, alone), 1);
  }
}

// The echo settles after 2.5 s of loudspeaker play at one lead; a frame
// without play does not count, and a new lead starts the count again.
TEST(EnhancedSpeech, EchoSettlesOnlyAfterPlayAtOneLead) {
  EnhancedVadState st;
  EnhancedVadInit(&st);
  constexpr int kSettle = 156;
  int settled_at = -1;
  for (int f = 0; f < 400 && settled_at < 0; ++f)
    if (EnhancedVadEchoSettled(&st, 40.0f, f % 2 == 0)) settled_at = f;
  EXPECT_EQ(settled_at, 2 * kSettle);  // the lead's first frame sets it, uncounted
  EXPECT_FALSE(EnhancedVadEchoSettled(&st, 48.0f, true));
  for (int f = 1; f < kSettle; ++f) ASSERT_FALSE(EnhancedVadEchoSettled(&st, 48.0f, true)) << f;
  EXPECT_TRUE(EnhancedVadEchoSettled(&st, 48.0f, true));
}

// The flag network reads hops well before the frame it judges, but only the
// presence of the hops around that frame may agree with it: a syllable that
// ended half a dozen hops ago must not let a frame of noise be called speech.
TEST(EnhancedSpeech, OutputPresenceNeedsAPresentHopAroundTheFrame) {
  EnhancedPresenceState st;
  EnhancedPresenceInit(&st);
  for (auto& hop : st.recent_cues)
    for (int c = 0; c < kPresenceCues; ++c) hop[c] = kFlagNet.input_mean[c];
  for (int back = kFlagAgreeHops + 1; back < kCueHistory; ++back) st.recent_prob[back] = 1.0f;
  EXPECT_EQ(EnhancedOutputPresence(st), 0.0f);
  st.recent_prob[kFlagAgreeHops] = 1.0f;
  EXPECT_GT(EnhancedOutputPresence(st), 0.0f);
}

// Behind a beam the talker's presence is judged on one microphone and the
// band presence on the suppressor's input. Each signal carries the talker
// or pink noise alone, so each judgement shows which one it read.
TEST(EnhancedSpeech, PresenceReadsTheSignalItIsGiven) {
  constexpr std::size_t kHop = kNsHop;
  const std::size_t n = 8 * kRate;
  sim::SpeechLikeOptions voice;
  voice.lead_silence_s = 2.0;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 51, voice);
  const std::vector<std::int16_t> speech = sim::ToPcm(sim::Mix(talker.samples, sim::PinkNoise(n, 100.0, 52)));
  const std::vector<std::int16_t> noise = sim::ToPcm(sim::PinkNoise(n, 100.0, 53));
  struct Case {
    const char* name;
    const std::vector<std::int16_t>* in;    // the suppressor's input
    const std::vector<std::int16_t>* near;  // what the talker is judged on (null: `in`)
    bool bands_on_input;
    bool talker_heard, bands_open;  // inside the syllables
  };
  const Case cases[] = {
      {"one signal", &speech, nullptr, false, true, true},
      {"judged apart, bands too", &noise, &speech, false, true, true},
      {"talker only in the input", &speech, &noise, true, false, true},
      {"talker only where it is judged", &noise, &speech, true, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EnhancedPresenceState st;
    EnhancedPresenceInit(&st);
    NsHopAnalysis hop;
    double prob = 0.0, band = 0.0;
    std::size_t hops = 0;
    for (std::size_t at = 0; at + kHop <= n; at += kHop) {
      const NsEchoCues cues{nullptr, c.near != nullptr ? &(*c.near)[at] : nullptr, c.bands_on_input};
      EnhancedPresenceHop(&st, &(*c.in)[at], cues, &hop);
      if (at < 3 * kRate || talker.active[at] == 0) continue;
      prob += hop.prob;
      for (int b = 1; b < 20; ++b) band += hop.band_prob[b] / 19.0;
      ++hops;
    }
    ASSERT_GT(hops, 0u);
    prob /= static_cast<double>(hops);
    band /= static_cast<double>(hops);
    if (c.talker_heard)
      EXPECT_GT(prob, 0.6);
    else
      EXPECT_LT(prob, 0.2);
    if (c.bands_open)
      EXPECT_GT(band, 0.5);
    else
      EXPECT_LT(band, 0.3);
  }
}

TEST(EnhancedSpeech, SameInputSameBytes) {
  const sim::Signal mic = sim::Mix(sim::MakeSpeechLike(4 * kRate, 41).samples, sim::WhiteNoise(4 * kRate, 200.0, 42));
  const ChainRun a = RunEnhanced(mic), b = RunEnhanced(mic);
  EXPECT_EQ(a.out, b.out);
  EXPECT_EQ(a.flags, b.flags);
}

TEST(EnhancedSpeech, ProbabilityGetterRefusesWhatTheProfileSwitchRefuses) {
  std::vector<unsigned char> state(1000000);
  float value = 0.5f;
  T_VornParam pm = sim::ParamOver(state.data());
  EXPECT_EQ(VornGetSpeechProbability(nullptr, &value), 1);
  EXPECT_EQ(VornGetSpeechProbability(&pm, &value), VORN_ERR_NOT_INITIALISED);
  ASSERT_EQ(VornInit(&pm, nullptr), 0);
  EXPECT_EQ(VornGetSpeechProbability(&pm, nullptr), 1);
  T_VornParam small = pm;
  small.buff_size = 1000;
  EXPECT_EQ(VornGetSpeechProbability(&small, &value), 2);
  T_VornParam sized = pm;
  sized.param_size = 12;
  EXPECT_EQ(VornGetSpeechProbability(&sized, &value), 3);
  EXPECT_EQ(VornGetSpeechProbability(&pm, &value), 0);
  EXPECT_EQ(value, 0.0f);  // nothing heard yet
}

}  // namespace
}  // namespace vorn
