// The processing-profile switch: how a record gets its profile (VornInit, the
// configuration file, VornSetProfile), what is refused, and that switching
// between frames keeps the front end running.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
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

std::string WriteConfig(const std::string& name, const std::string& text) {
  const std::string path = (std::filesystem::temp_directory_path() / ("vorn_profile_" + name + ".ini")).string();
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fputs(text.c_str(), f);
  std::fclose(f);
  return path;
}

TEST(VornProfile, InitSelectsClassicUnlessTheConfigurationSaysOtherwise) {
  const std::string modes = "[VORN_WKP]\nagc_flag=1\nns_flag=1\nvad_mode=1\n";
  struct Case {
    const char* name;
    const char* config;  // nullptr: VornInit without a file
    int32_t want_init;
    int32_t want_profile;
  };
  const Case cases[] = {
      {"no file", nullptr, 0, VORN_PROFILE_CLASSIC},
      {"no front-end section", "", 0, VORN_PROFILE_CLASSIC},
      {"enhanced, in any case", "[vorn]\n  Profile = EnHanced ; the new methods\n", 0,
       VORN_PROFILE_ENHANCED},
      {"classic", "[VORN]\nprofile = classic\n", 0, VORN_PROFILE_CLASSIC},
      {"the last mention wins", "[VORN]\nprofile = classic\nprofile = enhanced\n", 0, VORN_PROFILE_ENHANCED},
      {"the key in a mode section is not the profile", "[VORN_ASR]\nprofile = enhanced\n", 0, VORN_PROFILE_CLASSIC},
      {"an unknown name", "[VORN]\nprofile = turbo\n", -1, -1},
      {"an unknown name hidden by a good one", "[VORN]\nprofile = turbo\nprofile = classic\n", -1, -1},
      {"an empty value", "[VORN]\nprofile =\n", -1, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Instance in;
    in.pm.vorn_mode = 0;
    std::string path;
    if (c.config != nullptr) path = WriteConfig("init", modes + c.config);
    EXPECT_EQ(VornInit(&in.pm, c.config != nullptr ? path.data() : nullptr), c.want_init);
    EXPECT_EQ(VornGetProfile(&in.pm), c.want_profile);
  }
}

TEST(VornProfile, SetProfileRefusesBadCallsAndChangesNothing) {
  Instance ready;
  ASSERT_EQ(VornInit(&ready.pm, nullptr), 0);
  ASSERT_EQ(VornSetProfile(&ready.pm, VORN_PROFILE_ENHANCED), 0);
  EXPECT_EQ(VornGetProfile(&ready.pm), VORN_PROFILE_ENHANCED);

  Instance never_initialised;  // a zeroed buffer VornInit has not seen
  T_VornParam no_buffer = ready.pm;
  no_buffer.p_data = nullptr;
  T_VornParam small = ready.pm;
  small.buff_size = kStateBytes - 1;
  T_VornParam wrong_size = ready.pm;
  wrong_size.param_size = 1679;
  struct Case {
    const char* name;
    T_VornParam* pm;
    int32_t profile, want;
  };
  const Case cases[] = {
      {"no record", nullptr, VORN_PROFILE_CLASSIC, 1},
      {"no buffer", &no_buffer, VORN_PROFILE_CLASSIC, 1},
      {"buffer too small", &small, VORN_PROFILE_CLASSIC, 2},
      {"record of another layout", &wrong_size, VORN_PROFILE_CLASSIC, 3},
      {"buffer not prepared", &never_initialised.pm, VORN_PROFILE_CLASSIC, VORN_ERR_NOT_INITIALISED},
      {"profile 2", &ready.pm, 2, VORN_ERR_BAD_PROFILE},
      {"profile -1", &ready.pm, -1, VORN_ERR_BAD_PROFILE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(VornSetProfile(c.pm, c.profile), c.want);
    EXPECT_EQ(VornGetProfile(&ready.pm), VORN_PROFILE_ENHANCED);
  }
  EXPECT_EQ(VornGetProfile(nullptr), -1);
  EXPECT_EQ(VornGetProfile(&never_initialised.pm), -1);
  // A failed VornInit leaves a buffer the switch refuses.
  Instance failed;
  failed.pm.vorn_mode = -1;
  failed.pm.vad_mode = 0;
  ASSERT_EQ(VornInit(&failed.pm, nullptr), 10);
  EXPECT_EQ(VornSetProfile(&failed.pm, VORN_PROFILE_ENHANCED), VORN_ERR_NOT_INITIALISED);
}

// A talker with echo through the heaviest switch set, the profile changed
// every 40 frames: every frame succeeds and gives finite, bounded output, and
// a classic instance that is told "classic" on every frame gives the same
// bytes as one never told anything.
TEST(VornProfile, SwitchingBetweenFramesKeepsTheFrontEndRunning) {
  const int frames = 200;
  const auto n = static_cast<std::size_t>(frames * kFrame);
  const sim::Signal talker = sim::MakeSpeechLike(n, 5, {.rms = 2000.0}).samples;
  const std::vector<short> mics = sim::Interleave(sim::PlaneWave(talker, 120.0));
  const std::vector<short> ref = sim::ToPcm(sim::MakeSpeechLike(n, 9, {.rms = 3000.0}).samples);
  const sim::Switches heaviest{.agc = 2, .bf = 4, .doa = 1, .aec = 3, .ns = 2, .azimuth = 60};

  Instance switching, plain, told;
  for (Instance* in : {&switching, &plain, &told}) {
    in->pm = sim::ParamKeeping(in->storage.data(), heaviest, 1);
    ASSERT_EQ(VornInit(&in->pm, nullptr), 0);
  }
  short order[3] = {0, 1, 2};
  std::vector<short> in_frame(3 * kFrame), ref_frame(kFrame);
  short out[kFrame], out_plain[kFrame], out_told[kFrame];
  for (int f = 0; f < frames; ++f) {
    const int32_t profile = (f / 40) % 2 == 0 ? VORN_PROFILE_ENHANCED : VORN_PROFILE_CLASSIC;
    ASSERT_EQ(VornSetProfile(&switching.pm, profile), 0);
    ASSERT_EQ(VornSetProfile(&told.pm, VORN_PROFILE_CLASSIC), 0);
    std::copy_n(mics.begin() + f * 3 * kFrame, 3 * kFrame, in_frame.begin());
    std::copy_n(ref.begin() + f * kFrame, kFrame, ref_frame.begin());
    ASSERT_EQ(VornProc(&switching.pm, in_frame.data(), ref_frame.data(), out, order), 0) << "frame " << f;
    ASSERT_EQ(VornProc(&plain.pm, in_frame.data(), ref_frame.data(), out_plain, order), 0);
    ASSERT_EQ(VornProc(&told.pm, in_frame.data(), ref_frame.data(), out_told, order), 0);
    ASSERT_TRUE(std::equal(out_plain, out_plain + kFrame, out_told)) << "frame " << f;
    ASSERT_GE(switching.pm.azimuth, 0);
    ASSERT_LT(switching.pm.azimuth, 360);
  }
}

}  // namespace
}  // namespace vorn
