// Digital AGC: gain table, calling convention, fixed-point helpers and the
// compressor's behaviour on signals a user would feed it.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <numbers>
#include <vector>

#include "adsp_agc/agc_spl.h"
#include "adsp_agc/analog_agc.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::Signal;

constexpr double kFullScalePower = 32768.0 * 32768.0;

// An instance in its own correctly aligned storage.
struct Instance {
  alignas(8) unsigned char bytes[kAgcInstanceSize] = {};
  Instance() { EXPECT_EQ(DigitalAgc_Init(bytes, kAgcInstanceSize, 16000), 0); }
  Agc_t* agc() { return reinterpret_cast<Agc_t*>(bytes); }
  DigitalAgc_t* digital() { return &agc()->digitalAgc; }
};

struct Steering {
  int16_t cmd_wkp = 1;
  int32_t snr_Q10[3] = {0, 0, 0};
  int16_t snr_flag = 1;
};

// Runs whole frames through the front end's call; returns the output.
std::vector<int16_t> RunFrames(Instance& inst, const std::vector<int16_t>& in, const Steering& steer) {
  std::vector<int16_t> out(in.size());
  for (size_t f = 0; f + 256 <= in.size(); f += 256) {
    EXPECT_EQ(DigitalAgc_Process(inst.bytes, in.data() + f, 256, out.data() + f, -1, steer.cmd_wkp,
                                 steer.snr_Q10, steer.snr_flag),
              0);
  }
  return out;
}

double Dbfs(double mean_square) { return test::PowerDb(mean_square / kFullScalePower); }

Signal Tail(const std::vector<int16_t>& x, size_t from, size_t to) { return Signal(x.begin() + from, x.begin() + to); }

double Level(const std::vector<int16_t>& x, size_t from, size_t to) {
  const double rms = test::Rms(Tail(x, from, to));
  return Dbfs(rms * rms);
}

int PeakAbs(const std::vector<int16_t>& x, size_t from, size_t to) {
  int peak = 0;
  for (size_t i = from; i < to; ++i) peak = std::max(peak, std::abs(static_cast<int>(x[i])));
  return peak;
}

// ---------------------------------------------------------------------------
// Gain table

// The compressor curve evaluated independently in long double, entry by
// entry with no early stop.
std::vector<long double> ReferenceGainTable(int G, int T, int R) {
  const long double e = 2.7182817459106445L;
  const long double A = std::log(std::pow(e, static_cast<long double>(G)) + 1.0L);
  const long double max_Q16 = 65536.0L * std::pow(10.0L, (G - T) / 20.0L);
  std::vector<long double> table(32);
  for (int k = 0; k < 32; ++k) {
    const int step = k == 31 ? 30 : k - 1;
    const long double x = G - step * 3.0103L * (R - 1) / R;
    table[k] = max_Q16 * std::pow(10.0L, -0.05L * G * std::log(1.0L + std::pow(e, x)) / A);
  }
  return table;
}

TEST(AgcGainTable, MatchesIndependentEvaluation) {
  struct Case {
    const char* name;
    int G, T, R;
  } const cases[] = {
      {"front end default", 50, 6, 80}, {"mild compression", 9, 3, 3},  {"negative target", 20, -5, 80},
      {"no compression gain", 0, 0, 80}, {"negative gain, saturating", -10, 3, 80}, {"ratio one", 30, 3, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int32_t table[32];
    ASSERT_EQ(DigitalAgc_CalculateGainTable_Float(table, static_cast<int16_t>(c.G), static_cast<int16_t>(c.T),
                                                  static_cast<int16_t>(c.R)),
              0);
    const std::vector<long double> want = ReferenceGainTable(c.G, c.T, c.R);
    for (int k = 0; k < 32; ++k) {
      const long double rounded = std::clamp(std::round(want[k]), -2147483647.0L, 2147483647.0L);
      // A value within a hair of a half-integer may round either way.
      const bool tie = std::fabs(std::fabs(want[k] - std::trunc(want[k])) - 0.5L) < 1e-6L;
      EXPECT_NEAR(static_cast<double>(table[k]), static_cast<double>(rounded), tie ? 1.0 : 0.0) << "entry " << k;
    }
  }
}

TEST(AgcGainTable, ReturnCodesAndWhatShapesTheTable) {
  int32_t table[32];
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(nullptr, 50, 6, 80), -3);
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(nullptr, 50, -1, 1), -3);  // null is checked first
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, -1, 1), -1);
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, -1, 2), 0);
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, 0, 1), 0);

  // The configured ratio is reported back but never shapes the table.
  Instance a, b;
  DigitalAgc_config_t config{9, 30, 2, 1};
  ASSERT_EQ(DigitalAgc_set_config(a.bytes, config), 0);
  config.CompRatio = 20;
  ASSERT_EQ(DigitalAgc_set_config(b.bytes, config), 0);
  EXPECT_EQ(0, std::memcmp(a.digital()->gainTable, b.digital()->gainTable, sizeof(a.digital()->gainTable)));
  DigitalAgc_config_t read{};
  ASSERT_EQ(DigitalAgc_get_config(b.bytes, &read), 0);
  EXPECT_EQ(read.CompRatio, 20);

  // In fixed-digital mode the gain counts from the target.
  Instance fixed;
  fixed.agc()->agcMode = kAgcModeFixedDigital;
  ASSERT_EQ(DigitalAgc_set_config(fixed.bytes, DigitalAgc_config_t{6, 10, 3, 1}), 0);
  int32_t want[32];
  ASSERT_EQ(DigitalAgc_CalculateGainTable_Float(want, 16, 6, 80), 0);
  EXPECT_EQ(0, std::memcmp(fixed.digital()->gainTable, want, sizeof(want)));
  EXPECT_EQ(fixed.agc()->analogTarget, 16);
  EXPECT_EQ(fixed.agc()->usedConfig.compressionGaindB, 10);
}

// ---------------------------------------------------------------------------
// Calling convention

TEST(AgcInterface, InitAndConfigurationChecks) {
  alignas(8) unsigned char bytes[kAgcInstanceSize];
  std::memset(bytes, 0x5A, sizeof(bytes));
  EXPECT_EQ(DigitalAgc_Init(nullptr, 388, 16000), -3);
  EXPECT_EQ(DigitalAgc_Init(bytes, 387, 16000), -2);
  EXPECT_EQ(DigitalAgc_Init(bytes, 388, 8000), -2);
  EXPECT_EQ(DigitalAgc_Init(bytes, 388, 32000), -2);
  // Nothing was written by the rejected calls.
  EXPECT_EQ(bytes[0], 0x5A);
  EXPECT_EQ(DigitalAgc_set_config(bytes, DigitalAgc_config_t{6, 50, 3, 1}), -1);

  ASSERT_EQ(DigitalAgc_Init(bytes, 388, 16000), 0);
  DigitalAgc_config_t config{};
  ASSERT_EQ(DigitalAgc_get_config(bytes, &config), 0);
  EXPECT_EQ(config.targetLevelDbfs, 6);
  EXPECT_EQ(config.compressionGaindB, 50);
  EXPECT_EQ(config.CompRatio, 3);
  EXPECT_EQ(config.limiterEnable, 1);
  EXPECT_EQ(DigitalAgc_get_config(nullptr, &config), -1);
  EXPECT_EQ(DigitalAgc_version(), 10000);

  struct Case {
    const char* name;
    DigitalAgc_config_t config;
    int16_t mode;
    int want;
  } const cases[] = {
      {"valid", {3, 20, 3, 0}, kAgcModeAdaptiveDigital, 0},
      {"limiter flag 2", {3, 20, 3, 2}, kAgcModeAdaptiveDigital, -1},
      {"target 31", {31, 20, 3, 1}, kAgcModeAdaptiveDigital, 0},
      {"target 32", {32, 20, 3, 1}, kAgcModeAdaptiveDigital, -1},
      {"negative target", {-3, 20, 3, 1}, kAgcModeAdaptiveDigital, 0},
      {"mode 3", {3, 20, 3, 1}, kAgcModeFixedDigital, 0},
      {"mode 4", {3, 20, 3, 1}, 4, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance inst;
    inst.agc()->agcMode = c.mode;
    const std::vector<int32_t> before(inst.digital()->gainTable, inst.digital()->gainTable + 32);
    EXPECT_EQ(DigitalAgc_set_config(inst.bytes, c.config), c.want);
    if (c.want != 0) {
      EXPECT_TRUE(std::equal(before.begin(), before.end(), inst.digital()->gainTable));
      EXPECT_EQ(inst.agc()->targetLevelDbfs, 6);
    }
  }
}

TEST(AgcInterface, ProcessChecksInOrder) {
  const std::vector<int16_t> frame(512, 100);
  std::vector<int16_t> out(512);
  const int32_t snr[3] = {1000, 2000, 3000};

  enum : unsigned { kInstance = 1, kIn = 2, kOut = 4, kSnr = 8 };  // which pointer is null
  struct Case {
    const char* name;
    void (*prepare)(Agc_t*);
    unsigned null_args;
    int32_t samples;
    int16_t vad_flag, cmd_wkp;
    int want;
    bool steering_stored;  // flags and mode; the SNR figures too unless null
  } const cases[] = {
      {"valid", nullptr, 0, 256, -1, 2, 0, true},
      {"two blocks", nullptr, 0, 512, 1, 1, 0, true},
      {"null instance", nullptr, kInstance, 256, -1, 2, -1, false},
      {"vad flag 2", nullptr, 0, 256, 2, 2, -1, false},
      {"vad flag -2", nullptr, 0, 256, -2, 2, -1, false},
      {"wake-up mode 0", nullptr, 0, 256, -1, 0, -1, false},
      {"wake-up mode 3", nullptr, 0, 256, -1, 3, -1, false},
      {"steering before null buffer", nullptr, kIn, 256, -1, 2, -3, true},
      {"null output", nullptr, kOut, 256, -1, 2, -3, true},
      {"null SNR", nullptr, kSnr, 256, -1, 2, -3, true},
      {"steering before length", nullptr, 0, 320, -1, 2, -2, true},
      {"zero samples", nullptr, 0, 0, -1, 2, -2, true},
      {"upper-band rate before init flag", [](Agc_t* a) { a->fs = 32000; a->initFlag = 0; }, kIn, 256, -1, 2, -3, true},
      {"not initialised", [](Agc_t* a) { a->initFlag = 0; }, 0, 256, -1, 2, -2, true},
      {"wrong rate", [](Agc_t* a) { a->fs = 8000; }, 0, 256, -1, 2, -2, true},
      {"wrong length", [](Agc_t* a) { a->Agc_t_len = 400; }, 0, 256, -1, 2, -2, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance inst;
    if (c.prepare != nullptr) c.prepare(inst.agc());
    const int32_t result = DigitalAgc_Process((c.null_args & kInstance) ? nullptr : inst.bytes,
                                              (c.null_args & kIn) ? nullptr : frame.data(), c.samples,
                                              (c.null_args & kOut) ? nullptr : out.data(), c.vad_flag, c.cmd_wkp,
                                              (c.null_args & kSnr) ? nullptr : snr, 1);
    EXPECT_EQ(result, c.want);
    const DigitalAgc_t* d = inst.digital();
    if (c.steering_stored) {
      EXPECT_EQ(d->AgcVadFlag, c.vad_flag);
      EXPECT_EQ(d->cmdWkp, c.cmd_wkp);
      EXPECT_EQ(d->snrFlag, 1);
      EXPECT_EQ(d->SNR[2], (c.null_args & kSnr) ? 0 : 3000);
    } else if (!(c.null_args & kInstance)) {
      EXPECT_EQ(d->cmdWkp, 1);  // the values Init left
      EXPECT_EQ(d->SNR[2], 0);
    }
  }
}

TEST(AgcInterface, LongFramesAndInPlaceMatchBlockwiseProcessing) {
  const std::vector<int16_t> in = test::ToPcm(test::MakeSpeechLike(16000, 21).samples);
  const Steering steer;
  Instance blockwise, long_frames, in_place;
  const std::vector<int16_t> want = RunFrames(blockwise, in, steer);

  std::vector<int16_t> got(in.size());
  std::vector<int16_t> inplace = in;
  for (size_t f = 0; f + 512 <= in.size(); f += 512) {
    ASSERT_EQ(DigitalAgc_Process(long_frames.bytes, in.data() + f, 512, got.data() + f, -1, 1, steer.snr_Q10, 1), 0);
    ASSERT_EQ(DigitalAgc_Process(in_place.bytes, inplace.data() + f, 512, inplace.data() + f, -1, 1, steer.snr_Q10, 1),
              0);
  }
  const size_t whole = in.size() / 512 * 512;
  EXPECT_TRUE(std::equal(want.begin(), want.begin() + whole, got.begin()));
  EXPECT_TRUE(std::equal(want.begin(), want.begin() + whole, inplace.begin()));
}

TEST(AgcInterface, DigitalBlockRejectsUnknownRates) {
  Instance inst;
  std::vector<int16_t> block(512, 0);
  EXPECT_EQ(DigitalAgc_ProcessDigital(inst.digital(), block.data(), nullptr, block.data(), nullptr, 44100), -1);
  EXPECT_EQ(DigitalAgc_ProcessDigital(nullptr, block.data(), nullptr, block.data(), nullptr, 16000), -1);
  EXPECT_EQ(DigitalAgc_ProcessDigital(inst.digital(), block.data(), nullptr, block.data(), nullptr, 8000), 0);

  // At 32000 Hz the upper band is given exactly the lower band's gains.
  Instance split;
  const std::vector<int16_t> speech = test::ToPcm(test::MakeSpeechLike(256 * 40, 5).samples);
  std::array<int16_t, 256> low{}, high{};
  for (size_t f = 0; f < speech.size(); f += 256) {
    std::copy(speech.begin() + f, speech.begin() + f + 256, low.begin());
    high = low;
    ASSERT_EQ(DigitalAgc_ProcessDigital(split.digital(), low.data(), high.data(), low.data(), high.data(), 32000), 0);
    ASSERT_EQ(low, high);
  }
}

// ---------------------------------------------------------------------------
// Fixed-point helpers

TEST(AgcHelpers, DivisionEdges) {
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(12345, 0), 0xFFFFFFFFu);
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(0xFFFFFFFFu, 1), 0xFFFFFFFFu);
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(0xFFFFFFFFu, 0xFFFF), 65537u);
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(100, 7), 14u);

  struct Case {
    int32_t num;
    int16_t den;
    int32_t want32;
    int16_t want16;
  } const cases[] = {
      {12345, 0, 0x7FFFFFFF, 32767},
      {-12345, 0, 0x7FFFFFFF, 32767},
      {-7, 2, -3, -3},  // truncation toward zero
      {7, -2, -3, -3},
      {INT32_MIN, -1, INT32_MAX, 32767},
      {INT32_MIN, 1, INT32_MIN, -32768},
      {1 << 20, 1, 1 << 20, 32767},
      {-(1 << 20), 3, -349525, -32768},
      {32767 * 250, 250, 32767, 32767},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.num << " / " << c.den);
    EXPECT_EQ(AdaptAgcSpl_DivW32W16(c.num, c.den), c.want32);
    EXPECT_EQ(AdaptAgcSpl_DivW32W16ResW16(c.num, c.den), c.want16);
  }
}

TEST(AgcHelpers, SquareRootNearZeroAndFullRange) {
  const int32_t edges[] = {0, 1, 2, 3, 4, 5, 8, 9, 15, 16, 17, 99, 100, 1 << 30, (1 << 30) - 1, (1 << 30) + 1,
                           46340 * 46340, 46340 * 46340 - 1, INT32_MAX - 1, INT32_MAX};
  std::vector<int32_t> values(std::begin(edges), std::end(edges));
  for (double v = 1.0; v < 2147483647.0; v *= 1.0007) values.push_back(static_cast<int32_t>(v));
  for (int32_t v : values) {
    const double exact = std::sqrt(static_cast<double>(v));
    const int32_t got = AdaptAgcSpl_Sqrt(v);
    ASSERT_LE(std::fabs(got - exact), 0.5 + 1e-5 * exact) << v;
  }
  EXPECT_EQ(AdaptAgcSpl_Sqrt(INT32_MAX), 46341);
  EXPECT_EQ(AdaptAgcSpl_Sqrt(0), 0);
  // Negative arguments (rounding in variance formulas) take the magnitude.
  EXPECT_EQ(AdaptAgcSpl_Sqrt(-4), 2);
  EXPECT_EQ(AdaptAgcSpl_Sqrt(INT32_MIN), 46341);
}

// Amplitude of frequency f in x (single-bin DFT, double).
double ToneAmplitude(const std::vector<int16_t>& x, size_t skip, double f_over_fs) {
  double re = 0.0, im = 0.0;
  const size_t n = x.size() - skip;
  for (size_t i = 0; i < n; ++i) {
    re += x[skip + i] * std::cos(2.0 * std::numbers::pi * f_over_fs * static_cast<double>(i));
    im -= x[skip + i] * std::sin(2.0 * std::numbers::pi * f_over_fs * static_cast<double>(i));
  }
  return 2.0 * std::hypot(re, im) / static_cast<double>(n);
}

TEST(AgcHelpers, HalfBandResamplersPassAndStop) {
  const double amplitude = 30000.0;
  // Frequencies as fractions of the high rate (16 kHz); whole numbers of
  // cycles over the analysis window keep the DFT free of leakage.
  struct Case {
    const char* name;
    double f_high;
    double min_gain_db, max_gain_db;
  } const cases[] = {
      {"500 Hz", 500.0 / 16000, -0.05, 0.05},
      {"3000 Hz", 3000.0 / 16000, -0.05, 0.05},
      {"5000 Hz stopband", 5000.0 / 16000, -200.0, -70.0},
      {"7000 Hz stopband", 7000.0 / 16000, -200.0, -70.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // Decimation: a tone above 4 kHz must vanish instead of aliasing.
    const std::vector<int16_t> in = test::ToPcm(test::Tone(16384, c.f_high * 16000, amplitude));
    std::vector<int16_t> low(in.size() / 2);
    int32_t down_state[8] = {};
    // In uneven chunks: the state must carry the filter across calls.
    size_t done = 0;
    for (size_t chunk : {size_t{6}, size_t{250}, size_t{1000}, in.size()}) {
      const size_t len = std::min(chunk, in.size() - done);
      AdaptAgcSpl_DownsampleBy2(in.data() + done, len, low.data() + done / 2, down_state);
      done += len;
    }
    const double aliased_f = c.f_high * 2.0 > 0.5 ? 1.0 - c.f_high * 2.0 : c.f_high * 2.0;
    const double down_db = 20.0 * std::log10(ToneAmplitude(low, 1024, aliased_f) / amplitude + 1e-12);
    EXPECT_GE(down_db, c.min_gain_db);
    EXPECT_LE(down_db, c.max_gain_db);

    // Interpolation of a passband tone: unity gain, and its image (the
    // mirror around 4 kHz) suppressed like the stopband.
    if (c.f_high < 0.25) {
      const std::vector<int16_t> tone_8k = test::ToPcm(test::Tone(8192, c.f_high * 16000 * 2.0, amplitude));
      std::vector<int16_t> high(2 * tone_8k.size());
      int32_t up_state[8] = {};
      AdaptAgcSpl_UpsampleBy2(tone_8k.data(), tone_8k.size(), high.data(), up_state);
      const double f_up = c.f_high * 2.0 / 2.0;  // same frequency, relative to 16 kHz
      EXPECT_NEAR(20.0 * std::log10(ToneAmplitude(high, 2048, f_up) / amplitude), 0.0, 0.05);
      EXPECT_LE(20.0 * std::log10(ToneAmplitude(high, 2048, 0.5 - f_up) / amplitude + 1e-12), -70.0);
    }
  }
}

// ---------------------------------------------------------------------------
// Behaviour on signals

struct LevelPoint {
  double in_db, out_db, out_peak_db;
};

// Steady-state level of active passages: 8 s of input, measured over the
// last 4 s.
LevelPoint MeasureLevel(const Signal& source, const std::vector<uint8_t>& active, int16_t cmd_wkp) {
  Instance inst;
  Steering steer;
  steer.cmd_wkp = cmd_wkp;
  const std::vector<int16_t> in = test::ToPcm(source);
  const std::vector<int16_t> out = RunFrames(inst, in, steer);
  const size_t from = in.size() / 2;
  const std::vector<uint8_t> mask(active.begin() + from, active.end());
  LevelPoint p{};
  p.in_db = Dbfs(test::MaskedMeanSquare(Tail(in, from, in.size()), mask, 1));
  p.out_db = Dbfs(test::MaskedMeanSquare(Tail(out, from, out.size()), mask, 1));
  p.out_peak_db = 20.0 * std::log10(PeakAbs(out, from, out.size()) / 32768.0);
  return p;
}

TEST(AgcBehaviour, LevelCurvesFollowTheCompressor) {
  const size_t n = 8 * 16000;
  // One talker and one floor, scaled per level; the floor lies 40 dB below
  // the talker, as the noise suppressor leaves it.
  const double unit_rms = 1000.0;
  test::SpeechLikeOptions options;
  options.rms = unit_rms;
  const test::SpeechLike talker = test::MakeSpeechLike(n, 11, options);
  const Signal talker_with_floor = test::Mix(talker.samples, test::WhiteNoise(n, unit_rms / 100.0, 5));
  const Signal tone = test::Tone(n, 500.0, unit_rms * std::sqrt(2.0));
  const std::vector<uint8_t> always(n, 1);

  for (int16_t mode : {int16_t{1}, int16_t{2}}) {
    for (bool is_tone : {true, false}) {
      SCOPED_TRACE(testing::Message() << (is_tone ? "tone" : "speech-like") << ", wake-up mode " << mode);
      std::vector<LevelPoint> curve;
      for (int level_db = -60; level_db <= 0; level_db += 6) {
        const float scale = static_cast<float>(32767.0 * std::pow(10.0, level_db / 20.0) / unit_rms);
        Signal source = is_tone ? tone : talker_with_floor;
        for (float& v : source) v *= scale;
        curve.push_back(MeasureLevel(source, is_tone ? always : talker.active, mode));
        const LevelPoint& p = curve.back();
        std::printf("%s mode %d: in %6.1f dBFS -> out %6.1f dBFS (peak %5.1f dBFS)\n", is_tone ? "tone  " : "speech",
                    mode, p.in_db, p.out_db, p.out_peak_db);
      }
      for (size_t i = 0; i < curve.size(); ++i) {
        const LevelPoint& p = curve[i];
        // Quiet input is raised a lot, loud input is brought down to the
        // target, and no output peak gets near full scale.
        if (p.in_db <= -36.0) {
          EXPECT_GE(p.out_db - p.in_db, 15.0) << p.in_db;
        }
        if (p.in_db >= -6.0) {
          EXPECT_LE(p.out_db - p.in_db, -2.0) << p.in_db;
        }
        EXPECT_LE(p.out_peak_db, -5.0) << p.in_db;
        if (i > 0) {
          EXPECT_GE(p.out_db, curve[i - 1].out_db - 1.0) << p.in_db;
        }
      }
      // 60 dB of input dynamics leave at most 35 dB at the output.
      EXPECT_LE(curve.back().out_db - curve.front().out_db, 35.0);
      // Above -30 dBFS the output sits within 6 dB of one level.
      double top_min = 0.0, top_max = -200.0;
      for (const LevelPoint& p : curve) {
        if (p.in_db < -30.0) continue;
        top_min = std::min(top_min, p.out_db);
        top_max = std::max(top_max, p.out_db);
      }
      EXPECT_LE(top_max - top_min, 6.0);
    }
  }
}

TEST(AgcBehaviour, LimiterKeepsFullScaleOnsetsFromWrapping) {
  // Quiet speech drives the gain up; full-scale noise or a tone then starts
  // at various positions within a block.
  struct Case {
    const char* name;
    bool tone;
    size_t onset_in_block;
  } const cases[] = {
      {"noise at block start", false, 0}, {"noise in first sub-frame", false, 7},  {"noise mid-block", false, 100},
      {"noise at block end", false, 255}, {"tone at block start", true, 0},        {"tone mid-block", true, 133},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::SpeechLikeOptions options;
    options.rms = 32768.0 * std::pow(10.0, -50.0 / 20.0);
    const size_t quiet = 250 * 256 + c.onset_in_block, loud = 16000;
    Signal x = test::MakeSpeechLike(quiet, 3, options).samples;
    const Signal burst = c.tone ? test::Tone(loud, 1000.0, 40000.0) : test::WhiteNoise(loud, 40000.0, 4);
    x.insert(x.end(), burst.begin(), burst.end());
    const std::vector<int16_t> in = test::ToPcm(x);  // clipped to full scale
    Instance inst;
    const std::vector<int16_t> out = RunFrames(inst, in, Steering{});
    const size_t end = in.size() / 256 * 256;

    size_t saturated = 0, last_saturated = 0;
    for (size_t i = quiet; i < end; ++i) {
      // No sample may come out with the opposite sign (wrap-around).
      ASSERT_FALSE((in[i] > 0 && out[i] < 0) || (in[i] < 0 && out[i] > 0)) << i;
      if (std::abs(static_cast<int>(out[i])) >= 32767) {
        ++saturated;
        last_saturated = i - quiet;
      }
    }
    // Clipping is confined to the first sub-frame after the onset...
    EXPECT_LE(saturated, 16u);
    if (saturated > 0) {
      EXPECT_LT(last_saturated, 16u + 16u);
    }
    // ...and from then on the peak sits near the -6 dBFS target.
    EXPECT_LE(PeakAbs(out, quiet + 32, end), 32768 / 2 + 300);
  }
}

TEST(AgcBehaviour, LongSilenceDoesNotPumpTheNoise) {
  // Speech at -30 dBFS, then 30 s of a -70 dBFS noise floor.
  const size_t speech_len = 4 * 16000, silence_len = 30 * 16000;
  test::SpeechLikeOptions options;
  options.rms = 32768.0 * std::pow(10.0, -30.0 / 20.0);
  const test::SpeechLike speech = test::MakeSpeechLike(speech_len, 3, options);
  Signal x = speech.samples;
  x.resize(speech_len + silence_len, 0.0f);
  x = test::Mix(x, test::WhiteNoise(x.size(), 32768.0 * std::pow(10.0, -70.0 / 20.0), 9));
  const std::vector<int16_t> in = test::ToPcm(x);

  for (int16_t mode : {int16_t{1}, int16_t{2}}) {
    SCOPED_TRACE(testing::Message() << "wake-up mode " << mode);
    Instance inst;
    Steering steer;
    steer.cmd_wkp = mode;
    const std::vector<int16_t> out = RunFrames(inst, in, steer);
    const std::vector<uint8_t> mask(speech.active.begin() + 16000, speech.active.end());
    const double speech_db = Dbfs(test::MaskedMeanSquare(Tail(out, 16000, speech_len), mask, 1));
    const size_t end = in.size() / 256 * 256;
    const double early_noise_db = Level(out, speech_len + 16000, speech_len + 3 * 16000);
    const double late_noise_db = Level(out, end - 5 * 16000, end);
    std::printf("mode %d: speech %.1f dBFS, noise after 1-3 s %.1f dBFS, after 25-30 s %.1f dBFS\n", mode, speech_db,
                early_noise_db, late_noise_db);
    EXPECT_LE(late_noise_db - early_noise_db, 3.0);
    EXPECT_LE(late_noise_db, speech_db - 30.0);
  }
}

// Output level of the active samples in [from, to).
double ActiveLevel(const std::vector<int16_t>& out, const std::vector<uint8_t>& active, size_t from, size_t to) {
  const std::vector<uint8_t> mask(active.begin() + from, active.begin() + to);
  return Dbfs(test::MaskedMeanSquare(Tail(out, from, to), mask, 1));
}

TEST(AgcBehaviour, WakeUpModesAndSnrSetTheRecoveryRate) {
  // A loud talker, then a talker 20 dB quieter over a -62 dBFS floor. The
  // slow envelope falls at 65 (mode 1) or 15 (mode 2) parts in 65536 per
  // millisecond, so the gain climbs back about 65/15 times as fast in mode 1;
  // high SNR figures speed mode 1 up further and leave mode 2 alone.
  const size_t loud_len = 4 * 16000, quiet_len = 16 * 16000;
  test::SpeechLikeOptions options;
  options.rms = 32768.0 * std::pow(10.0, -16.0 / 20.0);
  test::SpeechLike talk = test::MakeSpeechLike(loud_len, 3, options);
  options.rms = 32768.0 * std::pow(10.0, -36.0 / 20.0);
  const test::SpeechLike quiet = test::MakeSpeechLike(quiet_len, 4, options);
  talk.samples.insert(talk.samples.end(), quiet.samples.begin(), quiet.samples.end());
  talk.active.insert(talk.active.end(), quiet.active.begin(), quiet.active.end());
  const std::vector<int16_t> in = test::ToPcm(test::Mix(talk.samples, test::WhiteNoise(talk.samples.size(), 26.0, 9)));
  const size_t end = in.size() / 256 * 256;

  // SNR figures: frame SNR 30 dB, long-term 10 dB, segmental 20 dB.
  const Steering cases[] = {{1, {0, 0, 0}, 0}, {2, {0, 0, 0}, 0}, {1, {30720, 10240, 20480}, 1},
                            {2, {30720, 10240, 20480}, 1}};
  double rise_db[4], final_db[4];
  std::vector<int16_t> outputs[4];
  for (int i = 0; i < 4; ++i) {
    Instance inst;
    outputs[i] = RunFrames(inst, in, cases[i]);
    const double early = ActiveLevel(outputs[i], talk.active, loud_len + 16000, loud_len + 3 * 16000);
    final_db[i] = ActiveLevel(outputs[i], talk.active, end - 2 * 16000, end);
    rise_db[i] = final_db[i] - early;
    std::printf("mode %d, SNR steering %d: quiet talker at %.1f dBFS after 1-3 s, %.1f dBFS after 14-16 s\n",
                cases[i].cmd_wkp, cases[i].snr_flag, early, final_db[i]);
  }
  EXPECT_GE(rise_db[0], 6.0);
  EXPECT_GT(rise_db[1], 0.5);
  EXPECT_GT(rise_db[0] / rise_db[1], 3.0);
  EXPECT_LT(rise_db[0] / rise_db[1], 6.0);
  EXPECT_GE(final_db[2], final_db[0] + 6.0);
  EXPECT_EQ(outputs[3], outputs[1]);
}

TEST(AgcBehaviour, LoudNoiseFloorHoldsTheSlowEnvelopeInModeOne) {
  // Speech 14 dB above white noise: once the output noise floor reaches
  // 0x800000 (about -21 dBFS peak), mode 1 stops letting the slow envelope
  // fall; mode 2 does not look at the floor.
  const size_t n = 20 * 16000;
  test::SpeechLikeOptions options;
  options.rms = 32768.0 * std::pow(10.0, -30.0 / 20.0);
  const Signal x = test::Mix(test::MakeSpeechLike(n, 3, options).samples,
                             test::WhiteNoise(n, 32768.0 * std::pow(10.0, -44.0 / 20.0), 9));
  const std::vector<int16_t> in = test::ToPcm(x);
  const int32_t snr[3] = {0, 0, 0};
  for (int16_t mode : {int16_t{1}, int16_t{2}}) {
    SCOPED_TRACE(testing::Message() << "wake-up mode " << mode);
    Instance inst;
    std::vector<int16_t> out(256);
    int loud_floor_blocks = 0, fell_under_loud_floor = 0;
    for (size_t f = 0; f + 256 <= in.size(); f += 256) {
      const int32_t slow_before = inst.digital()->capacitorSlow;
      const bool loud_floor = inst.digital()->noiseAmpNrg >= 0x800000;
      ASSERT_EQ(DigitalAgc_Process(inst.bytes, in.data() + f, 256, out.data(), -1, mode, snr, 0), 0);
      if (!loud_floor) continue;
      ++loud_floor_blocks;
      if (inst.digital()->capacitorSlow < slow_before) ++fell_under_loud_floor;
    }
    EXPECT_GT(loud_floor_blocks, 100);
    if (mode == 1) {
      EXPECT_EQ(fell_under_loud_floor, 0);
    } else {
      EXPECT_GT(fell_under_loud_floor, 50);
    }
  }
}

}  // namespace
}  // namespace vorn
