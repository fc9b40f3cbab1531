// The modern interface's typed setters and getters. A setter judges its
// value before it stores anything; what it stores takes effect on the next
// frame, as a change to the designed record between frames does.
#include <cstring>

#include "vorn/vorn_api_state.h"
#include "vorn/vorn_param.h"

using namespace vorn;

namespace {

bool ValidMode(int32_t mode) { return mode >= 0 && mode < VORN_MODE_COUNT; }

// The common prologue of a getter: a ready state and somewhere to write.
int CheckGet(const VornState* st, const void* value) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  return value == nullptr ? VORN_E_NULL : VORN_OK;
}

}  // namespace

extern "C" int vorn_set_mode(VornState* st, int32_t mode) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (!ValidMode(mode)) return VORN_E_BAD_MODE;
  st->pm.vorn_mode = mode;
  return VORN_OK;
}

extern "C" int vorn_get_mode(const VornState* st, int32_t* mode) {
  const int rc = CheckGet(st, mode);
  if (rc == VORN_OK) *mode = st->pm.vorn_mode;
  return rc;
}

extern "C" int vorn_set_switches(VornState* st, int32_t mode, const VornSwitches* switches) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (switches == nullptr) return VORN_E_NULL;
  if (!ValidMode(mode)) return VORN_E_BAD_MODE;
  const int rc = CheckSwitches(*switches);
  if (rc != VORN_OK) return rc;
  StoreSwitches(*switches, &st->pm.in_argv[mode]);
  return VORN_OK;
}

extern "C" int vorn_get_switches(const VornState* st, int32_t mode, VornSwitches* switches) {
  const int rc = CheckGet(st, switches);
  if (rc != VORN_OK) return rc;
  if (!ValidMode(mode)) return VORN_E_BAD_MODE;
  *switches = SwitchesOf(st->pm.in_argv[mode]);
  return VORN_OK;
}

extern "C" int vorn_set_profile(VornState* st, int32_t profile) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  T_VornParam* pm = RecordOf(st);
  return FromDesignedCode(VornSetProfile(pm, profile), *pm);
}

extern "C" int vorn_get_profile(const VornState* st, int32_t* profile) {
  const int rc = CheckGet(st, profile);
  if (rc != VORN_OK) return rc;
  const T_VornParam pm = RecordCopyOf(st);
  const int32_t got = VornGetProfile(&pm);
  if (got < 0) return VORN_E_NOT_READY;
  *profile = got;
  return VORN_OK;
}

extern "C" int vorn_set_mic_order(VornState* st, const int16_t mic_order[3]) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (mic_order == nullptr) return VORN_E_NULL;
  if (!MicOrderValid(mic_order)) return VORN_E_BAD_MIC_ORDER;
  std::memcpy(st->mic_order, mic_order, sizeof st->mic_order);
  return VORN_OK;
}

extern "C" int vorn_get_mic_order(const VornState* st, int16_t mic_order[3]) {
  const int rc = CheckGet(st, mic_order);
  if (rc == VORN_OK) std::memcpy(mic_order, st->mic_order, sizeof st->mic_order);
  return rc;
}

extern "C" int vorn_set_doa_update(VornState* st, int32_t doa_update) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (doa_update != 0 && doa_update != 1) return VORN_E_BAD_DOA_UPDATE;
  st->pm.doa_update_flag = doa_update;
  return VORN_OK;
}

extern "C" int vorn_get_doa_update(const VornState* st, int32_t* doa_update) {
  const int rc = CheckGet(st, doa_update);
  if (rc == VORN_OK) *doa_update = st->pm.doa_update_flag;
  return rc;
}

extern "C" int vorn_set_agc_target(VornState* st, float target_dbfs) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  T_VornParam* pm = RecordOf(st);
  return FromDesignedCode(VornSetAgcTarget(pm, target_dbfs), *pm);
}

extern "C" int vorn_get_agc_target(const VornState* st, float* target_dbfs) {
  const int rc = CheckGet(st, target_dbfs);
  if (rc != VORN_OK) return rc;
  const T_VornParam pm = RecordCopyOf(st);
  return FromDesignedCode(VornGetAgcTarget(&pm, target_dbfs), pm);
}
