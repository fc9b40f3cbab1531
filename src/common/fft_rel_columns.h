// The plain real inverse transform's passes in column form: vector p holds
// element p of four blocks, and each vector operation stands for one plain
// operation, in the plain order, so every lane gets the plain bits. Shared
// by the transform's own tail (groups below 64 points) and by the batches
// of whole transforms.
#pragma once

#include "common/simd4.h"

namespace vorn::fft_columns {

// cos(pi/4) as the plain transform rounds it.
inline constexpr float kFftSqrtHalf = 0.70710677f;

}  // namespace vorn::fft_columns

#if defined(VORN_SIMD4)
namespace vorn::fft_columns {

// The twiddle-free butterflies of every group of 4 n4 = `group` floats, at
// the plain walk's places among n.
inline void InverseQuarterPass(simd::F4 *x, int n, int group) {
  using namespace simd;
  const F4 two = Set1(2.0f), sqrt_half = Set1(kFftSqrtHalf);
  const int n4 = group >> 2;
  const int n8 = n4 >> 1;
  int start = 0;
  int stride = 2 * group;
  do {
    for (int i = start; i < n; i += stride) {
      int i1 = i;
      int i2 = i1 + n4;
      int i3 = i2 + n4;
      int i4 = i3 + n4;
      F4 t1 = Sub(x[i1], x[i3]);
      x[i1] = Add(x[i1], x[i3]);
      x[i2] = Mul(two, x[i2]);
      x[i3] = Sub(t1, Mul(two, x[i4]));
      x[i4] = Add(t1, Mul(two, x[i4]));
      if (n4 != 1) {
        i1 += n8;
        i2 += n8;
        i3 += n8;
        i4 += n8;
        t1 = Mul(Sub(x[i2], x[i1]), sqrt_half);
        const F4 t2 = Mul(Add(x[i4], x[i3]), sqrt_half);
        x[i1] = Add(x[i1], x[i2]);
        x[i2] = Sub(x[i4], x[i3]);
        x[i3] = Mul(two, Sub(Neg(t2), t1));
        x[i4] = Mul(two, Add(Neg(t2), t1));
      }
    }
    start = 2 * stride - group;
    stride = 4 * stride;
  } while (start < n - 1);
}

// The twiddles of one L-shaped butterfly, one per vector.
struct InverseTwiddleVectors {
  simd::F4 cc1, ss1, cc3, ss3;
};

// L-shaped butterfly j of the group of 4 n4 floats at i.
inline void InverseLButterfly(simd::F4 *x, int i, int j, int n4, const InverseTwiddleVectors &w) {
  using namespace simd;
  const int i1 = i + j;
  const int i2 = i1 + n4;
  const int i3 = i2 + n4;
  const int i4 = i3 + n4;
  const int i5 = i + n4 - j;
  const int i6 = i5 + n4;
  const int i7 = i6 + n4;
  const int i8 = i7 + n4;
  F4 t1 = Sub(x[i1], x[i6]);
  x[i1] = Add(x[i1], x[i6]);
  F4 t2 = Sub(x[i5], x[i2]);
  x[i5] = Add(x[i2], x[i5]);
  const F4 t3 = Add(x[i8], x[i3]);
  x[i6] = Sub(x[i8], x[i3]);
  F4 t4 = Add(x[i4], x[i7]);
  x[i2] = Sub(x[i4], x[i7]);
  const F4 t5 = Sub(t1, t4);
  t1 = Add(t1, t4);
  t4 = Sub(t2, t3);
  t2 = Add(t2, t3);
  x[i3] = Add(Mul(t5, w.cc1), Mul(t4, w.ss1));
  x[i7] = Sub(Mul(t5, w.ss1), Mul(t4, w.cc1));
  x[i4] = Sub(Mul(t1, w.cc3), Mul(t2, w.ss3));
  x[i8] = Add(Mul(t2, w.cc3), Mul(t1, w.ss3));
}

// Butterfly j of every group of `group` floats at the plain walk's places.
inline void InverseTwiddledPass(simd::F4 *x, int n, int j, int group, const InverseTwiddleVectors &w) {
  const int n4 = group >> 2;
  int start = 0;
  int stride = 2 * group;
  do {
    for (int i = start; i < n; i += stride) InverseLButterfly(x, i, j, n4, w);
    start = 2 * stride - group;
    stride = 4 * stride;
  } while (start < n - 1);
}

// The length-2 butterflies that end the inverse.
inline void InverseLastPass(simd::F4 *x, int n) {
  using namespace simd;
  int start = 0;
  int stride = 4;
  do {
    for (int i = start; i < n; i += stride) {
      const F4 t = x[i];
      x[i] = Add(t, x[i + 1]);
      x[i + 1] = Sub(t, x[i + 1]);
    }
    start = 2 * stride - 2;
    stride = 4 * stride;
  } while (start < n - 1);
}

}  // namespace vorn::fft_columns
#endif
