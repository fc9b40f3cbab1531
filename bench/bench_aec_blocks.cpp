// Speed of the echo canceller's building blocks, per call. The canceller runs
// dozens of 128-point transforms per 64-sample block (4 ms at 16 kHz): the
// filter adaptation alone takes an inverse and a forward one per partition
// and filter, so the transform dominates. One delay-estimator step (far and
// near) runs per block.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>

#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/delay_estimator_wrapper.h"
#include "sim/signals.h"

namespace vorn {
namespace {

enum StageSet { kPlain = 0, kVector = 1 };

const RdftStages& StagesOf(int set) {
#if defined(VORN_SIMD4)
  if (set == kVector) return kRdftSimdStages;
#endif
  (void)set;
  return kRdftPlainStages;
}

void BM_RdftForwardInverse(benchmark::State& state) {
  const RdftStages& stages = StagesOf(static_cast<int>(state.range(0)));
  const sim::Signal noise = sim::WhiteNoise(128, 1000.0, 1);
  alignas(16) std::array<float, 128> a;
  std::copy(noise.begin(), noise.end(), a.begin());
  for (auto _ : state) {
    aec_rdft_forward_128_with(stages, a.data());
    aec_rdft_inverse_128_with(stages, a.data());
    for (float& v : a) v *= 2.0f / 128.0f;  // keep the data bounded across iterations
    benchmark::DoNotOptimize(a.data());
  }
  state.SetLabel(state.range(0) == kPlain ? "plain" : "vector");
}
BENCHMARK(BM_RdftForwardInverse)->Arg(kPlain)
#if defined(VORN_SIMD4)
    ->Arg(kVector)
#endif
    ;

void BM_RdftForward(benchmark::State& state) {
  const RdftStages& stages = StagesOf(static_cast<int>(state.range(0)));
  const sim::Signal noise = sim::WhiteNoise(128, 1000.0, 1);
  alignas(16) std::array<float, 128> input, a;
  std::copy(noise.begin(), noise.end(), input.begin());
  for (auto _ : state) {
    a = input;
    aec_rdft_forward_128_with(stages, a.data());
    benchmark::DoNotOptimize(a.data());
  }
  state.SetLabel(state.range(0) == kPlain ? "plain" : "vector");
}
BENCHMARK(BM_RdftForward)->Arg(kPlain)
#if defined(VORN_SIMD4)
    ->Arg(kVector)
#endif
    ;

// One block of delay estimation: a far and a near spectrum against the full
// 125-block history.
void BM_DelayEstimatorBlock(benchmark::State& state) {
  DelayEstimatorFarend far_buf;
  DelayEstimator near_buf;
  void* far = Adsp_CreateDelayEstimatorFarend(&far_buf, 65, kHistorySizeBlocks);
  void* near = Adsp_CreateDelayEstimator(&near_buf, far, kHistorySizeBlocks);
  Adsp_set_lookahead(near, 15);
  Adsp_enable_robust_validation(near, 1);
  const sim::Signal noise = sim::WhiteNoise(65 * 64, 1.0, 2);
  int block = 0;
  for (auto _ : state) {
    const float* spectrum = noise.data() + 65 * (block++ % 63);
    std::array<float, 65> power;
    for (int k = 0; k < 65; ++k) power[k] = spectrum[k] * spectrum[k];
    Adsp_AddFarSpectrumFloat(far, power.data(), 65);
    benchmark::DoNotOptimize(Adsp_DelayEstimatorProcessFloat(near, power.data(), 65));
  }
}
BENCHMARK(BM_DelayEstimatorBlock);

}  // namespace
}  // namespace vorn
