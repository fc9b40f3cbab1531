// The front end through its public entry points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "adsp_aec/echo_cancellation.h"
#include "common/adsp_common_util.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "support/files.h"
#include "support/front_end_scene.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_proc_internal.h"
#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = 256;

// One front end with its own buffer.
struct FrontEnd {
  std::vector<unsigned char> storage = std::vector<unsigned char>(kVornMinBuffSize);
  T_VornParam pm = sim::ParamOver(storage.data());
  // Mode -1 keeps these switches in force from VornInit on (the canceller is prepared for its outputs there).
  int Init(int agc, int bf, int aec, int ns, int azimuth = 0) {
    const sim::Switches switches{.agc = agc, .bf = bf, .aec = aec, .ns = ns, .azimuth = azimuth, .vad_mode = 2};
    pm = sim::ParamKeeping(storage.data(), switches, 0);
    return VornInit(&pm, nullptr);
  }
};

using test::MakeScene;
using test::Scene;

// Runs every frame; returns the output and the per-frame speech flags.
struct RunOutput {
  std::vector<short> out;
  std::vector<int> vad;
};
RunOutput Process(FrontEnd& fe, Scene& s) {
  RunOutput r;
  short order[3] = {0, 1, 2}, out[kFrame];
  for (std::size_t f = 0; f < s.frames(); ++f) {
    EXPECT_EQ(VornProc(&fe.pm, &s.mics[3 * kFrame * f], &s.ref[kFrame * f], out, order), 0) << "frame " << f;
    r.out.insert(r.out.end(), out, out + kFrame);
    r.vad.push_back(fe.pm.vad_flag);
  }
  return r;
}

TEST(VornProc, Float2int32SnrSaturatesAndTruncates) {
  const float db[6] = {200.0f, 128.0f, 12.75f, -3.9f, -128.0f, -500.0f};
  int32_t q10[6];
  Float2int32_SNR(db, q10, 128, -128, 6);
  const int32_t want[6] = {131072, 131072, 13056, -3993, -131072, 131072};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(q10[i], want[i]) << i;
}

// Each mode's switches, from the file, take effect on the next frame: the suppressor runs instance 0 twice a
// frame with ns_flag 1, none with 0, and all three (one per beam) with the post filter, ns_flag 2.
TEST(VornProc, ConfigFileDrivesTheModesAndSwitchesTakeEffectNextFrame) {
  const std::string dir = test::MakeTempDir("conf");
  std::string path = dir + "/vorn.conf";
  ASSERT_TRUE(test::WriteBytes(path,
                               "[VORN_WKP]\nagc_flag=1\nbf_flag=1\nns_flag=1\nvad_mode=1\nbf_zaimuth=30\n"
                               "[VORN_ASR]\nagc_flag=0\nbf_flag=2\nns_flag=0\nvad_mode=2\nbf_zaimuth=90\n"
                               "[VORN_COM]\nagc_flag=2\nbf_flag=5\nns_flag=2\nvad_mode=2\n"));
  FrontEnd fe;
  ASSERT_EQ(VornInit(&fe.pm, path.data()), 0);
  Scene s = MakeScene(0.2, 90, 2000.0, false, 5);
  short order[3] = {0, 1, 2}, out[kFrame];
  // bf, ns, agc, azimuth, then the calls made on each suppressor instance so far
  const int want[3][7] = {{1, 1, 1, 30, 2, 0, 0}, {2, 0, 0, 90, 2, 0, 0}, {5, 2, 2, 0, 4, 2, 2}};
  for (int mode = 0; mode < 3; ++mode) {
    SCOPED_TRACE(mode);
    fe.pm.vorn_mode = mode;
    const std::size_t first = static_cast<std::size_t>(mode) * kFrame;
    ASSERT_EQ(VornProc(&fe.pm, &s.mics[3 * first], &s.ref[first], out, order), 0);
    std::vector<int> got = {fe.pm.bf_flag, fe.pm.ns_flag, fe.pm.agc_flag, fe.pm.bf_azimuth};
    for (const T_AdspNsParam& ns : VornStateOf(&fe.pm)->ns_pm) {
      got.push_back(static_cast<const T_AdspNsState*>(ns.p_data)->frame);
    }
    EXPECT_EQ(got, std::vector<int>(want[mode], want[mode] + 7));
  }
  std::filesystem::remove_all(dir);
}

// Echo return loss enhancement over the last 3 s: microphone 0 in, output out.
TEST(VornProc, EchoIsRemovedWhenTheReferenceIsFed) {
  Scene s = MakeScene(6.0, 0, 0.0, true, 41);
  FrontEnd fe;
  ASSERT_EQ(fe.Init(0, 0, 1, 0), 0);
  const RunOutput r = Process(fe, s);
  std::vector<short> mic0;
  for (std::size_t n = s.ref.size() - 3 * sim::kSampleRate; n < s.ref.size(); ++n) {
    mic0.push_back(s.mics[3 * n]);
  }
  const std::vector<short> out(r.out.end() - 3 * sim::kSampleRate, r.out.end());
  const double erle_db = 20.0 * std::log10(sim::Rms(mic0) / sim::Rms(out));
  std::printf("ERLE through the front end: %.1f dB\n", erle_db);
  EXPECT_GT(erle_db, 15.0);
}

// The canceller switched on (or to other outputs) between frames takes over
// from the next frame, never giving silence. Switched on, or on again after
// frames without it, it is exactly the canceller VornInit would have
// prepared at that frame (with only the canceller on, the output is its
// output, so the bytes must match a front end initialised there). The echo
// is measured against the same run with the canceller left off. Both
// profiles share the canceller's preparation.
TEST(VornProc, SwitchingTheCancellerBetweenFramesRemovesTheEchoFromTheNextFrame) {
  Scene s = MakeScene(300 * kFrame / double{sim::kSampleRate}, 0, 0.0, true, 43);
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile == VORN_PROFILE_CLASSIC ? "classic" : "enhanced");
    // The output from frame `from` on, with aec_flag `first` before frame 100,
    // 0 for `off_frames` frames, then `later`; or (fresh) from a front end
    // initialised at frame `from` with `later`.
    const auto run = [&](int first, int later, int off_frames, int from, bool fresh) {
      FrontEnd fe;
      EXPECT_EQ(fe.Init(0, 0, fresh ? later : first, 0), 0);
      EXPECT_EQ(VornSetProfile(&fe.pm, profile), 0);
      std::vector<short> out;
      short order[3] = {0, 1, 2}, frame_out[kFrame];
      for (int f = fresh ? from : 0; f < static_cast<int>(s.frames()); ++f) {
        fe.pm.aec_flag = fresh || f >= 100 + off_frames ? later : f < 100 ? first : 0;
        const std::size_t at = static_cast<std::size_t>(f) * kFrame;
        EXPECT_EQ(VornProc(&fe.pm, &s.mics[3 * at], &s.ref[at], frame_out, order), 0) << "frame " << f;
        if (f >= from) out.insert(out.end(), frame_out, frame_out + kFrame);
      }
      return out;
    };
    struct Case {
      const char* name;
      int first, later, off_frames;
      bool as_if_fresh;
      double min_next_frames_db;  // over the 10 frames after the switch
    };
    // A fresh canceller's linear filter needs a second or two; its recognition
    // output is suppressed from the first block. Its communication output
    // starts with comfort noise at the level of the first block, which takes
    // some 300 ms to settle, after a switch exactly as after VornInit.
    const Case cases[] = {
        {"off, then the recognition output", 0, 1, 0, true, 15.0},
        {"off, then the communication output", 0, 2, 0, true, -100.0},
        {"off, then both outputs", 0, 3, 0, true, -100.0},
        {"recognition, off for 20 frames, on again", 1, 1, 20, true, -100.0},  // its next frames hold little echo
        {"recognition, then the communication output", 1, 2, 0, false, 20.0},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      const int from = 100 + c.off_frames;
      const std::vector<short> off = run(0, 0, 0, from, false), on = run(c.first, c.later, c.off_frames, from, false);
      // The enhanced echo stage keeps history of its own across the switch
      // (its lead tracking), so only the classic canceller restarts exactly
      // as VornInit would prepare it; the enhanced one converges more slowly
      // over the first frames and is held to the removal over the stretch.
      const bool classic = profile == VORN_PROFILE_CLASSIC;
      if (c.as_if_fresh && classic) {
        EXPECT_TRUE(on == run(c.first, c.later, c.off_frames, from, true));
      }
      const auto down_db = [&](std::size_t first_frame, std::size_t frames) {
        const auto part = [&](const std::vector<short>& x) {
          return std::vector<short>(x.begin() + first_frame * kFrame, x.begin() + (first_frame + frames) * kFrame);
        };
        return 20.0 * std::log10(sim::Rms(part(off)) / sim::Rms(part(on)));
      };
      const std::size_t later_frames = on.size() / kFrame - 1;
      std::printf("[ figures  ] %s: echo down %.1f dB over the next 10 frames, %.1f dB over the next %zu\n", c.name,
                  down_db(1, 10), down_db(1, later_frames), later_frames);
      EXPECT_GE(down_db(1, 10), classic ? c.min_next_frames_db : std::min(c.min_next_frames_db, 3.0));
      EXPECT_GT(down_db(1, later_frames), 15.0);
      EXPECT_GT(sim::Rms(on), 10.0);  // the microphones' own noise comes through: no silence
    }
  }
}

// aec_flag 3: the frame carries the canceller's ASR output and the VAD hears its communication output. Both
// are rebuilt from the modules (microphone 0 passes bf_flag 0 untouched; suppression and AGC are off).
TEST(VornProc, BothCancellerOutputsFeedTheirConsumers) {
  Scene s = MakeScene(2.0, 0, 2000.0, true, 21);
  FrontEnd fe, vad_only;  // the second supplies an initialised VAD instance
  ASSERT_EQ(fe.Init(0, 0, 3, 0), 0);
  ASSERT_EQ(vad_only.Init(0, 0, 3, 0), 0);
  const RunOutput got = Process(fe, s);

  alignas(16) static unsigned char aec_mem[kRegionAecBuffSize];
  char no_file[1] = "";
  ASSERT_EQ(AdspAec_Init(aec_mem, kRegionAecBuffSize, 16000, 16000, 3, no_file), 0);
  const std::size_t n = s.frames() * kFrame;
  std::vector<short> asr_pcm(n), com_pcm(n);
  std::vector<int> want_vad;
  float subcoh[130] = {};
  for (std::size_t at = 0; at < n; at += 64) {
    float near[64], far[64], asr[64], com[64];
    for (std::size_t i = 0; i < 64; ++i) {
      near[i] = s.mics[3 * (at + i)];
      far[i] = s.ref[at + i];
    }
    const float* near_band = near;
    float* out_bands[2] = {asr, com};
    ASSERT_EQ(AdspAec_BufferFarend(aec_mem, far, 64), 0);
    ASSERT_EQ(AdspAec_Process(aec_mem, &near_band, 1, &out_bands[0], &out_bands[1], subcoh, 130, 64, 0, 0), 0);
    Float2PCM(asr, &asr_pcm[at], 64);
    Float2PCM(com, &com_pcm[at], 64);
    if ((at + 64) % kFrame != 0) continue;
    short vad_out[kFrame];
    const std::size_t start = at + 64 - kFrame;  // of the frame this block completes
    want_vad.push_back(VornVadProc(&vad_only.pm, &com_pcm[start], &s.ref[start], subcoh, 65, vad_out));
  }
  EXPECT_TRUE(got.out == asr_pcm);
  EXPECT_EQ(got.vad, want_vad);
}

}  // namespace
}  // namespace vorn
