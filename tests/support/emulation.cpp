#include "support/emulation.h"

#include <cstdlib>
#include <cstring>

namespace vorn::test {

bool UnderEmulation() {
  const char* flag = std::getenv("VORN_TEST_EMULATED");
  return flag != nullptr && std::strcmp(flag, "1") == 0;
}

}  // namespace vorn::test
