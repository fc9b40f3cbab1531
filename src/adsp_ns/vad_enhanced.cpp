// The enhanced profile's speech flag: the flag network's judgement of the
// frame leaving the suppressor, against the threshold designed with it. The
// flag and the audio it labels arrive together.
#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"

namespace vorn {
namespace {

constexpr int kFramesMax = 1 << 30;

}  // namespace

void EnhancedVadInit(EnhancedVadState* st) { *st = EnhancedVadState{}; }

int EnhancedVadDecide(EnhancedVadState* st, float output_prob) {
  if (st->frames < kFramesMax) ++st->frames;
  return output_prob > kFlagThreshold ? 1 : 0;
}

}  // namespace vorn
