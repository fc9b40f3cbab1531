// A batch manifest: one recording per line, "input,output[,reference[,options]]"
// where options are `vorn process` switches ("--mode comm --ns 2"). Blank
// lines and lines starting with '#' are skipped, and so is a first line whose
// first field is "input" (a header). Relative paths are read from the
// manifest's directory, so a corpus and its manifest move together.
#pragma once

#include <string>
#include <vector>

#include "options.h"

namespace vorn::cli {

struct ManifestRow {
  int line = 0;             // 1-based line in the manifest
  ProcessOptions options;   // input, output, reference and switches resolved
  std::string error;        // why the row cannot run, or ""
};

// Splits `text` into rows over `defaults`. Rows that cannot run carry their
// error; the others are ready for ProcessRecording.
std::vector<ManifestRow> ParseManifest(const std::string& text, const std::string& manifest_dir,
                                       const ProcessOptions& defaults);

}  // namespace vorn::cli
