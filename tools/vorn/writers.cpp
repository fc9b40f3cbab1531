// Result files of `vorn` besides the audio: per-frame CSV and the JSON
// summary.
#include "writers.h"

#include <cerrno>
#include <cmath>
#include <cstring>

namespace vorn::cli {

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
  const sim::Switches& w = s.switches;
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
