// The bench's scene simulator and metrics, checked against geometry, room
// acoustics and closed-form expectations: if these are wrong, every figure
// the bench reports is wrong with them.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "scene/metrics.h"
#include "scene/room_impulse_response.h"
#include "scene/scene.h"
#include "scene/scene_io.h"
#include "scene/signal_ops.h"
#include "support/wav_file.h"

namespace vorn::bench {
namespace {

constexpr double kPi = std::numbers::pi;

// A short scene: far end alone, then double talk, then the talker alone.
Scene ShortScene() {
  Scene s;
  s.duration_s = 4.0;
  s.room.rt60_s = 0.25;
  s.far_begin_s = 0.0;
  s.far_end_s = 2.0;
  s.talker_begin_s = 1.0;
  s.talker_end_s = 3.5;
  return s;
}

// x delayed by whole samples and scaled: a system with a known latency and gain.
Signal DelayedScaled(const Signal& x, long delay, double gain) {
  Signal y(x.size(), 0.0f);
  for (std::size_t i = static_cast<std::size_t>(delay); i < x.size(); ++i)
    y[i] = static_cast<float>(gain * x[i - static_cast<std::size_t>(delay)]);
  return y;
}

RenderedScene Render(const Scene& scene) {
  RenderedScene r;
  std::string error;
  EXPECT_TRUE(RenderScene(scene, &r, &error)) << error;
  return r;
}

// Delay (samples) of an impulse response at one low frequency, by a direct
// DFT: the phase left after removing a guess, which must be within half a
// period of the answer, plus the guess.
double PhaseDelay(const std::vector<double>& h, double freq_hz, double guess) {
  const double w = 2.0 * kPi * freq_hz / kSampleRate;
  std::complex<double> acc = 0.0;
  for (std::size_t k = 0; k < h.size(); ++k)
    acc += h[k] * std::polar(1.0, -w * (static_cast<double>(k) - guess));
  return guess - std::arg(acc) / w;
}

TEST(BenchScene, SourceAtAnAzimuthReachesItsMicrophoneFirst) {
  for (double rt60 : {0.0, 0.25}) {
    for (int lead = 0; lead < kMics; ++lead) {
      SCOPED_TRACE(testing::Message() << "RT60 " << rt60 << " s, azimuth " << 120 * lead);
      Scene scene = ShortScene();
      scene.room.rt60_s = rt60;
      scene.duration_s = 2.0;
      scene.talker_begin_s = 0.0;
      scene.talker_end_s = 2.0;
      scene.far_end_s = 0.0;  // the talker alone
      scene.azimuth_deg = 120.0 * lead;
      scene.elevation_deg = 0.0;
      const RenderedScene r = Render(scene);
      // Alone in the room, the talker is all microphone 0 records.
      EXPECT_EQ(test::ToPcm(r.target), test::ToPcm(Channel(r.mics, 0)));
      const Signal first = Channel(r.mics, lead);
      for (int other = 0; other < kMics; ++other) {
        if (other == lead) continue;
        // The other two hear the direct sound 1.5 R / c = 2.75 samples later;
        // reverberation, correlated at lag 0, pulls the peak towards 0.
        const long lag = FindLatency(first, Channel(r.mics, other), 8);
        EXPECT_GE(lag, rt60 > 0.0 ? 1 : 2) << "microphone " << other;
        EXPECT_LE(lag, 3) << "microphone " << other;
      }
    }
  }
}

TEST(BenchScene, DirectPathDelaysMatchTheGeometry) {
  struct Case {
    double azimuth, elevation, distance;
  };
  const Case cases[] = {{0, 0, 1.0}, {75, 0, 2.0}, {200, 30, 1.2}, {300, -20, 0.5}};
  const Room anechoic{{6.0, 5.0, 3.0}, 0.0};
  const Point centre{3.0, 2.5, 1.2};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.azimuth);
    const double az = c.azimuth * kPi / 180.0, el = c.elevation * kPi / 180.0;
    const Point source{centre.x + c.distance * std::cos(el) * std::cos(az),
                       centre.y + c.distance * std::cos(el) * std::sin(az), centre.z + c.distance * std::sin(el)};
    double delay[kMics];
    for (int m = 0; m < kMics; ++m) {
      const double phi = 2.0 * kPi * m / 3.0;
      const Point mic{centre.x + kArrayRadiusM * std::cos(phi), centre.y + kArrayRadiusM * std::sin(phi), centre.z};
      const double expect = std::hypot(source.x - mic.x, source.y - mic.y, source.z - mic.z) * kSampleRate /
                            kSpeedOfSound;
      const double guess = std::round(expect) + kInterpHalfWidth;
      delay[m] = PhaseDelay(RoomImpulseResponse(anechoic, source, mic), 2000.0, guess) - kInterpHalfWidth;
      // The 50 Hz high-pass leads by 0.05 samples at 2 kHz.
      EXPECT_NEAR(delay[m], expect, 0.1) << "microphone " << m;
    }
    // The far-field difference tells microphone order independently of range.
    for (int m = 1; m < kMics; ++m) {
      const double far_field = kArrayRadiusM * std::cos(el) *
                               (std::cos(az) - std::cos(az - 2.0 * kPi * m / 3.0)) * kSampleRate / kSpeedOfSound;
      EXPECT_NEAR(delay[m] - delay[0], far_field, c.distance < 1.0 ? 0.1 : 0.05);
    }
  }
}

// Schroeder backward integration, line fit between -5 and -25 dB, extended
// to -60 dB.
double MeasuredRt60(const std::vector<double>& h) {
  std::vector<double> decay(h.size());
  double tail = 0.0;
  for (std::size_t i = h.size(); i-- > 0;) decay[i] = tail += h[i] * h[i];
  double sx = 0, sy = 0, sxx = 0, sxy = 0, count = 0;
  for (std::size_t i = 0; i < h.size(); ++i) {
    const double db = 10.0 * std::log10(decay[i] / decay[0]);
    if (db > -5.0 || db < -25.0) continue;
    const double t = static_cast<double>(i) / kSampleRate;
    sx += t, sy += db, sxx += t * t, sxy += t * db, ++count;
  }
  const double slope = (count * sxy - sx * sy) / (count * sxx - sx * sx);  // dB per second
  return -60.0 / slope;
}

TEST(BenchScene, ImpulseResponseDecaysAtTheRequestedRt60) {
  const Point source{1.3, 3.1, 1.6}, mic{3.9, 1.7, 1.0};
  for (double rt60 : {0.2, 0.4, 0.7}) {
    SCOPED_TRACE(rt60);
    const Room room{{6.0, 4.5, 3.0}, rt60};
    const std::vector<double> h = RoomImpulseResponse(room, source, mic);
    const double measured = MeasuredRt60(h);
    EXPECT_NEAR(measured, rt60, 0.1 * rt60);
    RecordProperty("rt60_" + std::to_string(rt60), std::to_string(measured));
    EXPECT_GT(WallReflection(room), 0.0);
    EXPECT_LT(WallReflection(room), 1.0);
  }
}

TEST(BenchScene, SameSeedSameScene) {
  Scene scene = ShortScene();
  scene.duration_s = 2.0;
  scene.far_end_s = 1.2;
  scene.talker_begin_s = 0.6;
  scene.talker_end_s = 2.0;
  scene.noises = {{NoiseKind::kSensor, NoiseColour::kWhite, 30.0},
                  {NoiseKind::kDiffuse, NoiseColour::kPink, 20.0},
                  {NoiseKind::kBabble, NoiseColour::kSpeech, 15.0, 0.0, 0.0, 0.0, 3},
                  {NoiseKind::kInterferer, NoiseColour::kSpeech, 20.0, 250.0, 5.0, 1.8}};
  scene.clip_fraction = 0.7;
  const RenderedScene a = Render(scene), b = Render(scene);
  EXPECT_EQ(a.mics, b.mics);
  EXPECT_EQ(a.reference, b.reference);
  EXPECT_EQ(a.target, b.target);
  EXPECT_EQ(a.truth.speech, b.truth.speech);
  scene.seed += 1;
  const RenderedScene c = Render(scene);
  EXPECT_NE(a.mics, c.mics);
  EXPECT_NE(a.reference, c.reference);
}

// Each noise lands at its SNR against the talker's level, whatever its kind.
TEST(BenchScene, LevelsLandWhereAsked) {
  struct Case {
    const char* name;
    NoiseSource noise;
    double talker_dbfs;
  };
  const Case cases[] = {
      {"white sensor", {NoiseKind::kSensor, NoiseColour::kWhite, 10.0}, -30.0},
      {"pink diffuse", {NoiseKind::kDiffuse, NoiseColour::kPink, 5.0}, -25.0},
      {"babble", {NoiseKind::kBabble, NoiseColour::kSpeech, 0.0, 0.0, 0.0, 0.0, 4}, -35.0},
      {"interferer", {NoiseKind::kInterferer, NoiseColour::kPink, 15.0, 150.0, 0.0, 1.0}, -20.0},
  };
  std::vector<double> levels;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Scene scene = ShortScene();
    scene.far_end_s = 0.0;
    scene.talker_level_dbfs = c.talker_dbfs;
    scene.noises = {c.noise};
    const RenderedScene r = Render(scene);
    const Signal mic0 = Channel(r.mics, 0);
    const Signal noise = test::Mix(mic0, r.target, -1.0);
    const double noise_dbfs = test::RmsDbfs(noise);
    EXPECT_NEAR(noise_dbfs, c.talker_dbfs - c.noise.snr_db, 0.1);
    // Frame labels and the sample-exact activity differ at syllable edges.
    levels.push_back(ActiveLevelDbfs(r.target, r.truth.speech));
    EXPECT_NEAR(levels.back(), c.talker_dbfs, 1.0);
  }
  EXPECT_NEAR(LevelSpreadDb(levels), 15.0, 1.0);
}

// Zero-lag correlation between microphones 0 and 1 of each noise field
// alone. For white noise up to 8 kHz in a diffuse field it is
// Si(2 pi B d / c) / (2 pi B d / c) with d the microphones' spacing (0.166);
// sensor noise is uncorrelated; a point source straight across the pair's
// bisector reaches both at once.
TEST(BenchScene, NoiseFieldsHaveTheirSpatialCorrelation) {
  const double x = 2.0 * kPi * 8000.0 * kArrayRadiusM * std::sqrt(3.0) / kSpeedOfSound;
  double si = 0.0;  // Si(x) by the midpoint rule
  for (int k = 0; k < 10000; ++k) {
    const double t = (k + 0.5) * x / 10000;
    si += std::sin(t) / t * x / 10000;
  }
  struct Case {
    const char* name;
    NoiseSource noise;
    double want, tolerance;
  };
  const Case cases[] = {
      {"sensor", {NoiseKind::kSensor, NoiseColour::kWhite, 0.0}, 0.0, 0.02},
      {"diffuse", {NoiseKind::kDiffuse, NoiseColour::kWhite, 0.0}, si / x, 0.06},
      {"interferer on the bisector", {NoiseKind::kInterferer, NoiseColour::kWhite, 0.0, 240.0, 0.0, 1.2}, 1.0, 0.02},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Scene scene = ShortScene();
    scene.room.rt60_s = 0.0;
    scene.duration_s = 2.0;
    scene.talker_end_s = scene.talker_begin_s;  // noise alone
    scene.far_end_s = 0.0;
    scene.noises = {c.noise};
    const RenderedScene r = Render(scene);
    const Signal m0 = Channel(r.mics, 0), m1 = Channel(r.mics, 1);
    double cross = 0.0, e0 = 0.0, e1 = 0.0;
    for (std::size_t i = 0; i < m0.size(); ++i) {
      cross += static_cast<double>(m0[i]) * m1[i];
      e0 += static_cast<double>(m0[i]) * m0[i];
      e1 += static_cast<double>(m1[i]) * m1[i];
    }
    const double correlation = cross / std::sqrt(e0 * e1);
    EXPECT_NEAR(correlation, c.want, c.tolerance);
    RecordProperty(std::string("correlation_") + c.name, std::to_string(correlation));
  }
}

// The loudspeaker's clipping and playback delay change what the microphones
// hear, never the reference.
TEST(BenchScene, LoudspeakerClipsAndLagsTheEchoNotTheReference) {
  Scene plain = ShortScene();
  plain.talker_end_s = plain.talker_begin_s;  // far end alone
  const RenderedScene base = Render(plain);
  const long base_lag = FindLatency(ToSignal(base.reference), Channel(base.mics, 0), 1024);
  EXPECT_GT(base_lag, 0);
  EXPECT_LT(base_lag, 24);  // 6 cm away plus the interpolator's 8 samples

  Scene late = plain;
  late.echo_delay_ms = 20.0;
  const RenderedScene lagged = Render(late);
  EXPECT_EQ(lagged.reference, base.reference);
  EXPECT_EQ(FindLatency(ToSignal(lagged.reference), Channel(lagged.mics, 0), 1024), base_lag + 320);

  // Clipped playback: the echo is no longer a scaled copy of the clean one.
  Scene clipped = plain;
  clipped.clip_fraction = 0.3;
  const RenderedScene hard = Render(clipped);
  EXPECT_EQ(hard.reference, base.reference);
  const double si_sdr = SiSdrDb(Channel(hard.mics, 0), Channel(base.mics, 0));
  EXPECT_LT(si_sdr, 20.0);
  EXPECT_GT(si_sdr, 3.0);
  RecordProperty("clip_0.3_si_sdr_db", std::to_string(si_sdr));
}

TEST(BenchScene, EchoSpansAndErle) {
  Scene scene = ShortScene();
  scene.echo_level_dbfs = -22.0;
  const RenderedScene r = Render(scene);
  const Truth& t = r.truth;
  ASSERT_EQ(t.far_single_talk.size(), 1u);
  ASSERT_EQ(t.double_talk.size(), 1u);
  ASSERT_EQ(t.near_single_talk.size(), 1u);
  EXPECT_EQ(t.far_single_talk[0].begin, 0u);
  EXPECT_NEAR(static_cast<double>(t.double_talk[0].begin), 1.0 * kSampleRate / kFrame, 2.0);
  EXPECT_EQ(t.double_talk[0].end, t.near_single_talk[0].begin);
  const Signal mic0 = Channel(r.mics, 0);
  EXPECT_NEAR(ActiveLevelDbfs(mic0, t.far_end), -22.0, 1.0);

  // A canceller that takes 20 dB off the echo and answers 48 samples late.
  constexpr long kDelay = 48;
  const Signal output = DelayedScaled(mic0, kDelay, 0.1);
  const long latency = FindLatency(mic0, output, 512);
  EXPECT_EQ(latency, kDelay);
  const double erle = ErleDb(mic0, Advance(output, latency), t);
  EXPECT_NEAR(erle, 20.0, 0.05);
  RecordProperty("erle_db", std::to_string(erle));
  EXPECT_NEAR(ErleDb(mic0, mic0, t), 0.0, 1e-9);
}

TEST(BenchScene, IdentityScoresNoImprovementAndTargetScoresHigh) {
  Scene scene = ShortScene();
  scene.far_end_s = 0.0;
  scene.noises = {{NoiseKind::kBabble, NoiseColour::kSpeech, 5.0, 0.0, 0.0, 0.0, 4},
                  {NoiseKind::kSensor, NoiseColour::kWhite, 25.0}};
  const RenderedScene r = Render(scene);
  const Signal mic0 = Channel(r.mics, 0);

  const Enhancement identity = ScoreEnhancement(mic0, mic0, r.target);
  EXPECT_EQ(identity.latency, 0);
  EXPECT_EQ(identity.SnrImprovementDb(), 0.0);
  EXPECT_EQ(identity.SiSdrImprovementDb(), 0.0);
  EXPECT_NEAR(identity.snr_in_db, 5.0, 2.5);

  EXPECT_GT(SiSdrDb(r.target, r.target), 150.0);
  const double rounded = SiSdrDb(ToSignal(test::ToPcm(r.target)), r.target);
  EXPECT_GT(rounded, 50.0);
  RecordProperty("si_sdr_target_db", std::to_string(SiSdrDb(r.target, r.target)));
  RecordProperty("si_sdr_rounded_target_db", std::to_string(rounded));
  EXPECT_GT(ScoreEnhancement(mic0, r.target, r.target).si_sdr_out_db, 150.0);
  RecordProperty("snr_in_db", std::to_string(identity.snr_in_db));
  RecordProperty("si_sdr_in_db", std::to_string(identity.si_sdr_in_db));
}

// A system that keeps the target, cuts the rest by a known factor, applies
// its own gain and answers late: both improvements read the cut, and the
// latency is found.
TEST(BenchScene, ImprovementOfAKnownNoiseCut) {
  Scene scene = ShortScene();
  scene.far_end_s = 0.0;
  scene.noises = {{NoiseKind::kSensor, NoiseColour::kPink, 10.0}};
  const RenderedScene r = Render(scene);
  const Signal mic0 = Channel(r.mics, 0);
  const Signal noise = test::Mix(mic0, r.target, -1.0);
  struct Case {
    double noise_gain, output_gain;
    long delay;
    double want_db;
  };
  const Case cases[] = {{0.1, 1.0, 0, 20.0}, {0.1, 2.0, 160, 20.0}, {std::sqrt(0.1), 0.5, 333, 10.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.delay);
    const Signal output = DelayedScaled(test::Mix(r.target, noise, c.noise_gain), c.delay, c.output_gain);
    const Enhancement e = ScoreEnhancement(mic0, output, r.target);
    EXPECT_EQ(e.latency, c.delay);
    EXPECT_NEAR(e.SiSdrImprovementDb(), c.want_db, 0.3);
    EXPECT_NEAR(e.SnrImprovementDb(), c.want_db, 1.0);
    RecordProperty("cut_" + std::to_string(c.delay), std::to_string(e.SnrImprovementDb()) + " / " +
                                                         std::to_string(e.SiSdrImprovementDb()));
  }
}

TEST(BenchScene, VadAndDoaScores) {
  std::vector<std::uint8_t> labels(100, 0);
  for (std::size_t f = 20; f < 50; ++f) labels[f] = 1;
  const VadScores all_on = ScoreVad(std::vector<std::uint8_t>(100, 1), labels);
  EXPECT_DOUBLE_EQ(all_on.precision, 0.3);
  EXPECT_DOUBLE_EQ(all_on.recall, 1.0);
  EXPECT_DOUBLE_EQ(all_on.f1, 0.6 / 1.3);
  // Flags two frames late: perfect once the lag is given, not without it.
  std::vector<std::uint8_t> late(102, 0);
  for (std::size_t f = 0; f < labels.size(); ++f) late[f + 2] = labels[f];
  EXPECT_DOUBLE_EQ(ScoreVad(late, labels, 2).f1, 1.0);
  EXPECT_NEAR(ScoreVad(late, labels).f1, 28.0 / 30.0, 1e-12);

  struct Case {
    double estimate, truth, error;
  };
  const Case cases[] = {{355, 5, 10}, {5, 355, 10}, {90, 270, 180}, {-30, 330, 0}, {725, 0, 5}, {10, 22, 12}};
  std::vector<double> estimates, truths;
  for (const Case& c : cases) {
    EXPECT_DOUBLE_EQ(AzimuthErrorDeg(c.estimate, c.truth), c.error) << c.estimate << " vs " << c.truth;
    estimates.push_back(c.estimate);
    truths.push_back(c.truth);
  }
  const DoaScores doa = ScoreDoa(estimates, truths);
  EXPECT_DOUBLE_EQ(doa.mean_error_deg, 217.0 / 6.0);
  EXPECT_DOUBLE_EQ(doa.share_within_10, 4.0 / 6.0);
}

TEST(BenchScene, BadScenesAreRefused) {
  struct Case {
    const char* name;
    void (*spoil)(Scene&);
  };
  const Case cases[] = {
      {"talker through the wall", [](Scene& s) { s.distance_m = 9.0; }},
      {"window past the end", [](Scene& s) { s.talker_end_s = 5.0; }},
      {"negative RT60", [](Scene& s) { s.room.rt60_s = -0.1; }},
      {"loudspeaker in the floor", [](Scene& s) { s.loudspeaker_offset.z = -2.0; }},
      {"interferer outside",
       [](Scene& s) { s.noises = {{NoiseKind::kInterferer, NoiseColour::kWhite, 10.0, 0.0, 0.0, 7.0}}; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Scene scene = ShortScene();
    c.spoil(scene);
    RenderedScene r;
    std::string error;
    EXPECT_FALSE(RenderScene(scene, &r, &error));
    EXPECT_FALSE(error.empty());
  }
}

TEST(BenchScene, ScenesOnDiskAndUserSources) {
  const std::string dir = test::MakeTempDir("bench_scene");
  // A user's recording as the talker: silence, then a burst of speech-like sound.
  test::SpeechLikeOptions voice;
  voice.lead_silence_s = 0.5;
  const std::vector<std::int16_t> recording = test::ToPcm(test::MakeSpeechLike(32000, 7, voice).samples);
  ASSERT_TRUE(test::WriteWav(dir + "/talker.wav", recording, 1));
  ASSERT_TRUE(test::WriteWav(dir + "/stereo.wav", std::vector<std::int16_t>(200), 2));
  Scene scene = ShortScene();
  std::string error;
  EXPECT_FALSE(ReadSourceWav(dir + "/stereo.wav", &scene.talker, &error));
  EXPECT_FALSE(error.empty());
  ASSERT_TRUE(ReadSourceWav(dir + "/talker.wav", &scene.talker, &error)) << error;
  const std::vector<std::uint8_t> active = EnergyActivity(scene.talker);
  EXPECT_EQ(active[4000], 0);  // inside the lead silence
  EXPECT_EQ(active[8000 + 1000], 1);

  const RenderedScene r = Render(scene);
  ASSERT_TRUE(WriteScene(dir + "/scene", scene, r, &error)) << error;
  test::WavData mics, target;
  ASSERT_TRUE(test::ReadWav(dir + "/scene/mics.wav", &mics));
  ASSERT_TRUE(test::ReadWav(dir + "/scene/target.wav", &target));
  EXPECT_EQ(mics.channels, 3);
  EXPECT_EQ(mics.samples, r.mics);
  EXPECT_EQ(target.samples, test::ToPcm(r.target));
  const std::string truth = test::ReadText(dir + "/scene/truth.json");
  EXPECT_NE(truth.find("\"azimuth_deg\": 60"), std::string::npos);
  EXPECT_NE(truth.find("\"double_talk\": [["), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace vorn::bench
