// Getters of the enhanced echo picture.
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn_proc.h"

using namespace vorn;

namespace {

// What the classic profile reports: it measures neither figure.
const EchoPicture kNoPicture = [] {
  EchoPicture picture{};
  picture.erl_db = kNoEchoReturnLossDb;
  return picture;
}();

// The last frame's echo picture (a copy, read from wherever the record lies
// in the caller's buffer), or a nonzero result for the caller.
int32_t LastEchoPicture(const T_VornParam* pm, const float* value, EchoPicture* picture) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckPrepared(pm, &record);
  if (rc != VORN_OK) return rc;
  if (value == nullptr) return VORN_ERR_NULL;
  const int32_t profile = ReadRecord<int32_t>(record, kEnhancedRegionOffset + offsetof(TVornEnhancedState, profile));
  *picture = profile == kProfileEnhanced
                 ? ReadRecord<EchoPicture>(record, kEnhancedRegionOffset +
                                                       offsetof(TVornEnhancedState, modules.echo.picture))
                 : kNoPicture;
  return VORN_OK;
}

}  // namespace

extern "C" int32_t VornGetFarEndActivity(const T_VornParam* pm, float* value) {
  EchoPicture picture;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != VORN_OK) return rc;
  *value = picture.far_activity;
  return 0;
}

extern "C" int32_t VornGetReferenceIsMicrophone(const T_VornParam* pm, float* value) {
  EchoPicture picture;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != VORN_OK) return rc;
  *value = picture.reference_is_microphone ? 1.0f : 0.0f;
  return 0;
}

extern "C" int32_t VornGetEchoReturnLoss(const T_VornParam* pm, float* value) {
  EchoPicture picture;
  const int32_t rc = LastEchoPicture(pm, value, &picture);
  if (rc != VORN_OK) return rc;
  *value = picture.erl_db;
  return 0;
}
