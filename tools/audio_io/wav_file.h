// Whole WAV recordings in memory, as the benchmarks and the tests write and
// read them: the tools' reader and writer (audio_input.h, audio_output.h)
// over a file at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorn {

struct WavAudio {
  int channels = 0;
  int sample_rate = 0;
  std::vector<int16_t> samples;  // interleaved
};

// Writes `interleaved` as a 16-bit PCM WAV file; false (with a message when
// `error` is given) when it cannot.
bool WriteWavFile(const std::string& path, const std::vector<int16_t>& interleaved, int channels,
                  int sample_rate = 16000, std::string* error = nullptr);

// Reads a 16-bit PCM WAV file whole, its chunks in any order; false (with a
// message when `error` is given) on anything else.
bool ReadWavFile(const std::string& path, WavAudio* out, std::string* error = nullptr);

}  // namespace vorn
