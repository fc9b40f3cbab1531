// The processing-profile switch. The profile lives in the caller's buffer,
// next to the enhanced modules' state, so the parameter record keeps its
// layout; a buffer VornInit has not prepared carries no profile and is
// refused.
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_param.h"

using namespace vorn;

extern "C" int32_t VornSetProfile(T_VornParam* pm, int32_t profile) {
  const int32_t rc = VornCheckRecord(pm);
  if (rc != VORN_OK) return rc;
  TVornState* st = LocateState(pm);
  if (st == nullptr) return VORN_ERR_NOT_INITIALISED;
  if (profile != kProfileClassic && profile != kProfileEnhanced) return VORN_ERR_BAD_PROFILE;
  EnhancedStateOf(st)->profile = profile;
  return VORN_OK;
}

extern "C" int32_t VornGetProfile(const T_VornParam* pm) {
  if (VornCheckRecord(pm) != VORN_OK) return -1;
  const unsigned char* record = FindRecord(pm->p_data);
  if (record == nullptr) return -1;
  return ReadRecord<int32_t>(record, kEnhancedRegionOffset + offsetof(TVornEnhancedState, profile));
}
