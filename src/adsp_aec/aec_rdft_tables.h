// Twiddle tables of the 128-point real FFT, computed at compile time from
// their rule and rounded to float. theta_m = 2 * rev4(m) * pi / 64, m = 0..15,
// where rev4 reverses the four bits of m: the complex twiddles in the
// bit-reversed order the radix-4 stages walk them.
//   rdft_w            cos/sin theta_m pairs, then the cosine table of the
//                     real-data stages (c[0] = cos(pi/4), c[16] = c[0]/2,
//                     c[j] = cos(j pi/64)/2, c[32-j] = sin(j pi/64)/2)
//   rdft_wkNr         cos(N theta_m), each value twice
//   rdft_wkNi         (-sin(N theta_m), +sin(N theta_m))
//   rdft_wk3ri_*      (cos 3 theta, sin 3 theta) for even / odd m
// The wk tables lay the factors out in lane order so that a vector stage
// handling two complex values loads them with one aligned load.
#pragma once

#include <array>
#include <utility>

namespace vorn {
namespace rdft_detail {

// sin and cos of k * pi / 64 in double: exact octant reduction on the integer
// k, then a Taylor series on |x| <= pi/4 (error far below float rounding).
constexpr double kPi = 3.14159265358979323846264338327950288;

constexpr double TaylorSin(double x) {
  double term = x, sum = x;
  for (int n = 1; n < 14; ++n) {
    term *= -x * x / ((2.0 * n) * (2.0 * n + 1.0));
    sum += term;
  }
  return sum;
}

constexpr double TaylorCos(double x) {
  double term = 1.0, sum = 1.0;
  for (int n = 1; n < 14; ++n) {
    term *= -x * x / ((2.0 * n - 1.0) * (2.0 * n));
    sum += term;
  }
  return sum;
}

// sin(k pi / 64) for any integer k.
constexpr double SinPi64(int k) {
  k %= 128;
  if (k < 0) k += 128;
  double sign = 1.0;
  if (k >= 64) {  // sin(x + pi) = -sin(x)
    k -= 64;
    sign = -1.0;
  }
  if (k > 32) k = 64 - k;  // sin(pi - x) = sin(x)
  // now 0 <= k <= 32 (0..pi/2)
  if (k == 0) return 0.0;  // an exact zero, never -0
  if (k <= 16) return sign * TaylorSin(k * kPi / 64.0);
  return sign * TaylorCos((32 - k) * kPi / 64.0);
}

constexpr double CosPi64(int k) { return SinPi64(k + 32); }

constexpr int Rev4(int m) { return ((m & 1) << 3) | ((m & 2) << 1) | ((m & 4) >> 1) | ((m & 8) >> 3); }

// theta_m in units of pi / 64.
constexpr int Theta(int m) { return 2 * Rev4(m); }

constexpr std::array<float, 64> MakeW() {
  std::array<float, 64> w{};
  for (int m = 0; m < 16; ++m) {
    w[2 * m] = static_cast<float>(CosPi64(Theta(m)));
    w[2 * m + 1] = static_cast<float>(SinPi64(Theta(m)));
  }
  float* c = w.data() + 32;
  c[0] = static_cast<float>(CosPi64(16));
  c[16] = 0.5f * c[0];
  for (int j = 1; j < 16; ++j) {
    c[j] = static_cast<float>(0.5 * CosPi64(j));
    c[32 - j] = static_cast<float>(0.5 * SinPi64(j));
  }
  return w;
}

constexpr std::array<float, 32> MakeWkr(int multiple) {
  std::array<float, 32> t{};
  for (int m = 0; m < 16; ++m) {
    const float v = static_cast<float>(CosPi64(multiple * Theta(m)));
    t[2 * m] = v;
    t[2 * m + 1] = v;
  }
  return t;
}

constexpr std::array<float, 32> MakeWki(int multiple) {
  std::array<float, 32> t{};
  for (int m = 0; m < 16; ++m) {
    const float v = static_cast<float>(SinPi64(multiple * Theta(m)));
    t[2 * m] = -v;
    t[2 * m + 1] = v;
  }
  return t;
}

constexpr std::array<float, 16> MakeWk3ri(int parity) {
  std::array<float, 16> t{};
  for (int m = 0; m < 8; ++m) {
    t[2 * m] = static_cast<float>(CosPi64(3 * Theta(2 * m + parity)));
    t[2 * m + 1] = static_cast<float>(SinPi64(3 * Theta(2 * m + parity)));
  }
  return t;
}

// Bit reversal of the 64 complex pairs is a fixed permutation: the 28 pairs
// of float offsets that trade places.
constexpr int Rev6(int i) {
  int r = 0;
  for (int b = 0; b < 6; ++b) r |= ((i >> b) & 1) << (5 - b);
  return r;
}

constexpr std::array<std::pair<int, int>, 28> MakeBitReversalSwaps() {
  std::array<std::pair<int, int>, 28> swaps{};
  int count = 0;
  for (int i = 0; i < 64; ++i) {
    if (Rev6(i) > i) swaps[count++] = {2 * i, 2 * Rev6(i)};
  }
  return swaps;
}

}  // namespace rdft_detail

alignas(16) inline constexpr std::array<float, 64> rdft_w = rdft_detail::MakeW();
alignas(16) inline constexpr std::array<float, 32> rdft_wk1r = rdft_detail::MakeWkr(1);
alignas(16) inline constexpr std::array<float, 32> rdft_wk2r = rdft_detail::MakeWkr(2);
alignas(16) inline constexpr std::array<float, 32> rdft_wk3r = rdft_detail::MakeWkr(3);
alignas(16) inline constexpr std::array<float, 32> rdft_wk1i = rdft_detail::MakeWki(1);
alignas(16) inline constexpr std::array<float, 32> rdft_wk2i = rdft_detail::MakeWki(2);
alignas(16) inline constexpr std::array<float, 32> rdft_wk3i = rdft_detail::MakeWki(3);
alignas(16) inline constexpr std::array<float, 16> rdft_wk3ri_first = rdft_detail::MakeWk3ri(0);
alignas(16) inline constexpr std::array<float, 16> rdft_wk3ri_second = rdft_detail::MakeWk3ri(1);
inline constexpr std::array<std::pair<int, int>, 28> rdft_bit_reversal_swaps = rdft_detail::MakeBitReversalSwaps();

}  // namespace vorn
