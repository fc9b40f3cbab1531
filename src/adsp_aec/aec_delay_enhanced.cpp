// Lead tracker: how far the reference runs ahead of the echo it causes.
//
// A loudspeaker behind a sound server or a Bluetooth link plays the
// reference tens to hundreds of milliseconds after the caller hands it over,
// and the lead can jump when the link re-buffers. The classic filters span
// 48 ms, so the far end must be delayed to put that window on the echo.
//
// Each 4 ms block reduces the far and near spectra to 16 log band powers
// (500 Hz to 4.5 kHz) with their running means removed; far blocks without
// signal carry no information and count as zeros. The correlation of the
// near features with the far features of every lag up to 288 ms is smoothed
// over about 0.4 s and normalised per lag; its peak is where the echo's
// envelope follows the reference. Log envelopes are level-free and, across
// 16 bands, distinct enough that a talker's syllable rhythm does not alias
// one lag into another.
//
// The peak decides the lag only when it is clear (normalised correlation
// above 0.3, a little above any other lag more than three blocks away), has
// held for 200 ms, and lies outside the filters' window, and either no lead
// has been found yet or the filters have stopped cancelling (a jump) while
// the held lag's correlation fell 0.2 below the peak's and the microphone's
// level shows no near talker: double talk also spoils cancellation and blurs
// the correlation, but does not move the echo. A jump of a few blocks moves
// the peak less than the correlation is wide, so the held lag keeps most of
// it; for a peak within eight blocks of the held lag, 200 ms of lost
// cancellation with the far end playing and no talker heard (after the
// filters had cancelled at that lag) stands for that fall; the lag probe
// then sets the new placement to the sample. An echo inside the window is
// the filters' to follow. Once they have converged their strongest
// partition shows where the echo really sits; when it stays off its place
// (two partitions from the start, so that the rest of the 48 ms covers the
// room's tail) the lag and the filters move together, which changes
// nothing the filters have learned.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "adsp_aec/aec_enhanced.h"

namespace vorn {
namespace {

constexpr int kFirstBin = 4;
constexpr float kLogFloor = 100.0f;        // far below any audible band power on the 16-bit scale
constexpr float kMeanRate = 1.0f / 128.0f; // running means over about 0.5 s
constexpr float kCorrKeep = 0.985f;        // correlation memory, about 0.27 s
constexpr int kWarmupBlocks = 50;
constexpr float kMinPeak = 0.3f;
constexpr float kMinContrast = 0.03f;      // above any lag more than kPeakSpreadBlocks away
constexpr int kPeakSpreadBlocks = 3;
constexpr int kConfirmBlocks = 50;         // 200 ms
constexpr float kLostErleDb = 8.0f;        // below this the filters no longer match the echo
constexpr float kJumpMargin = 0.2f;        // new peak over the held lag's correlation
constexpr int kLostConfirmBlocks = 50;     // 200 ms of far end lost without a talker
constexpr int kSlideBlocks = 2 * kLagProbeBlockReach;  // how far from the held lag a loss alone moves it
constexpr float kConvergedErleDb = 15.0f;
constexpr int kRecentreBlocks = 125;       // 0.5 s off place before moving

void BandFeatures(const float* power, float* feature) {
  for (int b = 0; b < kLeadBands; ++b) {
    const int k = kFirstBin + 2 * b;
    feature[b] = std::log(power[k] + power[k + 1] + kLogFloor);
  }
}

// Moves both filters by `delta` partitions towards their start (negative:
// towards their end): partition p takes what partition p + delta held.
void ShiftFilters(AecCore* core, int delta) {
  const int n = core->num_partitions;
  for (float (*filter)[kFilterPlaneLen] : {core->wfBuf, core->wfBuf_main}) {
    for (int plane = 0; plane < 2; ++plane) {
      float shifted[kFilterPlaneLen] = {};
      for (int p = 0; p < n; ++p) {
        const int from = p + delta;
        if (from >= 0 && from < n)
          std::memcpy(&shifted[p * kAecBins], &filter[plane][from * kAecBins], sizeof(float) * kAecBins);
      }
      std::memcpy(filter[plane], shifted, sizeof(float) * n * kAecBins);
    }
  }
}

}  // namespace

int AecLeadMaxLag(const AecCore* core) {
  // The far ring must still hold the filters' whole span behind the lag.
  const int by_ring = static_cast<int>(core->far_buf.element_count) - core->num_partitions - 2;
  return std::min(kLeadHistoryBlocks - 1, by_ring);
}

void AecLeadTrackerInit(AecLeadTracker* lead) {
  std::memset(lead, 0, sizeof(*lead));
  lead->candidate = -1;
  lead->settled_offset = -1;
  lead->lost_blocks = -1;
}

void AecLeadTrackerUpdate(AecLeadTracker* lead, const float* far_power, const float* near_power, int far_active) {
  float far[kLeadBands], near[kLeadBands];
  BandFeatures(far_power, far);
  BandFeatures(near_power, near);
  if (lead->blocks_seen == 0) std::memcpy(lead->near_mean, near, sizeof(near));
  lead->newest = (lead->newest + 1) % kLeadHistoryBlocks;
  const int col = lead->newest;
  if (far_active) {
    if (lead->locked == 0 && lead->far_mean[0] == 0.0f) std::memcpy(lead->far_mean, far, sizeof(far));
    for (int b = 0; b < kLeadBands; ++b) {
      lead->far_mean[b] += kMeanRate * (far[b] - lead->far_mean[b]);
      lead->far_feature[b][col] = far[b] - lead->far_mean[b];
    }
  } else {
    for (int b = 0; b < kLeadBands; ++b) lead->far_feature[b][col] = 0.0f;
  }
  float near_centred[kLeadBands];
  float near_energy = 0.0f;
  for (int b = 0; b < kLeadBands; ++b) {
    lead->near_mean[b] += kMeanRate * (near[b] - lead->near_mean[b]);
    near_centred[b] = near[b] - lead->near_mean[b];
    near_energy += near_centred[b] * near_centred[b];
  }
  lead->near_energy = kCorrKeep * lead->near_energy + near_energy;
  // Products and energies per stored block, each summed over the bands in
  // order; the block stored `lag` blocks before the newest serves that lag.
  float product[kLeadHistoryBlocks] = {}, energy[kLeadHistoryBlocks] = {};
  for (int b = 0; b < kLeadBands; ++b) {
    const float* x = lead->far_feature[b];
    const float n = near_centred[b];
    for (int c = 0; c < kLeadHistoryBlocks; ++c) {
      product[c] += x[c] * n;
      energy[c] += x[c] * x[c];
    }
  }
  for (int lag = 0; lag < kLeadHistoryBlocks; ++lag) {
    const int c = (col - lag + kLeadHistoryBlocks) % kLeadHistoryBlocks;
    lead->corr[lag] = kCorrKeep * lead->corr[lag] + product[c];
    lead->far_energy[lag] = kCorrKeep * lead->far_energy[lag] + energy[c];
  }
  lead->blocks_seen += 1;
}

int AecStrongestPartition(const AecCore* core) {
  float best = -1.0f;
  int index = 0;
  for (int p = 0; p < core->num_partitions; ++p) {
    const int pos = p * kAecBins;
    const auto energy = static_cast<float>(SquareSum(&core->wfBuf_main[0][pos], kAecBins) +
                                           SquareSum(&core->wfBuf_main[1][pos], kAecBins));
    if (energy > best) {
      best = energy;
      index = p;
    }
  }
  return index;
}

AecLeadChange AecLeadTrackerDecide(AecLeadTracker* lead, AecCore* core, int strongest_partition,
                                   float linear_erle_db, int far_active, int near_talks) {
  if (lead->blocks_seen < kWarmupBlocks) return AecLeadChange::kNone;
  float best = -2.0f;
  int best_lag = 0;
  float normalised[kLeadHistoryBlocks];
  for (int lag = 0; lag < kLeadHistoryBlocks; ++lag) {
    normalised[lag] = lead->corr[lag] / (std::sqrt(lead->far_energy[lag] * lead->near_energy) + 1e-6f);
    if (normalised[lag] > best) {
      best = normalised[lag];
      best_lag = lag;
    }
  }
  float second = -2.0f;
  for (int lag = 0; lag < kLeadHistoryBlocks; ++lag)
    if (std::abs(lag - best_lag) > kPeakSpreadBlocks) second = std::max(second, normalised[lag]);
  lead->peak_corr = best;
  if (std::abs(best_lag - lead->candidate) <= 1) {
    lead->candidate_blocks += 1;
  } else {
    lead->candidate = best_lag;
    lead->candidate_blocks = 1;
  }

  const int old_lag = lead->lag_blocks;
  const bool clear = lead->candidate_blocks >= kConfirmBlocks && best >= kMinPeak && best - second >= kMinContrast;
  // An echo inside the filters' window is theirs to follow (and the window
  // is recentred once they have it); one outside needs the lag moved.
  const bool outside = best_lag < lead->lag_blocks || best_lag > lead->lag_blocks + core->num_partitions - 3;
  // A jump must also show in the correlation: the lag the filters hold has
  // lost what the new one gained. Double talk blurs both alike.
  const int held = std::clamp(lead->lag_blocks + kLeadMarginBlocks, 0, kLeadHistoryBlocks - 1);
  // A small jump moves the peak less than the envelopes' correlation is
  // wide, so the held lag keeps much of it. For a peak near the held lag the
  // filters' loss stands for its move instead: held for 200 ms of far end
  // with no talker heard, after they had cancelled at the lag in force (not
  // while they still learn the room). A talker under the echo spoils the
  // cancellation as long, but leaves no clear peak a few blocks off.
  if (linear_erle_db > kConvergedErleDb) lead->lost_blocks = 0;
  if (lead->lost_blocks >= 0 && far_active && !near_talks)
    lead->lost_blocks = linear_erle_db < kLostErleDb ? lead->lost_blocks + 1 : 0;
  const bool slid = lead->lost_blocks >= kLostConfirmBlocks && std::abs(best_lag - held) <= kSlideBlocks;
  const bool moved = lead->locked == 0 || best > normalised[held] + kJumpMargin || slid;
  const bool lost = lead->locked == 0 || (far_active && !near_talks && linear_erle_db < kLostErleDb && moved);
  if (clear && lost && outside) {
    // A jump moves the echo and its correlation peak alike: the far end
    // moves by as much, keeping the filters where they were on the echo.
    // The envelope's peak need not sit where the filters' main tap does.
    const int offset = lead->locked != 0 && lead->settled_offset >= 0 ? lead->settled_offset : kLeadMarginBlocks;
    lead->lag_blocks = std::clamp(best_lag - offset, 0, AecLeadMaxLag(core));
    lead->recentre_blocks = 0;
    lead->lost_blocks = -1;
    // The first lead found moves the window over an echo that stayed where
    // it was: what the filters learned so far moves with it. After a jump
    // the echo itself has moved, and the filters' shape goes with it.
    if (lead->locked == 0) {
      ShiftFilters(core, lead->lag_blocks - old_lag);
      lead->locked = 1;
      return AecLeadChange::kFound;
    }
    return AecLeadChange::kJumped;
  }
  if (clear && lead->locked == 0) lead->locked = 1;

  // Converged: keep the echo's main energy two partitions into the filter.
  if (lead->locked != 0 && far_active && linear_erle_db > kConvergedErleDb) {
    if (clear) lead->settled_offset = std::max(best_lag - lead->lag_blocks, 0);
    const int delta = std::clamp(strongest_partition - kLeadMarginBlocks, -lead->lag_blocks, AecLeadMaxLag(core) - lead->lag_blocks);
    lead->recentre_blocks = delta != 0 ? lead->recentre_blocks + 1 : 0;
    if (lead->recentre_blocks >= kRecentreBlocks) {
      ShiftFilters(core, delta);
      lead->lag_blocks += delta;
      lead->recentre_blocks = 0;
      return AecLeadChange::kRecentred;
    }
  }
  return AecLeadChange::kNone;
}

}  // namespace vorn
