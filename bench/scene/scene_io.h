// Scenes on disk: a directory per scene with the capture, the reference, the
// clean target and the ground truth; and user recordings as sources.
#pragma once

#include <string>

#include "sim/scene.h"

namespace vorn::bench {

// Writes mics.wav (3 channels), reference.wav, target.wav (the float target
// rounded to 16 bits) and truth.json into `dir`, creating it. False with a
// message on a write failure.
bool WriteScene(const std::string& dir, const sim::Scene& scene, const sim::RenderedScene& rendered,
                std::string* error);

// The truth file's text: the scene's geometry and levels, the talker's
// direction, per-frame labels and the talk spans (frames of 256 samples).
std::string TruthJson(const sim::Scene& scene, const sim::Truth& truth);

// A mono 16-bit 16 kHz WAV file as a source signal. False with a message on
// anything else.
bool ReadSourceWav(const std::string& path, sim::Signal* out, std::string* error);

}  // namespace vorn::bench
