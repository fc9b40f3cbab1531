// Getters of the enhanced speech presence.
#include "vorn/vorn_enhanced_state.h"
#include "vorn_proc.h"

using namespace vorn;

extern "C" int32_t VornGetSpeechProbability(const T_VornParam* pm, float* value) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (value == nullptr) return 1;
  *value = enhanced->last_presence.output_prob;
  return 0;
}
