// Getters of the enhanced speech presence (see vorn_result_read.h for how
// they read).
#include "vorn/vorn_result_read.h"

using namespace vorn;

extern "C" int32_t VornGetSpeechProbability(const T_VornParam* pm, float* value) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckGetter(pm, value, &record);
  if (rc != VORN_OK) return rc;
  *value = ReadEnhanced<float>(record, offsetof(TVornEnhancedState, last_presence.output_prob));
  return VORN_OK;
}
