// Getters of the enhanced echo picture.
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn_proc.h"

using namespace vorn;

namespace {

// What the classic profile reports: it measures neither figure.
const EchoPicture kNoPicture = [] {
  EchoPicture picture{};
  picture.erl_db = kNoEchoReturnLossDb;
  return picture;
}();

// The last frame's echo picture, or a nonzero result for the caller.
int32_t LastEchoPicture(const T_VornParam* pm, float* value, const EchoPicture** picture) {
  TVornEnhancedState* enhanced = nullptr;
  const int32_t rc = CheckPrepared(pm, &enhanced);
  if (rc != 0) return rc;
  if (value == nullptr) return 1;
  *picture = enhanced->profile == kProfileEnhanced ? &enhanced->modules.echo.picture : &kNoPicture;
  return 0;
}

}  // namespace

extern "C" int32_t VornGetFarEndActivity(const T_VornParam* pm, float* value) {
  const EchoPicture* picture = nullptr;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != 0) return rc;
  *value = picture->far_activity;
  return 0;
}

extern "C" int32_t VornGetReferenceIsMicrophone(const T_VornParam* pm, float* value) {
  const EchoPicture* picture = nullptr;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != 0) return rc;
  *value = picture->reference_is_microphone ? 1.0f : 0.0f;
  return 0;
}

extern "C" int32_t VornGetEchoReturnLoss(const T_VornParam* pm, float* value) {
  const EchoPicture* picture = nullptr;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != 0) return rc;
  *value = picture->erl_db;
  return 0;
}
