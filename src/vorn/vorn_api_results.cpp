// What the modern interface reports beyond a frame's audio: the figures the
// enhanced profile keeps about the last frame, and the configuration's
// warnings. Each figure goes through the designed interface's getter.
#include <cstddef>

#include "vorn/vorn_api_state.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"

using namespace vorn;

namespace {

// A figure the designed interface has a getter for, through that getter.
int DesignedFigure(const VornState* st, int32_t (*getter)(const T_VornParam*, float*), float* value) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (value == nullptr) return VORN_E_NULL;
  const T_VornParam record = RecordCopyOf(st);
  const int32_t rc = getter(&record, value);
  return rc == VORN_OK ? VORN_OK : FromDesignedCode(rc, record);
}

}  // namespace

extern "C" int vorn_get_speech_probability(const VornState* st, float* value) {
  const int rc = DesignedFigure(st, VornGetSpeechProbability, value);
  // The classic profile keeps no probability; its flag is the best it knows.
  if (rc != VORN_OK) return rc;
  const T_VornParam record = RecordCopyOf(st);
  if (VornGetProfile(&record) != VORN_PROFILE_ENHANCED) *value = record.vad_flag != 0 ? 1.0f : 0.0f;
  return rc;
}

extern "C" int vorn_get_direction_confidence(const VornState* st, float* value) {
  return DesignedFigure(st, VornGetDoaConfidence, value);
}

extern "C" int vorn_get_echo_activity(const VornState* st, float* value) {
  return DesignedFigure(st, VornGetFarEndActivity, value);
}

extern "C" int vorn_get_mic_warnings(const VornState* st, uint32_t* warnings) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (warnings == nullptr) return VORN_E_NULL;
  const T_VornParam record = RecordCopyOf(st);
  const int32_t rc = VornGetWarnings(&record, warnings);
  return rc == VORN_OK ? VORN_OK : FromDesignedCode(rc, record);
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
