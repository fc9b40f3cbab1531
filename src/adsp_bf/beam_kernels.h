// The enhanced beam's per-bin kernels, each with a plain twin that the
// four-lane one reproduces bit for bit. Spectra are packed as fft_rel leaves
// them: bin k's real part at [k], its imaginary part at [512 - k].
#pragma once

#include "adsp_bf/audio_dsp_proc.h"
#include "common/cpu_avx2.h"

namespace vorn {

struct BeamWeights;

// Bands of four bins for the blend towards the reference; the last holds the
// Nyquist bin alone.
constexpr int kBlendBandBins = 4;
constexpr int kBlendBands = (kBfNumBins + kBlendBandBins - 1) / kBlendBandBins;  // 65

// y = sum over microphones of w_m x_m, bin by bin.
void ApplyBeamPlain(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y);
void ApplyBeamSimd4(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y);
#if defined(VORN_AVX2)
// Eight bins at a time, on processors with AVX2 (CpuHasAvx2).
void ApplyBeamAvx2(const BeamWeights& weights, float x[kBfChannels][kBfFftLen], float* y);
#endif

// The power of a packed spectrum in each blend band.
void BandPowersPlain(const float* spectrum, float power[kBlendBands]);
void BandPowersSimd4(const float* spectrum, float power[kBlendBands]);

// y += share * (r - y) band by band, r microphone 0's spectrum x0 delayed by
// kBeamDelay: the beam blended towards microphone 0 where the talker
// dominates. The delay is (-j)^k, a swap of parts and a sign per bin, so it
// is taken on the fly rather than as a spectrum of its own.
void BlendTowardsMic0Plain(const float share[kBlendBands], const float* x0, float* y);
void BlendTowardsMic0Simd4(const float share[kBlendBands], const float* x0, float* y);

}  // namespace vorn
