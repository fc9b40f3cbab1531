// Operating modes and the parameter check.
//
// Every entry point starts by copying the selected mode's switches into the
// active fields and validating the record, so a caller switches modes
// between frames just by writing vorn_mode. Codes are shared between related
// checks on purpose (6 for both DOA switches, 9 for both azimuth rules):
// callers already depend on them. Everything a call could trip over is
// judged here, before any state is touched, so a refused call changes
// nothing and an accepted one cannot fail half-way for a reason the caller
// could have been told.
#include "vorn/vorn_param.h"

#include "vorn/vorn_state.h"

namespace vorn {
namespace {

struct ModeDefaults {
  int32_t agc_flag, bf_flag, doa_flag, aec_flag, ns_flag, bf_azimuth, vad_mode;
};

constexpr ModeDefaults kModeDefaults[kVornModeCount] = {
    {1, 0, 0, 0, 1, 0, 1},  // wake-up
    {2, 0, 0, 0, 1, 0, 2},  // speech recognition
    {2, 0, 0, 0, 1, 0, 2},  // communication
};

bool InRange(int32_t v, int32_t lo, int32_t hi) { return v >= lo && v <= hi; }

}  // namespace

void AssetCheck() {}

void ConfigDefault(T_VornParam* pm, int mode_num) {
  for (int mode = 0; mode < mode_num && mode < kVornModeCount; ++mode) {
    const ModeDefaults& d = kModeDefaults[mode];
    T_VornKey& key = pm->in_argv[mode];
    key.agc_flag = d.agc_flag;
    key.bf_flag = d.bf_flag;
    key.doa_flag = d.doa_flag;
    key.aec_flag = d.aec_flag;
    key.ns_flag = d.ns_flag;
    key.bf_azimuth = d.bf_azimuth;
    key.vad_mode = d.vad_mode;
  }
}

// The active fields of the record and a key's switches share their names.
template <typename Record>
void CopySwitchFields(const T_VornKey& from, Record* to) {
  to->agc_flag = from.agc_flag;
  to->bf_flag = from.bf_flag;
  to->doa_flag = from.doa_flag;
  to->aec_flag = from.aec_flag;
  to->ns_flag = from.ns_flag;
  to->bf_azimuth = from.bf_azimuth;
  to->vad_mode = from.vad_mode;
}

void ApplyKey(const T_VornKey& key, T_VornParam* pm) { CopySwitchFields(key, pm); }

void CopySwitches(const T_VornKey& from, T_VornKey* to) { CopySwitchFields(from, to); }

int32_t SwitchMode(T_VornParam* pm) {
  if (pm->vorn_mode < 0 || pm->vorn_mode >= kVornModeCount) return -1;
  ApplyKey(pm->in_argv[pm->vorn_mode], pm);
  return 0;
}

int32_t VornCheckRecord(const T_VornParam* pm) {
  if (pm == nullptr || pm->p_data == nullptr) return VORN_ERR_NULL;
  // The size is judged twice, as unsigned against the bare record and as
  // signed against the real minimum; a negative size fails the second.
  if (static_cast<uint32_t>(pm->buff_size) <= static_cast<uint32_t>(kVornStateSize - 1)) return VORN_ERR_BUFF_SIZE;
  if (pm->buff_size <= kVornMinBuffSize - 1) return VORN_ERR_BUFF_SIZE;
  if (pm->param_size != kVornParamSize) return VORN_ERR_PARAM_SIZE;
  return VORN_OK;
}

int32_t VornParamCheck(const T_VornParam* pm) {
  const int32_t record = VornCheckRecord(pm);
  if (record != VORN_OK) return record;
  if (!InRange(pm->agc_flag, 0, 2)) return 4;
  if (!InRange(pm->aec_flag, 0, 3)) return 5;
  if (!InRange(pm->doa_flag, 0, 3)) return 6;
  if (!InRange(pm->ns_flag, 0, 2)) return 7;
  if (!InRange(pm->bf_flag, 0, 7)) return 8;
  if (!InRange(pm->bf_azimuth, 0, 359)) return 9;
  // The three-sector beams only exist for these steering angles.
  if ((pm->bf_flag == 3 || pm->bf_flag == 4) && pm->bf_azimuth != 0 && pm->bf_azimuth != 60 &&
      pm->bf_azimuth != 300)
    return 9;
  if (pm->vad_mode != 1 && pm->vad_mode != 2) return 10;
  if (pm->doa_update_flag != 0 && pm->doa_update_flag != 1) return 6;
  return 0;
}

bool VornModeKnown(int32_t mode) { return mode == VORN_MODE_CUSTOM || (mode >= 0 && mode < kVornModeCount); }

bool MicOrderValid(const short* order) {
  bool seen[3] = {false, false, false};
  for (int i = 0; i < 3; ++i) {
    if (order[i] < 0 || order[i] > 2 || seen[order[i]]) return false;
    seen[order[i]] = true;
  }
  return true;
}

int32_t VornCheckFrameCall(T_VornParam* pm, const short* inp, const short* aec_ref, const short* out,
                           const short* mic_order) {
  if (pm == nullptr) return VORN_ERR_NULL;
  // A mode the record does not have would leave stale switches in force.
  if (VornCheckRecord(pm) == VORN_OK && !VornModeKnown(pm->vorn_mode)) return VORN_ERR_BAD_MODE;
  SwitchMode(pm);
  const int32_t check = VornParamCheck(pm);
  if (check != VORN_OK) return check;
  if (inp == nullptr || out == nullptr || mic_order == nullptr) return VORN_ERR_NULL;
  if (pm->aec_flag >= 1 && aec_ref == nullptr) return VORN_ERR_NULL;
  if (!MicOrderValid(mic_order)) return VORN_ERR_BAD_MIC_ORDER;
  return VORN_OK;
}

int32_t VornCheckDoaCall(const T_VornParam* pm, const short* inp, const short* mic_order, int samples_per_channel) {
  const int32_t check = VornParamCheck(pm);
  if (check != VORN_OK) return check;
  if (samples_per_channel < 0) return VORN_ERR_BAD_LENGTH;
  const bool searches_samples = pm->doa_flag == 2 || pm->doa_flag == 3;
  if (pm->doa_flag == 0) return VORN_ERR_NO_SEARCH;
  // The per-frame search reads no samples but, as designed, still wants them.
  if (inp == nullptr || (!searches_samples && mic_order == nullptr)) return VORN_ERR_NULL;
  if (mic_order != nullptr && !MicOrderValid(mic_order)) return VORN_ERR_BAD_MIC_ORDER;
  return VORN_OK;
}

}  // namespace vorn
