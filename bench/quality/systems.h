// The systems the quality bench compares, each run over a whole rendered
// scene frame by frame as a device would: Vorn through its public API, the
// unprocessed first microphone, and (when built with it) the peer library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/scene.h"
#include "sim/switches.h"
#include "vorn_proc.h"

namespace vorn::bench {

// What a system returns for one scene: its mono output (frames of 256
// samples, as long as the whole frames of the capture), a speech flag and an
// azimuth per frame (empty when it has none), and the utterance-level
// direction (negative when not run).
struct SystemRun {
  sim::Signal output;
  std::vector<std::uint8_t> speech;
  std::vector<double> azimuth_deg;
  // The same chain's per-frame azimuth when the caller lets the tracker
  // update only on frames where the talker speaks (empty when not run).
  std::vector<double> gated_azimuth_deg;
  double utterance_azimuth_deg = -1.0;
  std::vector<std::uint32_t> warnings;  // VornGetWarnings after each frame
};

// One Vorn configuration: the switches a caller sets on every frame.
struct VornConfig {
  std::string name;
  sim::Switches switches;        // the azimuth is replaced when steering to the talker
  bool steer_to_talker = false;  // bf_azimuth from the truth (a fixed beam aimed by the device)
  bool utterance_doa = false;    // also VornDoa (doa_flag 2) over the talker's window
  // doa_update_flag from the scene's speech labels on every frame: a caller
  // that holds the tracker while nobody talks, with a perfect speech detector.
  bool doa_updates_on_speech = false;
  int profile = 0;  // VORN_PROFILE_CLASSIC or VORN_PROFILE_ENHANCED
  double steer_offset_deg = 0.0;  // with steer_to_talker: aim this far off the talker
  uint32_t exclude_mics = 0;      // enhanced: microphones the beam is told to leave out from the start
  float agc_target_dbfs = VORN_AGC_TARGET_DEFAULT_DBFS;  // enhanced level control's target
};

// Whole frames in an interleaved three-microphone capture.
std::size_t WholeFrames(const sim::RenderedScene& rendered);

// The table azimuth nearest to `azimuth_deg` (multiples of 5 in 0..355).
int TableAzimuth(double azimuth_deg);

bool RunVorn(const VornConfig& config, const sim::Scene& scene, const sim::RenderedScene& rendered, SystemRun* run,
             std::string* error);

// Microphone 0 as it is; its speech flag says every frame is speech (the
// detector that never misses), and it has no direction.
SystemRun RunUnprocessed(const sim::RenderedScene& rendered);

}  // namespace vorn::bench
