// The modern interface: an opaque state, settings judged before anything is
// touched, named codes. It holds the designed parameter record and state
// buffer inside its state and drives the same entry points the designed
// interface offers, so both run the same processing.
#include <cstring>

#include "vorn/vorn_api_state.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_init.h"
#include "vorn/vorn_param.h"

using namespace vorn;

namespace {

bool ValidMode(int32_t mode) { return mode >= 0 && mode < VORN_MODE_COUNT; }

// The settings alone, before any memory is looked at.
int CheckSettings(const VornSettings& s) {
  if (!ValidMode(s.mode)) return VORN_E_BAD_MODE;
  if (s.profile != VORN_PROFILE_AUTO && s.profile != VORN_PROFILE_CLASSIC && s.profile != VORN_PROFILE_ENHANCED)
    return VORN_E_BAD_PROFILE;
  if (s.switches != nullptr) {
    const int rc = CheckSwitches(*s.switches);
    if (rc != VORN_OK) return rc;
  }
  if (s.doa_update != 0 && s.doa_update != 1) return VORN_E_BAD_DOA_UPDATE;
  if (!MicOrderValid(s.mic_order)) return VORN_E_BAD_MIC_ORDER;
  if (s.config_text != nullptr && s.config_file != nullptr) return VORN_E_CONFIG;
  return VORN_OK;
}

int32_t ProfileOf(const VornState* st) {
  const T_VornParam pm = RecordCopyOf(st);
  return VornGetProfile(&pm);
}

}  // namespace

extern "C" const char* vorn_version(void) { return VornGetVersion(); }

extern "C" size_t vorn_state_size(void) { return sizeof(VornState); }

extern "C" void vorn_settings_default(VornSettings* settings) {
  if (settings == nullptr) return;
  *settings = VornSettings{};
  settings->mode = VORN_MODE_WAKEUP;
  settings->profile = VORN_PROFILE_AUTO;
  settings->doa_update = 1;
  settings->mic_order[0] = 0;
  settings->mic_order[1] = 1;
  settings->mic_order[2] = 2;
}

extern "C" int vorn_init(VornState* st, size_t size, const VornSettings* settings) {
  const int memory = CheckMemory(st);
  if (memory != VORN_OK) return memory;
  if (size < sizeof(VornState)) return VORN_E_SIZE;
  VornSettings defaults;
  vorn_settings_default(&defaults);
  const VornSettings& s = settings != nullptr ? *settings : defaults;
  const int check = CheckSettings(s);
  if (check != VORN_OK) return check;

  // A fresh record over this state's buffer; the state's own record is
  // replaced only once the init has succeeded.
  T_VornParam pm{};
  pm.p_data = st->buffer;
  pm.buff_size = VORN_MIN_BUFF_SIZE;
  pm.param_size = kVornParamSize;
  pm.vorn_mode = s.mode;
  pm.doa_update_flag = s.doa_update;
  T_VornKey key{};
  if (s.switches != nullptr) StoreSwitches(*s.switches, &key);
  const ConfSource source{s.config_file, s.config_text};
  InitOptions options;
  options.config = s.config_file != nullptr || s.config_text != nullptr ? &source : nullptr;
  options.mode_switches = s.switches != nullptr ? &key : nullptr;
  options.default_profile = VORN_PROFILE_ENHANCED;
  options.forced_profile = s.profile == VORN_PROFILE_AUTO ? kConfProfileAbsent : s.profile;
  const int32_t rc = InitFrontEnd(&pm, options);
  if (rc != VORN_OK) {
    // A module that failed after the buffer was cleared leaves nothing to go on with.
    if (FindRecord(st->buffer) == nullptr) st->magic = 0;
    return FromDesignedCode(rc, pm);
  }
  st->pm = pm;
  std::memcpy(st->mic_order, s.mic_order, sizeof st->mic_order);
  st->magic = kApiMagic;
  return VORN_OK;
}

extern "C" int vorn_process(VornState* st, const int16_t* mics, const int16_t* reference, int16_t* out,
                            VornResult* result) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (mics == nullptr || out == nullptr) return VORN_E_NULL;
  T_VornParam* pm = RecordOf(st);
  if (reference == nullptr && pm->in_argv[pm->vorn_mode].aec_flag >= 1) return VORN_E_NO_REFERENCE;
  const int32_t rc = VornProc(pm, mics, reference, out, st->mic_order);
  if (rc != VORN_OK) return FromDesignedCode(rc, *pm);
  if (result != nullptr) {
    result->speech = pm->vad_flag;
    result->azimuth_deg = pm->azimuth;
    vorn_get_speech_probability(st, &result->speech_probability);
    vorn_get_direction_confidence(st, &result->direction_confidence);
    vorn_get_echo_activity(st, &result->echo_activity);
  }
  return VORN_OK;
}

extern "C" int vorn_reset(VornState* st) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  T_VornParam pm = RecordCopyOf(st);
  InitOptions options;
  options.builtin_modes = false;
  options.forced_profile = ProfileOf(st);
  options.keep_warnings = true;
  // The level target came from the configuration, which is not read again.
  float level_target = VORN_AGC_TARGET_DEFAULT_DBFS;
  if (VornGetAgcTarget(&pm, &level_target) == VORN_OK) options.agc_target_dbfs = &level_target;
  const int32_t rc = InitFrontEnd(&pm, options);
  if (rc != VORN_OK) {
    if (FindRecord(st->buffer) == nullptr) st->magic = 0;
    return FromDesignedCode(rc, pm);
  }
  st->pm = pm;
  return VORN_OK;
}

extern "C" int vorn_direction(VornState* st, const int16_t* mics, int32_t samples_per_channel, int32_t search,
                              int32_t* azimuth_deg) {
  const int ready = CheckReady(st);
  if (ready != VORN_OK) return ready;
  if (mics == nullptr || azimuth_deg == nullptr) return VORN_E_NULL;
  if (search < VORN_SEARCH_FRAMES || search > VORN_SEARCH_SAMPLES_WEIGHTED) return VORN_E_BAD_SEARCH;
  if (samples_per_channel < 0) return VORN_E_BAD_LENGTH;
  // The search runs on a copy of the record with the mode's switches in
  // force, so the frames' own switches and azimuth stay as they are.
  RecordOf(st);
  T_VornParam pm = st->pm;
  SwitchMode(&pm);
  pm.doa_flag = search;
  const int32_t rc = VornDoa(&pm, mics, st->mic_order, samples_per_channel);
  if (rc != VORN_OK) return FromDesignedCode(rc, pm);
  *azimuth_deg = pm.azimuth;
  return VORN_OK;
}
