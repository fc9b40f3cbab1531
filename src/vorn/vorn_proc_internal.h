// Conversions the core uses between its stages.
#pragma once

#include <cstdint>

namespace vorn {

// Decibel figures to Q10 integers for the AGC: above hTh gives hTh*1024,
// below lTh gives -lTh*1024 (a large positive value), else truncated.
void Float2int32_SNR(const float* pfSnr, int32_t* piSnr, int hTh, int lTh, int num);

// A frame's code is its first failing module's.
inline void KeepFirstFailure(int32_t* frame_code, int32_t module_code) {
  if (*frame_code == 0) *frame_code = module_code;
}

}  // namespace vorn
