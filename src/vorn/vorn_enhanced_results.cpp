// Per-frame results of the enhanced profile that the parameter record has
// no field for, read through small getters. They only read, from wherever
// the record lies in the caller's buffer (a copied buffer's record moves on
// the next processing call, not here).
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"

using namespace vorn;

extern "C" int32_t VornGetDoaConfidence(const T_VornParam* pm, float* value) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckPrepared(pm, &record);
  if (rc != VORN_OK) return rc;
  if (value == nullptr) return VORN_ERR_NULL;
  const int32_t profile = ReadRecord<int32_t>(record, kEnhancedRegionOffset + offsetof(TVornEnhancedState, profile));
  *value = profile == kProfileEnhanced
               ? ReadRecord<float>(record, kEnhancedRegionOffset +
                                               offsetof(TVornEnhancedState, modules.doa_tracker.reported_confidence))
               : 0.0f;
  return VORN_OK;
}
