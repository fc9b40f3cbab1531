// Audio output of the tools. The WAV header is written first with sizes
// that are corrected once the length is known, so a header never claims more
// than the file holds; "-" and raw names get bare samples.
#include "audio_io/audio_output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "audio_io/audio_io.h"

namespace vorn {
namespace {

bool EndsWith(std::string text, const std::string& tail) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

OutputKind OutputKindOf(const std::string& path) {
  if (path == "-" || EndsWith(path, ".pcm") || EndsWith(path, ".raw")) return OutputKind::kRaw;
  if (EndsWith(path, ".wav")) return OutputKind::kWav;
  return OutputKind::kUnknown;
}

// An output never closed belongs to a run that failed: it is removed rather
// than left looking like a finished, shorter result.
AudioOutput::~AudioOutput() {
  if (owns_stream_ && stream_ != nullptr) {
    std::fclose(stream_);
    std::remove(name_.c_str());
  }
}

bool AudioOutput::Open(const std::string& path, int channels, std::string* error, int sample_rate) {
  name_ = path == "-" ? "standard output" : path;
  channels_ = channels;
  sample_rate_ = sample_rate;
  wav_ = OutputKindOf(path) == OutputKind::kWav;
  if (path == "-") {
    stream_ = stdout;
  } else {
    stream_ = std::fopen(path.c_str(), "wb");
    if (stream_ == nullptr) {
      *error = name_ + ": " + std::strerror(errno);
      return false;
    }
    owns_stream_ = true;
  }
  if (wav_ && write_wave_header(pcm_wave_header(channels_, sample_rate_, 0), stream_) != 0) {
    *error = name_ + ": write failed";
    return false;
  }
  return true;
}

bool AudioOutput::Write(const int16_t* interleaved, size_t frames, std::string* error) {
  const size_t count = frames * static_cast<size_t>(channels_);
  if (count == 0) return true;  // an empty recording: no buffer to hand to fwrite
  if (bytes_.size() < 2 * count) bytes_.resize(2 * count);
  for (size_t i = 0; i < count; ++i) {
    const auto bits = static_cast<uint16_t>(interleaved[i]);
    bytes_[2 * i] = static_cast<unsigned char>(bits & 0xFF);
    bytes_[2 * i + 1] = static_cast<unsigned char>(bits >> 8);
  }
  if (std::fwrite(bytes_.data(), 1, 2 * count, stream_) != 2 * count) {
    *error = name_ + ": write failed: " + std::strerror(errno);
    return false;
  }
  data_bytes_ += 2 * count;
  return true;
}

bool AudioOutput::Close(std::string* error) {
  bool ok = true;
  if (wav_) {
    ok = std::fseek(stream_, 0, SEEK_SET) == 0 &&
         write_wave_header(pcm_wave_header(channels_, sample_rate_, data_bytes_), stream_) == 0;
  }
  ok = std::fflush(stream_) == 0 && ok;
  if (owns_stream_) ok = std::fclose(stream_) == 0 && ok;
  stream_ = nullptr;
  if (!ok) *error = name_ + ": write failed: " + std::strerror(errno);
  return ok;
}


}  // namespace vorn
