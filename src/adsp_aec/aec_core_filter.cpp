// The two adaptive filters: overlap-save partitioned NLMS in the frequency
// domain, 64-sample blocks and 12 (or 32) partitions of 128-point spectra.
// Both run on the same far-end history; which one a kernel acts on is chosen
// by filter_flag. The main filter's step limit decays block by block, so it
// settles finely on a steady room and shrugs off double talk, while the
// adaptive filter keeps its full step and tracks changes. A per-block
// comparison of their errors moves the better one into the other.
#include <cmath>
#include <cstring>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_rdft.h"

namespace vorn {

namespace {

// The main filter's step limit shrinks by this factor per block after the
// first frames, down to kMainStepFloor of the normal limit.
constexpr float kMainStepDecay = 0.99908f;
constexpr float kMainStepFloor = 0.05f;

// Block energies of the two errors, compared in dB. One dB either way counts
// as a win; closer than that the block is a draw. Blocks without far-end
// signal say nothing about the echo path and are draws too.
constexpr float kDoubleFilterWinDb = 1.0f;
constexpr float kFarActivePower = 100.0f;  // mean square of the far partition (-70 dBFS)
constexpr int kCopyAdaptiveToMain = 200;   // of the last 250 blocks
constexpr int kCopyMainToAdaptive = 490;   // net blocks since the last copy

}  // namespace

float* ActiveFilter(AecCore* aec, int plane) {
  if (aec->filter_flag == 1) return aec->wfBuf[plane];
  if (aec->filter_flag == 0) return aec->wfBuf_main[plane];
  return nullptr;
}

// Fills double_filter with this block's decision and performs the exchange.
// count_negative is the number of adaptive-filter wins among the last 250
// blocks (an echo-path change: the adaptive filter has found a better path
// and the main filter takes it over). count_positive accumulates main-filter
// wins minus adaptive wins since the last copy: when the main filter keeps
// beating the adaptive one for about two seconds net, the adaptive filter has
// wandered (double talk, misadjustment of its larger step) and restarts from
// the main filter.
void UpdateDoubleFilter(AecCore* aec, float main_error_energy, float adaptive_error_energy,
                        float far_mean_square) {
  DoubleFilter* df = &aec->double_filter;
  int entry = 0;
  if (far_mean_square > kFarActivePower) {
    const float delta_db =
        10.0f * std::log10((main_error_energy + 1.0f) / (adaptive_error_energy + 1.0f));
    if (delta_db > kDoubleFilterWinDb) entry = -1;
    if (delta_db < -kDoubleFilterWinDb) entry = 1;
  }
  const int leaving = df->delta_e_power[df->index];
  if (leaving == -1 && df->count_negative > 0) df->count_negative -= 1;
  df->delta_e_power[df->index] = entry;
  df->index = (df->index + 1) % kDoubleFilterLen;
  df->delta_e_power_sum += static_cast<float>(entry - leaving);
  df->delta_e_power_mean = df->delta_e_power_sum / kDoubleFilterLen;
  if (entry == -1) {
    df->count_negative += 1;
    if (df->count_positive > 0) df->count_positive -= 1;
  } else if (entry == 1) {
    df->count_positive += 1;
  }

  if (df->count_negative > kCopyAdaptiveToMain) {
    std::memcpy(aec->wfBuf_main, aec->wfBuf, sizeof(aec->wfBuf));
    aec->wf_main_u = 1.0f;
    aec->decay_count = 1;
    df->count_negative /= 4;
  }
  if (df->count_positive > kCopyMainToAdaptive) {
    std::memcpy(aec->wfBuf, aec->wfBuf_main, sizeof(aec->wfBuf));
    df->count_positive = 0;
  }
}

// The echo estimate: the far history's partitions through the filter's,
// summed into yf.
void FilterFarPlain(AecCore* aec, float yf[2][kAecBins]) {
  const float* w_re = ActiveFilter(aec, 0);
  const float* w_im = ActiveFilter(aec, 1);
  if (w_re == nullptr) return;
  for (int p = 0; p < aec->num_partitions; ++p) {
    int q = aec->xfBufBlockPos + p;
    if (q >= aec->num_partitions) q -= aec->num_partitions;
    const int xpos = q * kAecBins;
    const int wpos = p * kAecBins;
    for (int k = 0; k < kAecBins; ++k) {
      const float xr = aec->xfBuf[0][xpos + k];
      const float xi = aec->xfBuf[1][xpos + k];
      const float wr = w_re[wpos + k];
      const float wi = w_im[wpos + k];
      yf[0][k] += xr * wr - xi * wi;
      yf[1][k] += xr * wi + xi * wr;
    }
  }
}

void ScaleErrorSignal(AecCore* aec, float ef[2][kAecBins]) {
  if (aec->filter_flag != 0 && aec->filter_flag != 1) return;
  const float mu = aec->extended_filter_enabled ? kExtendedMu : aec->normal_mu;
  const float threshold =
      aec->extended_filter_enabled ? kExtendedErrorThreshold : aec->normal_error_threshold;
  float g = 1.0f;
  if (aec->filter_flag == 0 && aec->frame_count > 10) {
    if (aec->decay_count < 1) aec->decay_count = 1;
    aec->wf_main_u *= kMainStepDecay;
    g = aec->wf_main_u > kMainStepFloor ? aec->wf_main_u : kMainStepFloor;
    if (aec->decay_count < 5000 && aec->hNlXdAvg > 0.3f) aec->decay_count += 1;
  }
  ScaleErrorBins(aec->xPow, g * threshold, mu, ef);
}

void ScaleErrorBinAt(const float* x_pow, float limit, float mu, float ef[2][kAecBins], int k) {
  const float abs_ef = std::sqrt(ef[0][k] * ef[0][k] + ef[1][k] * ef[1][k]);
  if (abs_ef > x_pow[k] * limit) {
    const float scale = limit / (abs_ef + 1e-10f);
    ef[0][k] *= scale;
    ef[1][k] *= scale;
  } else {
    ef[0][k] /= (x_pow[k] + 1e-10f);
    ef[1][k] /= (x_pow[k] + 1e-10f);
  }
  ef[0][k] *= mu;
  ef[1][k] *= mu;
}

void ScaleErrorBinsPlain(const float* x_pow, float limit, float mu, float ef[2][kAecBins]) {
  for (int k = 0; k < kAecBins; ++k) ScaleErrorBinAt(x_pow, limit, mu, ef, k);
}

void FilterAdaptationPlain(AecCore* aec, float* fft, float ef[2][kAecBins]) {
  float* w_re = ActiveFilter(aec, 0);
  float* w_im = ActiveFilter(aec, 1);
  if (w_re == nullptr) return;
  for (int p = 0; p < aec->num_partitions; ++p) {
    int q = aec->xfBufBlockPos + p;
    if (q >= aec->num_partitions) q -= aec->num_partitions;
    const int xpos = q * kAecBins;
    const int wpos = p * kAecBins;
    const float* xr = &aec->xfBuf[0][xpos];
    const float* xi = &aec->xfBuf[1][xpos];
    for (int k = 1; k < kAecBlockLen; ++k) {
      fft[2 * k] = xr[k] * ef[0][k] + xi[k] * ef[1][k];
      fft[2 * k + 1] = xr[k] * ef[1][k] - xi[k] * ef[0][k];
    }
    fft[0] = xr[0] * ef[0][0] + xi[0] * ef[1][0];
    fft[1] = xr[kAecBlockLen] * ef[0][kAecBlockLen] + xi[kAecBlockLen] * ef[1][kAecBlockLen];
    aec_rdft_inverse_128(fft);
    // Gradient constraint: the correlation may only touch the first 64 taps
    // of each partition, otherwise the circular wrap leaks into the filter.
    std::memset(fft + kAecBlockLen, 0, sizeof(float) * kAecBlockLen);
    for (int i = 0; i < kAecBlockLen; ++i) fft[i] *= 0.015625f;
    aec_rdft_forward_128(fft);
    w_re[wpos] += fft[0];
    w_re[wpos + kAecBlockLen] += fft[1];
    for (int k = 1; k < kAecBlockLen; ++k) {
      w_re[wpos + k] += fft[2 * k];
      w_im[wpos + k] += fft[2 * k + 1];
    }
  }
}

void FilterFar(AecCore* aec, float yf[2][kAecBins]) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2())
    FilterFarAvx2(aec, yf);
  else
    FilterFarSimd(aec, yf);
#elif defined(VORN_SIMD4)
  FilterFarSimd(aec, yf);
#else
  FilterFarPlain(aec, yf);
#endif
}

bool FarSpanAbovePlain(const float* x_re, const float* x_im, int n, float divisor, float threshold) {
  float sum = 0.0f;
  for (int i = 0; i < n; ++i) sum += x_re[i] * x_re[i] + x_im[i] * x_im[i];
  return sum / divisor > threshold;
}

double SquareSum(const float* v, int n) {
  double sum = 0.0;
  int i = 0;
#if defined(VORN_SIMD4)
  simd::D2 even = simd::Set1D(0.0), odd = simd::Set1D(0.0);
  for (; i + 4 <= n; i += 4) {
    const simd::F4 x = simd::Load(v + i);
    const simd::D2 lo = simd::LowToDouble(x), hi = simd::HighToDouble(x);
    even = simd::AddD(even, simd::MulD(lo, lo));
    odd = simd::AddD(odd, simd::MulD(hi, hi));
  }
  double lanes[2];
  simd::StoreD(lanes, simd::AddD(even, odd));
  sum = lanes[0] + lanes[1];
#endif
  for (; i < n; ++i) sum += static_cast<double>(v[i]) * static_cast<double>(v[i]);
  return sum;
}

bool FarSpanAbove(const float* x_re, const float* x_im, int n, float divisor, float threshold) {
#if defined(VORN_SIMD4)
  return FarSpanAboveSimd(x_re, x_im, n, divisor, threshold);
#else
  return FarSpanAbovePlain(x_re, x_im, n, divisor, threshold);
#endif
}

void ScaleErrorBins(const float* x_pow, float limit, float mu, float ef[2][kAecBins]) {
#if defined(VORN_SIMD4)
  ScaleErrorBinsSimd(x_pow, limit, mu, ef);
#else
  ScaleErrorBinsPlain(x_pow, limit, mu, ef);
#endif
}

void AdaptBothFilters(AecCore* aec, float ef_adaptive[2][kAecBins], float ef_main[2][kAecBins]) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) {
    FilterAdaptationBothAvx2(aec, ef_adaptive, ef_main);
    aec->filter_flag = 0;
    return;
  }
#endif
  aec->filter_flag = 1;
#if defined(VORN_SIMD4)
  FilterAdaptationSimd(aec, ef_adaptive);
  aec->filter_flag = 0;
  FilterAdaptationSimd(aec, ef_main);
#else
  alignas(16) float fft[kAecBlockLen2];
  FilterAdaptationPlain(aec, fft, ef_adaptive);
  aec->filter_flag = 0;
  FilterAdaptationPlain(aec, fft, ef_main);
#endif
}

}  // namespace vorn
