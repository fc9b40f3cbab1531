// Echo canceller: the result codes of every entry point, the far-end
// partition bookkeeping, the suppression and comfort-noise kernels against
// their closed forms, and end-to-end echo scenes a device would meet (far-end
// single talk, a far end that leads by 80 ms, double talk, an echo-path
// change), judged by echo return loss enhancement and near-end survival.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <memory>
#include <string>
#include <random>
#include <vector>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/echo_cancellation.h"
#include "adsp_aec/randomization_functions.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::Signal;
constexpr int kRate = 16000;
constexpr int kBlock = 64;
constexpr int kOutputLag = 64;  // the outputs lag the near end by one block

// Caller memory for one instance, aligned like any heap block.
struct Instance {
  std::unique_ptr<std::uint64_t[]> words{new std::uint64_t[kAecInstanceBytes / 8 + 1]()};
  void* get() { return words.get(); }
};

int InitDefault(Instance& inst, int nlp_pf, char* filter = nullptr) {
  return AdspAec_Init(inst.get(), kAecInstanceBytes, kRate, kRate, nlp_pf, filter);
}

// ---------------------------------------------------------------- echo scenes

// A room: a bulk delay, then a random FIR whose envelope decays by 60 dB over
// its length, scaled to the requested gain on white input.
Signal MakeEchoPath(int bulk_delay, int length, std::uint32_t seed, double gain) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> dist(0.0, 1.0);
  Signal h(bulk_delay + length, 0.0f);
  double energy = 0.0;
  for (int i = 0; i < length; ++i) {
    const double envelope = std::pow(10.0, -3.0 * i / length);
    const double tap = dist(rng) * envelope;
    h[bulk_delay + i] = static_cast<float>(tap);
    energy += tap * tap;
  }
  const double scale = gain / std::sqrt(energy);
  for (float& v : h) v = static_cast<float>(v * scale);
  return h;
}

Signal Convolve(const Signal& x, const Signal& h) {
  Signal y(x.size(), 0.0f);
  for (std::size_t n = 0; n < x.size(); ++n) {
    double acc = 0.0;
    const std::size_t taps = std::min(h.size(), n + 1);
    for (std::size_t j = 0; j < taps; ++j) acc += static_cast<double>(h[j]) * x[n - j];
    y[n] = static_cast<float>(acc);
  }
  return y;
}

double MeanSquare(const Signal& x, std::size_t from, std::size_t to) {
  double sum = 0.0;
  for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(x[i]) * x[i];
  return sum / static_cast<double>(to - from);
}

struct Scene {
  Signal far;
  Signal echo;
  Signal noise;
  Signal near_speech;  // zeros in single talk
  std::vector<std::uint8_t> near_active;
  Signal mic() const {
    Signal m(far.size());
    for (std::size_t i = 0; i < m.size(); ++i) m[i] = echo[i] + noise[i] + near_speech[i];
    return m;
  }
};

// Far-end speech through the given path(s); near-end noise 10 dB below the
// echo. A second path, when given, replaces the first from change_at on.
Scene MakeScene(double seconds, int bulk_delay, std::uint32_t seed, const Signal* second_path = nullptr,
                std::size_t change_at = 0) {
  const std::size_t n = static_cast<std::size_t>(seconds * kRate);
  Scene s;
  s.far = test::MakeSpeechLike(n, seed, {}).samples;
  const Signal path = MakeEchoPath(bulk_delay, 480, seed + 1, 0.3);
  s.echo = Convolve(s.far, path);
  if (second_path != nullptr) {
    const Signal echo2 = Convolve(s.far, *second_path);
    for (std::size_t i = change_at; i < n; ++i) s.echo[i] = echo2[i];
  }
  const double echo_rms = std::sqrt(MeanSquare(s.echo, 0, n));
  s.noise = test::PinkNoise(n, echo_rms / std::sqrt(10.0), seed + 2);
  s.near_speech.assign(n, 0.0f);
  s.near_active.assign(n, 0);
  return s;
}

struct Outputs {
  Signal asr;
  Signal com;
  std::vector<float> coherence;  // subcohXd after the last block
};

Outputs RunCanceller(const Scene& s, int nlp_pf, Instance& inst, AecConfig* config = nullptr) {
  EXPECT_EQ(InitDefault(inst, nlp_pf), 0);
  if (config != nullptr) {
    EXPECT_EQ(AdspAec_set_config(inst.get(), *config), 0);
  }
  Outputs out;
  out.asr.assign(s.far.size(), 0.0f);
  out.com.assign(s.far.size(), 0.0f);
  out.coherence.assign(130, 0.0f);
  const Signal mic = s.mic();
  for (std::size_t i = 0; i + kBlock <= s.far.size(); i += kBlock) {
    EXPECT_EQ(AdspAec_BufferFarend(inst.get(), &s.far[i], kBlock), 0);
    const float* near[1] = {&mic[i]};
    float* asr[1] = {&out.asr[i]};
    float* com[1] = {&out.com[i]};
    EXPECT_EQ(AdspAec_Process(inst.get(), near, 1, asr, com, out.coherence.data(), 130, kBlock, 0, 0), 0);
  }
  return out;
}

// ERLE is judged where there is echo to cancel: over the 64-sample blocks
// in which the echo is louder than the near-end noise (far-end pauses carry
// nothing to remove).
std::vector<std::size_t> EchoBlocks(const Scene& s, double from_s, double to_s) {
  std::vector<std::size_t> starts;
  for (std::size_t i = static_cast<std::size_t>(from_s * kRate); i + kBlock <= static_cast<std::size_t>(to_s * kRate);
       i += kBlock) {
    if (MeanSquare(s.echo, i, i + kBlock) > MeanSquare(s.noise, i, i + kBlock)) starts.push_back(i);
  }
  return starts;
}

// Linear output: it carries the near end unchanged (one block late) plus the
// residual echo, so the residual is exactly output minus near end and the
// near-end noise does not cap the figure.
double LinearErleDb(const Scene& s, const Signal& out, double from_s, double to_s) {
  double echo = 0.0, residual = 0.0;
  for (std::size_t i : EchoBlocks(s, from_s, to_s)) {
    for (std::size_t n = i; n < i + kBlock; ++n) {
      echo += static_cast<double>(s.echo[n]) * s.echo[n];
      const double r = out[n + kOutputLag] - s.noise[n] - s.near_speech[n];
      residual += r * r;
    }
  }
  return 10.0 * std::log10(echo / residual);
}

// Suppressed output in single talk: microphone power over output power, the
// reduction a listener hears.
double ErleDb(const Scene& s, const Signal& out, double from_s, double to_s) {
  const Signal mic = s.mic();
  double in = 0.0, left = 0.0;
  for (std::size_t i : EchoBlocks(s, from_s, to_s)) {
    for (std::size_t n = i; n < i + kBlock; ++n) {
      in += static_cast<double>(mic[n]) * mic[n];
      left += static_cast<double>(out[n + kOutputLag]) * out[n + kOutputLag];
    }
  }
  return 10.0 * std::log10(in / left);
}

TEST(AdspAecScene, FarEndSingleTalkIsCancelled) {
  const Scene s = MakeScene(4.0, 160, 11);
  Instance both, asr_only;
  const Outputs pf3 = RunCanceller(s, 3, both);
  const Outputs pf1 = RunCanceller(s, 1, asr_only);
  const double linear = LinearErleDb(s, pf3.asr, 3.0, 4.0);
  const double suppressed = ErleDb(s, pf1.asr, 3.0, 4.0);
  std::printf("single talk: linear ERLE %.1f dB, suppressed ERLE %.1f dB\n", linear, suppressed);
  EXPECT_GE(linear, 12.0);
  EXPECT_GE(suppressed, 20.0);
  // With both outputs wanted the communication output is the suppressed one.
  EXPECT_GE(ErleDb(s, pf3.com, 3.0, 4.0), 6.0);
}

TEST(AdspAecScene, FarEndLeadingBy80MsIsRealigned) {
  // 10 ms of room delay plus 80 ms by which the far end leads: the echo tail
  // ends 120 ms after the far end, far beyond the filter's 48 ms, so only the
  // delay correction can bring it in reach. Three talkers and rooms.
  for (std::uint32_t seed : {21u, 31u, 51u}) {
    SCOPED_TRACE(seed);
    const Scene s = MakeScene(6.0, 160 + 1280, seed);
    Instance both, asr_only;
    const Outputs pf3 = RunCanceller(s, 3, both);
    const Outputs pf1 = RunCanceller(s, 1, asr_only);
    const AecCore* core = AdspAec_aec_core(both.get());
    const double linear = LinearErleDb(s, pf3.asr, 5.0, 6.0);
    const double suppressed = ErleDb(s, pf1.asr, 5.0, 6.0);
    std::printf("80 ms lead: correction %d blocks, linear ERLE %.1f dB, suppressed ERLE %.1f dB\n",
                core->signal_delay_correction, linear, suppressed);
    // The far end is read 90 ms (22.5 blocks) earlier, less the few blocks
    // of causal margin the alignment keeps in front of the room.
    EXPECT_LE(core->signal_delay_correction, -15);
    EXPECT_GE(core->signal_delay_correction, -23);
    EXPECT_GE(linear, 12.0);
    EXPECT_GE(suppressed, 20.0);
  }
}

TEST(AdspAecScene, EchoPathChangeIsRecoveredWithinTwoSeconds) {
  const Signal second = MakeEchoPath(240, 480, 77, 0.3);
  const std::size_t change = 3 * kRate;
  const Scene s = MakeScene(6.0, 160, 31, &second, change);
  Instance both, asr_only;
  const Outputs pf3 = RunCanceller(s, 3, both);
  const Outputs pf1 = RunCanceller(s, 1, asr_only);
  const double linear_after = LinearErleDb(s, pf3.asr, 5.0, 6.0);
  const double suppressed_after = ErleDb(s, pf1.asr, 5.0, 6.0);
  const double linear_just_after = LinearErleDb(s, pf3.asr, 3.0, 3.3);
  std::printf("path change: linear ERLE just after %.1f dB, 2 s after %.1f dB, suppressed %.1f dB\n",
              linear_just_after, linear_after, suppressed_after);
  EXPECT_LT(linear_just_after, 10.0);  // the change really broke the cancellation
  EXPECT_GE(linear_after, 12.0);
  EXPECT_GE(suppressed_after, 20.0);
}

TEST(AdspAecScene, NearEndSpeechSurvivesDoubleTalk) {
  Scene s = MakeScene(6.0, 160, 41);
  test::SpeechLikeOptions talker;
  talker.f0_hz = 210.0;
  talker.syllable_hz = 3.3;
  talker.lead_silence_s = 2.0;
  const test::SpeechLike near = test::MakeSpeechLike(s.far.size(), 4242, talker);
  // The talker at the level of the echo: a hard case for the suppression.
  const double scale = std::sqrt(MeanSquare(s.echo, 0, s.echo.size()) /
                                 test::MaskedMeanSquare(near.samples, near.active, 1));
  for (std::size_t i = 0; i < s.far.size(); ++i) s.near_speech[i] = static_cast<float>(near.samples[i] * scale);
  s.near_active = near.active;

  for (int nlp_pf : {1, 2, 3}) {
    SCOPED_TRACE(nlp_pf);
    Instance inst;
    const Outputs out = RunCanceller(s, nlp_pf, inst);
    // What the front end passes on: the suppressed output alone (1, 2), or
    // the linear ASR output when both are produced (3).
    const Signal& heard = nlp_pf == 2 ? out.com : out.asr;
    // Energy of the near-end talker and of the output over the talker's
    // syllables after 3 s; and the part of the output that is the talker
    // (projection), which residual echo and noise cannot inflate.
    double talker_energy = 0.0, output = 0.0, cross = 0.0;
    for (std::size_t n = 3 * kRate; n + kOutputLag < s.far.size(); ++n) {
      if (!s.near_active[n]) continue;
      talker_energy += static_cast<double>(s.near_speech[n]) * s.near_speech[n];
      output += static_cast<double>(heard[n + kOutputLag]) * heard[n + kOutputLag];
      cross += static_cast<double>(s.near_speech[n]) * heard[n + kOutputLag];
    }
    const double level_db = 10.0 * std::log10(output / talker_energy);
    const double kept_db = 20.0 * std::log10(cross / talker_energy);
    std::printf("double talk NlpPf %d: output %.1f dB, talker kept %.1f dB\n", nlp_pf, level_db, kept_db);
    EXPECT_NEAR(level_db, 0.0, 3.0);
    // Most of what is heard is the talker itself, not residual echo.
    EXPECT_GE(kept_db, -6.0);
  }
}

// ------------------------------------------------------------ result codes

TEST(AdspAecInterface, InitResultCodes) {
  struct Case {
    const char* name;
    uint32_t length;
    int32_t rate, card_rate;
    int nlp_pf;
    int32_t want, want_error;  // want_error -1: not recorded
  };
  const Case cases[] = {
      {"valid", kAecInstanceBytes, 16000, 16000, 3, 0, 0},
      {"8 kHz", kAecInstanceBytes, 8000, 8000, 1, 0, 0},
      {"48 kHz", kAecInstanceBytes, 48000, 44100, 2, 0, 0},
      {"length one short", kAecInstanceBytes - 1, 16000, 16000, 1, -2, -1},
      {"length one long", kAecInstanceBytes + 1, 16000, 16000, 1, -2, -1},
      {"NlpPf 4", kAecInstanceBytes, 16000, 16000, 4, -2, -1},
      {"NlpPf -1", kAecInstanceBytes, 16000, 16000, -1, -2, -1},
      {"rate 44100", kAecInstanceBytes, 44100, 16000, 1, -1, kAecErrBadParameter},
      {"card rate 0", kAecInstanceBytes, 16000, 0, 1, -1, kAecErrBadParameter},
      {"card rate 96001", kAecInstanceBytes, 16000, 96001, 1, -1, kAecErrBadParameter},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance inst;
    EXPECT_EQ(AdspAec_Init(inst.get(), c.length, c.rate, c.card_rate, c.nlp_pf, nullptr), c.want);
    if (c.want_error >= 0) {
      EXPECT_EQ(AdspAec_get_error_code(inst.get()), c.want_error);
    }
  }
  EXPECT_EQ(AdspAec_aec_core(nullptr), nullptr);
  EXPECT_EQ(AdspAec_Init(nullptr, kAecInstanceBytes, 16000, 16000, 1, nullptr), -1);
  Instance roomy;
  EXPECT_EQ(AdspAec_Init(static_cast<char*>(roomy.get()) + 4, kAecInstanceBytes, 16000, 16000, 1, nullptr), -1);
}

TEST(AdspAecInterface, ConfigResultCodes) {
  Instance uninit;
  EXPECT_EQ(AdspAec_set_config(uninit.get(), AecConfig{1, 0, 0, 0}), -1);
  EXPECT_EQ(AdspAec_get_error_code(uninit.get()), kAecErrUninitialized);

  struct Case {
    const char* name;
    AecConfig config;
    int want;
    int16_t skew_stored;
  };
  const Case cases[] = {
      {"all valid", {2, 1, 1, 1}, 0, 1},
      {"skew 2 refused before anything is stored", {1, 2, 0, 0}, -1, 0},
      {"nlp 3 refused with the skew already stored", {3, 1, 0, 0}, -1, 1},
      {"metrics 2", {1, 0, 2, 0}, -1, 0},
      {"delay logging 2", {1, 0, 0, 2}, -1, 0},
      {"negative nlp", {-1, 0, 0, 0}, -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance inst;
    ASSERT_EQ(InitDefault(inst, 1), 0);
    EXPECT_EQ(AdspAec_set_config(inst.get(), c.config), c.want);
    EXPECT_EQ(AdspAec_get_error_code(inst.get()), c.want == 0 ? 0 : kAecErrBadParameter);
    EXPECT_EQ(static_cast<Aec*>(inst.get())->skewMode, c.skew_stored);
    if (c.want == 0) {
      EXPECT_EQ(AdspAec_aec_core(inst.get())->nlp_mode, c.config.nlpMode);
    }
  }
}

TEST(AdspAecInterface, BufferFarendResultCodes) {
  const std::vector<float> far(128, 100.0f);
  Instance uninit;
  EXPECT_EQ(AdspAec_BufferFarend(uninit.get(), far.data(), 64), -1);
  EXPECT_EQ(AdspAec_get_error_code(uninit.get()), kAecErrUninitialized);

  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  EXPECT_EQ(AdspAec_BufferFarend(inst.get(), nullptr, 64), -1);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrNullPointer);
  EXPECT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), 80), -1);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrBadParameter);

  // Partitions overlap by 64 samples: the first 64-sample frame (behind 64
  // samples of pre-roll) forms one at once, and every 64 new samples one more.
  AecCore* core = AdspAec_aec_core(inst.get());
  EXPECT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), 64), 0);
  EXPECT_EQ(Adsp_available_read(&core->far_buf), 1u);
  EXPECT_EQ(AdspAec_system_delay(core), 64);
  EXPECT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), 128), 0);
  EXPECT_EQ(Adsp_available_read(&core->far_buf), 3u);
  EXPECT_EQ(Adsp_available_read(&core->far_buf_windowed), 3u);
  EXPECT_EQ(AdspAec_system_delay(core), 192);
  // The first partition is 64 zeros then the constant: bin 0 sums to 6400.
  float* first = nullptr;
  float copy[2 * kAecBins];
  ASSERT_EQ(Adsp_ReadBuffer(&core->far_buf, reinterpret_cast<void**>(&first), copy, 1), 1u);
  EXPECT_FLOAT_EQ(first[0], 6400.0f);
}

TEST(AdspAecInterface, ProcessResultCodes) {
  std::vector<float> near(128, 10.0f), asr(128), com(128), coh(131, -7.0f), far(128, 0.0f);
  const float* near_bands[1] = {near.data()};
  float* asr_bands[1] = {asr.data()};
  float* com_bands[1] = {com.data()};
  struct Case {
    const char* name;
    int nlp_pf;
    bool with_asr, with_com;
    int coherence_len;
    int16_t samples, delay_ms;
    int32_t want;
    int want_error;
  };
  const Case cases[] = {
      {"both outputs", 3, true, true, 130, 64, 0, 0, 0},
      {"128 samples", 3, true, true, 130, 128, 0, 0, 0},
      {"ASR only without COM", 1, true, false, 130, 64, 0, 0, 0},
      {"COM only without ASR", 2, false, true, 130, 64, 0, 0, 0},
      {"ASR missing", 1, false, true, 130, 64, 0, -1, kAecErrNullPointer},
      {"COM missing", 3, true, false, 130, 64, 0, -1, kAecErrNullPointer},
      {"80 samples", 3, true, true, 130, 80, 0, -3, kAecErrBadParameter},
      {"coherence 129", 3, true, true, 129, 64, 0, -4, 0},
      {"negative delay", 3, true, true, 130, 64, -5, -4, kAecWarnBadParameter},
      {"delay above 500", 3, true, true, 130, 64, 501, -5, kAecWarnBadParameter},
      {"delay 500", 3, true, true, 130, 64, 500, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance inst;
    ASSERT_EQ(InitDefault(inst, c.nlp_pf), 0);
    ASSERT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), 64), 0);
    EXPECT_EQ(AdspAec_Process(inst.get(), near_bands, 1, c.with_asr ? asr_bands : nullptr,
                              c.with_com ? com_bands : nullptr, coh.data(), c.coherence_len, c.samples,
                              c.delay_ms, 0),
              c.want);
    EXPECT_EQ(AdspAec_get_error_code(inst.get()), c.want_error);
  }
  // The coherence fills exactly 130 values, all of them coherences.
  for (int k = 0; k < 130; ++k) {
    EXPECT_GE(coh[k], 0.0f);
    EXPECT_LE(coh[k], 1.0f + 1e-5f);
  }
  EXPECT_EQ(coh[130], -7.0f);

  Instance uninit;
  EXPECT_EQ(AdspAec_Process(uninit.get(), near_bands, 1, asr_bands, com_bands, coh.data(), 130, 64, 0, 0), -2);
  EXPECT_EQ(AdspAec_get_error_code(uninit.get()), kAecErrUninitialized);
}

TEST(AdspAecInterface, NegativeDelayIsProcessedAsZero) {
  const Scene s = MakeScene(0.5, 160, 5);
  const Signal mic = s.mic();
  Instance a, b;
  ASSERT_EQ(InitDefault(a, 3), 0);
  ASSERT_EQ(InitDefault(b, 3), 0);
  std::vector<float> coh(130), asr_a(kBlock), asr_b(kBlock), com_a(kBlock), com_b(kBlock);
  for (std::size_t i = 0; i + kBlock <= mic.size(); i += kBlock) {
    const float* near[1] = {&mic[i]};
    float* oa[1] = {asr_a.data()};
    float* ca[1] = {com_a.data()};
    float* ob[1] = {asr_b.data()};
    float* cb[1] = {com_b.data()};
    AdspAec_BufferFarend(a.get(), &s.far[i], kBlock);
    AdspAec_BufferFarend(b.get(), &s.far[i], kBlock);
    EXPECT_EQ(AdspAec_Process(a.get(), near, 1, oa, ca, coh.data(), 130, kBlock, -5, 0), -4);
    EXPECT_EQ(AdspAec_Process(b.get(), near, 1, ob, cb, coh.data(), 130, kBlock, 0, 0), 0);
    ASSERT_EQ(std::memcmp(asr_a.data(), asr_b.data(), sizeof(float) * kBlock), 0);
    ASSERT_EQ(std::memcmp(com_a.data(), com_b.data(), sizeof(float) * kBlock), 0);
  }
}

TEST(AdspAecInterface, SkewFitFailureIsReportedOnce) {
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  ASSERT_EQ(AdspAec_set_config(inst.get(), AecConfig{1, kAecTrue, 0, 0}), 0);
  std::vector<float> block(kBlock, 0.0f), out(kBlock), coh(130);
  const float* near[1] = {block.data()};
  float* asr[1] = {out.data()};
  // 25 frames before skew estimation starts, 400 raw figures collected, then
  // the fit: every figure lies outside +-0.04 * fs, so it fails once.
  std::vector<int32_t> results;
  for (int frame = 0; frame < 25 + 400 + 3; ++frame) {
    AdspAec_BufferFarend(inst.get(), block.data(), kBlock);
    results.push_back(AdspAec_Process(inst.get(), near, 1, asr, nullptr, coh.data(), 130, kBlock, 0, 5000));
  }
  EXPECT_EQ(results[25 + 400], -6);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecWarnBadParameter);
  for (std::size_t f = 0; f < results.size(); ++f) {
    if (f != 25 + 400) {
      EXPECT_EQ(results[f], 0) << "frame " << f;
    }
  }
}

TEST(AdspAecInterface, QueryResultCodes) {
  Instance uninit, inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  int status = -1, median = 0, spread = 0;
  AecMetrics metrics{};

  EXPECT_EQ(AdspAec_get_echo_status(nullptr, &status), -1);
  EXPECT_EQ(AdspAec_get_echo_status(inst.get(), nullptr), -1);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrNullPointer);
  EXPECT_EQ(AdspAec_get_echo_status(uninit.get(), &status), -1);
  EXPECT_EQ(AdspAec_get_error_code(uninit.get()), kAecErrUninitialized);
  EXPECT_EQ(AdspAec_get_echo_status(inst.get(), &status), 0);
  EXPECT_EQ(status, 0);

  EXPECT_EQ(AdspAec_GetMetrics(nullptr, &metrics), -1);
  EXPECT_EQ(AdspAec_GetMetrics(inst.get(), nullptr), -1);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrNullPointer);
  EXPECT_EQ(AdspAec_GetMetrics(uninit.get(), &metrics), -1);
  EXPECT_EQ(AdspAec_GetMetrics(inst.get(), &metrics), 0);
  for (const AecLevel* level : {&metrics.rerl, &metrics.erl, &metrics.erle, &metrics.aNlp}) {
    EXPECT_EQ(level->instant, kOffsetLevel);
    EXPECT_EQ(level->average, kOffsetLevel);
    EXPECT_EQ(level->min, kOffsetLevel);
  }

  EXPECT_EQ(AdspAec_GetDelayMetrics(inst.get(), nullptr, &spread), -1);
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrNullPointer);
  EXPECT_EQ(AdspAec_GetDelayMetrics(uninit.get(), &median, &spread), -1);
  EXPECT_EQ(AdspAec_GetDelayMetrics(inst.get(), &median, &spread), -1);  // logging off
  EXPECT_EQ(AdspAec_get_error_code(inst.get()), kAecErrUnsupported);
  ASSERT_EQ(AdspAec_set_config(inst.get(), AecConfig{1, 0, 0, 1}), 0);
  // Nothing logged yet: no division by zero, and an answer no delay can have.
  EXPECT_EQ(AdspAec_GetDelayMetrics(inst.get(), &median, &spread), 0);
  EXPECT_EQ(median, -1);
  EXPECT_EQ(spread, -1);
}

TEST(AdspAecInterface, ReportedDelayStartupTrimsTheFarEnd) {
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  Aec* self = static_cast<Aec*>(inst.get());
  AdspAec_enable_reported_delay(self->aec, 1);
  self->startup_phase = 1;
  std::vector<float> far(kBlock, 500.0f), near(kBlock), out(kBlock), coh(130);
  for (int i = 0; i < kBlock; ++i) near[i] = static_cast<float>(i);
  // The caller fed 20 frames of far end ahead of the near end.
  for (int f = 0; f < 20; ++f) ASSERT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), kBlock), 0);
  const float* near_bands[1] = {near.data()};
  float* out_bands[1] = {out.data()};
  int frames = 0;
  while (self->startup_phase == 1 && frames < 100) {
    ASSERT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), kBlock), 0);
    ASSERT_EQ(AdspAec_Process(inst.get(), near_bands, 1, out_bands, nullptr, coh.data(), 130, kBlock, 40, 0), 0);
    EXPECT_EQ(std::memcmp(out.data(), near.data(), sizeof(float) * kBlock), 0);  // passed through
    ++frames;
  }
  // A steady 40 ms report (+10 ms) for six frames sizes the buffer to
  // 50 * 24 * 2 / 256 = 9 blocks, and the surplus far end is dropped.
  EXPECT_EQ(frames, 6);
  EXPECT_EQ(self->bufSizeStart, 9);
  EXPECT_EQ(AdspAec_system_delay(self->aec), 9 * kBlock);
}

TEST(AdspAecInterface, ReportedDelayMovesTheKnownDelay) {
  // Far and near fed in step while the sound card reports 100 ms: the far
  // end our buffer holds is 110 ms (+10) short of the report, and after the
  // difference has persisted for 25 frames the core reads the far end that
  // much earlier, less a 10 ms safety margin.
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  Aec* self = static_cast<Aec*>(inst.get());
  AdspAec_enable_reported_delay(self->aec, 1);
  std::vector<float> far(kBlock, 0.0f), near(kBlock, 0.0f), out(kBlock), coh(130);
  const float* near_bands[1] = {near.data()};
  float* out_bands[1] = {out.data()};
  for (int frame = 0; frame < 60; ++frame) {
    ASSERT_EQ(AdspAec_BufferFarend(inst.get(), far.data(), kBlock), 0);
    ASSERT_EQ(AdspAec_Process(inst.get(), near_bands, 1, out_bands, nullptr, coh.data(), 130, kBlock, 100, 0), 0);
  }
  // 110 ms at 16 kHz = 1760 samples, minus the 64 buffered, plus one block
  // of 128: 1824; the new known delay keeps 160 samples in hand.
  EXPECT_NEAR(self->filtDelay, 1824, 8);
  EXPECT_NEAR(self->knownDelay, 1824 - 160, 8);
  // The core moved its far-end read position back by whole blocks toward it.
  EXPECT_NEAR(self->aec->knownDelay, self->knownDelay, 96);
  EXPECT_EQ(self->aec->knownDelay % kBlock, 0);
}

// ---------------------------------------------------------------- kernels

TEST(AdspAecKernels, CurvesFollowTheirRules) {
  for (int k = 0; k < kAecBins; ++k) {
    EXPECT_NEAR(AdspAec_sqrtHanning[k], std::sin(M_PI * k / 128.0), 1e-7);
    EXPECT_NEAR(AdspAec_overDriveCurve[k], std::round((1.0 + std::sqrt(k / 64.0)) * 1e4) / 1e4, 1e-6);
    const double weight = k == 0 ? 0.0 : std::round((0.1 + 0.3 * std::sqrt((k - 1) / 63.0)) * 1e4) / 1e4;
    EXPECT_NEAR(AdspAec_weightCurve[k], weight, 1e-6);
  }
}

TEST(AdspAecKernels, UnitGainsOnlyConjugate) {
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  AecCore* core = AdspAec_aec_core(inst.get());
  core->overDriveSm = 7.0f;
  float gains[kAecBins];
  float spectrum[2][kAecBins];
  for (int k = 0; k < kAecBins; ++k) {
    gains[k] = 1.0f;
    spectrum[0][k] = static_cast<float>(k) - 30.0f;
    spectrum[1][k] = 2.0f * static_cast<float>(k) + 1.0f;
  }
  OverdriveAndSuppress(core, gains, 1.0f, spectrum, 1);
  for (int k = 0; k < kAecBins; ++k) {
    EXPECT_EQ(gains[k], 1.0f);
    EXPECT_EQ(spectrum[0][k], static_cast<float>(k) - 30.0f);
    EXPECT_EQ(spectrum[1][k], -(2.0f * static_cast<float>(k) + 1.0f));
  }
  // Below the feedback value a gain is only raised to the overdrive power.
  for (int k = 0; k < kAecBins; ++k) gains[k] = 0.5f;
  OverdriveAndSuppress(core, gains, 0.9f, spectrum, 0);
  for (int k = 0; k < kAecBins; ++k)
    EXPECT_NEAR(gains[k], std::pow(0.5, 7.0 * AdspAec_overDriveCurve[k]), 1e-6);
}

TEST(AdspAecKernels, ComfortNoiseFillsWhatWasTaken) {
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 2), 0);
  AecCore* core = AdspAec_aec_core(inst.get());
  float noise_pow[kAecBins], lambda[kAecBins], spectrum[2][kAecBins], before[2][kAecBins];
  for (int k = 0; k < kAecBins; ++k) {
    noise_pow[k] = 100.0f * static_cast<float>(k + 1);
    lambda[k] = (k % 3 == 0) ? 1.0f : (k % 3 == 1 ? 0.0f : 0.6f);
    spectrum[0][k] = before[0][k] = 3.0f;
    spectrum[1][k] = before[1][k] = -4.0f;
  }
  // The phases the generator will draw, from the same seed.
  uint32_t seed = core->seed;
  EXPECT_EQ(seed, 777u);
  int16_t draws[kBlock];
  for (int i = 0; i < kBlock; ++i) draws[i] = AdspSpl_RandU(&seed);
  ComfortNoise(core, spectrum, nullptr, noise_pow, lambda);
  EXPECT_EQ(core->seed, seed);
  for (int k = 0; k < kAecBins; ++k) {
    double u_re = 0.0, u_im = 0.0;
    if (k > 0) {
      const double phase = 2.0 * M_PI * draws[k - 1] / 32768.0;
      u_re = std::sqrt(noise_pow[k]) * std::cos(phase);
      u_im = -std::sqrt(noise_pow[k]) * std::sin(phase);
    }
    const double weight = std::sqrt(std::max(0.0, 1.0 - static_cast<double>(lambda[k]) * lambda[k]));
    EXPECT_NEAR(spectrum[0][k], before[0][k] + weight * u_re, 1e-3) << k;
    EXPECT_NEAR(spectrum[1][k], before[1][k] + weight * u_im, 1e-3) << k;
  }
}

TEST(AdspAecKernels, CoherenceSeparatesEchoFromNearEnd) {
  // Near-end noise with a silent far end: the filters stay at zero, so the
  // error equals the near end (near/error coherence 1) and nothing is
  // coherent with the far end. Then a pure echo: the far/near coherence
  // rises where the echo has its energy.
  const std::size_t n = kRate;
  const Signal noise = test::WhiteNoise(n, 300.0, 4);
  const Signal silence(n, 0.0f);
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  std::vector<float> coh(130), out(kBlock);
  for (std::size_t i = 0; i + kBlock <= n; i += kBlock) {
    const float* near[1] = {&noise[i]};
    float* asr[1] = {out.data()};
    AdspAec_BufferFarend(inst.get(), &silence[i], kBlock);
    ASSERT_EQ(AdspAec_Process(inst.get(), near, 1, asr, nullptr, coh.data(), 130, kBlock, 0, 0), 0);
  }
  for (int k = 0; k < kAecBins; ++k) {
    EXPECT_NEAR(coh[kAecBins + k], 1.0f, 1e-3) << k;
    EXPECT_LT(coh[k], 0.05f) << k;
  }

  const Scene s = MakeScene(2.0, 160, 11);
  Instance echo_only;
  ASSERT_EQ(InitDefault(echo_only, 1), 0);
  double xd_sum = 0.0;
  int blocks = 0;
  for (std::size_t i = 0; i + kBlock <= s.far.size(); i += kBlock) {
    const float* near[1] = {&s.echo[i]};
    float* asr[1] = {out.data()};
    AdspAec_BufferFarend(echo_only.get(), &s.far[i], kBlock);
    ASSERT_EQ(AdspAec_Process(echo_only.get(), near, 1, asr, nullptr, coh.data(), 130, kBlock, 0, 0), 0);
    if (i >= static_cast<std::size_t>(kRate) && MeanSquare(s.echo, i, i + kBlock) > 1e4) {
      for (int k = 2; k < 8; ++k) xd_sum += coh[k];  // 250..1000 Hz, where the talker's energy is
      blocks += 6;
    }
  }
  EXPECT_GT(xd_sum / blocks, 0.5);
}

TEST(AdspAecKernels, RunawayMainFilterRestartsFromTheStoredPath) {
  const Scene s = MakeScene(2.0, 160, 11);
  const Signal mic = s.mic();
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 1), 0);
  AecCore* core = AdspAec_aec_core(inst.get());
  std::vector<float> coh(130), out(kBlock);
  bool reset_seen = false;
  for (std::size_t i = 0; i + kBlock <= mic.size(); i += kBlock) {
    if (i == static_cast<std::size_t>(kRate)) {
      // Blow the main filter up: its error now towers over the near end.
      for (float& w : core->wfBuf_main[0]) w *= 40.0f;
      for (float& w : core->wfBuf_main[1]) w *= 40.0f;
    }
    const float* near[1] = {&mic[i]};
    float* asr[1] = {out.data()};
    AdspAec_BufferFarend(inst.get(), &s.far[i], kBlock);
    ASSERT_EQ(AdspAec_Process(inst.get(), near, 1, asr, nullptr, coh.data(), 130, kBlock, 0, 0), 0);
    if (i >= static_cast<std::size_t>(kRate) && !reset_seen) {
      // No stored path: the restart is to an all-zero filter.
      float largest = 0.0f;
      for (float w : core->wfBuf_main[0]) largest = std::max(largest, std::fabs(w));
      reset_seen = largest < 1e-6f;
    }
  }
  EXPECT_TRUE(reset_seen);
  EXPECT_EQ(core->divergeState, 0);
}

// ------------------------------------------------------------- whole canceller

TEST(AdspAecScene, OutputIsDeterministic) {
  const Scene s = MakeScene(1.0, 160, 3);
  Instance a, b;
  const Outputs first = RunCanceller(s, 3, a);
  const Outputs second = RunCanceller(s, 3, b);
  EXPECT_EQ(std::memcmp(first.asr.data(), second.asr.data(), first.asr.size() * sizeof(float)), 0);
  EXPECT_EQ(std::memcmp(first.com.data(), second.com.data(), first.com.size() * sizeof(float)), 0);
}

TEST(AdspAecScene, ComfortNoiseKeepsTheBackground) {
  // Far-end single talk: the communication output should sound like the
  // room's noise, not like holes, while the ASR-only output is suppressed.
  const Scene s = MakeScene(4.0, 160, 11);
  Instance com_only;
  const Outputs out = RunCanceller(s, 2, com_only);
  const double noise_db = 10.0 * std::log10(MeanSquare(s.noise, 3 * kRate - kOutputLag, 4 * kRate - kOutputLag));
  const double out_db = 10.0 * std::log10(MeanSquare(out.com, 3 * kRate, 4 * kRate));
  std::printf("comfort noise: output %.1f dB against near-end noise %.1f dB\n", out_db, noise_db);
  EXPECT_NEAR(out_db, noise_db, 3.0);
}

TEST(AdspAecScene, MetricsReportTheEchoPath) {
  const Scene s = MakeScene(4.0, 160, 11);
  Instance inst;
  AecConfig config{1, 0, 1, 1};
  const Outputs out = RunCanceller(s, 3, inst, &config);
  AecMetrics metrics{};
  ASSERT_EQ(AdspAec_GetMetrics(inst.get(), &metrics), 0);
  // ERL measured directly: far-end power over microphone power while the far
  // end talks. ERLE of the linear output is capped near 10 dB by the
  // near-end noise it keeps.
  const Signal mic = s.mic();
  double far_energy = 0.0, mic_energy = 0.0;
  for (std::size_t i = kRate; i + kBlock <= s.far.size(); i += kBlock) {
    if (MeanSquare(s.far, i, i + kBlock) < 1e4) continue;
    far_energy += MeanSquare(s.far, i, i + kBlock);
    mic_energy += MeanSquare(mic, i, i + kBlock);
  }
  const double erl_db = 10.0 * std::log10(far_energy / mic_energy);
  std::printf("metrics: ERL %d (measured %.1f), ERLE %d, A-NLP %d, RERL %d\n", metrics.erl.average, erl_db,
              metrics.erle.average, metrics.aNlp.average, metrics.rerl.average);
  EXPECT_NEAR(metrics.erl.average, erl_db, 3.0);
  EXPECT_GE(metrics.erle.average, 6);
  EXPECT_GT(metrics.aNlp.average, 0);
  EXPECT_EQ(metrics.rerl.average, metrics.erl.average + metrics.erle.average);
  int status = -1;
  ASSERT_EQ(AdspAec_get_echo_status(inst.get(), &status), 0);
  EXPECT_EQ(status, 1);
  int median = 0, spread = 0;
  ASSERT_EQ(AdspAec_GetDelayMetrics(inst.get(), &median, &spread), 0);
  std::printf("delay metrics: median %d ms, spread %d ms\n", median, spread);
  // 10 ms bulk delay: the estimate lands within two blocks of it.
  EXPECT_NEAR(median, 10, 8);
  EXPECT_GE(spread, 0);
}

TEST(AdspAecScene, FramesOf128AreTwoBlocksOf64) {
  const Scene s = MakeScene(1.0, 160, 8);
  const Signal mic = s.mic();
  Instance small, large;
  ASSERT_EQ(InitDefault(small, 3), 0);
  ASSERT_EQ(InitDefault(large, 3), 0);
  std::vector<float> coh(130);
  Signal asr_small(mic.size()), com_small(mic.size()), asr_large(mic.size()), com_large(mic.size());
  for (std::size_t i = 0; i + 128 <= mic.size(); i += 128) {
    for (std::size_t j = i; j < i + 128; j += kBlock) {
      const float* near[1] = {&mic[j]};
      float* asr[1] = {&asr_small[j]};
      float* com[1] = {&com_small[j]};
      ASSERT_EQ(AdspAec_BufferFarend(small.get(), &s.far[j], kBlock), 0);
      ASSERT_EQ(AdspAec_Process(small.get(), near, 1, asr, com, coh.data(), 130, kBlock, 0, 0), 0);
    }
    const float* near[1] = {&mic[i]};
    float* asr[1] = {&asr_large[i]};
    float* com[1] = {&com_large[i]};
    ASSERT_EQ(AdspAec_BufferFarend(large.get(), &s.far[i], 128), 0);
    ASSERT_EQ(AdspAec_Process(large.get(), near, 1, asr, com, coh.data(), 130, 128, 0, 0), 0);
  }
  EXPECT_EQ(std::memcmp(asr_small.data(), asr_large.data(), sizeof(float) * mic.size()), 0);
  EXPECT_EQ(std::memcmp(com_small.data(), com_large.data(), sizeof(float) * mic.size()), 0);
}

TEST(AdspAecScene, StoredEchoPathCancelsFromTheStart) {
  // The room's own impulse response (640 taps, within the file's 768) as a
  // filter file: the canceller is converged from the first block.
  const int bulk = 160;
  const Signal path = MakeEchoPath(bulk, 480, 12, 0.3);
  const Scene s = MakeScene(1.0, bulk, 11);  // seed 11 + 1: the same path
  std::vector<char> file(12 + 3072, 0);
  std::memcpy(file.data(), "AEC----_", 8);
  const std::uint32_t length = 3072;
  for (int b = 0; b < 4; ++b) file[8 + b] = static_cast<char>((length >> (8 * b)) & 0xFF);
  for (std::size_t t = 0; t < path.size(); ++t) std::memcpy(&file[12 + 4 * t], &path[t], 4);
  const std::string name = std::string(VORN_BINARY_DIR) + "/aec_echo_path.bin";
  FILE* f = std::fopen(name.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fwrite(file.data(), 1, file.size(), f), file.size());
  std::fclose(f);

  std::vector<char> path_arg(name.begin(), name.end());
  path_arg.push_back('\0');
  Instance seeded, cold, missing;
  ASSERT_EQ(InitDefault(seeded, 3, path_arg.data()), 0);
  std::string absent = name + ".absent";
  std::vector<char> absent_arg(absent.begin(), absent.end());
  absent_arg.push_back('\0');
  ASSERT_EQ(InitDefault(missing, 3, absent_arg.data()), 0);  // no file: still a canceller

  auto run = [&](Instance& inst) {
    Signal asr(s.far.size());
    std::vector<float> coh(130), com(kBlock);
    const Signal mic = s.mic();
    for (std::size_t i = 0; i + kBlock <= mic.size(); i += kBlock) {
      const float* near[1] = {&mic[i]};
      float* a[1] = {&asr[i]};
      float* c[1] = {com.data()};
      AdspAec_BufferFarend(inst.get(), &s.far[i], kBlock);
      EXPECT_EQ(AdspAec_Process(inst.get(), near, 1, a, c, coh.data(), 130, kBlock, 0, 0), 0);
    }
    return asr;
  };
  ASSERT_EQ(InitDefault(cold, 3), 0);
  const double seeded_db = LinearErleDb(s, run(seeded), 0.05, 0.3);
  const double cold_db = LinearErleDb(s, run(cold), 0.05, 0.3);
  const double missing_db = LinearErleDb(s, run(missing), 0.05, 0.3);
  std::printf("first 0.3 s: linear ERLE %.1f dB seeded, %.1f dB cold, %.1f dB missing file\n", seeded_db, cold_db,
              missing_db);
  EXPECT_GE(seeded_db, 20.0);
  EXPECT_LT(cold_db, seeded_db - 6.0);
  EXPECT_EQ(cold_db, missing_db);
  std::remove(name.c_str());
}

TEST(AdspAecScene, ExtendedFilterCancelsAndWaitsForTheFarEnd) {
  const Scene s = MakeScene(4.0, 160, 11);
  const Signal mic = s.mic();
  Instance inst;
  ASSERT_EQ(InitDefault(inst, 3), 0);
  AecCore* core = AdspAec_aec_core(inst.get());
  AdspAec_enable_delay_correction(core, 1);
  ASSERT_EQ(core->num_partitions, kExtendedNumPartitions);
  std::vector<float> coh(130);
  Signal asr(mic.size()), com(mic.size());
  // Before the first far-end frame the near end passes through untouched.
  {
    const float* near[1] = {&mic[0]};
    float* a[1] = {&asr[0]};
    float* c[1] = {&com[0]};
    EXPECT_EQ(AdspAec_Process(inst.get(), near, 1, a, c, coh.data(), 130, kBlock, 0, 0), 0);
    EXPECT_EQ(std::memcmp(&asr[0], &mic[0], sizeof(float) * kBlock), 0);
    EXPECT_EQ(std::memcmp(&com[0], &mic[0], sizeof(float) * kBlock), 0);
  }
  for (std::size_t i = kBlock; i + kBlock <= mic.size(); i += kBlock) {
    const float* near[1] = {&mic[i]};
    float* a[1] = {&asr[i]};
    float* c[1] = {&com[i]};
    ASSERT_EQ(AdspAec_BufferFarend(inst.get(), &s.far[i], kBlock), 0);
    ASSERT_EQ(AdspAec_Process(inst.get(), near, 1, a, c, coh.data(), 130, kBlock, 0, 0), 0);
  }
  // The pass-through frame never reached the core, so from the second frame
  // on the outputs keep the usual one-block lag.
  const double best = LinearErleDb(s, asr, 3.0, 3.9);
  std::printf("extended filter: linear ERLE %.1f dB\n", best);
  EXPECT_GE(best, 12.0);
}

TEST(AdspAecScene, UpperBandsFollowTheLowBand) {
  // 32 kHz in two bands: the upper band has no filter of its own; it is
  // delayed with the lowest band and suppressed with it.
  const Scene s = MakeScene(3.0, 160, 11);
  const Signal mic = s.mic();
  const Signal upper = test::PinkNoise(mic.size(), 300.0, 99);
  Instance inst;
  ASSERT_EQ(AdspAec_Init(inst.get(), kAecInstanceBytes, 32000, 32000, 3, nullptr), 0);
  std::vector<float> coh(130);
  Signal asr0(mic.size()), asr1(mic.size()), com0(mic.size()), com1(mic.size());
  for (std::size_t i = 0; i + kBlock <= mic.size(); i += kBlock) {
    const float* near[2] = {&mic[i], &upper[i]};
    float* a[2] = {&asr0[i], &asr1[i]};
    float* c[2] = {&com0[i], &com1[i]};
    ASSERT_EQ(AdspAec_BufferFarend(inst.get(), &s.far[i], kBlock), 0);
    ASSERT_EQ(AdspAec_Process(inst.get(), near, 2, a, c, coh.data(), 130, kBlock, 0, 0), 0);
  }
  // The linear output passes the upper band one block late and unchanged.
  for (std::size_t n = kOutputLag; n < mic.size(); ++n) ASSERT_EQ(asr1[n], upper[n - kOutputLag]) << n;
  // The suppressed output never amplifies it.
  EXPECT_LE(MeanSquare(com1, kRate, mic.size()), MeanSquare(upper, kRate, mic.size()) * 1.0001);
  EXPECT_GE(LinearErleDb(s, asr0, 2.0, 3.0), 12.0);
}

TEST(AdspAecScene, SilentFarEndLeavesTheNearEndAlone) {
  // The loudspeaker says nothing (as when the tool feeds a cleared
  // reference): every output is the near end, one block late.
  const std::size_t n = 2 * kRate;
  const Signal talker = test::MakeSpeechLike(n, 8, {}).samples;
  const Signal noise = test::PinkNoise(n, 100.0, 9);
  const Signal near = test::Mix(talker, noise);
  const Signal far(n, 0.0f);
  for (int nlp_pf : {1, 2, 3}) {
    SCOPED_TRACE(nlp_pf);
    Instance inst;
    ASSERT_EQ(InitDefault(inst, nlp_pf), 0);
    Signal asr(n), com(n);
    std::vector<float> coh(130);
    for (std::size_t i = 0; i + kBlock <= n; i += kBlock) {
      const float* near_bands[1] = {&near[i]};
      float* a[1] = {&asr[i]};
      float* c[1] = {&com[i]};
      ASSERT_EQ(AdspAec_BufferFarend(inst.get(), &far[i], kBlock), 0);
      ASSERT_EQ(AdspAec_Process(inst.get(), near_bands, 1, a, c, coh.data(), 130, kBlock, 0, 0), 0);
    }
    const Signal& heard = nlp_pf == 2 ? com : asr;
    double error = 0.0;
    for (std::size_t i = kOutputLag; i < n; ++i) {
      const double d = heard[i] - near[i - kOutputLag];
      error += d * d;
    }
    const double error_db = 10.0 * std::log10(error / (n - kOutputLag) / MeanSquare(near, 0, n));
    EXPECT_LT(error_db, -60.0);
  }
}

TEST(AdspAecScene, SilenceAndFullScaleStayFinite) {
  struct Case {
    const char* name;
    float far_level, near_level;
    int period;  // square-wave period in samples; 0 for silence
  };
  const Case cases[] = {
      {"silence", 0.0f, 0.0f, 0},
      {"full-scale far, silent near", 32767.0f, 0.0f, 50},
      {"full-scale both", 32767.0f, -32768.0f, 37},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t n = kRate;
    Signal far(n), near(n);
    for (std::size_t i = 0; i < n; ++i) {
      const bool high = c.period > 0 && (i / (c.period / 2)) % 2 == 0;
      far[i] = high ? c.far_level : -c.far_level;
      near[i] = high ? c.near_level : -c.near_level;
    }
    for (int nlp_pf : {1, 2, 3}) {
      Instance inst;
      ASSERT_EQ(InitDefault(inst, nlp_pf), 0);
      std::vector<float> asr(kBlock), com(kBlock), coh(130);
      for (std::size_t i = 0; i + kBlock <= n; i += kBlock) {
        const float* near_bands[1] = {&near[i]};
        float* a[1] = {asr.data()};
        float* cm[1] = {com.data()};
        ASSERT_EQ(AdspAec_BufferFarend(inst.get(), &far[i], kBlock), 0);
        ASSERT_EQ(AdspAec_Process(inst.get(), near_bands, 1, a, cm, coh.data(), 130, kBlock, 0, 0), 0);
        for (int k = 0; k < kBlock; ++k) {
          for (float v : {asr[k], com[k]}) {
            ASSERT_TRUE(std::isfinite(v));
            ASSERT_LE(std::fabs(v), 32768.0f);
            // Digital silence stays digital silence, comfort noise included.
            if (c.period == 0) {
              ASSERT_EQ(v, 0.0f);
            }
          }
        }
        for (float v : coh) ASSERT_TRUE(std::isfinite(v));
      }
    }
  }
}

}  // namespace
}  // namespace vorn
