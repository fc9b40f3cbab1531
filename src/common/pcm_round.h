// Float to 16-bit PCM by rounding to the nearest value, with saturation.
// The enhanced paths use it where the classic ones truncate (TRUNC): rounding
// adds no bias, and a NaN, which nothing should produce, reads as silence.
#pragma once

#include <cmath>

namespace vorn {

inline short RoundToPcm(float x) {
  if (!(x > -32768.5f)) return x < 0.0f ? -32768 : 0;
  if (x >= 32766.5f) return 32767;
  return static_cast<short>(std::floor(x + 0.5f));
}

}  // namespace vorn
