/* Compiled as C: the public headers must stay usable from C callers. */
#include "vorn_array.h"
#include "vorn_proc.h"

int vorn_c_header_check(void) {
  T_VornParam pm;
  pm.param_size = (int32_t)sizeof pm;
  return pm.param_size == 1680 && VornGetBuffSize() > 0 && VORN_MIC_AZIMUTH_DEG(VORN_MICS - 1) == 240 &&
         VORN_ARRAY_RADIUS_M > 0.0 && VORN_SAMPLE_RATE_HZ / VORN_SPEED_OF_SOUND_M_S > 0.0;
}
