// Manifest rows. Fields are split at commas with no quoting: a path holding
// a comma cannot be named, which keeps a hand-written manifest unambiguous.
#include "batch_manifest.h"

#include <filesystem>
#include <map>

#include "audio_io/audio_output.h"

namespace vorn::cli {
namespace {

constexpr size_t kMaxFields = 4;

std::string Trim(const std::string& s) {
  const size_t first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> SplitFields(const std::string& line) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (;;) {
    const size_t comma = line.find(',', start);
    fields.push_back(Trim(line.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
    if (comma == std::string::npos) return fields;
    start = comma + 1;
  }
}

std::string Resolve(const std::string& path, const std::string& dir) {
  if (path.empty() || std::filesystem::path(path).is_absolute()) return path;
  return (std::filesystem::path(dir) / path).lexically_normal().string();
}

std::string RowError(const std::vector<std::string>& fields, ProcessOptions* row) {
  if (fields.size() > kMaxFields)
    return std::to_string(fields.size()) + " columns; a row has at most 4 (input, output, reference, options)";
  if (fields.size() < 2 || fields[0].empty() || fields[1].empty()) return "a row needs an input and an output";
  if (fields[0] == "-" || fields[1] == "-") return "standard streams cannot be used in a batch";
  if (OutputKindOf(fields[1]) == OutputKind::kUnknown)
    return "cannot tell the type of output '" + fields[1] + "' (name it .wav, .pcm or .raw)";
  std::string error;
  if (fields.size() == 4 && !ParseRowOptions(fields[3], row, &error)) return error;
  return "";
}

}  // namespace

std::vector<ManifestRow> ParseManifest(const std::string& text, const std::string& manifest_dir,
                                       const ProcessOptions& defaults) {
  std::vector<ManifestRow> rows;
  std::map<std::string, int> outputs;  // resolved output -> line that writes it
  size_t start = 0;
  bool first = true;
  for (int line_no = 1; start < text.size(); ++line_no) {
    const size_t end = text.find('\n', start);
    const std::string line = Trim(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    start = end == std::string::npos ? text.size() : end + 1;
    if (line.empty() || line[0] == '#') continue;
    const std::vector<std::string> fields = SplitFields(line);
    const bool header = first && fields[0] == "input";
    first = false;
    if (header) continue;
    ManifestRow row;
    row.line = line_no;
    row.options = defaults;
    row.error = RowError(fields, &row.options);
    if (fields.size() >= 2) {
      row.options.input = Resolve(fields[0], manifest_dir);
      row.options.output = Resolve(fields[1], manifest_dir);
    }
    if (fields.size() >= 3) row.options.ref_path = Resolve(fields[2], manifest_dir);
    if (row.error.empty()) {
      const auto [it, fresh] = outputs.emplace(row.options.output, line_no);
      if (!fresh) row.error = "output " + row.options.output + " is also written by line " + std::to_string(it->second);
      else if (row.options.output == row.options.input) row.error = "the output would overwrite the input";
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace vorn::cli
