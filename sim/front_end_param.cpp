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

T_VornParam ParamKeeping(unsigned char* state, const FrontEndSwitches& switches, int doa_update_flag) {
  T_VornParam pm = ParamOver(state);
  pm.vorn_mode = -1;
  pm.agc_flag = switches.agc;
  pm.bf_flag = switches.bf;
  pm.doa_flag = switches.doa;
  pm.aec_flag = switches.aec;
  pm.ns_flag = switches.ns;
  pm.bf_azimuth = switches.azimuth;
  pm.vad_mode = switches.vad_mode;
  pm.doa_update_flag = doa_update_flag;
  return pm;
}

}  // namespace vorn::sim
