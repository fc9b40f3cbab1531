// Files of a test: raw PCM samples, bytes and text, and a scratch directory.
// WAV files go through the tools' own reader and writer (audio_io/wav_file.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vorn::test {

bool WriteRaw(const std::string& path, const std::vector<std::int16_t>& samples);
bool WriteBytes(const std::string& path, const std::string& bytes);

std::vector<std::int16_t> ReadRaw(const std::string& path);
std::string ReadText(const std::string& path);

// A fresh empty directory under the system's temporary directory.
std::string MakeTempDir(const std::string& tag);

}  // namespace vorn::test
