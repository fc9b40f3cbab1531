// Vorn against SpeexDSP, in one process so that the ratios hold on a busy
// machine: per 16 ms frame (256 samples) the modules that do the same job on
// both sides (echo canceller, noise suppressor, gain control), and the whole
// chain per Vorn configuration against the peer's echo canceller plus
// preprocessor. Names are "<job>/<system>"; the report pairs them by job.
// Input is a rendered echo scene: far single talk, double talk, near talk in
// room noise, so every stage is in its working state.
//
// The peer's AGC has no entry of its own: it runs inside the preprocessor,
// here with noise suppression and VAD off, so its figure includes the
// preprocessor's analysis filterbank.
#include <benchmark/benchmark.h>
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "quality/grid.h"
#include "sim/metrics.h"
#include "sim/front_end_param.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;
using vorn::sim::RenderedScene;

constexpr int kFrame = 256;
constexpr int kFilterLength = 768;  // the peer's echo tail: Vorn's 12 partitions of 64 samples
constexpr double kFrameSeconds = 0.016;

struct Input {
  std::vector<short> mics, mic0, reference;
  std::size_t frames = 0;
  short* Mics(std::size_t f) { return &mics[3 * kFrame * (f % frames)]; }
  short* Mic0(std::size_t f) { return &mic0[kFrame * (f % frames)]; }
  short* Reference(std::size_t f) { return &reference[kFrame * (f % frames)]; }
};

Input& SharedInput() {
  static Input input = [] {
    Input in;
    RenderedScene rendered;
    std::string error;
    sim::RenderScene(bench::EchoScenes().front().scene, &rendered, &error);
    in.frames = rendered.reference.size() / kFrame;
    in.mics.assign(rendered.mics.begin(), rendered.mics.end());
    in.reference.assign(rendered.reference.begin(), rendered.reference.end());
    const auto mic0 = sim::Channel(rendered.mics, 0);
    in.mic0.assign(mic0.begin(), mic0.end());
    return in;
  }();
  return input;
}

// Real time over processing time (the counter reads "x faster than real time").
void CountRealTime(benchmark::State& state) {
  state.counters["x_realtime"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kFrameSeconds, benchmark::Counter::kIsRate);
}

// Runs `step(frame)` over the scene's first half to settle, then times it.
template <typename Step>
void Timed(benchmark::State& state, Step step) {
  Input& in = SharedInput();
  std::size_t f = 0;
  for (; f < in.frames / 2; ++f) step(f);
  for (auto _ : state) step(f++);
  CountRealTime(state);
}

// ---- echo canceller --------------------------------------------------------

void VornAec(benchmark::State& state) {
  Input& in = SharedInput();
  std::unique_ptr<std::uint64_t[]> memory(new std::uint64_t[kAecInstanceBytes / 8 + 1]());
  void* aec = memory.get();
  if (AdspAec_Init(aec, kAecInstanceBytes, 16000, 16000, 1, nullptr) != 0) {
    state.SkipWithError("AdspAec_Init failed");
    return;
  }
  float near[64], far[64], asr[64], com[64], coherence[130];
  float* asr_bands[1] = {asr};
  float* com_bands[1] = {com};
  const float* near_bands[1] = {near};
  Timed(state, [&](std::size_t f) {
    for (int block = 0; block < 4; ++block) {
      for (int i = 0; i < 64; ++i) {
        near[i] = in.Mic0(f)[64 * block + i];
        far[i] = in.Reference(f)[64 * block + i];
      }
      AdspAec_BufferFarend(aec, far, 64);
      AdspAec_Process(aec, near_bands, 1, asr_bands, com_bands, coherence, 130, 64, 0, 0);
      benchmark::DoNotOptimize(asr);
    }
  });
}
BENCHMARK(VornAec)->Name("aec/Vorn")->Unit(benchmark::kMicrosecond);

void SpeexAec(benchmark::State& state) {
  Input& in = SharedInput();
  SpeexEchoState* echo = speex_echo_state_init(kFrame, kFilterLength);
  int rate = 16000;
  speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
  short out[kFrame];
  Timed(state, [&](std::size_t f) {
    speex_echo_cancellation(echo, in.Mic0(f), in.Reference(f), out);
    benchmark::DoNotOptimize(out);
  });
  speex_echo_state_destroy(echo);
}
BENCHMARK(SpeexAec)->Name("aec/SpeexDSP")->Unit(benchmark::kMicrosecond);

// ---- noise suppressor ------------------------------------------------------

void VornNs(benchmark::State& state) {
  Input& in = SharedInput();
  std::vector<float> region(kNsStateBytes / sizeof(float));
  T_AdspNsParam param{};
  param.p_data = region.data();
  param.buff_size = kNsStateBytes;
  param.param_size = static_cast<int>(sizeof(T_AdspNsParam));
  param.data_type = kNsDataTimeDomain;
  param.vad_mode = 2;
  AdspNsInit(&param);
  short out[kFrame];
  Timed(state, [&](std::size_t f) {
    AdspNsProc(&param, nullptr, nullptr, nullptr, in.Mic0(f), out);
    AdspNsProc(&param, nullptr, nullptr, nullptr, in.Mic0(f) + kNsHop, out + kNsHop);
    benchmark::DoNotOptimize(out);
  });
}
BENCHMARK(VornNs)->Name("noise suppression/Vorn")->Unit(benchmark::kMicrosecond);

SpeexPreprocessState* Preprocessor(int denoise, int vad, int agc) {
  SpeexPreprocessState* pre = speex_preprocess_state_init(kFrame, 16000);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_DENOISE, &denoise);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_VAD, &vad);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_AGC, &agc);
  return pre;
}

void SpeexPreprocess(benchmark::State& state, int denoise, int vad, int agc) {
  Input& in = SharedInput();
  SpeexPreprocessState* pre = Preprocessor(denoise, vad, agc);
  short frame[kFrame];
  Timed(state, [&](std::size_t f) {
    std::copy(in.Mic0(f), in.Mic0(f) + kFrame, frame);
    benchmark::DoNotOptimize(speex_preprocess_run(pre, frame));
  });
  speex_preprocess_state_destroy(pre);
}
void SpeexNs(benchmark::State& state) { SpeexPreprocess(state, 1, 0, 0); }
BENCHMARK(SpeexNs)->Name("noise suppression/SpeexDSP")->Unit(benchmark::kMicrosecond);

// ---- gain control ----------------------------------------------------------

void VornAgc(benchmark::State& state) {
  Input& in = SharedInput();
  alignas(8) unsigned char instance[kAgcInstanceSize];
  DigitalAgc_Init(instance, kAgcInstanceSize, 16000);
  const std::int32_t snr_Q10[3] = {20 * 1024, 10 * 1024, 15 * 1024};
  std::int16_t out[kFrame];
  Timed(state, [&](std::size_t f) {
    benchmark::DoNotOptimize(DigitalAgc_Process(instance, in.Mic0(f), kFrame, out, -1, 2, snr_Q10, 1));
  });
}
BENCHMARK(VornAgc)->Name("gain control/Vorn")->Unit(benchmark::kMicrosecond);

void SpeexAgc(benchmark::State& state) { SpeexPreprocess(state, 0, 0, 1); }
BENCHMARK(SpeexAgc)->Name("gain control/SpeexDSP")->Unit(benchmark::kMicrosecond);

// ---- whole chain -----------------------------------------------------------

void VornChain(benchmark::State& state, const sim::Switches& c) {
  Input& in = SharedInput();
  std::vector<unsigned char> buffer(kVornMinBuffSize);
  T_VornParam pm = sim::ParamKeeping(buffer.data(), c, c.doa != 0 ? 1 : 0);
  if (VornInit(&pm, nullptr) != 0) {
    state.SkipWithError("VornInit failed");
    return;
  }
  short out[kFrame], order[3] = {0, 1, 2};
  Timed(state,
        [&](std::size_t f) { benchmark::DoNotOptimize(VornProc(&pm, in.Mics(f), in.Reference(f), out, order)); });
}

// The configurations of the quality bench, plus the built-in wake-up mode.
void VornChainMono(benchmark::State& s) { VornChain(s, {0, 0, 1, 1, 1, 0, 2}); }
void VornChainArray(benchmark::State& s) { VornChain(s, {0, 2, 1, 1, 1, 75, 2}); }
void VornChainPostFilter(benchmark::State& s) { VornChain(s, {0, 2, 1, 3, 2, 75, 2}); }
void VornChainMonoAgc(benchmark::State& s) { VornChain(s, {2, 0, 0, 1, 1, 0, 2}); }
void VornChainWakeUp(benchmark::State& s) { VornChain(s, {1, 0, 0, 0, 1, 0, 1}); }
// The recognition chain with canceller and direction tracking, and the heaviest
// switch set (adaptive beam, tracking, both canceller outputs, post filter).
void VornChainRecognition(benchmark::State& s) { VornChain(s, {2, 0, 1, 1, 1, 0, 2}); }
void VornChainHeaviest(benchmark::State& s) { VornChain(s, {2, 4, 1, 3, 2, 60, 2}); }
BENCHMARK(VornChainMono)->Name("chain/Vorn 1-mic")->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainArray)->Name("chain/Vorn array")->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainPostFilter)->Name("chain/Vorn array + post filter")->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainMonoAgc)->Name("chain + AGC/Vorn 1-mic + AGC")->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainWakeUp)->Name("chain, no echo canceller/Vorn wake-up defaults")->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainRecognition)
    ->Name("chain + AGC/Vorn recognition + canceller + tracking")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(VornChainHeaviest)->Name("chain + AGC/Vorn heaviest")->Unit(benchmark::kMicrosecond);

void SpeexChain(benchmark::State& state, int agc) {
  Input& in = SharedInput();
  SpeexEchoState* echo = speex_echo_state_init(kFrame, kFilterLength);
  int rate = 16000;
  speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
  SpeexPreprocessState* pre = Preprocessor(1, 1, agc);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_ECHO_STATE, echo);
  short out[kFrame];
  Timed(state, [&](std::size_t f) {
    speex_echo_cancellation(echo, in.Mic0(f), in.Reference(f), out);
    benchmark::DoNotOptimize(speex_preprocess_run(pre, out));
  });
  speex_preprocess_state_destroy(pre);
  speex_echo_state_destroy(echo);
}
void SpeexChainPlain(benchmark::State& s) { SpeexChain(s, 0); }
void SpeexChainAgc(benchmark::State& s) { SpeexChain(s, 1); }
void SpeexChainNoEcho(benchmark::State& state) { SpeexPreprocess(state, 1, 1, 1); }
BENCHMARK(SpeexChainPlain)->Name("chain/SpeexDSP")->Unit(benchmark::kMicrosecond);
BENCHMARK(SpeexChainAgc)->Name("chain + AGC/SpeexDSP + AGC")->Unit(benchmark::kMicrosecond);
BENCHMARK(SpeexChainNoEcho)->Name("chain, no echo canceller/SpeexDSP preprocess + AGC")->Unit(benchmark::kMicrosecond);

}  // namespace
