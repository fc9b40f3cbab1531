// The enhanced profile's speech flag: the flag network's judgement of the
// frame leaving the suppressor, against the thresholds designed with it. The
// flag and the audio it labels arrive together.
#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"

namespace vorn {
namespace {

constexpr float kTalkerBesideEchoBar = 0.05f;

// The presence learns how loud the loudspeaker comes back from the hops it
// plays over; until the canceller's lead has held for 2.5 s of play, its
// echo prediction may still be misaligned or too low (at a start, or after
// the lead jumps), and a presence that looks like a talker over echo alone
// is more likely echo it has not learnt yet.
constexpr int kEchoSettledFrames = 156;

}  // namespace

// A talker over the far end whom the canceller does not hear beside the
// echo (most double talk: its detector is cautious) still shows in the
// presence, which discounts the echo it predicts. 0.9 for two frames in a
// row flags most of such a talker while echo alone, once settled, stays
// under it: on the bench, far single talk reaching it on two frames in a row
// is a fraction of a percent of the frames.
const float kFlagRiseOverEchoThreshold = 0.8f;

void EnhancedVadInit(EnhancedVadState* st) { *st = EnhancedVadState{}; }

bool EnhancedVadEchoSettled(EnhancedVadState* st, float lead_ms, bool reference_active) {
  if (lead_ms != st->echo_lead_ms) {
    st->echo_lead_ms = lead_ms;
    st->echo_settled_frames = 0;
  } else if (reference_active && st->echo_settled_frames < kEchoSettledFrames) {
    ++st->echo_settled_frames;
  }
  return st->echo_settled_frames >= kEchoSettledFrames;
}

int EnhancedVadDecide(EnhancedVadState* st, float output_prob, const FlagEchoCues& echo) {
  // A talker already flagged keeps the flag at a lower presence than one
  // must reach to raise it, and raising it takes two frames above the onset
  // or one well above it: a lone frame of noise that looks a little like
  // speech does not start a flag. Where the canceller hears echo alone the
  // flag rises only on two frames in a row well above the echo's onset bar,
  // and a flag already up stays only above the echo bar. Where the
  // canceller itself hears a talker beside the echo, the presence (which
  // discounts everything the echo could explain, and a talker under loud
  // music with it) need only show some speech.
  // (A talker heard beside the echo never comes with echo alone.)
  const bool above_onset = echo.echo_alone ? echo.echo_settled && output_prob > kFlagRiseOverEchoThreshold
                                           : output_prob > kFlagOnsetThreshold;
  if (echo.talker_beside_echo)
    st->speaking = output_prob > kTalkerBesideEchoBar ? 1 : 0;
  else if (st->speaking != 0)
    st->speaking = output_prob > (echo.echo_alone ? kFlagEchoThreshold : kFlagThreshold) ? 1 : 0;
  else
    st->speaking = above_onset && (st->primed != 0 || output_prob > kFlagSureThreshold) ? 1 : 0;
  st->primed = above_onset ? 1 : 0;
  return st->speaking;
}

}  // namespace vorn
