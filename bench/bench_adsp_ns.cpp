// Cost of one 128-sample hop (8 ms of audio) of the noise suppressor and of
// its VAD variant, on a speech-like talker in pink noise with the trackers
// settled. Target: at most 40 us per hop.
#include <benchmark/benchmark.h>

#include <vector>

#include "adsp_ns/adsp_ns_proc.h"
#include "sim/ns_harness.h"
#include "sim/signals.h"

namespace {

using namespace vorn;

struct Scene {
  std::vector<std::int16_t> pcm;
  sim::NsInstance ns;
  std::size_t hops = 0;

  explicit Scene(int vad_mode) : ns(vad_mode) {
    const std::size_t n = 10 * sim::kSampleRate;
    sim::SpeechLikeOptions opt;
    opt.lead_silence_s = 1.0;
    pcm = sim::ToPcm(sim::Mix(sim::MakeSpeechLike(n, 3, opt).samples, sim::PinkNoise(n, 600.0, 4)));
    hops = n / kNsHop;
    // Settle the trackers (and pass the 120-hop start of the tonal-peak rule).
    short out[kNsHop];
    for (std::size_t h = 0; h < 400; ++h) AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, Hop(h), out);
  }
  short *Hop(std::size_t h) { return pcm.data() + (h % hops) * kNsHop; }
};

void BM_AdspNsProc(benchmark::State &state) {
  Scene scene(1);
  short out[kNsHop];
  std::size_t h = 0;
  for (auto _ : state) {
    AdspNsProc(&scene.ns.param(), nullptr, nullptr, nullptr, scene.Hop(h++), out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AdspNsProc)->Unit(benchmark::kMicrosecond);

void BM_NsVadProc(benchmark::State &state) {
  Scene scene(static_cast<int>(state.range(0)));
  short out[kNsHop];
  std::size_t h = 0;
  for (auto _ : state) {
    NsVadProc(&scene.ns.param(), nullptr, nullptr, nullptr, scene.Hop(h++), out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NsVadProc)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMicrosecond);

}  // namespace
