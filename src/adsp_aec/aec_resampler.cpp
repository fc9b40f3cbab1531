// Far-end clock-skew compensation.
//
// Resampling: linear interpolation at read positions t = i * (1 + skew) +
// position, where the sample before the frame (the previous frame's last)
// is y[0]; the fractional remainder is carried into the next frame so the
// output is continuous across frames.
//
// Skew estimate: the caller's raw figures are per-frame sample drifts. After
// 400 of them, outliers are rejected (beyond 4 % of the rate, then beyond
// five mean absolute deviations unless they are within 0.25 % of the rate)
// and the skew is the least-squares slope of the cumulative drift against the
// frame index. Sums run in double: the cumulative products reach 1e9 and more,
// where float would lose the slope's digits.
#include "adsp_aec/aec_resampler.h"

#include <cstring>

namespace vorn {
namespace {

constexpr int kFrameStart = 65;  // the newest frame is written from here; y[0] sits at 64

int EstimateSkew(const int* raw_skew, int size, int device_sample_rate_hz, float* skew_est) {
  const int max_limit = static_cast<int>(0.04 * device_sample_rate_hz);
  const int loose_limit = static_cast<int>(0.0025 * device_sample_rate_hz);

  double sum = 0.0;
  int count = 0;
  for (int i = 0; i < size; ++i) {
    if (raw_skew[i] < max_limit && raw_skew[i] > -max_limit) {
      sum += raw_skew[i];
      ++count;
    }
  }
  *skew_est = 0.0f;
  if (count == 0) return -1;
  const double mean = sum / count;

  double abs_deviation = 0.0;
  for (int i = 0; i < size; ++i) {
    if (raw_skew[i] < max_limit && raw_skew[i] > -max_limit) {
      const double deviation = raw_skew[i] - mean;
      abs_deviation += deviation < 0 ? -deviation : deviation;
    }
  }
  const double mean_abs_deviation = abs_deviation / count;
  const int upper = static_cast<int>(mean + 5.0 * mean_abs_deviation + 1.0);
  const int lower = static_cast<int>(mean - 5.0 * mean_abs_deviation - 1.0);

  double cum_skew = 0.0, sum_n = 0.0, sum_n2 = 0.0, sum_cum = 0.0, sum_n_cum = 0.0;
  int kept = 0;
  for (int i = 0; i < size; ++i) {
    const int x = raw_skew[i];
    if ((x < loose_limit && x > -loose_limit) || (x < upper && x > lower)) {
      ++kept;
      cum_skew += x;
      sum_n += kept;
      sum_n2 += static_cast<double>(kept) * kept;
      sum_cum += cum_skew;
      sum_n_cum += kept * cum_skew;
    }
  }
  const double mean_n = sum_n / kept;
  const double denominator = sum_n2 - sum_n * mean_n;
  if (denominator != 0.0) *skew_est = static_cast<float>((sum_n_cum - sum_cum * mean_n) / denominator);
  return 0;
}

}  // namespace

void* AdspAec_CreateResampler(AecResampler* storage) { return storage; }

int AdspAec_InitResampler(void* resampler, int deviceSampleRateHz) {
  if (resampler == nullptr) return -1;
  AecResampler* self = static_cast<AecResampler*>(resampler);
  std::memset(self->buffer, 0, sizeof(self->buffer));
  std::memset(self->skewData, 0, sizeof(self->skewData));
  self->position = 0.0f;
  self->skewDataIndex = 0;
  self->skewEstimate = 0.0f;
  self->deviceSampleRateHz = deviceSampleRateHz;
  return 0;
}

void AdspAec_ResampleLinear(void* resampler, const float* inspeech, int size, float skew,
                            float* outspeech, int* size_out) {
  AecResampler* self = static_cast<AecResampler*>(resampler);
  std::memcpy(self->buffer + kFrameStart, inspeech, size * sizeof(float));
  const float* y = self->buffer + kFrameStart - 1;

  int i = 0;
  float t = self->position;
  int n = static_cast<int>(t);
  while (n < size) {
    outspeech[i] = y[n] + (t - n) * (y[n + 1] - y[n]);
    ++i;
    t = i * (1.0f + skew) + self->position;
    n = static_cast<int>(t);
  }
  *size_out = i;
  self->position = t - size;

  std::memmove(self->buffer, self->buffer + size, (kResamplerBufferSize - size) * sizeof(float));
}

int AdspAec_GetSkew(void* resampler, int rawSkew, float* skewEst) {
  AecResampler* self = static_cast<AecResampler*>(resampler);
  if (self->skewDataIndex < kEstimateLengthFrames) {
    self->skewData[self->skewDataIndex++] = rawSkew;
    return 0;
  }
  if (self->skewDataIndex == kEstimateLengthFrames) {
    const int result = EstimateSkew(self->skewData, kEstimateLengthFrames, self->deviceSampleRateHz,
                                    &self->skewEstimate);
    self->skewDataIndex = kEstimateLengthFrames + 1;
    *skewEst = self->skewEstimate;
    return result;
  }
  *skewEst = self->skewEstimate;
  return 0;
}

}  // namespace vorn
