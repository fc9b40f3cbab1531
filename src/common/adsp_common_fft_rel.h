// In-place real-input FFT pair used by the suppressor, the VAD path, the
// multi-channel post filter and the beamformer.
//
// Spectrum packing of an n-point block x (X(k) = sum_t x(t) e^{-j 2 pi t k / n}):
//   x[0] = Re X(0), x[k] = Re X(k) for k = 1..n/2, x[n-k] = Im X(k) for k = 1..n/2-1.
// Bins 0 and n/2 are real.
#pragma once

#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

// Forward transform of n = 2^m real samples in place, no scaling.
// n up to 1024; 128, 256 and 512 take a table-driven permutation.
void fft_rel(float *x, const short n, const short m);

// Inverse of a packed spectrum in place, scaled by 1/n.
void ifft_rel(float *io, const short n, const short m);

// The two run the vector transforms where the build has four-lane vectors
// (common/simd4.h) and the plain ones elsewhere; both give the same bits.
// The plain ones are the reference.
void FftRelPlain(float *x, int n, int m);
void IfftRelPlain(float *x, int n, int m);
#if defined(VORN_SIMD4)
void FftRelSimd(float *x, int n, int m);
void IfftRelSimd(float *x, int n, int m);
#endif
#if defined(VORN_AVX2)
// With the larger stages' butterflies eight at a time; processors with AVX2
// only (CpuHasAvx2), which fft_rel and ifft_rel then take.
void FftRelAvx2(float *x, int n, int m);
void IfftRelAvx2(float *x, int n, int m);
#endif

}  // namespace vorn
