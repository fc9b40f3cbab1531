// Trigonometry for tables computed at compile time from their rules. The
// angle is given as an exact fraction of a turn, reduced by octant on the
// integers, so the series only ever sees |a| <= pi/4 and quarter-turn points
// come out exact (sin(pi/2) = 1, sin(pi) = 0). A 12-term Taylor series on
// that range is accurate to a few units in the last place of a double.
#pragma once

namespace vorn::ct {

constexpr double kPi = 3.141592653589793238462643383279502884;

constexpr double SinSmall(double a) {
  const double a2 = a * a;
  double term = a;
  double sum = a;
  for (int k = 1; k < 12; ++k) {
    term *= -a2 / static_cast<double>((2 * k) * (2 * k + 1));
    sum += term;
  }
  return sum;
}

constexpr double CosSmall(double a) {
  const double a2 = a * a;
  double term = 1.0;
  double sum = 1.0;
  for (int k = 1; k < 12; ++k) {
    term *= -a2 / static_cast<double>((2 * k - 1) * (2 * k));
    sum += term;
  }
  return sum;
}

// sin(2*pi*num/den) for any num and den > 0.
constexpr double SinTurn(long num, long den) {
  num %= den;
  if (num < 0) num += den;
  // Eighths of a turn: octant o covers [o*den/8, (o+1)*den/8).
  const long o = (8 * num) / den;
  // Angle measured from the nearest multiple of a quarter turn, as a turn fraction.
  const long quarter_index = (o + 1) / 2;  // nearest quarter: 0..4
  const double frac = static_cast<double>(4 * num - quarter_index * den) / static_cast<double>(4 * den);
  const double a = 2.0 * kPi * frac;  // |a| <= pi/4
  switch (quarter_index % 4) {
    case 0: return SinSmall(a);    // sin(0 + a)
    case 1: return CosSmall(a);    // sin(pi/2 + a)
    case 2: return -SinSmall(a);   // sin(pi + a)
    default: return -CosSmall(a);  // sin(3pi/2 + a)
  }
}

// cos(2*pi*num/den).
constexpr double CosTurn(long num, long den) { return SinTurn(num * 4 + den, den * 4); }

constexpr double SqrtNewton(double v) {
  if (v <= 0.0) return 0.0;
  double r = v > 1.0 ? v : 1.0;
  for (int i = 0; i < 200; ++i) {
    const double next = 0.5 * (r + v / r);
    if (next == r) break;
    r = next;
  }
  return r;
}

}  // namespace vorn::ct
