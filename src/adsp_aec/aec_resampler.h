// Clock-skew compensation of the echo canceller's far end: a linear
// interpolator that stretches or compresses each far-end frame by a relative
// skew, and the fit that turns 400 raw skew figures into one estimate.
#pragma once

#include <cstddef>

namespace vorn {

inline constexpr int kResamplerBufferSize = 256;
inline constexpr int kEstimateLengthFrames = 400;  // raw skew figures collected before the fit

struct AecResampler {
  float buffer[kResamplerBufferSize];  // input history; the newest frame is written from element 65 on
  float position;                      // fractional read position carried between frames
  int deviceSampleRateHz;              // sound-card rate
  int skewData[kEstimateLengthFrames];  // raw skew figures
  int skewDataIndex;                   // figures stored; kEstimateLengthFrames + 1 once fitted
  float skewEstimate;
};
static_assert(offsetof(AecResampler, position) == 1024);
static_assert(offsetof(AecResampler, skewData) == 1032);
static_assert(offsetof(AecResampler, skewEstimate) == 2636);
static_assert(sizeof(AecResampler) == 2640);

// The storage is the handle (nothing is allocated). Null storage gives null.
void* AdspAec_CreateResampler(AecResampler* storage);
// Clears history, figures and estimate and stores the rate. 0, or -1 for a null handle.
int AdspAec_InitResampler(void* resampler, int deviceSampleRateHz);

// Resamples one frame (size 64 or 128) by 1 + skew. outspeech must hold
// size / (1 + skew) + 2 samples; *size_out receives the count written.
// A positive skew gives fewer samples than came in, a negative one more.
void AdspAec_ResampleLinear(void* resampler, const float* inspeech, int size, float skew,
                            float* outspeech, int* size_out);

// Collects rawSkew until 400 figures are stored, then fits the estimate on the
// next call and reports it on every call after that. 0, or -1 on the call
// whose fit fails (the estimate is then 0.0).
int AdspAec_GetSkew(void* resampler, int rawSkew, float* skewEst);

}  // namespace vorn
