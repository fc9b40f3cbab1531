// Scenes of the noise-suppression and speech-detection section: five noises
// at five SNRs (the noise grid), and the same noises with a far end playing
// (which, with the noise grid, makes the speech-detection grid).
#pragma once

#include <string>
#include <vector>

#include "quality/grid.h"

namespace vorn::bench {

struct NoiseVadScene {
  GridScene cell;
  std::string noise;  // the noise's name in the report
  double snr_db = 0.0;
  bool echo = false;  // a far end plays 0-8 s, the talker speaks 4-12 s
};

// The noises in the report's order.
const std::vector<std::string>& NoiseNames();
// SNRs of the noise grid, dB.
const std::vector<double>& NoiseSnrs();

// White (independent per microphone), pink (diffuse), speech-shaped
// (diffuse), babble (six talkers round the room) and a pink point source,
// each at 0, 5, 10, 15 and 20 dB; the talker speaks 2-12 s. Then each noise
// at 10 dB with the far end's echo.
std::vector<NoiseVadScene> NoiseVadScenes();

}  // namespace vorn::bench
