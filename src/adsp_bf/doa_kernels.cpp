// Per-bin steps of the direction search around its steered power: the bins'
// weights from power over noise, and the microphones' bins brought to unit
// magnitude. Both divide (and take a square root) in every bin of every
// hop, so each has a four-lane twin of its plain loop; every lane performs
// the plain step's operations in the same order, and the branches become
// selections between values both sides form.
#include <cmath>

#include "adsp_bf/adsp_doa.h"

namespace vorn {

namespace {

constexpr float kMagFloor = 1e-8f;
constexpr float kWeightTiny = 1e-8f;
constexpr float kNoiseFactor = 1.9f;
constexpr float kMinWeight = 0.1f;
constexpr float kMaxWeight = 100.0f;

float BfWeightAt(float power, float noise) {
  float g = (power - kNoiseFactor * noise) / (kWeightTiny + power);
  if (g < kMinWeight) g = kMinWeight;
  if (power / noise > 1.0f) {
    const float ratio = power / (kWeightTiny + noise);
    g = g * (ratio * ratio);
  }
  if (g > kMaxWeight) g = kMaxWeight;
  return g;
}

void UnitBinAt(const float f[3][512], float (*unit)[3][2], int k) {
  for (int m = 0; m < kBfChannels; ++m) {
    const float re = f[m][k], im = f[m][kBfFftLen - k];
    float mag = std::sqrt(re * re + im * im);
    if (!(mag > kMagFloor)) mag = kMagFloor;
    unit[k - kDoaLowBin][m][0] = re / mag;
    unit[k - kDoaLowBin][m][1] = im / mag;
  }
}

}  // namespace

void BfWeightPlain(const float* power, const float* noise, float* w, int len) {
  for (int k = 0; k < len; ++k) w[k] = BfWeightAt(power[k], noise[k]);
}

void DoaUnitBinsPlain(const float f[3][512], float (*unit)[3][2]) {
  for (int k = kDoaLowBin; k <= kDoaHighBin; ++k) UnitBinAt(f, unit, k);
}

#if defined(VORN_SIMD4)

void BfWeightSimd(const float* power, const float* noise, float* w, int len) {
  using namespace simd;
  const F4 tiny = Set1(kWeightTiny), factor = Set1(kNoiseFactor), low = Set1(kMinWeight), high = Set1(kMaxWeight);
  int k = 0;
  for (; k + 4 <= len; k += 4) {
    const F4 p = Load(power + k), n = Load(noise + k);
    F4 g = Div(Sub(p, Mul(factor, n)), Add(tiny, p));
    g = Select(Lt(g, low), low, g);
    const F4 ratio = Div(p, Add(tiny, n));
    g = Select(Gt(Div(p, n), Set1(1.0f)), Mul(g, Mul(ratio, ratio)), g);
    Store(w + k, Select(Gt(g, high), high, g));
  }
  for (; k < len; ++k) w[k] = BfWeightAt(power[k], noise[k]);
}

// Four bins of one microphone per vector: the real parts rise through the
// packed spectrum, the imaginary parts fall through its upper half, so they
// are read backwards. The results go out bin by bin in the [bin][mic] order.
void DoaUnitBinsSimd(const float f[3][512], float (*unit)[3][2]) {
  using namespace simd;
  const F4 floor = Set1(kMagFloor);
  int k = kDoaLowBin;
  for (; k + 4 <= kDoaHighBin + 1; k += 4) {
    float lanes[kBfChannels][2][4];
    for (int m = 0; m < kBfChannels; ++m) {
      const F4 re = Load(f[m] + k), im = LoadReversed(f[m] + kBfFftLen - k);
      const F4 mag = Sqrt(Add(Mul(re, re), Mul(im, im)));
      const F4 safe = Select(Gt(mag, floor), mag, floor);
      Store(lanes[m][0], Div(re, safe));
      Store(lanes[m][1], Div(im, safe));
    }
    for (int i = 0; i < 4; ++i)
      for (int m = 0; m < kBfChannels; ++m) {
        unit[k + i - kDoaLowBin][m][0] = lanes[m][0][i];
        unit[k + i - kDoaLowBin][m][1] = lanes[m][1][i];
      }
  }
  for (; k <= kDoaHighBin; ++k) UnitBinAt(f, unit, k);
}

#endif

void DoaUnitBins(const float f[3][512], float (*unit)[3][2]) {
#if defined(VORN_SIMD4)
  DoaUnitBinsSimd(f, unit);
#else
  DoaUnitBinsPlain(f, unit);
#endif
}

}  // namespace vorn
