// Scene grid of the quality bench. Talkers sit on azimuths that are not on
// the beamformer's 5-degree table, so direction errors below 3 degrees mean
// rounding rather than luck; seeds differ per cell so no two cells share a
// talker or a noise.
#include "quality/grid.h"

#include <cstdio>

namespace vorn::bench {
namespace {

constexpr double kRt60s[] = {0.2, 0.4, 0.7};
constexpr double kSnrsDb[] = {0.0, 10.0, 20.0};

std::string Name(const char* format, double a, double b) {
  char text[64];
  std::snprintf(text, sizeof text, format, a, b);
  return text;
}

sim::Scene Quiet(double rt60_s, std::uint32_t seed) {
  sim::Scene scene;
  scene.room.rt60_s = rt60_s;
  scene.seed = seed;
  scene.far_begin_s = scene.far_end_s = 0.0;  // no far end
  scene.talker_begin_s = 2.0;
  scene.talker_end_s = 12.0;
  return scene;
}

}  // namespace

std::vector<GridScene> DirectionGrid() {
  std::vector<GridScene> grid;
  std::uint32_t seed = 100;
  for (double rt60 : kRt60s) {
    for (double snr : kSnrsDb) {
      GridScene cell{Name("doa_rt%.1f_snr%.0f", rt60, snr), Task::kDirection, Quiet(rt60, seed)};
      cell.scene.azimuth_deg = 17.0 + 41.0 * static_cast<double>(grid.size());
      cell.scene.noises.push_back({sim::NoiseKind::kDiffuse, sim::NoiseColour::kPink, snr});
      cell.scene.noises.push_back({sim::NoiseKind::kSensor, sim::NoiseColour::kWhite, 40.0});
      grid.push_back(cell);
      ++seed;
    }
  }
  return grid;
}

std::vector<GridScene> EchoScenes() {
  std::vector<GridScene> scenes;
  sim::Scene base;  // far end 0-8 s, talker 4-12 s
  base.room.rt60_s = 0.3;
  base.azimuth_deg = 73.0;
  base.noises.push_back({sim::NoiseKind::kSensor, sim::NoiseColour::kWhite, 35.0});

  GridScene plain{"echo_plain", Task::kEcho, base};
  plain.scene.seed = 200;
  scenes.push_back(plain);

  // Echo 10 dB above the talker and a loudspeaker that clips: the nonlinear
  // residue no linear filter can follow.
  GridScene loud{"echo_loud_clipped", Task::kEcho, base};
  loud.scene.seed = 201;
  loud.scene.echo_level_dbfs = -20.0;
  loud.scene.clip_fraction = 0.5;
  scenes.push_back(loud);

  // A reverberant room, room noise and 40 ms of playback buffering.
  GridScene noisy{"echo_noisy_delayed", Task::kEcho, base};
  noisy.scene.seed = 202;
  noisy.scene.room.rt60_s = 0.5;
  noisy.scene.echo_delay_ms = 40.0;
  noisy.scene.noises.push_back({sim::NoiseKind::kDiffuse, sim::NoiseColour::kPink, 15.0});
  scenes.push_back(noisy);
  return scenes;
}

std::vector<GridScene> LevelSweep() {
  std::vector<GridScene> sweep;
  std::uint32_t seed = 300;
  for (double level = -50.0; level <= -10.0; level += 10.0) {
    char name[32];
    std::snprintf(name, sizeof name, "level_%.0fdBFS", level);
    GridScene step{name, Task::kLevel, Quiet(0.3, seed++)};
    step.scene.talker_level_dbfs = level;
    step.scene.azimuth_deg = 137.0;
    step.scene.noises.push_back({sim::NoiseKind::kDiffuse, sim::NoiseColour::kPink, 30.0});
    sweep.push_back(step);
  }
  return sweep;
}

std::vector<GridScene> AllScenes() {
  std::vector<GridScene> all = DirectionGrid();
  for (auto& s : EchoScenes()) all.push_back(s);
  for (auto& s : LevelSweep()) all.push_back(s);
  return all;
}

}  // namespace vorn::bench
