// Writers of `vorn` besides the audio (audio_io/audio_output.h): the
// per-frame CSV files and the JSON summary.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "sim/switches.h"

namespace vorn::cli {

// Per-frame values with the time of each frame's start, as "time_s,<column>".
bool WriteFrameCsv(const std::string& path, const char* column, const std::vector<int>& values, std::string* error);

// What `vorn process --json` prints.
struct Summary {
  std::string input, output, mode, reference;  // reference: "none", "channel 4" or the file
  std::string profile;
  sim::Switches switches;
  double duration_s = 0.0;
  uint64_t frames = 0;
  uint64_t speech_frames = 0;
  std::optional<int> direction_deg;
  std::optional<double> direction_confidence;  // the enhanced profile's, 0..1
  double realtime_factor = 0.0;
};
std::string SummaryJson(const Summary& summary);

// `text` as a quoted JSON string, and `value` with `decimals` decimals.
std::string JsonString(const std::string& text);
std::string Fixed(double value, int decimals);

}  // namespace vorn::cli
