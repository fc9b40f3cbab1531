// Cost of the digital AGC per 16 ms frame (256 samples at 16 kHz), the way
// the front end calls it, and of the enhanced profile's level control.
// Target: at most 10 us per call.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "adsp_agc/analog_agc.h"
#include "adsp_agc/level_control.h"
#include "sim/signals.h"

namespace {

constexpr size_t kFrame = 256;
constexpr size_t kFrames = 625;  // 10 s, looped

// Speech-like input over a noise floor 40 dB down, at the given level, and
// its syllables as per-frame speech labels.
struct Input {
  std::vector<int16_t> pcm;
  std::vector<uint8_t> speech;
};
Input SpeechAt(double level_db) {
  vorn::sim::SpeechLikeOptions options;
  options.rms = 32768.0 * std::pow(10.0, level_db / 20.0);
  const auto speech = vorn::sim::MakeSpeechLike(kFrame * kFrames, 17, options);
  return {vorn::sim::ToPcm(
              vorn::sim::Mix(speech.samples, vorn::sim::WhiteNoise(speech.samples.size(), options.rms / 100.0, 3))),
          vorn::sim::FrameLabels(speech.active)};
}

// A full-scale input keeps the limiter iterating.
void BM_DigitalAgcProcess(benchmark::State& state) {
  const auto wake_up_mode = static_cast<int16_t>(state.range(1));
  const std::vector<int16_t> in = SpeechAt(static_cast<double>(state.range(0))).pcm;

  alignas(8) unsigned char instance[vorn::kAgcInstanceSize];
  vorn::DigitalAgc_Init(instance, vorn::kAgcInstanceSize, 16000);
  const int32_t snr_Q10[3] = {20 * 1024, 10 * 1024, 15 * 1024};
  std::vector<int16_t> out(kFrame);
  size_t frame = 0;
  for (auto _ : state) {
    const int32_t rc = vorn::DigitalAgc_Process(instance, in.data() + frame * kFrame, kFrame, out.data(), -1,
                                                wake_up_mode, snr_Q10, 1);
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(out.data());
    frame = (frame + 1) % kFrames;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrame));
}

BENCHMARK(BM_DigitalAgcProcess)
    ->ArgNames({"level_dBFS", "wkp"})
    ->Args({-30, 1})
    ->Args({-30, 2})
    ->Args({-60, 1})
    ->Args({0, 1});

// The enhanced profile's level control on the same input, with the speech
// presence taken from the syllables.
void BM_LevelProc(benchmark::State& state) {
  const Input in = SpeechAt(static_cast<double>(state.range(0)));
  vorn::EnhancedLevelState level;
  vorn::LevelInit(&level);
  std::vector<int16_t> out(kFrame);
  size_t frame = 0;
  for (auto _ : state) {
    vorn::LevelProc(&level, {in.speech[frame] ? 1.0f : 0.0f, false, false}, in.pcm.data() + frame * kFrame, out.data());
    benchmark::DoNotOptimize(out.data());
    frame = (frame + 1) % kFrames;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrame));
}

BENCHMARK(BM_LevelProc)->ArgName("level_dBFS")->Arg(-30)->Arg(-60)->Arg(0);

}  // namespace
