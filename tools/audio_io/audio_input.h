// Reading 16-bit audio: WAV files in whatever chunk order a writer chose,
// raw little-endian samples, and standard input. The one WAV reader of the
// tools, the benchmarks and the tests.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "audio_io/wav_chunks.h"

namespace vorn {

class AudioInput {
 public:
  AudioInput() = default;
  AudioInput(const AudioInput&) = delete;
  AudioInput& operator=(const AudioInput&) = delete;
  ~AudioInput();

  // Opens `path` ("-" for standard input). Data that does not begin with a
  // RIFF header is raw audio of `raw_channels` channels, unless the name ends
  // in ".wav", which is then an error. False with a message naming the file
  // when the file cannot be opened or its WAV structure cannot be read; the
  // format is not judged here.
  bool Open(const std::string& path, int raw_channels, std::string* error);

  const std::string& name() const { return display_name_; }
  const AudioFormat& format() const { return format_; }
  bool is_wav() const { return is_wav_; }
  // Sample frames in the input when known before reading (files).
  std::optional<uint64_t> total_frames() const;
  // A note about the file's structure worth telling the user ("" if none).
  const std::string& notice() const { return notice_; }

  // Reads up to `max_frames` whole sample frames of 16-bit audio into
  // `interleaved` (channels() values per frame); returns the frames read,
  // 0 at the end.
  size_t Read(int16_t* interleaved, size_t max_frames);
  // Bytes at the end that did not make a whole sample frame.
  size_t trailing_bytes() const { return trailing_bytes_; }
  // Why reading stopped early ("" when it reached the end): Read returns 0
  // on a failed read too, so callers ask here before taking 0 as the end.
  const std::string& read_error() const { return read_error_; }

 private:
  bool ReadWavHeader(std::string* error);
  bool WalkChunksSeekable(uint32_t riff_size, std::string* error);
  bool WalkChunksStream(std::string* error);
  bool TakeFormat(const unsigned char* bytes, uint32_t size, std::string* error);
  size_t ReadBytes(void* dst, size_t count);

  FILE* stream_ = nullptr;
  bool owns_stream_ = false;
  bool seekable_ = false;
  std::string display_name_;
  AudioFormat format_;
  bool is_wav_ = false;
  std::optional<uint64_t> data_bytes_;  // remaining audio bytes, unknown for streams without a size
  std::vector<unsigned char> pushback_;  // bytes read while sniffing the format
  std::vector<unsigned char> bytes_;     // one read's raw bytes, kept from frame to frame
  size_t pushback_pos_ = 0;
  size_t trailing_bytes_ = 0;
  std::string notice_;
  std::string read_error_;
};

}  // namespace vorn
