// Minimal WAV and raw PCM file helpers for tests that run the tools on files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorn::test {

// Writes a canonical 44-byte-header PCM WAV file of interleaved samples.
bool WriteWav(const std::string& path, const std::vector<std::int16_t>& interleaved, int channels,
              int sample_rate = 16000);
bool WriteRaw(const std::string& path, const std::vector<std::int16_t>& samples);
bool WriteBytes(const std::string& path, const std::string& bytes);

struct WavData {
  int channels = 0;
  int sample_rate = 0;
  std::vector<std::int16_t> samples;  // interleaved
};
// Reads a WAV file with a plain "fmt " chunk followed by "data"; false on
// anything else.
bool ReadWav(const std::string& path, WavData* out);
std::vector<std::int16_t> ReadRaw(const std::string& path);
std::string ReadText(const std::string& path);

// A fresh empty directory under the system's temporary directory.
std::string MakeTempDir(const std::string& tag);

}  // namespace vorn::test
