// The scratch file: an anonymous in-memory file on Linux (reopened through
// /proc, which gives every fopen its own offset), an unlinked-at-exit
// temporary file elsewhere.
#include "target_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace vorn::fuzz {
namespace {

struct ScratchFile {
  int fd = -1;
  std::string path;

  ScratchFile() {
#if defined(__linux__)
    fd = memfd_create("vorn-fuzz", 0);
    if (fd >= 0) {
      path = "/proc/self/fd/" + std::to_string(fd);
      return;
    }
#endif
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp != nullptr ? tmp : "/tmp") + "/vorn-fuzz-XXXXXX";
    fd = mkstemp(templ.data());
    if (fd < 0) {
      std::perror("vorn fuzz scratch file");
      std::abort();
    }
    path = templ;
  }
  ~ScratchFile() {
    if (fd >= 0) close(fd);
    if (path.rfind("/proc/", 0) != 0) unlink(path.c_str());
  }
};

}  // namespace

const char* WriteScratchFile(const uint8_t* data, size_t size) {
  static ScratchFile file;
  if (ftruncate(file.fd, 0) != 0) CheckFailed("scratch file truncates", __FILE__, __LINE__);
  size_t done = 0;
  while (done < size) {
    const ssize_t wrote = pwrite(file.fd, data + done, size - done, static_cast<off_t>(done));
    if (wrote <= 0) CheckFailed("scratch file takes the input", __FILE__, __LINE__);
    done += static_cast<size_t>(wrote);
  }
  return file.path.c_str();
}

}  // namespace vorn::fuzz
