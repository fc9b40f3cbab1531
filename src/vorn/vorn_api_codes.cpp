// The modern interface's codes: their text, and the translation from the
// designed interface's codes that the shared processing returns.
#include "vorn/vorn_api_state.h"
#include "vorn/vorn_code_text.h"
#include "vorn/vorn_param.h"

namespace vorn {
namespace {

constexpr CodeText kCodeTexts[] = {
    {VORN_OK, "success"},
    {VORN_E_NULL, "a required pointer argument is NULL"},
    {VORN_E_SIZE, "the memory is smaller than vorn_state_size()"},
    {VORN_E_NOT_READY, "the state has not been initialised by vorn_init"},
    {VORN_E_BAD_MODE, "the mode is not VORN_MODE_WAKEUP, VORN_MODE_ASR or VORN_MODE_COMM"},
    {VORN_E_BAD_PROFILE, "the profile is not VORN_PROFILE_CLASSIC or VORN_PROFILE_ENHANCED"},
    {VORN_E_BAD_AGC, "the AGC switch is not 0, 1 or 2"},
    {VORN_E_BAD_BEAM, "the beam switch is not 0..7"},
    {VORN_E_BAD_DOA, "the direction-finding switch is not 0..3"},
    {VORN_E_BAD_AEC, "the echo-canceller switch is not 0..3"},
    {VORN_E_BAD_NS, "the noise-suppression switch is not 0, 1 or 2"},
    {VORN_E_BAD_AZIMUTH, "the steering azimuth is not 0..359, or not 0, 60 or 300 with beam 3 or 4"},
    {VORN_E_BAD_VAD_MODE, "the speech-detector mode is not 1 or 2"},
    {VORN_E_BAD_DOA_UPDATE, "doa_update is not 0 or 1"},
    {VORN_E_BAD_MIC_ORDER, "the microphone order does not name slots 0, 1 and 2 once each"},
    {VORN_E_BAD_LENGTH, "the number of samples is negative"},
    {VORN_E_BAD_SEARCH, "the direction search is not a VORN_SEARCH_ value"},
    {VORN_E_NO_REFERENCE, "the echo canceller is on but no loudspeaker reference was given"},
    {VORN_E_NO_FRAMES, "no frame has been processed yet to take a direction from"},
    {VORN_E_CONFIG, "the configuration cannot be read, names no known profile, or was given both as text and as "
                    "a file"},
    {VORN_E_ALLOC, "the state could not be allocated"},
    {VORN_E_INTERNAL, "a processing module failed inside the library"},
    {VORN_E_MISALIGNED, "the state's memory is not aligned to VORN_STATE_ALIGN bytes"},
    {VORN_E_OUT_OF_RANGE, "a setting outside its documented range"},
};

}  // namespace

int CheckMemory(const VornState* st) {
  if (st == nullptr) return VORN_E_NULL;
  return reinterpret_cast<std::uintptr_t>(st) % VORN_STATE_ALIGN == 0 ? VORN_OK : VORN_E_MISALIGNED;
}

int CheckReady(const VornState* st) {
  const int memory = CheckMemory(st);
  if (memory != VORN_OK) return memory;
  return st->magic == kApiMagic ? VORN_OK : VORN_E_NOT_READY;
}

int FromDesignedCode(int32_t code, const T_VornParam& pm) {
  switch (code) {
    case VORN_OK: return VORN_OK;
    case VORN_ERR_NULL: return VORN_E_NULL;
    case VORN_ERR_AGC_FLAG: return VORN_E_BAD_AGC;
    case VORN_ERR_AEC_FLAG: return VORN_E_BAD_AEC;
    case VORN_ERR_DOA_FLAG: return pm.doa_update_flag != 0 && pm.doa_update_flag != 1 ? VORN_E_BAD_DOA_UPDATE
                                                                                      : VORN_E_BAD_DOA;
    case VORN_ERR_NS_FLAG: return VORN_E_BAD_NS;
    case VORN_ERR_BF_FLAG: return VORN_E_BAD_BEAM;
    case VORN_ERR_AZIMUTH: return VORN_E_BAD_AZIMUTH;
    case VORN_ERR_VAD_MODE: return VORN_E_BAD_VAD_MODE;
    case VORN_ERR_NOT_INITIALISED: return VORN_E_NOT_READY;
    case VORN_ERR_BAD_PROFILE: return VORN_E_BAD_PROFILE;
    case VORN_ERR_BAD_MODE: return VORN_E_BAD_MODE;
    case VORN_ERR_BAD_MIC_ORDER: return VORN_E_BAD_MIC_ORDER;
    case VORN_ERR_BAD_LENGTH: return VORN_E_BAD_LENGTH;
    case VORN_ERR_NO_SEARCH: return VORN_E_BAD_SEARCH;
    case VORN_ERR_CONFIG: return VORN_E_CONFIG;
    case VORN_ERR_NO_FRAMES: return VORN_E_NO_FRAMES;
    case VORN_ERR_OUT_OF_RANGE: return VORN_E_OUT_OF_RANGE;
    default: return VORN_E_INTERNAL;  // the record's own checks (2, 3) and the modules' codes
  }
}

VornSwitches SwitchesOf(const T_VornKey& key) {
  return {key.agc_flag, key.bf_flag, key.doa_flag, key.aec_flag, key.ns_flag, key.bf_azimuth, key.vad_mode};
}

void StoreSwitches(const VornSwitches& switches, T_VornKey* key) {
  key->agc_flag = switches.agc;
  key->bf_flag = switches.beam;
  key->doa_flag = switches.doa;
  key->aec_flag = switches.aec;
  key->ns_flag = switches.ns;
  key->bf_azimuth = switches.azimuth_deg;
  key->vad_mode = switches.vad_mode;
}

int CheckSwitches(const VornSwitches& switches) {
  // The designed check over a record that holds these switches and is
  // otherwise sound.
  unsigned char probe = 0;
  T_VornParam pm{};
  pm.p_data = &probe;
  pm.buff_size = VORN_MIN_BUFF_SIZE;
  pm.param_size = kVornParamSize;
  T_VornKey key{};
  StoreSwitches(switches, &key);
  ApplyKey(key, &pm);
  return FromDesignedCode(VornParamCheck(&pm), pm);
}

}  // namespace vorn

extern "C" const char* vorn_error_string(int code) {
  return vorn::TextOfCode(vorn::kCodeTexts, code, "not a code of this interface");
}
