// The enhanced beam's microphone warnings, read through the caller's record
// like the profile.
#include "adsp_bf/beam_enhanced.h"
#include "vorn/vorn_enhanced_state.h"

using namespace vorn;

extern "C" int32_t VornGetWarnings(const T_VornParam* pm, uint32_t* warnings) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (warnings == nullptr) return 1;
  *warnings = enhanced->profile == kProfileEnhanced ? EnhancedBeamWarnings(&enhanced->modules.beam) : 0u;
  return 0;
}
