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
// These plain stages are the reference; where SSE2 is available the hot stages
// are replaced through the stage pointers. The first group of cft1st and the
// first two of cftmdl take shortcuts for their trivial twiddles
// (1 and e^(i pi/4)), so plain and vector stages agree to float rounding, not
// bit for bit, in those groups.
#include "adsp_aec/aec_rdft.h"

#include <array>
#include <utility>

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {

// Bit reversal of the 64 complex pairs is a fixed permutation: the 28 pairs of
// indices that trade places.
constexpr int Rev6(int i) {
  int r = 0;
  for (int b = 0; b < 6; ++b) r |= ((i >> b) & 1) << (5 - b);
  return r;
}

constexpr std::array<std::pair<int, int>, 28> MakeBitReversalSwaps() {
  std::array<std::pair<int, int>, 28> swaps{};
  int count = 0;
  for (int i = 0; i < 64; ++i) {
    if (Rev6(i) > i) swaps[count++] = {2 * i, 2 * Rev6(i)};
  }
  return swaps;
}

constexpr auto kBitReversalSwaps = MakeBitReversalSwaps();

}  // namespace

RdftStage128 bitrv2_128 = bitrv2_128_C;
RdftStage128 cft1st_128 = cft1st_128_C;
RdftStage128 cftmdl_128 = cftmdl_128_C;
RdftStage128 cftfsub_128 = cftfsub_128_C;
RdftStage128 cftbsub_128 = cftbsub_128_C;
RdftStage128 rftfsub_128 = rftfsub_128_C;
RdftStage128 rftbsub_128 = rftbsub_128_C;

void bitrv2_128_C(float* a) {
  for (const auto& [i, j] : kBitReversalSwaps) {
    std::swap(a[i], a[j]);
    std::swap(a[i + 1], a[j + 1]);
  }
}

void cft1st_128_C(float* a) {
  const int n = 128;
  float x0r, x0i, x1r, x1i, x2r, x2i, x3r, x3i;

  x0r = a[0] + a[2];
  x0i = a[1] + a[3];
  x1r = a[0] - a[2];
  x1i = a[1] - a[3];
  x2r = a[4] + a[6];
  x2i = a[5] + a[7];
  x3r = a[4] - a[6];
  x3i = a[5] - a[7];
  a[0] = x0r + x2r;
  a[1] = x0i + x2i;
  a[4] = x0r - x2r;
  a[5] = x0i - x2i;
  a[2] = x1r - x3i;
  a[3] = x1i + x3r;
  a[6] = x1r + x3i;
  a[7] = x1i - x3r;
  float wk1r = rdft_w[2];
  x0r = a[8] + a[10];
  x0i = a[9] + a[11];
  x1r = a[8] - a[10];
  x1i = a[9] - a[11];
  x2r = a[12] + a[14];
  x2i = a[13] + a[15];
  x3r = a[12] - a[14];
  x3i = a[13] - a[15];
  a[8] = x0r + x2r;
  a[9] = x0i + x2i;
  a[12] = x2i - x0i;
  a[13] = x0r - x2r;
  x0r = x1r - x3i;
  x0i = x1i + x3r;
  a[10] = wk1r * (x0r - x0i);
  a[11] = wk1r * (x0r + x0i);
  x0r = x3i + x1r;
  x0i = x3r - x1i;
  a[14] = wk1r * (x0i - x0r);
  a[15] = wk1r * (x0i + x0r);

  int k1 = 0;
  for (int j = 16; j < n; j += 16) {
    k1 += 2;
    const int k2 = 2 * k1;
    const float wk2r = rdft_w[k1];
    const float wk2i = rdft_w[k1 + 1];
    wk1r = rdft_w[k2];
    float wk1i = rdft_w[k2 + 1];
    float wk3r = rdft_wk3ri_first[k1];
    float wk3i = rdft_wk3ri_first[k1 + 1];
    x0r = a[j] + a[j + 2];
    x0i = a[j + 1] + a[j + 3];
    x1r = a[j] - a[j + 2];
    x1i = a[j + 1] - a[j + 3];
    x2r = a[j + 4] + a[j + 6];
    x2i = a[j + 5] + a[j + 7];
    x3r = a[j + 4] - a[j + 6];
    x3i = a[j + 5] - a[j + 7];
    a[j] = x0r + x2r;
    a[j + 1] = x0i + x2i;
    x0r -= x2r;
    x0i -= x2i;
    a[j + 4] = wk2r * x0r - wk2i * x0i;
    a[j + 5] = wk2r * x0i + wk2i * x0r;
    x0r = x1r - x3i;
    x0i = x1i + x3r;
    a[j + 2] = wk1r * x0r - wk1i * x0i;
    a[j + 3] = wk1r * x0i + wk1i * x0r;
    x0r = x1r + x3i;
    x0i = x1i - x3r;
    a[j + 6] = wk3r * x0r - wk3i * x0i;
    a[j + 7] = wk3r * x0i + wk3i * x0r;

    wk1r = rdft_w[k2 + 2];
    wk1i = rdft_w[k2 + 3];
    wk3r = rdft_wk3ri_second[k1];
    wk3i = rdft_wk3ri_second[k1 + 1];
    x0r = a[j + 8] + a[j + 10];
    x0i = a[j + 9] + a[j + 11];
    x1r = a[j + 8] - a[j + 10];
    x1i = a[j + 9] - a[j + 11];
    x2r = a[j + 12] + a[j + 14];
    x2i = a[j + 13] + a[j + 15];
    x3r = a[j + 12] - a[j + 14];
    x3i = a[j + 13] - a[j + 15];
    a[j + 8] = x0r + x2r;
    a[j + 9] = x0i + x2i;
    x0r -= x2r;
    x0i -= x2i;
    a[j + 12] = -wk2i * x0r - wk2r * x0i;
    a[j + 13] = -wk2i * x0i + wk2r * x0r;
    x0r = x1r - x3i;
    x0i = x1i + x3r;
    a[j + 10] = wk1r * x0r - wk1i * x0i;
    a[j + 11] = wk1r * x0i + wk1i * x0r;
    x0r = x1r + x3i;
    x0i = x1i - x3r;
    a[j + 14] = wk3r * x0r - wk3i * x0i;
    a[j + 15] = wk3r * x0i + wk3i * x0r;
  }
}

void cftmdl_128_C(float* a) {
  const int l = 8;
  const int n = 128;
  const int m = 32;
  float x0r, x0i, x1r, x1i, x2r, x2i, x3r, x3i;

  for (int j = 0; j < l; j += 2) {
    const int j1 = j + 8;
    const int j2 = j + 16;
    const int j3 = j + 24;
    x0r = a[j] + a[j1];
    x0i = a[j + 1] + a[j1 + 1];
    x1r = a[j] - a[j1];
    x1i = a[j + 1] - a[j1 + 1];
    x2r = a[j2] + a[j3];
    x2i = a[j2 + 1] + a[j3 + 1];
    x3r = a[j2] - a[j3];
    x3i = a[j2 + 1] - a[j3 + 1];
    a[j] = x0r + x2r;
    a[j + 1] = x0i + x2i;
    a[j2] = x0r - x2r;
    a[j2 + 1] = x0i - x2i;
    a[j1] = x1r - x3i;
    a[j1 + 1] = x1i + x3r;
    a[j3] = x1r + x3i;
    a[j3 + 1] = x1i - x3r;
  }
  float wk1r = rdft_w[2];
  for (int j = m; j < l + m; j += 2) {
    const int j1 = j + 8;
    const int j2 = j + 16;
    const int j3 = j + 24;
    x0r = a[j] + a[j1];
    x0i = a[j + 1] + a[j1 + 1];
    x1r = a[j] - a[j1];
    x1i = a[j + 1] - a[j1 + 1];
    x2r = a[j2] + a[j3];
    x2i = a[j2 + 1] + a[j3 + 1];
    x3r = a[j2] - a[j3];
    x3i = a[j2 + 1] - a[j3 + 1];
    a[j] = x0r + x2r;
    a[j + 1] = x0i + x2i;
    a[j2] = x2i - x0i;
    a[j2 + 1] = x0r - x2r;
    x0r = x1r - x3i;
    x0i = x1i + x3r;
    a[j1] = wk1r * (x0r - x0i);
    a[j1 + 1] = wk1r * (x0r + x0i);
    x0r = x3i + x1r;
    x0i = x3r - x1i;
    a[j3] = wk1r * (x0i - x0r);
    a[j3 + 1] = wk1r * (x0i + x0r);
  }
  int k1 = 0;
  const int m2 = 2 * m;
  for (int k = m2; k < n; k += m2) {
    k1 += 2;
    const int k2 = 2 * k1;
    const float wk2r = rdft_w[k1];
    const float wk2i = rdft_w[k1 + 1];
    wk1r = rdft_w[k2];
    float wk1i = rdft_w[k2 + 1];
    float wk3r = rdft_wk3ri_first[k1];
    float wk3i = rdft_wk3ri_first[k1 + 1];
    for (int j = k; j < l + k; j += 2) {
      const int j1 = j + 8;
      const int j2 = j + 16;
      const int j3 = j + 24;
      x0r = a[j] + a[j1];
      x0i = a[j + 1] + a[j1 + 1];
      x1r = a[j] - a[j1];
      x1i = a[j + 1] - a[j1 + 1];
      x2r = a[j2] + a[j3];
      x2i = a[j2 + 1] + a[j3 + 1];
      x3r = a[j2] - a[j3];
      x3i = a[j2 + 1] - a[j3 + 1];
      a[j] = x0r + x2r;
      a[j + 1] = x0i + x2i;
      x0r -= x2r;
      x0i -= x2i;
      a[j2] = wk2r * x0r - wk2i * x0i;
      a[j2 + 1] = wk2r * x0i + wk2i * x0r;
      x0r = x1r - x3i;
      x0i = x1i + x3r;
      a[j1] = wk1r * x0r - wk1i * x0i;
      a[j1 + 1] = wk1r * x0i + wk1i * x0r;
      x0r = x1r + x3i;
      x0i = x1i - x3r;
      a[j3] = wk3r * x0r - wk3i * x0i;
      a[j3 + 1] = wk3r * x0i + wk3i * x0r;
    }
    wk1r = rdft_w[k2 + 2];
    wk1i = rdft_w[k2 + 3];
    wk3r = rdft_wk3ri_second[k1];
    wk3i = rdft_wk3ri_second[k1 + 1];
    for (int j = k + m; j < l + (k + m); j += 2) {
      const int j1 = j + 8;
      const int j2 = j + 16;
      const int j3 = j + 24;
      x0r = a[j] + a[j1];
      x0i = a[j + 1] + a[j1 + 1];
      x1r = a[j] - a[j1];
      x1i = a[j + 1] - a[j1 + 1];
      x2r = a[j2] + a[j3];
      x2i = a[j2 + 1] + a[j3 + 1];
      x3r = a[j2] - a[j3];
      x3i = a[j2 + 1] - a[j3 + 1];
      a[j] = x0r + x2r;
      a[j + 1] = x0i + x2i;
      x0r -= x2r;
      x0i -= x2i;
      a[j2] = -wk2i * x0r - wk2r * x0i;
      a[j2 + 1] = -wk2i * x0i + wk2r * x0r;
      x0r = x1r - x3i;
      x0i = x1i + x3r;
      a[j1] = wk1r * x0r - wk1i * x0i;
      a[j1 + 1] = wk1r * x0i + wk1i * x0r;
      x0r = x1r + x3i;
      x0i = x1i - x3r;
      a[j3] = wk3r * x0r - wk3i * x0i;
      a[j3 + 1] = wk3r * x0i + wk3i * x0r;
    }
  }
}

void cftfsub_128_C(float* a) {
  const int l = 32;
  cft1st_128(a);
  cftmdl_128(a);
  for (int j = 0; j < l; j += 2) {
    const int j1 = j + l;
    const int j2 = j1 + l;
    const int j3 = j2 + l;
    const float x0r = a[j] + a[j1];
    const float x0i = a[j + 1] + a[j1 + 1];
    const float x1r = a[j] - a[j1];
    const float x1i = a[j + 1] - a[j1 + 1];
    const float x2r = a[j2] + a[j3];
    const float x2i = a[j2 + 1] + a[j3 + 1];
    const float x3r = a[j2] - a[j3];
    const float x3i = a[j2 + 1] - a[j3 + 1];
    a[j] = x0r + x2r;
    a[j + 1] = x0i + x2i;
    a[j2] = x0r - x2r;
    a[j2 + 1] = x0i - x2i;
    a[j1] = x1r - x3i;
    a[j1 + 1] = x1i + x3r;
    a[j3] = x1r + x3i;
    a[j3 + 1] = x1i - x3r;
  }
}

void cftbsub_128_C(float* a) {
  const int l = 32;
  cft1st_128(a);
  cftmdl_128(a);
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

void aec_rdft_init(void) {
  bitrv2_128 = bitrv2_128_C;
  cft1st_128 = cft1st_128_C;
  cftmdl_128 = cftmdl_128_C;
  cftfsub_128 = cftfsub_128_C;
  cftbsub_128 = cftbsub_128_C;
  rftfsub_128 = rftfsub_128_C;
  rftbsub_128 = rftbsub_128_C;
#if defined(__SSE2__)
  aec_rdft_init_sse2();
#endif
}

void aec_rdft_forward_128(float* a) {
  bitrv2_128(a);
  cftfsub_128(a);
  rftfsub_128(a);
  const float xi = a[0] - a[1];
  a[0] += a[1];
  a[1] = xi;
}

void aec_rdft_inverse_128(float* a) {
  a[1] = 0.5f * (a[0] - a[1]);
  a[0] -= a[1];
  rftbsub_128(a);
  bitrv2_128(a);
  cftbsub_128(a);
}

}  // namespace vorn
