// Per-frame results of the enhanced profile that the parameter record has
// no field for, read through small getters.
#include "vorn/vorn_enhanced_state.h"

using namespace vorn;

extern "C" int32_t VornGetDoaConfidence(const T_VornParam* pm, float* value) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (value == nullptr) return 1;
  *value = enhanced->profile == kProfileEnhanced ? enhanced->modules.doa_tracker.reported_confidence : 0.0f;
  return 0;
}
