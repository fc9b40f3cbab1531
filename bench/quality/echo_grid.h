// The echo bench's scenes: double talk over a grid of signal-to-echo ratios,
// reference leads from 0 to 250 ms and jumps of the lead, an echo path that
// changes, music as the far end, and a distorting loudspeaker. A scene the
// simulator cannot express by itself (a jump, a path change) is rendered as
// the simulator's scene and then edited the way the device would have
// recorded it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/scene.h"

namespace vorn::bench {

enum class EchoKind { kDoubleTalk, kLead, kJump, kPathChange, kMusic, kDistortion };

struct EchoScene {
  std::string name;
  EchoKind kind = EchoKind::kDoubleTalk;
  sim::Scene scene;
  double ser_db = 0.0;         // near talker over echo at microphone 0 (double talk, music, distortion)
  double change_s = -1.0;      // when the lead jumps or the echo path changes
  double jump_to_ms = 0.0;     // the lead after the jump
  double converged_from_s = 0.0;  // far single talk from here on counts as converged
};

std::vector<EchoScene> EchoGrid();

// Renders the scene and applies its change (jump, path change).
bool RenderEchoScene(const EchoScene& echo, sim::RenderedScene* out, std::string* error);

// A music-like far end: chords, a bass line, a melody, kick and hi-hat at
// 120 beats per minute, scaled to `rms`. Dense and continuous where speech
// pauses, with the broadband attacks that a canceller must follow.
sim::Signal MakeMusicLike(std::size_t n, double rms, std::uint32_t seed);

}  // namespace vorn::bench
