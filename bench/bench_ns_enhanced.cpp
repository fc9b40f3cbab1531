// Cost of one 16 ms frame of the enhanced profile's speech presence,
// suppressor and speech flag together (two hops each), on a speech-like
// talker in pink noise with the trackers settled: without the far end, and
// with the canceller on (the presence then also analyses the canceller's
// input and the loudspeaker). Target: at most 40 us per frame. The classic
// suppressor plus the VAD path's suppressor, the work they replace, is
// measured beside them.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "adsp_ns/adsp_ns_proc.h"
#include "adsp_ns/ns_enhanced.h"
#include "sim/ns_harness.h"
#include "sim/signals.h"

namespace {

using namespace vorn;

constexpr std::size_t kFrame = 256;

struct Audio {
  std::vector<std::int16_t> mic, far;
  std::size_t frames = 0;
  Audio() {
    const std::size_t n = 10 * sim::kSampleRate;
    sim::SpeechLikeOptions opt;
    opt.lead_silence_s = 1.0;
    mic = sim::ToPcm(sim::Mix(sim::MakeSpeechLike(n, 3, opt).samples, sim::PinkNoise(n, 600.0, 4)));
    sim::SpeechLikeOptions far_voice;
    far_voice.f0_hz = 210.0;
    far = sim::ToPcm(sim::MakeSpeechLike(n, 5, far_voice).samples);
    frames = n / kFrame;
  }
  short* Mic(std::size_t f) { return mic.data() + (f % frames) * kFrame; }
  short* Far(std::size_t f) { return far.data() + (f % frames) * kFrame; }
};

void BM_EnhancedSpeechFrame(benchmark::State& state) {
  const bool far_end = state.range(0) != 0;
  Audio audio;
  auto records = std::make_unique<EnhancedSpeechRecords>();
  EnhancedPresenceInit(&records->presence);
  EnhancedSuppressorInit(&records->suppressor);
  EnhancedVadInit(&records->vad);
  NsHopAnalysis hops[2];
  short out[kFrame];
  auto frame = [&](std::size_t f) {
    for (int h = 0; h < 2; ++h) {
      const NsEchoCues echo{far_end ? audio.Far(f) + h * kNsHop : nullptr, far_end ? audio.Mic(f) + h * kNsHop : nullptr};
      EnhancedPresenceHop(&records->presence, audio.Mic(f) + h * kNsHop, echo, &hops[h]);
    }
    const float p = EnhancedOutputPresence(records->presence);
    EnhancedSuppressHop(&records->suppressor, records->presence, &hops[0], out);
    EnhancedSuppressHop(&records->suppressor, records->presence, &hops[1], out + kNsHop);
    return EnhancedVadDecide(&records->vad, p);
  };
  for (std::size_t f = 0; f < 200; ++f) frame(f);
  std::size_t f = 200;
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame(f++));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EnhancedSpeechFrame)->ArgName("far_end")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_ClassicSuppressorAndVadFrame(benchmark::State& state) {
  Audio audio;
  sim::NsInstance ns(2), vad(2);
  short out[kFrame], vad_out[kFrame];
  auto frame = [&](std::size_t f) {
    AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, audio.Mic(f), out);
    AdspNsProc(&ns.param(), nullptr, nullptr, nullptr, audio.Mic(f) + kNsHop, out + kNsHop);
    NsVadProc(&vad.param(), nullptr, nullptr, nullptr, out, vad_out);
    NsVadProc(&vad.param(), nullptr, nullptr, nullptr, out + kNsHop, vad_out + kNsHop);
    return vad.param().vad_flag;
  };
  for (std::size_t f = 0; f < 200; ++f) frame(f);
  std::size_t f = 200;
  for (auto _ : state) {
    benchmark::DoNotOptimize(frame(f++));
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClassicSuppressorAndVadFrame)->Unit(benchmark::kMicrosecond);

}  // namespace
