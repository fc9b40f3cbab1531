// Size and version queries of the public interface.
#include "vorn/vorn_state.h"

namespace vorn {
namespace {
// Twelve bytes, as the version text has always been stored.
constexpr char g_vorn_version[12] = "0.4.4";
}  // namespace
}  // namespace vorn

extern "C" int32_t VornGetBuffSize(void) { return vorn::kVornStateSize + vorn::kVornStateSlack; }

extern "C" const char* VornGetVersion(void) { return vorn::g_vorn_version; }
