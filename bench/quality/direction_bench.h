// The direction section of the bench: Vorn's classic and enhanced profiles
// and the bench's baselines on the direction grid, scored per frame, per
// stretch, in pauses and on walking talkers; written to direction.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "quality/direction_grid.h"

namespace vorn::bench {

// How far a per-frame track trails the truth over frames [begin, end): the
// delay (0..max_lag frames) of the true track that makes the mean error over
// the speech frames smallest (the first such on ties), and the mean errors
// with that delay and with none.
struct TrackLag {
  std::size_t frames = 0;
  double error_at_lag_deg = 0.0, error_undelayed_deg = 0.0;
};
TrackLag FindTrackLag(const std::vector<double>& estimates_deg, const std::vector<double>& truth_deg,
                      const std::vector<std::uint8_t>& speech, std::size_t begin, std::size_t end,
                      std::size_t max_lag);

// Renders and scores the grid's scenes as `recipe` draws them (only those
// whose name contains `match`, when it is not empty) and writes the page of
// `draw`: OUT_DIR/direction.md (direction_fresh.md for the fresh draw,
// direction_draw.md for one given on the command line). Returns 0, or 1 with a message on standard error when a scene or
// a system fails. Also writes direction_headline.md
// (direction_fresh_headline.md, direction_draw_headline.md), the classic |
// enhanced | best baseline summary.
int RunDirectionBench(const std::filesystem::path& out_dir, const std::string& match, DirectionDraw draw,
                      const DirectionDrawRecipe& recipe);

}  // namespace vorn::bench
