// Eight-lane kernels on x86-64 processors that have AVX2.
//
// The library is built for the SSE2 baseline; a kernel with an AVX2 twin
// compiles it for that extension alone (target attribute, no fused
// multiply-add) and asks the processor on each call. The answer is the
// runtime's (it reads the processor's identification before main), so the
// question costs a load and a test and keeps no state of ours. The twins
// perform the four-lane kernels' operations per lane, so either choice gives
// the same bits.
#pragma once

#if defined(__x86_64__) && defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__)) && !defined(VORN_NO_AVX2)
#include <immintrin.h>
#define VORN_AVX2 1
#define VORN_TARGET_AVX2 __attribute__((target("avx2")))
#endif

namespace vorn {

inline bool CpuHasAvx2() {
#if defined(VORN_AVX2)
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

}  // namespace vorn
