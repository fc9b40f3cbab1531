// The enhanced echo path's linear filters on a tonal far end. Music is
// notes that start together and stop together; a room rings on after each
// for longer than the filters' 48 ms span, so the first blocks of a note
// leave an error the filters have not learnt, which the double-talk
// detector may briefly take for a talker. A block or two taken so must not
// cost the filters a tenth of their step for the next 100 ms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <vector>

#include "adsp_aec/aec_enhanced.h"
#include "adsp_aec/echo_cancellation.h"
#include "sim/signals.h"

namespace vorn {
namespace {

constexpr int kRate = 16000;
constexpr int kBlock = kAecBlockLen;

// Chords of harmonic notes, all restarting every half second with a 5 ms
// attack, a decay and a 10 ms fade at the end.
std::vector<float> Chords(int samples) {
  constexpr double kPi = std::numbers::pi;
  constexpr double kRoots[4][3] = {{262, 330, 392}, {196, 247, 294}, {220, 262, 330}, {175, 220, 262}};
  std::vector<float> x(static_cast<std::size_t>(samples), 0.0f);
  const int beat = kRate / 2;
  for (int at = 0; at < samples; at += beat) {
    const auto& chord = kRoots[(at / beat / 4) % 4];
    for (int i = 0; i < beat && at + i < samples; ++i) {
      const double t = static_cast<double>(i) / kRate;
      const double env = std::min(1.0, t / 0.005) * std::exp(-t / 0.6) * std::min(1.0, (0.5 - t) / 0.01);
      double v = 0.0;
      for (double f0 : chord)
        for (int h = 1; h <= 6; ++h) v += std::sin(2.0 * kPi * h * f0 * t) / h;
      x[static_cast<std::size_t>(at + i)] = static_cast<float>(1500.0 * env * v);
    }
  }
  return x;
}

// A room whose reverberation outlasts the filters: a direct path, then 200
// ms of decaying reflections (RT60 about 0.4 s), and microphone hiss.
std::vector<float> RoomEcho(const std::vector<float>& far) {
  const sim::Signal tail = sim::WhiteNoise(3200, 1.0, 5);
  std::vector<double> h(tail.size());
  for (std::size_t k = 0; k < h.size(); ++k)
    h[k] = (k == 3 ? 1.0 : 0.04 * tail[k]) * std::exp(-static_cast<double>(k) / 950.0);
  const sim::Signal hiss = sim::WhiteNoise(far.size(), 5.0, 3);
  std::vector<float> mic(far.size(), 0.0f);
  for (std::size_t n = 0; n < far.size(); ++n) {
    double sum = 0.0;
    for (std::size_t k = 0; k < h.size() && k <= n; ++k) sum += h[k] * far[n - k];
    mic[n] = static_cast<float>(0.5 * sum) + hiss[n];
  }
  return mic;
}

// With no talker at all the detector hears one now and then at a note's
// start; the filters may be slowed while it does, not for 100 ms after
// each (that had them slowed in a quarter of the blocks here).
TEST(AecEnhancedTonal, BriefDetectorHitsOnNotesDoNotHoldTheFiltersSlow) {
  const int samples = 6 * kRate;
  const std::vector<float> far = Chords(samples);
  const std::vector<float> mic = RoomEcho(far);
  std::unique_ptr<std::uint64_t[]> memory(new std::uint64_t[kAecInstanceBytes / 8 + 1]());
  ASSERT_EQ(AdspAec_Init(memory.get(), kAecInstanceBytes, kRate, kRate, 1, nullptr), 0);
  auto enhanced = std::make_unique<AecEnhanced>();
  AecEnhancedInit(enhanced.get());
  std::vector<float> out(kBlock), coherence(2 * kAecBins);
  int blocks = 0, heard = 0, slowed = 0;
  for (int at = 0; at + kBlock <= samples; at += kBlock) {
    AecEnhancedBlock report{};
    ASSERT_EQ(AecEnhancedProcess(memory.get(), enhanced.get(), &mic[static_cast<std::size_t>(at)],
                                 &far[static_cast<std::size_t>(at)], out.data(), coherence.data(), &report),
              0);
    blocks += 1;
    heard += report.near_active;
    slowed += enhanced->near_hold > 0 ? 1 : 0;
  }
  // The scene must make the detector err for the test to mean anything.
  ASSERT_GT(heard, 0);
  EXPECT_LT(slowed, blocks * 15 / 100) << heard << " blocks heard a talker";
}

}  // namespace
}  // namespace vorn
