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

// Interleaved capture of a talker at `azimuth` over light noise and, with `echo`, far-end speech played
// through a 10 ms delay and a decaying echo path into every microphone and fed as the reference.
struct Scene {
  std::vector<short> mics, ref;
  std::size_t frames() const { return ref.size() / kFrame; }
};

Scene MakeScene(double seconds, double azimuth, double talker_rms, bool echo, std::uint32_t seed) {
  const auto n = static_cast<std::size_t>(seconds * sim::kSampleRate);
  const sim::Signal talker = sim::MakeSpeechLike(n, seed, {.rms = talker_rms}).samples;
  sim::ThreeMics mics = sim::Mix(sim::PlaneWave(talker, azimuth), sim::IndependentNoise(n, 50.0, seed + 3));
  Scene s{{}, std::vector<short>(n)};
  if (echo) {
    s.ref = sim::ToPcm(sim::MakeSpeechLike(n, seed + 100, {.rms = 3000.0, .f0_hz = 210.0}).samples);
    sim::Signal path = sim::WhiteNoise(480, 0.8 / std::sqrt(12.0), seed);
    for (std::size_t k = 0; k < path.size(); ++k) path[k] *= k < 160 ? 0.0f : std::exp((160.0f - k) / 60.0f);
    sim::Signal at_mic(n, 0.0f);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t k = 160; k < path.size() && k <= i; ++k) at_mic[i] += path[k] * s.ref[i - k];
    mics = sim::Mix(mics, {at_mic, at_mic, at_mic});
  }
  s.mics = sim::Interleave(mics);
  return s;
}

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

TEST(VornProc, EntryPointsReturnTheParameterCodes) {
  FrontEnd fe;
  EXPECT_EQ(VornInit(nullptr, nullptr), 1);
  ASSERT_EQ(VornInit(&fe.pm, nullptr), 0);

  short in[3 * kFrame] = {}, ref[kFrame] = {}, out[kFrame] = {}, order[3] = {0, 1, 2};
  EXPECT_EQ(VornProc(&fe.pm, nullptr, ref, out, order), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, ref, nullptr, order), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, ref, out, nullptr), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, nullptr, out, order), 0);  // no reference needed with the canceller off
  fe.pm.in_argv[0].aec_flag = 1;
  EXPECT_EQ(VornProc(&fe.pm, in, nullptr, out, order), 1);
  fe.pm.in_argv[0].bf_flag = 3;
  fe.pm.in_argv[0].bf_azimuth = 90;  // checked after the mode's switches are copied in
  EXPECT_EQ(VornProc(&fe.pm, in, ref, out, order), 9);
  fe.pm.bf_azimuth = 60;  // VornDoa checks the active switches as they stand
  fe.pm.doa_update_flag = 2;
  EXPECT_EQ(VornDoa(&fe.pm, in, order, kFrame), 6);
  EXPECT_EQ(VornDoa(nullptr, in, order, kFrame), 1);
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
