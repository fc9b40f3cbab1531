// Fixed-point helpers of the AGC: 32/16-bit division with defined results for
// a zero divisor, an integer square root, the half-band 2:1 resamplers and the
// normalisation counts the log-domain arithmetic is built on.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace vorn {

// Unsigned 32 by 16 bits; a zero divisor gives 0xFFFFFFFF.
uint32_t AdaptAgcSpl_DivU32U16(uint32_t num, uint16_t den);
// Signed 32 by 16 bits, truncating toward zero; a zero divisor gives
// 0x7FFFFFFF, and the one quotient that does not fit (INT32_MIN / -1)
// saturates to 0x7FFFFFFF.
int32_t AdaptAgcSpl_DivW32W16(int32_t num, int16_t den);
// The same with a 16-bit result, saturated; a zero divisor gives 32767.
int16_t AdaptAgcSpl_DivW32W16ResW16(int32_t num, int16_t den);

// sqrt(x) for a normalised x in [0.5, 1), argument and result in Q31.
int32_t AdaptAgcSpl_SqrtLocal(int32_t x_Q31);
// Rounded integer square root of |value|.
int32_t AdaptAgcSpl_Sqrt(int32_t value);

// Decimates len samples to len/2 through the two-branch all-pass half-band
// filter; filtState holds 8 words and carries the filter across calls.
void AdaptAgcSpl_DownsampleBy2(const int16_t* in, size_t len, int16_t* out, int32_t* filtState);
// Interpolates len samples to 2*len through the same filter pair.
void AdaptAgcSpl_UpsampleBy2(const int16_t* in, size_t len, int16_t* out, int32_t* filtState);

void AdaptAgcSpl_MemSetW32(int32_t* ptr, int32_t value, size_t length);

// Left shifts that bring the leading one of a to bit 31 (0 for a == 0).
inline int16_t AdaptAgcSpl_NormU32(uint32_t a) {
  return a == 0 ? 0 : static_cast<int16_t>(std::countl_zero(a));
}

// Left shifts that bring a to the range [2^30, 2^31) in magnitude (0 for a == 0).
inline int16_t AdaptAgcSpl_NormW32(int32_t a) {
  if (a == 0) return 0;
  const uint32_t magnitude = a < 0 ? ~static_cast<uint32_t>(a) : static_cast<uint32_t>(a);
  return static_cast<int16_t>(std::countl_zero(magnitude) - 1);
}

inline int16_t AdaptAgcSpl_SatW32ToW16(int32_t value) {
  if (value > 32767) return 32767;
  if (value < -32768) return -32768;
  return static_cast<int16_t>(value);
}

}  // namespace vorn
