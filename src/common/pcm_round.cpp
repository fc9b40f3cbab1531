// Float blocks to 16-bit PCM: rounding, and the classic truncation. The vector paths clear NaNs, clamp,
// convert to nearest with ties to even (SSE2: the processor's rounding mode;
// NEON: the conversion that always rounds so) and narrow with saturation; the
// plain path does the same one sample at a time with
// nearbyint, which rounds the same way in the default rounding mode (the
// library never changes it).
#include "common/pcm_round.h"

#include <cmath>

#include "common/adsp_common_util.h"


namespace vorn {

void RoundToPcmPlain(const float* x, short* out, int n) {
  for (int i = 0; i < n; ++i) {
    float v = x[i] == x[i] ? x[i] : 0.0f;
    v = v > 32767.0f ? 32767.0f : v < -32768.0f ? -32768.0f : v;
    out[i] = static_cast<short>(std::nearbyint(v));
  }
}

#if defined(__SSE2__)
void RoundToPcmSimd(const float* x, short* out, int n) {
  const __m128 high = _mm_set1_ps(32767.0f), low = _mm_set1_ps(-32768.0f);
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    __m128 a = _mm_loadu_ps(x + i), b = _mm_loadu_ps(x + i + 4);
    a = _mm_and_ps(a, _mm_cmpord_ps(a, a));
    b = _mm_and_ps(b, _mm_cmpord_ps(b, b));
    a = _mm_min_ps(_mm_max_ps(a, low), high);
    b = _mm_min_ps(_mm_max_ps(b, low), high);
    const __m128i packed = _mm_packs_epi32(_mm_cvtps_epi32(a), _mm_cvtps_epi32(b));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), packed);
  }
  RoundToPcmPlain(x + i, out + i, n - i);
}
#elif defined(VORN_SIMD4)
void RoundToPcmSimd(const float* x, short* out, int n) {
  const float32x4_t high = vdupq_n_f32(32767.0f), low = vdupq_n_f32(-32768.0f);
  const auto clean = [&](float32x4_t v) {
    v = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(v), vceqq_f32(v, v)));  // NaN to 0
    return vcvtnq_s32_f32(vminq_f32(vmaxq_f32(v, low), high));
  };
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const int32x4_t a = clean(vld1q_f32(x + i)), b = clean(vld1q_f32(x + i + 4));
    vst1q_s16(out + i, vcombine_s16(vqmovn_s32(a), vqmovn_s32(b)));
  }
  RoundToPcmPlain(x + i, out + i, n - i);
}
#endif

// TRUNC's cases as masks: inside the open range the value truncated toward
// zero, past the rails the rail, and 0 for the rails themselves and NaN.
#if defined(__SSE2__)
void TruncToPcmSimd(const float* x, short* out, int n) {
  const __m128 top = _mm_set1_ps(32767.0f), bottom = _mm_set1_ps(-32768.0f);
  const __m128i top_i = _mm_set1_epi32(32767), bottom_i = _mm_set1_epi32(-32768);
  const auto trunc = [&](__m128 v) {
    const __m128i inside = _mm_castps_si128(_mm_and_ps(_mm_cmpgt_ps(v, bottom), _mm_cmplt_ps(v, top)));
    const __m128i above = _mm_castps_si128(_mm_cmpgt_ps(v, top));
    const __m128i below = _mm_castps_si128(_mm_cmplt_ps(v, bottom));
    return _mm_or_si128(_mm_and_si128(inside, _mm_cvttps_epi32(v)),
                        _mm_or_si128(_mm_and_si128(above, top_i), _mm_and_si128(below, bottom_i)));
  };
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i packed = _mm_packs_epi32(trunc(_mm_loadu_ps(x + i)), trunc(_mm_loadu_ps(x + i + 4)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), packed);
  }
  for (; i < n; ++i) out[i] = TRUNC(x[i]);
}
#elif defined(VORN_SIMD4)
void TruncToPcmSimd(const float* x, short* out, int n) {
  const float32x4_t top = vdupq_n_f32(32767.0f), bottom = vdupq_n_f32(-32768.0f);
  const int32x4_t top_i = vdupq_n_s32(32767), bottom_i = vdupq_n_s32(-32768), zero = vdupq_n_s32(0);
  const auto trunc = [&](float32x4_t v) {
    const uint32x4_t inside = vandq_u32(vcgtq_f32(v, bottom), vcltq_f32(v, top));
    const int32x4_t rail = vbslq_s32(vcgtq_f32(v, top), top_i, vbslq_s32(vcltq_f32(v, bottom), bottom_i, zero));
    return vbslq_s32(inside, vcvtq_s32_f32(v), rail);
  };
  int i = 0;
  for (; i + 8 <= n; i += 8)
    vst1q_s16(out + i, vcombine_s16(vmovn_s32(trunc(vld1q_f32(x + i))), vmovn_s32(trunc(vld1q_f32(x + i + 4)))));
  for (; i < n; ++i) out[i] = TRUNC(x[i]);
}
#endif

void RoundToPcm(const float* x, short* out, int n) {
#if defined(VORN_SIMD4)
  RoundToPcmSimd(x, out, n);
#else
  RoundToPcmPlain(x, out, n);
#endif
}

}  // namespace vorn
