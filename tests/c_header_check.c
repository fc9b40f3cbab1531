/* Compiled as C89, C99 and C11 (and as C++), with every warning an error:
 * the public headers must stay usable from any C caller, together, and lay
 * their records out as the library does. HEADER_CHECK names this copy's
 * function; the test compares what each copy saw with the C++ view. */
#include "vorn.h"
#include "vorn_array.h"
#include "vorn_proc.h"

#include <stddef.h>

#include "c_header_check.h"

void HEADER_CHECK(struct HeaderLayout* layout) {
  T_VornParam pm;
  VornSettings settings;
  VornResult result;
  pm.param_size = (int32_t)sizeof pm;
  settings.mode = VORN_MODE_COMM;
  result.speech = 0;
  layout->param_size = pm.param_size;
  layout->param_in_argv = (long)offsetof(T_VornParam, in_argv);
  layout->key_size = (long)sizeof(T_VornKey);
  layout->switches_size = (long)sizeof(VornSwitches);
  layout->settings_size = (long)sizeof settings;
  layout->settings_config_file = (long)offsetof(VornSettings, config_file);
  layout->result_size = (long)sizeof result;
  layout->frame_values = VORN_MIC_FRAME_VALUES + settings.mode - VORN_MODE_COMM + result.speech;
  layout->min_buff_size = VORN_MIN_BUFF_SIZE;
  layout->state_size_max = VORN_STATE_SIZE_MAX;
  layout->last_mic_azimuth = VORN_MIC_AZIMUTH_DEG(VORN_MICS - 1);
  layout->radius_millisamples = (long)(VORN_SAMPLE_RATE_HZ / VORN_SPEED_OF_SOUND_M_S * VORN_ARRAY_RADIUS_M * 1000.0);
}
