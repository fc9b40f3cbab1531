// Audio input of the tools. A WAV file is a RIFF list of chunks; writers put
// "LIST", "fact", "bext" or padding chunks before or after the audio and
// some put the format after it. From a file every chunk header is visited
// by seeking, so the order does not matter; from a pipe the chunks are read
// in order and the format must come before the audio, which every streaming
// writer does. A data size of 0 or 0xFFFFFFFF is what streaming writers
// leave when they cannot rewind, and means "to the end". Raw input is told
// apart by the absence of the RIFF tag, so a pipe needs no extra option.
#include "audio_io/audio_input.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorn {
namespace {

bool EndsWith(const std::string& text, const std::string& tail) {
  if (text.size() < tail.size()) return false;
  std::string end = text.substr(text.size() - tail.size());
  std::transform(end.begin(), end.end(), end.begin(), [](unsigned char c) { return std::tolower(c); });
  return end == tail;
}

constexpr uint32_t kUnknownSize = 0xFFFFFFFFu;

}  // namespace

AudioInput::~AudioInput() {
  if (owns_stream_ && stream_ != nullptr) std::fclose(stream_);
}

bool AudioInput::Open(const std::string& path, int raw_channels, std::string* error) {
  display_name_ = path == "-" ? "standard input" : path;
  if (path == "-") {
    stream_ = stdin;
  } else {
    stream_ = std::fopen(path.c_str(), "rb");
    if (stream_ == nullptr) {
      *error = display_name_ + ": " + std::strerror(errno);
      return false;
    }
    owns_stream_ = true;
  }
  struct stat info {};
  seekable_ = fstat(fileno(stream_), &info) == 0 && S_ISREG(info.st_mode);

  unsigned char head[4] = {};
  const size_t got = std::fread(head, 1, sizeof head, stream_);
  if (std::ferror(stream_) != 0) {
    *error = display_name_ + ": read failed: " + std::strerror(errno);
    return false;
  }
  if (got == 4 && std::memcmp(head, "RIFF", 4) == 0) {
    is_wav_ = true;
    return ReadWavHeader(error);
  }
  if (EndsWith(path, ".wav")) {
    *error = display_name_ + ": not a WAV file (no RIFF header)";
    return false;
  }
  pushback_.assign(head, head + got);
  format_.channels = raw_channels;
  format_.block_align = 2 * raw_channels;
  if (seekable_) data_bytes_ = static_cast<uint64_t>(info.st_size);
  return true;
}

bool AudioInput::ReadWavHeader(std::string* error) {
  unsigned char riff_rest[8];
  if (std::fread(riff_rest, 1, sizeof riff_rest, stream_) != sizeof riff_rest ||
      std::memcmp(riff_rest + 4, "WAVE", 4) != 0) {
    *error = display_name_ + ": not a WAV file (RIFF without WAVE)";
    return false;
  }
  const bool ok = seekable_ ? WalkChunksSeekable(Le32(riff_rest), error) : WalkChunksStream(error);
  if (!ok) return false;
  if (format_.channels <= 0) {
    *error = display_name_ + ": WAV file without a format chunk";
    return false;
  }
  return true;
}

bool AudioInput::TakeFormat(const unsigned char* bytes, uint32_t size, std::string* error) {
  if (ParseFormatChunk(bytes, size, &format_)) return true;
  *error = display_name_ + ": format chunk of " + std::to_string(size) + " bytes is too short";
  return false;
}

bool AudioInput::WalkChunksSeekable(uint32_t riff_size, std::string* error) {
  std::fseek(stream_, 0, SEEK_END);
  const uint64_t file_size = static_cast<uint64_t>(std::ftell(stream_));
  if (riff_size != kUnknownSize && static_cast<uint64_t>(riff_size) + 8 < file_size)
    notice_ = display_name_ + ": ignoring " + std::to_string(file_size - riff_size - 8) +
              " bytes after the RIFF data";
  uint64_t pos = 12;
  std::optional<uint64_t> data_at;
  uint32_t data_size = 0;
  bool have_format = false;
  while (pos + 8 <= file_size) {
    unsigned char chunk[8];
    std::fseek(stream_, static_cast<long>(pos), SEEK_SET);
    if (std::fread(chunk, 1, 8, stream_) != 8) break;
    const uint32_t size = Le32(chunk + 4);
    if (std::memcmp(chunk, "fmt ", 4) == 0 && !have_format) {
      unsigned char fmt[kFormatBytesUsed] = {};
      const size_t want = std::min(size, kFormatBytesUsed);
      if (std::fread(fmt, 1, want, stream_) != want) break;
      if (!TakeFormat(fmt, size, error)) return false;
      have_format = true;
    } else if (std::memcmp(chunk, "data", 4) == 0 && !data_at) {
      data_at = pos + 8;
      data_size = size;
      // A size a streaming writer left behind covers the rest of the file.
      if (size == 0 || size == kUnknownSize) break;
    }
    pos += 8 + static_cast<uint64_t>(size) + (size & 1u);
  }
  if (!data_at) {
    *error = display_name_ + ": WAV file without a data chunk";
    return false;
  }
  const uint64_t available = file_size - *data_at;
  uint64_t bytes = data_size;
  if (data_size == 0 || data_size == kUnknownSize) {
    bytes = available;
  } else if (data_size > available) {
    // A cut file: processing what is there would pass a shortened result off
    // as the whole recording.
    *error = display_name_ + ": the data chunk claims " + std::to_string(data_size) + " bytes but the file holds " +
             std::to_string(available) + " (a truncated file?)";
    return false;
  }
  data_bytes_ = bytes;
  std::fseek(stream_, static_cast<long>(*data_at), SEEK_SET);
  return true;
}

bool AudioInput::WalkChunksStream(std::string* error) {
  ChunkWalk walk;
  if (!WalkChunksToData(stream_, &walk)) {
    if (walk.has_format || std::memcmp(walk.last.id, "fmt ", 4) != 0)
      *error = display_name_ + ": WAV stream ends before its data chunk";
    else if (walk.last.size < 16)
      *error = display_name_ + ": format chunk of " + std::to_string(walk.last.size) + " bytes is too short";
    else
      *error = display_name_ + ": WAV stream ends inside its format chunk";
    return false;
  }
  if (!walk.has_format) {
    *error = display_name_ + ": the format chunk follows the audio, which a stream cannot rewind to";
    return false;
  }
  format_ = walk.format;
  if (walk.last.size != 0 && walk.last.size != kUnknownSize) data_bytes_ = walk.last.size;
  return true;
}

std::optional<uint64_t> AudioInput::total_frames() const {
  if (!data_bytes_ || format_.block_align <= 0) return std::nullopt;
  return *data_bytes_ / static_cast<uint64_t>(format_.block_align);
}

size_t AudioInput::ReadBytes(void* dst, size_t count) {
  auto* out = static_cast<unsigned char*>(dst);
  size_t done = 0;
  while (done < count && pushback_pos_ < pushback_.size()) out[done++] = pushback_[pushback_pos_++];
  if (done < count) done += std::fread(out + done, 1, count - done, stream_);
  if (done < count && read_error_.empty() && std::ferror(stream_) != 0)
    read_error_ = display_name_ + ": read failed: " + std::strerror(errno);
  return done;
}

size_t AudioInput::Read(int16_t* interleaved, size_t max_frames) {
  const size_t frame_bytes = 2 * static_cast<size_t>(format_.channels);
  size_t want = max_frames * frame_bytes;
  if (data_bytes_) {
    const uint64_t whole_left = *data_bytes_ - *data_bytes_ % frame_bytes;
    want = static_cast<size_t>(std::min<uint64_t>(want, whole_left));
    if (want == 0) {
      trailing_bytes_ = static_cast<size_t>(*data_bytes_);
      data_bytes_ = 0;
      return 0;
    }
  }
  if (want == 0) return 0;
  if (bytes_.size() < want) bytes_.resize(want);
  const size_t got = ReadBytes(bytes_.data(), want);
  const size_t frames = got / frame_bytes;
  const size_t whole = frames * frame_bytes;
  if (data_bytes_) *data_bytes_ -= got;
  if (got < want) {  // the input ended early, perhaps inside a sample frame
    trailing_bytes_ = got - whole;
    // Short of a declared length the input was cut (or shrank while read).
    if (data_bytes_ && read_error_.empty())
      read_error_ = display_name_ + ": ended " + std::to_string(*data_bytes_) + " bytes before its declared length";
    data_bytes_ = 0;
  } else if (data_bytes_ && *data_bytes_ < frame_bytes) {
    trailing_bytes_ = static_cast<size_t>(*data_bytes_);  // too few left for one more sample frame
    data_bytes_ = 0;
  }
  for (size_t i = 0; i < whole / 2; ++i) interleaved[i] = static_cast<int16_t>(Le16(&bytes_[2 * i]));
  return frames;
}

}  // namespace vorn
