/* Compiled as C: the public header must stay usable from C callers. */
#include "vorn_proc.h"

int vorn_c_header_check(void) {
  T_VornParam pm;
  pm.param_size = (int32_t)sizeof pm;
  return pm.param_size == 1680 && VornGetBuffSize() > 0;
}
