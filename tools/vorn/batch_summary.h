// The summary of `vorn batch`: one record per manifest row, as CSV or JSON.
#pragma once

#include <string>
#include <vector>

#include "writers.h"

namespace vorn::cli {

struct BatchOutcome {
  enum class Status { kDone, kFailed, kSkipped };  // skipped: finished by an earlier run (--resume)
  int line = 0;
  std::string input, output;
  Status status = Status::kFailed;
  std::string error;     // why it failed
  std::string warnings;  // "; "-separated
  Summary summary;       // figures of a finished file
  double seconds = 0.0;  // wall time taken
};

// Writes `outcomes` to `path`: JSON when it ends in .json, else CSV.
bool WriteBatchSummary(const std::string& path, const std::vector<BatchOutcome>& outcomes, std::string* error);

}  // namespace vorn::cli
