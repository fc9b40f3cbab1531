// The noise-suppression and speech-detection section of the report:
// classic | enhanced | SpeexDSP | RNNoise | Silero VAD on the noise and
// speech-detection grids. Writes noise_vad.md (deterministic) and
// noise_vad_speed.md (the cost per frame, which varies run to run) into the
// output directory; returns 0, or 1 when a scene or a system fails. A
// non-empty `match` keeps only the scenes whose name contains it (a quicker
// look while developing; the tables then cover those scenes alone).
#pragma once

#include <filesystem>
#include <string>

namespace vorn::bench {

int RunNoiseVadSection(const std::filesystem::path& dir, const std::string& match = {});

}  // namespace vorn::bench
