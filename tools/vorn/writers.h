// Writers of `vorn`: the enhanced audio (WAV or raw), the per-frame CSV
// files and the JSON summary.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "switches.h"

namespace vorn::cli {

// 16 kHz 16-bit audio of `channels` channels. A ".wav" name gets a WAV header
// whose sizes are filled in by Close(); ".pcm" and ".raw" names and "-"
// (standard output) get bare samples. A file that is not closed is removed.
class AudioOutput {
 public:
  AudioOutput() = default;
  AudioOutput(const AudioOutput&) = delete;
  AudioOutput& operator=(const AudioOutput&) = delete;
  ~AudioOutput();

  bool Open(const std::string& path, int channels, std::string* error);
  bool Write(const int16_t* interleaved, size_t frames, std::string* error);
  bool Close(std::string* error);

 private:
  FILE* stream_ = nullptr;
  bool owns_stream_ = false;
  bool wav_ = false;
  int channels_ = 1;
  uint64_t data_bytes_ = 0;
  std::string name_;
  std::vector<unsigned char> bytes_;  // one write's little-endian bytes, kept from frame to frame
};

// Whether a name asks for a WAV file, bare samples, or something unknown.
enum class OutputKind { kWav, kRaw, kUnknown };
OutputKind OutputKindOf(const std::string& path);

// Per-frame values with the time of each frame's start, as "time_s,<column>".
bool WriteFrameCsv(const std::string& path, const char* column, const std::vector<int>& values, std::string* error);

// What `vorn process --json` prints.
struct Summary {
  std::string input, output, mode, reference;  // reference: "none", "channel 4" or the file
  std::string profile;
  Switches switches;
  double duration_s = 0.0;
  uint64_t frames = 0;
  uint64_t speech_frames = 0;
  std::optional<int> direction_deg;
  std::optional<double> direction_confidence;  // the enhanced profile's, 0..1
  double realtime_factor = 0.0;
};
std::string SummaryJson(const Summary& summary);

}  // namespace vorn::cli
