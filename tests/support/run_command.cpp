#include "support/run_command.h"

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>

#include "support/files.h"

namespace vorn::test {

CommandResult RunCommand(const std::string& dir, const std::string& command) {
  const std::string out = dir + "/.command_stdout", err = dir + "/.command_stderr";
  const std::string line = "cd '" + dir + "' && (" + command + ") >'" + out + "' 2>'" + err + "'";
  const int raw = std::system(line.c_str());
  CommandResult r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = ReadText(out);
  r.err = ReadText(err);
  std::filesystem::remove(out);
  std::filesystem::remove(err);
  return r;
}

}  // namespace vorn::test
