// Float to 16-bit PCM for the enhanced paths: the nearest value (ties to
// even, as the processor rounds), saturated to -32768..32767; a NaN, which
// nothing should produce, reads as silence. The classic paths truncate
// (TRUNC); rounding adds no bias. RoundToPcmPlain is the reference;
// RoundToPcmSimd (SSE2 or NEON) gives its bits eight samples at a time, and
// RoundToPcm takes it where the build has one.
#pragma once

#include "common/simd4.h"

namespace vorn {

void RoundToPcm(const float* x, short* out, int n);

// The classic paths' truncation (TRUNC, adsp_common_util.h) eight samples at
// a time, with its bits; Float2PCM takes it where the build has vectors.
#if defined(VORN_SIMD4)
void TruncToPcmSimd(const float* x, short* out, int n);
#endif
void RoundToPcmPlain(const float* x, short* out, int n);
#if defined(VORN_SIMD4)
void RoundToPcmSimd(const float* x, short* out, int n);
#endif

}  // namespace vorn
