// Direction finding: the bin weights and angle bookkeeping, the per-hop
// decision on simulated talkers around the array, and the two utterance-level
// searches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/weight_tables.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::ThreeMics;

struct BfInstance {
  std::vector<float> buffer = std::vector<float>(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  explicit BfInstance(int doa_flag = 1) {
    pm.p_data = buffer.data();
    pm.buff_size = kBfBuffSize;
    pm.param_size = kBfParamSize;
    pm.bf_flag = 1;
    pm.doa_flag = doa_flag;
    pm.ext_doa_update_flag = 1;
    EXPECT_EQ(BFInit(&pm), 0);
  }
  T_AudioDspState* st() { return static_cast<T_AudioDspState*>(pm.p_data); }
};

// Circular distance in degrees.
double AngleError(double a, double b) {
  const double d = std::fmod(std::fabs(a - b), 360.0);
  return d > 180.0 ? 360.0 - d : d;
}

TEST(GetBfWeight, RisesWithThePowerAboveTheNoise) {
  struct Case {
    float power, noise, want;
  };
  const Case cases[] = {
      {1.0f, 1.0f, 0.1f},                          // at the noise: floor, no boost
      {0.0f, 1.0f, 0.1f},                          // below it: floor
      {2.0f, 1.0f, 0.1f * 4.0f},                   // floored gain, squared ratio
      {4.0f, 1.0f, (4.0f - 1.9f) / 4.0f * 16.0f},  // both terms
      {100.0f, 1.0f, 100.0f},                      // capped
      {1.0f, 0.0f, 100.0f},                        // no noise at all: capped
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.power);
    float p = c.power, n = c.noise, w = -1.0f;
    GetBfWeight(&p, &n, &w, 1);
    EXPECT_NEAR(w, c.want, 1e-5f * c.want);
  }
}

TEST(GetDoaPsd, EdgeSlotsHoldMagnitudes) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> uni(-10.0f, 10.0f);
  float spectrum[512];
  for (float& v : spectrum) v = uni(rng);
  spectrum[0] = -3.0f;
  spectrum[256] = -7.0f;
  float psd[256];
  GetDoaPsd(spectrum, psd, 512);
  EXPECT_EQ(psd[0], 3.0f);
  EXPECT_EQ(psd[255], 7.0f);
  for (int k = 1; k < 255; ++k) EXPECT_FLOAT_EQ(psd[k], spectrum[k] * spectrum[k] + spectrum[512 - k] * spectrum[512 - k]);
}

TEST(DoaAngles, HelpersAndSectorMean) {
  EXPECT_EQ(AngleTo180(181), -179);
  EXPECT_EQ(AngleTo180(180), 180);
  EXPECT_EQ(AngleTo360(-1), 359);
  EXPECT_EQ(AngleTo360(0), 0);

  struct Case {
    const char* name;
    std::vector<int> angles;
    int mean, hist;
  };
  const std::vector<Case> cases = {
      {"around zero", {350, 10}, 0, 0},
      {"wrapping sector wins", {350, 355, 5, 10, 100}, 20, 0},
      {"truncating mean", {1, 2}, 1, 1},
      {"negative mean maps back", {300, 350}, 325, 325},
      {"stray decision left out", {100, 110, 250}, 33, 105},
      {"first sector on ties", {10, 200}, 285, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int> a = c.angles;
    EXPECT_EQ(MeanAngle(a.data(), static_cast<int>(a.size())), c.mean);
    EXPECT_EQ(HistAngle(a.data(), static_cast<int>(a.size())), c.hist);
  }
  EXPECT_EQ(HistAngle(nullptr, 0), 0);
}

TEST(SelectSort, LargestScoreFirstOnTies) {
  EleAziStruct sets[4] = {{3, 1.0f}, {9, 5.0f}, {11, 5.0f}, {2, 4.0f}};
  EleAziIndex pick{-1, -1};
  SelectSort(sets, 4, &pick);
  EXPECT_EQ(pick.elevation, 1);
  EXPECT_EQ(pick.azimuth, 9);
  SelectSort(sets, 1, &pick);
  EXPECT_EQ(pick.elevation, 0);
  EXPECT_EQ(pick.azimuth, 3);
}

#if defined(__SSE2__)
// The vector scoring must give the plain loop's bits, for the real tables
// and for a count of sets that leaves a scalar tail.
TEST(DoaSteeredPower, Sse2MatchesThePlainLoopBitForBit) {
  std::mt19937 rng(17);
  std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
  float unit[kDoaBandBins][3][2];
  for (auto& bin : unit)
    for (auto& mic : bin) {
      const float re = uni(rng), im = uni(rng);
      const float mag = std::sqrt(re * re + im * im) + 1e-6f;
      mic[0] = re / mag;
      mic[1] = im / mag;
    }
  std::vector<float> w(256);
  for (float& v : w) v = 0.1f + 50.0f * (uni(rng) + 1.0f);
  std::vector<float> random_sets(7 * 1542);
  for (float& v : random_sets) v = uni(rng);
  const float* random_ptrs[7];
  for (int i = 0; i < 7; ++i) random_ptrs[i] = random_sets.data() + 1542 * i;

  struct Case {
    const char* name;
    const float* const* sets;
    int count;
  };
  const Case cases[] = {{"60-degree family", doa_tab60, 72}, {"in-plane family", doa_tab, 72}, {"random, tail of 3", random_ptrs, 7}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<float> plain(static_cast<std::size_t>(c.count)), fast(static_cast<std::size_t>(c.count));
    DoaSteeredPowerPlain(c.sets, c.count, unit, w.data(), plain.data());
    DoaSteeredPowerSse2(c.sets, c.count, unit, w.data(), fast.data());
    for (int d = 0; d < c.count; ++d) EXPECT_EQ(plain[static_cast<std::size_t>(d)], fast[static_cast<std::size_t>(d)]) << d;
  }
}
#endif

// The tracked azimuth is a plain mean of the decisions in degrees.
TEST(DOA, TracksThePlainMeanOfTheDecisions) {
  float silent[3][512] = {};
  struct Case {
    unsigned frame_num;
    int want;
  };
  // History alternating 0 and 355, then a silent hop that decides 0.
  const Case cases[] = {{100, 32 * 355 / 64}, {10, 32 * 355 / 10}, {1, 32 * 355}, {0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.frame_num);
    BfInstance bf;
    T_AudioDspState* st = bf.st();
    for (int h = 0; h < 64; ++h) st->azimuth_buff[h] = (h % 2) ? 355 : 0;
    st->frame_num = c.frame_num;
    EXPECT_EQ(DOA(st, silent), c.want);
    EXPECT_EQ(st->azimuth_buff[63], 0);
    EXPECT_EQ(st->azimuth_buff[62], 355);
    for (int d = 0; d < 72; ++d) {
      EXPECT_EQ(st->pr_ele[0][d][63], 0.0f);
      EXPECT_EQ(st->frame_bf_en[d][63], 0.0f);
    }
  }
}

// The generator's talker is a source-filter model without the radiation at
// the lips, which differentiates the flow (+6 dB per octave) and gives real
// speech its brightness above 1 kHz. Add it.
void RadiateFromLips(test::Signal& x) {
  float prev = 0.0f;
  for (float& v : x) {
    const float cur = v;
    v = cur - prev;
    prev = cur;
  }
}

// One simulated recording: a speech-like talker at `azimuth` after a stretch
// of noise alone, with spatially white sensor noise 20 dB below the talker's
// voiced level.
struct Scene {
  static constexpr std::size_t kLeadHops = 90;   // noise only, for the noise tracker
  static constexpr std::size_t kTalkHops = 100;  // talker active (syllables)
  std::vector<short> pcm;
  std::vector<std::uint8_t> active;
  Scene(double azimuth, std::uint32_t seed) {
    const std::size_t n = (kLeadHops + kTalkHops) * kBfHop;
    test::SpeechLikeOptions opt;
    opt.rms = 3000.0;
    opt.lead_silence_s = static_cast<double>(kLeadHops * kBfHop) / test::kSampleRate;
    test::SpeechLike talker = test::MakeSpeechLike(n, seed, opt);
    RadiateFromLips(talker.samples);
    const double noise_rms = std::sqrt(test::MaskedMeanSquare(talker.samples, talker.active, 1)) / 10.0;
    pcm = test::Interleave(
        test::Mix(test::PlaneWave(talker.samples, azimuth), test::IndependentNoise(n, noise_rms, seed + 7)));
    active = talker.active;
  }
  // True when the hop's whole 512-sample analysis window lies in a syllable.
  bool Voiced(std::size_t hop) const {
    if (hop == 0) return false;
    for (std::size_t i = (hop - 1) * kBfHop; i < (hop + 1) * kBfHop; ++i)
      if (!active[i]) return false;
    return true;
  }
};

// Runs the beamformer with per-hop tracking the way the front end does: a
// suppressor instance follows microphone 0 and its noise estimate is copied
// into the beamformer before every hop.
struct TrackedRun {
  std::vector<int> decisions;  // per hop, degrees
  BfInstance bf{1};
  explicit TrackedRun(std::vector<short>& pcm) {
    std::vector<float> ns_buffer(kNsStateBytes / sizeof(float));
    T_AdspNsParam ns{};
    ns.p_data = ns_buffer.data();
    ns.buff_size = kNsStateBytes;
    ns.param_size = kNsParamSize;
    ns.data_type = kNsDataTimeDomain;
    ns.vad_mode = 1;
    EXPECT_EQ(AdspNsInit(&ns), 0);
    const auto* ns_st = static_cast<const T_AdspNsState*>(ns.p_data);
    const std::size_t hops = pcm.size() / (3 * kBfHop);
    short mono[kBfHop], ns_out[kBfHop], out[kBfHop];
    for (std::size_t h = 0; h < hops; ++h) {
      short* frame = pcm.data() + h * 3 * kBfHop;
      for (int i = 0; i < kBfHop; ++i) mono[i] = frame[3 * i];
      AdspNsProc(&ns, nullptr, nullptr, nullptr, mono, ns_out);
      AdspNsProc(&ns, nullptr, nullptr, nullptr, mono + 128, ns_out + 128);
      std::memcpy(bf.st()->ns_psd, ns_st->lambda_d, sizeof(bf.st()->ns_psd));
      EXPECT_EQ(BfProc(&bf.pm, frame, out, nullptr), 0);
      decisions.push_back(bf.st()->azimuth_buff[63]);
    }
  }
};

std::vector<double> TestAzimuths() {
  std::vector<double> az;
  for (int a = 0; a < 360; a += 15) az.push_back(a + 3.0);
  for (double a : {7.4, 52.6, 173.9, 251.2, 338.8}) az.push_back(a);
  return az;
}

TEST(DOA, PerHopDecisionsAndUtteranceSearchesFindTheTalker) {
  int voiced_hops = 0, voiced_hits = 0;
  double worst_utterance = 0.0;
  for (double azimuth : TestAzimuths()) {
    SCOPED_TRACE(azimuth);
    Scene scene(azimuth, static_cast<std::uint32_t>(azimuth * 10));
    TrackedRun run(scene.pcm);

    int hops = 0, hits = 0;
    for (std::size_t h = Scene::kLeadHops; h < run.decisions.size(); ++h) {
      if (!scene.Voiced(h)) continue;
      ++hops;
      if (AngleError(run.decisions[h], azimuth) <= 5.0) ++hits;
    }
    voiced_hops += hops;
    voiced_hits += hits;
    EXPECT_GE(hits, hops * 8 / 10) << "voiced hops within 5 degrees";

    // The stretch of the last 64 hops, as a keyword detector would hand it.
    const int stretch = 64 * kBfHop;
    short order[3] = {0, 1, 2};
    ASSERT_EQ(AudioDspDoa(&run.bf.pm, scene.pcm.data(), order, stretch), 0);
    const double stored = run.bf.pm.azimuth;
    EXPECT_LE(AngleError(stored, azimuth), 5.0);

    BfInstance search(3);
    const std::size_t first = scene.pcm.size() - 3 * static_cast<std::size_t>(stretch + kBfFftLen);
    ASSERT_EQ(VornDoaProc(&search.pm, scene.pcm.data() + first, nullptr, stretch + kBfFftLen), 0);
    const double rescored = search.pm.azimuth;
    EXPECT_LE(AngleError(rescored, azimuth), 5.0);
    worst_utterance = std::max({worst_utterance, AngleError(stored, azimuth), AngleError(rescored, azimuth)});
  }
  std::printf("per-hop: %d of %d voiced hops within 5 degrees; utterance searches: worst error %.1f degrees\n",
              voiced_hits, voiced_hops, worst_utterance);
  EXPECT_GE(voiced_hits, voiced_hops * 95 / 100);
}

// Which DOA work a hop does, by doa_flag and the caller's permission: flag 1
// decides a direction, flag 3 only records per-bin speech weights (newest
// row first) for the utterance search, and without permission nothing moves.
TEST(BfProc, DoaWorkFollowsTheFlags) {
  std::vector<short> pcm = test::Interleave(test::PlaneWave(test::WhiteNoise(3 * kBfHop, 3000.0, 4), 100.0));
  struct Case {
    int doa_flag, permission;
    bool decides, weighs;
  };
  const Case cases[] = {{1, 1, true, false}, {3, 1, false, true}, {2, 1, false, false},
                        {0, 1, false, false}, {1, 0, false, false}, {3, 0, false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "doa_flag " << c.doa_flag << " permission " << c.permission);
    BfInstance bf(c.doa_flag);
    bf.pm.ext_doa_update_flag = c.permission;
    bf.pm.azimuth = -1;
    T_AudioDspState* st = bf.st();
    short out[kBfHop];
    // Hop 1 against a noise floor far above the signal, hop 2 far below it.
    for (int k = 0; k < kBfNumBins; ++k) st->ns_psd[k] = 1e30f;
    ASSERT_EQ(BfProc(&bf.pm, pcm.data(), out, nullptr), 0);
    for (int k = 0; k < kBfNumBins; ++k) st->ns_psd[k] = 1e-3f;
    ASSERT_EQ(BfProc(&bf.pm, pcm.data() + 3 * kBfHop, out, nullptr), 0);

    EXPECT_EQ(bf.pm.azimuth >= 0, c.decides);
    EXPECT_EQ(st->pr_ele[0][20][63] > 0.0f, c.decides);
    for (int k = 17; k <= 221; ++k) {
      EXPECT_EQ(st->speech_noise_weight[0][k], c.weighs ? 100.0f : 1.0f) << k;
      EXPECT_EQ(st->speech_noise_weight[1][k], c.weighs ? 0.1f : 1.0f) << k;
      EXPECT_EQ(st->speech_noise_weight[2][k], 1.0f) << k;
    }
  }
}

TEST(AudioDspDoa, SumsTheNewestHopsOfStoredScores) {
  BfInstance bf;
  T_AudioDspState* st = bf.st();
  short pcm[3] = {0, 0, 0};
  short order[3] = {0, 1, 2};
  bf.pm.azimuth = -7;
  EXPECT_EQ(AudioDspDoa(&bf.pm, pcm, order, 4096), 201);  // no hop yet
  EXPECT_EQ(bf.pm.azimuth, -7);
  EXPECT_EQ(AudioDspDoa(&bf.pm, pcm, nullptr, 4096), 1);
  EXPECT_EQ(AudioDspDoa(nullptr, pcm, order, 4096), 1);
  bf.pm.doa_flag = 0;
  st->frame_num = 5;
  EXPECT_EQ(AudioDspDoa(&bf.pm, pcm, order, 4096), 2);
  bf.pm.doa_flag = 2;

  // Direction 7 dominates the three newest hops, direction 20 the older ones.
  for (int h = 61; h < 64; ++h) st->pr_ele[0][7][h] = 10.0f;
  for (int h = 0; h < 61; ++h) st->pr_ele[0][20][h] = 1.0f;
  st->azimuth_buff[63] = 215;
  struct Case {
    int samples, want;
  };
  const Case cases[] = {{255, 215}, {3 * 256, 35}, {64 * 256, 100}, {1000 * 256, 100}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.samples);
    ASSERT_EQ(AudioDspDoa(&bf.pm, pcm, order, c.samples), 0);
    EXPECT_EQ(bf.pm.azimuth, c.want);
  }
}

TEST(VornDoaProc, ScoresOneHopFewerThanItSearches) {
  const ThreeMics mics = test::PlaneWave(test::WhiteNoise(4096, 2000.0, 77), 100.0);
  std::vector<short> pcm = test::Interleave(mics);
  struct Case {
    int samples, scored;
  };
  const Case cases[] = {{512 + 3 * 256, 2}, {1023, 0}, {300, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.samples);
    BfInstance bf(2);
    bf.st()->doa_update_flag = 0;
    bf.st()->pr_ele[0][5][10] = 1.0f;  // stale score from an earlier call
    ASSERT_EQ(VornDoaProc(&bf.pm, pcm.data(), nullptr, c.samples), 0);
    int scored = 0;
    for (int h = 0; h < 64; ++h) {
      float sum = 0.0f;
      for (int d = 0; d < 72; ++d) sum += bf.st()->pr_ele[0][d][h];
      if (sum > 0.0f) ++scored;
    }
    EXPECT_EQ(scored, c.scored);
    if (c.scored == 0) {
      EXPECT_EQ(bf.pm.azimuth, 0);
    }
    EXPECT_EQ(bf.st()->doa_update_flag, 1);
  }
  BfInstance bf(2);
  EXPECT_EQ(VornDoaProc(&bf.pm, nullptr, nullptr, 4096), 1);
  short outside[3] = {0, 1, 3};
  EXPECT_EQ(VornDoaProc(&bf.pm, pcm.data(), outside, 4096), 2);
  EXPECT_EQ(VornDoaProc(nullptr, pcm.data(), nullptr, 4096), 1);
}

}  // namespace
}  // namespace vorn
