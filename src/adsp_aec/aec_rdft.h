// In-place 128-point real FFT of the echo canceller (split-radix, radix-4
// stages). The packed spectrum after aec_rdft_forward_128:
//   a[0] = R[0], a[1] = R[64], a[2k] = R[k], a[2k+1] = I[k]  (k = 1..63)
// with R[k] = sum x[j] cos(2 pi j k / 128), I[k] = sum x[j] sin(2 pi j k / 128)
// (the sine sign, opposite to the usual e^-iwt DFT; every user is written for
// it). aec_rdft_inverse_128 maps that packing back to 64 * x (n/2 times the
// signal).
#pragma once

#include "common/simd4.h"

namespace vorn {

inline constexpr int kRdftLength = 128;

using RdftStage128 = void (*)(float* a);

// Stage pointers, set by aec_rdft_init (plain stages, then the four-lane ones
// where the build has them). They start out on the plain stages so the transform is
// usable before aec_rdft_init is called.
extern RdftStage128 bitrv2_128;
extern RdftStage128 cft1st_128;
extern RdftStage128 cftmdl_128;
extern RdftStage128 cftfsub_128;
extern RdftStage128 cftbsub_128;
extern RdftStage128 rftfsub_128;
extern RdftStage128 rftbsub_128;

// The packed spectrum as real and imaginary parts of its 65 bins (the
// imaginary parts of bins 0 and 64 are 0), and back.
inline constexpr int kRdftBins = kRdftLength / 2 + 1;
void aec_rdft_unpack_128(const float* a, float spectrum[2][kRdftBins]);
void aec_rdft_pack_128(const float spectrum[2][kRdftBins], float* a);

// Plain stages: the reference for the vector ones.
void bitrv2_128_C(float* a);
void cft1st_128_C(float* a);
void cftmdl_128_C(float* a);
void cftfsub_128_C(float* a);
void cftbsub_128_C(float* a);
void rftfsub_128_C(float* a);
void rftbsub_128_C(float* a);

#if defined(VORN_SIMD4)
// Four-lane stages: the same bits on every target that has them.
void cft1st_128_Simd(float* a);
void cftmdl_128_Simd(float* a);
void rftfsub_128_Simd(float* a);
void rftbsub_128_Simd(float* a);
// Installs the four stages above; bit reversal and cftfsub/cftbsub stay plain.
void aec_rdft_init_simd(void);
#endif

void aec_rdft_init(void);
void aec_rdft_forward_128(float* a);
void aec_rdft_inverse_128(float* a);

}  // namespace vorn
