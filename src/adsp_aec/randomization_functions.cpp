// 31-bit linear congruential generator (multiplier 69069, increment 1) and the
// normal table behind AdspSpl_RandN.
//
// The normal table has no closed form of its own; it is designed here, at
// compile time, as a stratified sample of the standard normal distribution in
// Q13: the 512 entries are the quantiles Phi^-1((q + 0.5) / 512), q = 0..511.
// AdspSpl_RandN only ever reaches the first 256 entries (index = 31-bit seed
// >> 23), so each half holds every other stratum, chosen so that the half is
// symmetric about zero: entry i of a half takes j = rev8(i) (eight bits
// reversed) and q = 2j + (j & 1) in the first half, 2j + 1 - (j & 1) in the
// second. Stratum q pairs with its mirror 511 - q inside the same half, so
// the reachable half has mean zero and standard deviation close to one, and
// bit reversal puts neighbouring indices far apart in value. Q13 keeps the
// extreme quantile (about 2.9 sigma) well inside int16.
#include "adsp_aec/randomization_functions.h"

namespace vorn {
namespace {

constexpr uint32_t NextSeed(uint32_t seed) { return (seed * 69069u + 1u) & 0x7FFFFFFFu; }

// exp(x) for moderate |x|: halve x until it is small, sum its Taylor series,
// then square back.
constexpr double ConstExp(double x) {
  int halvings = 0;
  while (x > 0.125 || x < -0.125) {
    x *= 0.5;
    ++halvings;
  }
  double term = 1.0, sum = 1.0;
  for (int n = 1; n < 20; ++n) {
    term *= x / n;
    sum += term;
  }
  for (int i = 0; i < halvings; ++i) sum *= sum;
  return sum;
}

constexpr double kInvSqrt2Pi = 0.398942280401432677939946059934;

constexpr double NormalPdf(double x) { return kInvSqrt2Pi * ConstExp(-0.5 * x * x); }

// Phi(x) = 1/2 + pdf(x) * (x + x^3/3 + x^5/(3*5) + ...), which converges for
// every x and is accurate to double rounding over the |x| < 4 used here.
constexpr double NormalCdf(double x) {
  double term = x, sum = x;
  for (int n = 1; n < 200 && (term > 1e-18 || term < -1e-18); ++n) {
    term *= x * x / (2.0 * n + 1.0);
    sum += term;
  }
  return 0.5 + NormalPdf(x) * sum;
}

// Newton's method on Phi(x) = p from x = 0; the cdf is convex on either side
// of 0, so the iteration approaches the root monotonically.
constexpr double NormalQuantile(double p) {
  double x = 0.0;
  for (int i = 0; i < 60; ++i) {
    const double step = (NormalCdf(x) - p) / NormalPdf(x);
    x -= step;
    if (step < 1e-14 && step > -1e-14) break;
  }
  return x;
}

constexpr int Rev8(int i) {
  int r = 0;
  for (int b = 0; b < 8; ++b) r |= ((i >> b) & 1) << (7 - b);
  return r;
}

constexpr int Stratum(int index) {
  const int half = index >> 8;
  const int j = Rev8(index & 255);
  return 2 * j + ((j & 1) ^ half);
}

constexpr std::array<int16_t, kRandNTableSize> MakeRandNTable() {
  std::array<int16_t, kRandNTableSize> table{};
  for (int i = 0; i < kRandNTableSize; ++i) {
    const double p = (Stratum(i) + 0.5) / kRandNTableSize;
    const double value_Q13 = NormalQuantile(p) * 8192.0;
    table[i] = static_cast<int16_t>(value_Q13 < 0 ? value_Q13 - 0.5 : value_Q13 + 0.5);
  }
  return table;
}

}  // namespace

constexpr std::array<int16_t, kRandNTableSize> kRandNTable = MakeRandNTable();

int16_t AdspSpl_RandU(uint32_t* seed) {
  *seed = NextSeed(*seed);
  return static_cast<int16_t>(*seed >> 16);
}

int16_t AdspSpl_RandN(uint32_t* seed) {
  *seed = NextSeed(*seed);
  return kRandNTable[*seed >> 23];
}

int16_t AdspSpl_RandUArray(int16_t* vector, int16_t vector_length, uint32_t* seed) {
  for (int i = 0; i < vector_length; ++i) vector[i] = AdspSpl_RandU(seed);
  return vector_length;
}

}  // namespace vorn
