// The beam section of the bench (beam.md): the talker in and out of the look
// direction at every input SNR, the adaptive beam against a competing talker,
// and one microphone dead or clipped; classic, enhanced and the peer on the
// same scenes.
#pragma once

#include <filesystem>
#include <string>

namespace vorn::bench {

// Renders the section's scenes, runs every system over them and writes
// beam.md into `dir`. `only` (look, adaptive or fault) runs that part alone,
// a quicker look while developing; empty runs them all. False with a message
// when a scene or a run fails.
bool WriteBeamReport(const std::filesystem::path& dir, const std::string& only, std::string* error);

}  // namespace vorn::bench
