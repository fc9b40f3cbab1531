// Centred smoothing of a spectrum by a short kernel:
//   out[o] = sum_j k[j] * s[o + j - (h-1)],  h = (K+1)/2,
// terms whose signal index falls outside s left out, summed in order of j.
// Each output clips its own term range, so the edge stretches (growing and
// shrinking term counts) and the full middle come out of one loop, and a
// signal shorter than the kernel still stays inside both arrays. A caller
// that reads only some outputs asks for that range alone.
//
// The suppressor smooths every hop with a 31-tap kernel over 257 bins, which
// makes this its hottest loop. The vector version (common/simd4.h) computes
// sixteen, then four, neighbouring outputs of the full middle at once, each
// lane adding the same products in the same order as the plain loop, so the
// two agree bit for bit.
#include "common/adsp_common_util.h"

#include "common/simd4.h"

namespace vorn {
namespace {

struct ConvShape {
  const float *signal;
  const float *kernel;
  int signal_len;
  int kernel_len;
  int lead;  // h - 1
};

// The longer array is the signal (b on ties).
ConvShape ShapeOf(const float *a, int alen, const float *b, int blen) {
  const bool a_is_signal = blen < alen;
  ConvShape c{a_is_signal ? a : b, a_is_signal ? b : a, a_is_signal ? alen : blen, a_is_signal ? blen : alen, 0};
  c.lead = (c.kernel_len + 1) / 2 - 1;
  return c;
}

void ConvOutputs(const ConvShape &c, int from, int to, float *out) {
  for (int o = from; o < to; ++o) {
    const int j_first = c.lead - o > 0 ? c.lead - o : 0;
    const int j_past = c.signal_len - o + c.lead < c.kernel_len ? c.signal_len - o + c.lead : c.kernel_len;
    float acc = 0.0f;
    for (int j = j_first; j < j_past; ++j) acc += c.kernel[j] * c.signal[o + j - c.lead];
    out[o] = acc;
  }
}

// The outputs the caller asked for, inside the signal; false when none.
bool ClipRange(const ConvShape &c, int *first, int *past) {
  if (*first < 0) *first = 0;
  if (*past > c.signal_len) *past = c.signal_len;
  return *first < *past;
}

int Max(int a, int b) { return a > b ? a : b; }
int Min(int a, int b) { return a < b ? a : b; }

}  // namespace

void ConvRangePlain(const float *a, int alen, const float *b, int blen, int first, int past, float *out) {
  if (alen <= 0 || blen <= 0) return;
  const ConvShape c = ShapeOf(a, alen, b, blen);
  if (!ClipRange(c, &first, &past)) return;
  ConvOutputs(c, first, past, out);
}

#if defined(VORN_SIMD4)
void ConvRangeSimd(const float *a, int alen, const float *b, int blen, int first, int past, float *out) {
  if (alen <= 0 || blen <= 0) return;
  const ConvShape c = ShapeOf(a, alen, b, blen);
  if (!ClipRange(c, &first, &past)) return;
  // Outputs lead .. signal_len - kernel_len + lead take every kernel term.
  const int full_first = Max(c.lead, first);
  const int full_past = Min(c.signal_len - c.kernel_len + c.lead + 1, past);
  if (full_past - full_first < 4) {
    ConvOutputs(c, first, past, out);
    return;
  }
  ConvOutputs(c, first, full_first, out);
  int o = full_first;
  // Sixteen outputs per pass share each kernel tap's broadcast.
  for (; o + 16 <= full_past; o += 16) {
    simd::F4 acc0 = simd::Zero(), acc1 = simd::Zero(), acc2 = simd::Zero(), acc3 = simd::Zero();
    const float *window = c.signal + o - c.lead;
    for (int j = 0; j < c.kernel_len; ++j) {
      const simd::F4 tap = simd::Set1(c.kernel[j]);
      acc0 = simd::Add(acc0, simd::Mul(tap, simd::Load(window + j)));
      acc1 = simd::Add(acc1, simd::Mul(tap, simd::Load(window + j + 4)));
      acc2 = simd::Add(acc2, simd::Mul(tap, simd::Load(window + j + 8)));
      acc3 = simd::Add(acc3, simd::Mul(tap, simd::Load(window + j + 12)));
    }
    simd::Store(out + o, acc0);
    simd::Store(out + o + 4, acc1);
    simd::Store(out + o + 8, acc2);
    simd::Store(out + o + 12, acc3);
  }
  for (; o + 4 <= full_past; o += 4) {
    simd::F4 acc = simd::Zero();
    const float *window = c.signal + o - c.lead;
    for (int j = 0; j < c.kernel_len; ++j) acc = simd::Add(acc, simd::Mul(simd::Set1(c.kernel[j]), simd::Load(window + j)));
    simd::Store(out + o, acc);
  }
  ConvOutputs(c, o, past, out);
}
#endif

#if defined(VORN_AVX2)
namespace {

// The signal between zeros, so the edge outputs run in vectors too: a term
// past an edge becomes k[j] * 0, a zero, and a sum that starts at +0 is not
// changed by adding a zero (it never becomes -0 in round-to-nearest), so each
// output keeps the plain loop's bits. That needs finite taps (Inf * 0 is NaN).
constexpr int kPaddedSignalMax = 512;
constexpr int kPaddedKernelMax = 64;

bool FitsPadded(const ConvShape &c) {
  if (c.signal_len > kPaddedSignalMax || c.kernel_len > kPaddedKernelMax) return false;
  for (int j = 0; j < c.kernel_len; ++j)
    if (!(c.kernel[j] - c.kernel[j] == 0.0f)) return false;
  return true;
}

// Outputs [o, past) in vectors, eight at a time and 32 per pass, where
// output o's first term reads src[o - shift]; returns the first output not
// formed (fewer than eight remain).
VORN_TARGET_AVX2 int ConvVectors(const ConvShape &c, const float *src, int shift, int o, int past, float *out) {
  for (; o + 32 <= past; o += 32) {
    __m256 acc0 = _mm256_setzero_ps(), acc1 = _mm256_setzero_ps(), acc2 = _mm256_setzero_ps(),
           acc3 = _mm256_setzero_ps();
    const float *window = src + (o - shift);
    for (int j = 0; j < c.kernel_len; ++j) {
      const __m256 tap = _mm256_set1_ps(c.kernel[j]);
      acc0 = _mm256_add_ps(acc0, _mm256_mul_ps(tap, _mm256_loadu_ps(window + j)));
      acc1 = _mm256_add_ps(acc1, _mm256_mul_ps(tap, _mm256_loadu_ps(window + j + 8)));
      acc2 = _mm256_add_ps(acc2, _mm256_mul_ps(tap, _mm256_loadu_ps(window + j + 16)));
      acc3 = _mm256_add_ps(acc3, _mm256_mul_ps(tap, _mm256_loadu_ps(window + j + 24)));
    }
    _mm256_storeu_ps(out + o, acc0);
    _mm256_storeu_ps(out + o + 8, acc1);
    _mm256_storeu_ps(out + o + 16, acc2);
    _mm256_storeu_ps(out + o + 24, acc3);
  }
  for (; o + 8 <= past; o += 8) {
    __m256 acc = _mm256_setzero_ps();
    const float *window = src + (o - shift);
    for (int j = 0; j < c.kernel_len; ++j)
      acc = _mm256_add_ps(acc, _mm256_mul_ps(_mm256_set1_ps(c.kernel[j]), _mm256_loadu_ps(window + j)));
    _mm256_storeu_ps(out + o, acc);
  }
  return o;
}

VORN_TARGET_AVX2 void ConvPaddedAvx2(const ConvShape &c, int first, int past, float *out) {
  alignas(32) float padded[kPaddedKernelMax + kPaddedSignalMax + kPaddedKernelMax];
  const int tail = c.kernel_len - c.lead;  // the last output's terms run this far past the signal
  for (int i = 0; i < c.lead; ++i) padded[i] = 0.0f;
  for (int i = 0; i < c.signal_len; ++i) padded[c.lead + i] = c.signal[i];
  for (int i = 0; i < tail; ++i) padded[c.lead + c.signal_len + i] = 0.0f;
  // The last few outputs: the eight ending at `past` (recomputing some, to the same bits).
  if (ConvVectors(c, padded, 0, first, past, out) < past) ConvVectors(c, padded, 0, past - 8, past, out);
}

}  // namespace

// The same with eight outputs per vector, 32 per pass; the edges too where the
// signal fits the padded copy.
VORN_TARGET_AVX2 void ConvRangeAvx2(const float *a, int alen, const float *b, int blen, int first, int past,
                                    float *out) {
  if (alen <= 0 || blen <= 0) return;
  const ConvShape c = ShapeOf(a, alen, b, blen);
  if (!ClipRange(c, &first, &past)) return;
  if (past - first >= 8 && FitsPadded(c)) {
    ConvPaddedAvx2(c, first, past, out);
    return;
  }
  const int full_first = Max(c.lead, first);
  const int full_past = Min(c.signal_len - c.kernel_len + c.lead + 1, past);
  if (full_past - full_first < 8) {
    ConvOutputs(c, first, past, out);
    return;
  }
  ConvOutputs(c, first, full_first, out);
  const int o = ConvVectors(c, c.signal, c.lead, full_first, full_past, out);
  ConvOutputs(c, o, past, out);
}
#endif

void ConvRange(const float *a, int alen, const float *b, int blen, int first, int past, float *out) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2())
    ConvRangeAvx2(a, alen, b, blen, first, past, out);
  else
    ConvRangeSimd(a, alen, b, blen, first, past, out);
#elif defined(VORN_SIMD4)
  ConvRangeSimd(a, alen, b, blen, first, past, out);
#else
  ConvRangePlain(a, alen, b, blen, first, past, out);
#endif
}

void ConvPlain(const float *a, int alen, const float *b, int blen, float *out) {
  ConvRangePlain(a, alen, b, blen, 0, alen > blen ? alen : blen, out);
}

#if defined(VORN_SIMD4)
void ConvSimd(const float *a, int alen, const float *b, int blen, float *out) {
  ConvRangeSimd(a, alen, b, blen, 0, alen > blen ? alen : blen, out);
}
#endif

void Conv(float *a, int alen, float *b, int blen, float *out) {
  ConvRange(a, alen, b, blen, 0, alen > blen ? alen : blen, out);
}

}  // namespace vorn
