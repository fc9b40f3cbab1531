// In-place 128-point real FFT of the echo canceller (split-radix, radix-4
// stages). The packed spectrum after aec_rdft_forward_128:
//   a[0] = R[0], a[1] = R[64], a[2k] = R[k], a[2k+1] = I[k]  (k = 1..63)
// with R[k] = sum x[j] cos(2 pi j k / 128), I[k] = sum x[j] sin(2 pi j k / 128)
// (the sine sign, opposite to the usual e^-iwt DFT; every user is written for
// it). aec_rdft_inverse_128 maps that packing back to 64 * x (n/2 times the
// signal).
#pragma once

#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

inline constexpr int kRdftLength = 128;

using RdftStage128 = void (*)(float* a);

// The packed spectrum as real and imaginary parts of its 65 bins (the
// imaginary parts of bins 0 and 64 are 0), and back.
inline constexpr int kRdftBins = kRdftLength / 2 + 1;
void aec_rdft_unpack_128(const float* a, float spectrum[2][kRdftBins]);
void aec_rdft_pack_128(const float spectrum[2][kRdftBins], float* a);

// Plain stages: the reference for the vector ones.
void bitrv2_128_C(float* a);
void cft1st_128_C(float* a);
void cftmdl_128_C(float* a);
void cftflast_128_C(float* a);
void cftblast_128_C(float* a);
void rftfsub_128_C(float* a);
void rftbsub_128_C(float* a);

#if defined(VORN_SIMD4)
// Four-lane stages: the same bits on every target that has them.
void cft1st_128_Simd(float* a);
void cftmdl_128_Simd(float* a);
void cftflast_128_Simd(float* a);
void cftblast_128_Simd(float* a);
void rftfsub_128_Simd(float* a);
void rftbsub_128_Simd(float* a);
#endif

// The stages a vector unit speeds up (cftflast and cftblast: the forward and
// inverse transforms' last complex stages); bit reversal stays plain.
struct RdftStages {
  RdftStage128 cft1st, cftmdl, rftfsub, rftbsub, cftflast, cftblast;
};
inline constexpr RdftStages kRdftPlainStages = {cft1st_128_C,  cftmdl_128_C,   rftfsub_128_C,
                                                rftbsub_128_C, cftflast_128_C, cftblast_128_C};
#if defined(VORN_SIMD4)
inline constexpr RdftStages kRdftSimdStages = {cft1st_128_Simd,  cftmdl_128_Simd,   rftfsub_128_Simd,
                                               rftbsub_128_Simd, cftflast_128_Simd, cftblast_128_Simd};
#endif
// The stages the canceller runs, fixed when the library is compiled (no
// writable global chooses them, so instances on other threads share nothing).
#if defined(VORN_SIMD4)
inline constexpr const RdftStages& kRdftStages = kRdftSimdStages;
#else
inline constexpr const RdftStages& kRdftStages = kRdftPlainStages;
#endif

#if defined(VORN_SIMD4)
// Four transforms at once, one per lane: a[i] holds element i of each of
// them. Every lane performs the operations of aec_rdft_forward_128 /
// aec_rdft_inverse_128 (with the vector stages) in their order, so it gives
// their bits; the canceller batches its per-partition transforms with them.
void aec_rdft_forward_128_x4(simd::F4* a);
void aec_rdft_inverse_128_x4(simd::F4* a);
#endif
#if defined(VORN_AVX2)
// Eight at once, for processors with AVX2 only (CpuHasAvx2): the same bits
// per lane as the four-lane batch.
void aec_rdft_forward_128_x8(__m256* a);
void aec_rdft_inverse_128_x8(__m256* a);
#endif

// The transforms with the compiled-in stages, and with a chosen set (tests and
// benchmarks compare the sets).
void aec_rdft_forward_128(float* a);
void aec_rdft_inverse_128(float* a);
void aec_rdft_forward_128_with(const RdftStages& stages, float* a);
void aec_rdft_inverse_128_with(const RdftStages& stages, float* a);

}  // namespace vorn
