// Four-lane twins of the filter kernels (common/simd4.h). Each performs the
// plain kernel's operations per bin in its order, so gives its bits:
// FilterFar and the error scaling run four bins per vector; FilterAdaptation runs the gradient
// constraint of four partitions at once, one per lane of the batched
// transforms, turning four bins of four partitions with one 4x4 transpose
// on the way in and out. With AVX2 the batches take eight partitions, two
// such groups of four side by side, and both filters adapt in one pass.
#include "adsp_aec/aec_core.h"

#if defined(VORN_SIMD4)

namespace vorn {
namespace {

using simd::F4;

static_assert(kNormalNumPartitions % 4 == 0 && kExtendedNumPartitions % 4 == 0,
              "the partitions are batched four at a time");

int PartitionOffset(const AecCore* aec, int p) {
  int q = aec->xfBufBlockPos + p;
  if (q >= aec->num_partitions) q -= aec->num_partitions;
  return q * kAecBins;
}

}  // namespace

void FilterFarSimd(AecCore* aec, float yf[2][kAecBins]) {
  const float* w_re = ActiveFilter(aec, 0);
  const float* w_im = ActiveFilter(aec, 1);
  if (w_re == nullptr) return;
  constexpr int kLast = kAecBins - 1;  // bin 64, after the 16 vectors
  for (int p = 0; p < aec->num_partitions; ++p) {
    const int xpos = PartitionOffset(aec, p);
    const float* xr = &aec->xfBuf[0][xpos];
    const float* xi = &aec->xfBuf[1][xpos];
    const float* wr = w_re + p * kAecBins;
    const float* wi = w_im + p * kAecBins;
    for (int k = 0; k < kLast; k += 4) {
      const F4 vxr = simd::Load(xr + k);
      const F4 vxi = simd::Load(xi + k);
      const F4 vwr = simd::Load(wr + k);
      const F4 vwi = simd::Load(wi + k);
      simd::Store(yf[0] + k, simd::Add(simd::Load(yf[0] + k), simd::Sub(simd::Mul(vxr, vwr), simd::Mul(vxi, vwi))));
      simd::Store(yf[1] + k, simd::Add(simd::Load(yf[1] + k), simd::Add(simd::Mul(vxr, vwi), simd::Mul(vxi, vwr))));
    }
    yf[0][kLast] += xr[kLast] * wr[kLast] - xi[kLast] * wi[kLast];
    yf[1][kLast] += xr[kLast] * wi[kLast] + xi[kLast] * wr[kLast];
  }
}

#if defined(VORN_AVX2)
// Eight bins per vector.
VORN_TARGET_AVX2 void FilterFarAvx2(AecCore* aec, float yf[2][kAecBins]) {
  const float* w_re = ActiveFilter(aec, 0);
  const float* w_im = ActiveFilter(aec, 1);
  if (w_re == nullptr) return;
  constexpr int kLast = kAecBins - 1;
  __m256 acc_re[kLast / 8], acc_im[kLast / 8];
  for (int v = 0; v < kLast / 8; ++v) {
    acc_re[v] = _mm256_loadu_ps(yf[0] + 8 * v);
    acc_im[v] = _mm256_loadu_ps(yf[1] + 8 * v);
  }
  for (int p = 0; p < aec->num_partitions; ++p) {
    const int xpos = PartitionOffset(aec, p);
    const float* xr = &aec->xfBuf[0][xpos];
    const float* xi = &aec->xfBuf[1][xpos];
    const float* wr = w_re + p * kAecBins;
    const float* wi = w_im + p * kAecBins;
    for (int v = 0; v < kLast / 8; ++v) {
      const int k = 8 * v;
      const __m256 vxr = _mm256_loadu_ps(xr + k), vxi = _mm256_loadu_ps(xi + k);
      const __m256 vwr = _mm256_loadu_ps(wr + k), vwi = _mm256_loadu_ps(wi + k);
      acc_re[v] = _mm256_add_ps(acc_re[v], _mm256_sub_ps(_mm256_mul_ps(vxr, vwr), _mm256_mul_ps(vxi, vwi)));
      acc_im[v] = _mm256_add_ps(acc_im[v], _mm256_add_ps(_mm256_mul_ps(vxr, vwi), _mm256_mul_ps(vxi, vwr)));
    }
    yf[0][kLast] += xr[kLast] * wr[kLast] - xi[kLast] * wi[kLast];
    yf[1][kLast] += xr[kLast] * wi[kLast] + xi[kLast] * wr[kLast];
  }
  for (int v = 0; v < kLast / 8; ++v) {
    _mm256_storeu_ps(yf[0] + 8 * v, acc_re[v]);
    _mm256_storeu_ps(yf[1] + 8 * v, acc_im[v]);
  }
}
#endif

// Both branches on every lane; each bin keeps its own.
void ScaleErrorBinsSimd(const float* x_pow, float limit, float mu, float ef[2][kAecBins]) {
  const F4 vlimit = simd::Set1(limit), vmu = simd::Set1(mu), tiny = simd::Set1(1e-10f);
  constexpr int kLast = kAecBins - 1;
  for (int k = 0; k < kLast; k += 4) {
    const F4 e0 = simd::Load(ef[0] + k), e1 = simd::Load(ef[1] + k), xp = simd::Load(x_pow + k);
    const F4 abs_ef = simd::Sqrt(simd::Add(simd::Mul(e0, e0), simd::Mul(e1, e1)));
    const simd::M4 limited = simd::Gt(abs_ef, simd::Mul(xp, vlimit));
    const F4 scale = simd::Div(vlimit, simd::Add(abs_ef, tiny));
    const F4 power = simd::Add(xp, tiny);
    const F4 r0 = simd::Select(limited, simd::Mul(e0, scale), simd::Div(e0, power));
    const F4 r1 = simd::Select(limited, simd::Mul(e1, scale), simd::Div(e1, power));
    simd::Store(ef[0] + k, simd::Mul(r0, vmu));
    simd::Store(ef[1] + k, simd::Mul(r1, vmu));
  }
  ScaleErrorBinAt(x_pow, limit, mu, ef, kLast);
}

bool FarSpanAboveSimd(const float* x_re, const float* x_im, int n, float divisor, float threshold) {
  simd::D2 even = simd::Set1D(0.0), odd = simd::Set1D(0.0);
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const F4 re = simd::Load(x_re + i), im = simd::Load(x_im + i);
    const F4 power = simd::Add(simd::Mul(re, re), simd::Mul(im, im));
    even = simd::AddD(even, simd::LowToDouble(power));
    odd = simd::AddD(odd, simd::HighToDouble(power));
  }
  double lanes[2];
  simd::StoreD(lanes, simd::AddD(even, odd));
  double sum = lanes[0] + lanes[1];
  for (; i < n; ++i) sum += static_cast<double>(x_re[i] * x_re[i] + x_im[i] * x_im[i]);
  const double mean = sum / static_cast<double>(divisor);
  if (mean > static_cast<double>(threshold) * (1.0 + 1e-3)) return true;
  if (mean < static_cast<double>(threshold) * (1.0 - 1e-3)) return false;  // NaN falls through
  return FarSpanAbovePlain(x_re, x_im, n, divisor, threshold);
}

namespace {

// The gradient spectra of partitions p0..p0+3 in four lanes: element i of
// partition p0 + l goes to lanes[stride * i + l].
void GatherGradients(const AecCore* aec, const float ef[2][kAecBins], int p0, float* lanes, int stride) {
  constexpr int kLast = kAecBins - 1;
  const float* xr[4];
  const float* xi[4];
  for (int l = 0; l < 4; ++l) {
    const int xpos = PartitionOffset(aec, p0 + l);
    xr[l] = &aec->xfBuf[0][xpos];
    xi[l] = &aec->xfBuf[1][xpos];
  }
  for (int k = 0; k < kLast; k += 4) {
    const F4 e0 = simd::Load(ef[0] + k);
    const F4 e1 = simd::Load(ef[1] + k);
    F4 re[4], im[4];
    for (int l = 0; l < 4; ++l) {
      const F4 vxr = simd::Load(xr[l] + k);
      const F4 vxi = simd::Load(xi[l] + k);
      re[l] = simd::Add(simd::Mul(vxr, e0), simd::Mul(vxi, e1));
      im[l] = simd::Sub(simd::Mul(vxr, e1), simd::Mul(vxi, e0));
    }
    simd::Transpose(re[0], re[1], re[2], re[3]);
    simd::Transpose(im[0], im[1], im[2], im[3]);
    for (int i = 0; i < 4; ++i) {
      simd::Store(lanes + stride * (2 * (k + i)), re[i]);
      simd::Store(lanes + stride * (2 * (k + i) + 1), im[i]);
    }
  }
  // The packing puts bin 64's real part where bin 0's imaginary part was.
  float last[4];
  for (int l = 0; l < 4; ++l) last[l] = xr[l][kLast] * ef[0][kLast] + xi[l][kLast] * ef[1][kLast];
  simd::Store(lanes + stride, simd::Load(last));
}

// The constraint between the transforms: only the first 64 taps of each
// partition move.
void KeepFirstTaps(float* lanes, int stride) {
  const F4 scale = simd::Set1(0.015625f);
  for (int i = 0; i < kAecBlockLen * stride; i += 4) {
    simd::Store(lanes + i, simd::Mul(simd::Load(lanes + i), scale));
    simd::Store(lanes + kAecBlockLen * stride + i, simd::Zero());
  }
}

// Adds the constrained gradients of partitions p0..p0+3, laid out as
// GatherGradients lays them, to the filter.
void AddGradients(const float* lanes, int stride, int p0, float* w_re, float* w_im) {
  constexpr int kLast = kAecBins - 1;
  for (int k = 0; k < kLast; k += 4) {
    F4 re[4], im[4];
    for (int i = 0; i < 4; ++i) {
      re[i] = simd::Load(lanes + stride * (2 * (k + i)));
      im[i] = simd::Load(lanes + stride * (2 * (k + i) + 1));
    }
    simd::Transpose(re[0], re[1], re[2], re[3]);
    simd::Transpose(im[0], im[1], im[2], im[3]);
    for (int l = 0; l < 4; ++l) {
      float* wr = w_re + (p0 + l) * kAecBins + k;
      float* wi = w_im + (p0 + l) * kAecBins + k;
      simd::Store(wr, simd::Add(simd::Load(wr), re[l]));
      if (k > 0) {
        simd::Store(wi, simd::Add(simd::Load(wi), im[l]));
      } else {  // bin 0 has no imaginary part: its slot held bin 64
        alignas(16) float bin0[4];
        simd::Store(bin0, im[l]);
        for (int i = 1; i < 4; ++i) wi[i] += bin0[i];
      }
    }
  }
  for (int l = 0; l < 4; ++l) w_re[(p0 + l) * kAecBins + kLast] += lanes[stride + l];
}

// Partitions p0..p0+3, one per lane of the four-lane transforms.
void AdaptFourPartitions(AecCore* aec, const float ef[2][kAecBins], int p0, float* w_re, float* w_im) {
  alignas(16) F4 a[kAecBlockLen2];
  float* lanes = reinterpret_cast<float*>(a);
  GatherGradients(aec, ef, p0, lanes, 4);
  aec_rdft_inverse_128_x4(a);
  KeepFirstTaps(lanes, 4);
  aec_rdft_forward_128_x4(a);
  AddGradients(lanes, 4, p0, w_re, w_im);
}

}  // namespace

void FilterAdaptationSimd(AecCore* aec, float ef[2][kAecBins]) {
  float* w_re = ActiveFilter(aec, 0);
  float* w_im = ActiveFilter(aec, 1);
  if (w_re == nullptr) return;
  for (int p0 = 0; p0 < aec->num_partitions; p0 += 4) AdaptFourPartitions(aec, ef, p0, w_re, w_im);
}

#if defined(VORN_AVX2)
namespace {

// Turns eight rows of eight floats: row i of the result is element i of each.
VORN_TARGET_AVX2 inline void Transpose8(__m256 (&r)[8]) {
  __m256 t[8], s[8];
  for (int i = 0; i < 8; i += 2) {
    t[i] = _mm256_unpacklo_ps(r[i], r[i + 1]);
    t[i + 1] = _mm256_unpackhi_ps(r[i], r[i + 1]);
  }
  for (int i = 0; i < 8; i += 4) {
    s[i] = _mm256_shuffle_ps(t[i], t[i + 2], _MM_SHUFFLE(1, 0, 1, 0));
    s[i + 1] = _mm256_shuffle_ps(t[i], t[i + 2], _MM_SHUFFLE(3, 2, 3, 2));
    s[i + 2] = _mm256_shuffle_ps(t[i + 1], t[i + 3], _MM_SHUFFLE(1, 0, 1, 0));
    s[i + 3] = _mm256_shuffle_ps(t[i + 1], t[i + 3], _MM_SHUFFLE(3, 2, 3, 2));
  }
  for (int i = 0; i < 4; ++i) {
    r[i] = _mm256_permute2f128_ps(s[i], s[i + 4], 0x20);
    r[i + 4] = _mm256_permute2f128_ps(s[i], s[i + 4], 0x31);
  }
}

// Four partitions of one filter: the lanes of an eight-partition batch that
// they fill, four each.
struct Group {
  const float (*ef)[kAecBins];
  float* w_re;
  float* w_im;
  int p0;
};

// GatherGradients for two groups side by side, eight bins of all eight
// partitions per step with one 8 x 8 turn for each of the real and the
// imaginary parts.
VORN_TARGET_AVX2 void GatherGradients8(const AecCore* aec, const Group& lo, const Group& hi, float* lanes) {
  constexpr int kLast = kAecBins - 1;
  const float* xr[8];
  const float* xi[8];
  const float(*ef[8])[kAecBins];
  for (int l = 0; l < 8; ++l) {
    const Group& g = l < 4 ? lo : hi;
    const int xpos = PartitionOffset(aec, g.p0 + l % 4);
    xr[l] = &aec->xfBuf[0][xpos];
    xi[l] = &aec->xfBuf[1][xpos];
    ef[l] = g.ef;
  }
  for (int k = 0; k < kLast; k += 8) {
    const __m256 e0[2] = {_mm256_loadu_ps(lo.ef[0] + k), _mm256_loadu_ps(hi.ef[0] + k)};
    const __m256 e1[2] = {_mm256_loadu_ps(lo.ef[1] + k), _mm256_loadu_ps(hi.ef[1] + k)};
    __m256 re[8], im[8];
    for (int l = 0; l < 8; ++l) {
      const __m256 vxr = _mm256_loadu_ps(xr[l] + k), vxi = _mm256_loadu_ps(xi[l] + k);
      re[l] = _mm256_add_ps(_mm256_mul_ps(vxr, e0[l / 4]), _mm256_mul_ps(vxi, e1[l / 4]));
      im[l] = _mm256_sub_ps(_mm256_mul_ps(vxr, e1[l / 4]), _mm256_mul_ps(vxi, e0[l / 4]));
    }
    Transpose8(re);
    Transpose8(im);
    for (int i = 0; i < 8; ++i) {
      _mm256_store_ps(lanes + 8 * (2 * (k + i)), re[i]);
      _mm256_store_ps(lanes + 8 * (2 * (k + i) + 1), im[i]);
    }
  }
  for (int l = 0; l < 8; ++l) lanes[8 + l] = xr[l][kLast] * ef[l][0][kLast] + xi[l][kLast] * ef[l][1][kLast];
}

// AddGradients for two groups side by side.
VORN_TARGET_AVX2 void AddGradients8(const float* lanes, const Group& lo, const Group& hi) {
  constexpr int kLast = kAecBins - 1;
  float* wr[8];
  float* wi[8];
  for (int l = 0; l < 8; ++l) {
    const Group& g = l < 4 ? lo : hi;
    wr[l] = g.w_re + (g.p0 + l % 4) * kAecBins;
    wi[l] = g.w_im + (g.p0 + l % 4) * kAecBins;
  }
  for (int k = 0; k < kLast; k += 8) {
    __m256 re[8], im[8];
    for (int i = 0; i < 8; ++i) {
      re[i] = _mm256_load_ps(lanes + 8 * (2 * (k + i)));
      im[i] = _mm256_load_ps(lanes + 8 * (2 * (k + i) + 1));
    }
    Transpose8(re);
    Transpose8(im);
    for (int l = 0; l < 8; ++l) {
      _mm256_storeu_ps(wr[l] + k, _mm256_add_ps(_mm256_loadu_ps(wr[l] + k), re[l]));
      const __m256 old = _mm256_loadu_ps(wi[l] + k);
      const __m256 sum = _mm256_add_ps(old, im[l]);
      // Bin 0 has no imaginary part: its slot held bin 64.
      _mm256_storeu_ps(wi[l] + k, k == 0 ? _mm256_blend_ps(sum, old, 0x01) : sum);
    }
  }
  for (int l = 0; l < 8; ++l) wr[l][kLast] += lanes[8 + l];
}

}  // namespace

// Both filters in one pass: their partitions, in groups of four, make batches
// of eight (the short filters' 24 partitions are three batches, where one
// filter at a time would take four). Each filter's adaptation reads only the
// far history and its own error, so the order of the batches does not matter.
VORN_TARGET_AVX2 void FilterAdaptationBothAvx2(AecCore* aec, const float ef_adaptive[2][kAecBins],
                                               const float ef_main[2][kAecBins]) {
  Group groups[2 * kMaxPartitions / 4];
  int count = 0;
  for (int p0 = 0; p0 < aec->num_partitions; p0 += 4) groups[count++] = {ef_adaptive, aec->wfBuf[0], aec->wfBuf[1], p0};
  for (int p0 = 0; p0 < aec->num_partitions; p0 += 4) {
    groups[count++] = {ef_main, aec->wfBuf_main[0], aec->wfBuf_main[1], p0};
  }
  int g = 0;
  for (; g + 2 <= count; g += 2) {
    const Group& lo = groups[g];
    const Group& hi = groups[g + 1];
    alignas(32) __m256 a[kAecBlockLen2];
    float* lanes = reinterpret_cast<float*>(a);
    GatherGradients8(aec, lo, hi, lanes);
    aec_rdft_inverse_128_x8(a);
    KeepFirstTaps(lanes, 8);
    aec_rdft_forward_128_x8(a);
    AddGradients8(lanes, lo, hi);
  }
  for (; g < count; ++g) AdaptFourPartitions(aec, groups[g].ef, groups[g].p0, groups[g].w_re, groups[g].w_im);
}
#endif

}  // namespace vorn

#endif  // defined(VORN_SIMD4)
