// Getters of the enhanced echo picture.
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_result_read.h"
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
  const int32_t rc = CheckGetter(pm, value, &record);
  if (rc != VORN_OK) return rc;
  *picture = RunsEnhanced(record) ? ReadEnhanced<EchoPicture>(record, offsetof(TVornEnhancedState, modules.echo.picture))
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
