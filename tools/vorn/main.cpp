// `vorn`: the command-line front end for people and scripts. Dispatches the
// subcommands; the work lives in one file per command.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "options.h"
#include "vorn_proc.h"

namespace {

// A standard stream the caller closed would hand its descriptor to the next
// file opened, and the summary or a message would land inside the output
// audio. Each closed one gets /dev/null opened the wrong way round: the
// number is taken, and any use of the stream fails and is reported.
void GuardStandardStreams() {
  const int unusable[3] = {O_WRONLY, O_RDONLY, O_RDONLY};
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    const int got = open("/dev/null", unusable[fd]);
    if (got != fd && got >= 0) {
      dup2(got, fd);
      close(got);
    }
  }
  // A reader that goes away makes the next write fail with a message instead
  // of killing the tool silently.
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vorn::cli;
  GuardStandardStreams();
  const std::vector<std::string> args(argv + 1, argv + argc);
  ParsedCommand parsed;
  std::string error;
  if (!ParseCommandLine(args, &parsed, &error)) {
    ReportError(error);
    const bool subcommand = !args.empty() && (args[0] == "process" || args[0] == "demo");
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
      else if (parsed.help_topic == "demo")
        std::fputs(DemoHelp().c_str(), stdout);
      else
        std::fputs(MainHelp().c_str(), stdout);
      return kExitOk;
    case Command::kProcess:
      return RunProcess(parsed.process);
    case Command::kDemo:
      return RunDemo(parsed.demo);
  }
  return kExitFailure;
}
