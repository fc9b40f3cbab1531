// The bench's optional learned peers, RNNoise and Silero VAD, run by node
// over the same scenes (bench/peers/run_peers.mjs). They join the report only
// where node and their npm packages are installed; the bench runs without.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "quality/systems.h"

namespace vorn::bench {

struct LearnedPeerRuns {
  bool ran = false;
  std::string why_not;                     // when not run
  std::map<std::string, SystemRun> rnnoise;  // by scene name: its output and speech flags
  std::map<std::string, SystemRun> silero;   // by scene name: microphone 0 and its speech flags
  double rnnoise_us_per_frame = 0.0, silero_us_per_frame = 0.0;
};

// Writes microphone 0 of every scene under work_dir, runs the peers through
// node when `modules_dir` holds their packages, and reads back what they
// wrote. A flag is 1 where a peer's speech probability exceeds 0.5.
LearnedPeerRuns RunLearnedPeers(const std::filesystem::path& work_dir, const std::filesystem::path& modules_dir,
                                const std::map<std::string, const sim::RenderedScene*>& scenes);

}  // namespace vorn::bench
