// Cost of the echo canceller per 64-sample frame (4 ms at 16 kHz): the far-end
// feed plus AdspAec_Process on the normal path, for each output selection,
// and the enhanced profile's path (lead tracker, linear filters, residual
// suppressor) on the same instance kind, on a speech-like far end through a
// 40 ms room with near-end noise. The
// canceller runs two seconds before timing starts so that the filters,
// suppression and comfort noise are all in their working state.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "adsp_aec/aec_enhanced.h"
#include "adsp_aec/echo_cancellation.h"
#include "sim/signals.h"

namespace {

using vorn::sim::Signal;
constexpr int kBlock = 64;
constexpr std::size_t kSceneSamples = 4 * 16000;

struct Scene {
  Signal far;
  Signal mic;
};

const Scene& SharedScene() {
  static const Scene scene = [] {
    Scene s;
    s.far = vorn::sim::MakeSpeechLike(kSceneSamples, 5, {}).samples;
    std::mt19937 rng(9);
    std::normal_distribution<double> tap(0.0, 1.0);
    std::vector<double> path(640, 0.0);
    for (int i = 160; i < 640; ++i) path[i] = 0.02 * tap(rng) * std::pow(10.0, -3.0 * (i - 160) / 480.0);
    const Signal noise = vorn::sim::PinkNoise(kSceneSamples, 100.0, 6);
    s.mic.assign(kSceneSamples, 0.0f);
    for (std::size_t n = 0; n < kSceneSamples; ++n) {
      double acc = noise[n];
      for (std::size_t j = 0; j < path.size() && j <= n; ++j) acc += path[j] * s.far[n - j];
      s.mic[n] = static_cast<float>(acc);
    }
    return s;
  }();
  return scene;
}

void BM_AecFrame64(benchmark::State& state) {
  const int nlp_pf = static_cast<int>(state.range(0));
  const Scene& scene = SharedScene();
  std::unique_ptr<std::uint64_t[]> memory(new std::uint64_t[vorn::kAecInstanceBytes / 8 + 1]());
  void* aec = memory.get();
  if (vorn::AdspAec_Init(aec, vorn::kAecInstanceBytes, 16000, 16000, nlp_pf, nullptr) != 0) {
    state.SkipWithError("init failed");
    return;
  }
  std::vector<float> asr(kBlock), com(kBlock), coherence(130);
  float* asr_bands[1] = {asr.data()};
  float* com_bands[1] = {com.data()};
  std::size_t pos = 0;
  auto step = [&] {
    const float* near_bands[1] = {&scene.mic[pos]};
    vorn::AdspAec_BufferFarend(aec, &scene.far[pos], kBlock);
    vorn::AdspAec_Process(aec, near_bands, 1, asr_bands, com_bands, coherence.data(), 130, kBlock, 0, 0);
    pos += kBlock;
    if (pos + kBlock > kSceneSamples) pos = 16000;  // loop over the last three seconds
  };
  for (int i = 0; i < 2 * 16000 / kBlock; ++i) step();
  for (auto _ : state) {
    step();
    benchmark::DoNotOptimize(com.data());
    benchmark::DoNotOptimize(asr.data());
  }
  // Frames of 4 ms: real time is 4000 us per frame.
  state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(state.iterations()) * 0.004,
                                                    benchmark::Counter::kIsRate);
}

void BM_AecEnhancedFrame64(benchmark::State& state) {
  const Scene& scene = SharedScene();
  std::unique_ptr<std::uint64_t[]> memory(new std::uint64_t[vorn::kAecInstanceBytes / 8 + 1]());
  void* aec = memory.get();
  if (vorn::AdspAec_Init(aec, vorn::kAecInstanceBytes, 16000, 16000, 1, nullptr) != 0) {
    state.SkipWithError("init failed");
    return;
  }
  auto enhanced = std::make_unique<vorn::AecEnhanced>();
  vorn::AecEnhancedInit(enhanced.get());
  std::vector<float> out(kBlock), coherence(130);
  std::size_t pos = 0;
  auto step = [&] {
    vorn::AecEnhancedBlock report{};
    vorn::AecEnhancedProcess(aec, enhanced.get(), &scene.mic[pos], &scene.far[pos], out.data(), coherence.data(),
                             &report);
    pos += kBlock;
    if (pos + kBlock > kSceneSamples) pos = 16000;
  };
  for (int i = 0; i < 2 * 16000 / kBlock; ++i) step();
  for (auto _ : state) {
    step();
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(state.iterations()) * 0.004,
                                                    benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_AecFrame64)->Arg(3)->ArgName("NlpPf")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AecFrame64)->Arg(1)->ArgName("NlpPf")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AecFrame64)->Arg(2)->ArgName("NlpPf")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AecEnhancedFrame64)->Unit(benchmark::kMicrosecond);
