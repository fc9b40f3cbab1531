// The enhanced profile's speech flag: the flag network's judgement of the
// frame leaving the suppressor, against the thresholds designed with it. The
// flag and the audio it labels arrive together.
#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"

namespace vorn {
namespace {

constexpr int kFramesMax = 1 << 30;
constexpr float kTalkerBesideEchoBar = 0.05f;

}  // namespace

void EnhancedVadInit(EnhancedVadState* st) { *st = EnhancedVadState{}; }

int EnhancedVadDecide(EnhancedVadState* st, float output_prob, bool echo_alone, bool talker_beside_echo) {
  if (st->frames < kFramesMax) ++st->frames;
  // A talker already flagged keeps the flag at a lower presence than one
  // must reach to raise it: a lone frame of noise that looks a little like
  // speech does not start a flag. Where the canceller hears echo alone the
  // flag never rises, and a flag already up stays only above the echo bar.
  // Where the canceller itself hears a talker beside the echo, the presence
  // (which discounts everything the echo could explain, and a talker under
  // loud music with it) need only show some speech.
  const float bar = talker_beside_echo ? kTalkerBesideEchoBar
                    : echo_alone       ? (st->speaking != 0 ? kFlagEchoThreshold : 2.0f)
                    : st->speaking != 0 ? kFlagThreshold
                                        : kFlagOnsetThreshold;
  st->speaking = output_prob > bar ? 1 : 0;
  return st->speaking;
}

}  // namespace vorn
