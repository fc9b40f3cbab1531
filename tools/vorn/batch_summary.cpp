// Batch summaries. The CSV quotes a field only when it holds a comma, a
// quote or a line break, so plain paths stay readable.
#include "batch_summary.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vorn::cli {
namespace {

const char* StatusName(BatchOutcome::Status s) {
  switch (s) {
    case BatchOutcome::Status::kDone: return "done";
    case BatchOutcome::Status::kSkipped: return "skipped";
    case BatchOutcome::Status::kFailed: break;
  }
  return "failed";
}

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\n\r") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + "\"";
}

double SpeechShare(const Summary& s) {
  return s.frames > 0 ? static_cast<double>(s.speech_frames) / static_cast<double>(s.frames) : 0.0;
}

std::string Csv(const std::vector<BatchOutcome>& outcomes) {
  std::string csv =
      "line,input,output,status,error,warnings,duration_s,speech_share,direction_deg,direction_confidence,"
      "realtime_factor,seconds\n";
  for (const BatchOutcome& o : outcomes) {
    const bool figures = o.status == BatchOutcome::Status::kDone;
    const Summary& s = o.summary;
    csv.append(std::to_string(o.line)).append(",").append(CsvField(o.input)).append(",");
    csv.append(CsvField(o.output)).append(",").append(StatusName(o.status)).append(",");
    csv.append(CsvField(o.error)).append(",").append(CsvField(o.warnings)).append(",");
    if (figures) {
      csv.append(Fixed(s.duration_s, 3)).append(",").append(Fixed(SpeechShare(s), 4)).append(",");
      if (s.direction_deg) csv.append(std::to_string(*s.direction_deg));
      csv.append(",");
      if (s.direction_confidence) csv.append(Fixed(*s.direction_confidence, 2));
      csv.append(",").append(Fixed(s.realtime_factor, 1));
    } else {
      csv += ",,,,";
    }
    csv.append(",").append(Fixed(o.seconds, 3)).append("\n");
  }
  return csv;
}

std::string Json(const std::vector<BatchOutcome>& outcomes) {
  std::string json = "[\n";
  for (size_t i = 0; i < outcomes.size(); ++i) {
    const BatchOutcome& o = outcomes[i];
    const Summary& s = o.summary;
    json += "  {\"line\": " + std::to_string(o.line) + ", \"input\": " + JsonString(o.input) +
            ", \"output\": " + JsonString(o.output) + ", \"status\": " + JsonString(StatusName(o.status)) +
            ", \"error\": " + JsonString(o.error) + ", \"warnings\": " + JsonString(o.warnings);
    if (o.status == BatchOutcome::Status::kDone) {
      json += ", \"duration_s\": " + Fixed(s.duration_s, 3) + ", \"speech_share\": " + Fixed(SpeechShare(s), 4) +
              ", \"direction_deg\": " + (s.direction_deg ? std::to_string(*s.direction_deg) : "null") +
              ", \"direction_confidence\": " + (s.direction_confidence ? Fixed(*s.direction_confidence, 2) : "null") +
              ", \"realtime_factor\": " + Fixed(s.realtime_factor, 1);
    }
    json += ", \"seconds\": " + Fixed(o.seconds, 3) + "}" + (i + 1 < outcomes.size() ? ",\n" : "\n");
  }
  return json + "]\n";
}

}  // namespace

bool WriteBatchSummary(const std::string& path, const std::vector<BatchOutcome>& outcomes, std::string* error) {
  const bool json = path.size() >= 5 && path.compare(path.size() - 5, 5, ".json") == 0;
  const std::string text = json ? Json(outcomes) : Csv(outcomes);
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (std::fclose(file) != 0 || !written) {
    *error = path + ": write failed";
    return false;
  }
  return true;
}

}  // namespace vorn::cli
