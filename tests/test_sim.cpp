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

#include "audio_io/wav_file.h"
#include "sim/metrics.h"
#include "sim/room_impulse_response.h"
#include "sim/scene.h"
#include "scene/scene_io.h"
#include "sim/signal_ops.h"
#include "support/files.h"

namespace vorn::sim {
namespace {

constexpr double kPi = std::numbers::pi;

// A short scene: far end alone, then double talk, then the talker alone.
Scene ShortScene() {
  Scene s;
  s.room.rt60_s = 0.25;
  s.duration_s = 4.0;
  s.talker_begin_s = 1.0;
  s.talker_end_s = 3.5;
  s.far_end_s = 2.0;  // from 0
  return s;
}

RenderedScene Render(const Scene& scene) {
  RenderedScene r;
  std::string error;
  EXPECT_TRUE(RenderScene(scene, &r, &error)) << error;
  return r;
}

// x delayed by whole samples and scaled: a system with a known latency and gain.
Signal DelayedScaled(const Signal& x, long delay, double gain) {
  return Mix(Signal(x.size(), 0.0f), Advance(x, -delay), gain);
}

TEST(Simulator, SourceAtAnAzimuthReachesItsMicrophoneFirst) {
  for (double rt60 : {0.0, 0.25}) {
    for (int lead = 0; lead < kMics; ++lead) {
      SCOPED_TRACE(testing::Message() << "RT60 " << rt60 << " s, azimuth " << 120 * lead);
      Scene scene = ShortScene();
      scene.room.rt60_s = rt60;
      scene.duration_s = scene.talker_end_s = 1.0;
      scene.talker_begin_s = scene.far_end_s = 0.0;  // the talker alone
      scene.azimuth_deg = 120.0 * lead;
      scene.elevation_deg = 0.0;
      const RenderedScene r = Render(scene);
      EXPECT_EQ(ToPcm(r.target), ToPcm(Channel(r.mics, 0)));  // the target is all it records
      // The other two hear the direct sound 1.5 R / c = 2.75 samples later;
      // reverberation, correlated at lag 0, pulls the peak towards 0.
      for (int other : {(lead + 1) % kMics, (lead + 2) % kMics}) {
        const long lag = FindLatency(Channel(r.mics, lead), Channel(r.mics, other), 8);
        EXPECT_TRUE(lag >= (rt60 > 0.0 ? 1 : 2) && lag <= 3) << other << ": " << lag;
      }
    }
  }
}

// Delay (samples) of an impulse response at one low frequency, by a direct
// DFT: the phase left after removing a guess within half a period of it.
double PhaseDelay(const std::vector<double>& h, double freq_hz, double guess) {
  const double w = 2.0 * kPi * freq_hz / kSampleRate;
  std::complex<double> acc = 0.0;
  for (std::size_t k = 0; k < h.size(); ++k) acc += h[k] * std::polar(1.0, -w * (static_cast<double>(k) - guess));
  return guess - std::arg(acc) / w;
}

// Schroeder backward integration, line fit between -5 and -25 dB, extended to -60 dB.
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
  return -60.0 * (count * sxx - sx * sx) / (count * sxy - sx * sy);
}

TEST(Simulator, ImpulseResponsesHaveTheGeometrysDelaysAndTheRequestedRt60) {
  const Point centre{3.0, 2.5, 1.2};
  // Azimuth, elevation (degrees) and distance (m) of the source.
  for (const auto& [azimuth, elevation, distance] :
       {std::tuple{0, 0, 1.0}, {75, 0, 2.0}, {200, 30, 1.2}, {300, -20, 0.5}}) {
    SCOPED_TRACE(azimuth);
    const double az = azimuth * kPi / 180.0, el = elevation * kPi / 180.0;
    const Point source{centre.x + distance * std::cos(el) * std::cos(az),
                       centre.y + distance * std::cos(el) * std::sin(az), centre.z + distance * std::sin(el)};
    for (int m = 0; m < kMics; ++m) {
      const double phi = 2.0 * kPi * m / 3.0;
      const Point mic{centre.x + kArrayRadiusM * std::cos(phi), centre.y + kArrayRadiusM * std::sin(phi),
                      centre.z};
      const double expect =
          std::hypot(source.x - mic.x, source.y - mic.y, source.z - mic.z) * kSampleRate / kSpeedOfSound;
      const std::vector<double> h = RoomImpulseResponse({{6.0, 5.0, 3.0}, 0.0}, source, mic);
      const double guess = std::round(expect) + kInterpHalfWidth;
      // The 50 Hz high-pass leads by 0.05 samples at 2 kHz.
      EXPECT_NEAR(PhaseDelay(h, 2000.0, guess) - kInterpHalfWidth, expect, 0.1) << "microphone " << m;
    }
  }
  for (double rt60 : {0.2, 0.4, 0.7}) {
    SCOPED_TRACE(rt60);
    const Room room{{6.0, 4.5, 3.0}, rt60};
    EXPECT_NEAR(MeasuredRt60(RoomImpulseResponse(room, {1.3, 3.1, 1.6}, {3.9, 1.7, 1.0})), rt60, 0.1 * rt60);
  }
}

// Each noise lands at its SNR against the talker's level, whatever its kind;
// a seed renders the same scene each time and another seed another. The
// zero-lag correlation between microphones 0 and 1 before the talker starts
// is the field's: none for sensor noise; Si(x)/x for white noise up to 8 kHz
// in a diffuse field (x = 2 pi 8 kHz d / c, d the spacing); full for a point
// source on the pair's bisector. The metrics read back what was put in.
TEST(Simulator, EachNoiseLandsAtItsLevelAndTheMetricsReadItBack) {
  const double x = 2.0 * kPi * 8000.0 * kArrayRadiusM * std::sqrt(3.0) / kSpeedOfSound;
  double si = 0.0;  // Si(x) by the midpoint rule
  for (int k = 0; k < 10000; ++k) si += std::sin((k + 0.5) * x / 10000) / ((k + 0.5) * x / 10000) * x / 10000;
  struct Case {
    const char* name;
    NoiseSource noise;
    double talker_dbfs, correlation, tolerance;  // no correlation check for a NaN
  };
  const Case cases[] = {
      {"white sensor", {NoiseKind::kSensor, NoiseColour::kWhite, 10.0}, -30.0, 0.0, 0.02},
      {"white diffuse", {NoiseKind::kDiffuse, NoiseColour::kWhite, 5.0}, -25.0, si / x, 0.06},
      {"babble", {NoiseKind::kBabble, NoiseColour::kSpeech, 0.0, 0.0, 0.0, 0.0, 4}, -35.0, NAN, 0.0},
      {"pink interferer", {NoiseKind::kInterferer, NoiseColour::kPink, 15.0, 240.0, 0.0, 1.2}, -20.0, 1.0, 0.02},
  };
  std::vector<double> levels;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Scene scene = ShortScene();
    scene.room.rt60_s = 0.0;
    scene.far_end_s = 0.0;
    scene.talker_level_dbfs = c.talker_dbfs;
    scene.noises = {c.noise};
    const RenderedScene r = Render(scene), again = Render(scene);
    EXPECT_EQ(again.mics, r.mics);
    EXPECT_EQ(again.target, r.target);
    EXPECT_EQ(again.truth.speech, r.truth.speech);
    scene.seed += 1;
    EXPECT_NE(Render(scene).mics, r.mics);
    const Signal mic0 = Channel(r.mics, 0), mic1 = Channel(r.mics, 1), noise = Mix(mic0, r.target, -1.0);
    EXPECT_NEAR(RmsDbfs(noise), c.talker_dbfs - c.noise.snr_db, 0.1);
    levels.push_back(ActiveLevelDbfs(r.target, r.truth.speech));
    EXPECT_NEAR(levels.back(), c.talker_dbfs, 1.0);  // frame labels blur the syllable edges
    if (!std::isnan(c.correlation)) {
      const Signal m0(mic0.begin(), mic0.begin() + kSampleRate), m1(mic1.begin(), mic1.begin() + kSampleRate);
      const double energy = std::sqrt(CrossCorrelation(m0, m0, 0)[0] * CrossCorrelation(m1, m1, 0)[0]);
      EXPECT_NEAR(CrossCorrelation(m0, m1, 0)[0] / energy, c.correlation, c.tolerance);
    }
    // The identity scores no improvement, the target a very high SI-SDR.
    const Enhancement identity = ScoreEnhancement(mic0, mic0, r.target);
    EXPECT_EQ(identity.latency, 0);
    EXPECT_EQ(identity.SnrImprovementDb(), 0.0);
    EXPECT_EQ(identity.SiSdrImprovementDb(), 0.0);
    EXPECT_NEAR(identity.snr_in_db, c.noise.snr_db, 2.5);
    EXPECT_GT(SiSdrDb(r.target, r.target), 150.0);
    EXPECT_GT(SiSdrDb(ToSignal(ToPcm(r.target)), r.target), 50.0);
    EXPECT_GT(ScoreEnhancement(mic0, r.target, r.target).si_sdr_out_db, 150.0);
    // A system that keeps the target, cuts the rest by a known factor, applies
    // its own gain and answers late scores the cut (the SNR reading needs the
    // noise well below the speech), and its latency is found.
    for (const auto& [gain, output_gain, delay] : {std::tuple{0.1, 1.0, 0L}, {0.1, 2.0, 160L}, {0.316, 0.5, 333L}}) {
      const Signal output = DelayedScaled(Mix(r.target, noise, gain), delay, output_gain);
      const Enhancement e = ScoreEnhancement(mic0, output, r.target);
      EXPECT_EQ(e.latency, delay);
      EXPECT_NEAR(e.SiSdrImprovementDb(), -20.0 * std::log10(gain), 0.3);
      if (c.noise.snr_db >= 10.0) {
        EXPECT_NEAR(e.SnrImprovementDb(), -20.0 * std::log10(gain), 1.0);
      }
    }
  }
  EXPECT_NEAR(LevelSpreadDb(levels), 15.0, 1.0);
}

// A user's recording talks over the far end's echo; the scene is written to disk.
TEST(Simulator, UserTalkerOverEchoSpansLevelLagClippingErleAndFiles) {
  const std::string dir = test::MakeTempDir("bench_scene");
  // The recording: silence, then a burst of speech-like sound.
  const std::vector<std::int16_t> recording =
      ToPcm(MakeSpeechLike(32000, 7, {.lead_silence_s = 0.5}).samples);
  ASSERT_TRUE(WriteWavFile(dir + "/talker.wav", recording, 1));
  ASSERT_TRUE(WriteWavFile(dir + "/stereo.wav", std::vector<std::int16_t>(200), 2));
  Scene scene = ShortScene();
  scene.echo_level_dbfs = -22.0;
  std::string error;
  EXPECT_FALSE(bench::ReadSourceWav(dir + "/stereo.wav", &scene.talker, &error));
  EXPECT_FALSE(error.empty());
  ASSERT_TRUE(bench::ReadSourceWav(dir + "/talker.wav", &scene.talker, &error)) << error;
  const std::vector<std::uint8_t> active = EnergyActivity(scene.talker);
  EXPECT_TRUE(active[4000] == 0 && active[9000] == 1);  // in the lead silence, in the burst
  const RenderedScene r = Render(scene);
  ASSERT_TRUE(bench::WriteScene(dir + "/scene", scene, r, &error)) << error;
  WavAudio mics, target;
  ASSERT_TRUE(ReadWavFile(dir + "/scene/mics.wav", &mics));
  ASSERT_TRUE(ReadWavFile(dir + "/scene/target.wav", &target));
  EXPECT_EQ(mics.channels, 3);
  EXPECT_EQ(mics.samples, r.mics);
  EXPECT_EQ(target.samples, ToPcm(r.target));
  const std::string truth = test::ReadText(dir + "/scene/truth.json");
  EXPECT_NE(truth.find("\"azimuth_deg\": 60"), std::string::npos);
  EXPECT_NE(truth.find("\"double_talk\": [["), std::string::npos);
  std::filesystem::remove_all(dir);

  const Truth& t = r.truth;
  ASSERT_TRUE(t.far_single_talk.size() == 1 && t.double_talk.size() == 1 && t.near_single_talk.size() == 1);
  EXPECT_EQ(t.far_single_talk[0].begin, 0u);
  // The talker starts at 1 s, its recording's burst half a second later.
  EXPECT_NEAR(static_cast<double>(t.double_talk[0].begin), 1.5 * kSampleRate / kFrame, 2.0);
  EXPECT_EQ(t.double_talk[0].end, t.near_single_talk[0].begin);
  const Signal mic0 = Channel(r.mics, 0);
  EXPECT_NEAR(ActiveLevelDbfs(mic0, t.far_end), -22.0, 1.0);
  // A canceller that takes 20 dB off the echo and answers 48 samples late.
  const Signal output = DelayedScaled(mic0, 48, 0.1);
  EXPECT_EQ(FindLatency(mic0, output, 512), 48);
  EXPECT_NEAR(ErleDb(mic0, Advance(output, 48), t), 20.0, 0.05);
  // The loudspeaker's clipping and playback delay change what the
  // microphones hear, never the reference.
  const long base_lag = FindLatency(ToSignal(r.reference), mic0, 1024);
  EXPECT_TRUE(base_lag > 0 && base_lag < 24) << base_lag;  // 6 cm away plus the interpolator's 8 samples
  Scene late = scene, clipped = scene;
  late.echo_delay_ms = 20.0;
  clipped.clip_fraction = 0.3;
  const RenderedScene lagged = Render(late), hard = Render(clipped);
  EXPECT_EQ(lagged.reference, r.reference);
  EXPECT_EQ(hard.reference, r.reference);
  scene.seed += 1;  // another far-end talker
  EXPECT_NE(Render(scene).reference, r.reference);
  EXPECT_EQ(FindLatency(ToSignal(lagged.reference), Channel(lagged.mics, 0), 1024), base_lag + 320);
  const double si_sdr = SiSdrDb(Channel(hard.mics, 0), mic0);  // no longer a scaled copy of the clean echo
  EXPECT_TRUE(si_sdr > 3.0 && si_sdr < 20.0) << si_sdr;
  // A far end that never pauses (a quiet held tone) has no syllables to be
  // levelled by; its echo still lands at the level asked for.
  Scene held = scene;
  held.far_end.resize(static_cast<std::size_t>(2.0 * kSampleRate));
  for (std::size_t i = 0; i < held.far_end.size(); ++i)
    held.far_end[i] = static_cast<float>(300.0 * std::sin(2.0 * std::numbers::pi * 440.0 * i / kSampleRate));
  const Signal held_mic0 = Channel(Render(held).mics, 0);
  const Signal before_talker(held_mic0.begin() + kSampleRate / 5, held_mic0.begin() + kSampleRate);
  EXPECT_NEAR(RmsDbfs(before_talker), -22.0, 1.5);
}

// Octave band powers of a voice in dB re its 250-500 Hz octave, from the
// mean power spectrum of Hann-windowed 1024-sample blocks (direct DFT).
std::vector<double> OctavesReQuarterKilohertz(const Signal& x) {
  constexpr std::size_t kBlock = 1024;
  const double edges_hz[] = {250, 500, 1000, 2000, 4000, 8000};
  std::vector<double> band(5, 0.0);
  for (std::size_t start = kSampleRate; start + kBlock <= x.size(); start += 3 * kBlock)
    for (std::size_t k = 16; k < kBlock / 2; ++k) {
      std::complex<double> acc = 0.0;
      for (std::size_t i = 0; i < kBlock; ++i)
        acc += static_cast<double>(x[start + i]) * (0.5 - 0.5 * std::cos(2.0 * kPi * static_cast<double>(i) / kBlock)) *
               std::polar(1.0, -2.0 * kPi * static_cast<double>(k * i) / kBlock);
      const double hz = static_cast<double>(k) * kSampleRate / kBlock;
      for (std::size_t b = 0; b < band.size(); ++b)
        if (hz >= edges_hz[b] && hz < edges_hz[b + 1]) band[b] += std::norm(acc);
    }
  std::vector<double> db;
  for (double p : band) db.push_back(10.0 * std::log10(p / band[0]));
  return db;
}

TEST(Simulator, ASpeechSpectrumVoiceIsAsBrightAsSpeech) {
  const std::size_t n = 3 * kSampleRate;
  const std::vector<double> plain = OctavesReQuarterKilohertz(MakeSpeechLike(n, 11, {}).samples);
  const std::vector<double> speech = OctavesReQuarterKilohertz(MakeSpeechLike(n, 11, {.speech_spectrum = true}).samples);
  EXPECT_LT(plain[2], -25.0);  // 1-2 kHz: the plain voice is far darker than speech
  // Speech's long-term octaves above 500 Hz: about -3, -9, -15, -20 dB.
  const double low[] = {0.0, -10.0, -18.0, -18.0, -28.0}, high[] = {0.0, -3.0, -8.0, -8.0, -16.0};
  for (std::size_t b = 1; b < speech.size(); ++b) {
    EXPECT_GT(speech[b], low[b]) << "octave " << b;
    EXPECT_LT(speech[b], high[b]) << "octave " << b;
  }
}

TEST(Simulator, VadAndDoaScores) {
  std::vector<std::uint8_t> labels(100, 0), late(102, 0);
  for (std::size_t f = 20; f < 50; ++f) labels[f] = late[f + 2] = 1;
  const VadScores all_on = ScoreVad(std::vector<std::uint8_t>(100, 1), labels);
  EXPECT_DOUBLE_EQ(all_on.precision, 0.3);
  EXPECT_DOUBLE_EQ(all_on.recall, 1.0);
  EXPECT_DOUBLE_EQ(all_on.f1, 0.6 / 1.3);
  // Flags two frames late: perfect once the lag is given, not without it.
  EXPECT_DOUBLE_EQ(ScoreVad(late, labels, 2).f1, 1.0);
  EXPECT_NEAR(ScoreVad(late, labels).f1, 28.0 / 30.0, 1e-12);

  const std::vector<double> estimates = {355, 5, 90, -30, 725, 10}, truths = {5, 355, 270, 330, 0, 22};
  const double errors[] = {10, 10, 180, 0, 5, 12};
  for (std::size_t i = 0; i < estimates.size(); ++i)
    EXPECT_DOUBLE_EQ(AzimuthErrorDeg(estimates[i], truths[i]), errors[i]) << estimates[i] << " vs " << truths[i];
  const DoaScores doa = ScoreDoa(estimates, truths);
  EXPECT_DOUBLE_EQ(doa.mean_error_deg, 217.0 / 6.0);
  EXPECT_DOUBLE_EQ(doa.share_within_10, 4.0 / 6.0);
}

TEST(Simulator, BadScenesAreRefused) {
  std::vector<Scene> bad(5, ShortScene());
  bad[0].distance_m = 9.0;             // the talker through the wall
  bad[1].talker_end_s = 5.0;           // talking past the end
  bad[2].room.rt60_s = -0.1;
  bad[3].loudspeaker_offset.z = -2.0;  // in the floor
  bad[4].noises = {{NoiseKind::kInterferer, NoiseColour::kWhite, 10.0, 0.0, 0.0, 7.0}};  // outside
  for (const Scene& scene : bad) {
    RenderedScene r;
    std::string error;
    EXPECT_FALSE(RenderScene(scene, &r, &error));
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace vorn::sim
