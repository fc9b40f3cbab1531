#include "audio_io/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace vorn {

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
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace vorn
