// Divisions of the AGC's fixed-point arithmetic. The level statistics divide
// running sums by counts and log-level differences by a standard deviation
// that can be zero, so every routine has a defined result for a zero divisor
// (the largest representable value, read as "infinitely large") instead of a
// trap, and the narrow variant saturates rather than wrapping.
#include "adsp_agc/agc_spl.h"

namespace vorn {

uint32_t AdaptAgcSpl_DivU32U16(uint32_t num, uint16_t den) {
  if (den == 0) return 0xFFFFFFFFu;
  return num / den;
}

int32_t AdaptAgcSpl_DivW32W16(int32_t num, int16_t den) {
  if (den == 0) return 0x7FFFFFFF;
  // The only quotient outside int32: evaluated in 64 bits and saturated.
  const int64_t quotient = static_cast<int64_t>(num) / den;
  return quotient > INT32_MAX ? INT32_MAX : static_cast<int32_t>(quotient);
}

int16_t AdaptAgcSpl_DivW32W16ResW16(int32_t num, int16_t den) {
  if (den == 0) return 32767;
  const int64_t quotient = static_cast<int64_t>(num) / den;
  if (quotient > 32767) return 32767;
  if (quotient < -32768) return -32768;
  return static_cast<int16_t>(quotient);
}

void AdaptAgcSpl_MemSetW32(int32_t* ptr, int32_t value, size_t length) {
  for (size_t i = 0; i < length; ++i) ptr[i] = value;
}

}  // namespace vorn
