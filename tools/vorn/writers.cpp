// Output files of `vorn`. The WAV header is written first with sizes that
// are corrected once the length is known; on a stream that cannot seek the
// output is bare samples instead, so no header ever lies about its length.
#include "writers.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "audio_io/audio_io.h"

namespace vorn::cli {
namespace {

constexpr int kRate = 16000;

bool EndsWith(std::string text, const std::string& tail) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

hdr_t WavHeader(int channels, uint64_t data_bytes) {
  hdr_t header{};
  std::memcpy(header.riff, "RIFF", 4);
  std::memcpy(header.wave, "WAVE", 4);
  std::memcpy(header.fmtstr, "fmt ", 4);
  std::memcpy(header.data, "data", 4);
  header.dum1 = 16;
  header.dum2 = 1;
  header.numchans = static_cast<int16_t>(channels);
  header.Fs = kRate;
  header.nbytespersec = kRate * 2 * channels;
  header.nbytespersample = static_cast<int16_t>(2 * channels);
  header.nbitspersample = 16;
  // Past 4 GiB the sizes cannot be told; players read such files to the end.
  const uint64_t capped = std::min<uint64_t>(data_bytes, 0xFFFFFFFFull - 36);
  header.datsize = static_cast<uint32_t>(capped);
  header.totsize = static_cast<int32_t>(static_cast<uint32_t>(capped + 36));
  return header;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string Fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
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

bool AudioOutput::Open(const std::string& path, int channels, std::string* error) {
  name_ = path == "-" ? "standard output" : path;
  channels_ = channels;
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
  if (wav_ && write_wave_header(WavHeader(channels_, 0), stream_) != 0) {
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
    ok = std::fseek(stream_, 0, SEEK_SET) == 0 && write_wave_header(WavHeader(channels_, data_bytes_), stream_) == 0;
  }
  ok = std::fflush(stream_) == 0 && ok;
  if (owns_stream_) ok = std::fclose(stream_) == 0 && ok;
  stream_ = nullptr;
  if (!ok) *error = name_ + ": write failed: " + std::strerror(errno);
  return ok;
}

bool WriteFrameCsv(const std::string& path, const char* column, const std::vector<int>& values, std::string* error) {
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  std::fprintf(file, "time_s,%s\n", column);
  // A frame is 256 samples, 16 ms: its start time is exact in three decimals.
  for (size_t f = 0; f < values.size(); ++f) std::fprintf(file, "%.3f,%d\n", 0.016 * static_cast<double>(f), values[f]);
  if (std::fclose(file) != 0) {
    *error = path + ": write failed";
    return false;
  }
  return true;
}

std::string SummaryJson(const Summary& s) {
  const double share = s.frames > 0 ? static_cast<double>(s.speech_frames) / static_cast<double>(s.frames) : 0.0;
  std::string json = "{\n";
  json += "  \"input\": " + JsonString(s.input) + ",\n";
  json += "  \"output\": " + JsonString(s.output) + ",\n";
  json += "  \"mode\": " + JsonString(s.mode) + ",\n";
  json += "  \"profile\": " + JsonString(s.profile) + ",\n";
  const Switches& w = s.switches;
  json += "  \"switches\": {\"agc\": " + std::to_string(w.agc) + ", \"bf\": " + std::to_string(w.bf) +
          ", \"doa\": " + std::to_string(w.doa) + ", \"aec\": " + std::to_string(w.aec) +
          ", \"ns\": " + std::to_string(w.ns) + ", \"azimuth\": " + std::to_string(w.azimuth) +
          ", \"vad_mode\": " + std::to_string(w.vad_mode) + "},\n";
  json += "  \"reference\": " + JsonString(s.reference) + ",\n";
  json += "  \"duration_s\": " + Fixed(s.duration_s, 3) + ",\n";
  json += "  \"frames\": " + std::to_string(s.frames) + ",\n";
  json += "  \"speech_frames\": " + std::to_string(s.speech_frames) + ",\n";
  json += "  \"speech_share\": " + Fixed(share, 4) + ",\n";
  json += "  \"direction_deg\": " + (s.direction_deg ? std::to_string(*s.direction_deg) : std::string("null")) + ",\n";
  json += "  \"direction_confidence\": " +
          (s.direction_confidence ? Fixed(*s.direction_confidence, 2) : std::string("null")) + ",\n";
  json += "  \"realtime_factor\": " + Fixed(s.realtime_factor, 1) + "\n";
  json += "}\n";
  return json;
}

}  // namespace vorn::cli
