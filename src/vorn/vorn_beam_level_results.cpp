// The enhanced beam's microphone warnings and the level control's target,
// read and set through the caller's record like the profile.
#include "adsp_agc/level_control.h"
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

extern "C" int32_t VornSetAgcTarget(T_VornParam* pm, float target_dbfs) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  return LevelSetTarget(&enhanced->modules.level, target_dbfs) ? 0 : VORN_ERR_OUT_OF_RANGE;
}

extern "C" int32_t VornGetAgcTarget(const T_VornParam* pm, float* target_dbfs) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (target_dbfs == nullptr) return 1;
  *target_dbfs = enhanced->modules.level.target_dbfs;
  return 0;
}
