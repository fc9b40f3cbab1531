// The direction section of the bench: Vorn's classic and enhanced profiles
// and the bench's baselines on the direction grid, scored per frame, per
// stretch, in pauses and on walking talkers; written to direction.md.
#pragma once

#include <filesystem>
#include <string>

namespace vorn::bench {

// Renders and scores the grid (only the scenes whose name contains `match`,
// when it is not empty) and writes OUT_DIR/direction.md. Returns 0, or 1 with
// a message on standard error when a scene or a system fails. Also writes
// direction_headline.md, the classic | enhanced | best baseline summary.
int RunDirectionBench(const std::filesystem::path& out_dir, const std::string& match = "");

}  // namespace vorn::bench
