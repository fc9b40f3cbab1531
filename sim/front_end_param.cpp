#include "sim/front_end_param.h"

#include "vorn/vorn_param.h"

namespace vorn::sim {

T_VornParam ParamOver(unsigned char* state) {
  T_VornParam pm{};
  pm.p_data = state;
  pm.buff_size = kVornMinBuffSize;
  pm.param_size = sizeof(T_VornParam);
  return pm;
}

T_VornParam ParamKeeping(unsigned char* state, const Switches& switches, int doa_update_flag) {
  T_VornParam pm = ParamOver(state);
  pm.vorn_mode = -1;
  CopySwitches(switches, &pm);
  pm.doa_update_flag = doa_update_flag;
  return pm;
}

}  // namespace vorn::sim
