// The noise-suppression and speech-detection section of the report:
// classic | enhanced | SpeexDSP | RNNoise | Silero VAD on the noise and
// speech-detection grids. Writes noise_vad.md (deterministic) and
// noise_vad_speed.md (the cost per frame, which varies run to run) into the
// output directory; returns 0, or 1 when a scene or a system fails.
#pragma once

#include <filesystem>

namespace vorn::bench {

int RunNoiseVadSection(const std::filesystem::path& dir);

}  // namespace vorn::bench
