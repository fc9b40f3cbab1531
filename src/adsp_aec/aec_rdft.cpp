// 128-point real FFT: a split-radix real DFT with radix-4 stages, specialised to n = 128.
//
// Forward: the 128 reals are taken as 64 complex pairs, bit-reversed, run
// through a complex FFT of three radix-4 stages (cft1st: groups of 16 floats,
// cftmdl with l = 8, then the last stage with l = 32 inline), and the
// real-data post-processing (rftfsub) turns the half-length complex spectrum
// into the packed real one. Inverse: the same steps backwards, with the
// pre-processing conjugating the spectrum and the last complex stage
// conjugating back, so the same cft1st/cftmdl serve both directions.
//
// These plain stages are the reference; where the build has four-lane vectors
// (aec_rdft_simd.cpp: SSE2 or NEON, the same bits on both) the stages but the
// bit reversal are their vector twins, chosen at compile time. The first group of cft1st and the
// first two of cftmdl take shortcuts for their trivial twiddles
// (1 and e^(i pi/4)), so plain and vector stages agree to float rounding, not
// bit for bit, in those groups.
#include "adsp_aec/aec_rdft.h"

#include <cstdint>
#include <cstring>

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {


// One radix-4 butterfly over the complex points a[j], a[j + d], a[j + 2d] and
// a[j + 3d] (real and imaginary parts interleaved): their sums and
// differences, before any twiddle.
struct Butterfly {
  float x0r, x0i, x1r, x1i, x2r, x2i, x3r, x3i;
};

Butterfly Load(const float* a, int j, int d) {
  const int j1 = j + d;
  const int j2 = j1 + d;
  const int j3 = j2 + d;
  return {a[j] + a[j1],   a[j + 1] + a[j1 + 1], a[j] - a[j1],   a[j + 1] - a[j1 + 1],
          a[j2] + a[j3], a[j2 + 1] + a[j3 + 1], a[j2] - a[j3], a[j2 + 1] - a[j3 + 1]};
}

// Outputs of a butterfly whose twiddles are all 1.
void StoreUnit(float* a, int j, int d, const Butterfly& b) {
  const int j1 = j + d;
  const int j2 = j1 + d;
  const int j3 = j2 + d;
  a[j] = b.x0r + b.x2r;
  a[j + 1] = b.x0i + b.x2i;
  a[j2] = b.x0r - b.x2r;
  a[j2 + 1] = b.x0i - b.x2i;
  a[j1] = b.x1r - b.x3i;
  a[j1 + 1] = b.x1i + b.x3r;
  a[j3] = b.x1r + b.x3i;
  a[j3 + 1] = b.x1i - b.x3r;
}

// Outputs of the butterfly whose twiddles are powers of e^(i pi/4): a swap
// for the quarter turn and one multiplication by cos(pi/4) = `c` per part.
void StoreEighth(float* a, int j, int d, const Butterfly& b, float c) {
  const int j1 = j + d;
  const int j2 = j1 + d;
  const int j3 = j2 + d;
  a[j] = b.x0r + b.x2r;
  a[j + 1] = b.x0i + b.x2i;
  a[j2] = b.x2i - b.x0i;
  a[j2 + 1] = b.x0r - b.x2r;
  float xr = b.x1r - b.x3i;
  float xi = b.x1i + b.x3r;
  a[j1] = c * (xr - xi);
  a[j1 + 1] = c * (xr + xi);
  xr = b.x3i + b.x1r;
  xi = b.x3r - b.x1i;
  a[j3] = c * (xi - xr);
  a[j3 + 1] = c * (xi + xr);
}

// The twiddles w1, w2, w3 of a general butterfly, as complex numbers.
struct Twiddles {
  float w1r, w1i, w2r, w2i, w3r, w3i;
};

// Group k1 (even) of a stage has two butterflies: the second turns w2 by a
// further quarter and takes the next table entries for w1 and w3.
Twiddles FirstTwiddles(int k1) {
  const int k2 = 2 * k1;
  return {rdft_w[k2], rdft_w[k2 + 1], rdft_w[k1], rdft_w[k1 + 1], rdft_wk3ri_first[k1], rdft_wk3ri_first[k1 + 1]};
}

Twiddles SecondTwiddles(int k1) {
  const int k2 = 2 * k1;
  return {rdft_w[k2 + 2], rdft_w[k2 + 3], -rdft_w[k1 + 1], rdft_w[k1], rdft_wk3ri_second[k1],
          rdft_wk3ri_second[k1 + 1]};
}

void StoreTwiddled(float* a, int j, int d, const Butterfly& b, const Twiddles& w) {
  const int j1 = j + d;
  const int j2 = j1 + d;
  const int j3 = j2 + d;
  a[j] = b.x0r + b.x2r;
  a[j + 1] = b.x0i + b.x2i;
  float xr = b.x0r - b.x2r;
  float xi = b.x0i - b.x2i;
  a[j2] = w.w2r * xr - w.w2i * xi;
  a[j2 + 1] = w.w2r * xi + w.w2i * xr;
  xr = b.x1r - b.x3i;
  xi = b.x1i + b.x3r;
  a[j1] = w.w1r * xr - w.w1i * xi;
  a[j1 + 1] = w.w1r * xi + w.w1i * xr;
  xr = b.x1r + b.x3i;
  xi = b.x1i - b.x3r;
  a[j3] = w.w3r * xr - w.w3i * xi;
  a[j3 + 1] = w.w3r * xi + w.w3i * xr;
}

}  // namespace

// Each complex pair moves as one 8-byte word: half the loads and stores of
// moving its two floats apart, and the bits are only moved, never touched.
void bitrv2_128_C(float* a) {
  for (const auto& [i, j] : rdft_bit_reversal_swaps) {
    uint64_t first;
    uint64_t second;
    std::memcpy(&first, a + i, sizeof first);
    std::memcpy(&second, a + j, sizeof second);
    std::memcpy(a + i, &second, sizeof second);
    std::memcpy(a + j, &first, sizeof first);
  }
}

// Butterflies of adjacent pairs, in groups of 16 floats.
void cft1st_128_C(float* a) {
  StoreUnit(a, 0, 2, Load(a, 0, 2));
  StoreEighth(a, 8, 2, Load(a, 8, 2), rdft_w[2]);
  for (int j = 16, k1 = 2; j < 128; j += 16, k1 += 2) {
    StoreTwiddled(a, j, 2, Load(a, j, 2), FirstTwiddles(k1));
    StoreTwiddled(a, j + 8, 2, Load(a, j + 8, 2), SecondTwiddles(k1));
  }
}

// Butterflies of points 8 floats apart, in two groups of 64 floats.
void cftmdl_128_C(float* a) {
  for (int j = 0; j < 8; j += 2) StoreUnit(a, j, 8, Load(a, j, 8));
  for (int j = 32; j < 40; j += 2) StoreEighth(a, j, 8, Load(a, j, 8), rdft_w[2]);
  for (int j = 64; j < 72; j += 2) StoreTwiddled(a, j, 8, Load(a, j, 8), FirstTwiddles(2));
  for (int j = 96; j < 104; j += 2) StoreTwiddled(a, j, 8, Load(a, j, 8), SecondTwiddles(2));
}

namespace {

void cftfsub_128(const RdftStages& stages, float* a) {
  stages.cft1st(a);
  stages.cftmdl(a);
  stages.cftflast(a);
}

void cftbsub_128(const RdftStages& stages, float* a) {
  stages.cft1st(a);
  stages.cftmdl(a);
  stages.cftblast(a);
}

}  // namespace

// The forward transform's last complex stage: unit twiddles, points 32 floats apart.
void cftflast_128_C(float* a) {
  for (int j = 0; j < 32; j += 2) StoreUnit(a, j, 32, Load(a, j, 32));
}

// The inverse's, conjugating back.
void cftblast_128_C(float* a) {
  const int l = 32;
  for (int j = 0; j < l; j += 2) {
    const int j1 = j + l;
    const int j2 = j1 + l;
    const int j3 = j2 + l;
    const float x0r = a[j] + a[j1];
    const float x0i = -a[j + 1] - a[j1 + 1];
    const float x1r = a[j] - a[j1];
    const float x1i = -a[j + 1] + a[j1 + 1];
    const float x2r = a[j2] + a[j3];
    const float x2i = a[j2 + 1] + a[j3 + 1];
    const float x3r = a[j2] - a[j3];
    const float x3i = a[j2 + 1] - a[j3 + 1];
    a[j] = x0r + x2r;
    a[j + 1] = x0i - x2i;
    a[j2] = x0r - x2r;
    a[j2 + 1] = x0i + x2i;
    a[j1] = x1r - x3i;
    a[j1 + 1] = x1i - x3r;
    a[j3] = x1r + x3i;
    a[j3 + 1] = x1i + x3r;
  }
}

void rftfsub_128_C(float* a) {
  const float* c = rdft_w.data() + 32;
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {
    const int k2 = 128 - j2;
    const int k1 = 32 - j1;
    const float wkr = 0.5f - c[k1];
    const float wki = c[j1];
    const float xr = a[j2 + 0] - a[k2 + 0];
    const float xi = a[j2 + 1] + a[k2 + 1];
    const float yr = wkr * xr - wki * xi;
    const float yi = wkr * xi + wki * xr;
    a[j2 + 0] -= yr;
    a[j2 + 1] -= yi;
    a[k2 + 0] += yr;
    a[k2 + 1] -= yi;
  }
}

void rftbsub_128_C(float* a) {
  const float* c = rdft_w.data() + 32;
  a[1] = -a[1];
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {
    const int k2 = 128 - j2;
    const int k1 = 32 - j1;
    const float wkr = 0.5f - c[k1];
    const float wki = c[j1];
    const float xr = a[j2 + 0] - a[k2 + 0];
    const float xi = a[j2 + 1] + a[k2 + 1];
    const float yr = wkr * xr + wki * xi;
    const float yi = wkr * xi - wki * xr;
    a[j2 + 0] = a[j2 + 0] - yr;
    a[j2 + 1] = yi - a[j2 + 1];
    a[k2 + 0] = yr + a[k2 + 0];
    a[k2 + 1] = yi - a[k2 + 1];
  }
  a[65] = -a[65];
}

void aec_rdft_unpack_128(const float* a, float spectrum[2][kRdftBins]) {
  constexpr int half = kRdftLength / 2;
  spectrum[0][0] = a[0];
  spectrum[1][0] = 0.0f;
  spectrum[0][half] = a[1];
  spectrum[1][half] = 0.0f;
  for (int k = 1; k < half; ++k) {
    spectrum[0][k] = a[2 * k];
    spectrum[1][k] = a[2 * k + 1];
  }
}

void aec_rdft_pack_128(const float spectrum[2][kRdftBins], float* a) {
  constexpr int half = kRdftLength / 2;
  a[0] = spectrum[0][0];
  a[1] = spectrum[0][half];
  for (int k = 1; k < half; ++k) {
    a[2 * k] = spectrum[0][k];
    a[2 * k + 1] = spectrum[1][k];
  }
}

void aec_rdft_forward_128_with(const RdftStages& stages, float* a) {
  bitrv2_128_C(a);
  cftfsub_128(stages, a);
  stages.rftfsub(a);
  const float xi = a[0] - a[1];
  a[0] += a[1];
  a[1] = xi;
}

void aec_rdft_inverse_128_with(const RdftStages& stages, float* a) {
  a[1] = 0.5f * (a[0] - a[1]);
  a[0] -= a[1];
  stages.rftbsub(a);
  bitrv2_128_C(a);
  cftbsub_128(stages, a);
}

void aec_rdft_forward_128(float* a) { aec_rdft_forward_128_with(kRdftStages, a); }
void aec_rdft_inverse_128(float* a) { aec_rdft_inverse_128_with(kRdftStages, a); }

}  // namespace vorn
