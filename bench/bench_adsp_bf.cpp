// Cost of one beamformer hop (256 samples per microphone, 16 ms of audio)
// for the beam types a product runs, with and without per-hop direction
// tracking and the three post-filter beams, of one utterance search, and of
// the enhanced profile's beam. The input is a talker at 70
// degrees over sensor noise, looped over 2 s so that the adaptive beam and
// the detectors see changing audio.
#include <benchmark/benchmark.h>

#include <vector>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beam_enhanced.h"
#include "sim/signals.h"

namespace {

using namespace vorn;

constexpr std::size_t kHops = 125;

const std::vector<short>& Input() {
  static const std::vector<short> pcm = [] {
    const std::size_t n = kHops * kBfHop;
    const sim::SpeechLike talker = sim::MakeSpeechLike(n, 5u);
    return sim::Interleave(sim::Mix(sim::PlaneWave(talker.samples, 70.0), sim::IndependentNoise(n, 100.0, 6u)));
  }();
  return pcm;
}

// Arguments: bf_flag, doa_flag, inner_interface_flag.
void BM_BfProcHop(benchmark::State& state) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  pm.p_data = buffer.data();
  pm.buff_size = kBfBuffSize;
  pm.param_size = kBfParamSize;
  pm.bf_flag = static_cast<int>(state.range(0));
  pm.bf_azimuth = 60;  // valid for every type, including the adaptive ones
  pm.doa_flag = static_cast<int>(state.range(1));
  pm.inner_interface_flag = static_cast<int>(state.range(2));
  pm.ext_doa_update_flag = 1;
  if (BFInit(&pm) != 0) {
    state.SkipWithError("BFInit failed");
    return;
  }
  std::vector<short> pcm = Input();
  short out[kBfHop];
  std::size_t hop = 0;
  for (auto _ : state) {
    BfProc(&pm, pcm.data() + hop * 3 * kBfHop, out, nullptr);
    benchmark::DoNotOptimize(out);
    hop = hop + 1 == kHops ? 0 : hop + 1;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(state.iterations()) * 0.016,
                                                    benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BfProcHop)
    ->ArgNames({"bf", "doa", "mbf"})
    ->ArgsProduct({{1, 2, 4, 5}, {0, 1}, {0}})
    ->Args({1, 1, 1})
    ->Args({4, 1, 1})
    ->Args({0, 3, 0});

// The utterance search over the longest stretch it uses (64 hops, about 1 s):
// 63 hops of rescoring with its private suppressor, then the three searches.
void BM_VornDoaProcStretch(benchmark::State& state) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  pm.p_data = buffer.data();
  pm.buff_size = kBfBuffSize;
  pm.param_size = kBfParamSize;
  pm.doa_flag = 2;
  if (BFInit(&pm) != 0) {
    state.SkipWithError("BFInit failed");
    return;
  }
  std::vector<short> pcm = Input();
  const int samples = 64 * kBfHop + 512;
  for (auto _ : state) {
    VornDoaProc(&pm, pcm.data(), nullptr, samples);
    benchmark::DoNotOptimize(pm.azimuth);
  }
}
BENCHMARK(BM_VornDoaProcStretch)->Unit(benchmark::kMillisecond);

// The enhanced profile's beam for the same hop, to set against
// BM_BfProcHop/bf:N/doa:0/mbf:0: the shared analysis, then the run-time
// beam with its microphone watch and its blend towards microphone 0.
// Nothing re-steers here; that costs one weight design and a second beam
// for one hop. Argument: bf_flag.
void BM_EnhancedBeamHop(benchmark::State& state) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{buffer.data(), kBfBuffSize, kBfParamSize, 0, static_cast<int>(state.range(0)), 60, 0, 0, 0, 0, 1,
                     0};
  if (BFInit(&pm) != 0) {
    state.SkipWithError("BFInit failed");
    return;
  }
  EnhancedBeamState enhanced;
  EnhancedBeamInit(&enhanced);
  BeamRequest request{pm.bf_flag, pm.bf_azimuth, 0, 0.0f, 0.0f, 0.0f, 0, 0};
  // learn:1 alternates talker and pause every 40 hops, so that the MVDR beam
  // learns from the room and is redesigned as it goes.
  const bool learn = state.range(1) != 0;
  const auto* analysis = static_cast<const T_AudioDspState*>(pm.p_data);
  const float* const latest[3] = {analysis->au[0] + kBfHop, analysis->au[1] + kBfHop, analysis->au[2] + kBfHop};
  std::vector<short> pcm = Input();
  short out[kBfHop];
  std::size_t hop = 0;
  for (auto _ : state) {
    float spectrum[kBfChannels][kBfFftLen];
    BfAnalyse(&pm, pcm.data() + hop * 3 * kBfHop, nullptr, spectrum);
    request.talker_presence = learn && hop % 80 < 40 ? 1.0f : 0.0f;
    EnhancedBeamProc(&enhanced, request, latest, spectrum, out);
    benchmark::DoNotOptimize(out);
    hop = hop + 1 == kHops ? 0 : hop + 1;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(state.iterations()) * 0.016,
                                                    benchmark::Counter::kIsRate);
}
BENCHMARK(BM_EnhancedBeamHop)->ArgNames({"bf", "learn"})->Args({1, 0})->Args({2, 0})->Args({2, 1})->Args({4, 0});

}  // namespace
