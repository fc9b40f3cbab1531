// The enhanced profile's echo control, built around the classic canceller's
// linear filters.
//
// The classic instance keeps doing what it does well: the far-end spectrum
// rings and the two partitioned NLMS filters (aec_core.cpp). Around them this
// module puts
//   - a lead tracker (aec_delay_enhanced.cpp) that finds how far the
//     reference runs ahead of the microphones (0 to 280 ms) and places the
//     filters' 48 ms window on the echo, following jumps, and a lag probe
//     (aec_lag_probe_enhanced.cpp) that sets a jump's new placement to the
//     sample from the prediction of the response kept from before it;
//   - a residual echo suppressor (aec_residual_enhanced.cpp) that estimates
//     the echo left after the filters from the filters' own echo estimate,
//     tells the near talker from echo, removes the residue and fills what it
//     removes with noise at the near end's floor.
// Each 64-sample block reports what it saw, for the frame's echo picture.
#pragma once

#include <cstdint>

#include "adsp_aec/aec_core.h"

namespace vorn {

// ---- lead tracker ----------------------------------------------------------

constexpr int kLeadHistoryBlocks = 72;  // 288 ms of far-end features: a 250 ms lead plus the room
constexpr int kLeadBands = 16;          // two bins each, 500 Hz to 4.5 kHz
constexpr int kLeadMarginBlocks = 2;    // filter partitions kept ahead of the echo's main energy

struct AecLeadTracker {
  // Band-major, so that one band's products for every lag form one vector
  // loop; circular over blocks, column `newest` is the latest block.
  float far_feature[kLeadBands][kLeadHistoryBlocks];
  int newest;
  float far_mean[kLeadBands];   // running means of the log band powers
  float near_mean[kLeadBands];
  float corr[kLeadHistoryBlocks];        // smoothed far/near feature products per lag
  float far_energy[kLeadHistoryBlocks];  // smoothed far feature energy per lag
  float near_energy;
  int blocks_seen;
  int lag_blocks;         // the far-end lag the filters read at
  int locked;             // 1 once a lead has been found
  int candidate;          // lag of the correlation peak being confirmed
  int candidate_blocks;   // blocks it has stayed there
  float peak_corr;        // normalised correlation at the last peak
  int recentre_blocks;    // blocks the filter's peak has sat off its place
  int settled_offset;     // correlation peak minus lag while the filters cancelled; -1: none yet
  int lost_blocks;        // far-end blocks without a near talker the filters have cancelled poorly in, in a
                          // row; -1 until they have cancelled at the lag in force
};

// ---- residual echo suppressor ------------------------------------------------

// Echo-alone ERLE (dB) from which the filters count as modelling the echo.
constexpr float kModelledErleDb = 10.0f;

constexpr int kResidualFloorWindows = 8;   // noise floor: minimum over 8 sub-windows
constexpr int kResidualFloorWindowBlocks = 50;   // of 200 ms each

struct AecResidualState {
  float leak[kAecBins];         // residual echo power over the echo estimate's tail
  float echo_tail[kAecBins];    // echo estimate power with the room's decay behind it
  float far_leak[kAecBins];     // residual echo power over the aligned far end's tail
  float far_tail[kAecBins];     // aligned far-end power with the room's decay behind it
  float leak_num[kAecBins], leak_den[kAecBins];          // running least-squares fit of leak
  float far_leak_num[kAecBins], far_leak_den[kAecBins];  // and of far_leak
  float error_smooth[kAecBins]; // error power, lightly smoothed
  float noise_smooth[kAecBins]; // error power, smoothed for the floor tracker
  float noise_floor[kAecBins];  // the near end's noise floor in the error
  float noise_minima[kAecBins][kResidualFloorWindows];  // sub-window minima of noise_smooth
  float noise_current[kAecBins];                   // minimum of the sub-window under way
  int noise_slot;
  float distortion_num[kAecBins];  // distortion slope per bin: the unexplained error's covariance
  float distortion_den;            // with the far end's whole-band tail, over that tail's variance,
  float drive_mean;                // both about the tail's running mean
  float prior_ser[kAecBins];    // last block's near-end-to-residual ratio after suppression
  float sx[kAecBins], se[kAecBins], sd[kAecBins];  // smoothed auto spectra (coherence)
  float sxe[kAecBins][2], sxd[kAecBins][2];        // smoothed cross spectra
  float sy[kAecBins], sey[kAecBins][2];            // echo estimate: auto, and cross with the error
  float synth[kAecBlockLen];    // overlap-add tail of the output
  float far_floor;              // far-end block power floor (activity threshold)
  float linear_erle;            // near over error power while the far end talks (dB), smoothed
  float echo_only_erle;         // the same over blocks the level calls echo alone, from
  float echo_only_near, echo_only_error;  // these smoothed speech-band powers
  float far_level, near_level;  // speech-band powers over about 150 ms
  float echo_gain_db;           // near level over far level while only echo is heard
  int echo_gain_blocks;         // far-end blocks it has learnt from
  int blocks;
  uint32_t seed;                // comfort noise
};

// What one 64-sample block showed. Powers are mean squares on the 16-bit
// sample scale.
struct AecEnhancedBlock {
  float far_power;       // reference block
  float near_power;      // canceller input
  float echo_power;      // the filters' echo estimate
  float residual_power;  // residual echo left in the output after suppression, as estimated
  float error_residual_power;  // residual echo in the error before suppression, as estimated
  float output_power;
  float floor_power;     // the error's noise floor, as the residual suppressor tracks it
  float residual_bins[kAecBins];  // residual echo left per bin after suppression, as estimated
  float passed_bins[kAecBins];    // the error's power let through per bin (comfort noise aside), the same scale
  int far_active;        // the reference carries signal above its floor
  int echo_present;      // echo reaches the microphone above the noise floor
  int near_active;       // a near-end talker in the error beside the echo
  int near_by_level;     // the microphone louder than the far end's echo can make it
  int lag_blocks;        // far-end lag in force (4 ms blocks)
};

// ---- lag probe ----------------------------------------------------------------

constexpr int kLagProbeBlockReach = 4;  // whole blocks either side of the far end's placement
constexpr int kLagProbeReach = kLagProbeBlockReach * kAecBlockLen;  // the same in samples
constexpr int kLagProbeShifts = 2 * kLagProbeReach + 1;

// After a jump the envelope correlation knows the new lead only to a few
// blocks, and a jump need not be a whole number of blocks; the response
// kept from before the jump, which still holds the room, tells the exact
// one.
struct AecLagProbe {
  int blocks_left;  // of the probing window opened by a jump; 0: not probing
  int blocks;       // echo-alone blocks summed into error
  // The kept response's error (differenced) with the echo taken
  // kLagProbeReach - index samples later than placed.
  float error[kLagProbeShifts];
};

struct AecEnhanced {
  AecLeadTracker lead;
  AecResidualState residual;
  // The main filter as it last cancelled well, for a jump of the lead to
  // start from: by the time the jump is confirmed the filters have spent a
  // fraction of a second adapting to a far end the echo no longer follows.
  float settled_filter[2][kNormalNumPartitions * kAecBins];
  int settled;      // settled_filter holds a filter for the lag in force
  int settled_age;  // blocks since it was taken
  AecLagProbe probe;
  int applied_lag;  // the lag the filters' far history was last built for
  int near_hold;    // blocks the filters keep adapting slowly after a near talker was heard
  int near_run;     // consecutive blocks a near talker has been heard in, up to this one
};

void AecLeadTrackerInit(AecLeadTracker* lead);
// Adds one block's far and near windowed power spectra.
void AecLeadTrackerUpdate(AecLeadTracker* lead, const float* far_power, const float* near_power, int far_active);
enum class AecLeadChange {
  kNone,
  kFound,      // the first lead found; the filters moved with the window
  kJumped,     // the echo moved out of the filters' window; they must learn again
  kRecentred,  // window and filters moved together; nothing changes for the echo
};
// Decides the lag for the next block from the correlation and from how the
// filters do (their strongest partition as AecStrongestPartition gives it for
// the filters as they stand, the linear ERLE in dB, whether the far end
// talks); moves the filters with it where that keeps them valid.
// `near_talks`: the microphone shows a near talker, so poor cancellation may
// be double talk rather than a moved echo.
AecLeadChange AecLeadTrackerDecide(AecLeadTracker* lead, AecCore* core, int strongest_partition,
                                   float linear_erle_db, int far_active, int near_talks);
// The longest lag the far ring serves with the filters' whole span behind it.
int AecLeadMaxLag(const AecCore* core);
// Partition of the main filter holding the most energy.
int AecStrongestPartition(const AecCore* core);

void AecResidualInit(AecResidualState* res);
// Forgets what the suppressor learned about the echo path (after a jump of
// the lead): the residual is again assumed as loud as the echo.
void AecResidualRestart(AecResidualState* res);
// Suppresses the residual echo of the block the core has just filtered
// (dBuf, eBuf, xfwBuf), writes 64 output samples and fills the report's
// powers and decisions. near_power_spectrum receives the near end's windowed
// power per bin (for the lead tracker); coherence (130 values, may be null)
// the far/near and near/error coherence per bin.
void AecResidualProcess(AecResidualState* res, const AecCore* core, int echo_partition, float* out,
                        float* near_power_spectrum, float* coherence, AecEnhancedBlock* report);

// Opens a probing window after a jump of the lead.
void AecLagProbeStart(AecLagProbe* probe);
// Adds the block the core has just taken in (its near block, the far
// history read `lag` blocks behind the newest) to the probe, judged by the
// echo `response` (two planes of the core's partitions) predicts; returns
// how many samples later the echo arrives than the response places it, once
// that is clear, else 0.
int AecLagProbeUpdate(AecLagProbe* probe, const AecCore* core, const float* const response[2], int lag, int max_lag,
                      int echo_alone);
// Moves both filters' responses `samples` later (negative: earlier).
void AecShiftFilterSamples(AecCore* core, int samples);
// The same for one response of `partitions` partitions, given by its planes.
void AecShiftResponseSamples(float* re, float* im, int partitions, int samples);

void AecEnhancedInit(AecEnhanced* st);
// One block: 64 far-end and 64 near-end samples in, 64 output samples out
// (one block later, as the classic outputs). `aec_instance` is the classic
// instance, initialised. coherence as for AecResidualProcess.
// Returns the far-end feed's result (nonzero: nothing was processed).
int32_t AecEnhancedProcess(void* aec_instance, AecEnhanced* st, const float* near, const float* far, float* out,
                           float* coherence, AecEnhancedBlock* report);

}  // namespace vorn
