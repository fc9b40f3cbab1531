// Operating modes and the parameter check.
//
// Every entry point starts by copying the selected mode's switches into the
// active fields and validating the record, so a caller switches modes
// between frames just by writing vorn_mode. Codes are shared between related
// checks on purpose (6 for both DOA switches, 9 for both azimuth rules):
// callers already depend on them.
#include "vorn/vorn_param.h"

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

void ApplyKey(const T_VornKey& key, T_VornParam* pm) {
  pm->agc_flag = key.agc_flag;
  pm->bf_flag = key.bf_flag;
  pm->doa_flag = key.doa_flag;
  pm->aec_flag = key.aec_flag;
  pm->ns_flag = key.ns_flag;
  pm->bf_azimuth = key.bf_azimuth;
  pm->vad_mode = key.vad_mode;
}

int32_t SwitchMode(T_VornParam* pm) {
  if (pm->vorn_mode < 0 || pm->vorn_mode >= kVornModeCount) return -1;
  ApplyKey(pm->in_argv[pm->vorn_mode], pm);
  return 0;
}

int32_t VornParamCheck(const T_VornParam* pm) {
  if (pm == nullptr || pm->p_data == nullptr) return 1;
  // The size is judged twice, as unsigned against the bare record and as
  // signed against the real minimum; a negative size fails the second.
  if (static_cast<uint32_t>(pm->buff_size) <= static_cast<uint32_t>(kVornStateSize - 1)) return 2;
  if (pm->buff_size <= kVornMinBuffSize - 1) return 2;
  if (pm->param_size != kVornParamSize) return 3;
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

}  // namespace vorn
