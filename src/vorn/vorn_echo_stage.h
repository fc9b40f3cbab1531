// The enhanced profile's echo stage: the canceller's enhanced path over one
// frame, and the echo picture it hands the later stages.
#pragma once

#include <cstdint>

#include "adsp_aec/aec_enhanced.h"
#include "vorn/vorn_enhanced_frame.h"
#include "vorn/vorn_state.h"

namespace vorn {

// Miswiring check: the reference's correlation with each raw microphone at
// lag 0, smoothed over about a second.
struct ReferenceCheck {
  float cross[3];
  float mic_energy[3];
  float ref_energy;
};

// The reference kept long enough to be delayed by any lead the canceller
// follows (up to 71 blocks of 64 samples) plus a frame: twenty frames.
constexpr int kReferenceRing = 5120;

struct EchoStageState {
  AecEnhanced canceller;
  ReferenceCheck reference_check;
  float erl_db;        // over blocks of echo alone; kNoEchoReturnLossDb until then
  float erl_far, erl_near;  // reference and microphone power summed over those blocks, with forgetting
  int frames_since_echo;  // frames since echo last reached the microphones
  float last_near_activity;  // the previous frame's picture's
  EchoPicture picture; // the last frame's, for the getters
  float post_filter_history[512];  // the cancelled signal the enhanced post filter analyses
  short reference_ring[kReferenceRing];  // the reference's recent samples (circular)
  int reference_at;                      // where the next frame's samples go
};

// Reported as the echo return loss while no echo has been measured.
constexpr float kNoEchoReturnLossDb = 99.0f;

void EchoStageInit(EchoStageState* echo);

// Runs the frame's echo control (fr.beam and fr.aec_ref in; fr.echo_out,
// fr.vad_in, fr.subcoh, fr.aligned_ref and fr.echo out). Returns a nonzero canceller result
// at once, as the classic frame does.
int32_t RunEchoStage(const T_VornParam* pm, TVornState* st, EnhancedFrame& fr);

// Gain caps per bin for each 128-sample half of the frame, for a post
// filter that cannot tell the echo's residue from the talker: while echo is
// present and the canceller hears a near talker in at most one of the
// frame's four blocks, a bin keeps no more than the talker's presence in its
// band (fr.ns_hops) allows, down to a floor. In double talk the post filter
// is left alone: the residual suppressor has already judged the echo there.
// Returns false (caps unset) when the frame needs none.
bool EchoGainCaps(const EnhancedFrame& fr, float caps[2][kNsBins]);

// The echo stage's record inside the enhanced region.
EchoStageState* EchoStageOf(TVornState* st);

}  // namespace vorn
