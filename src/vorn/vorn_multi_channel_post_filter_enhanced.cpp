// The multi-channel post filter of the enhanced profile.
//
// The three beams come straight from the beamformer, ahead of the echo
// canceller, and carry the loudspeaker's echo. The classic frame filters the
// beam itself, so the echo reaches the output. Here the beams still decide
// the gains (where the talker's direction stands above the others), but the
// gains are applied to the echo-cancelled signal, analysed with the same
// window and hop: a gain below one can only take away, never bring echo
// back. The cancelled signal trails the beams by the canceller's 64
// samples, a twentieth of the gains' 512-sample window.
//
// The beams cannot tell the talker from the echo's residue when the
// loudspeaker sits close to the talker's direction: both stand above the
// other beams. The caller may cap the gains per bin with what the echo
// picture knows.
#include <algorithm>
#include <cstring>

#include "adsp_ns/adsp_ns_mcpf.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"
#include "vorn/vorn_data_exchange.h"
#include "vorn/vorn_multi_channel_post_filter.h"
#include "vorn/vorn_state.h"

namespace vorn {

void VornMultiChannelPostFilterOnCancelled(T_VornParam* pm, const short* cancelled, float* history,
                                           const float (*gain_cap)[kNsBins], short* out) {
  TVornState* st = VornStateOf(pm);
  short beams[3][256];
  VornGetMbfTimeSignalFromBf(&st->bf_pm, beams);
  short input[256];
  std::memcpy(input, cancelled, sizeof input);
  int votes[2] = {};
  for (int half = 0; half < 2; ++half) {
    float spectrum[kNsFftLen];
    float gain[kNsBins];
    VornMcpfGains(st->ns_pm, beams, spectrum, gain, &votes[half]);
    if (gain_cap != nullptr)
      for (int k = 0; k < kNsBins; ++k) gain[k] = std::min(gain[k], gain_cap[half][k]);
    SaveFrameMoveAu(history, input + half * kNsHop, kNsFftLen, kNsHop);
    AddWin(history, hanmming_win, kNsFftLen, spectrum);
    fft_rel(spectrum, kNsFftLen, kNsFftOrder);
    VornMcpfSynthesis(st->ns_pm, spectrum, gain, out + half * kNsHop);
    for (auto& beam : beams) std::memmove(beam, beam + kNsHop, sizeof(short) * kNsHop);
  }
  pm->vad_flag = votes[0] != 0 ? 1 : votes[1];
}

}  // namespace vorn
