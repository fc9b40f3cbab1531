// The enhanced level control: talkers at any level come out at the target,
// a level jump is caught up within two seconds, pauses and echo keep their
// floor, and no sample clips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

#include "adsp_agc/level_control.h"
#include "sim/signals.h"

namespace vorn {
namespace {

using sim::Signal;
constexpr int kFrame = 256;
constexpr double kFullScale = 32768.0;

double Dbfs(double mean_square) { return 10.0 * std::log10(mean_square / (kFullScale * kFullScale) + 1e-20); }
double AmplitudeFor(double dbfs) { return kFullScale * std::pow(10.0, dbfs / 20.0); }

// What the level control sees: a talker (speech-like, at a level given per
// sample by `level_dbfs`, silent where `talks` is false) over a steady noise
// floor, and whether each frame holds the talker.
struct Input {
  std::vector<short> pcm;
  std::vector<uint8_t> speech;  // per frame
};
// Where the talker is silent, another voice at `other_dbfs` may sound (the
// loudspeaker's echo residue, say); it is not the talker's speech.
Input MakeInput(double seconds, double noise_dbfs, const std::function<double(double)>& level_dbfs,
                const std::function<bool(double)>& talks, double other_dbfs = -200.0) {
  const auto n = static_cast<std::size_t>(seconds * sim::kSampleRate) / kFrame * kFrame;
  const sim::SpeechLike voice = sim::MakeSpeechLike(n, 21, {.rms = 1.0});
  const sim::SpeechLike other = sim::MakeSpeechLike(n, 23, {.rms = AmplitudeFor(other_dbfs), .f0_hz = 210.0});
  const Signal noise = sim::WhiteNoise(n, AmplitudeFor(noise_dbfs), 22);
  Signal x(n);
  std::vector<uint8_t> active(n);
  for (std::size_t t = 0; t < n; ++t) {
    const double at = static_cast<double>(t) / sim::kSampleRate;
    const bool on = talks(at);
    x[t] = noise[t] + (on ? static_cast<float>(voice.samples[t] * AmplitudeFor(level_dbfs(at))) : other.samples[t]);
    active[t] = on && voice.active[t];
  }
  return {sim::ToPcm(x), sim::FrameLabels(active)};
}

struct Output {
  std::vector<short> pcm;
  std::vector<float> gain_db;  // per frame, at its end
};
Output RunLevel(EnhancedLevelState* st, const Input& in, const std::function<LevelCues(std::size_t)>& cues) {
  Output out{std::vector<short>(in.pcm.size()), {}};
  for (std::size_t f = 0; f < in.pcm.size() / kFrame; ++f) {
    LevelProc(st, cues(f), &in.pcm[f * kFrame], &out.pcm[f * kFrame]);
    out.gain_db.push_back(st->gain_db);
  }
  return out;
}

LevelCues Honest(const Input& in, std::size_t f) { return {in.speech[f] ? 1.0f : 0.0f, false, false}; }

// Mean power (dBFS) of the frames in [from_s, to_s) that `pick` selects.
double LevelOver(const std::vector<short>& x, const std::vector<uint8_t>& speech, double from_s, double to_s,
                 bool want_speech) {
  double sum = 0.0;
  std::size_t count = 0;
  for (std::size_t f = static_cast<std::size_t>(from_s * 62.5); f < static_cast<std::size_t>(to_s * 62.5); ++f) {
    if (f >= speech.size() || (speech[f] != 0) != want_speech) continue;
    for (int i = 0; i < kFrame; ++i) sum += static_cast<double>(x[f * kFrame + i]) * x[f * kFrame + i];
    count += kFrame;
  }
  return Dbfs(sum / static_cast<double>(count));
}

TEST(LevelControl, BringsEveryTalkerLevelToTheTarget) {
  struct Case {
    double talker_dbfs, target_dbfs;
  };
  const Case cases[] = {{-50.0, -26.0}, {-40.0, -26.0}, {-30.0, -26.0}, {-20.0, -26.0},
                        {-10.0, -26.0}, {-40.0, -16.0}, {-20.0, -36.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.talker_dbfs << " dBFS to " << c.target_dbfs);
    const Input in = MakeInput(8.0, c.talker_dbfs - 45.0, [&](double) { return c.talker_dbfs; },
                               [](double t) { return t > 0.5; });
    EnhancedLevelState st;
    LevelInit(&st);
    ASSERT_TRUE(LevelSetTarget(&st, static_cast<float>(c.target_dbfs)));
    const Output out = RunLevel(&st, in, [&](std::size_t f) { return Honest(in, f); });
    EXPECT_NEAR(LevelOver(out.pcm, in.speech, 3.0, 8.0, true), c.target_dbfs, 1.5);
  }
}

TEST(LevelControl, HoldsTheTargetFromTheStartWhenPresenceCatchesOnlySyllableOnsets) {
  // A presence estimate that is not yet settled: it fires on the first frame
  // of each syllable, where the voice is still rising, and misses the rest.
  // The level is still that of the whole syllables, from the first seconds
  // of talk on, at every talker level.
  std::vector<double> levels;
  for (double talker : {-50.0, -40.0, -30.0, -20.0, -10.0}) {
    SCOPED_TRACE(talker);
    const Input in = MakeInput(4.5, talker - 30.0, [&](double) { return talker; }, [](double t) { return t > 0.5; });
    EnhancedLevelState st;
    LevelInit(&st);
    const Output out = RunLevel(&st, in, [&](std::size_t f) {
      const bool onset = in.speech[f] && (f == 0 || !in.speech[f - 1]);
      return LevelCues{onset ? 1.0f : 0.1f, false, false};
    });
    levels.push_back(LevelOver(out.pcm, in.speech, 0.5, 4.5, true));
    EXPECT_NEAR(levels.back(), -26.0, 2.0);
  }
  EXPECT_LT(*std::max_element(levels.begin(), levels.end()) - *std::min_element(levels.begin(), levels.end()), 3.0);
}

TEST(LevelControl, CatchesUpWithATwentyDecibelJumpWithinTwoSeconds) {
  for (double step : {20.0, -20.0}) {
    SCOPED_TRACE(step);
    const double before = step > 0 ? -45.0 : -25.0;
    const Input in = MakeInput(12.0, -90.0, [&](double t) { return t < 6.0 ? before : before + step; },
                               [](double t) { return t > 0.5; });
    EnhancedLevelState st;
    LevelInit(&st);
    const Output out = RunLevel(&st, in, [&](std::size_t f) { return Honest(in, f); });
    // From two seconds after the jump on, every half second is within 3 dB.
    for (double t = 8.0; t < 12.0; t += 0.5)
      EXPECT_NEAR(LevelOver(out.pcm, in.speech, t, t + 0.5, true), -26.0, 3.0) << t;
    // And the gain is steady meanwhile: no pumping with the syllables.
    double low = 1e9, high = -1e9;
    for (std::size_t f = 9 * 62; f < 12 * 62 - 1; ++f) {
      low = std::min(low, static_cast<double>(out.gain_db[f]));
      high = std::max(high, static_cast<double>(out.gain_db[f]));
    }
    EXPECT_LT(high - low, 3.0);
  }
}

TEST(LevelControl, PausesAndEchoKeepTheFloorWhereItWas) {
  // A quiet talker (the gain is near +30 dB) with a 4 s pause; during the
  // pause the presence either says so, or fires on the noise, or hears the
  // loudspeaker's echo residue (20 dB over the noise) while the loudspeaker
  // plays in bursts of 160 ms with gaps as long, where only its echo rings.
  struct Case {
    const char* name;
    std::function<LevelCues(const Input&, std::size_t)> cues;
    double echo_dbfs;
  };
  const auto in_pause = [](std::size_t f) { return f >= 4 * 62 && f < 8 * 62; };
  const Case cases[] = {
      {"presence honest", [](const Input& in, std::size_t f) { return Honest(in, f); }, -200.0},
      {"presence fires on the noise",
       [&](const Input& in, std::size_t f) { return in_pause(f) ? LevelCues{1.0f, false, false} : Honest(in, f); },
       -200.0},
      {"echo alone",
       [&](const Input& in, std::size_t f) {
         return in_pause(f) ? LevelCues{1.0f, (f / 10) % 2 == 0, false} : Honest(in, f);
       },
       -55.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Input in = MakeInput(10.0, -75.0, [](double) { return -55.0; },
                               [](double t) { return t > 0.5 && (t < 4.0 || t >= 8.0); }, c.echo_dbfs);
    EnhancedLevelState st;
    LevelInit(&st);
    const Output out = RunLevel(&st, in, [&](std::size_t f) { return c.cues(in, f); });
    EXPECT_GT(LevelOver(out.pcm, in.speech, 2.0, 4.0, true) - LevelOver(in.pcm, in.speech, 2.0, 4.0, true), 25.0);
    // From half a second into the pause the floor is back where it was.
    EXPECT_LT(LevelOver(out.pcm, in.speech, 4.5, 7.9, false) - LevelOver(in.pcm, in.speech, 4.5, 7.9, false), 1.0);
  }
}

TEST(LevelControl, NoSampleClipsWhenTheTalkerSuddenlyShouts) {
  // A quiet talker earns a large gain; then a shout near full scale.
  const Input in = MakeInput(6.0, -90.0, [](double t) { return t < 4.0 ? -48.0 : -3.0; },
                             [](double t) { return t > 0.5; });
  EnhancedLevelState st;
  LevelInit(&st);
  const Output out = RunLevel(&st, in, [&](std::size_t f) { return Honest(in, f); });
  int peak = 0;
  for (short v : out.pcm) peak = std::max(peak, std::abs(static_cast<int>(v)));
  EXPECT_LE(peak, 29205);  // -1 dBFS
  EXPECT_GT(peak, 20000);  // and the shout is not simply lost
}

TEST(LevelControl, TargetOutsideItsRangeIsRefused) {
  struct Case {
    float target;
    bool ok;
  };
  const Case cases[] = {{-26.0f, true},  {-40.0f, true},  {-6.0f, true},
                        {-40.5f, false}, {-5.9f, false},  {0.0f, false},
                        {std::numeric_limits<float>::quiet_NaN(), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    EnhancedLevelState st;
    LevelInit(&st);
    EXPECT_EQ(LevelSetTarget(&st, c.target), c.ok);
    EXPECT_EQ(st.target_dbfs, c.ok ? c.target : kLevelTargetDefaultDbfs);
  }
}

}  // namespace
}  // namespace vorn
