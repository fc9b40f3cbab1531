// Real-input FFT pair (Sorensen, Jones, Heideman and Burrus, 1987).
//
// Forward: a decimation-in-time radix-2 transform specialised to real input.
// After the bit-reversal permutation and the length-2 and length-4 passes,
// every stage combines two half-length real spectra; only the non-redundant
// half of each complex spectrum is kept, which yields the packing described
// in the header (real parts upward from 0, imaginary parts downward from n-1)
// with no extra unpacking pass.
//
// Inverse: the split-radix decimation-in-frequency counterpart, working on the
// packed Hermitian spectrum from the largest L-shaped butterfly down, then the
// length-2 butterflies and the permutation; the 1/n scale is applied once at
// the end.
//
// All twiddles come from sincos_t_ext (sin at index i*1024/G, cosine 256 entries
// on); nothing calls sin/cos at run time. For 128, 256 and 512 points the
// permutation is read from the bit-reversal table into a stack block; other
// sizes use the counter-based in-place swap.
//
// The sums of the forward stage butterflies are formed as 2a - (a - b) from
// the difference stored just before, not as a + b. The two round differently
// in the last bit, and the spectra (hence every module's output) must stay the
// same bytes from release to release, so the form is fixed. The length-2 and
// length-4 passes use plain sums.
#include "common/adsp_common_fft_rel.h"

#include "common/adsp_common_rom.h"

namespace vorn {
namespace {

constexpr int kMaxTablePoints = 512;
constexpr int kTwiddleTurn = 1024;  // sincos_t_ext holds sin over this many steps per turn
constexpr int kCosOffset = kTwiddleTurn / 4;
constexpr float kSqrtHalf = 0.70710677f;

// y[p] = x[rev_m(p)] for n = 128, 256, 512. Bit reversal is its own inverse,
// so the same gather serves both directions.
void GatherBitReversed(const float *x, int n, float *y) {
  if (n == 512) {
    // rev9(p) = 2*rev8(p) for p < 256 and 2*rev8(p-256) + 1 above.
    for (int p = 0; p < 256; ++p) {
      const int src = 2 * fft256_read_indexes[p];
      y[p] = x[src];
      y[p + 256] = x[src + 1];
    }
  } else if (n == 256) {
    for (int p = 0; p < 256; ++p) y[p] = x[fft256_read_indexes[p]];
  } else {  // 128: rev7(p) = rev8(p) >> 1 for p < 128
    for (int p = 0; p < 128; ++p) y[p] = x[fft256_read_indexes[p] >> 1];
  }
}

// Powers of two from 4 to 1024 points: the twiddle table ends there. Anything
// else leaves the buffer untouched rather than index past it.
bool IsSupportedSize(const float *x, int n, int m) {
  return x != nullptr && m >= 2 && m <= 10 && n == (1 << m);
}

bool HasTablePermutation(int n) { return n == 128 || n == 256 || n == 512; }

void BitReverseInPlace(float *x, int n) {
  int j = 0;
  for (int i = 1; i < n - 1; ++i) {
    int k = n >> 1;
    while (j >= k) {  // carry into the lower bits
      j -= k;
      k >>= 1;
    }
    j += k;
    if (i < j) {
      const float t = x[i];
      x[i] = x[j];
      x[j] = t;
    }
  }
}

}  // namespace

void fft_rel(float *x, const short n, const short m) {
  if (!IsSupportedSize(x, n, m)) return;

  // Permutation fused with the length-2 butterflies, then the length-4 pass.
  if (HasTablePermutation(n)) {
    float scratch[kMaxTablePoints];
    GatherBitReversed(x, n, scratch);
    for (int i = 0; i < n; i += 4) {
      const float a0 = scratch[i], a1 = scratch[i + 1], a2 = scratch[i + 2], a3 = scratch[i + 3];
      const float s0 = a0 + a1, d0 = a0 - a1;
      const float s1 = a2 + a3, d1 = a2 - a3;
      x[i] = s0 + s1;
      x[i + 1] = d0;
      x[i + 2] = s0 - s1;
      x[i + 3] = -d1;
    }
  } else {
    BitReverseInPlace(x, n);
    for (int i = 0; i < n; i += 2) {
      const float a = x[i], b = x[i + 1];
      x[i] = a + b;
      x[i + 1] = a - b;
    }
    for (int i = 0; i < n; i += 4) {
      const float a = x[i], b = x[i + 2];
      x[i] = a + b;
      x[i + 2] = a - b;
      x[i + 3] = -x[i + 3];
    }
  }

  int half = 2;
  for (int stage = 3; stage <= m; ++stage) {
    const int quarter = half;
    half = 2 * quarter;
    const int group = 2 * half;
    const int step = kTwiddleTurn / group;
    for (int i = 0; i < n; i += group) {
      const float t = x[i];
      x[i + half] = t - x[i + half];
      x[i] = 2.0f * t - x[i + half];
      x[i + half + quarter] = -x[i + half + quarter];
      for (int j = 1; j < quarter; ++j) {
        const int i1 = i + j;
        const int i2 = i - j + half;
        const int i3 = i1 + half;
        const int i4 = i - j + group;
        const float cc = sincos_t_ext[kCosOffset + j * step];
        const float ss = sincos_t_ext[j * step];
        const float t1 = x[i3] * cc + x[i4] * ss;
        const float t2 = x[i3] * ss - x[i4] * cc;
        const float a2 = x[i2];
        x[i4] = a2 - t2;
        x[i3] = x[i4] - 2.0f * a2;  // -(a2 + t2)
        const float a1 = x[i1];
        x[i2] = a1 - t1;
        x[i1] = 2.0f * a1 - x[i2];  // a1 + t1
      }
    }
  }
}

void ifft_rel(float *io, const short n, const short m) {
  if (!IsSupportedSize(io, n, m)) return;
  float *x = io;

  // L-shaped butterflies, group length G = n down to 4.
  int group = 2 * n;
  for (int k = 1; k < m; ++k) {
    int start = 0;
    int stride = group;
    group >>= 1;
    const int n4 = group >> 2;
    const int n8 = n4 >> 1;
    const int step = kTwiddleTurn / group;
    do {
      for (int i = start; i < n; i += stride) {
        int i1 = i;
        int i2 = i1 + n4;
        int i3 = i2 + n4;
        int i4 = i3 + n4;
        float t1 = x[i1] - x[i3];
        x[i1] = x[i1] + x[i3];
        x[i2] = 2.0f * x[i2];
        x[i3] = t1 - 2.0f * x[i4];
        x[i4] = t1 + 2.0f * x[i4];
        if (n4 != 1) {
          i1 += n8;
          i2 += n8;
          i3 += n8;
          i4 += n8;
          t1 = (x[i2] - x[i1]) * kSqrtHalf;
          const float t2 = (x[i4] + x[i3]) * kSqrtHalf;
          x[i1] = x[i1] + x[i2];
          x[i2] = x[i4] - x[i3];
          x[i3] = 2.0f * (-t2 - t1);
          x[i4] = 2.0f * (-t2 + t1);
        }
      }
      start = 2 * stride - group;
      stride = 4 * stride;
    } while (start < n - 1);

    for (int j = 1; j < n8; ++j) {
      const float cc1 = sincos_t_ext[kCosOffset + j * step];
      const float ss1 = sincos_t_ext[j * step];
      const float cc3 = sincos_t_ext[kCosOffset + 3 * j * step];
      const float ss3 = sincos_t_ext[3 * j * step];
      start = 0;
      stride = 2 * group;
      do {
        for (int i = start; i < n; i += stride) {
          const int i1 = i + j;
          const int i2 = i1 + n4;
          const int i3 = i2 + n4;
          const int i4 = i3 + n4;
          const int i5 = i + n4 - j;
          const int i6 = i5 + n4;
          const int i7 = i6 + n4;
          const int i8 = i7 + n4;
          float t1 = x[i1] - x[i6];
          x[i1] = x[i1] + x[i6];
          float t2 = x[i5] - x[i2];
          x[i5] = x[i2] + x[i5];
          const float t3 = x[i8] + x[i3];
          x[i6] = x[i8] - x[i3];
          float t4 = x[i4] + x[i7];
          x[i2] = x[i4] - x[i7];
          const float t5 = t1 - t4;
          t1 = t1 + t4;
          t4 = t2 - t3;
          t2 = t2 + t3;
          x[i3] = t5 * cc1 + t4 * ss1;
          x[i7] = -t4 * cc1 + t5 * ss1;
          x[i4] = t1 * cc3 - t2 * ss3;
          x[i8] = t2 * cc3 + t1 * ss3;
        }
        start = 2 * stride - group;
        stride = 4 * stride;
      } while (start < n - 1);
    }
  }

  // Length-2 butterflies.
  int start = 0;
  int stride = 4;
  do {
    for (int i = start; i < n; i += stride) {
      const float t = x[i];
      x[i] = t + x[i + 1];
      x[i + 1] = t - x[i + 1];
    }
    start = 2 * stride - 2;
    stride = 4 * stride;
  } while (start < n - 1);

  const float inv_n = 1.0f / n;
  if (HasTablePermutation(n)) {
    float scratch[kMaxTablePoints];
    GatherBitReversed(x, n, scratch);
    for (int i = 0; i < n; ++i) x[i] = scratch[i] * inv_n;
  } else {
    BitReverseInPlace(x, n);
    for (int i = 0; i < n; ++i) x[i] *= inv_n;
  }
}

}  // namespace vorn
