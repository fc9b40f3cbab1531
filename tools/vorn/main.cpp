// `vorn`: the command-line front end for people and scripts. Dispatches the
// subcommands; the work lives in one file per command.
#include <cstdio>
#include <string>
#include <vector>

#include "audio_io/standard_streams.h"
#include "commands.h"
#include "options.h"
#include "vorn_proc.h"

int main(int argc, char** argv) {
  using namespace vorn::cli;
  vorn::GuardStandardStreams();
  const std::vector<std::string> args(argv + 1, argv + argc);
  ParsedCommand parsed;
  std::string error;
  if (!ParseCommandLine(args, &parsed, &error)) {
    ReportError(error);
    const bool subcommand = !args.empty() && (args[0] == "process" || args[0] == "demo" || args[0] == "batch");
    std::fprintf(stderr, "Try 'vorn %s--help' for more information.\n", subcommand ? (args[0] + " ").c_str() : "");
    return kExitUsage;
  }
  switch (parsed.command) {
    case Command::kVersion:
      std::printf("vorn %s\n", VornGetVersion());
      return kExitOk;
    case Command::kHelp:
      if (parsed.help_topic == "process")
        std::fputs(ProcessHelp().c_str(), stdout);
      else if (parsed.help_topic == "batch")
        std::fputs(BatchHelp().c_str(), stdout);
      else if (parsed.help_topic == "demo")
        std::fputs(DemoHelp().c_str(), stdout);
      else
        std::fputs(MainHelp().c_str(), stdout);
      return kExitOk;
    case Command::kProcess:
      return RunProcess(parsed.process);
    case Command::kBatch:
      return RunBatch(parsed.batch);
    case Command::kDemo:
      return RunDemo(parsed.demo);
  }
  return kExitFailure;
}
