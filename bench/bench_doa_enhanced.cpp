// Cost of direction finding per hop and per stretch, classic against
// enhanced. Per hop: the classic doa_flag 1 work (three windowed transforms
// and the 72-direction steered search with its history) against the
// enhanced work (three transforms of the analysis buffers, the band and its
// smoothed coherence, the onsets' weights scaled by their direct share and,
// on a hop that carries evidence, the pair correlations and the two pools'
// searches), on a hop with evidence and on a pause. Per stretch:
// the enhanced search over 10 s against the classic one, which reads at most
// its first second. The input is a talker at 70 degrees over sensor noise.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "doa_hop_work.h"
#include "sim/signals.h"

namespace {

using namespace vorn;

constexpr std::size_t kHops = 625;  // 10 s

const std::vector<short>& Input() {
  static const std::vector<short> pcm = [] {
    const std::size_t n = kHops * kBfHop + kBfFftLen;
    const sim::SpeechLike talker = sim::MakeSpeechLike(n, 5u);
    return sim::Interleave(sim::Mix(sim::PlaneWave(talker.samples, 70.0), sim::IndependentNoise(n, 100.0, 6u)));
  }();
  return pcm;
}

void BM_ClassicDoaHop(benchmark::State& state) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspState* st = bench::ClassicDoaState(buffer.data());
  if (st == nullptr) {
    state.SkipWithError("BFInit failed");
    return;
  }
  std::size_t h = 0;
  for (auto _ : state) {
    bench::FillBuffers(Input().data(), h, st->au);
    benchmark::DoNotOptimize(bench::ClassicDoaHop(st));
    h = h + 1 == kHops ? 0 : h + 1;
  }
}
BENCHMARK(BM_ClassicDoaHop);

// Argument: speech presence of every hop (1: each hop carries evidence; 0:
// a pause).
void BM_EnhancedDoaHop(benchmark::State& state) {
  TDoaTrackerEnhanced tracker;
  DoaTrackerInit(&tracker);
  const DoaHopCues cues{static_cast<float>(state.range(0)), 0.0f, false, true};
  float au[kBfChannels][kBfFftLen];
  // Past the tracker's warm-up, with the noise learnt.
  for (std::size_t h = 0; h < 100; ++h) {
    bench::FillBuffers(Input().data(), h, au);
    bench::EnhancedDoaHop(&tracker, au, cues);
  }
  std::size_t h = 100;
  for (auto _ : state) {
    bench::FillBuffers(Input().data(), h, au);
    benchmark::DoNotOptimize(bench::EnhancedDoaHop(&tracker, au, cues));
    h = h + 1 == kHops ? 100 : h + 1;
  }
}
BENCHMARK(BM_EnhancedDoaHop)->ArgName("presence")->Arg(1)->Arg(0);

void BM_ClassicVornDoaProcStretch(benchmark::State& state) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{buffer.data(), kBfBuffSize, kBfParamSize, 0, 0, 0, 2, 0, 0, 0, 1, 0};
  if (BFInit(&pm) != 0) {
    state.SkipWithError("BFInit failed");
    return;
  }
  std::vector<short> pcm = Input();
  const int samples = static_cast<int>(kHops * kBfHop + kBfFftLen);
  for (auto _ : state) {
    VornDoaProc(&pm, pcm.data(), nullptr, samples);
    benchmark::DoNotOptimize(pm.azimuth);
  }
}
BENCHMARK(BM_ClassicVornDoaProcStretch)->Unit(benchmark::kMillisecond);

void BM_EnhancedDoaStretch(benchmark::State& state) {
  const short order[kBfChannels] = {0, 1, 2};
  const int samples = static_cast<int>(kHops * kBfHop + kBfFftLen);
  for (auto _ : state) benchmark::DoNotOptimize(DoaUtteranceEnhanced(Input().data(), order, samples));
}
BENCHMARK(BM_EnhancedDoaStretch)->Unit(benchmark::kMillisecond);

}  // namespace
