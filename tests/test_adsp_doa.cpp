// Direction finding: the bin weights and angle bookkeeping, the per-hop decision on simulated
// talkers around the array, and the two utterance-level searches.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>
#include <tuple>
#include <vector>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/weight_tables.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "sim/ns_harness.h"
#include "sim/signals.h"
#include "support/emulation.h"

namespace vorn {
namespace {

struct BfInstance {
  std::vector<float> buffer = std::vector<float>(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  explicit BfInstance(int doa_flag = 1) {
    // p_data, buff_size, param_size, agc, bf, bf_azimuth, doa, aec, ns, azimuth, ext_doa_update, inner:
    pm = {buffer.data(), kBfBuffSize, kBfParamSize, 0, 1, 0, doa_flag, 0, 0, 0, 1, 0};
    EXPECT_EQ(BFInit(&pm), 0);
  }
  T_AudioDspState* st() { return static_cast<T_AudioDspState*>(pm.p_data); }
};

TEST(DoaHelpers, BinWeightsPowerSlotsAngleMeansAndSelectSort) {
  // At the noise and below: floor; floored gain times squared ratio; both terms; capped; no noise: capped.
  const std::tuple<float, float, float> weights[] = {
      {1, 1, 0.1f}, {0, 1, 0.1f}, {2, 1, 0.1f * 4}, {4, 1, (4 - 1.9f) / 4 * 16}, {100, 1, 100}, {1, 0, 100}};
  for (auto [power, noise, want] : weights) {
    float w = -1.0f;
    GetBfWeight(&power, &noise, &w, 1);
    EXPECT_NEAR(w, want, 1e-5f * want) << "power " << power << " noise " << noise;
  }
  // Slot 0 holds the DC magnitude and slot 255 the Nyquist magnitude, not powers.
  sim::Signal spectrum = sim::WhiteNoise(512, 5.0, 5);
  spectrum[0] = -3.0f;
  spectrum[256] = -7.0f;
  float psd[256];
  GetDoaPsd(spectrum.data(), psd, 512);
  EXPECT_EQ(psd[0], 3.0f);
  EXPECT_EQ(psd[255], 7.0f);
  for (int k = 1; k < 255; ++k)
    EXPECT_FLOAT_EQ(psd[k], spectrum[k] * spectrum[k] + spectrum[512 - k] * spectrum[512 - k]);

  struct Case {
    const char* name;
    std::vector<int> angles;
    int mean, hist;
  };
  const Case cases[] = {{"around zero", {350, 10}, 0, 0},          {"half turn", {180, 181}, 0, 180},
                        {"just below zero", {359, 358}, 359, 358}, {"truncating mean", {1, 2}, 1, 1},
                        {"negative mean maps back", {300, 350}, 325, 325},
                        {"first sector on ties", {10, 200}, 285, 10},
                        {"wrapping sector wins", {350, 355, 5, 10, 100}, 20, 0},
                        {"stray decision left out", {100, 110, 250}, 33, 105}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int> a = c.angles;
    EXPECT_EQ(MeanAngle(a.data(), int(a.size())), c.mean);
    EXPECT_EQ(HistAngle(a.data(), int(a.size())), c.hist);
  }
  EXPECT_EQ(HistAngle(nullptr, 0), 0);

  // SelectSort: the largest score wins, the first of equal ones; a single entry is the answer.
  EleAziStruct sets[4] = {{3, 1.0f}, {9, 5.0f}, {11, 5.0f}, {2, 4.0f}};
  EleAziIndex pick{-1, -1};
  SelectSort(sets, 4, &pick);
  EXPECT_TRUE(pick.elevation == 1 && pick.azimuth == 9) << pick.elevation << " " << pick.azimuth;
  SelectSort(sets, 1, &pick);
  EXPECT_TRUE(pick.elevation == 0 && pick.azimuth == 3) << pick.elevation << " " << pick.azimuth;
}

// The vector scoring over the transposed family gives the plain loop's bits
// over the sets themselves, on random bins and weights and on silence (all
// zero, the search's floor), which also proves the transposed copy holds the
// sets' own floats and that every family turns and mirrors exactly as the
// vector loops assume. The eight-lane twin too, where the processor has it.
TEST(DoaSteeredPower, VectorSearchMatchesThePlainLoopBitForBit) {
#if defined(VORN_SIMD4)
  const sim::Signal noise = sim::WhiteNoise(kDoaBandBins * 6 + 256, 0.5, 17);
  for (bool silent : {false, true}) {
    float unit[kDoaBandBins][3][2];
    std::copy_n(noise.begin(), kDoaBandBins * 6, &unit[0][0][0]);
    std::vector<float> w(noise.begin() + kDoaBandBins * 6, noise.end());
    if (silent) std::fill(w.begin(), w.end(), 0.0f);
    for (int e = 0; e < kBfElevationSets; ++e) {
      std::vector<float> plain(kBfDirections), fast(kBfDirections);
      DoaSteeredPowerPlain(doa_ele_azi_tab[e], kBfDirections, unit, w.data(), plain.data());
      DoaSteeredPowerSimd(doa_ele_azi_search_tab[e], unit, w.data(), fast.data());
      EXPECT_EQ(std::memcmp(plain.data(), fast.data(), plain.size() * sizeof(float)), 0) << "family " << e;
#if defined(VORN_AVX2)
      if (CpuHasAvx2()) {
        DoaSteeredPowerAvx2(doa_ele_azi_search_tab[e], unit, w.data(), fast.data());
        EXPECT_EQ(std::memcmp(plain.data(), fast.data(), plain.size() * sizeof(float)), 0) << "eight lanes " << e;
      }
#endif
    }
  }
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

// The per-bin steps around the search, against their plain loops: spectra
// and powers of noise over ten decades with zeros, values under the
// magnitude floor, infinities and NaN among them.
TEST(DoaKernels, VectorTwinsGiveThePlainBits) {
#if defined(VORN_SIMD4)
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  const float specials[] = {0.0f, -0.0f, 1e-9f, -3e-9f, 1e-40f, 1e-8f, inf, -inf, nan, 3e38f};
  const auto values = [&](int n, std::uint32_t seed) {
    const sim::Signal x = sim::WhiteNoise(n, 1.0, seed);
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i)
      v[i] = i % 7 == 3 ? specials[(i / 7) % 10] : x[i] * std::pow(10.0f, static_cast<float>(i % 11) - 5.0f);
    return v;
  };
  const std::vector<float> spectra = values(3 * kBfFftLen, 31);
  float f[3][512];
  std::copy_n(spectra.begin(), 3 * kBfFftLen, &f[0][0]);
  float plain[kDoaBandBins][3][2], fast[kDoaBandBins][3][2];
  DoaUnitBinsPlain(f, plain);
  DoaUnitBinsSimd(f, fast);
  EXPECT_EQ(std::memcmp(plain, fast, sizeof(plain)), 0) << "unit bins";

  // Powers: squares, so not negative; noise as the tracker keeps it.
  std::vector<float> power = values(kBfFftLen / 2, 32), noise = values(kBfFftLen / 2, 33);
  for (float& p : power) p *= p;
  for (float& n : noise) n = std::fabs(n);
  for (int len : {kBfFftLen / 2, 7}) {
    std::vector<float> a(len), b(len);
    BfWeightPlain(power.data(), noise.data(), a.data(), len);
    BfWeightSimd(power.data(), noise.data(), b.data(), len);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), len * sizeof(float)), 0) << "weights over " << len << " bins";
  }
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

// The tracked azimuth is a plain mean of the decisions in degrees, without wrap-around, over the
// hops seen so far (at most 64), and a hop before any is counted gives its own decision. Here a
// history alternating 0 and 355, then one hop: silence, which scores 0 everywhere (not NaN) and
// decides 0, or white noise from 100 degrees, whose decision enters the mean.
TEST(DOA, TracksThePlainMeanOfTheDecisions) {
  const std::vector<short> wave = sim::Interleave(sim::PlaneWave(sim::WhiteNoise(kBfFftLen, 3000.0, 8), 100.0));
  float talker[3][512] = {};
  for (int m = 0; m < 3; ++m) {
    for (int n = 0; n < kBfFftLen; ++n) talker[m][n] = wave[static_cast<std::size_t>(3 * n + m)];
    fft_rel(talker[m], kBfFftLen, kBfFftOrder);
  }
  const std::pair<unsigned, int> cases[] = {{100, 64}, {63, 63}, {10, 10}, {1, 1}, {0, 0}};  // frame_num, divisor
  for (const bool silent : {true, false}) {
    for (const auto& [frame_num, divisor] : cases) {
      SCOPED_TRACE(testing::Message() << (silent ? "silent" : "talker") << " hop, frame_num " << frame_num);
      BfInstance bf;
      T_AudioDspState* st = bf.st();
      for (int h = 0; h < 64; ++h) st->azimuth_buff[h] = (h % 2) ? 355 : 0;
      st->frame_num = frame_num;
      float f[3][512] = {};
      if (!silent) std::copy(&talker[0][0], &talker[0][0] + 3 * 512, &f[0][0]);
      const int tracked = DOA(st, f);
      const int decided = st->azimuth_buff[63];
      EXPECT_EQ(st->azimuth_buff[62], 355);
      EXPECT_EQ(tracked, divisor > 0 ? (32 * 355 + decided) / divisor : decided);
      if (silent) {
        EXPECT_EQ(decided, 0);
        for (int d = 0; d < 72; ++d) EXPECT_EQ(st->frame_bf_en[d][63], 0.0f);
      } else {
        EXPECT_NEAR(decided, 100, 5);
      }
    }
  }
}

// The first hops through the frame flow: each scores the 72 directions into the newest column of
// the history, whose best is the hop's decision and which the frame scores copy; older columns
// move back by one per hop; the tracked azimuth is the mean over the hops so far. The source moves
// from 250 to 100 degrees after two hops; the hop whose window holds both decides either.
TEST(BfProc, FirstHopsScoreAgeAndAverageTheDecisions) {
  const sim::Signal noise = sim::WhiteNoise(4 * kBfHop, 3000.0, 9);
  const sim::ThreeMics from_250 = sim::PlaneWave(noise, 250.0), from_100 = sim::PlaneWave(noise, 100.0);
  sim::ThreeMics moving;
  for (int m = 0; m < 3; ++m) {
    moving[m] = from_250[m];
    std::copy(from_100[m].begin() + 2 * kBfHop, from_100[m].end(), moving[m].begin() + 2 * kBfHop);
  }
  std::vector<short> pcm = sim::Interleave(moving);
  BfInstance bf;
  T_AudioDspState* st = bf.st();
  std::fill(st->ns_psd, st->ns_psd + kBfNumBins, 1e-3f);
  std::vector<float> before(72, 0.0f);  // the previous hop's scores: nothing before the first
  const int want[4] = {250, 250, -1, 100};
  int sum = 0;
  for (int hop = 0; hop < 4; ++hop) {
    SCOPED_TRACE(hop);
    short out[kBfHop];
    ASSERT_EQ(BfProc(&bf.pm, pcm.data() + 3 * kBfHop * hop, out, nullptr), 0);
    const int decided = st->azimuth_buff[63];
    sum += decided;
    if (want[hop] >= 0) {
      EXPECT_NEAR(decided, want[hop], 5);
    }
    EXPECT_EQ(bf.pm.azimuth, sum / (hop + 1));
    std::vector<float> newest(72), aged(72), frame(72);
    for (int d = 0; d < 72; ++d) {
      newest[d] = st->pr_ele[0][d][63];
      aged[d] = st->pr_ele[0][d][62];
      frame[d] = st->frame_bf_en[d][63];
    }
    EXPECT_EQ(5 * (std::max_element(newest.begin(), newest.end()) - newest.begin()), decided);
    EXPECT_EQ(frame, newest);
    EXPECT_EQ(aged, before);
    before = newest;
  }
}

// A speech-like talker after 90 hops of sensor noise alone (20 dB below its voiced level), run as
// the front end runs per-hop tracking: a suppressor on microphone 0 supplies the noise estimate.
TEST(DOA, PerHopDecisionsAndUtteranceSearchesFindTheTalker) {
  constexpr std::size_t kLeadHops = 90, kHops = 190;
  std::vector<double> azimuths = {7.4, 52.6, 173.9, 251.2, 338.8};
  // Under emulation every 30 degrees rather than every 15.
  const int step = test::UnderEmulation() ? 30 : 15;
  for (int a = 0; a < 360; a += step) azimuths.push_back(a + 3.0);
  auto angle_error = [](double a, double b) { return std::fabs(std::remainder(a - b, 360.0)); };
  int voiced_hops = 0, voiced_hits = 0;
  for (double azimuth : azimuths) {
    SCOPED_TRACE(azimuth);
    const auto seed = std::uint32_t(azimuth * 10);
    const double lead_s = kLeadHops * kBfHop / 16000.0;
    auto talker = sim::MakeSpeechLike(kHops * kBfHop, seed, {.rms = 3000.0, .lead_silence_s = lead_s});
    // The generator has no radiation at the lips, which differentiates the
    // flow (+6 dB per octave) and gives real speech its brightness: add it.
    for (std::size_t i = talker.samples.size() - 1; i > 0; --i) talker.samples[i] -= talker.samples[i - 1];
    const double noise_rms = std::sqrt(sim::MaskedMeanSquare(talker.samples, talker.active, 1)) / 10.0;
    const sim::ThreeMics noise = sim::IndependentNoise(talker.samples.size(), noise_rms, seed + 7);
    std::vector<short> pcm = sim::Interleave(sim::Mix(sim::PlaneWave(talker.samples, azimuth), noise));

    BfInstance bf;
    sim::NsInstance ns;
    const int hops_before = voiced_hops, hits_before = voiced_hits;
    for (std::size_t h = 0; h < kHops; ++h) {
      short* frame = pcm.data() + h * 3 * kBfHop;
      short mono[kBfHop], out[kBfHop];
      for (int i = 0; i < kBfHop; ++i) mono[i] = frame[3 * i];
      AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, mono, out);
      AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, mono + 128, out + 128);
      std::copy(ns.state().lambda_d, ns.state().lambda_d + kBfNumBins, bf.st()->ns_psd);
      ASSERT_EQ(BfProc(&bf.pm, frame, out, nullptr), 0);
      // Scored once the noise estimate has settled, on hops whose 512-sample window lies in a syllable.
      if (h < kLeadHops) continue;
      const auto window = talker.active.begin() + long((h - 1) * kBfHop);
      if (!std::all_of(window, window + 2 * kBfHop, [](std::uint8_t a) { return a != 0; })) continue;
      ++voiced_hops;
      voiced_hits += angle_error(bf.st()->azimuth_buff[63], azimuth) <= 5.0;
    }
    EXPECT_GE(voiced_hits - hits_before, (voiced_hops - hops_before) * 8 / 10);  // within 5 degrees

    // The stretch of the last 64 hops, as a keyword detector would hand it.
    const int stretch = 64 * kBfHop;
    short order[3] = {0, 1, 2};
    ASSERT_EQ(AudioDspDoa(&bf.pm, pcm.data(), order, stretch), 0);
    BfInstance search(3);
    const std::size_t first = pcm.size() - 3 * std::size_t(stretch + kBfFftLen);
    ASSERT_EQ(VornDoaProc(&search.pm, pcm.data() + first, nullptr, stretch + kBfFftLen), 0);
    EXPECT_LE(angle_error(bf.pm.azimuth, azimuth), 5.0);
    EXPECT_LE(angle_error(search.pm.azimuth, azimuth), 5.0);
  }
  EXPECT_GE(voiced_hits, voiced_hops * 95 / 100);
}

// Flag 1 decides a direction each hop, flag 3 only records per-bin speech weights (newest row
// first) for the utterance search; without the caller's permission nothing moves.
TEST(BfProc, DoaWorkFollowsTheFlags) {
  std::vector<short> pcm = sim::Interleave(sim::PlaneWave(sim::WhiteNoise(3 * kBfHop, 3000.0, 4), 100.0));
  const std::tuple<int, int, bool, bool> cases[] = {  // doa_flag, permission, decides, weighs
      {1, 1, true, false},  {3, 1, false, true},  {2, 1, false, false},
      {0, 1, false, false}, {1, 0, false, false}, {3, 0, false, false}};
  for (const auto& [doa_flag, permission, decides, weighs] : cases) {
    SCOPED_TRACE(testing::Message() << "doa_flag " << doa_flag << " permission " << permission);
    BfInstance bf(doa_flag);
    bf.pm.ext_doa_update_flag = permission;
    bf.pm.azimuth = -1;
    T_AudioDspState* st = bf.st();
    short out[kBfHop];
    // Hop 1 against a noise floor far above the signal, hop 2 far below it.
    std::fill(st->ns_psd, st->ns_psd + kBfNumBins, 1e30f);
    ASSERT_EQ(BfProc(&bf.pm, pcm.data(), out, nullptr), 0);
    std::fill(st->ns_psd, st->ns_psd + kBfNumBins, 1e-3f);
    ASSERT_EQ(BfProc(&bf.pm, pcm.data() + 3 * kBfHop, out, nullptr), 0);
    EXPECT_EQ(bf.pm.azimuth >= 0, decides);
    EXPECT_EQ(st->pr_ele[0][20][63] > 0.0f, decides);
    for (int k = 17; k <= 221; ++k) {
      EXPECT_EQ(st->speech_noise_weight[0][k], weighs ? 100.0f : 1.0f) << k;
      EXPECT_EQ(st->speech_noise_weight[1][k], weighs ? 0.1f : 1.0f) << k;
      EXPECT_EQ(st->speech_noise_weight[2][k], 1.0f) << k;
    }
  }
}

// AudioDspDoa sums the newest hops of the stored scores; VornDoaProc clears
// them and rescores one hop fewer than fit in the stretch.
TEST(UtteranceDoa, StoredScoresAndRescoredStretches) {
  BfInstance bf;
  T_AudioDspState* st = bf.st();
  short pcm[3] = {0, 0, 0}, order[3] = {0, 1, 2};
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
  const std::pair<int, int> cases[] = {{255, 215}, {3 * 256, 35}, {64 * 256, 100}, {1000 * 256, 100}};
  for (const auto& [samples, want] : cases) {
    ASSERT_EQ(AudioDspDoa(&bf.pm, pcm, order, samples), 0);
    EXPECT_EQ(bf.pm.azimuth, want) << samples;
  }

  std::vector<short> wave = sim::Interleave(sim::PlaneWave(sim::WhiteNoise(4096, 2000.0, 77), 100.0));
  const std::pair<int, int> searches[] = {{512 + 3 * 256, 2}, {1023, 0}, {300, 0}};  // samples, hops scored
  for (const auto& [samples, want_scored] : searches) {
    SCOPED_TRACE(samples);
    BfInstance search(2);
    search.st()->doa_update_flag = 0;
    search.st()->pr_ele[0][5][10] = 1.0f;  // stale score from an earlier call
    ASSERT_EQ(VornDoaProc(&search.pm, wave.data(), nullptr, samples), 0);
    // A scored hop gives every direction a positive score; the stale one is gone.
    const float* scores = &search.st()->pr_ele[0][0][0];
    EXPECT_EQ(std::count_if(scores, scores + 72 * 64, [](float v) { return v > 0.0f; }), 72 * want_scored);
    EXPECT_TRUE(want_scored > 0 || search.pm.azimuth == 0) << search.pm.azimuth;  // none scored: 0
    EXPECT_EQ(search.st()->doa_update_flag, 1);
  }
  short outside[3] = {0, 1, 3};
  EXPECT_EQ(VornDoaProc(&bf.pm, nullptr, nullptr, 4096), 1);
  EXPECT_EQ(VornDoaProc(&bf.pm, wave.data(), outside, 4096), 2);
  EXPECT_EQ(VornDoaProc(nullptr, wave.data(), nullptr, 4096), 1);
}

}  // namespace
}  // namespace vorn
