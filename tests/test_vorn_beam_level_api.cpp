// The public side of the enhanced beam and level control: the microphone
// warnings, the level target (setter, getter, configuration key) and their
// effect on whole frames through VornProc.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = 256;
constexpr int kStateBytes = 1000000;

struct Instance {
  std::vector<unsigned char> storage = std::vector<unsigned char>(kStateBytes);
  T_VornParam pm = sim::ParamOver(storage.data());
};

std::string WriteConfig(const std::string& text) {
  const std::string path = (std::filesystem::temp_directory_path() / "vorn_beam_level_api.ini").string();
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fputs(text.c_str(), f);
  std::fclose(f);
  return path;
}

TEST(VornBeamLevelApi, BadCallsAreRefusedWithTheDocumentedCodes) {
  Instance ready;
  ASSERT_EQ(VornInit(&ready.pm, nullptr), 0);
  Instance never_initialised;
  T_VornParam no_buffer = ready.pm, small = ready.pm, wrong_size = ready.pm;
  no_buffer.p_data = nullptr;
  small.buff_size = kStateBytes - 1;
  wrong_size.param_size = 1679;
  struct Case {
    const char* name;
    T_VornParam* pm;
    int32_t want;
  };
  const Case cases[] = {{"no record", nullptr, 1},
                        {"no buffer", &no_buffer, 1},
                        {"buffer too small", &small, 2},
                        {"record of another layout", &wrong_size, 3},
                        {"buffer not prepared", &never_initialised.pm, VORN_ERR_NOT_INITIALISED}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t warnings = 99;
    float target = 99.0f;
    EXPECT_EQ(VornGetWarnings(c.pm, &warnings), c.want);
    EXPECT_EQ(VornSetAgcTarget(c.pm, -20.0f), c.want);
    EXPECT_EQ(VornGetAgcTarget(c.pm, &target), c.want);
    EXPECT_EQ(warnings, 99u);
    EXPECT_EQ(target, 99.0f);
  }
  EXPECT_EQ(VornGetWarnings(&ready.pm, nullptr), 1);
  EXPECT_EQ(VornGetAgcTarget(&ready.pm, nullptr), 1);

  struct Target {
    float dbfs;
    int32_t want;
  };
  const Target targets[] = {{VORN_AGC_TARGET_MIN_DBFS, 0},
                            {VORN_AGC_TARGET_MAX_DBFS, 0},
                            {-40.1f, VORN_ERR_OUT_OF_RANGE},
                            {-5.0f, VORN_ERR_OUT_OF_RANGE},
                            {std::numeric_limits<float>::infinity(), VORN_ERR_OUT_OF_RANGE},
                            {std::numeric_limits<float>::quiet_NaN(), VORN_ERR_OUT_OF_RANGE}};
  for (const Target& t : targets) {
    SCOPED_TRACE(t.dbfs);
    ASSERT_EQ(VornSetAgcTarget(&ready.pm, -30.0f), 0);
    EXPECT_EQ(VornSetAgcTarget(&ready.pm, t.dbfs), t.want);
    float now = 0.0f;
    ASSERT_EQ(VornGetAgcTarget(&ready.pm, &now), 0);
    EXPECT_EQ(now, t.want == 0 ? t.dbfs : -30.0f);
  }
}

TEST(VornBeamLevelApi, ConfigurationFileSetsTheLevelTarget) {
  const std::string modes = "[VORN_WKP]\nagc_flag=1\nns_flag=1\nvad_mode=1\n";
  struct Case {
    const char* name;
    const char* config;
    int32_t want_init;
    float want_target;
  };
  const Case cases[] = {
      {"absent", "[VORN]\nprofile = enhanced\n", 0, VORN_AGC_TARGET_DEFAULT_DBFS},
      {"a whole number", "[VORN]\nagc_target_dbfs = -20\n", 0, -20.0f},
      {"a decimal, any case, a comment", "[vorn]\nAGC_Target_dBFS = -31.5 ; quieter\n", 0, -31.5f},
      {"the last mention wins", "[VORN]\nagc_target_dbfs = -20\nagc_target_dbfs = -18\n", 0, -18.0f},
      {"in a mode section it is not the target", "[VORN_WKP]\nagc_target_dbfs = -20\n", 0,
       VORN_AGC_TARGET_DEFAULT_DBFS},
      {"out of range", "[VORN]\nagc_target_dbfs = -3\n", -1, 0.0f},
      {"not a number", "[VORN]\nagc_target_dbfs = loud\n", -1, 0.0f},
      {"an exponent", "[VORN]\nagc_target_dbfs = -2e1\n", -1, 0.0f},
      {"empty", "[VORN]\nagc_target_dbfs =\n", -1, 0.0f},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance in;
    in.pm.vorn_mode = 0;
    std::string path = WriteConfig(modes + c.config);
    ASSERT_EQ(VornInit(&in.pm, path.data()), c.want_init);
    if (c.want_init != 0) continue;
    float target = 0.0f;
    ASSERT_EQ(VornGetAgcTarget(&in.pm, &target), 0);
    EXPECT_EQ(target, c.want_target);
  }
}

// Runs `frames` frames of `mics` through a fresh instance with `switches`.
std::vector<short> Process(Instance& in, const std::vector<short>& mics, const sim::Switches& switches,
                           int32_t profile, float target, uint32_t* warnings) {
  in.pm = sim::ParamKeeping(in.storage.data(), switches, 0);
  EXPECT_EQ(VornInit(&in.pm, nullptr), 0);
  EXPECT_EQ(VornSetProfile(&in.pm, profile), 0);
  EXPECT_EQ(VornSetAgcTarget(&in.pm, target), 0);
  std::vector<short> out(mics.size() / 3), frame(3 * kFrame), ref(kFrame, 0);
  short order[3] = {0, 1, 2};
  for (std::size_t f = 0; f < out.size() / kFrame; ++f) {
    std::copy_n(mics.begin() + static_cast<long>(f * 3 * kFrame), 3 * kFrame, frame.begin());
    EXPECT_EQ(VornProc(&in.pm, frame.data(), ref.data(), &out[f * kFrame], order), 0);
  }
  EXPECT_EQ(VornGetWarnings(&in.pm, warnings), 0);
  return out;
}

double TailDbfs(const std::vector<short>& x) {
  double sum = 0.0;
  for (std::size_t i = x.size() / 2; i < x.size(); ++i) sum += static_cast<double>(x[i]) * x[i];
  return 10.0 * std::log10(sum / static_cast<double>(x.size() - x.size() / 2) / (32768.0 * 32768.0));
}

TEST(VornBeamLevelApi, WholeFramesCarryTheWarningAndTheTarget) {
  // A talker at 100 degrees with microphone 2 dead from the start.
  const std::size_t n = 500 * kFrame;
  const sim::Signal talker = sim::MakeSpeechLike(n, 7, {.rms = 600.0, .lead_silence_s = 0.5}).samples;
  sim::ThreeMics mics = sim::Mix(sim::PlaneWave(talker, 100.0), sim::IndependentNoise(n, 5.0, 8));
  mics[2].assign(n, 0.0f);
  const std::vector<short> pcm = sim::Interleave(mics);
  const sim::Switches switches{.agc = 1, .bf = 2, .doa = 0, .aec = 0, .ns = 1, .azimuth = 100};

  Instance classic, quiet, loud;
  uint32_t classic_warnings = 1, quiet_warnings = 0, loud_warnings = 0;
  Process(classic, pcm, switches, VORN_PROFILE_CLASSIC, -26.0f, &classic_warnings);
  const std::vector<short> at_36 = Process(quiet, pcm, switches, VORN_PROFILE_ENHANCED, -36.0f, &quiet_warnings);
  const std::vector<short> at_16 = Process(loud, pcm, switches, VORN_PROFILE_ENHANCED, -16.0f, &loud_warnings);
  EXPECT_EQ(classic_warnings, 0u);  // classic does not watch the microphones
  EXPECT_EQ(quiet_warnings, VORN_WARN_MIC_DEAD(2));
  EXPECT_EQ(loud_warnings, VORN_WARN_MIC_DEAD(2));
  EXPECT_NEAR(TailDbfs(at_16) - TailDbfs(at_36), 20.0, 2.0);
}

}  // namespace
}  // namespace vorn
