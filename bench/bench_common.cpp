// Cost of the shared real FFT at the size every caller uses (512 points):
// one forward and one inverse transform, as each analysis/synthesis hop of
// the suppressor, the VAD path and the post filter runs them, alone and
// several blocks at once as the beamformer runs them; and of the
// suppressor's widest spectral smoothing (31 taps over 257 bins), plain and
// with four-lane vectors.
#include <benchmark/benchmark.h>

#include <vector>

#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_util.h"
#include "common/fft_rel_lanes.h"
#include "sim/signals.h"

namespace {

void BM_FftRelPair512(benchmark::State& state) {
  const std::vector<float> input = vorn::sim::WhiteNoise(512, 3000.0, 42u);
  std::vector<float> x = input;
  for (auto _ : state) {
    vorn::fft_rel(x.data(), 512, 9);
    vorn::ifft_rel(x.data(), 512, 9);
    benchmark::DoNotOptimize(x.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FftRelPair512);

// The same pair on 1 to 4 blocks at once (one per lane); items are blocks.
void BM_FftRelLanesPair512(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  std::vector<std::vector<float>> blocks;
  for (int b = 0; b < count; ++b) blocks.push_back(vorn::sim::WhiteNoise(512, 3000.0, 45u + b));
  float* x[vorn::kFftRelLanes] = {};
  for (int b = 0; b < count; ++b) x[b] = blocks[b].data();
  for (auto _ : state) {
    vorn::FftRelLanes(x, count, 512, 9);
    vorn::IfftRelLanes(x, count, 512, 9);
    benchmark::DoNotOptimize(x[0]);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_FftRelLanesPair512)->DenseRange(1, vorn::kFftRelLanes);

// One direction alone on 3 or 4 blocks (the inverse on spectra).
template <bool kInverse>
void BM_FftRelLanes512(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  std::vector<std::vector<float>> inputs, blocks(count);
  for (int b = 0; b < count; ++b) {
    inputs.push_back(vorn::sim::WhiteNoise(512, 3000.0, 55u + b));
    if (kInverse) vorn::fft_rel(inputs.back().data(), 512, 9);
  }
  float* x[vorn::kFftRelLanes] = {};
  for (auto _ : state) {
    for (int b = 0; b < count; ++b) {
      blocks[b] = inputs[b];
      x[b] = blocks[b].data();
    }
    (kInverse ? vorn::IfftRelLanes : vorn::FftRelLanes)(x, count, 512, 9);
    benchmark::DoNotOptimize(x[0]);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_FftRelLanes512<false>)->Name("BM_FftRelLanes512")->DenseRange(3, vorn::kFftRelLanes);
BENCHMARK(BM_FftRelLanes512<true>)->Name("BM_IfftRelLanes512")->DenseRange(3, vorn::kFftRelLanes);

void BM_FftRel512(benchmark::State& state) {
  const std::vector<float> input = vorn::sim::WhiteNoise(512, 3000.0, 43u);
  std::vector<float> x(512);
  for (auto _ : state) {
    x = input;
    vorn::fft_rel(x.data(), 512, 9);
    benchmark::DoNotOptimize(x.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_FftRel512);

void BM_IfftRel512(benchmark::State& state) {
  std::vector<float> spectrum = vorn::sim::WhiteNoise(512, 3000.0, 44u);
  vorn::fft_rel(spectrum.data(), 512, 9);
  std::vector<float> x(512);
  for (auto _ : state) {
    x = spectrum;
    vorn::ifft_rel(x.data(), 512, 9);
    benchmark::DoNotOptimize(x.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_IfftRel512);

template <void (*Smooth)(const float*, int, const float*, int, float*)>
void BM_ConvGlobalSmoothing(benchmark::State& state) {
  const std::vector<float> spectrum = vorn::sim::WhiteNoise(257, 1.0, 45u);
  const std::vector<float> kernel(31, 1.0f / 31);
  std::vector<float> out(257);
  for (auto _ : state) {
    Smooth(kernel.data(), 31, spectrum.data(), 257, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_ConvGlobalSmoothing<vorn::ConvPlain>)->Name("BM_ConvGlobalSmoothing/plain");
#if defined(VORN_SIMD4)
BENCHMARK(BM_ConvGlobalSmoothing<vorn::ConvSimd>)->Name("BM_ConvGlobalSmoothing/simd");
#endif

}  // namespace
