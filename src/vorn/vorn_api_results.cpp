// What the modern interface reports beyond a frame's audio: the figures the
// enhanced profile keeps about the last frame, and the configuration's
// warnings. A figure is a float somewhere in the enhanced state; adding one
// is a line here and a declaration in vorn.h.
#include <cstddef>

#include "vorn/vorn_api_state.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"

using namespace vorn;

namespace {

// The enhanced state's float at `offset`, or 0 while the classic profile
// runs (it keeps none of these figures).
int EnhancedFigure(const VornState* st, std::size_t offset, float* value) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (value == nullptr) return VORN_E_NULL;
  const unsigned char* record = FindRecord(st->buffer);
  if (record == nullptr) return VORN_E_NOT_READY;
  const std::size_t enhanced = kEnhancedRegionOffset;
  const bool classic =
      ReadRecord<int32_t>(record, enhanced + offsetof(TVornEnhancedState, profile)) != kProfileEnhanced;
  *value = classic ? 0.0f : ReadRecord<float>(record, enhanced + offset);
  return VORN_OK;
}

}  // namespace

extern "C" int vorn_get_direction_confidence(const VornState* st, float* value) {
  return EnhancedFigure(st, offsetof(TVornEnhancedState, last_direction) + offsetof(TalkerDirection, confidence),
                        value);
}

extern "C" int vorn_get_echo_activity(const VornState* st, float* value) {
  return EnhancedFigure(st, offsetof(TVornEnhancedState, last_echo) + offsetof(EchoPicture, far_activity), value);
}

extern "C" int vorn_get_config_warnings(const VornState* st, int32_t* count, const char** text) {
  // Readable after a failed first vorn_init too, so no readiness check:
  // the designed getter finds the warnings or says there are none yet.
  const int memory = CheckMemory(st);
  if (memory != VORN_OK) return memory;
  if (count == nullptr) return VORN_E_NULL;
  T_VornParam record = RecordCopyOf(st);
  record.buff_size = VORN_MIN_BUFF_SIZE;
  record.param_size = static_cast<int32_t>(sizeof(T_VornParam));
  const int32_t rc = VornGetConfigWarnings(&record, count, text);
  return rc == VORN_OK ? VORN_OK : VORN_E_NOT_READY;
}
