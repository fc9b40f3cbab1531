// The enhanced profile's beams: the look direction flat and in phase with
// microphone 0, faulty microphones left out with a warning, the tracker
// followed without clicks, and an adaptive beam that does not learn the
// talker away. Plane waves are synthesised exactly, as sums of tones with the
// array's delays applied in phase, so the expected output is closed-form.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beam_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/pcm_round.h"
#include "sim/signals.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

using sim::Signal;
using sim::ThreeMics;
constexpr double kPi = 3.14159265358979323846;
constexpr int kHop = kBfHop;

// Tones every 250 Hz from 250 Hz to 7.5 kHz plus 100 Hz; over kToneSpan
// samples they are exactly orthogonal, so each one's response can be read
// off alone.
constexpr int kToneSpan = 25600;
std::vector<double> ToneFrequencies() {
  std::vector<double> f{100.0};
  for (double hz = 250.0; hz <= 7500.0; hz += 250.0) f.push_back(hz);
  return f;
}

// Microphone m's lead over the centre in samples, from the geometry as the
// library's own documentation gives it.
double Lead(int m, double azimuth_deg) {
  return 0.039 * 16000.0 / 340.0 * std::cos((azimuth_deg - 120.0 * m) * kPi / 180.0);
}

// A multi-tone plane wave from azimuth_deg, each tone of amplitude `amp`.
ThreeMics ToneWave(std::size_t n, double azimuth_deg, double amp) {
  ThreeMics mics;
  const std::vector<double> freqs = ToneFrequencies();
  for (int m = 0; m < 3; ++m) {
    mics[static_cast<std::size_t>(m)].assign(n, 0.0f);
    for (std::size_t i = 0; i < freqs.size(); ++i) {
      const double w = 2.0 * kPi * freqs[i] / 16000.0, phase = 0.7 * static_cast<double>(i * i);
      for (std::size_t t = 0; t < n; ++t)
        mics[static_cast<std::size_t>(m)][t] +=
            static_cast<float>(amp * std::cos(w * (static_cast<double>(t) + Lead(m, azimuth_deg)) + phase));
    }
  }
  return mics;
}

// Complex amplitude of the tone at hz in x[from, from + kToneSpan).
std::complex<double> ToneAt(const Signal& x, std::size_t from, double hz) {
  std::complex<double> sum = 0.0;
  const double w = 2.0 * kPi * hz / 16000.0;
  for (std::size_t t = from; t < from + kToneSpan; ++t)
    sum += static_cast<double>(x[t]) * std::polar(1.0, -w * static_cast<double>(t));
  return sum * (2.0 / kToneSpan);
}

struct Rig {
  std::vector<float> region = std::vector<float>(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  EnhancedBeamState beam{};
  BeamRequest request{};

  explicit Rig(int bf_flag, int azimuth) {
    pm = {region.data(), kBfBuffSize, kBfParamSize, 0, bf_flag, azimuth, 0, 0, 0, 0, 1, 0};
    EXPECT_EQ(BFInit(&pm), 0);
    EnhancedBeamInit(&beam);
    request = {bf_flag, azimuth, 0, 0.0f, 0.0f, 0.0f, 0, 0};
  }
  void Hop(const std::vector<short>& pcm, std::size_t h, short* out) {
    float spectrum[kBfChannels][kBfFftLen];
    short frame[3 * kHop];
    for (int i = 0; i < 3 * kHop; ++i) frame[i] = pcm[h * 3 * kHop + static_cast<std::size_t>(i)];
    ASSERT_EQ(BfAnalyse(&pm, frame, nullptr, spectrum), 0);
    const auto* analysis = static_cast<const T_AudioDspState*>(pm.p_data);
    const float* const latest[3] = {analysis->au[0] + kHop, analysis->au[1] + kHop, analysis->au[2] + kHop};
    EnhancedBeamProc(&beam, request, latest, spectrum, out);
  }
  Signal Run(const std::vector<short>& pcm) {
    const std::size_t hops = pcm.size() / (3 * kHop);
    Signal out(hops * kHop);
    short block[kHop];
    for (std::size_t h = 0; h < hops; ++h) {
      Hop(pcm, h, block);
      for (int n = 0; n < kHop; ++n) out[h * kHop + static_cast<std::size_t>(n)] = block[n];
    }
    return out;
  }
};

// Worst magnitude (dB) and phase (degrees) error of the beam output against
// microphone 0's undisturbed signal delayed by kBeamDelay, over the tones.
struct Flatness {
  double worst_db = 0.0, worst_deg = 0.0;
};
Flatness Measure(const Signal& out, const Signal& mic0, std::size_t from) {
  Flatness f;
  Signal delayed(mic0.size(), 0.0f);
  for (std::size_t t = kBeamDelay; t < mic0.size(); ++t) delayed[t] = mic0[t - kBeamDelay];
  for (double hz : ToneFrequencies()) {
    const std::complex<double> h = ToneAt(out, from, hz) / ToneAt(delayed, from, hz);
    f.worst_db = std::max(f.worst_db, std::abs(20.0 * std::log10(std::abs(h))));
    f.worst_deg = std::max(f.worst_deg, std::abs(std::arg(h)) * 180.0 / kPi);
  }
  return f;
}

std::vector<short> Pcm(const ThreeMics& mics) { return sim::Interleave(mics); }

TEST(EnhancedBeam, LookDirectionIsFlatAndInPhaseWithMicrophoneZero) {
  struct Case {
    const char* name;
    int bf_flag, azimuth;
    float presence;
    int dead_mic;  // -1: all work
  };
  const Case cases[] = {
      {"delay-and-sum at 0", 1, 0, 0.0f, -1},      {"mvdr at 75", 2, 75, 0.0f, -1},
      {"mvdr at 200, talker heard", 2, 200, 1.0f, -1}, {"fixed beam 7", 7, 0, 0.0f, -1},
      {"mvdr at 75 without mic 1", 2, 75, 0.0f, 1},  {"mvdr at 330 without mic 0", 2, 330, 1.0f, 0},
      {"adaptive mvdr at 60", 4, 60, 0.0f, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const double look = c.bf_flag == 7 ? 300.0 : c.azimuth;
    const std::size_t n = 16 * kHop + kToneSpan + kBeamDelay;
    ThreeMics mics = ToneWave(n, look, 600.0);
    const Signal mic0 = mics[0];
    if (c.dead_mic >= 0) mics[static_cast<std::size_t>(c.dead_mic)].assign(n, 0.0f);
    Rig rig(c.bf_flag, c.azimuth);
    rig.request.talker_presence = c.presence;
    const Signal out = rig.Run(Pcm(mics));
    const Flatness f = Measure(out, mic0, 16 * kHop);
    EXPECT_LT(f.worst_db, 0.2);
    EXPECT_LT(f.worst_deg, 2.0);
  }
}

// The microphone the speech presence reads behind the beam: the first one
// left in, exactly, delayed like the beam's look direction (undelayed with
// no beam, which passes it through).
TEST(EnhancedBeam, ReferenceMicrophoneIsInStepWithTheBeam) {
  const ThreeMics mics = {sim::WhiteNoise(16 * kHop, 2000.0, 61), sim::WhiteNoise(16 * kHop, 2000.0, 62),
                          sim::WhiteNoise(16 * kHop, 2000.0, 63)};
  const std::vector<short> pcm = Pcm(mics);
  struct Case {
    const char* name;
    int bf_flag;
    uint32_t excluded;
    int mic, delay;
  };
  const Case cases[] = {
      {"no beam", 0, 0u, 0, 0},
      {"mvdr", 2, 0u, 0, kBeamDelay},
      {"delay-and-sum without mic 0", 1, 1u, 1, kBeamDelay},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig(c.bf_flag, 40);
    EnhancedBeamExclude(&rig.beam, c.excluded);
    short out[kHop], reference[kHop];
    for (std::size_t h = 0; h < 8; ++h) {
      rig.Hop(pcm, h, out);
      const auto* analysis = static_cast<const T_AudioDspState*>(rig.pm.p_data);
      const float* const latest[3] = {analysis->au[0] + kHop, analysis->au[1] + kHop, analysis->au[2] + kHop};
      EnhancedBeamReference(&rig.beam, c.bf_flag, latest, reference);
      if (h == 0) continue;
      for (int n = 0; n < kHop; ++n)
        ASSERT_EQ(reference[n], pcm[3 * (h * kHop + static_cast<std::size_t>(n - c.delay)) +
                                    static_cast<std::size_t>(c.mic)])
            << n;
    }
  }
}

TEST(EnhancedBeam, AttenuatesASourceBehindTheLookDirection) {
  // White noise from 180 degrees off: the beam must take off a good part of
  // it at mid and high frequencies, where a 7.8 cm array has directivity.
  const std::size_t n = 200 * kHop;
  const Signal noise = sim::WhiteNoise(n, 2000.0, 5);
  const ThreeMics behind = sim::PlaneWave(noise, 250.0);
  for (int bf_flag : {1, 2}) {
    SCOPED_TRACE(bf_flag);
    Rig rig(bf_flag, 70);
    const Signal out = rig.Run(Pcm(behind));
    double in_band = 0.0, out_band = 0.0;
    for (double hz = 2500.0; hz <= 6000.0; hz += 125.0) {
      in_band += std::norm(ToneAt(behind[0], 100 * kHop, hz));
      out_band += std::norm(ToneAt(out, 100 * kHop, hz));
    }
    EXPECT_LT(10.0 * std::log10(out_band / in_band), -3.0);
  }
}

// The largest second difference of x over [from, to): a step or a kink in a
// smooth signal shows up there first.
double Roughness(const Signal& x, std::size_t from, std::size_t to) {
  double worst = 0.0;
  for (std::size_t t = from + 2; t < to; ++t)
    worst = std::max(worst, std::abs(double(x[t]) - 2.0 * x[t - 1] + x[t - 2]));
  return worst;
}

TEST(EnhancedBeam, FollowsTheTrackerOnlyWhenItIsSureAndWithoutAClick) {
  // A 1 kHz tone from 150 degrees, the beam asked for 0 degrees; after 40
  // hops the tracker reports 150 degrees.
  const std::size_t n = 120 * kHop;
  Signal tone(n);
  for (std::size_t t = 0; t < n; ++t) tone[t] = static_cast<float>(3000.0 * std::sin(2.0 * kPi * 1000.0 * t / 16000.0));
  const std::vector<short> pcm = Pcm(sim::PlaneWave(tone, 150.0));
  for (float confidence : {0.2f, 0.9f}) {
    SCOPED_TRACE(confidence);
    Rig rig(2, 0);
    rig.request.doa_flag = 1;
    Signal out(n);
    short block[kHop];
    for (std::size_t h = 0; h < n / kHop; ++h) {
      if (h == 40) rig.request = {2, 0, 1, 0.0f, 150.0f, confidence, 0, 0};
      rig.Hop(pcm, h, block);
      for (int i = 0; i < kHop; ++i) out[h * kHop + static_cast<std::size_t>(i)] = block[i];
    }
    const double before = sim::Rms(out.data() + 20 * kHop, 20 * kHop);
    const double after = sim::Rms(out.data() + 80 * kHop, 20 * kHop);
    const double steady = Roughness(out, 80 * kHop, 100 * kHop);
    if (confidence < kFollowConfidence) {
      EXPECT_NEAR(after / before, 1.0, 0.02);
    } else {
      // Now aimed at the tone: it passes whole, and the change of beam over
      // hop 40 is no rougher than the tone itself.
      EXPECT_NEAR(after / (3000.0 / std::sqrt(2.0)), 1.0, 0.06);
      EXPECT_GT(after / before, 1.1);
      EXPECT_LT(Roughness(out, 39 * kHop, 42 * kHop), 1.2 * steady);
    }
  }
}

TEST(EnhancedBeam, FaultyMicrophonesAreReportedLeftOutAndReadmitted) {
  struct Case {
    const char* name;
    int mic;
    std::function<float(float)> fault;  // what the microphone gives instead of x
    uint32_t want;
    // How far the output may rise over the fault's first hops: a hot
    // microphone that does not clip is judged on its power, smoothed over a
    // few hops, and sounds through the beam until then.
    double onset_rise_db;
  };
  const Case cases[] = {
      {"mic 0 silent", 0, [](float) { return 0.0f; }, VORN_WARN_MIC_DEAD(0), 0.5},
      {"mic 2 stuck at a DC value", 2, [](float) { return 1000.0f; }, VORN_WARN_MIC_DEAD(2), 0.5},
      {"mic 1 overdriven into the rails", 1, [](float x) { return std::clamp(40.0f * x, -32768.0f, 32767.0f); },
       VORN_WARN_MIC_CLIPPED(1), 0.5},
      {"mic 1 running 16 dB hot, not yet clipping", 1, [](float x) { return 6.0f * x; }, VORN_WARN_MIC_CLIPPED(1),
       9.0},
      {"mic 2 nearly silent", 2, [](float x) { return 0.02f * x; }, VORN_WARN_MIC_DEAD(2), 0.5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // Faulty during hops 10..150 of 300; the tones from 40 degrees throughout.
    const std::size_t n = 300 * kHop;
    ThreeMics mics = ToneWave(n, 40.0, 300.0);
    const Signal mic0 = mics[0];
    Signal& bad = mics[static_cast<std::size_t>(c.mic)];
    for (std::size_t t = 10 * kHop; t < 150 * kHop; ++t) bad[t] = c.fault(bad[t]);
    const std::vector<short> pcm = Pcm(mics);
    Rig rig(2, 40);
    Signal out(n);
    short block[kHop];
    uint32_t during = 0, after = 0;
    int reported_at = -1;
    for (std::size_t h = 0; h < n / kHop; ++h) {
      rig.Hop(pcm, h, block);
      for (int i = 0; i < kHop; ++i) out[h * kHop + static_cast<std::size_t>(i)] = block[i];
      const uint32_t w = EnhancedBeamWarnings(&rig.beam);
      if (w != 0 && reported_at < 0) reported_at = static_cast<int>(h);
      if (h == 140) during = w;
      if (h == 299) after = w;
    }
    EXPECT_EQ(during, c.want);
    EXPECT_GE(reported_at, 10);
    EXPECT_LE(reported_at, 23);  // within a fifth of a second
    EXPECT_EQ(after, 0u);        // readmitted once it behaves
    // A clipping microphone does not sound through the beam even while it
    // is being detected: no hop from the fault's onset on is louder than the
    // tones were before it.
    const double before = sim::Rms(out.data() + 4 * kHop, 6 * kHop);
    double loudest = 0.0;
    for (std::size_t h = 10; h < 30; ++h) loudest = std::max(loudest, sim::Rms(out.data() + h * kHop, kHop));
    EXPECT_LT(20.0 * std::log10(loudest / before), c.onset_rise_db);
    // Meanwhile the beam over the other two stays flat against microphone 0.
    const Flatness f = Measure(out, mic0, 30 * kHop);
    EXPECT_LT(f.worst_db, 0.2);
    EXPECT_LT(f.worst_deg, 2.0);
  }
}

TEST(EnhancedBeam, NoWarningWhenEveryMicrophoneIsSilentOrClipsTogether) {
  const std::size_t n = 100 * kHop;
  const Signal loud = sim::Tone(n, 440.0, 90000.0);  // clips on every microphone
  struct Case {
    const char* name;
    ThreeMics mics;
  };
  // A voice whose peaks clip, at microphones whose sensitivities differ by
  // a dB: frame by frame one hits the rails a few samples more often than
  // another.
  ThreeMics shout = sim::PlaneWave(sim::MakeSpeechLike(n, 5, {.rms = 12000.0}).samples, 70.0);
  for (int m = 0; m < 3; ++m)
    for (float& v : shout[static_cast<std::size_t>(m)]) v *= 1.0f + 0.12f * static_cast<float>(m - 1);
  const Case cases[] = {{"digital silence", {Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)}},
                        {"a tone loud enough to clip them all", sim::PlaneWave(loud, 10.0)},
                        {"a talker whose peaks clip them all", shout}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ThreeMics mics = c.mics;
    for (Signal& s : mics)
      for (float& v : s) v = std::clamp(v, -32768.0f, 32767.0f);
    Rig rig(2, 10);
    rig.Run(Pcm(mics));
    EXPECT_EQ(EnhancedBeamWarnings(&rig.beam), 0u);
  }
}

// Gain of the talker in the output (least squares against microphone 0's
// talker delayed like the beam) and the power of what is left, both over
// [from, end).
struct Split {
  double talker_db, residual_db;
};
Split Separate(const Signal& out, const Signal& talker0, std::size_t from) {
  double cross = 0.0, energy = 0.0;
  for (std::size_t t = from; t < out.size(); ++t) {
    const double ref = talker0[t - kBeamDelay];
    cross += out[t] * ref;
    energy += ref * ref;
  }
  const double gain = cross / energy;
  double residual = 0.0;
  for (std::size_t t = from; t < out.size(); ++t) {
    const double r = out[t] - gain * talker0[t - kBeamDelay];
    residual += r * r;
  }
  return {20.0 * std::log10(std::abs(gain)), 10.0 * std::log10(residual / static_cast<double>(out.size() - from))};
}

TEST(EnhancedBeam, AdaptiveBeamCancelsAnInterfererButNotTheTalker) {
  // A talker near 60 degrees (6 degrees off and 25 degrees above the plane,
  // so some of it leaks past the blocking) who speaks throughout, an
  // interferer at 200, and a speech presence that misses the talker
  // entirely: the beam's own look-direction test must hold the canceller.
  const std::size_t n = 600 * kHop;
  const Signal talker = sim::MakeSpeechLike(n, 3, {.rms = 2500.0}).samples;
  const ThreeMics talker_mics = sim::PlaneWave(talker, 66.0, 25.0);
  const ThreeMics mics = sim::Mix(sim::Mix(talker_mics, sim::PlaneWave(sim::WhiteNoise(n, 1500.0, 4), 200.0)),
                                   sim::IndependentNoise(n, 20.0, 6));
  const std::vector<short> pcm = Pcm(mics);
  Rig fixed(2, 60), adaptive(4, 60);
  const Split f = Separate(fixed.Run(pcm), talker_mics[0], 300 * kHop);
  const Split a = Separate(adaptive.Run(pcm), talker_mics[0], 300 * kHop);
  EXPECT_NEAR(a.talker_db, 0.0, 0.75);
  EXPECT_LT(a.residual_db, f.residual_db - 6.0);
}

TEST(EnhancedBeam, LearnedBeamKeepsMicrophoneZerosImageOfATalkerInARoom) {
  // A talker at 66 degrees with a strong reflection from 250 (a room as far
  // as the free-field model is concerned), a noise source at 200 and a
  // little sensor noise; the presence is the talker's own on/off truth. Once
  // it has learned, the MVDR beam must pass the talker as microphone 0 hears
  // it, reflection included, and leave less of the rest than the free-field
  // beam, which bends the reflection and so the talker. The same beam aimed
  // 90 degrees away must not learn to follow the talker, and one that loses
  // a microphone must fall back to the free-field beam on the other two. In
  // front of an echo canceller it learns only while the loudspeaker is
  // silent, and when the loudspeaker starts it keeps what it learned.
  const std::size_t n = 900 * kHop, scored_from = 450 * kHop;
  const sim::SpeechLike speech = sim::MakeSpeechLike(n, 7, {.rms = 2500.0});
  Signal reflection(n, 0.0f);
  for (std::size_t t = 37; t < n; ++t) reflection[t] = 0.7f * speech.samples[t - 37];
  const ThreeMics talker_mics = sim::Mix(sim::PlaneWave(speech.samples, 66.0), sim::PlaneWave(reflection, 250.0));
  const ThreeMics mics = sim::Mix(sim::Mix(talker_mics, sim::PlaneWave(sim::WhiteNoise(n, 700.0, 4), 200.0)),
                                   sim::IndependentNoise(n, 30.0, 6));
  ThreeMics mic2_dies = mics;
  std::fill(mic2_dies[2].begin() + static_cast<std::ptrdiff_t>(scored_from) - 40 * kHop, mic2_dies[2].end(), 0.0f);
  const std::vector<std::uint8_t> labels = sim::FrameLabels(speech.active);
  struct Case {
    const char* name;
    int azimuth;
    bool told;  // presence from the truth; otherwise undecided, so nothing is learned
    const ThreeMics* input;
    bool echo_follows;      // a canceller after the beam ...
    std::size_t far_from;   // ... and the loudspeaker playing from this hop on
  };
  constexpr std::size_t kNever = n;
  const Case cases[] = {{"learned", 66, true, &mics, false, kNever},
                        {"free-field", 66, false, &mics, false, kNever},
                        {"learned, 90 off", 156, true, &mics, false, kNever},
                        {"learned, then mic 2 dies", 66, true, &mic2_dies, false, kNever},
                        {"free-field without mic 2", 66, false, &mic2_dies, false, kNever},
                        {"told, canceller after, far end plays", 66, true, &mics, true, 0},
                        {"told, canceller after, far end silent", 66, true, &mics, true, kNever},
                        {"learned, then the far end plays", 66, true, &mics, true, 400}};
  std::vector<Split> split;
  std::vector<bool> heard;  // the learned beam holds evidence of the talker
  bool held = false;        // it learned nothing while the loudspeaker played
  for (const Case& c : cases) {
    const std::vector<short> pcm = Pcm(*c.input);
    Rig rig(2, c.azimuth);
    rig.request.echo_follows = c.echo_follows ? 1 : 0;
    LearnedBeam before_far_end{};
    Signal out(n);
    short block[kHop];
    for (std::size_t h = 0; h * kHop < n; ++h) {
      // The previous hop's presence, as the front end passes it.
      rig.request.talker_presence = !c.told ? 0.5f : h > 0 && labels[h - 1] ? 1.0f : 0.0f;
      rig.request.far_end_audible = h >= c.far_from ? 1 : 0;
      if (h == c.far_from) before_far_end = rig.beam.learned;
      rig.Hop(pcm, h, block);
      std::copy(block, block + kHop, out.begin() + static_cast<std::ptrdiff_t>(h * kHop));
    }
    split.push_back(Separate(out, talker_mics[0], scored_from));
    heard.push_back(rig.beam.learned.noisy_hops != 0);
    if (c.far_from > 0 && c.far_from < kNever)
      held = std::memcmp(&before_far_end, &rig.beam.learned, sizeof before_far_end) == 0;
  }
  EXPECT_NEAR(split[0].talker_db, 0.0, 0.5);
  EXPECT_LT(split[0].residual_db, split[1].residual_db - 3.0);
  EXPECT_LT(split[2].talker_db, split[0].talker_db - 0.75);
  EXPECT_NEAR(split[3].talker_db, split[4].talker_db, 0.05);
  EXPECT_NEAR(split[3].residual_db, split[4].residual_db, 0.1);
  EXPECT_TRUE(heard[0]);
  EXPECT_FALSE(heard[5]);
  EXPECT_TRUE(heard[6]);
  EXPECT_TRUE(heard[7]);
  EXPECT_TRUE(held);
}

TEST(EnhancedBeam, LearnedDesignPassesTheTalkerAtAnyLevel) {
  // Covariances learned from spectra of a plane-wave talker at 40 degrees
  // over independent noise, once at a quiet room's level and once 2^17 times
  // louder (full-scale speech in a 512-point transform, where products of
  // three powers leave float's range). The design depends on the
  // statistics' shape alone: both must find the talker and pass it as
  // microphone 0 hears it, and since 2^17 scales every product exactly, with
  // the same bits.
  constexpr int kHalf = kBfFftLen / 2;
  constexpr double kAzimuth = 40.0;
  constexpr int kSnapshots = 40;
  constexpr float kLouder = 131072.0f;
  LearnedBeam quiet, loud;
  LearnedBeamReset(&quiet);
  LearnedBeamReset(&loud);
  for (int i = 0; i < 2 * kSnapshots; ++i) {
    const bool talker = i >= kSnapshots;
    const Signal source = sim::WhiteNoise(kBfFftLen, 100.0, 100u + static_cast<std::uint32_t>(i));
    float x[kBfChannels][kBfFftLen], louder[kBfChannels][kBfFftLen];
    for (int m = 0; m < kBfChannels; ++m) {
      const Signal noise = sim::WhiteNoise(kBfFftLen, 10.0, 1000u + static_cast<std::uint32_t>(3 * i + m));
      std::copy(noise.begin(), noise.end(), x[m]);
      for (int k = 1; talker && k < kHalf; ++k) {
        const std::complex<double> v = std::complex<double>(source[k], source[kBfFftLen - k]) *
                                       std::polar(1.0, 2.0 * kPi * k * Lead(m, kAzimuth) / kBfFftLen);
        x[m][k] += static_cast<float>(v.real());
        x[m][kBfFftLen - k] += static_cast<float>(v.imag());
      }
      for (int k = 0; k < kBfFftLen; ++k) louder[m][k] = x[m][k] * kLouder;
    }
    for (int hop = 0; hop < 4; ++hop) {  // every fourth hop is taken in
      LearnedBeamObserve(&quiet, x, talker ? 1.0f : 0.0f);
      LearnedBeamObserve(&loud, louder, talker ? 1.0f : 0.0f);
    }
  }
  ASSERT_TRUE(LearnedBeamReady(&quiet));
  BeamWeights w_quiet, w_loud;
  EXPECT_TRUE(LearnedBeamDesign(&quiet, static_cast<float>(kAzimuth), &w_quiet));
  EXPECT_TRUE(LearnedBeamDesign(&loud, static_cast<float>(kAzimuth), &w_loud));
  EXPECT_EQ(0, std::memcmp(&w_quiet, &w_loud, sizeof w_quiet));
  // The talker comes out as microphone 0 hears it, kBeamDelay later.
  double worst = 0.0;
  for (int k = 16; k <= 240; ++k) {
    std::complex<double> y = 0.0;
    for (int m = 0; m < kBfChannels; ++m)
      y += std::complex<double>(w_quiet.re[m][k], w_quiet.im[m][k]) *
           std::polar(1.0, 2.0 * kPi * k * Lead(m, kAzimuth) / kBfFftLen);
    const std::complex<double> want = std::polar(1.0, 2.0 * kPi * k * (Lead(0, kAzimuth) - kBeamDelay) / kBfFftLen);
    worst = std::max(worst, std::abs(y / want - 1.0));
  }
  EXPECT_LT(worst, 0.05);
}

TEST(EnhancedBeam, FastPathsGiveTheBitsOfTheirPlainTwins) {
#if defined(VORN_SIMD4)
  // Rounding to PCM: ties, the rails and just past them, infinities, NaN,
  // and a long run of ordinary values with an odd tail.
  std::vector<float> x = {0.5f,     1.5f,      2.5f,      -0.5f,    -2.5f,    32766.5f, 32767.0f,
                          32767.6f, 1e9f,      -32768.0f, -32768.5f, -1e9f,    0.0f,     -0.0f,
                          std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::quiet_NaN()};
  const Signal noise = sim::WhiteNoise(1000, 20000.0, 9);
  x.insert(x.end(), noise.begin(), noise.end());
  std::vector<short> plain(x.size()), fast(x.size());
  RoundToPcmPlain(x.data(), plain.data(), static_cast<int>(x.size()));
  RoundToPcmSimd(x.data(), fast.data(), static_cast<int>(x.size()));
  EXPECT_EQ(plain, fast);
  EXPECT_EQ(std::vector<short>(plain.begin(), plain.begin() + 17),
            (std::vector<short>{0, 2, 2, 0, -2, 32766, 32767, 32767, 32767, -32768, -32768, -32768, 0, 0, 32767,
                                -32768, 0}));
  // A frame's extremes and energy.
  for (const std::uint32_t seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    Signal frame = sim::WhiteNoise(kHop, 8000.0 * seed, seed);
    for (float& v : frame) v = std::round(std::clamp(v, -32768.0f, 32767.0f));
    frame[seed * 7] = -32768.0f;
    const FrameStats a = FrameStatsPlain(frame.data()), b = FrameStatsSimd(frame.data());
    EXPECT_EQ(a.lo, b.lo);
    EXPECT_EQ(a.hi, b.hi);
    EXPECT_EQ(a.energy, b.energy);
    EXPECT_EQ(a.lo, -32768.0f);
  }
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

TEST(EnhancedBeam, BeamKernelsMatchADirectSumAndTheirPlainTwins) {
  // Spectra of noise at three scales and a designed beam: the band powers
  // against a sum in double over each band's bins, the blend towards
  // microphone 0 against microphone 0 delayed by kBeamDelay in the time
  // domain, and the four-lane twins against the plain kernels, bit for bit.
  BeamWeights weights;
  DesignBeam(BeamDesign{60.0f, kBeamMvdr, kAllMics}, &weights);
  for (const std::uint32_t seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(seed);
    float x[kBfChannels][kBfFftLen];
    for (int m = 0; m < kBfChannels; ++m) {
      const Signal noise = sim::WhiteNoise(kBfFftLen, std::pow(100.0, seed), seed * 10 + m);
      std::copy(noise.begin(), noise.end(), x[m]);
    }
    float plain[kBlendBands];
    BandPowersPlain(x[0], plain);
    for (int b = 0; b < kBlendBands; ++b) {
      double want = 0.0;
      for (int k = 4 * b; k < std::min(4 * b + 4, kBfNumBins); ++k) {
        const double re = x[0][k], im = k == 0 || k == kBfFftLen / 2 ? 0.0 : x[0][kBfFftLen - k];
        want += re * re + im * im;
      }
      EXPECT_NEAR(plain[b], want, 1e-5 * want) << "band " << b;
    }
    float beam_plain[kBfFftLen];
    ApplyBeamPlain(weights, x, beam_plain);
    for (const int k : {0, 1, 100, 255, 256}) {
      std::complex<double> want = 0.0;
      for (int m = 0; m < kBfChannels; ++m) {
        const std::complex<double> xk(x[m][k], k == 0 || k == 256 ? 0.0 : x[m][kBfFftLen - k]);
        want += std::complex<double>(weights.re[m][k], weights.im[m][k]) * xk;
      }
      // DC and Nyquist carry a real part only: that of the product.
      if (k == 0 || k == 256) want = want.real();
      const double got_im = k == 0 || k == 256 ? 0.0 : beam_plain[kBfFftLen - k];
      EXPECT_NEAR(std::abs(std::complex<double>(beam_plain[k], got_im) - want), 0.0, 1e-4 * std::abs(want) + 1e-3)
          << "bin " << k;
    }
    // A share of 1 everywhere gives the delayed microphone itself; one
    // varying from band to band gives its mix with the beam, bin by bin.
    float share[kBlendBands];
    for (int b = 0; b < kBlendBands; ++b) share[b] = static_cast<float>((b * 37 + static_cast<int>(seed)) % 11) / 10.0f;
    float whole[kBlendBands];
    std::fill(whole, whole + kBlendBands, 1.0f);
    float delayed[kBfFftLen], blended[kBfFftLen];
    std::copy(beam_plain, beam_plain + kBfFftLen, delayed);
    std::copy(beam_plain, beam_plain + kBfFftLen, blended);
    BlendTowardsMic0Plain(whole, x[0], delayed);
    BlendTowardsMic0Plain(share, x[0], blended);
    float time0[kBfFftLen], time_delayed[kBfFftLen];
    std::copy(x[0], x[0] + kBfFftLen, time0);
    std::copy(delayed, delayed + kBfFftLen, time_delayed);
    ifft_rel(time0, kBfFftLen, kBfFftOrder);
    ifft_rel(time_delayed, kBfFftLen, kBfFftOrder);
    for (int t = 0; t < kBfFftLen; ++t)
      EXPECT_NEAR(time_delayed[t], time0[(t + kBfFftLen - kBeamDelay) % kBfFftLen], 1e-3 * std::pow(100.0, seed))
          << "sample " << t;
    for (const int k : {0, 2, 5, 130, 255, 256}) {
      const int b = k / 4;
      const double got_re = blended[k], want_re = beam_plain[k] + share[b] * (delayed[k] - beam_plain[k]);
      EXPECT_NEAR(got_re, want_re, 1e-5 * (std::abs(want_re) + std::abs(delayed[k]))) << "bin " << k;
    }
#if defined(VORN_SIMD4)
    float fast[kBlendBands], beam_fast[kBfFftLen], blended_fast[kBfFftLen];
    BandPowersSimd4(x[0], fast);
    ApplyBeamSimd4(weights, x, beam_fast);
    std::copy(beam_plain, beam_plain + kBfFftLen, blended_fast);
    BlendTowardsMic0Simd4(share, x[0], blended_fast);
    EXPECT_EQ(0, std::memcmp(plain, fast, sizeof(plain)));
    EXPECT_EQ(0, std::memcmp(beam_plain, beam_fast, sizeof(beam_plain)));
    EXPECT_EQ(0, std::memcmp(blended, blended_fast, sizeof(blended)));
#endif
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) {
      float beam_wide[kBfFftLen];
      ApplyBeamAvx2(weights, x, beam_wide);
      EXPECT_EQ(0, std::memcmp(beam_plain, beam_wide, sizeof(beam_plain)));
    }
#endif
  }
}

}  // namespace
}  // namespace vorn
