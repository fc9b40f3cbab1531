// The level section of the bench (level.md): a talker sweep from -50 to
// -10 dBFS, a talker whose level jumps 20 dB mid-sentence, the noise floor
// in a pause, echo alone, and clipping; classic, enhanced and the peer on
// the same scenes.
#pragma once

#include <filesystem>
#include <string>

namespace vorn::bench {

// Renders the section's scenes, runs every system over them and writes
// level.md into `dir`. False with a message when a scene or a run fails.
bool WriteLevelReport(const std::filesystem::path& dir, std::string* error);

}  // namespace vorn::bench
