// Writing 16-bit audio: WAV files, raw little-endian samples and standard
// output. The one WAV writer of the tools, the benchmarks and the tests
// (whole recordings through wav_file.h).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vorn {

// Whether a name asks for a WAV file, bare samples, or something unknown.
enum class OutputKind { kWav, kRaw, kUnknown };
OutputKind OutputKindOf(const std::string& path);

// 16-bit audio of `channels` channels at `sample_rate`. A ".wav" name gets a
// WAV header whose sizes are filled in by Close(); ".pcm" and ".raw" names
// and "-" (standard output) get bare samples. A file that is not closed is
// removed.
class AudioOutput {
 public:
  AudioOutput() = default;
  AudioOutput(const AudioOutput&) = delete;
  AudioOutput& operator=(const AudioOutput&) = delete;
  ~AudioOutput();

  bool Open(const std::string& path, int channels, std::string* error, int sample_rate = 16000);
  bool Write(const int16_t* interleaved, size_t frames, std::string* error);
  bool Close(std::string* error);

 private:
  FILE* stream_ = nullptr;
  bool owns_stream_ = false;
  bool wav_ = false;
  int channels_ = 1;
  int sample_rate_ = 16000;
  uint64_t data_bytes_ = 0;
  std::string name_;
  std::vector<unsigned char> bytes_;  // one write's little-endian bytes, kept from frame to frame
};

}  // namespace vorn
