// Shared real FFT, its tables and the common array/file utilities, checked
// against independent double-precision computations and at their boundaries.
// Buffers are sized exactly so that the sanitizer build catches any access
// past them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"
#include "support/signals.h"

namespace vorn {
namespace {

constexpr double kPi = 3.14159265358979323846;

int Log2(int n) {
  int m = 0;
  while ((1 << m) < n) ++m;
  return m;
}

// Direct DFT in double, packed the way the transform packs it.
std::vector<double> PackedDft(const std::vector<float>& x) {
  const int n = static_cast<int>(x.size());
  std::vector<double> packed(n);
  for (int k = 0; k <= n / 2; ++k) {
    std::complex<double> acc = 0.0;
    for (int t = 0; t < n; ++t) acc += static_cast<double>(x[t]) * std::polar(1.0, -2.0 * kPi * t * k / n);
    packed[k] = acc.real();
    if (k > 0 && k < n / 2) packed[n - k] = acc.imag();
  }
  return packed;
}

// Direct inverse (1/n scaled) of a packed Hermitian spectrum.
std::vector<double> InversePackedDft(const std::vector<float>& packed) {
  const int n = static_cast<int>(packed.size());
  std::vector<double> x(n);
  for (int t = 0; t < n; ++t) {
    double acc = packed[0] + packed[n / 2] * ((t % 2) ? -1.0 : 1.0);
    for (int k = 1; k < n / 2; ++k) {
      const double w = 2.0 * kPi * t * k / n;
      acc += 2.0 * (packed[k] * std::cos(w) - packed[n - k] * std::sin(w));
    }
    x[t] = acc / n;
  }
  return x;
}

double MaxAbsDiff(const std::vector<float>& got, const std::vector<double>& want) {
  double worst = 0.0;
  for (size_t i = 0; i < got.size(); ++i) worst = std::max(worst, std::fabs(got[i] - want[i]));
  return worst;
}

// ---------------------------------------------------------------- tables

TEST(CommonRom, BitReverseTableReversesEightBits) {
  for (int i = 0; i < 256; ++i) {
    int reversed = 0;
    for (int v = i, b = 0; b < 8; ++b, v >>= 1) reversed = (reversed << 1) | (v & 1);
    ASSERT_EQ(fft256_read_indexes[i], reversed) << "index " << i;
  }
}

TEST(CommonRom, SineTableIsCorrectlyRoundedSine) {
  for (int i = 0; i <= 640; ++i) {
    const double exact = std::sin(2.0 * kPi * i / 1024.0);
    ASSERT_NEAR(sincos_t_ext[i], exact, 3e-8) << "index " << i;
  }
  EXPECT_EQ(sincos_t_ext[0], 0.0f);
  EXPECT_EQ(sincos_t_ext[256], 1.0f);
  EXPECT_EQ(sincos_t_ext[512], 0.0f);
  EXPECT_NEAR(sincos_t_ext[640], -0.7071068f, 1e-7);
}

TEST(CommonRom, HammingWindowHasUnitEnergyAndDocumentedValues) {
  double energy = 0.0;
  for (int i = 0; i < 512; ++i) {
    energy += static_cast<double>(hanmming_win[i]) * hanmming_win[i];
    ASSERT_EQ(hanmming_win[i], hanmming_win[511 - i]) << "asymmetric at " << i;
  }
  EXPECT_NEAR(energy, 1.0, 1e-6);
  EXPECT_NEAR(hanmming_win[0], 0.00561382, 3e-8);
  EXPECT_NEAR(hanmming_win[255], 0.07017218, 3e-8);
  // Shape: proportional to 0.54 - 0.46 cos(2 pi i / 511).
  for (int i = 0; i < 512; ++i) {
    const double shape = 0.54 - 0.46 * std::cos(2.0 * kPi * i / 511.0);
    ASSERT_NEAR(hanmming_win[i] / hanmming_win[0], shape / 0.08, 1e-5) << "index " << i;
  }
}

// ---------------------------------------------------------------- FFT

// Table-driven sizes (128, 256, 512) and counter-based ones around them.
const int kFftSizes[] = {4, 8, 16, 32, 64, 128, 256, 512, 1024};

TEST(FftRel, ForwardMatchesDirectDft) {
  for (int n : kFftSizes) {
    SCOPED_TRACE("n = " + std::to_string(n));
    std::vector<float> x = test::WhiteNoise(n, 0.5, 1000u + n);
    const std::vector<double> want = PackedDft(x);
    fft_rel(x.data(), static_cast<short>(n), static_cast<short>(Log2(n)));
    const double err = MaxAbsDiff(x, want);
    // Float rounding grows like log2(n) * sqrt(n) on this input scale.
    EXPECT_LT(err, 1.5e-7 * Log2(n) * std::sqrt(n));
    if (n == 512 || n == 64) {
      RecordProperty("max_error_n" + std::to_string(n), std::to_string(err));
      std::printf("fft_rel n=%d: max |error| vs double DFT = %.3g\n", n, err);
    }
  }
}

TEST(FftRel, InverseMatchesDirectInverseDft) {
  for (int n : kFftSizes) {
    SCOPED_TRACE("n = " + std::to_string(n));
    // Any packed array is a valid Hermitian spectrum.
    std::vector<float> spec = test::WhiteNoise(n, 10.0, 2000u + n);
    const std::vector<double> want = InversePackedDft(spec);
    ifft_rel(spec.data(), static_cast<short>(n), static_cast<short>(Log2(n)));
    const double err = MaxAbsDiff(spec, want);
    EXPECT_LT(err, 10.0 * 1.5e-7 * Log2(n) / std::sqrt(n));
    if (n == 512) std::printf("ifft_rel n=%d: max |error| vs double inverse DFT = %.3g\n", n, err);
  }
}

TEST(FftRel, RoundTripRestoresSignal) {
  for (int n : kFftSizes) {
    SCOPED_TRACE("n = " + std::to_string(n));
    const std::vector<float> original = test::WhiteNoise(n, 3000.0, 3000u + n);
    std::vector<float> x = original;
    const short m = static_cast<short>(Log2(n));
    fft_rel(x.data(), static_cast<short>(n), m);
    ifft_rel(x.data(), static_cast<short>(n), m);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(x[i], original[i], 3000.0 * 4e-7 * m) << "sample " << i;
  }
}

TEST(FftRel, ImpulseAndConstantGiveClosedFormSpectra) {
  for (int n : {64, 512}) {
    SCOPED_TRACE("n = " + std::to_string(n));
    const short m = static_cast<short>(Log2(n));

    std::vector<float> impulse(n, 0.0f);
    impulse[0] = 1.0f;
    fft_rel(impulse.data(), static_cast<short>(n), m);
    for (int i = 0; i < n; ++i) ASSERT_EQ(impulse[i], i <= n / 2 ? 1.0f : 0.0f) << "bin slot " << i;

    const float v = 0.75f;
    std::vector<float> constant(n, v);
    fft_rel(constant.data(), static_cast<short>(n), m);
    EXPECT_EQ(constant[0], n * v);
    for (int i = 1; i < n; ++i) ASSERT_NEAR(constant[i], 0.0f, 1e-5) << "bin slot " << i;
    ifft_rel(constant.data(), static_cast<short>(n), m);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(constant[i], v, 1e-6) << "sample " << i;
  }
}

TEST(FftRel, ToneLandsInItsBinWithTheRightSign) {
  // sin at bin 5 has X(5) = -j n/2: the imaginary slot n-5 must hold -n/2.
  for (int n : {64, 512}) {
    SCOPED_TRACE("n = " + std::to_string(n));
    std::vector<float> x(n);
    for (int t = 0; t < n; ++t) x[t] = static_cast<float>(std::sin(2.0 * kPi * 5 * t / n));
    fft_rel(x.data(), static_cast<short>(n), static_cast<short>(Log2(n)));
    EXPECT_NEAR(x[n - 5], -n / 2.0, 1e-4);
    EXPECT_NEAR(x[5], 0.0, 1e-4);
  }
}

TEST(FftRel, UnsupportedSizesLeaveTheBufferAlone) {
  struct Case { const char* name; int n, m; };
  const Case cases[] = {{"2048 exceeds the twiddle table", 2048, 11},
                        {"n and m disagree", 512, 8},
                        {"not a power of two", 100, 7},
                        {"negative order", 512, -1},
                        {"too short", 2, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<float> original = test::WhiteNoise(c.n, 1.0, 7u);
    std::vector<float> x = original;
    fft_rel(x.data(), static_cast<short>(c.n), static_cast<short>(c.m));
    EXPECT_EQ(x, original);
    ifft_rel(x.data(), static_cast<short>(c.n), static_cast<short>(c.m));
    EXPECT_EQ(x, original);
  }
}

}  // namespace
}  // namespace vorn
