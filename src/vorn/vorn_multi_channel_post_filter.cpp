// Frame driver of the multi-channel post filter: two 128-sample hops over
// the beamformer's three beams.
#include "vorn/vorn_multi_channel_post_filter.h"

#include <cstring>

#include "adsp_ns/adsp_ns_mcpf.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_state.h"

namespace vorn {

void VornMultiChannelPostFilter(T_VornParam* pm, short* out) {
  TVornState* st = VornStateOf(pm);
  short beams[3][256];
  VornGetMbfTimeSignalFromBf(&st->bf_pm, beams);

  int first = 0;
  VornMcpfProc(st->ns_pm, beams, out, &first);
  for (auto& beam : beams) std::memmove(beam, beam + 128, sizeof(short) * 128);
  int second = 0;
  VornMcpfProc(st->ns_pm, beams, out + 128, &second);
  pm->vad_flag = first != 0 ? 1 : second;
}

}  // namespace vorn
