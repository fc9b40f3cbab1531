// The enhanced beam's microphone warnings and the level control's target,
// read and set through the caller's record like the profile. The getters
// only read, from wherever the record lies (see vorn_result_read.h).
#include "adsp_agc/level_control.h"
#include "adsp_bf/beam_enhanced.h"
#include "vorn/vorn_param.h"
#include "vorn/vorn_result_read.h"

using namespace vorn;

extern "C" int32_t VornGetWarnings(const T_VornParam* pm, uint32_t* warnings) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckGetter(pm, warnings, &record);
  if (rc != VORN_OK) return rc;
  constexpr std::size_t kHealth = offsetof(TVornEnhancedState, modules.beam.health);
  EnhancedBeamState beam{};
  beam.health.dead_mask = ReadEnhanced<decltype(beam.health.dead_mask)>(
      record, kHealth + offsetof(decltype(beam.health), dead_mask));
  beam.health.clipped_mask = ReadEnhanced<decltype(beam.health.clipped_mask)>(
      record, kHealth + offsetof(decltype(beam.health), clipped_mask));
  *warnings = RunsEnhanced(record) ? EnhancedBeamWarnings(&beam) : 0u;
  return VORN_OK;
}

extern "C" int32_t VornSetAgcTarget(T_VornParam* pm, float target_dbfs) {
  const int32_t rc = VornCheckRecord(pm);
  if (rc != VORN_OK) return rc;
  TVornState* st = LocateState(pm);
  if (st == nullptr) return VORN_ERR_NOT_INITIALISED;
  return LevelSetTarget(&EnhancedStateOf(st)->modules.level, target_dbfs) ? VORN_OK : VORN_ERR_OUT_OF_RANGE;
}

extern "C" int32_t VornGetAgcTarget(const T_VornParam* pm, float* target_dbfs) {
  const unsigned char* record = nullptr;
  const int32_t rc = CheckGetter(pm, target_dbfs, &record);
  if (rc != VORN_OK) return rc;
  *target_dbfs = ReadEnhanced<float>(record, offsetof(TVornEnhancedState, modules.level.target_dbfs));
  return VORN_OK;
}
