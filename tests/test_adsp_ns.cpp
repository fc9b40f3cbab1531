// Noise suppressor and VAD, judged on signals a user would feed: stationary
// noise, speech-like talkers in noise, bursts separated by pauses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "support/ns_harness.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::NsInstance;
using test::Signal;

constexpr int kLatency = kNsFftLen - kNsHop;  // 384 samples
constexpr std::size_t kSecond = test::kSampleRate;

// Mean windowed periodogram of x (after PCM rounding, as the suppressor
// sees it) over frames starting at `from`, one per hop.
std::vector<double> MeanPeriodogram(const Signal &x, std::size_t from = 0) {
  std::vector<double> power(kNsBins, 0.0);
  int frames = 0;
  for (std::size_t start = from; start + kNsFftLen <= x.size(); start += kNsHop, ++frames) {
    float frame[kNsFftLen];
    for (int i = 0; i < kNsFftLen; ++i) frame[i] = std::round(x[start + i]) * hanmming_win[i];
    fft_rel(frame, kNsFftLen, kNsFftOrder);
    power[0] += frame[0] * frame[0];
    power[kNsBins - 1] += frame[kNsBins - 1] * frame[kNsBins - 1];
    for (int k = 1; k < kNsBins - 1; ++k)
      power[k] += frame[k] * frame[k] + frame[kNsFftLen - k] * frame[kNsFftLen - k];
  }
  for (double &p : power) p /= frames;
  return power;
}

double BandPowerDb(const std::vector<double> &power, int lo, int hi) {
  double sum = 0.0;
  for (int k = lo; k <= hi; ++k) sum += power[k];
  return 10.0 * std::log10(sum);
}

Signal NoiseOfKind(bool pink, std::size_t n, double rms, std::uint32_t seed) {
  return pink ? test::PinkNoise(n, rms, seed) : test::WhiteNoise(n, rms, seed);
}

TEST(AdspNsInit, ChecksRecordAndRegion) {
  std::vector<float> region(kNsStateBytes / sizeof(float));
  struct Case {
    const char *name;
    bool null_record, null_state;
    int buff_size, param_size, want;
  };
  const Case cases[] = {
      {"valid", false, false, kNsStateBytes, 40, 0},
      {"null record", true, false, kNsStateBytes, 40, 1},
      {"null state", false, true, kNsStateBytes, 40, 1},
      {"region one byte short", false, false, kNsStateBytes - 1, 40, 2},
      {"record size of a 32-bit build", false, false, kNsStateBytes, 32, 2},
      {"larger region", false, false, 256000, 40, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    T_AdspNsParam pm{};
    pm.p_data = c.null_state ? nullptr : region.data();
    pm.buff_size = c.buff_size;
    pm.param_size = c.param_size;
    EXPECT_EQ(AdspNsInit(c.null_record ? nullptr : &pm), c.want);
  }
}

TEST(AdspNsSettings, LevelIsClampedToItsRange) {
  struct Case {
    float request, stored;
  };
  const Case cases[] = {{-0.5f, 0.00001f}, {2.0f, 1.0f}, {0.3f, 0.3f}, {0.0f, 0.0f}, {1.0f, 1.0f}};
  NsInstance ns;
  for (const Case &c : cases) {
    SetNsLevel(&ns.param(), c.request);
    EXPECT_EQ(ns.state().external_ns_level, c.stored) << "request " << c.request;
  }
  SetNsRefToAecRatio(&ns.param(), 12.5f);
  SetNsMeanCorr(&ns.param(), 0.75f);
  EXPECT_EQ(ns.state().t_ref_to_aec, 12.5f);
  EXPECT_EQ(ns.state().mean_corr_far_near, 0.75f);
}

TEST(AdspNsProc, OtherDataTypesOnlyAdvanceCounters) {
  NsInstance ns;
  ns.Run(test::WhiteNoise(20 * kNsHop, 500.0, 4));
  std::vector<unsigned char> before(sizeof(T_AdspNsState));
  std::memcpy(before.data(), &ns.state(), before.size());
  ns.param().data_type = 0;
  AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, nullptr, nullptr);
  T_AdspNsState &st = ns.state();
  EXPECT_EQ(st.frame, 21);
  EXPECT_EQ(st.curr_trace_id, 1);  // 21 calls, wrapping after 19
  st.frame = 20;
  st.curr_trace_id = 0;
  EXPECT_EQ(std::memcmp(before.data(), &st, before.size()), 0);

  st.frame = kNsFrameMax - 1;
  for (int i = 0; i < 3; ++i) AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(st.frame, kNsFrameMax);
}

// Stationary noise: the estimate converges to the noise's own per-bin power
// and the frame SNR to 0 dB.
TEST(NoiseEst, ConvergesToStationaryNoisePower) {
  for (const bool pink : {false, true}) {
    SCOPED_TRACE(pink ? "pink" : "white");
    const Signal x = NoiseOfKind(pink, 12 * kSecond, 1000.0, pink ? 12 : 11);
    NsInstance ns;
    const int settle_hops = 6 * kSecond / kNsHop;
    std::vector<double> estimate(kNsBins, 0.0);
    double frame_snr = 0.0;
    int hops = 0;
    ns.Run(x, nullptr, [&](int hop) {
      if (hop < settle_hops) return;
      for (int k = 0; k < kNsBins; ++k) estimate[k] += ns.state().lambda_d[k];
      frame_snr += ns.state().f_snr;
      ++hops;
    });
    const std::vector<double> truth = MeanPeriodogram(x, 6 * kSecond);
    // Bins 1..4, where pink noise falls steepest, track less tightly; the
    // output removes them anyway.
    double mean_db = 0.0, worst_db = 0.0, worst_kept_db = 0.0;
    for (int k = 1; k < kNsBins - 1; ++k) {
      const double db = 10.0 * std::log10(estimate[k] / hops / truth[k]);
      mean_db += db / (kNsBins - 2);
      if (std::fabs(db) > std::fabs(worst_db)) worst_db = db;
      if (k >= 5 && std::fabs(db) > std::fabs(worst_kept_db)) worst_kept_db = db;
    }
    std::printf("[ noise ] %s: estimate/true power mean %+.2f dB, worst bin %+.2f dB (%+.2f dB from bin 5), "
                "f_snr %+.2f dB\n", pink ? "pink" : "white", mean_db, worst_db, worst_kept_db, frame_snr / hops);
    EXPECT_NEAR(mean_db, 0.0, 0.5);
    EXPECT_NEAR(worst_db, 0.0, 2.5);
    EXPECT_NEAR(worst_kept_db, 0.0, 1.5);
    EXPECT_NEAR(frame_snr / hops, 0.0, 0.5);
  }
}

// Noise alone ends at the floor g_f * level (in amplitude) once the floor has
// adapted, and the lowest five bins and Nyquist leave empty.
TEST(AdspNsProc, NoiseOnlyIsLeftAtTheGainFloor) {
  struct Case {
    bool pink;
    float level;
  };
  const Case cases[] = {{false, 1.0f}, {true, 1.0f}, {false, 0.3f}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << (c.pink ? "pink" : "white") << " level " << c.level);
    const Signal x = NoiseOfKind(c.pink, 10 * kSecond, 2000.0, 21);
    NsInstance ns(1, c.level);
    const Signal y = ns.Run(x);
    const std::size_t from = 5 * kSecond;
    const std::vector<double> in = MeanPeriodogram(x, from);
    const std::vector<double> out = MeanPeriodogram(Signal(y.begin() + kLatency, y.end()), from);
    const double attenuation = BandPowerDb(out, 5, 255) - BandPowerDb(in, 5, 255);
    const double floor_db = 20.0 * std::log10(ns.state().g_f * c.level);
    std::printf("[ floor ] %s level %.1f: attenuation %.2f dB, g_f*level %.2f dB\n", c.pink ? "pink" : "white",
                c.level, attenuation, floor_db);
    EXPECT_NEAR(attenuation, floor_db, 1.0);
    // Removed bins: far below what the floor leaves elsewhere.
    EXPECT_LT(BandPowerDb(out, 0, 3) - BandPowerDb(in, 0, 3), floor_db - 20.0);
  }
}

TEST(NsFreqFilter, RemovesLowBinsAndNyquistAndScalesTheRest) {
  const Signal noise = test::WhiteNoise(kNsFftLen + kNsBins, 1.0, 5);
  float spectrum[kNsFftLen], gain[kNsBins], out[kNsFftLen];
  for (int i = 0; i < kNsFftLen; ++i) spectrum[i] = noise[i];
  for (int k = 0; k < kNsBins; ++k) gain[k] = std::fabs(noise[kNsFftLen + k]);
  const std::vector<float> gain_in(gain, gain + kNsBins);
  NsFreqFilter(spectrum, gain, out);
  for (int k = 0; k <= 4; ++k) {
    EXPECT_EQ(out[k], 0.0f) << k;
    if (k > 0) {
      EXPECT_EQ(out[kNsFftLen - k], 0.0f) << k;
    }
  }
  EXPECT_EQ(out[kNsFftLen / 2], 0.0f);
  for (int k = 5; k < kNsBins - 1; ++k) {
    EXPECT_EQ(out[k], spectrum[k] * gain_in[k]);
    EXPECT_EQ(out[kNsFftLen - k], spectrum[kNsFftLen - k] * gain_in[k]);
  }
}

// A speech-like talker in white noise: speech passes with little loss, the
// noise between syllables is pulled down.
TEST(AdspNsProc, ImprovesSpeechToNoiseRatio) {
  for (const double snr_db : {5.0, 10.0}) {
    SCOPED_TRACE(snr_db);
    const std::size_t n = 12 * kSecond;
    test::SpeechLikeOptions opt;
    opt.lead_silence_s = 3.0;
    const test::SpeechLike talker = test::MakeSpeechLike(n, 7, opt);
    const Signal x = test::Mix(talker.samples, test::WhiteNoise(n, opt.rms / std::pow(10.0, snr_db / 20.0), 3));
    NsInstance ns;
    const Signal y = ns.Run(x);
    double speech_in = 0, speech_out = 0, gap_in = 0, gap_out = 0;
    for (std::size_t i = 4 * kSecond; i + kLatency < n; ++i) {
      const double in = double(x[i]) * x[i], out = double(y[i + kLatency]) * y[i + kLatency];
      (talker.active[i] ? speech_in : gap_in) += in;
      (talker.active[i] ? speech_out : gap_out) += out;
    }
    // Mean squares per stretch are in the same proportion as the sums, so the
    // counts cancel in every ratio below except the SNR's "- 1".
    const std::vector<std::uint8_t> &act = talker.active;
    const double active_share =
        static_cast<double>(std::count(act.begin() + 4 * kSecond, act.end() - kLatency, 1)) /
        static_cast<double>(n - kLatency - 4 * kSecond);
    const auto snr = [&](double speech, double gap) {
      return 10.0 * std::log10((speech / active_share) / (gap / (1.0 - active_share)) - 1.0);
    };
    const double snr_in = snr(speech_in, gap_in), snr_out = snr(speech_out, gap_out);
    const double speech_loss = 10.0 * std::log10(speech_out / speech_in);
    const double noise_drop = 10.0 * std::log10(gap_out / gap_in);
    std::printf("[ speech ] %.0f dB: SNR %.2f -> %.2f dB (+%.2f), speech frames %+.2f dB, pauses %+.2f dB, "
                "g_f %.3f\n", snr_db, snr_in, snr_out, snr_out - snr_in, speech_loss, noise_drop, ns.state().g_f);
    EXPECT_GT(snr_out - snr_in, 4.0);
    EXPECT_GT(speech_loss, -4.0);
    EXPECT_GT(speech_loss - noise_drop, 4.0);
  }
}

// The output is the input delayed by one frame minus one hop: the lag that
// best aligns a talker with its suppressed copy is 384 samples.
TEST(AdspNsProc, OutputLagsInputBy384Samples) {
  const std::size_t n = 3 * kSecond;
  const Signal x = test::Mix(test::MakeSpeechLike(n, 13).samples, test::WhiteNoise(n, 30.0, 13));
  NsInstance ns;
  const Signal y = ns.Run(x);
  int best_lag = -1;
  double best = 0.0;
  for (int lag = 0; lag < 2 * kNsFftLen; ++lag) {
    double corr = 0.0;
    for (std::size_t i = kSecond; i + lag < n; ++i) corr += double(x[i]) * y[i + lag];
    if (corr > best) {
      best = corr;
      best_lag = lag;
    }
  }
  EXPECT_EQ(best_lag, kLatency);
}

TEST(AdspNsProc, OutputIsDeterministic) {
  test::SpeechLikeOptions opt;
  opt.lead_silence_s = 1.0;
  const std::size_t n = 4 * kSecond;
  const Signal x = test::Mix(test::MakeSpeechLike(n, 9, opt).samples, test::PinkNoise(n, 600.0, 9));
  NsInstance first(3), second(3);
  std::vector<int> flags_first, flags_second;
  const Signal y1 = first.Run(x, &flags_first);
  const Signal y2 = second.Run(x, &flags_second);
  EXPECT_EQ(std::memcmp(y1.data(), y2.data(), y1.size() * sizeof(float)), 0);
  EXPECT_EQ(flags_first, flags_second);
  EXPECT_EQ(std::memcmp(&first.state(), &second.state(), offsetof(T_AdspNsState, mean_corr_far_near)), 0);
}

// A full-scale square wave comes back with Gibbs overshoot beyond 16 bits:
// those samples must saturate, never wrap to the other sign.
TEST(AdspNsProc, FullScaleOutputSaturates) {
  const std::size_t n = 2 * kSecond;
  Signal x(n);
  for (std::size_t i = 0; i < n; ++i) x[i] = (i / 32) % 2 ? -32768.0f : 32767.0f;  // 250 Hz
  NsInstance ns;
  const Signal y = ns.Run(x);
  int saturated = 0, wrapped = 0;
  for (std::size_t i = kSecond; i + kLatency < n; ++i) {
    const float in = x[i], out = y[i + kLatency];
    if (out == 32767.0f || out == -32768.0f) ++saturated;
    if (std::fabs(out) > 16384.0f && (out > 0) != (in > 0)) ++wrapped;
  }
  EXPECT_GT(saturated, 0);
  EXPECT_EQ(wrapped, 0);
}

// The diagonal minimum over the magnitude history, checked against a search
// over a flat copy of the history and the analysis buffer behind it.
TEST(AdspNsProc, SpectralScaleModeTracksDiagonalMinimum) {
  NsInstance ns;
  ns.Run(test::WhiteNoise(6 * kNsHop, 300.0, 8));  // some time samples in `au`
  ns.param().data_type = kNsDataSpectralScale;
  const Signal noise = test::WhiteNoise(25 * kNsFftLen, 10.0, 6);
  float minimum[kNsBins], scaled[kNsFftLen];
  for (int call = 0; call < 25; ++call) {
    float spectrum[kNsFftLen];
    for (int i = 0; i < kNsFftLen; ++i) spectrum[i] = noise[call * kNsFftLen + i];
    AdspNsProc(&ns.param(), spectrum, minimum, scaled, nullptr, nullptr);
    std::vector<float> flat(ns.state().freq_amp_buff, ns.state().freq_amp_buff + kNsTraceRows * kNsBins);
    flat.insert(flat.end(), ns.state().au, ns.state().au + kNsFftLen);
    for (int k = 0; k < kNsBins; ++k) {
      float want = flat[k];
      for (int row = 1; row < kNsTraceRows; ++row) want = std::min(want, flat[k + row * (kNsBins + 1)]);
      ASSERT_EQ(minimum[k], want) << "call " << call << " bin " << k;
    }
    // A bin is kept only where row 0 rises above twice the minimum.
    const float *row0 = ns.state().freq_amp_buff;
    for (int k = 1; k < kNsBins - 1; ++k) {
      if (row0[k] < 2.0f * minimum[k]) {
        ASSERT_EQ(scaled[k], 0.0f) << "bin " << k;
      }
      if (row0[k] > 4.0f * minimum[k] && minimum[k] > 0.0f) {
        ASSERT_GT(std::fabs(scaled[k]), 0.4f * std::fabs(spectrum[k])) << "bin " << k;
      }
    }
  }
}

// ---- voice activity detection ---------------------------------------------

// Frame (256-sample) decisions as the front end forms them: 1 if either hop said 1.
std::vector<int> FrameFlags(const std::vector<int> &hop_flags) {
  std::vector<int> frames(hop_flags.size() / 2);
  for (std::size_t f = 0; f < frames.size(); ++f) frames[f] = hop_flags[2 * f] | hop_flags[2 * f + 1];
  return frames;
}

struct VadFigures {
  float f_snr, long_eta, d_senr, d_ssnr, long_ssnr, phat_mean, energy;
};
// Clearly speech and clearly not, for every rule.
constexpr VadFigures kSpeechFigures = {30.0f, 10.0f, 10.0f, 30.0f, 20.0f, 0.9f, 10.0f};
constexpr VadFigures kPauseFigures = {-5.0f, 10.0f, -10.0f, -10.0f, -5.0f, 0.0f, 1.0f};
// A pause whose residual sits far below the noise: what echo leaves behind.
constexpr VadFigures kEchoPauseFigures = {-5.0f, 10.0f, -10.0f, -10.0f, -20.0f, 0.0f, 1.0f};

int Decide(int mode, T_AdspNsState &st, const VadFigures &fig) {
  st.f_snr = fig.f_snr;
  st.long_eta = fig.long_eta;
  st._d_senr = fig.d_senr;
  st._d_ssnr = fig.d_ssnr;
  st.long_ssnr = fig.long_ssnr;
  st.phat_mean = fig.phat_mean;
  st.suppressed_noise_psd = 1.0f;
  st.long_suppressed_eng = 1.0f;
  if (mode == 1) return VadDet(&st, fig.energy);
  if (mode == 3) return VadDetAecWkp(&st, fig.energy);
  return VadDetAsr(&st, fig.energy);
}

// A run of speech hops, then pauses: every speech hop is flagged from the
// first one on, and the pause keeps the flag for hangover - 1 hops once a
// region (six hops) has formed. Mode 1 and 3 fix the hangover when the
// region opens (20 hops); the recognition rule lets it grow with the run
// (12..20).
TEST(NsVad, HangoverLengthsFollowTheRules) {
  struct Case {
    const char *name;
    int mode, speech_hops;
    const VadFigures *pause;
    int want_flagged_pause_hops;
  };
  const Case cases[] = {
      {"mode 1, run too short for a region", 1, 5, &kPauseFigures, 0},
      {"mode 1, region from six hops", 1, 6, &kPauseFigures, 19},
      {"mode 1, long run", 1, 40, &kPauseFigures, 19},
      {"recognition, run too short", 2, 5, &kPauseFigures, 0},
      {"recognition, six hops", 2, 6, &kPauseFigures, 11},
      {"recognition, fifteen hops", 2, 15, &kPauseFigures, 14},
      {"recognition, long run", 2, 40, &kPauseFigures, 19},
      {"wake-up, run too short", 3, 5, &kPauseFigures, 0},
      {"wake-up, six hops", 3, 6, &kPauseFigures, 19},
      {"wake-up, long run", 3, 40, &kPauseFigures, 19},
      {"wake-up, echo residual ends the region", 3, 10, &kEchoPauseFigures, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    NsInstance ns(c.mode);
    T_AdspNsState &st = ns.state();
    for (int i = 0; i < 4; ++i) ASSERT_EQ(Decide(c.mode, st, kPauseFigures), 0);
    for (int i = 0; i < c.speech_hops; ++i) ASSERT_EQ(Decide(c.mode, st, kSpeechFigures), 1) << "speech hop " << i;
    int flagged = 0;
    bool dropped = false;
    for (int i = 0; i < 60; ++i) {
      const int flag = Decide(c.mode, st, *c.pause);
      if (flag && dropped) ADD_FAILURE() << "flag came back at pause hop " << i;
      dropped = dropped || !flag;
      flagged += flag;
    }
    EXPECT_EQ(flagged, c.want_flagged_pause_hops);
    EXPECT_EQ(st.is_speech_region, 0);
  }
}

// Bursts of a speech-like talker over a quiet background, starting on frame
// boundaries: every mode flags the first frame of each burst and falls back
// to 0 after its hangover. Each rule is run at a background level where it
// detects the talker: the wake-up rule needs a high frame SNR, the
// recognition rule turns permanently on once the long-term SNR is high.
struct BurstScene {
  Signal mix;
  std::vector<std::uint8_t> frame_labels;
};

BurstScene MakeBursts(double snr_db, std::size_t seconds) {
  const std::size_t n = seconds * kSecond;
  test::SpeechLikeOptions opt;
  opt.syllable_hz = 0.25;  // long steady vowels; the gate makes the onsets
  opt.duty = 1.0;
  const test::SpeechLike talker = test::MakeSpeechLike(n, 7, opt);
  std::vector<std::uint8_t> gate(n, 0);
  Signal speech(n, 0.0f);
  // 0.64 s bursts every 2 s from 4.8 s on, away from the syllable joins.
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t frame = i / 256;
    if (frame >= 300 && (frame - 300) % 125 < 40) {
      gate[i] = 1;
      speech[i] = talker.samples[i];
    }
  }
  return {test::Mix(speech, test::WhiteNoise(n, opt.rms / std::pow(10.0, snr_db / 20.0), 3)), test::FrameLabels(gate)};
}

TEST(NsVad, FlagsOnsetsAndReleasesAfterHangover) {
  struct Case {
    int mode;
    double snr_db;
  };
  const Case cases[] = {{1, 30.0}, {2, 20.0}, {3, 30.0}};
  constexpr int kMaxReleaseFrames = (30 + 3) / 2 + 1;  // longest hangover plus the analysis window
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode);
    const BurstScene scene = MakeBursts(c.snr_db, 22);
    NsInstance ns(c.mode);
    std::vector<int> hop_flags;
    ns.Run(scene.mix, &hop_flags);
    const std::vector<int> flags = FrameFlags(hop_flags);
    const std::vector<std::uint8_t> &label = scene.frame_labels;
    int bursts = 0, missed_speech = 0, speech_frames = 0, late_flags = 0, pause_frames = 0;
    for (std::size_t f = 1; f < flags.size(); ++f) {
      if (label[f]) {
        ++speech_frames;
        missed_speech += !flags[f];
        if (!label[f - 1]) {
          ++bursts;
          EXPECT_EQ(flags[f], 1) << "onset at frame " << f;
        }
        continue;
      }
      std::size_t since_burst = 0;
      while (since_burst < f && !label[f - since_burst]) ++since_burst;
      if (since_burst == f) continue;  // lead-in before the first burst
      if (since_burst > kMaxReleaseFrames) {
        ++pause_frames;
        late_flags += flags[f];
      } else if (since_burst == kMaxReleaseFrames) {
        EXPECT_EQ(flags[f], 0) << "still flagged after the hangover, frame " << f;
      }
    }
    // Stationary noise alone: the share of frames flagged once the trackers
    // have settled is the rules' own figure; it is reported, not bounded.
    NsInstance noise_only(c.mode);
    std::vector<int> noise_flags;
    noise_only.Run(test::WhiteNoise(20 * kSecond, 300.0, 5), &noise_flags);
    const std::vector<int> noise_frames = FrameFlags(noise_flags);
    const std::size_t settled = 5 * kSecond / 256;
    const double noise_flagged =
        std::count(noise_frames.begin() + settled, noise_frames.end(), 1) / double(noise_frames.size() - settled);
    std::printf("[ vad ] mode %d at %.0f dB: %d bursts, %.1f%% speech frames missed, %.1f%% pause frames flagged "
                "after release; noise alone: %.1f%% frames flagged\n", c.mode, c.snr_db, bursts,
                100.0 * missed_speech / speech_frames, 100.0 * late_flags / pause_frames, 100.0 * noise_flagged);
    EXPECT_EQ(bursts, 9);
  }
}

TEST(NsVad, WakeUpRuleIsSilentWhenTheLoudspeakerDominates) {
  const BurstScene scene = MakeBursts(30.0, 10);
  struct Case {
    float ratio_db;
    bool all_silent;
  };
  std::vector<int> unset_flags;
  NsInstance reference(3);
  reference.Run(scene.mix, &unset_flags);
  for (const Case c : {Case{600.0f, true}, Case{500.5f, true}, Case{400.0f, false}}) {
    SCOPED_TRACE(c.ratio_db);
    NsInstance ns(3);
    SetNsRefToAecRatio(&ns.param(), c.ratio_db);
    std::vector<int> flags;
    ns.Run(scene.mix, &flags);
    if (c.all_silent) {
      EXPECT_EQ(std::count(flags.begin(), flags.end(), 1), 0);
    } else {
      EXPECT_EQ(flags, unset_flags);  // the ratio only matters above 500 dB
    }
  }
}

// After digital silence the noise estimate sits at its floor, so a loud onset
// has an a posteriori SNR near the float limit; no state value may overflow.
TEST(AdspNsProc, LoudOnsetAfterDigitalSilenceStaysFinite) {
  Signal x(5 * kSecond, 0.0f);
  const Signal burst = test::WhiteNoise(kSecond, 30000.0, 5);
  x.insert(x.end(), burst.begin(), burst.end());
  NsInstance ns;
  int non_finite = 0;
  const Signal y = ns.Run(x, nullptr, [&](int) {
    const T_AdspNsState &st = ns.state();
    for (int k = 0; k < kNsBins; ++k)
      non_finite += !std::isfinite(st.v[k]) + !std::isfinite(st.eta[k]) + !std::isfinite(st.gamma[k]);
  });
  EXPECT_EQ(non_finite, 0);
  EXPECT_TRUE(std::all_of(y.begin(), y.end(), [](float v) { return std::isfinite(v); }));
}

}  // namespace
}  // namespace vorn
