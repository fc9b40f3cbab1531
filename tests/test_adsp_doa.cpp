// Direction finding: the bin weights, the angle bookkeeping and the
// tracked azimuth.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/weight_tables.h"

namespace vorn {
namespace {

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
  float spec[512];
  for (float& v : spec) v = uni(rng);
  spec[0] = -3.0f;
  spec[256] = -7.0f;
  float psd[256];
  GetDoaPsd(spec, psd, 512);
  EXPECT_EQ(psd[0], 3.0f);
  EXPECT_EQ(psd[255], 7.0f);
  for (int k = 1; k < 255; ++k) EXPECT_FLOAT_EQ(psd[k], spec[k] * spec[k] + spec[512 - k] * spec[512 - k]);
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

}  // namespace
}  // namespace vorn
