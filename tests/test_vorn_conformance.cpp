// The designed interface, entry point by entry point, with null, out-of-range
// and boundary arguments. Each call must give the code vorn_proc.h documents
// for it, and a refused call must leave the instance exactly as it was: the
// instance then goes on frame for frame with the same bytes as a twin that
// never saw the call. Nothing may be printed on the way.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "sim/front_end_param.h"
#include "support/front_end_scene.h"
#include "support/files.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = VORN_FRAME_SAMPLES;

const test::Scene& Capture() {
  static const test::Scene scene = test::MakeScene(1.0, 135, 2500.0, true, 17);
  return scene;
}

const short kOrder[3] = {0, 1, 2}, kReversed[3] = {2, 1, 0}, kSlot3[3] = {0, 1, 3}, kTwice[3] = {0, 0, 1},
            kNegative[3] = {-1, 1, 2};

// The heaviest switch set, so that every module's state shows in the output.
const sim::Switches kHeaviest{.agc = 2, .bf = 4, .doa = 1, .aec = 3, .ns = 2, .azimuth = 60};

struct Instance {
  std::vector<unsigned char> buffer = std::vector<unsigned char>(VORN_MIN_BUFF_SIZE);
  T_VornParam pm = sim::ParamKeeping(buffer.data(), kHeaviest, 1);
  int frame = 0;

  explicit Instance(int32_t profile) {
    EXPECT_EQ(VornInit(&pm, nullptr), VORN_OK);
    EXPECT_EQ(VornSetProfile(&pm, profile), VORN_OK);
    Run(5);
  }
  void Run(int frames) {
    short out[kFrame];
    for (int end = frame + frames; frame < end; ++frame) {
      ASSERT_EQ(VornProc(&pm, Capture().Mics(frame), Capture().Ref(frame), out, kOrder), VORN_OK);
      outputs.insert(outputs.end(), out, out + kFrame);
      outputs.push_back(static_cast<short>(pm.vad_flag));
      outputs.push_back(static_cast<short>(pm.azimuth));
    }
  }
  std::vector<short> outputs;
};

// A call on a copy of the record (so edits to it do not persist), and the
// code it must return.
struct Case {
  const char* name;
  std::function<int32_t(T_VornParam pm)> call;
  int32_t want;
};

// Runs each case on one of two twins; the refused ones must leave it in step
// with the other.
void ExpectCodesAndUntouchedState(const std::vector<Case>& cases, int32_t profile) {
  Instance hit(profile), twin(profile);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.call(hit.pm), c.want) << VornErrorString(c.want);
    if (c.want == VORN_OK) continue;
    hit.Run(2);
    twin.Run(2);
    ASSERT_TRUE(hit.outputs == twin.outputs) << "the refused call changed the state";
  }
}

std::string WriteConfig(const std::string& name, const std::string& text) {
  static const std::string dir = test::MakeTempDir("conformance");
  const std::string path = dir + "/" + name + ".ini";
  EXPECT_TRUE(test::WriteBytes(path, text));
  return path;
}

TEST(DesignedInterface, VornProcCodes) {
  const short* mics = Capture().Mics(0);
  const short* ref = Capture().Ref(0);
  static short out[kFrame];
  const auto with = [&](void (*edit)(T_VornParam&), const short* order = kOrder) {
    return [=](T_VornParam pm) {
      edit(pm);
      return VornProc(&pm, mics, ref, out, order);
    };
  };
  const std::vector<Case> cases = {
      {"no record", [&](T_VornParam) { return VornProc(nullptr, mics, ref, out, kOrder); }, VORN_ERR_NULL},
      {"no buffer", with([](T_VornParam& p) { p.p_data = nullptr; }), VORN_ERR_NULL},
      {"no buffer beats a bad mode", with([](T_VornParam& p) { p.p_data = nullptr; p.vorn_mode = 7; }), VORN_ERR_NULL},
      {"buffer one byte short", with([](T_VornParam& p) { p.buff_size = VORN_MIN_BUFF_SIZE - 1; }), VORN_ERR_BUFF_SIZE},
      {"negative buffer size", with([](T_VornParam& p) { p.buff_size = -1; }), VORN_ERR_BUFF_SIZE},
      {"record of another layout", with([](T_VornParam& p) { p.param_size -= 4; }), VORN_ERR_PARAM_SIZE},
      {"mode 3", with([](T_VornParam& p) { p.vorn_mode = 3; }), VORN_ERR_BAD_MODE},
      {"mode 7", with([](T_VornParam& p) { p.vorn_mode = 7; }), VORN_ERR_BAD_MODE},
      {"mode -2", with([](T_VornParam& p) { p.vorn_mode = -2; }), VORN_ERR_BAD_MODE},
      {"mode before switches", with([](T_VornParam& p) { p.vorn_mode = 3; p.agc_flag = 9; }), VORN_ERR_BAD_MODE},
      {"agc 3", with([](T_VornParam& p) { p.agc_flag = 3; }), VORN_ERR_AGC_FLAG},
      {"aec 4", with([](T_VornParam& p) { p.aec_flag = 4; }), VORN_ERR_AEC_FLAG},
      {"doa -1", with([](T_VornParam& p) { p.doa_flag = -1; }), VORN_ERR_DOA_FLAG},
      {"ns 3", with([](T_VornParam& p) { p.ns_flag = 3; }), VORN_ERR_NS_FLAG},
      {"bf 8", with([](T_VornParam& p) { p.bf_flag = 8; }), VORN_ERR_BF_FLAG},
      {"azimuth 360", with([](T_VornParam& p) { p.bf_flag = 1; p.bf_azimuth = 360; }), VORN_ERR_AZIMUTH},
      {"sector beam at 90", with([](T_VornParam& p) { p.bf_azimuth = 90; }), VORN_ERR_AZIMUTH},
      {"vad mode 3", with([](T_VornParam& p) { p.vad_mode = 3; }), VORN_ERR_VAD_MODE},
      {"doa update 2", with([](T_VornParam& p) { p.doa_update_flag = 2; }), VORN_ERR_DOA_FLAG},
      {"a mode's bad switch", with([](T_VornParam& p) { p.vorn_mode = 1; p.in_argv[1].ns_flag = 5; }), VORN_ERR_NS_FLAG},
      {"no input", [&](T_VornParam pm) { return VornProc(&pm, nullptr, ref, out, kOrder); }, VORN_ERR_NULL},
      {"no output", [&](T_VornParam pm) { return VornProc(&pm, mics, ref, nullptr, kOrder); }, VORN_ERR_NULL},
      {"no order", [&](T_VornParam pm) { return VornProc(&pm, mics, ref, out, nullptr); }, VORN_ERR_NULL},
      {"no reference with the canceller on", [&](T_VornParam pm) { return VornProc(&pm, mics, nullptr, out, kOrder); },
       VORN_ERR_NULL},
      {"slot 3", with([](T_VornParam&) {}, kSlot3), VORN_ERR_BAD_MIC_ORDER},
      {"a slot twice", with([](T_VornParam&) {}, kTwice), VORN_ERR_BAD_MIC_ORDER},
      {"a negative slot", with([](T_VornParam&) {}, kNegative), VORN_ERR_BAD_MIC_ORDER},
      {"switches before the order", with([](T_VornParam& p) { p.vad_mode = 0; }, kSlot3), VORN_ERR_VAD_MODE},
  };
  std::vector<Case> all = cases;
  // Boundaries that are accepted (they process a frame, so the twins part
  // ways; they come last).
  all.push_back({"reversed order", with([](T_VornParam&) {}, kReversed), VORN_OK});
  all.push_back({"no reference with the canceller off", [&](T_VornParam pm) {
                   pm.aec_flag = 0;
                   return VornProc(&pm, mics, nullptr, out, kOrder);
                 }, VORN_OK});
  all.push_back({"azimuth 359, delay-and-sum", with([](T_VornParam& p) { p.bf_flag = 1; p.bf_azimuth = 359; }), VORN_OK});
  all.push_back({"a built-in mode", with([](T_VornParam& p) { p.vorn_mode = VORN_MODE_COMM; }), VORN_OK});
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    ExpectCodesAndUntouchedState(all, profile);
  }
}

TEST(DesignedInterface, VornDoaCodes) {
  std::vector<short> stretch(Capture().mics.begin(), Capture().mics.begin() + 3 * 40 * kFrame);
  const short* mics = stretch.data();
  const auto doa = [&](int flag, int length, const short* order = kOrder) {
    return [=](T_VornParam pm) {
      pm.doa_flag = flag;
      return VornDoa(&pm, mics, order, length);
    };
  };
  const int whole = 40 * kFrame;
  const std::vector<Case> cases = {
      {"no record", [&](T_VornParam) { return VornDoa(nullptr, mics, kOrder, whole); }, VORN_ERR_NULL},
      {"no buffer", [&](T_VornParam pm) { pm.p_data = nullptr; return VornDoa(&pm, mics, kOrder, whole); }, VORN_ERR_NULL},
      {"buffer too small", [&](T_VornParam pm) { pm.buff_size = 961584; return VornDoa(&pm, mics, kOrder, whole); },
       VORN_ERR_BUFF_SIZE},
      {"bad switch", [&](T_VornParam pm) { pm.ns_flag = -1; return VornDoa(&pm, mics, kOrder, whole); }, VORN_ERR_NS_FLAG},
      {"negative length", doa(2, -1, kOrder), VORN_ERR_BAD_LENGTH},
      {"most negative length", doa(3, -2147483647 - 1, kOrder), VORN_ERR_BAD_LENGTH},
      {"no search chosen", doa(0, whole), VORN_ERR_NO_SEARCH},
      {"no input", [&](T_VornParam pm) { pm.doa_flag = 2; return VornDoa(&pm, nullptr, kOrder, whole); }, VORN_ERR_NULL},
      {"per-frame search without an order", doa(1, whole, nullptr), VORN_ERR_NULL},
      {"slot 3", doa(2, whole, kSlot3), VORN_ERR_BAD_MIC_ORDER},
      {"slot 3, per-frame search", doa(1, whole, kSlot3), VORN_ERR_BAD_MIC_ORDER},
      {"length 0", doa(2, 0), VORN_OK},
      {"search without an order", doa(3, whole, nullptr), VORN_OK},
      {"per-frame search", doa(1, whole), VORN_OK},
  };
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    ExpectCodesAndUntouchedState(cases, profile);
  }
  // The per-frame search has nothing to go on before the first frame.
  std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
  T_VornParam fresh = sim::ParamKeeping(buffer.data(), kHeaviest, 1);
  ASSERT_EQ(VornInit(&fresh, nullptr), VORN_OK);
  EXPECT_EQ(VornDoa(&fresh, mics, kOrder, whole), VORN_ERR_NO_FRAMES);
}

TEST(DesignedInterface, VornInitCodesLeaveAWorkingInstanceWorking) {
  const std::string missing_vad = WriteConfig("missing_vad", "[VORN_WKP]\nagc_flag = 1\nvad_mdoe = 1\n");
  const std::string bad_profile = WriteConfig("bad_profile", "[VORN]\nprofile = turbo\n");
  const auto init = [](void (*edit)(T_VornParam&), const char* config = nullptr) {
    return [=](T_VornParam pm) {
      edit(pm);
      return VornInit(&pm, config);
    };
  };
  const std::vector<Case> cases = {
      {"no record", [](T_VornParam) { return VornInit(nullptr, nullptr); }, VORN_ERR_NULL},
      {"no buffer", init([](T_VornParam& p) { p.p_data = nullptr; }), VORN_ERR_NULL},
      {"no buffer, with a file", init([](T_VornParam& p) { p.p_data = nullptr; }, "/nonexistent.ini"), VORN_ERR_CONFIG},
      {"a file that cannot be read", init([](T_VornParam&) {}, "/nonexistent/vorn.ini"), VORN_ERR_CONFIG},
      {"a profile name that names none", init([](T_VornParam&) {}, bad_profile.c_str()), VORN_ERR_CONFIG},
      {"a mode the file leaves without vad_mode", init([](T_VornParam& p) { p.vorn_mode = 0; }, missing_vad.c_str()),
       VORN_ERR_VAD_MODE},
      {"buffer too small", init([](T_VornParam& p) { p.buff_size = VORN_MIN_BUFF_SIZE - 1; }), VORN_ERR_BUFF_SIZE},
      {"record of another layout", init([](T_VornParam& p) { p.param_size = 0; }), VORN_ERR_PARAM_SIZE},
      {"mode 3", init([](T_VornParam& p) { p.vorn_mode = 3; }), VORN_ERR_BAD_MODE},
      {"custom switches out of range", init([](T_VornParam& p) { p.bf_flag = -1; }), VORN_ERR_BF_FLAG},
  };
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    ExpectCodesAndUntouchedState(cases, profile);
  }
}

// (VornSetProfile's codes are test_vorn_profile's.)
TEST(DesignedInterface, WarningCodes) {
  const auto warnings = [](void (*edit)(T_VornParam&), bool with_count) {
    return [=](T_VornParam pm) {
      edit(pm);
      int32_t count = -1;
      const char* text = nullptr;
      return VornGetConfigWarnings(&pm, with_count ? &count : nullptr, &text);
    };
  };
  const std::vector<Case> cases = {
      {"no record", [](T_VornParam) { return VornGetConfigWarnings(nullptr, nullptr, nullptr); }, VORN_ERR_NULL},
      {"no buffer", warnings([](T_VornParam& p) { p.p_data = nullptr; }, true), VORN_ERR_NULL},
      {"no count", warnings([](T_VornParam&) {}, false), VORN_ERR_NULL},
      {"another layout", warnings([](T_VornParam& p) { p.param_size = 1; }, true), VORN_ERR_PARAM_SIZE},
      {"a prepared buffer", warnings([](T_VornParam&) {}, true), VORN_OK},
  };
  ExpectCodesAndUntouchedState(cases, VORN_PROFILE_ENHANCED);
}

// The enhanced profile's figures and its level target: a refused target
// leaves the level control as it was; the range's ends are accepted.
TEST(DesignedInterface, FigureAndTargetCodes) {
  const auto set = [](float target) { return [=](T_VornParam pm) { return VornSetAgcTarget(&pm, target); }; };
  const std::vector<Case> cases = {
      {"target: no record", [](T_VornParam) { return VornSetAgcTarget(nullptr, -20.0f); }, VORN_ERR_NULL},
      {"target: another layout", [](T_VornParam pm) {
         pm.param_size = 1;
         return VornSetAgcTarget(&pm, -20.0f);
       }, VORN_ERR_PARAM_SIZE},
      {"target: too quiet", set(VORN_AGC_TARGET_MIN_DBFS - 0.5f), VORN_ERR_OUT_OF_RANGE},
      {"target: too loud", set(VORN_AGC_TARGET_MAX_DBFS + 0.5f), VORN_ERR_OUT_OF_RANGE},
      {"target: no number", set(std::numeric_limits<float>::quiet_NaN()), VORN_ERR_OUT_OF_RANGE},
      {"get target: nowhere", [](T_VornParam pm) { return VornGetAgcTarget(&pm, nullptr); }, VORN_ERR_NULL},
      {"warnings: nowhere", [](T_VornParam pm) { return VornGetWarnings(&pm, nullptr); }, VORN_ERR_NULL},
      {"probability: nowhere", [](T_VornParam pm) { return VornGetSpeechProbability(&pm, nullptr); }, VORN_ERR_NULL},
      {"confidence: small buffer", [](T_VornParam pm) {
         float value = 0.0f;
         pm.buff_size = VORN_MIN_BUFF_SIZE - 1;
         return VornGetDoaConfidence(&pm, &value);
       }, VORN_ERR_BUFF_SIZE},
  };
  ExpectCodesAndUntouchedState(cases, VORN_PROFILE_ENHANCED);
  Instance instance(VORN_PROFILE_ENHANCED);
  for (const float target : {VORN_AGC_TARGET_MIN_DBFS, VORN_AGC_TARGET_MAX_DBFS}) {
    float got = 0.0f;
    EXPECT_EQ(VornSetAgcTarget(&instance.pm, target), VORN_OK);
    EXPECT_EQ(VornGetAgcTarget(&instance.pm, &got), VORN_OK);
    EXPECT_EQ(got, target);
  }
}

// A buffer VornInit has not prepared (or whose last VornInit failed before
// it could) is refused by every call that needs a prepared one.
TEST(DesignedInterface, UnpreparedBuffersAreRefused) {
  std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
  T_VornParam pm = sim::ParamKeeping(buffer.data(), kHeaviest, 1);
  const short* order = kOrder;
  short out[kFrame];
  int32_t count = 0;
  EXPECT_EQ(VornProc(&pm, Capture().Mics(0), Capture().Ref(0), out, order), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornDoa(&pm, Capture().Mics(0), order, kFrame), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornSetProfile(&pm, VORN_PROFILE_CLASSIC), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornGetProfile(&pm), -1);
  EXPECT_EQ(VornGetConfigWarnings(&pm, &count, nullptr), VORN_ERR_NOT_INITIALISED);
  float figure = 0.0f;
  EXPECT_EQ(VornGetSpeechProbability(&pm, &figure), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornGetDoaConfidence(&pm, &figure), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornGetAgcTarget(&pm, &figure), VORN_ERR_NOT_INITIALISED);
  EXPECT_EQ(VornSetAgcTarget(&pm, VORN_AGC_TARGET_DEFAULT_DBFS), VORN_ERR_NOT_INITIALISED);
  uint32_t warnings = 0;
  EXPECT_EQ(VornGetWarnings(&pm, &warnings), VORN_ERR_NOT_INITIALISED);
  pm.vad_mode = 0;
  EXPECT_EQ(VornInit(&pm, nullptr), VORN_ERR_VAD_MODE);
  EXPECT_EQ(VornProc(&pm, Capture().Mics(0), Capture().Ref(0), out, order), VORN_ERR_VAD_MODE);
  pm.vad_mode = 1;
  EXPECT_EQ(VornProc(&pm, Capture().Mics(0), Capture().Ref(0), out, order), VORN_ERR_NOT_INITIALISED);
}

// Mistakes in a configuration file are reported, with the line they are on,
// even when they make VornInit fail, and read back from a copied buffer.
TEST(DesignedInterface, ConfigurationWarningsReachTheCaller) {
  const std::string path = WriteConfig(
      "warnings",
      "[VORN_WKP]\nagc_flag = 1\nns_flag = 1\nvad_mdoe = 1\n\n[VORN_ASR]\nvad_mode = two\n[VORN]\nprofile = enhanced\n");
  std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
  T_VornParam pm = sim::ParamOver(buffer.data());
  pm.vorn_mode = VORN_MODE_WAKEUP;
  EXPECT_EQ(VornInit(&pm, path.c_str()), VORN_ERR_VAD_MODE);  // the misspelt key left vad_mode 0
  int32_t count = 0;
  const char* text = nullptr;
  ASSERT_EQ(VornGetConfigWarnings(&pm, &count, &text), VORN_OK);
  EXPECT_EQ(count, 2);
  EXPECT_STREQ(text,
               "line 4: unknown key \"vad_mdoe\" in [VORN_WKP]; ignored\n"
               "line 7: vad_mode = \"two\" in [VORN_ASR] is not a whole decimal number; ignored\n");

  ASSERT_EQ(VornInit(&pm, nullptr), VORN_OK);  // built-in switches
  ASSERT_EQ(VornGetConfigWarnings(&pm, &count, &text), VORN_OK);
  EXPECT_EQ(count, 0);  // this VornInit read no file
  EXPECT_STREQ(text, "");
}

TEST(DesignedInterface, EveryCodeHasItsOwnMeaning) {
  const int32_t codes[] = {VORN_OK,
                           VORN_ERR_NULL,
                           VORN_ERR_BUFF_SIZE,
                           VORN_ERR_PARAM_SIZE,
                           VORN_ERR_AGC_FLAG,
                           VORN_ERR_AEC_FLAG,
                           VORN_ERR_DOA_FLAG,
                           VORN_ERR_NS_FLAG,
                           VORN_ERR_BF_FLAG,
                           VORN_ERR_AZIMUTH,
                           VORN_ERR_VAD_MODE,
                           VORN_ERR_NOT_INITIALISED,
                           VORN_ERR_BAD_PROFILE,
                           VORN_ERR_BAD_MODE,
                           VORN_ERR_BAD_MIC_ORDER,
                           VORN_ERR_BAD_LENGTH,
                           VORN_ERR_NO_SEARCH,
                           VORN_ERR_CONFIG,
                           VORN_ERR_MODULE_INIT,
                           VORN_ERR_NO_FRAMES};
  std::set<std::string> texts;
  for (const int32_t code : codes) {
    ASSERT_NE(VornErrorString(code), nullptr);
    EXPECT_TRUE(texts.insert(VornErrorString(code)).second) << code << ": " << VornErrorString(code);
  }
  for (const int32_t other : {17, -2, 12001, INT32_MIN}) {
    ASSERT_NE(VornErrorString(other), nullptr);
    EXPECT_FALSE(texts.contains(VornErrorString(other))) << other;
  }
}

// Everything above, once more, with the standard streams watched: the
// library prints nothing, whatever it is handed.
TEST(DesignedInterface, NothingIsPrinted) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Instance in(VORN_PROFILE_CLASSIC);
  short out[kFrame];
  VornProc(&in.pm, Capture().Mics(0), Capture().Ref(0), out, kSlot3);
  for (int flag : {1, 2, 3, 0}) {
    in.pm.doa_flag = flag;
    VornDoa(&in.pm, Capture().Mics(0), kOrder, 40 * kFrame);
    VornDoa(&in.pm, Capture().Mics(0), kOrder, -5);
  }
  VornInit(&in.pm, "/nonexistent/vorn.ini");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace vorn
