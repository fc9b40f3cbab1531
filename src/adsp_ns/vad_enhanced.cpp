// The enhanced profile's speech flag.
//
// It describes the frame leaving the suppressor, which lags the frame just
// analysed by 384 samples (1.5 frames): the flag and the audio it labels
// arrive together. Three hop analyses are centred on that output frame: the
// previous frame's first hop on its start, the previous frame's second hop on
// its middle, this frame's first hop on its end; their weighted mean is the
// frame's presence. A short hold bridges one frame dipping inside a syllable
// after a confident run; it is kept short because the gaps between syllables
// are only a few frames long.
#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"

namespace vorn {
namespace {

constexpr float kHoldThreshold = 0.8f;  // a frame this sure arms the hold
constexpr int kHoldFrames = 1;
constexpr int kFramesMax = 1 << 30;

}  // namespace

void EnhancedVadInit(EnhancedVadState* st) { *st = EnhancedVadState{}; }

float EnhancedOutputPresence(const EnhancedVadState& st, const NsHopAnalysis hops[2]) {
  return 0.25f * st.last_hop_prob[0] + 0.5f * st.last_hop_prob[1] + 0.25f * hops[0].prob;
}

int EnhancedVadDecide(EnhancedVadState* st, const NsHopAnalysis hops[2], float output_prob) {
  if (st->frames < kFramesMax) ++st->frames;
  st->last_hop_prob[0] = hops[0].prob;
  st->last_hop_prob[1] = hops[1].prob;
  int flag = 0;
  if (output_prob > kPresenceNet.flag_threshold) {
    flag = 1;
    st->hangover = output_prob > kHoldThreshold ? kHoldFrames : 0;
  } else if (st->hangover > 0) {
    --st->hangover;
    flag = 1;
  }
  return flag;
}

}  // namespace vorn
