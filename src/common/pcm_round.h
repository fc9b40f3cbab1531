// Float to 16-bit PCM for the enhanced paths: the nearest value (ties to
// even, as the processor rounds), saturated to -32768..32767; a NaN, which
// nothing should produce, reads as silence. The classic paths truncate
// (TRUNC); rounding adds no bias. RoundToPcmPlain is the reference;
// RoundToPcmSse2 gives its bits four samples at a time, and RoundToPcm takes
// the SSE2 one where the build has it.
#pragma once

namespace vorn {

void RoundToPcm(const float* x, short* out, int n);
void RoundToPcmPlain(const float* x, short* out, int n);
#if defined(__SSE2__)
void RoundToPcmSse2(const float* x, short* out, int n);
#endif

}  // namespace vorn
