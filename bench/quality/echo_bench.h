// The echo bench: classic and enhanced Vorn against SpeexDSP's canceller
// (768- and 2048-tap filters) on the echo grid, written as echo.md.
#pragma once

#include <filesystem>
#include <string>

namespace vorn::bench {

// Runs every echo scene whose name contains `match` (all when empty) with
// every system whose label ("chain/system", e.g. "recognition/enhanced")
// contains `system_match`, and writes OUT_DIR/echo.md. Returns false with a
// message when a scene or a system fails.
bool RunEchoBench(const std::filesystem::path& dir, const std::string& match, const std::string& system_match,
                  std::string* error);

}  // namespace vorn::bench
