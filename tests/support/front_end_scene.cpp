#include "support/front_end_scene.h"

#include <cmath>

#include "sim/signals.h"

namespace vorn::test {

Scene MakeScene(double seconds, double azimuth, double talker_rms, bool echo, std::uint32_t seed) {
  const auto n = static_cast<std::size_t>(seconds * sim::kSampleRate);
  const sim::Signal talker = sim::MakeSpeechLike(n, seed, {.rms = talker_rms}).samples;
  sim::ThreeMics mics = sim::Mix(sim::PlaneWave(talker, azimuth), sim::IndependentNoise(n, 50.0, seed + 3));
  Scene s{{}, std::vector<short>(n)};
  if (echo) {
    s.ref = sim::ToPcm(sim::MakeSpeechLike(n, seed + 100, {.rms = 3000.0, .f0_hz = 210.0}).samples);
    sim::Signal path = sim::WhiteNoise(480, 0.8 / std::sqrt(12.0), seed);
    for (std::size_t k = 0; k < path.size(); ++k) path[k] *= k < 160 ? 0.0f : std::exp((160.0f - k) / 60.0f);
    sim::Signal at_mic(n, 0.0f);
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t k = 160; k < path.size() && k <= i; ++k) at_mic[i] += path[k] * s.ref[i - k];
    mics = sim::Mix(mics, {at_mic, at_mic, at_mic});
  }
  s.mics = sim::Interleave(mics);
  return s;
}

}  // namespace vorn::test
