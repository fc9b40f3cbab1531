// The processing-profile switch. The profile lives in the caller's buffer,
// next to the enhanced modules' state, so the parameter record keeps its
// layout; a buffer VornInit has not prepared carries no profile and is
// refused.
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_param.h"

using namespace vorn;

namespace vorn {

int32_t CheckPrepared(const T_VornParam* pm, TVornEnhancedState** enhanced) {
  if (pm == nullptr || pm->p_data == nullptr) return 1;
  if (pm->buff_size < kVornMinBuffSize) return 2;
  if (pm->param_size != kVornParamSize) return 3;
  TVornEnhancedState* e = EnhancedStateOf(VornStateOf(pm));
  if (e->magic != kEnhancedMagic) return VORN_ERR_NOT_INITIALISED;
  *enhanced = e;
  return 0;
}

}  // namespace vorn

extern "C" int32_t VornSetProfile(T_VornParam* pm, int32_t profile) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (profile != kProfileClassic && profile != kProfileEnhanced) return VORN_ERR_BAD_PROFILE;
  enhanced->profile = profile;
  return 0;
}

extern "C" int32_t VornGetProfile(const T_VornParam* pm) {
  TVornEnhancedState* enhanced = nullptr;
  if (CheckPrepared(pm, &enhanced) != 0) return -1;
  return enhanced->profile;
}
