// Lag probe: the exact lead after a jump, from the filters themselves.
//
// The lead tracker correlates log envelopes, which places a jump to within
// a block or two, and a link that drops samples moves the lead by any
// number of them, not whole blocks. A learned response a quarter block off
// the echo cancels nothing above a few hundred hertz, and NLMS takes
// seconds to slide its taps over. But the filters, put back as they last
// cancelled, still hold the room: the echo they predict from the far end
// as now placed is the real echo moved by the placement's error. For a
// short window after a jump, on blocks of echo alone, the main filter
// predicts the echo from the far end read up to four blocks either side of
// the lag in force, and the microphone is correlated with the prediction at
// the lag in force moved by up to 64 samples either way (both differenced,
// so that the correlation peaks sharply instead of spreading with their low
// frequencies). Every 100 ms of echo a verdict: a whole-block lag that
// leaves a quarter of the error or less is taken first; else a sample shift
// whose correlation doubles that of the placement in force, taken as whole
// blocks for the far end and the samples left over for the filters'
// responses. Outside that window nothing is computed.
#include <algorithm>
#include <cstring>

#include "adsp_aec/aec_enhanced.h"
#include "adsp_aec/aec_rdft.h"

namespace vorn {
namespace {

constexpr int kProbeWindowBlocks = 250;  // 1 s after a jump
constexpr int kProbeDecideBlocks = 25;   // 100 ms of echo alone per verdict
constexpr float kProbeWinRatio = 2.0f;   // correlation peak over the placement in force
constexpr float kProbeBlockWinRatio = 0.25f;  // error at the best whole-block lag over the lag in force's
constexpr int kNearLen = kLagProbeReach + kAecBlockLen;
constexpr int kEchoLen = 2 * kLagProbeReach + kAecBlockLen;
constexpr int kFillBlocks = kEchoLen / kAecBlockLen;  // blocks before the histories are full

// Shifts one filter (both planes, `n` partitions) by `samples`: each
// partition's 64 taps (the filters keep the second half of every 128-point
// response zero) are laid end to end, moved, and transformed back.
void ShiftFilter(float (*filter)[kFilterPlaneLen], int n, int samples) {
  constexpr int kTaps = kMaxPartitions * kAecBlockLen;
  float taps[kTaps] = {};
  alignas(16) float fft[kAecBlockLen2];
  const float scale = 2.0f / kAecBlockLen2;
  float spectrum[2][kAecBins];
  for (int p = 0; p < n; ++p) {
    std::memcpy(spectrum[0], &filter[0][p * kAecBins], sizeof(float) * kAecBins);
    std::memcpy(spectrum[1], &filter[1][p * kAecBins], sizeof(float) * kAecBins);
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
    std::memcpy(&filter[0][p * kAecBins], spectrum[0], sizeof(float) * kAecBins);
    std::memcpy(&filter[1][p * kAecBins], spectrum[1], sizeof(float) * kAecBins);
  }
}

using Spectrum = float[2][kAecBins];

int Wrapped(int index, int count) { return ((index % count) + count) % count; }

// Error energy of the main filter over the current near block with the far
// history read `lag` blocks behind the newest far spectrum.
float ErrorAtLag(const AecCore* core, int lag) {
  const int count = static_cast<int>(core->far_buf.element_count);
  const int newest = static_cast<int>(core->far_buf.write_pos) - 1;
  const auto* ring = reinterpret_cast<const Spectrum*>(Adsp_BufferData(&core->far_buf));
  float yf[2][kAecBins] = {};
  for (int p = 0; p < core->num_partitions; ++p) {
    const Spectrum& x = ring[Wrapped(newest - lag - p, count)];
    const float* w_re = &core->wfBuf_main[0][p * kAecBins];
    const float* w_im = &core->wfBuf_main[1][p * kAecBins];
    for (int k = 0; k < kAecBins; ++k) {
      yf[0][k] += x[0][k] * w_re[k] - x[1][k] * w_im[k];
      yf[1][k] += x[0][k] * w_im[k] + x[1][k] * w_re[k];
    }
  }
  alignas(16) float fft[kAecBlockLen2];
  aec_rdft_pack_128(yf, fft);
  aec_rdft_inverse_128(fft);
  const float scale = 2.0f / kAecBlockLen2;
  float energy = 0.0f;
  for (int i = 0; i < kAecBlockLen; ++i) {
    const float e = core->dBuf[kAecBlockLen + i] - fft[kAecBlockLen + i] * scale;
    energy += e * e;
  }
  return energy;
}

}  // namespace

void AecShiftFilterSamples(AecCore* core, int samples) {
  ShiftFilter(core->wfBuf, core->num_partitions, samples);
  ShiftFilter(core->wfBuf_main, core->num_partitions, samples);
}

void AecLagProbeStart(AecLagProbe* probe) {
  std::memset(probe, 0, sizeof(*probe));
  probe->blocks_left = kProbeWindowBlocks;
}

int AecLagProbeUpdate(AecLagProbe* probe, const AecCore* core, int lag, int max_lag, int echo_alone) {
  if (probe->blocks_left <= 0) return 0;
  probe->blocks_left -= 1;
  std::memmove(probe->near, probe->near + kAecBlockLen, sizeof(float) * (kNearLen - kAecBlockLen));
  std::memmove(probe->echo, probe->echo + kAecBlockLen, sizeof(float) * (kEchoLen - kAecBlockLen));
  for (int i = 0; i < kAecBlockLen; ++i) {
    const int at = kAecBlockLen + i;
    probe->near[kNearLen - kAecBlockLen + i] = core->dBuf[at] - core->dBuf[at - 1];
    probe->echo[kEchoLen - kAecBlockLen + i] =
        (core->dBuf[at] - core->eBuf[at]) - (core->dBuf[at - 1] - core->eBuf[at - 1]);
  }
  if (!echo_alone || probe->blocks_left > kProbeWindowBlocks - kFillBlocks) return 0;
  // The microphone's block kLagProbeReach samples back (the first 64 of its
  // history) against the estimate moved by every shift.
  for (int j = 0; j < kLagProbeLags; ++j) {
    const float* echo = probe->echo + 2 * kLagProbeReach - j;
    float sum = 0.0f;
    for (int i = 0; i < kAecBlockLen; ++i) sum += probe->near[i] * echo[i];
    probe->corr[j] += sum;
  }
  for (int o = 0; o < kLagProbeBlockLags; ++o) {
    const int candidate = lag + o - kLagProbeBlockReach;
    if (candidate >= 0 && candidate <= max_lag) probe->block_error[o] += ErrorAtLag(core, candidate);
  }
  if (++probe->blocks < kProbeDecideBlocks) return 0;
  int best_block = kLagProbeBlockReach;
  for (int o = 0; o < kLagProbeBlockLags; ++o) {
    const int candidate = lag + o - kLagProbeBlockReach;
    if (candidate >= 0 && candidate <= max_lag && probe->block_error[o] < probe->block_error[best_block])
      best_block = o;
  }
  const bool block_clear =
      probe->block_error[best_block] < kProbeBlockWinRatio * probe->block_error[kLagProbeBlockReach];
  int best = kLagProbeReach;
  for (int j = 0; j < kLagProbeLags; ++j)
    if (probe->corr[j] > probe->corr[best]) best = j;
  const bool clear = probe->corr[best] > kProbeWinRatio * std::max(probe->corr[kLagProbeReach], 0.0f);
  probe->blocks = 0;
  std::memset(probe->corr, 0, sizeof(probe->corr));
  std::memset(probe->block_error, 0, sizeof(probe->block_error));
  if (block_clear) return (best_block - kLagProbeBlockReach) * kAecBlockLen;
  return clear ? best - kLagProbeReach : 0;
}

}  // namespace vorn
