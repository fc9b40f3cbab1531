// The modern interface (vorn.h), entry point by entry point: null,
// out-of-range and boundary arguments each give their documented code and
// leave the state in step with a twin that never saw them; it runs the same
// processing as the designed interface; its settings, results, reset, copy
// and create/destroy do what the header says.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sim/front_end_param.h"
#include "support/front_end_scene.h"
#include "sim/signals.h"
#include "support/files.h"
#include "vorn.h"
#include "vorn/vorn_api_state.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = VORN_FRAME_SAMPLES;

const test::Scene& Capture() {
  static const test::Scene scene = test::MakeScene(2.0, 250, 2500.0, true, 71);
  return scene;
}

const VornSwitches kHeaviest{2, 4, 1, 3, 2, 60, 1};

// Caller memory for a state, at a chosen distance past a 64-byte boundary
// (a multiple of VORN_STATE_ALIGN; the state's own buffer inside then lies
// at another distance from its 64-byte boundaries).
struct Memory {
  std::unique_ptr<unsigned char[]> block{new unsigned char[VORN_STATE_SIZE_MAX + 128]()};
  VornState* At(int misalignment = 0) {
    const auto base = reinterpret_cast<std::uintptr_t>(block.get());
    return reinterpret_cast<VornState*>(block.get() + (64 - base % 64) % 64 + misalignment);
  }
};

VornSettings Settings(int32_t profile = VORN_PROFILE_CLASSIC) {
  VornSettings s;
  vorn_settings_default(&s);
  s.switches = &kHeaviest;
  s.profile = profile;
  return s;
}

// Runs frames [from, to): the output and the result of each.
std::vector<float> RunFrames(VornState* st, int from, int to) {
  std::vector<float> seen;
  int16_t out[kFrame];
  for (int f = from; f < to; ++f) {
    VornResult r{};
    EXPECT_EQ(vorn_process(st, Capture().Mics(f), Capture().Ref(f), out, &r), VORN_OK) << "frame " << f;
    seen.insert(seen.end(), out, out + kFrame);
    seen.insert(seen.end(),
                {float(r.speech), float(r.azimuth_deg), r.speech_probability, r.direction_confidence, r.echo_activity});
  }
  return seen;
}

bool Same(const VornSwitches& a, const VornSwitches& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A state's address moved off its alignment (never dereferenced).
VornState* Off(VornState* st) { return reinterpret_cast<VornState*>(reinterpret_cast<unsigned char*>(st) + 4); }

struct Case {
  const char* name;
  std::function<int(VornState* st)> call;
  int want;
};

// Each refused call must leave the state where a twin that never saw it is.
void ExpectCodesAndUntouchedState(const std::vector<Case>& cases, int32_t profile) {
  Memory hit_memory, twin_memory;
  VornState* hit = hit_memory.At();
  VornState* twin = twin_memory.At();
  const VornSettings s = Settings(profile);
  ASSERT_EQ(vorn_init(hit, vorn_state_size(), &s), VORN_OK);
  ASSERT_EQ(vorn_init(twin, vorn_state_size(), &s), VORN_OK);
  int frame = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.call(hit), c.want) << vorn_error_string(c.want);
    if (c.want == VORN_OK) continue;
    ASSERT_TRUE(RunFrames(hit, frame, frame + 2) == RunFrames(twin, frame, frame + 2));
    frame += 2;
  }
}

TEST(ModernInterface, EveryEntryPointGivesItsCode) {
  static int16_t out[kFrame];
  static const int16_t kSlot3[3] = {0, 1, 3}, kTwice[3] = {1, 1, 2}, kReversed[3] = {2, 1, 0};
  const int16_t* mics = Capture().Mics(0);
  const int16_t* ref = Capture().Ref(0);
  const auto with_switches = [](int32_t mode, void (*edit)(VornSwitches&)) {
    return [=](VornState* st) {
      VornSwitches sw = kHeaviest;
      edit(sw);
      return vorn_set_switches(st, mode, &sw);
    };
  };
  const std::vector<Case> cases = {
      // process
      {"process: no state", [&](VornState*) { return vorn_process(nullptr, mics, ref, out, nullptr); }, VORN_E_NULL},
      {"process: no input", [&](VornState* st) { return vorn_process(st, nullptr, ref, out, nullptr); }, VORN_E_NULL},
      {"process: no output", [&](VornState* st) { return vorn_process(st, mics, ref, nullptr, nullptr); },
       VORN_E_NULL},
      {"process: no reference, canceller on", [&](VornState* st) { return vorn_process(st, mics, nullptr, out, nullptr); },
       VORN_E_NO_REFERENCE},
      // direction
      {"direction: no state", [&](VornState*) {
         int32_t az = 0;
         return vorn_direction(nullptr, mics, kFrame, VORN_SEARCH_SAMPLES, &az);
       }, VORN_E_NULL},
      {"direction: no result", [&](VornState* st) { return vorn_direction(st, mics, kFrame, 2, nullptr); },
       VORN_E_NULL},
      {"direction: search 0", [&](VornState* st) {
         int32_t az = 0;
         return vorn_direction(st, mics, kFrame, 0, &az);
       }, VORN_E_BAD_SEARCH},
      {"direction: search 4", [&](VornState* st) {
         int32_t az = 0;
         return vorn_direction(st, mics, kFrame, 4, &az);
       }, VORN_E_BAD_SEARCH},
      {"direction: negative length", [&](VornState* st) {
         int32_t az = 0;
         return vorn_direction(st, mics, -1, VORN_SEARCH_SAMPLES, &az);
       }, VORN_E_BAD_LENGTH},
      // setters
      {"mode: no state", [](VornState*) { return vorn_set_mode(nullptr, 0); }, VORN_E_NULL},
      {"mode 3", [](VornState* st) { return vorn_set_mode(st, 3); }, VORN_E_BAD_MODE},
      {"mode -1", [](VornState* st) { return vorn_set_mode(st, -1); }, VORN_E_BAD_MODE},
      {"switches: none", [](VornState* st) { return vorn_set_switches(st, 0, nullptr); }, VORN_E_NULL},
      {"switches: mode 3", with_switches(3, [](VornSwitches&) {}), VORN_E_BAD_MODE},
      {"switches: agc 3", with_switches(0, [](VornSwitches& s) { s.agc = 3; }), VORN_E_BAD_AGC},
      {"switches: beam -1", with_switches(0, [](VornSwitches& s) { s.beam = -1; }), VORN_E_BAD_BEAM},
      {"switches: doa 4", with_switches(0, [](VornSwitches& s) { s.doa = 4; }), VORN_E_BAD_DOA},
      {"switches: aec 4", with_switches(0, [](VornSwitches& s) { s.aec = 4; }), VORN_E_BAD_AEC},
      {"switches: ns 3", with_switches(0, [](VornSwitches& s) { s.ns = 3; }), VORN_E_BAD_NS},
      {"switches: azimuth 360", with_switches(0, [](VornSwitches& s) { s.beam = 1; s.azimuth_deg = 360; }),
       VORN_E_BAD_AZIMUTH},
      {"switches: sector beam at 61", with_switches(0, [](VornSwitches& s) { s.azimuth_deg = 61; }),
       VORN_E_BAD_AZIMUTH},
      {"switches: vad mode 0", with_switches(0, [](VornSwitches& s) { s.vad_mode = 0; }), VORN_E_BAD_VAD_MODE},
      {"profile 2", [](VornState* st) { return vorn_set_profile(st, 2); }, VORN_E_BAD_PROFILE},
      {"profile auto is for settings only", [](VornState* st) { return vorn_set_profile(st, VORN_PROFILE_AUTO); },
       VORN_E_BAD_PROFILE},
      {"mic order: none", [](VornState* st) { return vorn_set_mic_order(st, nullptr); }, VORN_E_NULL},
      {"mic order: slot 3", [](VornState* st) { return vorn_set_mic_order(st, kSlot3); }, VORN_E_BAD_MIC_ORDER},
      {"mic order: a slot twice", [](VornState* st) { return vorn_set_mic_order(st, kTwice); }, VORN_E_BAD_MIC_ORDER},
      {"doa update 2", [](VornState* st) { return vorn_set_doa_update(st, 2); }, VORN_E_BAD_DOA_UPDATE},
      // getters
      {"get mode: nowhere", [](VornState* st) { return vorn_get_mode(st, nullptr); }, VORN_E_NULL},
      {"get switches: mode 3", [](VornState* st) {
         VornSwitches s;
         return vorn_get_switches(st, 3, &s);
       }, VORN_E_BAD_MODE},
      {"get switches: nowhere", [](VornState* st) { return vorn_get_switches(st, 0, nullptr); }, VORN_E_NULL},
      {"get profile: no state", [](VornState*) {
         int32_t p;
         return vorn_get_profile(nullptr, &p);
       }, VORN_E_NULL},
      {"get mic order: nowhere", [](VornState* st) { return vorn_get_mic_order(st, nullptr); }, VORN_E_NULL},
      {"get doa update: nowhere", [](VornState* st) { return vorn_get_doa_update(st, nullptr); }, VORN_E_NULL},
      {"get warnings: no count", [](VornState* st) { return vorn_get_config_warnings(st, nullptr, nullptr); },
       VORN_E_NULL},
      {"get confidence: nowhere", [](VornState* st) { return vorn_get_direction_confidence(st, nullptr); },
       VORN_E_NULL},
      {"get speech probability: nowhere", [](VornState* st) { return vorn_get_speech_probability(st, nullptr); },
       VORN_E_NULL},
      {"get echo activity: no state", [](VornState*) {
         float v;
         return vorn_get_echo_activity(nullptr, &v);
       }, VORN_E_NULL},
      {"reset: no state", [](VornState*) { return vorn_reset(nullptr); }, VORN_E_NULL},
      // memory off the alignment a state needs: refused before it is read
      {"init: misaligned", [](VornState* st) { return vorn_init(Off(st), vorn_state_size(), nullptr); },
       VORN_E_MISALIGNED},
      {"process: misaligned", [&](VornState* st) { return vorn_process(Off(st), mics, ref, out, nullptr); },
       VORN_E_MISALIGNED},
      {"warnings: misaligned", [](VornState* st) {
         int32_t count;
         return vorn_get_config_warnings(Off(st), &count, nullptr);
       }, VORN_E_MISALIGNED},
      // init, on a working state: refused before anything is touched
      {"init: no state", [](VornState*) { return vorn_init(nullptr, vorn_state_size(), nullptr); }, VORN_E_NULL},
      {"init: one byte short", [](VornState* st) { return vorn_init(st, vorn_state_size() - 1, nullptr); },
       VORN_E_SIZE},
      {"init: mode 3", [](VornState* st) {
         VornSettings s = Settings();
         s.mode = 3;
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_MODE},
      {"init: profile 5", [](VornState* st) {
         VornSettings s = Settings();
         s.profile = 5;
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_PROFILE},
      {"init: bad switches", [](VornState* st) {
         VornSettings s = Settings();
         const VornSwitches bad{0, 0, 0, 0, 0, 0, 3};
         s.switches = &bad;
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_VAD_MODE},
      {"init: doa update -1", [](VornState* st) {
         VornSettings s = Settings();
         s.doa_update = -1;
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_DOA_UPDATE},
      {"init: bad order", [](VornState* st) {
         VornSettings s = Settings();
         s.mic_order[2] = 5;
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_MIC_ORDER},
      {"init: text and file", [](VornState* st) {
         VornSettings s = Settings();
         s.config_text = "";
         s.config_file = "vorn.ini";
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_CONFIG},
      {"init: no such file", [](VornState* st) {
         VornSettings s = Settings();
         s.config_file = "/nonexistent/vorn.ini";
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_CONFIG},
      {"init: configured mode without vad_mode", [](VornState* st) {
         VornSettings s = Settings();
         s.switches = nullptr;
         s.config_text = "[VORN_WKP]\nagc_flag = 1\n";
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_BAD_VAD_MODE},
      {"init: no profile by that name", [](VornState* st) {
         VornSettings s = Settings();
         s.config_text = "[VORN]\nprofile = fast\n";
         return vorn_init(st, vorn_state_size(), &s);
       }, VORN_E_CONFIG},
      // boundaries that are accepted (they change the state: last)
      {"mic order reversed", [](VornState* st) { return vorn_set_mic_order(st, kReversed); }, VORN_OK},
      {"direction over 0 samples", [&](VornState* st) {
         int32_t az = -1;
         const int rc = vorn_direction(st, mics, 0, VORN_SEARCH_SAMPLES, &az);
         return rc == VORN_OK && az == 0 ? VORN_OK : VORN_E_INTERNAL;
       }, VORN_OK},
      {"no reference, canceller off", [&](VornState* st) {
         VornSwitches sw = kHeaviest;
         sw.aec = 0;
         vorn_set_switches(st, VORN_MODE_WAKEUP, &sw);
         return vorn_process(st, mics, nullptr, out, nullptr);
       }, VORN_OK},
  };
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    ExpectCodesAndUntouchedState(cases, profile);
  }
}

TEST(ModernInterface, AStateNotInitialisedIsRefusedEverywhere) {
  Memory memory;
  VornState* st = memory.At();  // zeroed, never initialised
  int16_t out[kFrame], order[3];
  int32_t value = 0;
  float figure = 0.0f;
  VornSwitches sw;
  const int codes[] = {
      vorn_process(st, Capture().Mics(0), Capture().Ref(0), out, nullptr),
      vorn_direction(st, Capture().Mics(0), kFrame, 2, &value),
      vorn_reset(st),
      vorn_set_mode(st, 0),
      vorn_get_mode(st, &value),
      vorn_set_switches(st, 0, &kHeaviest),
      vorn_get_switches(st, 0, &sw),
      vorn_set_profile(st, 0),
      vorn_get_profile(st, &value),
      vorn_set_mic_order(st, order),
      vorn_get_mic_order(st, order),
      vorn_set_doa_update(st, 0),
      vorn_get_doa_update(st, &value),
      vorn_get_config_warnings(st, &value, nullptr),
      vorn_get_speech_probability(st, &figure),
      vorn_get_direction_confidence(st, &figure),
      vorn_get_echo_activity(st, &figure),
  };
  for (std::size_t i = 0; i < std::size(codes); ++i) EXPECT_EQ(codes[i], VORN_E_NOT_READY) << "call " << i;
}

// Both interfaces drive the same processing: the same settings give the same
// bytes, in both profiles, through a mode change and a canceller switched on.
TEST(ModernInterface, RunsTheSameProcessingAsTheDesignedInterface) {
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    Memory memory;
    VornState* st = memory.At(8);
    VornSettings s;
    vorn_settings_default(&s);
    s.profile = profile;
    ASSERT_EQ(vorn_init(st, vorn_state_size(), &s), VORN_OK);

    std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
    T_VornParam pm = sim::ParamOver(buffer.data());
    pm.vorn_mode = VORN_MODE_WAKEUP;
    pm.doa_update_flag = 1;
    ASSERT_EQ(VornInit(&pm, nullptr), VORN_OK);
    ASSERT_EQ(VornSetProfile(&pm, profile), VORN_OK);
    const short order[3] = {0, 1, 2};
    float activity[2] = {}, frames[2] = {};  // echo activity while the loudspeaker is quiet, playing
    for (int f = 0; f < 120; ++f) {
      if (f == 40) {  // the communication mode, with the canceller
        VornSwitches comm;
        ASSERT_EQ(vorn_get_switches(st, VORN_MODE_COMM, &comm), VORN_OK);
        comm.aec = 2;
        ASSERT_EQ(vorn_set_switches(st, VORN_MODE_COMM, &comm), VORN_OK);
        ASSERT_EQ(vorn_set_mode(st, VORN_MODE_COMM), VORN_OK);
        pm.in_argv[VORN_MODE_COMM].aec_flag = 2;
        pm.vorn_mode = VORN_MODE_COMM;
      }
      int16_t got[kFrame], want[kFrame];
      VornResult r;
      ASSERT_EQ(vorn_process(st, Capture().Mics(f), Capture().Ref(f), got, &r), VORN_OK);
      ASSERT_EQ(VornProc(&pm, Capture().Mics(f), Capture().Ref(f), want, order), VORN_OK);
      ASSERT_EQ(std::memcmp(got, want, sizeof got), 0) << "frame " << f;
      ASSERT_EQ(r.speech, pm.vad_flag);
      ASSERT_EQ(r.azimuth_deg, pm.azimuth);
      // The figures the designed getters give, the flag for a probability
      // in the classic profile.
      float designed = -1.0f;
      ASSERT_EQ(VornGetDoaConfidence(&pm, &designed), VORN_OK);
      ASSERT_EQ(r.direction_confidence, designed);
      ASSERT_EQ(VornGetSpeechProbability(&pm, &designed), VORN_OK);
      ASSERT_EQ(r.speech_probability, profile == VORN_PROFILE_ENHANCED ? designed : float(pm.vad_flag));
      ASSERT_GE(r.speech_probability, 0.0f);
      ASSERT_LE(r.speech_probability, 1.0f);
      ASSERT_GE(r.echo_activity, 0.0f);
      ASSERT_LE(r.echo_activity, 1.0f);
      if (profile == VORN_PROFILE_CLASSIC) {
        ASSERT_EQ(r.echo_activity, 0.0f);  // it keeps no such figure
      }
      if (f >= 40) {
        const std::vector<short> ref(Capture().Ref(f), Capture().Ref(f) + kFrame);
        const bool playing = sim::Rms(ref) > 300.0;
        activity[playing] += r.echo_activity;
        frames[playing] += 1;
      }
    }
    ASSERT_GT(frames[0] * frames[1], 0.0f);
    if (profile == VORN_PROFILE_ENHANCED) {
      // (The figure holds on through the echo's tail after the loudspeaker
      // stops, so quiet frames score some activity too.)
      EXPECT_GT(activity[1] / frames[1], activity[0] / frames[0] + 0.3f);
    }
    int32_t a = 0, b = 0;
    ASSERT_EQ(vorn_direction(st, Capture().Mics(0), 100 * kFrame, VORN_SEARCH_SAMPLES_WEIGHTED, &a), VORN_OK);
    pm.doa_flag = 3;
    ASSERT_EQ(VornDoa(&pm, Capture().Mics(0), order, 100 * kFrame), VORN_OK);
    b = pm.azimuth;
    EXPECT_EQ(a, b);
  }
}

TEST(ModernInterface, SettingsReachTheProcessing) {
  const std::string dir = test::MakeTempDir("modern");
  const std::string text =
      "[VORN_WKP]\nagc_flag = 2\nbf_flag = 1\nns_flag = 1\nvad_mode = 1\nbf_zaimuth = 30\nbogus = 1\n"
      "[VORN_ASR]\nvad_mode = 2\n[VORN_COM]\nvad_mode = 2\nns_flag = 2\n[VORN]\nprofile = classic\n";
  ASSERT_TRUE(test::WriteBytes(dir + "/vorn.ini", text));
  Memory from_text, from_file, overridden;
  VornSettings s;
  vorn_settings_default(&s);
  s.config_text = text.c_str();
  ASSERT_EQ(vorn_init(from_text.At(), vorn_state_size(), &s), VORN_OK);
  s.config_text = nullptr;
  const std::string file = dir + "/vorn.ini";
  s.config_file = file.c_str();
  ASSERT_EQ(vorn_init(from_file.At(16), vorn_state_size(), &s), VORN_OK);
  EXPECT_TRUE(RunFrames(from_text.At(), 0, 30) == RunFrames(from_file.At(16), 0, 30));

  int32_t profile = -1, mode = -1, count = 0, doa_update = -1;
  const char* warnings = nullptr;
  VornSwitches wkp;
  ASSERT_EQ(vorn_get_profile(from_text.At(), &profile), VORN_OK);
  EXPECT_EQ(profile, VORN_PROFILE_CLASSIC);  // the configuration's, as settings asked for none
  ASSERT_EQ(vorn_get_mode(from_text.At(), &mode), VORN_OK);
  EXPECT_EQ(mode, VORN_MODE_WAKEUP);
  ASSERT_EQ(vorn_get_doa_update(from_text.At(), &doa_update), VORN_OK);
  EXPECT_EQ(doa_update, 1);
  ASSERT_EQ(vorn_get_switches(from_text.At(), VORN_MODE_WAKEUP, &wkp), VORN_OK);
  EXPECT_TRUE(Same(wkp, {2, 1, 0, 0, 1, 30, 1}));
  ASSERT_EQ(vorn_get_config_warnings(from_text.At(), &count, &warnings), VORN_OK);
  EXPECT_EQ(count, 1);
  EXPECT_STREQ(warnings, "line 7: unknown key \"bogus\" in [VORN_WKP]; ignored\n");

  // Settings win over the configuration: switches, profile, order.
  const VornSwitches plain{0, 0, 0, 0, 0, 0, 2};
  s.switches = &plain;
  s.profile = VORN_PROFILE_ENHANCED;
  s.mic_order[0] = 1;
  s.mic_order[1] = 2;
  s.mic_order[2] = 0;
  ASSERT_EQ(vorn_init(overridden.At(), vorn_state_size(), &s), VORN_OK);
  ASSERT_EQ(vorn_get_switches(overridden.At(), VORN_MODE_WAKEUP, &wkp), VORN_OK);
  EXPECT_TRUE(Same(wkp, plain));
  ASSERT_EQ(vorn_get_profile(overridden.At(), &profile), VORN_OK);
  EXPECT_EQ(profile, VORN_PROFILE_ENHANCED);
  int16_t order[3];
  ASSERT_EQ(vorn_get_mic_order(overridden.At(), order), VORN_OK);
  EXPECT_EQ(order[0] * 100 + order[1] * 10 + order[2], 120);
  // With everything off, the classic output is the microphone in slot 1 (the
  // one at 0 degrees); the enhanced beam would pass it through its own
  // analysis and synthesis.
  ASSERT_EQ(vorn_set_profile(overridden.At(), VORN_PROFILE_CLASSIC), VORN_OK);
  int16_t out[kFrame];
  ASSERT_EQ(vorn_process(overridden.At(), Capture().Mics(3), Capture().Ref(3), out, nullptr), VORN_OK);
  for (int i = 0; i < kFrame; ++i) ASSERT_EQ(out[i], Capture().Mics(3)[3 * i]) << i;
  std::filesystem::remove_all(dir);
}

// Reset, a copy and a state from vorn_create all go on exactly like a state
// freshly initialised (or the original) would.
TEST(ModernInterface, ResetCopyAndCreate) {
  const VornSettings s = Settings(VORN_PROFILE_ENHANCED);
  Memory original, fresh, copy;
  ASSERT_EQ(vorn_init(original.At(), vorn_state_size(), &s), VORN_OK);
  RunFrames(original.At(), 0, 50);
  ASSERT_EQ(vorn_reset(original.At()), VORN_OK);
  ASSERT_EQ(vorn_init(fresh.At(), vorn_state_size(), &s), VORN_OK);
  EXPECT_TRUE(RunFrames(original.At(), 50, 80) == RunFrames(fresh.At(), 50, 80));

  // A level target from the configuration survives the reset (the modern
  // interface has no getter for it; the designed one reads it).
  VornSettings quiet = s;
  quiet.config_text = "[VORN]\nagc_target_dbfs = -35\n";
  Memory restarted;
  ASSERT_EQ(vorn_init(restarted.At(), vorn_state_size(), &quiet), VORN_OK);
  RunFrames(restarted.At(), 0, 5);
  ASSERT_EQ(vorn_reset(restarted.At()), VORN_OK);
  const T_VornParam record = RecordCopyOf(restarted.At());
  float target = 0.0f;
  ASSERT_EQ(VornGetAgcTarget(&record, &target), VORN_OK);
  EXPECT_EQ(target, -35.0f);

  std::memcpy(copy.At(40), original.At(), vorn_state_size());
  std::memset(static_cast<void*>(original.At()), 0x5a, vorn_state_size());
  EXPECT_TRUE(RunFrames(copy.At(40), 80, 110) == RunFrames(fresh.At(), 80, 110));

  int error = 1;
  VornState* made = vorn_create(&s, &error);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(error, VORN_OK);
  Memory reference;
  ASSERT_EQ(vorn_init(reference.At(), vorn_state_size(), &s), VORN_OK);
  EXPECT_TRUE(RunFrames(made, 0, 20) == RunFrames(reference.At(), 0, 20));
  vorn_destroy(made);
  vorn_destroy(nullptr);
  VornSettings bad = s;
  bad.mode = 9;
  EXPECT_EQ(vorn_create(&bad, &error), nullptr);
  EXPECT_EQ(error, VORN_E_BAD_MODE);
  EXPECT_EQ(vorn_create(&bad, nullptr), nullptr);
}

// The level target and the microphone warnings, the settings the enhanced
// profile adds, through the modern calls: refusals, round trip, a reset
// keeping the target, and a dead microphone reported.
TEST(ModernInterface, LevelTargetAndMicrophoneWarnings) {
  Memory unready, memory;
  float target = 0.0f;
  uint32_t warnings = 99;
  EXPECT_EQ(vorn_set_agc_target(unready.At(), -20.0f), VORN_E_NOT_READY);
  EXPECT_EQ(vorn_get_mic_warnings(unready.At(), &warnings), VORN_E_NOT_READY);
  const VornSettings s = Settings(VORN_PROFILE_ENHANCED);
  VornState* st = memory.At();
  ASSERT_EQ(vorn_init(st, vorn_state_size(), &s), VORN_OK);
  ASSERT_EQ(vorn_get_agc_target(st, &target), VORN_OK);
  EXPECT_EQ(target, VORN_AGC_TARGET_DEFAULT_DBFS);
  EXPECT_EQ(vorn_get_agc_target(st, nullptr), VORN_E_NULL);
  EXPECT_EQ(vorn_get_mic_warnings(st, nullptr), VORN_E_NULL);
  for (float bad : {VORN_AGC_TARGET_MIN_DBFS - 0.5f, VORN_AGC_TARGET_MAX_DBFS + 0.5f, std::nanf("")})
    EXPECT_EQ(vorn_set_agc_target(st, bad), VORN_E_OUT_OF_RANGE) << bad;
  ASSERT_EQ(vorn_set_agc_target(st, -20.0f), VORN_OK);
  ASSERT_EQ(vorn_reset(st), VORN_OK);
  ASSERT_EQ(vorn_get_agc_target(st, &target), VORN_OK);
  EXPECT_EQ(target, -20.0f);

  // Microphone 1 gives zeros from the start; the others the capture.
  int16_t mics[3 * kFrame], out[kFrame];
  for (int f = 0; f < 40; ++f) {
    std::memcpy(mics, Capture().Mics(f), sizeof mics);
    for (int n = 0; n < kFrame; ++n) mics[3 * n + 1] = 0;
    VornResult r{};
    ASSERT_EQ(vorn_process(st, mics, Capture().Ref(f), out, &r), VORN_OK);
  }
  ASSERT_EQ(vorn_get_mic_warnings(st, &warnings), VORN_OK);
  EXPECT_EQ(warnings, VORN_WARN_MIC_DEAD(1));
  ASSERT_EQ(vorn_set_profile(st, VORN_PROFILE_CLASSIC), VORN_OK);
  ASSERT_EQ(vorn_get_mic_warnings(st, &warnings), VORN_OK);
  EXPECT_EQ(warnings, 0u);
}

TEST(ModernInterface, EveryCodeHasItsOwnMeaning) {
  std::set<std::string> texts;
  for (int code = VORN_E_OUT_OF_RANGE; code <= VORN_OK; ++code) {
    ASSERT_NE(vorn_error_string(code), nullptr);
    EXPECT_TRUE(texts.insert(vorn_error_string(code)).second) << code;
  }
  EXPECT_FALSE(texts.contains(vorn_error_string(1)));
  EXPECT_FALSE(texts.contains(vorn_error_string(VORN_E_OUT_OF_RANGE - 1)));
  EXPECT_STREQ(vorn_version(), VornGetVersion());
  EXPECT_LE(vorn_state_size(), static_cast<size_t>(VORN_STATE_SIZE_MAX));
}

}  // namespace
}  // namespace vorn
