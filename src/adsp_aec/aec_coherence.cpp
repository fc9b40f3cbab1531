// Per-bin kernels of the non-linear stage's coherence: the smoothed auto and
// cross spectra, and the coherence of a pair from them. The plain loops are
// the reference; the four-lane twins (common/simd4.h) perform the same
// operations per bin in the same order and so give the same bits, the cross
// spectra's (re, im) pairs split into parts on the way in and joined on the
// way out. Bin 64 (Nyquist), past the last whole vector, takes the plain step.
#include <algorithm>

#include "adsp_aec/aec_core.h"
#include "common/simd4.h"

namespace vorn {
namespace {

constexpr float kMinFarendPower = 15.0f;
constexpr float kCoherenceTiny = 1e-10f;

void SmoothSpectraAt(AecCore* aec, const CoherenceSpectra& in, const float g[2], int k) {
  const float dr = in.d[0][k], di = in.d[1][k];
  const float er = in.e[0][k], ei = in.e[1][k];
  const float xr = in.x[0][k], xi = in.x[1][k];
  aec->sd[k] = g[0] * aec->sd[k] + g[1] * (dr * dr + di * di);
  aec->se[k] = g[0] * aec->se[k] + g[1] * (er * er + ei * ei);
  aec->sx[k] = g[0] * aec->sx[k] + g[1] * std::max(xr * xr + xi * xi, kMinFarendPower);
  aec->sde[k][0] = g[0] * aec->sde[k][0] + g[1] * (dr * er + di * ei);
  aec->sde[k][1] = g[0] * aec->sde[k][1] + g[1] * (dr * ei - di * er);
  aec->sxd[k][0] = g[0] * aec->sxd[k][0] + g[1] * (xr * dr + xi * di);
  aec->sxd[k][1] = g[0] * aec->sxd[k][1] + g[1] * (xr * di - xi * dr);
  if (in.c != nullptr) {
    aec->sAEC[k] = er * er + ei * ei;
    aec->sc[k] = g[0] * aec->sc[k] + g[1] * (in.c[0][k] * in.c[0][k] + in.c[1][k] * in.c[1][k]);
  }
  aec->sxe[k][0] = g[0] * aec->sxe[k][0] + g[1] * (xr * er + xi * ei);
  aec->sxe[k][1] = g[0] * aec->sxe[k][1] + g[1] * (xr * ei - xi * er);
}

float CoherenceAt(const complex_t* cross, const float* a, const float* b, int k) {
  return std::min(1.0f, (cross[k][0] * cross[k][0] + cross[k][1] * cross[k][1]) / (a[k] * b[k] + kCoherenceTiny));
}

}  // namespace

void SmoothSpectraPlain(AecCore* aec, const CoherenceSpectra& in, const float g[2]) {
  for (int k = 0; k < kAecBins; ++k) SmoothSpectraAt(aec, in, g, k);
}

void CoherencePlain(const complex_t* cross, const float* a, const float* b, float* coherence) {
  for (int k = 0; k < kAecBins; ++k) coherence[k] = CoherenceAt(cross, a, b, k);
}

#if defined(VORN_SIMD4)

namespace {

// g0 * s + g1 * term, the smoothing step of every spectrum.
simd::F4 Smooth(simd::F4 g0, simd::F4 g1, simd::F4 s, simd::F4 term) {
  return simd::Add(simd::Mul(g0, s), simd::Mul(g1, term));
}

// Moves four bins of a cross spectrum towards (re, im).
void SmoothCross(complex_t* cross, int k, simd::F4 g0, simd::F4 g1, simd::F4 re, simd::F4 im) {
  using namespace simd;
  F4 old_re, old_im;
  Deinterleave(Load(&cross[k][0]), Load(&cross[k + 2][0]), old_re, old_im);
  F4 lo, hi;
  Interleave(Smooth(g0, g1, old_re, re), Smooth(g0, g1, old_im, im), lo, hi);
  Store(&cross[k][0], lo);
  Store(&cross[k + 2][0], hi);
}

}  // namespace

void SmoothSpectraSimd(AecCore* aec, const CoherenceSpectra& in, const float g[2]) {
  using namespace simd;
  const F4 g0 = Set1(g[0]), g1 = Set1(g[1]), floor = Set1(kMinFarendPower);
  int k = 0;
  for (; k + 4 <= kAecBins; k += 4) {
    const F4 dr = Load(in.d[0] + k), di = Load(in.d[1] + k);
    const F4 er = Load(in.e[0] + k), ei = Load(in.e[1] + k);
    const F4 xr = Load(in.x[0] + k), xi = Load(in.x[1] + k);
    Store(aec->sd + k, Smooth(g0, g1, Load(aec->sd + k), Add(Mul(dr, dr), Mul(di, di))));
    const F4 e_power = Add(Mul(er, er), Mul(ei, ei));
    Store(aec->se + k, Smooth(g0, g1, Load(aec->se + k), e_power));
    const F4 x_power = Add(Mul(xr, xr), Mul(xi, xi));
    Store(aec->sx + k, Smooth(g0, g1, Load(aec->sx + k), Select(Lt(x_power, floor), floor, x_power)));
    SmoothCross(aec->sde, k, g0, g1, Add(Mul(dr, er), Mul(di, ei)), Sub(Mul(dr, ei), Mul(di, er)));
    SmoothCross(aec->sxd, k, g0, g1, Add(Mul(xr, dr), Mul(xi, di)), Sub(Mul(xr, di), Mul(xi, dr)));
    if (in.c != nullptr) {
      Store(aec->sAEC + k, e_power);
      const F4 cr = Load(in.c[0] + k), ci = Load(in.c[1] + k);
      Store(aec->sc + k, Smooth(g0, g1, Load(aec->sc + k), Add(Mul(cr, cr), Mul(ci, ci))));
    }
    SmoothCross(aec->sxe, k, g0, g1, Add(Mul(xr, er), Mul(xi, ei)), Sub(Mul(xr, ei), Mul(xi, er)));
  }
  for (; k < kAecBins; ++k) SmoothSpectraAt(aec, in, g, k);
}

void CoherenceSimd(const complex_t* cross, const float* a, const float* b, float* coherence) {
  using namespace simd;
  const F4 one = Set1(1.0f), tiny = Set1(kCoherenceTiny);
  int k = 0;
  for (; k + 4 <= kAecBins; k += 4) {
    F4 re, im;
    Deinterleave(Load(&cross[k][0]), Load(&cross[k + 2][0]), re, im);
    const F4 ratio = Div(Add(Mul(re, re), Mul(im, im)), Add(Mul(Load(a + k), Load(b + k)), tiny));
    Store(coherence + k, Select(Lt(ratio, one), ratio, one));
  }
  for (; k < kAecBins; ++k) coherence[k] = CoherenceAt(cross, a, b, k);
}

#endif

void SmoothSpectra(AecCore* aec, const CoherenceSpectra& in, const float g[2]) {
#if defined(VORN_SIMD4)
  SmoothSpectraSimd(aec, in, g);
#else
  SmoothSpectraPlain(aec, in, g);
#endif
}

void Coherence(const complex_t* cross, const float* a, const float* b, float* coherence) {
#if defined(VORN_SIMD4)
  CoherenceSimd(cross, a, b, coherence);
#else
  CoherencePlain(cross, a, b, coherence);
#endif
}

}  // namespace vorn
