// The subcommands of `vorn`; each returns the process exit status.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "options.h"
#include "writers.h"

namespace vorn::cli {

int RunProcess(const ProcessOptions& options);
int RunDemo(const DemoOptions& options);

// Messages on standard error in the tool's voice.
void ReportError(const std::string& message);
void ReportWarning(const std::string& message);

// Runs the front end over one recording as `vorn process` does, without
// printing the summary: fills `summary` and the per-frame speech flags.
// Returns the exit status, after reporting any error.
int ProcessRecording(const ProcessOptions& options, Summary* summary, std::vector<int>* speech_flags);

}  // namespace vorn::cli
