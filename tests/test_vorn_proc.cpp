// The front end through its public entry points.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/signals.h"
#include "adsp_aec/echo_cancellation.h"
#include "common/adsp_common_util.h"
#include "support/wav_file.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_proc_internal.h"
#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

using test::Signal;

constexpr int kFrame = 256;

// One front end with its own buffer, deliberately misaligned by `offset`
// bytes to prove that nothing depends on the caller's alignment.
struct FrontEnd {
  std::vector<unsigned char> storage;
  T_VornParam pm{};
  explicit FrontEnd(int mode = 0, std::size_t offset = 0) : storage(kVornMinBuffSize + offset) {
    pm.p_data = storage.data() + offset;
    pm.buff_size = kVornMinBuffSize;
    pm.param_size = sizeof(T_VornParam);
    pm.vorn_mode = mode;
  }
  // Overrides one mode's switches after VornInit (which writes the built-in
  // defaults; the active fields are rewritten from the mode records on every
  // call).
  void Set(int mode, int agc, int bf, int doa, int aec, int ns, int az = 0) {
    T_VornKey& k = pm.in_argv[mode];
    k.agc_flag = agc;
    k.bf_flag = bf;
    k.doa_flag = doa;
    k.aec_flag = aec;
    k.ns_flag = ns;
    k.bf_azimuth = az;
  }
  TVornState* State() { return VornStateOf(&pm); }
};

// Interleaved three-microphone capture and a matching reference.
struct Scene {
  std::vector<short> mics;  // 3 per sample
  std::vector<short> ref;
  std::size_t frames() const { return ref.size() / kFrame; }
};

Scene TalkerScene(double seconds, double azimuth, std::uint32_t seed) {
  const auto n = static_cast<std::size_t>(seconds * test::kSampleRate);
  test::SpeechLikeOptions opt;
  opt.rms = 2000.0;
  const auto talker = test::MakeSpeechLike(n, seed, opt);
  const auto mics = test::Mix(test::PlaneWave(talker.samples, azimuth), test::IndependentNoise(n, 50.0, seed + 3));
  Scene s;
  s.mics = test::Interleave(mics);
  s.ref.assign(n, 0);
  return s;
}

// Runs every frame; returns the output and the per-frame speech flags.
struct RunOutput {
  std::vector<short> out;
  std::vector<int> vad;
  int rc = 0;
};
RunOutput Process(FrontEnd& fe, Scene& s, bool with_ref = true) {
  RunOutput r;
  short order[3] = {0, 1, 2};
  short out[kFrame];
  for (std::size_t f = 0; f < s.frames(); ++f) {
    r.rc = VornProc(&fe.pm, &s.mics[3 * kFrame * f], with_ref ? &s.ref[kFrame * f] : nullptr, out, order);
    if (r.rc != 0) return r;
    r.out.insert(r.out.end(), out, out + kFrame);
    r.vad.push_back(fe.pm.vad_flag);
  }
  return r;
}

TEST(VornProc, EntryPointsReturnTheParameterCodes) {
  FrontEnd fe;
  EXPECT_EQ(VornInit(nullptr, nullptr), 1);
  fe.pm.buff_size = 961584;
  EXPECT_EQ(VornInit(&fe.pm, nullptr), 2);
  fe.pm.buff_size = kVornMinBuffSize;
  fe.pm.param_size = 1600;
  EXPECT_EQ(VornInit(&fe.pm, nullptr), 3);
  fe.pm.param_size = sizeof(T_VornParam);
  ASSERT_EQ(VornInit(&fe.pm, nullptr), 0);

  short in[3 * kFrame] = {}, ref[kFrame] = {}, out[kFrame] = {}, order[3] = {0, 1, 2};
  EXPECT_EQ(VornProc(&fe.pm, nullptr, ref, out, order), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, ref, nullptr, order), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, ref, out, nullptr), 1);
  EXPECT_EQ(VornProc(&fe.pm, in, nullptr, out, order), 0);  // no reference needed with the canceller off
  fe.pm.in_argv[0].aec_flag = 1;
  EXPECT_EQ(VornProc(&fe.pm, in, nullptr, out, order), 1);
  fe.pm.in_argv[0].bf_flag = 3;
  fe.pm.in_argv[0].bf_azimuth = 90;
  EXPECT_EQ(VornProc(&fe.pm, in, ref, out, order), 9);
  fe.pm.in_argv[0].bf_azimuth = 60;
  fe.pm.doa_update_flag = 2;
  EXPECT_EQ(VornProc(&fe.pm, in, ref, out, order), 6);
  EXPECT_EQ(VornDoa(&fe.pm, in, order, kFrame), 6);  // the doa call checks the record as it stands
  EXPECT_EQ(VornDoa(nullptr, in, order, kFrame), 1);
}

TEST(VornProc, Float2int32SnrSaturatesAndTruncates) {
  const float db[6] = {200.0f, 128.0f, 12.75f, -3.9f, -128.0f, -500.0f};
  int32_t q10[6];
  Float2int32_SNR(db, q10, 128, -128, 6);
  const int32_t want[6] = {131072, 131072, 13056, -3993, -131072, 131072};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(q10[i], want[i]) << i;
}

TEST(VornProc, ConfigFileDrivesTheModesAndSwitchesTakeEffectNextFrame) {
  const std::string dir = test::MakeTempDir("conf");
  const std::string path = dir + "/vorn.conf";
  ASSERT_TRUE(test::WriteBytes(path,
                               "[VORN_WKP]\nagc_flag=1\nbf_flag=1\nns_flag=1\nvad_mode=1\nbf_zaimuth=30\n"
                               "[VORN_ASR]\nagc_flag=0\nbf_flag=2\nns_flag=0\nvad_mode=2\nbf_zaimuth=90\n"
                               "[VORN_COM]\nagc_flag=2\nbf_flag=5\nns_flag=2\nvad_mode=2\n"));
  FrontEnd fe(0);
  std::vector<char> name(path.begin(), path.end());
  name.push_back('\0');
  ASSERT_EQ(VornInit(&fe.pm, name.data()), 0);
  EXPECT_EQ(fe.pm.bf_flag, 1);
  EXPECT_EQ(fe.pm.bf_azimuth, 30);

  Scene s = TalkerScene(0.2, 90, 5);
  short order[3] = {0, 1, 2};
  short out[kFrame];
  const int want_bf[3] = {1, 2, 5}, want_ns[3] = {1, 0, 2}, want_agc[3] = {1, 0, 2};
  for (int mode = 0; mode < 3; ++mode) {
    SCOPED_TRACE(mode);
    fe.pm.vorn_mode = mode;
    ASSERT_EQ(VornProc(&fe.pm, &s.mics[3 * kFrame * static_cast<std::size_t>(mode)], s.ref.data(), out, order), 0);
    EXPECT_EQ(fe.pm.bf_flag, want_bf[mode]);
    EXPECT_EQ(fe.pm.ns_flag, want_ns[mode]);
    EXPECT_EQ(fe.pm.agc_flag, want_agc[mode]);
  }
  // A missing file and a mode whose section lacks vad_mode both fail.
  char missing[] = "/nonexistent/vorn.conf";
  EXPECT_EQ(VornInit(&fe.pm, missing), -1);
  ASSERT_TRUE(test::WriteBytes(path, "[VORN_ASR]\nagc_flag=1\n"));
  fe.pm.vorn_mode = 1;
  EXPECT_EQ(VornInit(&fe.pm, name.data()), 10);
  std::filesystem::remove_all(dir);
}

TEST(VornProc, PostFilterRunsThreeBeamInstances) {
  for (int ns : {1, 2}) {
    SCOPED_TRACE(ns);
    FrontEnd fe;
    ASSERT_EQ(VornInit(&fe.pm, nullptr), 0);
    fe.Set(0, 0, 1, 0, 0, ns, 90);
    Scene s = TalkerScene(0.5, 90, 11);
    ASSERT_EQ(Process(fe, s).rc, 0);
    const auto frames = static_cast<int>(s.frames());
    for (int i = 0; i < 3; ++i) {
      const auto* st = static_cast<const T_AdspNsState*>(fe.State()->ns_pm[i].p_data);
      // The single-channel path runs instance 0 twice a frame; the post
      // filter runs all three.
      const int want = (i == 0 || ns == 2) ? 2 * frames : 0;
      EXPECT_EQ(st->frame, want) << "instance " << i;
    }
  }
}

// Initialises a front end whose mode 0 has the given switches from a
// configuration file, so that the echo canceller is prepared for its output
// selection at VornInit time.
int InitWithMode0(FrontEnd& fe, const std::string& dir, int agc, int bf, int aec, int ns, int vad_mode = 2) {
  const std::string path = dir + "/mode0.conf";
  const std::string text = "[VORN_WKP]\nagc_flag=" + std::to_string(agc) + "\nbf_flag=" + std::to_string(bf) +
                           "\naec_flag=" + std::to_string(aec) + "\nns_flag=" + std::to_string(ns) +
                           "\nvad_mode=" + std::to_string(vad_mode) + "\n";
  if (!test::WriteBytes(path, text)) return -99;
  std::vector<char> name(path.begin(), path.end());
  name.push_back('\0');
  return VornInit(&fe.pm, name.data());
}

// Far-end speech played through a 10 ms delay and a decaying echo path into
// every microphone, with light near-end noise.
Scene EchoScene(double seconds, double talker_rms, std::uint32_t seed) {
  Scene s = TalkerScene(seconds, 0, seed);
  if (talker_rms == 0.0)
    for (auto& v : s.mics) v = 0;
  test::SpeechLikeOptions far_opt;
  far_opt.rms = 3000.0;
  far_opt.f0_hz = 210.0;
  const auto far = test::ToPcm(test::MakeSpeechLike(s.ref.size(), seed + 100, far_opt).samples);
  std::vector<double> path(480);
  std::uint32_t lcg = seed;
  for (std::size_t i = 160; i < path.size(); ++i) {
    lcg = lcg * 1664525u + 1013904223u;
    const double u = static_cast<double>(lcg >> 8) / 16777216.0 - 0.5;
    path[i] = 0.8 * u * std::exp(-static_cast<double>(i - 160) / 60.0);
  }
  const auto noise = test::IndependentNoise(s.ref.size(), 20.0, seed + 7);
  for (std::size_t n = 0; n < s.ref.size(); ++n) {
    s.ref[n] = far[n];
    double echo = 0.0;
    for (std::size_t k = 160; k < path.size() && k <= n; ++k) echo += path[k] * far[n - k];
    for (std::size_t m = 0; m < 3; ++m) {
      const double v = s.mics[3 * n + m] + echo + noise[m][n];
      s.mics[3 * n + m] = static_cast<short>(std::clamp(v, -32768.0, 32767.0));
    }
  }
  return s;
}

double MeanSquare(const short* x, std::size_t n) {
  double acc = 0.0;
  for (std::size_t i = 0; i < n; ++i) acc += static_cast<double>(x[i]) * x[i];
  return acc / static_cast<double>(n);
}

TEST(VornProc, EchoIsRemovedWhenTheReferenceIsFed) {
  const std::string dir = test::MakeTempDir("echo");
  Scene s = EchoScene(6.0, 0.0, 41);
  FrontEnd fe;
  ASSERT_EQ(InitWithMode0(fe, dir, 0, 0, 1, 0), 0);
  const RunOutput r = Process(fe, s);
  ASSERT_EQ(r.rc, 0);
  // Echo return loss enhancement over the last 3 s: microphone 0 in, output out.
  const std::size_t from = s.ref.size() - 3 * test::kSampleRate;
  std::vector<short> mic0(s.ref.size());
  for (std::size_t n = 0; n < mic0.size(); ++n) mic0[n] = s.mics[3 * n];
  const double erle_db = 10.0 * std::log10(MeanSquare(&mic0[from], mic0.size() - from) /
                                           (MeanSquare(&r.out[from], r.out.size() - from) + 1e-9));
  std::printf("ERLE through the front end: %.1f dB\n", erle_db);
  EXPECT_GT(erle_db, 15.0);
  std::filesystem::remove_all(dir);
}

TEST(VornProc, BothCancellerOutputsFeedTheirConsumers) {
  // aec_flag 3: the frame carries the canceller's ASR output and the VAD
  // hears its communication output. Rebuild both from the modules directly
  // (microphone 0 passes the beamformer untouched with bf_flag 0, and
  // suppression and AGC are off) and compare.
  const std::string dir = test::MakeTempDir("aec3");
  Scene s = EchoScene(2.0, 2000.0, 21);
  FrontEnd fe;
  ASSERT_EQ(InitWithMode0(fe, dir, 0, 0, 3, 0), 0);
  const RunOutput got = Process(fe, s);
  ASSERT_EQ(got.rc, 0);

  FrontEnd vad_only;  // supplies an initialised VAD instance
  ASSERT_EQ(InitWithMode0(vad_only, dir, 0, 0, 3, 0), 0);
  SwitchMode(&vad_only.pm);
  alignas(16) static unsigned char aec_mem[kRegionAecBuffSize];
  char no_file[1] = "";
  ASSERT_EQ(AdspAec_Init(aec_mem, kRegionAecBuffSize, 16000, 16000, 3, no_file), 0);
  std::vector<short> want_out;
  std::vector<int> want_vad;
  for (std::size_t f = 0; f < s.frames(); ++f) {
    short asr_pcm[kFrame], com_pcm[kFrame], vad_out[kFrame];
    float subcoh[130] = {};
    for (int blk = 0; blk < 4; ++blk) {
      float near[64], far[64], asr[64], com[64];
      for (int i = 0; i < 64; ++i) {
        const std::size_t n = f * kFrame + static_cast<std::size_t>(blk * 64 + i);
        near[i] = s.mics[3 * n];
        far[i] = s.ref[n];
      }
      const float* near_bands[1] = {near};
      float* asr_bands[1] = {asr};
      float* com_bands[1] = {com};
      ASSERT_EQ(AdspAec_BufferFarend(aec_mem, far, 64), 0);
      ASSERT_EQ(AdspAec_Process(aec_mem, near_bands, 1, asr_bands, com_bands, subcoh, 130, 64, 0, 0), 0);
      Float2PCM(asr, asr_pcm + blk * 64, 64);
      Float2PCM(com, com_pcm + blk * 64, 64);
    }
    want_out.insert(want_out.end(), asr_pcm, asr_pcm + kFrame);
    want_vad.push_back(VornVadProc(&vad_only.pm, com_pcm, &s.ref[f * kFrame], subcoh, 65, vad_out));
  }
  EXPECT_EQ(got.out, want_out);
  EXPECT_EQ(got.vad, want_vad);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace vorn
