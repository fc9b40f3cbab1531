// Every combination of the four routing switches (AGC 0..2, beam type 0..7,
// canceller output 0..3, suppressor 0..2: 288 in all) through the front end,
// on one recording with a turn for each thing a stage acts on: noise alone,
// the loudspeaker alone (its echo), a talker behind the array alone, and the
// talker in the look direction alone. Each stage's effect on its turn is
// checked against the same chain with that stage off, so a switch that
// reaches the wrong stage, or a stage fed the wrong signal, shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "adsp_bf/audio_dsp_proc.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = 256;
constexpr int kLook = 60;      // the steering azimuth, valid for every beam type
constexpr int kBehind = 240;   // where the other talker stands

// Each source's turn in the recording, in seconds, and the part of it that is
// measured: after the previous source's echo tail and the chain's latency,
// and after the suppressor has had a moment to learn the noise.
struct Turn {
  double begin, end, measured_from;
};
constexpr Turn kNoise{0.0, 0.4, 0.2};
constexpr Turn kEcho{0.4, 0.8, 0.6};
constexpr Turn kBehindTalker{0.8, 1.05, 0.88};
constexpr Turn kTalker{1.05, 1.3, 1.13};
constexpr double kSeconds = 1.3;

std::size_t At(double seconds) { return static_cast<std::size_t>(seconds * sim::kSampleRate); }

sim::Signal During(const sim::Signal& x, const Turn& turn) {
  sim::Signal y(x.size(), 0.0f);
  for (std::size_t i = At(turn.begin); i < At(turn.end); ++i) y[i] = x[i];
  return y;
}

struct Recording {
  std::vector<short> mics, ref;
  std::size_t frames() const { return ref.size() / kFrame; }
};

Recording MakeRecording() {
  const std::size_t n = At(kSeconds);
  // Quiet talkers (-40 dBFS), voiced throughout their short turns, so the
  // gain control has work and every measured stretch holds speech.
  const sim::SpeechLikeOptions voiced{.rms = 330.0, .f0_hz = 130.0, .syllable_hz = 2.0, .duty = 1.0};
  const sim::Signal talker = During(sim::MakeSpeechLike(n, 11, voiced).samples, kTalker);
  const sim::Signal behind = During(sim::MakeSpeechLike(n, 12, voiced).samples, kBehindTalker);
  // Pink noise on the loudspeaker, under the array: its echo reaches the
  // microphones alike, 10 ms late through a decaying path, about 10 dB down.
  Recording r;
  r.ref = sim::ToPcm(During(sim::PinkNoise(n, 3000.0, 13), kEcho));
  sim::Signal path = sim::WhiteNoise(480, 0.3 / std::sqrt(12.0), 14);
  for (std::size_t k = 0; k < path.size(); ++k) path[k] *= k < 160 ? 0.0f : std::exp((160.0f - k) / 60.0f);
  sim::Signal echo(n, 0.0f);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t k = 160; k < path.size() && k <= i; ++k) echo[i] += path[k] * r.ref[i - k];
  sim::ThreeMics mics = sim::Mix(sim::PlaneWave(talker, kLook), sim::PlaneWave(behind, kBehind));
  mics = sim::Mix(mics, {echo, echo, echo});
  r.mics = sim::Interleave(sim::Mix(mics, sim::IndependentNoise(n, 30.0, 15)));
  return r;
}

const Recording& SharedRecording() {
  static const Recording recording = MakeRecording();
  return recording;
}

// Levels (dBFS) of a mono signal over the measured part of each turn.
struct Levels {
  double noise, echo, behind, talker;
  double LookAdvantage() const { return talker - behind; }
};

double LevelDb(const std::vector<short>& x, const Turn& turn) {
  const auto from = x.begin() + static_cast<long>(At(turn.measured_from));
  const auto to = x.begin() + static_cast<long>(std::min(At(turn.end), x.size()));
  return sim::RmsDbfs(sim::Signal(from, to));
}

Levels LevelsOf(const std::vector<short>& x) {
  return {LevelDb(x, kNoise), LevelDb(x, kEcho), LevelDb(x, kBehindTalker), LevelDb(x, kTalker)};
}

struct Outcome {
  std::vector<short> out;
  Levels levels;
};

Outcome Process(const sim::Switches& switches) {
  const Recording& rec = SharedRecording();
  std::vector<unsigned char> state(kVornMinBuffSize);
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, 0);
  EXPECT_EQ(VornInit(&pm, nullptr), 0);
  std::vector<short> mics = rec.mics, ref = rec.ref;
  short order[3] = {0, 1, 2};
  Outcome o;
  o.out.resize(rec.frames() * kFrame);
  int failed = 0;
  for (std::size_t f = 0; f < rec.frames(); ++f)
    failed += VornProc(&pm, &mics[3 * kFrame * f], &ref[kFrame * f], &o.out[kFrame * f], order) != 0;
  EXPECT_EQ(failed, 0);
  o.levels = LevelsOf(o.out);
  return o;
}

// The beamformer alone, as the front end drives it, with beam type `bf`.
std::vector<short> Beam(int bf) {
  const Recording& rec = SharedRecording();
  std::vector<float> region(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  pm.p_data = region.data();
  pm.buff_size = kBfBuffSize;
  pm.param_size = kBfParamSize;
  pm.bf_flag = bf;
  pm.bf_azimuth = kLook;
  pm.inner_interface_flag = 1;
  EXPECT_EQ(BFInit(&pm), 0);
  std::vector<short> mics = rec.mics, beam(rec.frames() * kFrame);
  short order[3] = {0, 1, 2};
  for (std::size_t f = 0; f < rec.frames(); ++f)
    EXPECT_EQ(BfProc(&pm, &mics[3 * kFrame * f], &beam[kFrame * f], order), 0);
  return beam;
}

std::vector<short> Mic0() {
  const Recording& rec = SharedRecording();
  std::vector<short> mic0(rec.frames() * kFrame);
  for (std::size_t i = 0; i < mic0.size(); ++i) mic0[i] = rec.mics[3 * i];
  return mic0;
}

std::string Name(int agc, int bf, int aec, int ns) {
  return "agc " + std::to_string(agc) + " bf " + std::to_string(bf) + " aec " + std::to_string(aec) + " ns " +
         std::to_string(ns);
}

// Least effect each stage must have on its turn, in dB. They sit a few dB
// below what the stages do on this recording; a stage that is skipped, or
// fed another stage's signal, does nothing (0 dB) or the wrong thing.
constexpr double kLookAdvantageMvdr = 2.0;      // the fixed MVDR beam over microphone 0
constexpr double kLookAdvantageAdaptive = 5.0;  // the adaptive beams, which also cancel the talker behind
constexpr double kEchoDrop[2][2] = {{9.0, 5.0},   // one canceller output: without, with the gain control
                                    {5.0, 2.0}};  // both outputs (the detector hears the residue, the gain lifts it)
constexpr double kNoiseDrop[3] = {0.0, 4.0, 2.0};  // by suppressor; the post filter's beams start quieter
constexpr double kGainLift = 10.0;
constexpr double kLevelKept = 1.0;  // a stage that is off leaves the level within this

class EverySwitchCombination : public ::testing::TestWithParam<int> {};

// One beam type per test, with every gain, canceller and suppressor setting.
TEST_P(EverySwitchCombination, RoutesTheSignalThroughTheChosenStages) {
  const int bf = GetParam();
  std::map<std::tuple<int, int, int>, Outcome> runs;  // agc, aec, ns
  for (int agc = 0; agc <= 2; ++agc)
    for (int aec = 0; aec <= 3; ++aec)
      for (int ns = 0; ns <= 2; ++ns)
        runs[{agc, aec, ns}] = Process({.agc = agc, .bf = bf, .aec = aec, .ns = ns, .azimuth = kLook});
  const std::vector<short> beam = Beam(bf), mic0 = Mic0();
  const Levels beam_levels = LevelsOf(beam), mic0_levels = LevelsOf(mic0);

  for (const auto& [key, run] : runs) {
    const auto [agc, aec, ns] = key;
    SCOPED_TRACE(Name(agc, bf, aec, ns));
    const Levels& got = run.levels;
    const Levels& without_ns = runs.at({agc, aec, 0}).levels;
    const Levels& without_aec = runs.at({agc, 0, ns}).levels;
    const Levels& without_agc = runs.at({0, aec, ns}).levels;

    // The beam: with nothing after it the output is the chosen beam (type 0:
    // microphone 0 untouched); the steered beams favour the look direction
    // over the talker behind, through whatever follows them. The post filter
    // forms its own three beams, so with it neither the beam type nor the
    // canceller's output reaches the audio (with both canceller outputs the
    // speech detector hears one, and steers the gain control by it).
    if (agc == 0 && aec == 0 && ns == 0) {
      EXPECT_TRUE(run.out == beam);
      EXPECT_TRUE(bf != 0 || run.out == mic0);
    }
    if (ns < 2 && (bf == 2 || bf == 3 || bf == 4)) {
      EXPECT_GE(got.LookAdvantage() - mic0_levels.LookAdvantage(),
                bf == 2 ? kLookAdvantageMvdr : kLookAdvantageAdaptive);
    }
    if (ns == 2 && aec != 3) {
      const std::tuple<int, int, int> first_output{agc, 0, 2};
      EXPECT_TRUE(run.out == runs.at(first_output).out);
    }

    // The canceller takes the echo down whenever its output is the audio.
    if (aec > 0 && ns < 2) {
      EXPECT_GE(without_aec.echo - got.echo, kEchoDrop[aec == 3][agc > 0]);
    }
    // A suppressor takes the noise down; without one the noise stays as the beam left it.
    if (ns > 0) {
      EXPECT_GE(without_ns.noise - got.noise, kNoiseDrop[ns]);
    }
    if (ns == 0 && agc == 0) {
      EXPECT_NEAR(got.noise, beam_levels.noise, kLevelKept);
    }
    // The gain control lifts the quiet talker; without it nothing is lifted.
    if (agc > 0) {
      EXPECT_GE(got.talker - without_agc.talker, kGainLift);
    }
    if (agc == 0 && ns < 2) {
      EXPECT_LE(got.talker, beam_levels.talker + kLevelKept);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(BeamType, EverySwitchCombination, ::testing::Range(0, 8));

}  // namespace
}  // namespace vorn
