// Preparing an instance.
//
// Everything that can be refused is judged before the buffer is cleared: the
// configuration is read into a scratch area on the stack, the mode and the
// switches are checked, and only then is the old state replaced. A refused
// call therefore leaves a working instance working. The configuration's
// warnings are the exception: they describe this call, so they are stored
// even when it fails (a missing vad_mode key is easier to find with the
// line that misspelt it).
#include "vorn/vorn_init.h"

#include <cstring>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "adsp_agc/level_control.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_frame_steps.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_proc_enhanced.h"

namespace vorn {
namespace {

// Where this buffer's housekeeping is: in its record when VornInit prepared
// it, else where the record will be.
TVornHousekeeping* HousekeepingFor(const T_VornParam* pm) {
  TVornState* st = LocateState(pm);
  return HousekeepingOf(st != nullptr ? st : VornStateOf(pm));
}

void StoreWarnings(TVornHousekeeping* hk, const ConfWarnings& warnings) {
  hk->warnings_magic = kWarningsMagic;
  std::memcpy(&hk->warnings, &warnings, sizeof warnings);
}

// Reads the configuration into pm->in_argv. Returns 0, or -1 (unreadable,
// or a [VORN] value refused).
int32_t ReadConfiguration(T_VornParam* pm, const ConfSource& source, FrontEndConf* front_end,
                          ConfWarnings* warnings) {
  // The buffer must be there, and large enough past its aligned start to
  // lend the reader its scratch area, as if it were lent; the reader works
  // on the stack so that the state stays untouched until all is checked.
  if (pm->p_data == nullptr) return -1;
  const long scratch_len =
      static_cast<long>(pm->buff_size) - (reinterpret_cast<unsigned char*>(VornStateOf(pm)) - pm->p_data);
  alignas(ini_read_t) char scratch[sizeof(ini_read_t)];
  if (scratch_len <= 0 || LoadConfFileInit(scratch, static_cast<int>(scratch_len)) != 0) return -1;
  const int32_t rc = LoadConf(source, scratch, front_end, warnings);
  if (rc == -1) return -1;
  // The file's records replace every mode's switches, as it has always been.
  std::memcpy(pm->in_argv, reinterpret_cast<const ini_read_t*>(scratch)->tKey, sizeof(pm->in_argv));
  return rc == 0 ? 0 : -1;
}

int32_t PrepareModules(T_VornParam* pm, TVornState* st) {
  FillBfParam(pm, st);
  st->bf_pm.inner_interface_flag = 1;
  for (int i = 0; i < 3; ++i) {
    FillNsParam(&st->ns_pm[i], st->ns_buff[i]);
    const int rc = AdspNsInit(&st->ns_pm[i]);
    if (rc != 0) return rc;
  }
  FillNsParam(&st->ns_vad_pm, st->ns_vad_buff);
  SetNsLevel(&st->ns_vad_pm, 1.0f);
  const int ns_rc = AdspNsInit(&st->ns_vad_pm);
  if (ns_rc != 0) return ns_rc;

  if (DigitalAgc_Init(st->agc_buff, kRegionAgcBuffSize, kSampleRate) != 0) return VORN_ERR_MODULE_INIT;
  // The canceller is always prepared, with mode 0's filter file, so that a
  // later mode may switch it on mid-stream.
  if (AdspAec_Init(AecInstanceOf(st), kRegionAecBuffSize, kSampleRate, kSampleRate, pm->aec_flag,
                   pm->in_argv[0].preaec_filter_path) != 0)
    return VORN_ERR_MODULE_INIT;
  return BFInit(&st->bf_pm);
}

}  // namespace

int32_t InitFrontEnd(T_VornParam* pm, const InitOptions& options) {
  AssetCheck();
  if (pm == nullptr) return VORN_ERR_NULL;
  if (options.builtin_modes) ConfigDefault(pm, kVornModeCount);

  FrontEndConf front_end;
  ConfWarnings warnings{};
  if (options.config != nullptr) {
    const int32_t rc = ReadConfiguration(pm, *options.config, &front_end, &warnings);
    if (rc != 0) {
      if (VornCheckRecord(pm) == VORN_OK) StoreWarnings(HousekeepingFor(pm), warnings);
      return rc;
    }
  }
  const bool mode_known = VornModeKnown(pm->vorn_mode);
  if (options.mode_switches != nullptr && mode_known) {
    if (pm->vorn_mode == VORN_MODE_CUSTOM) {
      ApplyKey(*options.mode_switches, pm);
    } else {
      CopySwitches(*options.mode_switches, &pm->in_argv[pm->vorn_mode]);
    }
  }

  int32_t check = VornCheckRecord(pm);
  if (check == VORN_OK && !mode_known) check = VORN_ERR_BAD_MODE;
  if (check == VORN_OK) {
    SwitchMode(pm);
    check = VornParamCheck(pm);
  }
  if (check != VORN_OK) {
    if (options.config != nullptr && VornCheckRecord(pm) == VORN_OK) StoreWarnings(HousekeepingFor(pm), warnings);
    return check;
  }

  if (options.keep_warnings) {
    TVornState* old = LocateState(pm);
    if (old != nullptr && HousekeepingOf(old)->warnings_magic == kWarningsMagic) {
      warnings = HousekeepingOf(old)->warnings;
    }
  }
  const int32_t profile = options.forced_profile != kConfProfileAbsent ? options.forced_profile
                          : front_end.profile != kConfProfileAbsent  ? front_end.profile
                                                                     : options.default_profile;

  std::memset(pm->p_data, 0, static_cast<size_t>(pm->buff_size));
  TVornState* st = VornStateOf(pm);
  const int32_t rc = PrepareModules(pm, st);
  if (rc != 0) return rc;

  TVornHousekeeping* hk = HousekeepingOf(st);
  hk->canceller = {pm->aec_flag, 0, 0};
  StoreWarnings(hk, warnings);
  // Every enhanced module is prepared whatever the profile, so that the
  // profile may change at any frame boundary.
  TVornEnhancedState* enhanced = EnhancedStateOf(st);
  VornInitEnhanced(pm, st);
  // The configuration's level target, or the one a restart keeps.
  if (options.agc_target_dbfs != nullptr) {
    LevelSetTarget(&enhanced->modules.level, *options.agc_target_dbfs);
  } else if (front_end.agc_target_given) {
    LevelSetTarget(&enhanced->modules.level, front_end.agc_target_dbfs);
  }
  enhanced->profile = profile;
  enhanced->magic = kEnhancedMagic;
  MarkPrepared(pm, st);
  return VORN_OK;
}

}  // namespace vorn

extern "C" int32_t VornInit(T_VornParam* pm, const char* config_file) {
  const vorn::ConfSource source{config_file, nullptr};
  vorn::InitOptions options;
  options.config = config_file != nullptr ? &source : nullptr;
  return vorn::InitFrontEnd(pm, options);
}
