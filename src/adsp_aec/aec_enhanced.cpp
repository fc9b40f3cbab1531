// Block driver of the enhanced echo control.
//
// Per 64-sample block: the far end goes into the classic instance's rings as
// usual; the far read position is then set so that the filters see the far
// end `lag` blocks late, the lag the lead tracker chose; the classic linear
// step runs both filters, without feeding the classic delay estimator (the
// lead tracker places the far end instead; after a switch back to the
// classic profile the estimator works from a history that misses the
// enhanced blocks until its half second has turned over); the residual
// suppressor replaces the classic coherence suppression; and the lead
// tracker learns from the block's far and near spectra. When the lag
// changes, the filters' far history is rebuilt from the rings at the new
// lag, and the main filter as it last cancelled well is put back in both
// filters, so a filter that matched the room before a jump of the lead
// matches it again at once; the lag probe (aec_lag_probe_enhanced.cpp) then
// corrects the new placement to the sample.
#include "adsp_aec/aec_enhanced.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "adsp_aec/echo_cancellation.h"

namespace vorn {
namespace {

using Spectrum = float[2][kAecBins];

constexpr float kDoubleTalkStep = 0.1f;
constexpr int kDoubleTalkHoldBlocks = 25;  // 100 ms after the talker was last heard
constexpr int kHoldPerHeardBlock = 2;      // once the filters model the echo: twice the blocks heard in a row
constexpr int kSettledEveryBlocks = 25;    // the settled filter is retaken every 100 ms
constexpr float kSettledErleDb = 12.0f;    // linear ERLE, smoothed, at which the filters cancel well

const Spectrum& RingSpectrum(const RingBuffer& ring, int index) {
  return reinterpret_cast<const Spectrum*>(Adsp_BufferData(&ring))[index];
}

int Wrapped(int index, int count) { return ((index % count) + count) % count; }

// The spectrum written last into a far-end ring.
const Spectrum& NewestSpectrum(const RingBuffer& ring) {
  const int count = static_cast<int>(ring.element_count);
  return RingSpectrum(ring, Wrapped(static_cast<int>(ring.write_pos) - 1, count));
}

// Moves the far read position so that the next spectrum the linear step
// reads is the one written `lag` blocks before the newest.
void AlignFarRead(AecCore* core, int lag) {
  const int available = static_cast<int>(Adsp_available_read(&core->far_buf_windowed));
  const int move = available - (lag + 1);
  if (move != 0) AdspAec_MoveFarReadPtr(core, move);
}

// Rewrites the filters' far history (all partitions but the one the linear
// step is about to add) from the rings at the current read position.
void RefillFarHistory(AecCore* core) {
  const int n = core->num_partitions;
  const int count = static_cast<int>(core->far_buf.element_count);
  for (int p = 1; p < n; ++p) {
    const Spectrum& x = RingSpectrum(core->far_buf, Wrapped(static_cast<int>(core->far_buf.read_pos) - p, count));
    const Spectrum& xw =
        RingSpectrum(core->far_buf_windowed, Wrapped(static_cast<int>(core->far_buf_windowed.read_pos) - p, count));
    const int pos = Wrapped(core->xfBufBlockPos + p - 1, n) * kAecBins;
    std::memcpy(&core->xfBuf[0][pos], x[0], sizeof(float) * kAecBins);
    std::memcpy(&core->xfBuf[1][pos], x[1], sizeof(float) * kAecBins);
    for (int k = 0; k < kAecBins; ++k) {
      core->xfwBuf[pos + k][0] = xw[0][k];
      core->xfwBuf[pos + k][1] = xw[1][k];
    }
  }
}

// Keeps the main filter while it cancels well, and puts it back in both
// filters after a jump (they then match the room again at the new lag).
void KeepSettledFilter(AecEnhanced* st, const AecCore* core, int far_active) {
  const int n = core->num_partitions;
  if (n > kNormalNumPartitions) return;
  st->settled_age += 1;
  const bool cancelling = far_active && st->near_hold == 0 && st->residual.linear_erle > kSettledErleDb &&
                          st->residual.echo_only_erle > kSettledErleDb;
  if (!cancelling || (st->settled != 0 && st->settled_age < kSettledEveryBlocks)) return;
  // While a jump is probed the kept response is the probe's yardstick.
  if (st->settled != 0 && st->probe.blocks_left > 0) return;
  for (int plane = 0; plane < 2; ++plane)
    std::memcpy(st->settled_filter[plane], core->wfBuf_main[plane], sizeof(float) * n * kAecBins);
  st->settled = 1;
  st->settled_age = 0;
}

void RestoreSettledFilter(const AecEnhanced* st, AecCore* core) {
  const int n = core->num_partitions;
  if (st->settled == 0 || n > kNormalNumPartitions) return;
  for (int plane = 0; plane < 2; ++plane) {
    std::memcpy(core->wfBuf_main[plane], st->settled_filter[plane], sizeof(float) * n * kAecBins);
    std::memcpy(core->wfBuf[plane], st->settled_filter[plane], sizeof(float) * n * kAecBins);
  }
  // The two filters start level: the adaptive one's wins while both were
  // lost would otherwise soon hand its wanderings to the main one.
  std::memset(&core->double_filter, 0, sizeof(core->double_filter));
}

}  // namespace

void AecEnhancedInit(AecEnhanced* st) {
  AecLeadTrackerInit(&st->lead);
  AecResidualInit(&st->residual);
  st->settled = 0;
  st->settled_age = 0;
  std::memset(&st->probe, 0, sizeof(st->probe));
  st->applied_lag = -1;
  st->near_hold = 0;
  st->near_run = 0;
}

int32_t AecEnhancedProcess(void* aec_instance, AecEnhanced* st, const float* near, const float* far, float* out,
                           float* coherence, AecEnhancedBlock* report) {
  const int32_t rc = AdspAec_BufferFarend(aec_instance, far, kAecBlockLen);
  if (rc != 0) return rc;
  AecCore* core = AdspAec_aec_core(aec_instance);

  float far_power[kAecBins];
  const Spectrum& newest = NewestSpectrum(core->far_buf_windowed);
  for (int k = 0; k < kAecBins; ++k) far_power[k] = newest[0][k] * newest[0][k] + newest[1][k] * newest[1][k];

  AlignFarRead(core, st->lead.lag_blocks);
  if (st->applied_lag != st->lead.lag_blocks) {
    RefillFarHistory(core);
    st->applied_lag = st->lead.lag_blocks;
  }
  Adsp_WriteBuffer(&core->nearFrBuf, near, kAecBlockLen);
  // Beside a near talker both filters adapt at a tenth of their step: the
  // talker is no echo to learn, yet a room that changes meanwhile is still
  // followed. The step is the core's own figure, put back afterwards, so
  // the classic frame finds it as it was.
  const float step = core->normal_mu;
  if (st->near_hold > 0) core->normal_mu *= kDoubleTalkStep;
  AdspAec_FilterBlock(core);  // the lead tracker places the far end: no delay estimate
  core->normal_mu = step;

  float near_power[kAecBins];
  // Nothing moves the filters between here and the lead decision.
  const int strongest = AecStrongestPartition(core);
  AecResidualProcess(&st->residual, core, strongest, out, near_power, coherence, report);
  report->lag_blocks = st->lead.lag_blocks;
  // The slow step is held after a talker: one heard for a while is likely
  // still there through the detector's gaps. Once the filters model the
  // echo, though, a block or two heard is as likely an error they have not
  // yet learnt (new notes, a room ringing on after the old ones for longer
  // than their 48 ms), and holding them slow for 100 ms then only makes them
  // miss the next change as well: the hold lasts twice as long as the talker
  // was heard in a row. Before that, anything heard beside the echo is held
  // off in full (a talker under the echo while the filters learn the room).
  st->near_run = report->near_active ? st->near_run + 1 : 0;
  const int hold = st->residual.echo_only_erle > kModelledErleDb
                       ? std::min(kDoubleTalkHoldBlocks, kHoldPerHeardBlock * st->near_run)
                       : kDoubleTalkHoldBlocks;
  st->near_hold = report->near_active ? hold : std::max(st->near_hold - 1, 0);
  AecLeadTrackerUpdate(&st->lead, far_power, near_power, report->far_active);
  const AecLeadChange change =
      AecLeadTrackerDecide(&st->lead, core, strongest, st->residual.linear_erle, report->far_active,
                           report->near_by_level);
  if (change == AecLeadChange::kJumped) {
    AecResidualRestart(&st->residual);
    RestoreSettledFilter(st, core);
    AecLagProbeStart(&st->probe);
  } else {
    // The echo arrives `late` samples after the filters place it: the far
    // end moves by the whole blocks nearest, the filters by what is left.
    // The probe judges by the response kept from before the jump where
    // there is one: the filters in use adapt to the placement in force.
    const bool kept = st->settled != 0 && core->num_partitions <= kNormalNumPartitions;
    const float* const response[2] = {kept ? st->settled_filter[0] : core->wfBuf_main[0],
                                      kept ? st->settled_filter[1] : core->wfBuf_main[1]};
    const int late = AecLagProbeUpdate(&st->probe, core, response, st->lead.lag_blocks, AecLeadMaxLag(core),
                                       report->far_active && !report->near_by_level);
    if (late != 0) {
      const int blocks = std::clamp(static_cast<int>(std::lround(static_cast<float>(late) / kAecBlockLen)),
                                    -st->lead.lag_blocks, AecLeadMaxLag(core) - st->lead.lag_blocks);
      st->lead.lag_blocks += blocks;
      if (kept) {
        // Both filters start again from the kept response, moved: what they
        // learnt meanwhile was learnt at the wrong placement.
        AecShiftResponseSamples(st->settled_filter[0], st->settled_filter[1], core->num_partitions,
                                late - blocks * kAecBlockLen);
        RestoreSettledFilter(st, core);
      } else {
        AecShiftFilterSamples(core, late - blocks * kAecBlockLen);
        st->settled = 0;
      }
    }
  }
  // Filters moved against the far end: what was kept no longer fits the lag.
  if (change == AecLeadChange::kFound || change == AecLeadChange::kRecentred) st->settled = 0;
  KeepSettledFilter(st, core, report->far_active);
  // The echo's level against the far end's was measured against a far end
  // the echo did not follow; with the lead found it is measured again.
  if (change == AecLeadChange::kFound) st->residual.echo_gain_blocks = 0;

  AdspAec_FinishBlock(core);
  core->system_delay -= kAecBlockLen;
  return 0;
}

}  // namespace vorn
