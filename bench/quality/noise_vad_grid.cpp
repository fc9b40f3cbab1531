// The section's scenes. Seeds start at 400 so no talker, noise or room here
// repeats one of the other grids'.
#include "quality/noise_vad_grid.h"

#include <cstdio>

namespace vorn::bench {

using namespace vorn::sim;
namespace {

NoiseSource Noise(const std::string& name, double snr_db) {
  NoiseSource n;
  n.snr_db = snr_db;
  if (name == "white") {
    n.kind = NoiseKind::kSensor;
    n.colour = NoiseColour::kWhite;
  } else if (name == "pink") {
    n.kind = NoiseKind::kDiffuse;
    n.colour = NoiseColour::kPink;
  } else if (name == "speech-shaped") {
    n.kind = NoiseKind::kDiffuse;
    n.colour = NoiseColour::kSpeechShaped;
  } else if (name == "babble") {
    n.kind = NoiseKind::kBabble;
  } else {
    n.kind = NoiseKind::kInterferer;
    n.colour = NoiseColour::kPink;
    n.azimuth_deg = 200.0;
    n.distance_m = 2.0;
  }
  return n;
}

}  // namespace

const std::vector<std::string>& NoiseNames() {
  static const std::vector<std::string> names = {"white", "pink", "speech-shaped", "babble", "point interferer"};
  return names;
}

const std::vector<double>& NoiseSnrs() {
  static const std::vector<double> snrs = {0.0, 5.0, 10.0, 15.0, 20.0};
  return snrs;
}

std::vector<NoiseVadScene> NoiseVadScenes() {
  std::vector<NoiseVadScene> scenes;
  std::uint32_t seed = 400;
  int index = 0;
  for (const std::string& noise : NoiseNames()) {
    for (double snr : NoiseSnrs()) {
      NoiseVadScene s;
      char name[64];
      std::snprintf(name, sizeof name, "ns_%s_snr%.0f", noise.c_str(), snr);
      s.cell.name = name;
      s.cell.task = Task::kDirection;
      Scene& scene = s.cell.scene;
      scene.seed = seed++;
      scene.room.rt60_s = 0.3;
      scene.far_begin_s = scene.far_end_s = 0.0;
      scene.talker_begin_s = 2.0;
      scene.talker_end_s = 12.0;
      scene.azimuth_deg = 23.0 + 29.0 * index++;
      scene.noises.push_back(Noise(noise, snr));
      scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 45.0});
      s.noise = noise;
      s.snr_db = snr;
      scenes.push_back(s);
    }
  }
  for (const std::string& noise : NoiseNames()) {
    NoiseVadScene s;
    s.cell.name = "vad_echo_" + noise;
    for (char& c : s.cell.name)
      if (c == ' ' || c == '-') c = '_';
    s.cell.task = Task::kEcho;
    Scene& scene = s.cell.scene;  // far end 0-8 s, talker 4-12 s
    scene.seed = seed++;
    scene.room.rt60_s = 0.3;
    scene.azimuth_deg = 23.0 + 29.0 * index++;
    scene.noises.push_back(Noise(noise, 10.0));
    scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 45.0});
    s.noise = noise;
    s.snr_db = 10.0;
    s.echo = true;
    scenes.push_back(s);
  }
  for (auto& s : scenes)
    for (char& c : s.cell.name)
      if (c == ' ' || c == '-') c = '_';
  return scenes;
}

}  // namespace vorn::bench
