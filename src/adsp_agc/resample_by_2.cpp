// 2:1 decimation and 1:2 interpolation through a polyphase IIR half-band
// filter: H(z) = (A0(z^2) + z^-1 A1(z^2)) / 2, where A0 and A1 are cascades of
// three first-order all-pass sections (a + z^-1) / (1 + a z^-1) running at the
// low rate. Each output costs six multiplications, the passband is flat to
// within a fraction of a millidecibel (all-pass branches only differ in
// phase), and the response is exactly zero at the input's Nyquist frequency.
//
// The six coefficients are designed here, at compile time, as an elliptic
// half-band filter of order 13 (the classic closed form through the nome of
// the elliptic modulus and its theta series). Design assumptions: transition
// band 0.05 of the input rate on each side of the half-band point, i.e. the
// passband reaches 0.2 fs and the stopband starts at 0.3 fs, which gives about
// 80 dB of stopband attenuation. The sorted coefficients alternate between
// the branches: a0, a2, a4 form A0 and a1, a3, a5 form A1. In Q16 they are
// applied to samples held in Q10, so the filter keeps ten fractional bits of
// headroom against rounding noise.
#include <array>

#include "adsp_agc/agc_spl.h"

namespace vorn {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kCoefficientCount = 6;
constexpr double kTransitionWidth = 0.05;

constexpr double ConstSqrt(double x) {
  if (x <= 0.0) return 0.0;
  double root = x < 1.0 ? 1.0 : x;
  for (int i = 0; i < 200; ++i) root = 0.5 * (root + x / root);
  return root;
}

// sin and cos by their power series after reduction to [-pi, pi].
constexpr double ReduceAngle(double x) {
  const double turns = x / (2.0 * kPi);
  const long long whole = static_cast<long long>(turns < 0 ? turns - 0.5 : turns + 0.5);
  return x - static_cast<double>(whole) * 2.0 * kPi;
}

constexpr double ConstSin(double x) {
  x = ReduceAngle(x);
  double term = x, sum = x;
  for (int n = 1; n < 30; ++n) {
    term *= -x * x / ((2.0 * n) * (2.0 * n + 1.0));
    sum += term;
  }
  return sum;
}

constexpr double ConstCos(double x) {
  x = ReduceAngle(x);
  double term = 1.0, sum = 1.0;
  for (int n = 1; n < 30; ++n) {
    term *= -x * x / ((2.0 * n - 1.0) * (2.0 * n));
    sum += term;
  }
  return sum;
}

constexpr double ConstIntPow(double base, int exponent) {
  double result = 1.0;
  for (int i = 0; i < exponent; ++i) result *= base;
  return result;
}

constexpr std::array<double, kCoefficientCount> DesignHalfBandAllpass() {
  const int order = 2 * kCoefficientCount + 1;
  // Selectivity of the elliptic prototype and the nome q of its modulus.
  const double angle = (1.0 - 2.0 * kTransitionWidth) * kPi / 4.0;
  const double tan_angle = ConstSin(angle) / ConstCos(angle);
  const double k = tan_angle * tan_angle;
  const double kk = ConstSqrt(ConstSqrt(1.0 - k * k));
  const double e = 0.5 * (1.0 - kk) / (1.0 + kk);
  const double e4 = e * e * e * e;
  const double q = e * (1.0 + e4 * (2.0 + e4 * (15.0 + 150.0 * e4)));

  std::array<double, kCoefficientCount> coefficients{};
  for (int index = 0; index < kCoefficientCount; ++index) {
    const int c = index + 1;
    // Theta-function series; q is small, so a dozen terms exceed double precision.
    double numerator = 0.0, denominator = 0.5;
    for (int i = 0; i < 12; ++i) {
      const double sign = (i % 2 == 0) ? 1.0 : -1.0;
      numerator += sign * ConstIntPow(q, i * (i + 1)) * ConstSin((2 * i + 1) * c * kPi / order);
    }
    for (int i = 1; i < 12; ++i) {
      const double sign = (i % 2 == 1) ? -1.0 : 1.0;
      denominator += sign * ConstIntPow(q, i * i) * ConstCos(2.0 * i * c * kPi / order);
    }
    numerator *= ConstSqrt(ConstSqrt(q));
    const double w = numerator / denominator;
    const double w2 = w * w;
    const double x = ConstSqrt((1.0 - w2 * k) * (1.0 - w2 / k)) / (1.0 + w2);
    coefficients[index] = (1.0 - x) / (1.0 + x);
  }
  return coefficients;
}

constexpr std::array<double, kCoefficientCount> kHalfBand = DesignHalfBandAllpass();

constexpr int32_t ToQ16(double value) { return static_cast<int32_t>(value * 65536.0 + 0.5); }

// A0: the branch without the extra delay; A1: the delayed branch.
constexpr int32_t kResampleAllpass1[3] = {ToQ16(kHalfBand[0]), ToQ16(kHalfBand[2]), ToQ16(kHalfBand[4])};
constexpr int32_t kResampleAllpass2[3] = {ToQ16(kHalfBand[1]), ToQ16(kHalfBand[3]), ToQ16(kHalfBand[5])};

constexpr bool CoefficientsAreValid() {
  for (int i = 0; i < kCoefficientCount; ++i) {
    const int32_t current = ToQ16(kHalfBand[i]);
    if (current <= 0 || current >= 65536) return false;
    if (i > 0 && current <= ToQ16(kHalfBand[i - 1])) return false;
  }
  return true;
}
static_assert(CoefficientsAreValid(), "half-band design must give increasing coefficients in (0, 1)");

// Three chained sections y = x[-1] + a (x - y[-1]); the state holds, in
// order, the previous input of each section and the previous branch output
// (each section's previous output is the next one's previous input).
inline int32_t AllpassBranch(int32_t input_Q10, const int32_t* coefficients_Q16, int32_t* state) {
  int32_t x = input_Q10;
  for (int section = 0; section < 3; ++section) {
    const int64_t diff = static_cast<int64_t>(x) - state[section + 1];
    const int32_t y = static_cast<int32_t>(state[section] + ((coefficients_Q16[section] * diff) >> 16));
    state[section] = x;
    x = y;
  }
  state[3] = x;
  return x;
}

}  // namespace

void AdaptAgcSpl_DownsampleBy2(const int16_t* in, size_t len, int16_t* out, int32_t* filtState) {
  int32_t* delayed_state = filtState;      // A1, fed with the even samples
  int32_t* direct_state = filtState + 4;   // A0, fed with the odd samples
  for (size_t i = 0; i < len / 2; ++i) {
    const int32_t delayed = AllpassBranch(in[2 * i] * 1024, kResampleAllpass2, delayed_state);
    const int32_t direct = AllpassBranch(in[2 * i + 1] * 1024, kResampleAllpass1, direct_state);
    // Average of the branches, back from Q10 with rounding.
    out[i] = AdaptAgcSpl_SatW32ToW16(static_cast<int32_t>((static_cast<int64_t>(delayed) + direct + 1024) >> 11));
  }
}

void AdaptAgcSpl_UpsampleBy2(const int16_t* in, size_t len, int16_t* out, int32_t* filtState) {
  int32_t* direct_state = filtState;
  int32_t* delayed_state = filtState + 4;
  for (size_t i = 0; i < len; ++i) {
    const int32_t input_Q10 = in[i] * 1024;
    // One branch per output phase, each at unity gain: the half-band filter's
    // gain of two on the zero-stuffed input.
    const int32_t direct = AllpassBranch(input_Q10, kResampleAllpass1, direct_state);
    out[2 * i] = AdaptAgcSpl_SatW32ToW16((direct + 512) >> 10);
    const int32_t delayed = AllpassBranch(input_Q10, kResampleAllpass2, delayed_state);
    out[2 * i + 1] = AdaptAgcSpl_SatW32ToW16((delayed + 512) >> 10);
  }
}

}  // namespace vorn
