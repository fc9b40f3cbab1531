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
int RunBatch(const BatchOptions& options);

// Messages on standard error in the tool's voice.
void ReportError(const std::string& message);
void ReportWarning(const std::string& message);

// While a sink is set on a thread, that thread's errors and warnings are
// collected in it instead (a batch reports them per file).
struct MessageSink {
  std::vector<std::string> errors, warnings;
};
void SetMessageSink(MessageSink* sink);

// Runs the front end over one recording as `vorn process` does, without
// printing the summary: fills `summary` and the per-frame speech flags.
// Returns the exit status, after reporting any error.
int ProcessRecording(const ProcessOptions& options, Summary* summary, std::vector<int>* speech_flags);

}  // namespace vorn::cli
