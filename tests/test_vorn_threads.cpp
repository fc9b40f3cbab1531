// Instances share nothing: while one thread processes a capture with one
// instance, another thread initialises, resets and runs a second instance
// over and over, through both interfaces, and the first instance's bytes are
// those of a run with no other thread. Built with ThreadSanitizer (scripts/
// test.sh does), any state the two share is reported as a race.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "sim/front_end_param.h"
#include "support/front_end_scene.h"
#include "vorn.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = VORN_FRAME_SAMPLES;
constexpr int kFrames = 100;
const short kOrder[3] = {0, 1, 2};
const sim::Switches kHeaviest{.agc = 2, .bf = 4, .doa = 1, .aec = 3, .ns = 2, .azimuth = 60};

const test::Scene& Capture() {
  static const test::Scene scene = test::MakeScene(kFrames * kFrame / 16000.0, 75, 2500.0, true, 5);
  return scene;
}

// Every output byte, flag and azimuth of one instance over the capture; 0
// codes are implied (a failure shows as a -1 in the stream).
std::vector<short> Process(int32_t profile) {
  std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
  T_VornParam pm = sim::ParamKeeping(buffer.data(), kHeaviest, 1);
  std::vector<short> seen;
  if (VornInit(&pm, nullptr) != VORN_OK || VornSetProfile(&pm, profile) != VORN_OK) return {-1};
  short out[kFrame];
  for (std::size_t f = 0; f < Capture().frames(); ++f) {
    if (VornProc(&pm, Capture().Mics(f), Capture().Ref(f), out, kOrder) != VORN_OK) seen.push_back(-1);
    seen.insert(seen.end(), out, out + kFrame);
    seen.push_back(static_cast<short>(pm.vad_flag));
    seen.push_back(static_cast<short>(pm.azimuth));
  }
  return seen;
}

// Until told to stop: initialise an instance (the echo canceller with it),
// run a few frames, restart it, through both interfaces in turn, counting
// finished rounds in `done`. Returns the number of rounds, or -1 after a
// failed call.
int Churn(const std::atomic<bool>& stop, std::atomic<int>& done) {
  std::vector<unsigned char> buffer(VORN_MIN_BUFF_SIZE);
  std::vector<unsigned char> memory(vorn_state_size());
  auto* st = reinterpret_cast<VornState*>(memory.data());
  VornSettings settings;
  vorn_settings_default(&settings);
  const VornSwitches switches{1, 2, 3, 2, 1, 135, 2};
  settings.switches = &switches;
  short out[kFrame];
  int rounds = 0;
  for (; !stop.load(); ++rounds) {
    T_VornParam pm = sim::ParamKeeping(buffer.data(), kHeaviest, 1);
    if (VornInit(&pm, nullptr) != VORN_OK) return -1;
    if (vorn_init(st, memory.size(), &settings) != VORN_OK) return -1;
    for (int f = 0; f < 3; ++f) {
      if (VornProc(&pm, Capture().Mics(f), Capture().Ref(f), out, kOrder) != VORN_OK) return -1;
      if (vorn_process(st, Capture().Mics(f), Capture().Ref(f), out, nullptr) != VORN_OK) return -1;
    }
    if (vorn_reset(st) != VORN_OK) return -1;
    done.fetch_add(1);
  }
  return rounds;
}

TEST(Threads, AnInstanceIsUntouchedByAnotherBeingReinitialised) {
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    SCOPED_TRACE(profile);
    const std::vector<short> alone = Process(profile);
    ASSERT_GT(alone.size(), 1u);
    for (int run = 0; run < 2; ++run) {
      std::atomic<bool> stop{false};
      std::atomic<int> done{0};
      std::atomic<bool> returned{false};
      int rounds = 0;
      std::thread churner([&] {
        rounds = Churn(stop, done);
        returned = true;
      });
      // On a loaded machine the other thread may not be scheduled at once:
      // let it finish a round first, so that it is churning while this
      // instance runs rather than only after.
      while (done.load() == 0 && !returned.load()) std::this_thread::yield();
      const std::vector<short> beside = Process(profile);
      stop = true;
      churner.join();
      EXPECT_GT(rounds, 0);  // the other instance did run (and never failed)
      EXPECT_TRUE(beside == alone) << "run " << run;
    }
  }
}

}  // namespace
}  // namespace vorn
