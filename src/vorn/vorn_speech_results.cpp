// Getters of the enhanced speech presence (see vorn_enhanced_results.cpp for
// how they read).
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"

using namespace vorn;

extern "C" int32_t VornGetSpeechProbability(const T_VornParam* pm, float* value) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckPrepared(pm, &record);
  if (rc != VORN_OK) return rc;
  if (value == nullptr) return VORN_ERR_NULL;
  *value = ReadRecord<float>(record, kEnhancedRegionOffset + offsetof(TVornEnhancedState, last_presence.output_prob));
  return VORN_OK;
}
