// The enhanced profile's beams: the same beam types as BfProc, steered at
// run time (the MVDR beam by the talker's transfer function learned from the
// room), in phase with microphone 0, blended towards it where the talker
// dominates, following the direction tracker without clicks, and falling back
// to the working microphones when one dies or clips.
#pragma once

#include <cstdint>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beam_kernels.h"
#include "adsp_bf/beam_learned.h"
#include "adsp_bf/mic_health.h"
#include "adsp_bf/steering.h"

namespace vorn {

// Blocking outputs of the adaptive beam: one per working microphone beyond
// the first.
constexpr int kGscOutputs = kBfChannels - 1;

struct BeamSlot {
  BeamDesign design;
  int32_t learned;  // 1: the weights come from the learned beam
  BeamWeights weights;
};

// How much of the reference's power, band by band, is the talker's (see
// beam_enhanced.cpp): the reference's and the beam's noise, learned in hops
// where the talker is silent, against their power in each hop.
struct TalkerShare {
  float noise_ref[kBlendBands];
  float noise_beam[kBlendBands];
  float share[kBlendBands];  // smoothed over hops, 0..1
  int32_t noise_frames;
};

// The adaptive beam's noise canceller (beam types 3 and 4).
struct GscState {
  float filter[kGscOutputs][kBfFftLen];  // 256-tap filters as packed 512-point spectra
  float ref_power[kBfNumBins];           // smoothed blocking-output power, the step normaliser
  float look_ratio_floor;                // fixed-beam over blocking power when nobody talks
  uint32_t live_mask;                    // the microphones the filters were adapted for
};

struct EnhancedBeamState {
  BeamSlot slot[2];  // the beam in use and, while re-steering, the one faded to
  int32_t active;    // slot in use; -1 before the first beam
  int32_t frames_since_steer;
  int32_t sector;            // beam types 5 and 6: the sector in use ...
  int32_t sector_candidate;  // ... and the one that has been loudest lately
  int32_t sector_votes;
  int32_t hops_since_learned;  // hops since the learned beam was last designed, up to two seconds
  int32_t far_end_quiet_hops;  // hops since the loudspeaker was last heard, up to a second
  TalkerShare share;
  LearnedBeam learned;
  GscState gsc;
  MicHealth health;
};

// What the front end asks of one hop.
struct BeamRequest {
  int32_t bf_flag;     // 0..7, the classic meanings
  int32_t bf_azimuth;  // degrees
  int32_t doa_flag;    // 1: follow the direction tracker
  float talker_presence;    // 0..1, the previous frame's near-talker presence
  float tracked_azimuth;    // degrees, the tracker's last direction ...
  float tracked_confidence; // ... and how sure it is (0..1)
  int32_t echo_follows;     // 1: the echo canceller works on the beam's output ...
  int32_t far_end_audible;  // ... and 1: the loudspeaker plays in this frame
};

// The tracker's direction is followed once it is at least this sure of it.
constexpr float kFollowConfidence = 0.5f;

void EnhancedBeamInit(EnhancedBeamState* st);

// One hop, after BfAnalyse: latest[m] holds microphone m's 256 new samples
// (the second half of its analysis buffer) and `spectrum` the microphones'
// unwindowed spectra; `out` receives 256 samples. Beam type 0 passes the
// first working microphone through undelayed; every other type delays by
// kBeamDelay samples.
void EnhancedBeamProc(EnhancedBeamState* st, const BeamRequest& rq, const float* const latest[kBfChannels],
                      float spectrum[kBfChannels][kBfFftLen], short* out);

// After EnhancedBeamProc: the microphone the beam is in phase with (the
// first working one), delayed as the beam delays the look direction, as 256
// samples: one microphone's view of the talker and the noise, in step with
// the beam's output (`latest` as for EnhancedBeamProc).
void EnhancedBeamReference(const EnhancedBeamState* st, int32_t bf_flag, const float* const latest[kBfChannels],
                           short* out);

// The microphone faults as the public VORN_WARN_MIC_DEAD / _CLIPPED bits.
uint32_t EnhancedBeamWarnings(const EnhancedBeamState* st);

// Leaves the microphones in `mask` out whatever their samples say (a device
// that knows one is broken); 0 lets the watch decide alone.
void EnhancedBeamExclude(EnhancedBeamState* st, uint32_t mask);

}  // namespace vorn
