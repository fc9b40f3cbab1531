// Digital AGC: gain table, calling convention, fixed-point helpers and the
// compressor's behaviour on signals a user would feed it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numbers>
#include <tuple>
#include <vector>

#include "adsp_agc/agc_spl.h"
#include "adsp_agc/analog_agc.h"
#include "sim/signals.h"

namespace vorn {
namespace {

using sim::Signal;
using Pcm = std::vector<int16_t>;
using Mask = std::vector<uint8_t>;
constexpr size_t kSecond = 16000;

struct Instance {
  alignas(8) unsigned char bytes[kAgcInstanceSize] = {};
  Instance() { EXPECT_EQ(DigitalAgc_Init(bytes, kAgcInstanceSize, 16000), 0); }
  Agc_t* agc() { return reinterpret_cast<Agc_t*>(bytes); }
  DigitalAgc_t* digital() { return &agc()->digitalAgc; }
};

struct Steering { int16_t cmd_wkp = 1; int32_t snr_Q10[3] = {0, 0, 0}; int16_t snr_flag = 1; };

// Whole frames through the front end's call, from a fresh instance; watch sees the record around each.
Pcm RunFrames(const Pcm& in, const Steering& s = {}, size_t frame = 256, bool in_place = false,
              const std::function<void(const DigitalAgc_t&, const DigitalAgc_t&)>& watch = nullptr) {
  Instance inst;
  Pcm out = in_place ? in : Pcm(in.size());
  for (size_t f = 0; f + frame <= in.size(); f += frame) {
    const DigitalAgc_t before = *inst.digital();
    const int16_t* from = in_place ? &out[f] : &in[f];
    const int32_t length = static_cast<int32_t>(frame);
    EXPECT_EQ(DigitalAgc_Process(inst.bytes, from, length, &out[f], -1, s.cmd_wkp, s.snr_Q10, s.snr_flag), 0);
    if (watch) watch(before, *inst.digital());
  }
  return out;
}

double Amplitude(double dbfs) { return 32768.0 * std::pow(10.0, dbfs / 20.0); }

// dBFS of x[from, to) over the samples that active marks.
double Level(const Pcm& x, size_t from, size_t to, const Mask& active) {
  const double mean_square = sim::MaskedMeanSquare(Signal(x.data() + from, x.data() + to),
                                                    Mask(active.data() + from, active.data() + to), 1);
  return sim::PowerDb(mean_square / (32768.0 * 32768.0));
}

int PeakAbs(const Pcm& x, size_t from, size_t to) {
  auto by_magnitude = [](int16_t a, int16_t b) { return std::abs(a) < std::abs(b); };
  return std::abs(*std::max_element(x.data() + from, x.data() + to, by_magnitude));
}

// The compressor curve evaluated independently in long double, entry by entry with no early stop.
void ExpectReferenceTable(const int32_t* table, int G, int T, int R) {
  const long double e = 2.7182817459106445L;
  const long double A = std::log(std::pow(e, static_cast<long double>(G)) + 1.0L);
  const long double max_Q16 = 65536.0L * std::pow(10.0L, (G - T) / 20.0L);
  for (int k = 0; k < 32; ++k) {
    const long double x = G - (k == 31 ? 30 : k - 1) * 3.0103L * (R - 1) / R;
    const long double want = max_Q16 * std::pow(10.0L, -0.05L * G * std::log(1.0L + std::pow(e, x)) / A);
    const long double rounded = std::clamp(std::round(want), -2147483647.0L, 2147483647.0L);
    // A value within a hair of a half-integer may round either way.
    const bool tie = std::fabs(std::fabs(want - std::trunc(want)) - 0.5L) < 1e-6L;
    EXPECT_NEAR(double(table[k]), double(rounded), tie ? 1.0 : 0.0) << "entry " << k;
  }
}

TEST(AgcGainTable, MatchesIndependentEvaluationAndChecksItsArguments) {
  struct Case { const char* name; int16_t G, T, R; };
  const Case cases[] = {{"front end default", 50, 6, 80},          {"mild compression", 9, 3, 3},
                        {"negative target", 20, -5, 80},           {"no compression gain", 0, 0, 80},
                        {"negative gain, saturating", -10, 3, 80}, {"ratio one", 30, 3, 1}};
  int32_t table[32];
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(DigitalAgc_CalculateGainTable_Float(table, c.G, c.T, c.R), 0);
    ExpectReferenceTable(table, c.G, c.T, c.R);
  }
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(nullptr, 50, -1, 1), -3);  // null is checked first
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, -1, 1), -1);
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, -1, 2), 0);
  EXPECT_EQ(DigitalAgc_CalculateGainTable_Float(table, 50, 0, 1), 0);
}

TEST(AgcInterface, CallingConventionAndReturnCodes) {
  alignas(8) unsigned char bytes[kAgcInstanceSize];
  std::memset(bytes, 0x5A, sizeof(bytes));
  EXPECT_EQ(DigitalAgc_Init(nullptr, 388, 16000), -3);
  EXPECT_EQ(DigitalAgc_Init(bytes, 387, 16000), -2);
  EXPECT_EQ(DigitalAgc_Init(bytes, 388, 8000), -2);
  EXPECT_EQ(DigitalAgc_Init(bytes, 388, 32000), -2);
  EXPECT_EQ(bytes[0], 0x5A);  // the rejected calls wrote nothing
  EXPECT_EQ(DigitalAgc_set_config(bytes, DigitalAgc_config_t{6, 50, 3, 1}), -1);
  EXPECT_EQ(DigitalAgc_get_config(nullptr, nullptr), -1);

  // Init applies gain 50 and target 6, the table always ratio 80; a rejected configuration changes nothing.
  Instance inst;
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{32, 20, 3, 1}), -1);
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{3, 20, 3, 2}), -1);
  ExpectReferenceTable(inst.digital()->gainTable, 50, 6, 80);
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{-3, 20, 3, 0}), 0);
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{31, 20, 20, 1}), 0);
  ExpectReferenceTable(inst.digital()->gainTable, 20, 31, 80);
  inst.agc()->agcMode = kAgcModeFixedDigital;  // counts the gain from the target
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{3, 20, 3, 1}), 0);
  ExpectReferenceTable(inst.digital()->gainTable, 23, 3, 80);
  inst.agc()->agcMode = 4;
  EXPECT_EQ(DigitalAgc_set_config(inst.bytes, DigitalAgc_config_t{3, 20, 3, 1}), -1);

  const Pcm frame(512, 100);
  Pcm out(512);
  const int32_t snr[3] = {1000, 2000, 3000};
  enum : unsigned { kInstance = 1, kIn = 2, kOut = 4, kSnr = 8 };  // which pointer is null
  struct Case { const char* name; void (*prepare)(Agc_t*); unsigned nulls; int32_t samples; int16_t vad, wkp;
                int want; };
  const Case cases[] = {
      {"valid", nullptr, 0, 256, 1, 2, 0},              {"null instance", nullptr, kInstance, 256, -1, 2, -1},
      {"vad flag 2", nullptr, 0, 256, 2, 2, -1},        {"vad flag -2", nullptr, 0, 256, -2, 2, -1},
      {"wake-up mode 0", nullptr, 0, 256, -1, 0, -1},   {"wake-up mode 3", nullptr, 0, 256, -1, 3, -1},
      {"null input", nullptr, kIn, 256, -1, 2, -3},     {"null output", nullptr, kOut, 256, -1, 2, -3},
      {"null SNR", nullptr, kSnr, 256, -1, 2, -3},      {"320 samples", nullptr, 0, 320, -1, 2, -2},
      {"zero samples", nullptr, 0, 0, -1, 2, -2},
      {"upper-band rate first", [](Agc_t* a) { a->fs = 32000, a->initFlag = 0; }, 0, 256, -1, 2, -3},
      {"not initialised", [](Agc_t* a) { a->initFlag = 0; }, 0, 256, -1, 2, -2},
      {"wrong rate", [](Agc_t* a) { a->fs = 8000; }, 0, 256, -1, 2, -2},
      {"wrong length", [](Agc_t* a) { a->Agc_t_len = 400; }, 0, 256, -1, 2, -2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance agc;
    if (c.prepare) c.prepare(agc.agc());
    EXPECT_EQ(DigitalAgc_Process(c.nulls & kInstance ? nullptr : agc.bytes, c.nulls & kIn ? nullptr : &frame[0],
                                 c.samples, c.nulls & kOut ? nullptr : &out[0], c.vad, c.wkp,
                                 c.nulls & kSnr ? nullptr : snr, 1),
              c.want);
    // The steering is taken before the buffers are judged, unless it is itself out of range.
    const DigitalAgc_t* d = agc.digital();
    const auto init_left = std::tuple(0, 1, 0, 0);
    EXPECT_EQ(std::tuple(int{d->AgcVadFlag}, int{d->cmdWkp}, int{d->snrFlag}, d->SNR[2]),
              c.want != -1 ? std::tuple(int{c.vad}, int{c.wkp}, 1, c.nulls & kSnr ? 0 : 3000) : init_left);
  }

  // A block at an unknown rate is refused; at 32000 Hz the upper band gets exactly the lower band's gains.
  Instance split;
  const Pcm in = sim::ToPcm(sim::MakeSpeechLike(kSecond, 21).samples);
  Pcm low(256), high(256);
  EXPECT_EQ(DigitalAgc_ProcessDigital(split.digital(), &low[0], nullptr, &low[0], nullptr, 44100), -1);
  EXPECT_EQ(DigitalAgc_ProcessDigital(nullptr, &low[0], nullptr, &low[0], nullptr, 16000), -1);
  EXPECT_EQ(DigitalAgc_ProcessDigital(split.digital(), &low[0], nullptr, &low[0], nullptr, 8000), 0);
  for (size_t f = 0; f + 256 <= in.size(); f += 256) {
    low.assign(&in[f], &in[f] + 256);
    high = low;
    ASSERT_EQ(DigitalAgc_ProcessDigital(split.digital(), &low[0], &high[0], &low[0], &high[0], 32000), 0);
    ASSERT_EQ(low, high);
  }
}

TEST(AgcHelpers, DivisionAndSquareRootEdges) {
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(12345, 0), 0xFFFFFFFFu);
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(0xFFFFFFFFu, 1), 0xFFFFFFFFu);
  EXPECT_EQ(AdaptAgcSpl_DivU32U16(0xFFFFFFFFu, 0xFFFF), 65537u);
  struct Case { int32_t num; int16_t den; int32_t want32; int16_t want16; };
  const Case cases[] = {
      {12345, 0, 0x7FFFFFFF, 32767}, {-12345, 0, 0x7FFFFFFF, 32767},     {-7, 2, -3, -3},  // toward zero
      {7, -2, -3, -3},               {INT32_MIN, -1, INT32_MAX, 32767}, {INT32_MIN, 1, INT32_MIN, -32768},
      {1 << 20, 1, 1 << 20, 32767},  {-(1 << 20), 3, -349525, -32768},  {32767 * 250, 250, 32767, 32767},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.num << " / " << c.den);
    EXPECT_EQ(AdaptAgcSpl_DivW32W16(c.num, c.den), c.want32);
    EXPECT_EQ(AdaptAgcSpl_DivW32W16ResW16(c.num, c.den), c.want16);
  }
  // Every integer up to about 1400, then geometric steps up to 2^31.
  std::vector<int32_t> roots = {0, 1 << 30, (1 << 30) - 1, (1 << 30) + 1, 46340 * 46340 - 1, INT32_MAX - 1};
  for (double v = 1.0; v < 2147483647.0; v *= 1.0007) roots.push_back(static_cast<int32_t>(v));
  for (int32_t v : roots) {
    const double exact = std::sqrt(static_cast<double>(v));
    ASSERT_LE(std::fabs(AdaptAgcSpl_Sqrt(v) - exact), 0.5 + 1e-5 * exact) << v;
  }
  EXPECT_EQ(AdaptAgcSpl_Sqrt(INT32_MAX), 46341);
  // Negative arguments (rounding in variance formulas) take the magnitude.
  EXPECT_EQ(AdaptAgcSpl_Sqrt(-4), 2);
  EXPECT_EQ(AdaptAgcSpl_Sqrt(INT32_MIN), 46341);
}

// dB of the amplitude of frequency f (relative to the rate) in x past skip, full scale 30000: a one-bin DFT.
double ToneDb(const Pcm& x, size_t skip, double f) {
  std::complex<double> sum = 0.0;
  const double step = -2.0 * std::numbers::pi * f;
  for (size_t i = 0; i + skip < x.size(); ++i) sum += std::polar(double(x[skip + i]), step * double(i));
  return 20.0 * std::log10(2.0 * std::abs(sum) / double(x.size() - skip) / 30000.0);
}

TEST(AgcHelpers, HalfBandResamplersPassAndStop) {
  // Whole numbers of cycles over the analysis windows keep the DFT free of leakage.
  for (const double hz : {500.0, 3000.0, 5000.0, 7000.0}) {
    SCOPED_TRACE(testing::Message() << hz << " Hz");
    // Decimation in uneven chunks (the state carries the filter across calls), then interpolation back.
    const Pcm in = sim::ToPcm(sim::Tone(16384, hz, 30000.0));
    Pcm low(in.size() / 2), back(in.size());
    int32_t down_state[8] = {}, up_state[8] = {};
    size_t done = 0;
    for (size_t len : {6, 250, 1000, 15128}) {
      AdaptAgcSpl_DownsampleBy2(&in[done], len, &low[done / 2], down_state);
      done += len;
    }
    AdaptAgcSpl_UpsampleBy2(low.data(), low.size(), back.data(), up_state);
    if (hz > 4000) {
      EXPECT_LE(ToneDb(low, 1024, (8000 - hz) / 8000), -70.0);  // nothing aliases
      continue;
    }
    // Unity gain both ways, and the image around 4 kHz suppressed like the stopband.
    EXPECT_NEAR(ToneDb(low, 1024, hz / 8000), 0.0, 0.05);
    EXPECT_NEAR(ToneDb(back, 2048, hz / 16000), 0.0, 0.05);
    EXPECT_LE(ToneDb(back, 2048, 0.5 - hz / 16000), -70.0);
  }
}

TEST(AgcBehaviour, LevelCurvesFollowTheCompressor) {
  // A talker with a floor 40 dB below it (as the suppressor leaves it), and a tone, scaled to each level;
  // the steady state is measured over the last 4 of 8 s.
  const size_t n = 8 * kSecond;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 11, {.rms = 1000.0});
  const Signal speech = sim::Mix(talker.samples, sim::WhiteNoise(n, 10.0, 5));
  const Signal tone = sim::Tone(n, 500.0, 1000.0 * std::sqrt(2.0));
  const Mask always(n, 1);
  for (const int16_t mode : {int16_t{1}, int16_t{2}}) {
    for (const bool is_tone : {true, false}) {
      SCOPED_TRACE(testing::Message() << (is_tone ? "tone" : "speech-like") << ", wake-up mode " << mode);
      const Mask& active = is_tone ? always : talker.active;
      double first_out = 0.0, last_out = -200.0, top_min = 0.0, top_max = -200.0;
      for (int level_db = -60; level_db <= 0; level_db += 6) {
        Signal source = is_tone ? tone : speech;
        for (float& v : source) v *= static_cast<float>(32767.0 * std::pow(10.0, level_db / 20.0) / 1000.0);
        const Pcm in = sim::ToPcm(source);
        const Pcm out = RunFrames(in, Steering{mode});
        const double in_db = Level(in, n / 2, n, active), out_db = Level(out, n / 2, n, active);
        const double peak_db = 20.0 * std::log10(PeakAbs(out, n / 2, n) / 32768.0);
        std::printf("%s mode %d: in %6.1f dBFS -> out %6.1f dBFS (peak %5.1f dBFS)\n",
                    is_tone ? "tone  " : "speech", mode, in_db, out_db, peak_db);
        // Quiet input is raised a lot, loud input brought down to the target, no peak nears full scale,
        // and the curve never falls.
        EXPECT_TRUE(in_db > -36.0 || out_db - in_db >= 15.0) << in_db;
        EXPECT_TRUE(in_db < -6.0 || out_db - in_db <= -2.0) << in_db;
        EXPECT_LE(peak_db, -5.0) << in_db;
        EXPECT_GE(out_db, last_out - 1.0) << in_db;
        if (level_db == -60) first_out = out_db;
        if (in_db >= -30.0) top_min = std::min(top_min, out_db), top_max = std::max(top_max, out_db);
        last_out = out_db;
      }
      EXPECT_LE(last_out - first_out, 35.0);  // 60 dB of input dynamics leave at most 35 dB
      EXPECT_LE(top_max - top_min, 6.0);      // above -30 dBFS the output sits within 6 dB of one level
    }
  }
}

TEST(AgcBehaviour, LimiterKeepsFullScaleOnsetsFromWrapping) {
  // Quiet speech drives the gain up; full-scale noise or a tone then starts at various points of a block.
  struct Case { const char* name; bool tone; size_t onset_in_block; };
  const Case cases[] = {{"noise at block start", false, 0}, {"noise in first sub-frame", false, 7},
                        {"noise mid-block", false, 100},    {"noise at block end", false, 255},
                        {"tone at block start", true, 0},   {"tone mid-block", true, 133}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t quiet = 250 * 256 + c.onset_in_block;
    Signal x = sim::MakeSpeechLike(quiet, 3, {.rms = Amplitude(-50.0)}).samples;
    const Signal burst = c.tone ? sim::Tone(kSecond, 1000.0, 40000.0) : sim::WhiteNoise(kSecond, 40000.0, 4);
    x.insert(x.end(), burst.begin(), burst.end());
    const Pcm in = sim::ToPcm(x);  // clipped to full scale
    const Pcm out = RunFrames(in);
    const size_t end = in.size() / 256 * 256;
    size_t saturated = 0, last_saturated = 0;
    for (size_t i = quiet; i < end; ++i) {
      ASSERT_FALSE((in[i] > 0 && out[i] < 0) || (in[i] < 0 && out[i] > 0)) << i;  // no wrap-around
      if (std::abs(out[i]) >= 32767) last_saturated = i - quiet, ++saturated;
    }
    // Clipping stays within the first sub-frame after the onset, and only an onset in a block's first or last
    // sub-frame clips at all (others are seen a sub-frame early); then the peak sits near -6 dBFS.
    const bool mid_block = c.onset_in_block >= 16 && c.onset_in_block < 240;
    EXPECT_LE(saturated, mid_block ? 0u : 16u);
    EXPECT_LT(last_saturated, 32u);
    EXPECT_LE(PeakAbs(out, quiet + 32, end), 32768 / 2 + 300);
  }
}

TEST(AgcBehaviour, WakeUpModesAndSnrSetTheRecoveryRate) {
  // A loud talker, then one 20 dB quieter over a -62 dBFS floor. The slow envelope falls at 65 (mode 1) or 15
  // (mode 2) parts in 65536 per millisecond, so the gain climbs back about 65/15 times as fast in mode 1;
  // high SNR figures speed mode 1 up further and leave mode 2 alone.
  const size_t loud_len = 4 * kSecond;
  sim::SpeechLike talk = sim::MakeSpeechLike(loud_len, 3, {.rms = Amplitude(-16.0)});
  const sim::SpeechLike quiet = sim::MakeSpeechLike(16 * kSecond, 4, {.rms = Amplitude(-36.0)});
  talk.samples.insert(talk.samples.end(), quiet.samples.begin(), quiet.samples.end());
  talk.active.insert(talk.active.end(), quiet.active.begin(), quiet.active.end());
  const Pcm in = sim::ToPcm(sim::Mix(talk.samples, sim::WhiteNoise(talk.samples.size(), 26.0, 9)));
  const size_t end = in.size() / 256 * 256;
  // SNR figures: frame SNR 30 dB, long-term 10 dB, segmental 20 dB.
  const Steering cases[] = {{1, {}, 0}, {2, {}, 0}, {1, {30720, 10240, 20480}, 1},
                            {2, {30720, 10240, 20480}, 1}};
  double rise_db[4], final_db[4];
  Pcm outputs[4];
  for (int i = 0; i < 4; ++i) {
    // The last run also takes 512-sample frames in place, which must change nothing either.
    outputs[i] = i < 3 ? RunFrames(in, cases[i]) : RunFrames(in, cases[i], 512, true);
    const double early = Level(outputs[i], loud_len + kSecond, loud_len + 3 * kSecond, talk.active);
    final_db[i] = Level(outputs[i], end - 2 * kSecond, end, talk.active);
    rise_db[i] = final_db[i] - early;
  }
  EXPECT_GE(rise_db[0], 6.0);
  EXPECT_GT(rise_db[1], 0.5);
  EXPECT_GT(rise_db[0] / rise_db[1], 3.0);
  EXPECT_LT(rise_db[0] / rise_db[1], 6.0);
  EXPECT_GE(final_db[2], final_db[0] + 6.0);
  EXPECT_EQ(outputs[3], outputs[1]);
  EXPECT_EQ(RunFrames(in, cases[1], 512), outputs[1]);
}

TEST(AgcBehaviour, NoiseFloorDoesNotPumpTheGain) {
  // Speech at -30 dBFS over white noise. A -70 dBFS floor must not be lifted over 30 s of silence after the
  // speech. A floor 14 dB under the speech that reaches 0x800000 at the output (about -21 dBFS peak) stops
  // the slow envelope's fall in mode 1; mode 2 does not look at the floor.
  for (const bool loud : {false, true}) {
    const size_t speech_len = (loud ? 20 : 4) * kSecond, n = speech_len + (loud ? 0 : 30 * kSecond);
    sim::SpeechLike x = sim::MakeSpeechLike(speech_len, 3, {.rms = Amplitude(-30.0)});
    x.samples.resize(n, 0.0f);
    x.active.resize(n, 1);  // the noise is measured on every sample after the speech
    const Pcm in = sim::ToPcm(sim::Mix(x.samples, sim::WhiteNoise(n, Amplitude(loud ? -44.0 : -70.0), 9)));
    for (const int16_t mode : {int16_t{1}, int16_t{2}}) {
      SCOPED_TRACE(testing::Message() << (loud ? "loud" : "quiet") << " floor, wake-up mode " << mode);
      int loud_floor_blocks = 0, slow_fell = 0;  // the slow envelope fell in slow_fell of them
      auto watch = [&](const DigitalAgc_t& was, const DigitalAgc_t& is) {
        loud_floor_blocks += was.noiseAmpNrg >= 0x800000;
        slow_fell += was.noiseAmpNrg >= 0x800000 && is.capacitorSlow < was.capacitorSlow;
      };
      const Pcm out = RunFrames(in, {mode, {}, 0}, 256, false, watch);
      if (loud) {
        EXPECT_GT(loud_floor_blocks, 100);
        EXPECT_TRUE(mode == 1 ? slow_fell == 0 : slow_fell > 50) << slow_fell;
        continue;
      }
      const double speech_db = Level(out, kSecond, speech_len, x.active);
      const double early_noise_db = Level(out, speech_len + kSecond, speech_len + 3 * kSecond, x.active);
      const double late_noise_db = Level(out, n - 5 * kSecond, n, x.active);
      EXPECT_LE(late_noise_db - early_noise_db, 3.0);
      EXPECT_LE(late_noise_db, speech_db - 41.0);  // the gate is worth about 3 dB of this
    }
  }
}

}  // namespace
}  // namespace vorn
