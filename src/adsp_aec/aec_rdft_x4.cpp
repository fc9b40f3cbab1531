// Four 128-point real FFTs at once, one per vector lane (common/simd4.h).
//
// The canceller transforms many independent blocks per frame (the gradient
// constraint of every partition), and a transform of two complex values per
// vector spends much of its time moving lanes. Here a[i] holds element i of
// four transforms, so every step of the scalar algorithm becomes one vector
// operation with no lane moves at all. Each lane performs exactly the
// operations of aec_rdft_forward_128 / aec_rdft_inverse_128 with the vector
// stages, in their order: the general butterfly in every group of the two
// first complex stages (with the lane-ordered twiddle tables the vector
// stages load), the unit butterfly in the last one, and the real-data stages
// as written. So every lane gives those transforms' bits.
#include "adsp_aec/aec_rdft.h"

#if defined(VORN_SIMD4)

#include <array>
#include <utility>

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {

using simd::F4;

// The twiddles of the 16 groups as the vector stages apply them: for N = 1,
// 2, 3, re = wr * zr + ws0 * zi and im = wr * zi + ws1 * zr with wr =
// cos(N theta), (ws0, ws1) = (-sin, +sin), taken from the lane-ordered tables
// and spread over four lanes once, at compile time.
struct Twiddle {
  F4 wr, ws0, ws1;
};

struct alignas(16) Lanes {
  float v[4];
};
constexpr int kTwiddleLanes = 16 * 3 * 3;  // groups x (N = 1, 2, 3) x (wr, ws0, ws1)

constexpr std::array<Lanes, kTwiddleLanes> MakeTwiddleLanes() {
  std::array<Lanes, kTwiddleLanes> t{};
  const std::array<float, 32>* tables[3][2] = {
      {&rdft_wk1r, &rdft_wk1i}, {&rdft_wk2r, &rdft_wk2i}, {&rdft_wk3r, &rdft_wk3i}};
  for (int g = 0; g < 16; ++g) {
    for (int n = 0; n < 3; ++n) {
      const float values[3] = {(*tables[n][0])[2 * g], (*tables[n][1])[2 * g], (*tables[n][1])[2 * g + 1]};
      for (int f = 0; f < 3; ++f) {
        for (float& lane : t[9 * g + 3 * n + f].v) lane = values[f];
      }
    }
  }
  return t;
}

constexpr std::array<Lanes, kTwiddleLanes> kTwiddleLanesTable = MakeTwiddleLanes();

// Twiddle N (1, 2 or 3) of group `group`.
inline Twiddle LoadTwiddle(int group, int n) {
  const Lanes* t = &kTwiddleLanesTable[9 * group + 3 * (n - 1)];
  return {simd::Load(t[0].v), simd::Load(t[1].v), simd::Load(t[2].v)};
}

inline void Rotate(const Twiddle& w, F4 zr, F4 zi, F4* out) {
  out[0] = simd::Add(simd::Mul(w.wr, zr), simd::Mul(w.ws0, zi));
  out[1] = simd::Add(simd::Mul(w.wr, zi), simd::Mul(w.ws1, zr));
}

// The general radix-4 butterfly of the vector stages on the complex points at
// p, p + d, p + 2d, p + 3d (element offsets), for twiddle group `group`.
inline void Butterfly(F4* a, int p, int d, int group) {
  F4* z0 = a + p;
  F4* z1 = z0 + d;
  F4* z2 = z1 + d;
  F4* z3 = z2 + d;
  const F4 s01r = simd::Add(z0[0], z1[0]), s01i = simd::Add(z0[1], z1[1]);
  const F4 d01r = simd::Sub(z0[0], z1[0]), d01i = simd::Sub(z0[1], z1[1]);
  const F4 s23r = simd::Add(z2[0], z3[0]), s23i = simd::Add(z2[1], z3[1]);
  const F4 d23r = simd::Sub(z2[0], z3[0]), d23i = simd::Sub(z2[1], z3[1]);
  z0[0] = simd::Add(s01r, s23r);
  z0[1] = simd::Add(s01i, s23i);
  Rotate(LoadTwiddle(group, 2), simd::Sub(s01r, s23r), simd::Sub(s01i, s23i), z2);
  // d01 + i d23 and d01 - i d23, with i d23 = (-d23i, d23r) added as the
  // vector stages add it.
  const F4 neg_d23i = simd::Neg(d23i);
  Rotate(LoadTwiddle(group, 1), simd::Add(d01r, neg_d23i), simd::Add(d01i, d23r), z1);
  Rotate(LoadTwiddle(group, 3), simd::Sub(d01r, neg_d23i), simd::Sub(d01i, d23r), z3);
}

void BitReverse(F4* a) {
  for (const auto& [i, j] : rdft_bit_reversal_swaps) {
    std::swap(a[i], a[j]);
    std::swap(a[i + 1], a[j + 1]);
  }
}

void FirstStages(F4* a) {
  for (int g = 0; g < 16; ++g) Butterfly(a, 8 * g, 2, g);  // cft1st: 16 groups of 8 floats
  for (int g = 0; g < 4; ++g) {                             // cftmdl: 4 groups of 32 floats
    for (int j = 0; j < 8; j += 2) Butterfly(a, 32 * g + j, 8, g);
  }
}

}  // namespace

void aec_rdft_forward_128_x4(F4* a) {
  BitReverse(a);
  FirstStages(a);
  for (int j = 0; j < 32; j += 2) {  // the last stage: unit twiddles
    F4* z0 = a + j;
    F4* z1 = z0 + 32;
    F4* z2 = z1 + 32;
    F4* z3 = z2 + 32;
    const F4 x0r = simd::Add(z0[0], z1[0]), x0i = simd::Add(z0[1], z1[1]);
    const F4 x1r = simd::Sub(z0[0], z1[0]), x1i = simd::Sub(z0[1], z1[1]);
    const F4 x2r = simd::Add(z2[0], z3[0]), x2i = simd::Add(z2[1], z3[1]);
    const F4 x3r = simd::Sub(z2[0], z3[0]), x3i = simd::Sub(z2[1], z3[1]);
    z0[0] = simd::Add(x0r, x2r);
    z0[1] = simd::Add(x0i, x2i);
    z2[0] = simd::Sub(x0r, x2r);
    z2[1] = simd::Sub(x0i, x2i);
    z1[0] = simd::Sub(x1r, x3i);
    z1[1] = simd::Add(x1i, x3r);
    z3[0] = simd::Add(x1r, x3i);
    z3[1] = simd::Sub(x1i, x3r);
  }
  const float* c = rdft_w.data() + 32;
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {  // rftfsub
    const int k2 = 128 - j2;
    const F4 wkr = simd::Set1(0.5f - c[32 - j1]);
    const F4 wki = simd::Set1(c[j1]);
    const F4 xr = simd::Sub(a[j2], a[k2]);
    const F4 xi = simd::Add(a[j2 + 1], a[k2 + 1]);
    const F4 yr = simd::Sub(simd::Mul(wkr, xr), simd::Mul(wki, xi));
    const F4 yi = simd::Add(simd::Mul(wkr, xi), simd::Mul(wki, xr));
    a[j2] = simd::Sub(a[j2], yr);
    a[j2 + 1] = simd::Sub(a[j2 + 1], yi);
    a[k2] = simd::Add(a[k2], yr);
    a[k2 + 1] = simd::Sub(a[k2 + 1], yi);
  }
  const F4 xi = simd::Sub(a[0], a[1]);
  a[0] = simd::Add(a[0], a[1]);
  a[1] = xi;
}

void aec_rdft_inverse_128_x4(F4* a) {
  a[1] = simd::Mul(simd::Set1(0.5f), simd::Sub(a[0], a[1]));
  a[0] = simd::Sub(a[0], a[1]);
  const float* c = rdft_w.data() + 32;
  a[1] = simd::Neg(a[1]);
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {  // rftbsub
    const int k2 = 128 - j2;
    const F4 wkr = simd::Set1(0.5f - c[32 - j1]);
    const F4 wki = simd::Set1(c[j1]);
    const F4 xr = simd::Sub(a[j2], a[k2]);
    const F4 xi = simd::Add(a[j2 + 1], a[k2 + 1]);
    const F4 yr = simd::Add(simd::Mul(wkr, xr), simd::Mul(wki, xi));
    const F4 yi = simd::Sub(simd::Mul(wkr, xi), simd::Mul(wki, xr));
    a[j2] = simd::Sub(a[j2], yr);
    a[j2 + 1] = simd::Sub(yi, a[j2 + 1]);
    a[k2] = simd::Add(yr, a[k2]);
    a[k2 + 1] = simd::Sub(yi, a[k2 + 1]);
  }
  a[65] = simd::Neg(a[65]);
  BitReverse(a);
  FirstStages(a);
  for (int j = 0; j < 32; j += 2) {  // the last stage, conjugating back
    F4* z0 = a + j;
    F4* z1 = z0 + 32;
    F4* z2 = z1 + 32;
    F4* z3 = z2 + 32;
    const F4 x0r = simd::Add(z0[0], z1[0]);
    const F4 x0i = simd::Sub(simd::Neg(z0[1]), z1[1]);
    const F4 x1r = simd::Sub(z0[0], z1[0]);
    const F4 x1i = simd::Add(simd::Neg(z0[1]), z1[1]);
    const F4 x2r = simd::Add(z2[0], z3[0]), x2i = simd::Add(z2[1], z3[1]);
    const F4 x3r = simd::Sub(z2[0], z3[0]), x3i = simd::Sub(z2[1], z3[1]);
    z0[0] = simd::Add(x0r, x2r);
    z0[1] = simd::Sub(x0i, x2i);
    z2[0] = simd::Sub(x0r, x2r);
    z2[1] = simd::Add(x0i, x2i);
    z1[0] = simd::Sub(x1r, x3i);
    z1[1] = simd::Sub(x1i, x3r);
    z3[0] = simd::Add(x1r, x3i);
    z3[1] = simd::Add(x1i, x3r);
  }
}

}  // namespace vorn

#endif  // defined(VORN_SIMD4)
