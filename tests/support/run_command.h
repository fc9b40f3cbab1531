// Runs a command line through the shell in a given directory, as a user
// would, and collects what it printed and how it ended.
#pragma once

#include <string>

namespace vorn::test {

struct CommandResult {
  int status = -1;  // exit status; -1 when the shell itself was killed
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs `(command)` in `dir` with its standard output and error sent to files
// there and read back. Redirections inside `command` (closing a stream, a
// pipe) apply to the command alone.
CommandResult RunCommand(const std::string& dir, const std::string& command);

}  // namespace vorn::test
