// The direction bench's scenes: a grid over reverberation (RT60 0.2-0.8 s),
// noise (diffuse, babble, one point interferer) and SNR (0-20 dB), with
// talkers above and below the array plane (-30 to +40 degrees), and talkers
// who walk 90 degrees round the array in 3 s.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/scene.h"

namespace vorn::bench {

enum class DirectionNoise { kDiffuse, kBabble, kInterferer };

struct DirectionScene {
  std::string name;
  sim::Scene scene;
  DirectionNoise noise = DirectionNoise::kDiffuse;
  double snr_db = 0.0;
  // A walking talker goes from scene.azimuth_deg to scene.azimuth_deg +
  // walk_deg (counter-clockwise) at constant speed during [walk_begin_s,
  // walk_end_s); walk_deg 0 keeps the talker still.
  double walk_deg = 0.0, walk_begin_s = 0.0, walk_end_s = 0.0;
};

// The rendered scene and where the talker is at each 256-sample frame.
struct DirectionRender {
  sim::RenderedScene rendered;
  std::vector<double> azimuth_deg;  // per frame, on the microphones' time line
};

// Which draw of the grid's scenes: the one the direction finder was tuned
// on, or a fresh one with the same cells (rooms, noises, SNRs, walks) but
// other voices, noise, azimuths and heights, never looked at while tuning.
// The fresh draw tells how much of the tuned figures is the method's and how
// much the scenes'. A draw given on the command line checks a change on
// scenes neither page holds.
enum class DirectionDraw { kTuned, kFresh, kGiven };

// Where a draw's scenes come from: seeds (one more per cell), the still
// talkers' azimuths (a start and a step from cell to cell), the first still
// cell's height (an index into the seven heights, -30 to +40 degrees) and
// the first walker's starting azimuth.
struct DirectionDrawRecipe {
  std::uint32_t still_seed, walk_seed;
  double first_deg, step_deg;
  int first_height;
  double walk_first_deg;
};

// The tuned or the fresh draw's recipe (a given draw has none of its own:
// the tuned one is returned).
DirectionDrawRecipe RecipeOf(DirectionDraw draw);

// Reads "STILL_SEED,WALK_SEED,FIRST_DEG,STEP_DEG,FIRST_HEIGHT,WALK_FIRST_DEG";
// false with a message when the text is not six such numbers.
bool ParseDrawRecipe(const std::string& text, DirectionDrawRecipe* recipe, std::string* error);

// Still talkers over the whole grid, then the walking ones.
std::vector<DirectionScene> DirectionScenes(const DirectionDrawRecipe& recipe);
std::vector<DirectionScene> DirectionScenes(DirectionDraw draw = DirectionDraw::kTuned);

// Renders a scene; a walking talker is taken through the room's response at
// positions 3 degrees apart, cross-faded, on top of the scene's noise.
bool RenderDirectionScene(const DirectionScene& cell, DirectionRender* out, std::string* error);

const char* NoiseName(DirectionNoise noise);

}  // namespace vorn::bench
