// The enhanced profile's speech flag: the flag network's judgement of the
// frame leaving the suppressor, against the thresholds designed with it. The
// flag and the audio it labels arrive together.
#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"

namespace vorn {
namespace {

constexpr float kTalkerBesideEchoBar = 0.05f;

}  // namespace

void EnhancedVadInit(EnhancedVadState* st) { *st = EnhancedVadState{}; }

int EnhancedVadDecide(EnhancedVadState* st, float output_prob, bool echo_alone, bool talker_beside_echo) {
  // A talker already flagged keeps the flag at a lower presence than one
  // must reach to raise it, and raising it takes two frames above the onset
  // or one well above it: a lone frame of noise that looks a little like
  // speech does not start a flag. Where the canceller hears echo alone the
  // flag never rises, and a flag already up stays only above the echo bar.
  // Where the canceller itself hears a talker beside the echo, the presence
  // (which discounts everything the echo could explain, and a talker under
  // loud music with it) need only show some speech.
  // (A talker heard beside the echo never comes with echo alone.)
  const bool above_onset = !echo_alone && output_prob > kFlagOnsetThreshold;
  if (talker_beside_echo)
    st->speaking = output_prob > kTalkerBesideEchoBar ? 1 : 0;
  else if (st->speaking != 0)
    st->speaking = output_prob > (echo_alone ? kFlagEchoThreshold : kFlagThreshold) ? 1 : 0;
  else
    st->speaking = above_onset && (st->primed != 0 || output_prob > kFlagSureThreshold) ? 1 : 0;
  st->primed = above_onset ? 1 : 0;
  return st->speaking;
}

}  // namespace vorn
