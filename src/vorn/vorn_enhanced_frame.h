// What the enhanced profile's stages learn about one frame and hand on.
//
// The stages run in this order: beam, echo, speech presence, suppression,
// speech detection, level, direction. A stage reads what earlier stages of
// the same frame wrote here; a stage that runs before the figure it needs
// (the beam, before the speech presence) reads the previous frame's, which
// the enhanced state keeps.
#pragma once

#include <cstdint>

#include "adsp_ns/ns_enhanced.h"
#include "vorn/vorn_frame_steps.h"

namespace vorn {

// The echo canceller's view of the frame. Powers are mean squares on the
// 16-bit sample scale.
struct EchoPicture {
  bool reference_active;  // the loudspeaker reference carries signal this frame
  float far_activity;     // 0..1: how much of the frame the far end talks
  bool double_talk;       // near talker and far end at once
  float erl_db;           // echo return loss: reference over echo at the microphone
  bool echo_present;            // echo reaches the microphones (or the room still rings with it)
  bool echo_only;               // echo present, above the noise, and no near talker heard beside it
  float near_activity;          // 0..1: share of the frame with a near talker heard beside the echo
  float near_activity_held;     // the same over this frame and the one before (the speech flag's frame)
  float echo_power;             // echo at the microphone, as the canceller's filters estimate it
  float residual_echo_power;    // echo left in echo_out, as estimated
  float band_echo_left[kPresenceBands];  // per presence band: that residual over the error the canceller let through
  float lead_ms;                // how far the reference runs ahead of its echo
  bool reference_is_microphone; // the reference carries a microphone's own signal (miswired)
};

// Whether, and how much, the near talker speaks (echo and noise excluded),
// all 0..1 unless said otherwise.
struct SpeechPresence {
  float frame_prob;   // the frame just captured (the mean of its two hops)
  float output_prob;  // the frame leaving in `out`, 384 samples older: what the speech flag says
  float band_prob[kPresenceBands];  // per band of the frame just captured (edges: kBandEdges)
  float snr_db;       // the talker's excess over the noise in 62 Hz..4 kHz, dB, frame just captured
  float echo;         // how much of the frame the far end's echo explains
};

// Where the talker is, as the direction stage last found it.
struct TalkerDirection {
  float azimuth_deg;  // 0..360, the array's own convention
  float confidence;   // 0..1; 0 until a direction has been found
};

struct EnhancedFrame {
  const short* inp;
  const short* aec_ref;
  bool reference_loud;  // aec_ref is given and above -60 dBFS: a far end the room could echo
  const short* mic_order;
  short beam[kFrameLen];      // the beamformer's output
  // The microphone the beam is in phase with, in step with the beam: what
  // the talker's presence is judged on, as the single-microphone chain
  // judges it (a beam's residual noise is coloured and varies with its
  // blend, and passes for speech more often than one microphone's).
  short reference_mic[kFrameLen];
  short echo_out[kFrameLen];  // after the canceller (the beam when it is off)
  short vad_in[kFrameLen];    // the canceller's communication output, for aec_flag 3
  short aligned_ref[kFrameLen];  // the reference delayed by the lead the canceller follows: in step with its echo
  short clean[kFrameLen];     // after the suppressor
  short out[kFrameLen];       // after the level control
  float subcoh[kCohLen];      // the canceller's sub-band coherence of the last block
  NsHopAnalysis ns_hops[2];   // the two hops' spectra and presence, from presence to suppression
  // The hop's unwindowed 512-point spectra of the three microphone rows (the
  // last 512 samples of each), for the direction stage; filled by the beam
  // stage when direction tracking is on.
  float mic_spectra[kBfChannels][kBfFftLen];
  bool mic_spectra_ready;
  EchoPicture echo;
  SpeechPresence presence;
  TalkerDirection direction;
  int32_t rtn;  // the code the frame returns, as in the classic frame
};

}  // namespace vorn
