// Several real-input transforms of one size at once (the fft_rel pair's
// packing and scaling, see adsp_common_fft_rel.h).
//
// Where the build has four-lane vectors (common/simd4.h) and n is 128, 256 or
// 512, up to four blocks run as one, element i of each in lane i of a vector:
// every operation of the plain transform becomes one vector operation, in the
// plain order, so each block gets the plain transform's bits. Elsewhere the
// blocks go through fft_rel / ifft_rel one by one, and so do batches of one
// or two, which a batch of lanes does not make faster. With AVX2 two
// neighbouring butterflies of each block share an eight-lane vector.
#pragma once

#include "common/simd4.h"

namespace vorn {

constexpr int kFftRelLanes = 4;

// Transforms x[0 .. count-1] (count 1 to kFftRelLanes, n = 2^m points each)
// in place. The blocks must not overlap.
void FftRelLanes(float *const *x, int count, int n, int m);
void IfftRelLanes(float *const *x, int count, int n, int m);

#if defined(VORN_SIMD4)
// The kernels behind the two, for their tests: wide (only where CpuHasAvx2())
// runs two neighbouring butterflies of each block per AVX2 vector, which
// gives the same bits; the two above choose it where the processor has it.
void FftRelLanesSimd(float *const *x, int count, int n, int m, bool wide);
void IfftRelLanesSimd(float *const *x, int count, int n, int m, bool wide);
#endif

}  // namespace vorn
