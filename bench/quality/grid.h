// The scenes the quality bench scores every system on: a direction grid over
// reverberation and noise, echo scenes with far single talk and double talk,
// and a level sweep for the gain control. Small enough that the whole set
// renders and runs in well under a minute on one core.
#pragma once

#include <string>
#include <vector>

#include "sim/scene.h"

namespace vorn::bench {

enum class Task { kDirection, kEcho, kLevel };

struct GridScene {
  std::string name;
  Task task = Task::kDirection;
  sim::Scene scene;
};

// RT60 0.2/0.4/0.7 s by SNR 0/10/20 dB of diffuse pink noise, one talker per
// cell at a different azimuth; no far end.
std::vector<GridScene> DirectionGrid();
// Far end 0-8 s, talker 4-12 s: far single talk, double talk, near single talk.
std::vector<GridScene> EchoScenes();
// The talker from -50 to -10 dBFS over a quiet floor; no far end.
std::vector<GridScene> LevelSweep();

std::vector<GridScene> AllScenes();

}  // namespace vorn::bench
