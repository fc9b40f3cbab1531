// Per-frame results of the enhanced profile that the parameter record has
// no field for, read through small getters (see vorn_result_read.h).
#include "vorn/vorn_result_read.h"

using namespace vorn;

extern "C" int32_t VornGetDoaConfidence(const T_VornParam* pm, float* value) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckGetter(pm, value, &record);
  if (rc != VORN_OK) return rc;
  *value = RunsEnhanced(record)
               ? ReadEnhanced<float>(record, offsetof(TVornEnhancedState, modules.doa_tracker.reported_confidence))
               : 0.0f;
  return VORN_OK;
}
