// The enhanced profile's per-frame direction tracker: its record (kept in
// the enhanced region of the caller's buffer) and its entry points.
#pragma once

#include <cstddef>

#include "adsp_bf/doa_gcc.h"

namespace vorn {

// Evidence waiting for the speech presence, and its bin weight.
struct DoaWaiting {
  GccLags lags;
  float weight;
};

struct TDoaTrackerEnhanced {
  float recent_power[kGccBins];  // smoothed band power of the last hops
  GccNoise noise;                // the noise under it
  GccNoiseCross noise_cross;     // and its pair cross-spectra
  GccCovariance coherence;       // the microphones' smoothed spectra, for each pair's direct share
  // Talker evidence as pair correlations, pooled over about a second of
  // speech (the reported direction), over a fifth of a second (to notice a
  // talker who moves) and since the caller last asked for it (VornDoa).
  GccLags slow;
  GccLags fast;
  GccLags since_asked;
  // Onsets heard in the last few hops that the speech presence has not yet
  // vouched for: it is judged over a longer window than an onset lasts, so
  // the first onsets of a word would otherwise go uncounted.
  DoaWaiting waiting;
  float slow_weight, fast_weight, since_asked_weight;  // the bin weights each pool holds
  float far_hold;                                      // the far end's activity, held over its echo in the room
  int far_tail_hops;                                   // hops left to hold it
  float move_votes;                                    // evidence that the fast pool points elsewhere
  int moving_hops;                                     // evidence hops of short memory left after a restart
  float aside_votes;                                   // evidence that the fast pool keeps to one side of the slow
  float aside_sign;                                    // which side: +1 ahead round the circle, -1 behind
  int aside_hops;                                      // evidence hops left in which that may restart the slow
  float azimuth_deg, elevation_deg, confidence;
  float reported_confidence;  // of the azimuth last written by VornProc or VornDoa
  int hops;                   // hops analysed, saturating
  int has_direction;          // 1 once any talker evidence has been pooled
};
static_assert(sizeof(TDoaTrackerEnhanced) <= 17408, "the direction tracker's budget is 17 KB");

// What the rest of the frame knows about this hop.
struct DoaHopCues {
  float presence;          // 0..1: the near talker speaks
  float far_activity;      // 0..1: the loudspeaker plays the far end
  bool reference_audible;  // the reference carries more than -60 dBFS
  bool update_allowed;     // the caller lets the direction move this hop
};

struct DoaTrack {
  float azimuth_deg;  // [0, 360)
  float confidence;   // 0..1
  bool found;         // false until any talker evidence has been seen
};

void DoaTrackerInit(TDoaTrackerEnhanced* t);

// One hop: `spectra` are the unwindowed 512-point spectra of the three
// microphone rows over the last 512 samples.
DoaTrack DoaTrackerHop(TDoaTrackerEnhanced* t, const float spectra[kBfChannels][kBfFftLen], const DoaHopCues& cues);

// The direction of all talker evidence pooled since the previous call (or
// since init), refined finely; clears that pool. Not found when nothing was
// pooled.
DoaTrack DoaTrackerPooled(TDoaTrackerEnhanced* t);

// Direction of a stretch of interleaved three-microphone samples, searched
// over its whole length (the noise floor first, then the weighted
// evidence); memory does not grow with the stretch. `order` gives
// the interleaved slot of microphone rows 0, 1, 2. Not found when the
// stretch is shorter than one 512-sample frame.
DoaTrack DoaUtteranceEnhanced(const short* inp, const short order[kBfChannels], int samples_per_channel);

}  // namespace vorn
