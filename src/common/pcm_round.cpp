// Rounding float blocks to 16-bit PCM. The SSE2 path clears NaNs, clamps,
// converts with the processor's rounding (to nearest, ties to even) and packs
// with saturation; the plain path does the same one sample at a time with
// nearbyint, which rounds the same way in the default rounding mode (the
// library never changes it).
#include "common/pcm_round.h"

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vorn {

void RoundToPcmPlain(const float* x, short* out, int n) {
  for (int i = 0; i < n; ++i) {
    float v = x[i] == x[i] ? x[i] : 0.0f;
    v = v > 32767.0f ? 32767.0f : v < -32768.0f ? -32768.0f : v;
    out[i] = static_cast<short>(std::nearbyint(v));
  }
}

#if defined(__SSE2__)
void RoundToPcmSse2(const float* x, short* out, int n) {
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
#endif

void RoundToPcm(const float* x, short* out, int n) {
#if defined(__SSE2__)
  RoundToPcmSse2(x, out, n);
#else
  RoundToPcmPlain(x, out, n);
#endif
}

}  // namespace vorn
