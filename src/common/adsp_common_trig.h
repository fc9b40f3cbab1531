// Compile-time trigonometry for the constant tables: sines and cosines of
// rational fractions of a turn. The series run in double (a reduced-argument
// Taylor series, accurate to a few units in the last place of a double), so
// an entry rounded to float once is the correctly rounded float of the exact
// figure. Quarter-turn symmetry is applied on the turn fraction before any
// series is evaluated, which makes sin(pi/2) = 1 and sin(pi) = 0 come out
// exactly. Every table built from these functions holds the same float for
// the same angle, whichever file builds it.
#pragma once

namespace vorn::trig {

constexpr double kPi = 3.141592653589793238462643383279502884;

// Taylor series on |a| <= pi/4: 12 terms leave an error far below 1e-17.
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

// sin(2*pi*num/den) for num >= 0, den > 0, reduced by octant on the integers
// so the argument handed to the series is at most pi/4.
constexpr double SinTurn(long num, long den) {
  num %= den;
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

constexpr double CosTurn(long num, long den) { return SinTurn(num * 4 + den, den * 4); }

}  // namespace vorn::trig
