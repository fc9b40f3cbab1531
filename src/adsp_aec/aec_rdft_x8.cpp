// Eight 128-point real FFTs at once on processors with AVX2, one per lane of
// a 256-bit vector: the four-lane batch (aec_rdft_x4.cpp) step for step, with
// the twiddles broadcast from the scalar tables instead of loaded from a
// lane-spread copy. Each lane performs the same operations in the same order,
// so it gives the four-lane batch's bits, which are the single transform's.
#include "adsp_aec/aec_rdft.h"

#if defined(VORN_AVX2)

#include "adsp_aec/aec_rdft_tables.h"

namespace vorn {
namespace {

using F8 = __m256;

// The lane operations under the four-lane names, so the steps below read as
// their four-lane twins do.
VORN_TARGET_AVX2 inline F8 Add(F8 a, F8 b) { return _mm256_add_ps(a, b); }
VORN_TARGET_AVX2 inline F8 Sub(F8 a, F8 b) { return _mm256_sub_ps(a, b); }
VORN_TARGET_AVX2 inline F8 Mul(F8 a, F8 b) { return _mm256_mul_ps(a, b); }
VORN_TARGET_AVX2 inline F8 Neg(F8 a) { return _mm256_xor_ps(a, _mm256_set1_ps(-0.0f)); }
VORN_TARGET_AVX2 inline F8 Set1(float x) { return _mm256_set1_ps(x); }

struct Twiddle {
  F8 wr, ws0, ws1;
};

// Twiddle N (1, 2 or 3) of group `group`: wr = cos(N theta), (ws0, ws1) =
// (-sin, +sin), the values the four-lane batch spreads over its lanes.
VORN_TARGET_AVX2 inline Twiddle LoadTwiddle(int group, int n) {
  static constexpr const std::array<float, 32>* kTables[3][2] = {
      {&rdft_wk1r, &rdft_wk1i}, {&rdft_wk2r, &rdft_wk2i}, {&rdft_wk3r, &rdft_wk3i}};
  const float* re = kTables[n - 1][0]->data() + 2 * group;
  const float* im = kTables[n - 1][1]->data() + 2 * group;
  return {_mm256_broadcast_ss(re), _mm256_broadcast_ss(im), _mm256_broadcast_ss(im + 1)};
}

VORN_TARGET_AVX2 inline void Rotate(const Twiddle& w, F8 zr, F8 zi, F8* out) {
  out[0] = Add(Mul(w.wr, zr), Mul(w.ws0, zi));
  out[1] = Add(Mul(w.wr, zi), Mul(w.ws1, zr));
}

VORN_TARGET_AVX2 inline void Butterfly(F8* a, int p, int d, int group) {
  F8* z0 = a + p;
  F8* z1 = z0 + d;
  F8* z2 = z1 + d;
  F8* z3 = z2 + d;
  const F8 s01r = Add(z0[0], z1[0]), s01i = Add(z0[1], z1[1]);
  const F8 d01r = Sub(z0[0], z1[0]), d01i = Sub(z0[1], z1[1]);
  const F8 s23r = Add(z2[0], z3[0]), s23i = Add(z2[1], z3[1]);
  const F8 d23r = Sub(z2[0], z3[0]), d23i = Sub(z2[1], z3[1]);
  z0[0] = Add(s01r, s23r);
  z0[1] = Add(s01i, s23i);
  Rotate(LoadTwiddle(group, 2), Sub(s01r, s23r), Sub(s01i, s23i), z2);
  const F8 neg_d23i = Neg(d23i);
  Rotate(LoadTwiddle(group, 1), Add(d01r, neg_d23i), Add(d01i, d23r), z1);
  Rotate(LoadTwiddle(group, 3), Sub(d01r, neg_d23i), Sub(d01i, d23r), z3);
}

VORN_TARGET_AVX2 void BitReverse(F8* a) {
  for (const auto& [i, j] : rdft_bit_reversal_swaps) {
    const F8 re = a[i], im = a[i + 1];
    a[i] = a[j];
    a[i + 1] = a[j + 1];
    a[j] = re;
    a[j + 1] = im;
  }
}

VORN_TARGET_AVX2 void FirstStages(F8* a) {
  for (int g = 0; g < 16; ++g) Butterfly(a, 8 * g, 2, g);
  for (int g = 0; g < 4; ++g) {
    for (int j = 0; j < 8; j += 2) Butterfly(a, 32 * g + j, 8, g);
  }
}

}  // namespace

VORN_TARGET_AVX2 void aec_rdft_forward_128_x8(F8* a) {
  BitReverse(a);
  FirstStages(a);
  for (int j = 0; j < 32; j += 2) {
    F8* z0 = a + j;
    F8* z1 = z0 + 32;
    F8* z2 = z1 + 32;
    F8* z3 = z2 + 32;
    const F8 x0r = Add(z0[0], z1[0]), x0i = Add(z0[1], z1[1]);
    const F8 x1r = Sub(z0[0], z1[0]), x1i = Sub(z0[1], z1[1]);
    const F8 x2r = Add(z2[0], z3[0]), x2i = Add(z2[1], z3[1]);
    const F8 x3r = Sub(z2[0], z3[0]), x3i = Sub(z2[1], z3[1]);
    z0[0] = Add(x0r, x2r);
    z0[1] = Add(x0i, x2i);
    z2[0] = Sub(x0r, x2r);
    z2[1] = Sub(x0i, x2i);
    z1[0] = Sub(x1r, x3i);
    z1[1] = Add(x1i, x3r);
    z3[0] = Add(x1r, x3i);
    z3[1] = Sub(x1i, x3r);
  }
  const float* c = rdft_w.data() + 32;
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {
    const int k2 = 128 - j2;
    const F8 wkr = Set1(0.5f - c[32 - j1]);
    const F8 wki = Set1(c[j1]);
    const F8 xr = Sub(a[j2], a[k2]);
    const F8 xi = Add(a[j2 + 1], a[k2 + 1]);
    const F8 yr = Sub(Mul(wkr, xr), Mul(wki, xi));
    const F8 yi = Add(Mul(wkr, xi), Mul(wki, xr));
    a[j2] = Sub(a[j2], yr);
    a[j2 + 1] = Sub(a[j2 + 1], yi);
    a[k2] = Add(a[k2], yr);
    a[k2 + 1] = Sub(a[k2 + 1], yi);
  }
  const F8 xi = Sub(a[0], a[1]);
  a[0] = Add(a[0], a[1]);
  a[1] = xi;
}

VORN_TARGET_AVX2 void aec_rdft_inverse_128_x8(F8* a) {
  a[1] = Mul(Set1(0.5f), Sub(a[0], a[1]));
  a[0] = Sub(a[0], a[1]);
  const float* c = rdft_w.data() + 32;
  a[1] = Neg(a[1]);
  for (int j1 = 1, j2 = 2; j2 < 64; j1 += 1, j2 += 2) {
    const int k2 = 128 - j2;
    const F8 wkr = Set1(0.5f - c[32 - j1]);
    const F8 wki = Set1(c[j1]);
    const F8 xr = Sub(a[j2], a[k2]);
    const F8 xi = Add(a[j2 + 1], a[k2 + 1]);
    const F8 yr = Add(Mul(wkr, xr), Mul(wki, xi));
    const F8 yi = Sub(Mul(wkr, xi), Mul(wki, xr));
    a[j2] = Sub(a[j2], yr);
    a[j2 + 1] = Sub(yi, a[j2 + 1]);
    a[k2] = Add(yr, a[k2]);
    a[k2 + 1] = Sub(yi, a[k2 + 1]);
  }
  a[65] = Neg(a[65]);
  BitReverse(a);
  FirstStages(a);
  for (int j = 0; j < 32; j += 2) {
    F8* z0 = a + j;
    F8* z1 = z0 + 32;
    F8* z2 = z1 + 32;
    F8* z3 = z2 + 32;
    const F8 x0r = Add(z0[0], z1[0]);
    const F8 x0i = Sub(Neg(z0[1]), z1[1]);
    const F8 x1r = Sub(z0[0], z1[0]);
    const F8 x1i = Add(Neg(z0[1]), z1[1]);
    const F8 x2r = Add(z2[0], z3[0]), x2i = Add(z2[1], z3[1]);
    const F8 x3r = Sub(z2[0], z3[0]), x3i = Sub(z2[1], z3[1]);
    z0[0] = Add(x0r, x2r);
    z0[1] = Sub(x0i, x2i);
    z2[0] = Sub(x0r, x2r);
    z2[1] = Add(x0i, x2i);
    z1[0] = Sub(x1r, x3i);
    z1[1] = Sub(x1i, x3r);
    z3[0] = Add(x1r, x3i);
    z3[1] = Add(x1i, x3r);
  }
}

}  // namespace vorn

#endif  // defined(VORN_AVX2)
