// Lag probe: the exact lead after a jump, from the response the filters
// kept.
//
// The lead tracker correlates log envelopes, which places a jump to within
// a block or two, and a link that drops samples moves the lead by any
// number of them, not whole blocks. A learned response a quarter block off
// the echo cancels nothing above a few hundred hertz, and NLMS takes
// seconds to slide its taps over. But the response kept from before the
// jump still holds the room: the echo it predicts from the far end as now
// placed is the real echo moved by the placement's error. The filters in
// use are no judge of that: within a few blocks NLMS bends them towards
// whatever placement is in force, so every other one looks worse than it
// is. And the search must reach every offset the tracker may have missed by
// in one piece: searched as whole blocks and then samples around the
// placement in force, a steady voice's pitch period offers a false match
// within the narrower reach, and the next search starts from that.
//
// So for a short window after a jump, on blocks of echo alone, the kept
// response predicts the current block from the far end read 4 blocks
// either side of the lag in force. The prediction read k blocks later is
// the one at the lag in force k blocks earlier, so the nine laid end to end
// are 576 samples of the echo as placed, and the microphone block is
// compared with every 64 of them: the error for each shift of the echo by
// -256 to +256 samples, both differenced so that a shift's error is not
// hidden by the low frequencies they share. Every 100 ms of echo a verdict:
// the shift that leaves half the error at the placement in force or less
// (the room's reverberation past the response's 48 ms, which no shift
// predicts, is in both), taken as whole blocks for the far end and the
// samples left over for the responses. Outside that window nothing is
// computed.
#include <algorithm>
#include <cstring>

#include "adsp_aec/aec_enhanced.h"
#include "adsp_aec/aec_rdft.h"

namespace vorn {
namespace {

constexpr int kProbeWindowBlocks = 250;  // 1 s after a jump
constexpr int kProbeDecideBlocks = 25;   // 100 ms of echo alone per verdict
constexpr float kProbeWinRatio = 0.5f;  // error at the best shift over the placement in force's
constexpr int kPredictedBlocks = 2 * kLagProbeBlockReach + 1;
constexpr int kPredictedLen = kPredictedBlocks * kAecBlockLen;

using Spectrum = float[2][kAecBins];

int Wrapped(int index, int count) { return ((index % count) + count) % count; }

// The echo `response` (both planes, partition-major) predicts for the
// current block with the far history read `lag` blocks behind the newest
// far spectrum: 64 samples into `echo`.
void PredictAtLag(const AecCore* core, const float* const response[2], int lag, float* echo) {
  const int count = static_cast<int>(core->far_buf.element_count);
  const int newest = static_cast<int>(core->far_buf.write_pos) - 1;
  const auto* ring = reinterpret_cast<const Spectrum*>(Adsp_BufferData(&core->far_buf));
  float yf[2][kAecBins] = {};
  for (int p = 0; p < core->num_partitions; ++p) {
    const Spectrum& x = ring[Wrapped(newest - lag - p, count)];
    const float* w_re = &response[0][p * kAecBins];
    const float* w_im = &response[1][p * kAecBins];
    for (int k = 0; k < kAecBins; ++k) {
      yf[0][k] += x[0][k] * w_re[k] - x[1][k] * w_im[k];
      yf[1][k] += x[0][k] * w_im[k] + x[1][k] * w_re[k];
    }
  }
  alignas(16) float fft[kAecBlockLen2];
  aec_rdft_pack_128(yf, fft);
  aec_rdft_inverse_128(fft);
  const float scale = 2.0f / kAecBlockLen2;
  for (int i = 0; i < kAecBlockLen; ++i) echo[i] = fft[kAecBlockLen + i] * scale;
}

}  // namespace

// Shifts one filter (both planes, `n` partitions) by `samples`: each
// partition's 64 taps (the filters keep the second half of every 128-point
// response zero) are laid end to end, moved, and transformed back.
void AecShiftResponseSamples(float* re, float* im, int n, int samples) {
  constexpr int kTaps = kMaxPartitions * kAecBlockLen;
  float taps[kTaps] = {};
  alignas(16) float fft[kAecBlockLen2];
  const float scale = 2.0f / kAecBlockLen2;
  float spectrum[2][kAecBins];
  for (int p = 0; p < n; ++p) {
    std::memcpy(spectrum[0], &re[p * kAecBins], sizeof(float) * kAecBins);
    std::memcpy(spectrum[1], &im[p * kAecBins], sizeof(float) * kAecBins);
    aec_rdft_pack_128(spectrum, fft);
    aec_rdft_inverse_128(fft);
    for (int i = 0; i < kAecBlockLen; ++i) taps[p * kAecBlockLen + i] = fft[i] * scale;
  }
  float moved[kTaps] = {};
  for (int i = 0; i < n * kAecBlockLen; ++i) {
    const int from = i - samples;
    if (from >= 0 && from < n * kAecBlockLen) moved[i] = taps[from];
  }
  for (int p = 0; p < n; ++p) {
    std::memset(fft, 0, sizeof(fft));
    std::memcpy(fft, &moved[p * kAecBlockLen], sizeof(float) * kAecBlockLen);
    aec_rdft_forward_128(fft);
    aec_rdft_unpack_128(fft, spectrum);
    std::memcpy(&re[p * kAecBins], spectrum[0], sizeof(float) * kAecBins);
    std::memcpy(&im[p * kAecBins], spectrum[1], sizeof(float) * kAecBins);
  }
}

void AecShiftFilterSamples(AecCore* core, int samples) {
  AecShiftResponseSamples(core->wfBuf[0], core->wfBuf[1], core->num_partitions, samples);
  AecShiftResponseSamples(core->wfBuf_main[0], core->wfBuf_main[1], core->num_partitions, samples);
}

void AecLagProbeStart(AecLagProbe* probe) {
  std::memset(probe, 0, sizeof(*probe));
  probe->blocks_left = kProbeWindowBlocks;
}

int AecLagProbeUpdate(AecLagProbe* probe, const AecCore* core, const float* const response[2], int lag, int max_lag,
                      int echo_alone) {
  if (probe->blocks_left <= 0) return 0;
  probe->blocks_left -= 1;
  if (!echo_alone) return 0;
  // Block b holds the echo as placed, 4 - b blocks before the current one.
  const int first = std::max(-kLagProbeBlockReach, -lag);
  const int last = std::min(kLagProbeBlockReach, max_lag - lag);
  if (first > last) return 0;
  float placed[kPredictedLen] = {};
  for (int k = first; k <= last; ++k)
    PredictAtLag(core, response, lag + k, &placed[(kLagProbeBlockReach - k) * kAecBlockLen]);
  for (int m = kPredictedLen - 1; m > 0; --m) placed[m] -= placed[m - 1];
  float near[kAecBlockLen];
  for (int i = 0; i < kAecBlockLen; ++i) near[i] = core->dBuf[kAecBlockLen + i] - core->dBuf[kAecBlockLen + i - 1];
  // The echo `shift` samples later than placed: the microphone's sample i
  // matches placed[i + kLagProbeReach - shift], so error[kLagProbeReach -
  // shift] sums what that leaves (the loop over shifts is the inner one, a
  // plain vector loop).
  const int from = kLagProbeReach - last * kAecBlockLen;
  const int to = kLagProbeReach - first * kAecBlockLen;
  for (int i = 0; i < kAecBlockLen; ++i) {
    const float n = near[i];
    const float* echo = &placed[i];
    for (int j = from; j <= to; ++j) {
      const float e = n - echo[j];
      probe->error[j] += e * e;
    }
  }
  if (++probe->blocks < kProbeDecideBlocks) return 0;
  int best = kLagProbeReach;
  for (int j = from; j <= to; ++j)
    if (probe->error[j] < probe->error[best]) best = j;
  const bool clear = probe->error[best] < kProbeWinRatio * probe->error[kLagProbeReach];
  probe->blocks = 0;
  std::memset(probe->error, 0, sizeof(probe->error));
  return clear ? kLagProbeReach - best : 0;
}

}  // namespace vorn
