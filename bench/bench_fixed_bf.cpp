// Cost of one fixed beam per 256-sample hop: the per-bin product over the
// three microphone spectra for each beam type, and the sector choice.
#include <benchmark/benchmark.h>

#include <random>

#include "adsp_bf/fixed_beamformer.h"

namespace {

struct HopSpectra {
  float f[3][512];
  HopSpectra() {
    std::mt19937 rng(1);
    std::normal_distribution<float> value(0.0f, 3000.0f);
    for (auto& row : f)
      for (float& v : row) v = value(rng);
  }
};

void BM_FixedBF(benchmark::State& state) {
  HopSpectra spectra;
  float out[512];
  const int type = static_cast<int>(state.range(0));
  const int angle = static_cast<int>(state.range(1));
  for (auto _ : state) {
    vorn::FixedBF(spectra.f, out, type, angle);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}
// Delay-and-sum, MVDR, GSC reference, sector beams (with SelectBf), type 7.
BENCHMARK(BM_FixedBF)
    ->ArgNames({"type", "angle"})
    ->Args({1, 135})
    ->Args({2, 135})
    ->Args({3, 60})
    ->Args({5, 0})
    ->Args({6, 0})
    ->Args({7, 0});

void BM_SelectBf(benchmark::State& state) {
  HopSpectra spectra;
  for (auto _ : state) benchmark::DoNotOptimize(vorn::SelectBf(spectra.f));
}
BENCHMARK(BM_SelectBf);

}  // namespace
