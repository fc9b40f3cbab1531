// Integer square root for the level statistics (standard deviations of Q10
// log levels). The argument is normalised to a mantissa in [0.5, 1) and an
// exponent; the mantissa's root comes from a short power series and the
// exponent's from a shift, with one multiplication by sqrt(2) when the
// exponent is odd.
//
// The series is expanded around 0.75, the middle of the mantissa range:
// sqrt(x) = sqrt(3/4) * sqrt(1 + t) with t = 4x/3 - 1 in [-1/3, 1/3), and
// sqrt(1 + t) = 1 + t/2 - t^2/8 + t^3/16 - 5t^4/128 + 7t^5/256 - 21t^6/1024.
// The first omitted term bounds the relative error by 33/2048 * 3^-7, about
// 7e-6, so every 32-bit argument gets its root to within one unit after
// rounding, with no loop and no division.
#include "adsp_agc/agc_spl.h"

namespace vorn {
namespace {

constexpr int64_t kOneQ30 = int64_t{1} << 30;
constexpr int64_t kFourThirdsQ30 = 1431655765;     // 4/3
constexpr int64_t kSqrtThreeQuartersQ31 = 1859775393;  // sqrt(3/4)
constexpr int64_t kSqrtTwoQ30 = 1518500250;        // sqrt(2)

// Coefficients of sqrt(1 + t) in Q30, highest power first (Horner order).
constexpr int64_t kSeriesQ30[] = {
    -(21 * kOneQ30) / 1024, (7 * kOneQ30) / 256, -(5 * kOneQ30) / 128,
    kOneQ30 / 16,           -kOneQ30 / 8,        kOneQ30 / 2,
    kOneQ30,
};

}  // namespace

int32_t AdaptAgcSpl_SqrtLocal(int32_t x_Q31) {
  const int64_t t_Q30 = ((static_cast<int64_t>(x_Q31) * kFourThirdsQ30) >> 31) - kOneQ30;
  int64_t poly_Q30 = 0;
  for (int64_t coefficient_Q30 : kSeriesQ30) poly_Q30 = ((poly_Q30 * t_Q30) >> 30) + coefficient_Q30;
  const int64_t root_Q31 = (poly_Q30 * kSqrtThreeQuartersQ31) >> 30;
  return root_Q31 > INT32_MAX ? INT32_MAX : static_cast<int32_t>(root_Q31);
}

int32_t AdaptAgcSpl_Sqrt(int32_t value) {
  // Negative arguments come from rounding in variance formulas; their
  // magnitude is as small as the true (near-zero) value.
  uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
  if (magnitude > 0x7FFFFFFFu) magnitude = 0x7FFFFFFFu;
  if (magnitude == 0) return 0;

  const int shift = AdaptAgcSpl_NormW32(static_cast<int32_t>(magnitude));
  const int32_t mantissa_Q31 = static_cast<int32_t>(magnitude << shift);  // in [0.5, 1)
  int64_t root_Q31 = AdaptAgcSpl_SqrtLocal(mantissa_Q31);
  // magnitude = mantissa * 2^exponent
  int exponent = 31 - shift;
  if (exponent & 1) {
    root_Q31 = (root_Q31 * kSqrtTwoQ30) >> 30;
    --exponent;
  }
  const int result_shift = 31 - exponent / 2;
  return static_cast<int32_t>((root_Q31 + (int64_t{1} << (result_shift - 1))) >> result_shift);
}

}  // namespace vorn
