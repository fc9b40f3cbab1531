// Audio output of the tools. The WAV header is written first with sizes
// that are corrected once the length is known, so a header never claims more
// than the file holds; "-" and raw names get bare samples.
#include "audio_io/audio_output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "audio_io/audio_input.h"
#include "audio_io/audio_io.h"

namespace vorn {
namespace {

bool EndsWith(std::string text, const std::string& tail) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

bool Fail(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
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


bool WriteWavFile(const std::string& path, const std::vector<int16_t>& interleaved, int channels, int sample_rate,
                  std::string* error) {
  std::string message;
  AudioOutput out;
  const size_t frames = channels > 0 ? interleaved.size() / static_cast<size_t>(channels) : 0;
  if (OutputKindOf(path) != OutputKind::kWav) return Fail(error, path + ": not a .wav name");
  if (out.Open(path, channels, &message, sample_rate) && out.Write(interleaved.data(), frames, &message) &&
      out.Close(&message))
    return true;
  return Fail(error, message);
}

bool ReadWavFile(const std::string& path, WavAudio* out, std::string* error) {
  std::string message;
  AudioInput in;
  if (!in.Open(path, 1, &message)) return Fail(error, message);
  const AudioFormat& format = in.format();
  if (!in.is_wav()) return Fail(error, path + ": not a WAV file");
  if (format.format_tag != 1 || format.bits != 16 || format.channels < 1 || format.block_align != 2 * format.channels)
    return Fail(error, path + ": not 16-bit PCM");
  out->channels = format.channels;
  out->sample_rate = format.sample_rate;
  out->samples.clear();
  std::vector<int16_t> block(static_cast<size_t>(format.channels) * 4096);
  for (size_t got; (got = in.Read(block.data(), 4096)) > 0;)
    out->samples.insert(out->samples.end(), block.begin(), block.begin() + static_cast<long>(got) * format.channels);
  if (!in.read_error().empty()) return Fail(error, in.read_error());
  return true;
}

}  // namespace vorn
