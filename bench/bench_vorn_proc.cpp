// Cost of one 16 ms frame of the whole front end, per configuration, and the
// utterance-level direction search. Targets: the default mode under 150 us
// per frame, the heaviest configuration (beam type 4, DOA tracking, both
// canceller outputs, post filter, AGC) under 400 us.
#include <benchmark/benchmark.h>

#include <vector>

#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;

constexpr int kFrame = 256;

// A talker at 60 degrees in noise with loudspeaker echo on every microphone.
struct Scene {
  std::vector<short> mics, ref;
  std::size_t frames;
  Scene() {
    const std::size_t n = 8 * sim::kSampleRate;
    const auto talker = sim::MakeSpeechLike(n, 5).samples;
    const auto far = sim::MakeSpeechLike(n, 6, {2000.0, 210.0, 3.0, 0.5, 0.0}).samples;
    auto mics_f = sim::Mix(sim::PlaneWave(talker, 60), sim::IndependentNoise(n, 100.0, 7));
    for (auto& m : mics_f)
      for (std::size_t i = 200; i < n; ++i) m[i] += 0.3f * far[i - 200];
    mics = sim::Interleave(mics_f);
    const auto ref16 = sim::ToPcm(far);
    ref.assign(ref16.begin(), ref16.end());
    frames = n / kFrame;
  }
};

const Scene& SharedScene() {
  static const Scene scene;
  return scene;
}

void RunFrames(benchmark::State& state, const sim::Switches& switches) {
  const Scene& scene = SharedScene();
  std::vector<unsigned char> buffer(kVornMinBuffSize);
  T_VornParam pm = sim::ParamKeeping(buffer.data(), switches, 1);
  if (VornInit(&pm, nullptr) != 0) {
    state.SkipWithError("VornInit failed");
    return;
  }
  std::vector<short> mics = scene.mics, ref = scene.ref;
  short out[kFrame], order[3] = {0, 1, 2};
  std::size_t f = 0;
  for (auto _ : state) {
    const std::size_t at = f++ % scene.frames;
    benchmark::DoNotOptimize(VornProc(&pm, &mics[3 * kFrame * at], &ref[kFrame * at], out, order));
  }
  // Real-time factor: audio time per frame over processing time per frame.
  state.counters["x_realtime"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 0.016, benchmark::Counter::kIsRate);
}

void BM_VornProcDefaultMode(benchmark::State& state) { RunFrames(state, {1, 0, 0, 0, 1, 0}); }
BENCHMARK(BM_VornProcDefaultMode)->Unit(benchmark::kMicrosecond);

void BM_VornProcHeaviest(benchmark::State& state) { RunFrames(state, {1, 4, 1, 3, 2, 60}); }
BENCHMARK(BM_VornProcHeaviest)->Unit(benchmark::kMicrosecond);

void BM_VornProcPerBeamType(benchmark::State& state) {
  const int bf = static_cast<int>(state.range(0));
  RunFrames(state, {1, bf, 1, 1, 1, 60});
}
BENCHMARK(BM_VornProcPerBeamType)->DenseRange(0, 7)->Unit(benchmark::kMicrosecond);

// The utterance search over 4 s of audio (doa_flag 2).
void BM_VornDoaUtterance(benchmark::State& state) {
  const Scene& scene = SharedScene();
  std::vector<unsigned char> buffer(kVornMinBuffSize);
  T_VornParam pm =
      sim::ParamKeeping(buffer.data(), {.agc = 1, .doa = 2, .ns = 1, .vad_mode = 1}, 0);
  if (VornInit(&pm, nullptr) != 0) {
    state.SkipWithError("VornInit failed");
    return;
  }
  std::vector<short> mics(scene.mics.begin(), scene.mics.begin() + 3 * 4 * sim::kSampleRate);
  short order[3] = {0, 1, 2};
  for (auto _ : state) benchmark::DoNotOptimize(VornDoa(&pm, mics.data(), order, 4 * sim::kSampleRate));
}
BENCHMARK(BM_VornDoaUtterance)->Unit(benchmark::kMillisecond);

}  // namespace
