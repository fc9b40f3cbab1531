// Shared real FFT, its tables and the common utilities, checked against independent double-precision
// computations and at their boundaries; exactly sized buffers let the sanitizer build catch overruns.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"
#include "common/fft_rel_lanes.h"
#include "common/pcm_round.h"
#include "sim/signals.h"

namespace vorn {
namespace {

using Floats = std::vector<float>;
constexpr double kPi = std::numbers::pi;
const float kNaN = std::numeric_limits<float>::quiet_NaN();

short Log2(int n) { return static_cast<short>(std::lround(std::log2(n))); }

// Direct DFT in double, packed the way the transform packs it.
std::vector<double> PackedDft(const Floats& x) {
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

// The bit-reversal table needs no check of its own: every entry drives the 256-point permutation, which
// the transform's comparison with the direct DFT checks.
TEST(CommonRom, SineTableAndWindowFollowTheirRules) {
  for (int i = 0; i <= 640; ++i) ASSERT_NEAR(sincos_t_ext[i], std::sin(2.0 * kPi * i / 1024.0), 3e-8) << i;
  // The Hamming shape scaled to unit energy.
  auto hamming = [](int i) { return 0.54 - 0.46 * std::cos(2.0 * kPi * i / 511.0); };
  double energy = 0.0;
  for (int i = 0; i < 512; ++i) energy += hamming(i) * hamming(i);
  for (int i = 0; i < 512; ++i) ASSERT_NEAR(hanmming_win[i], hamming(i) / std::sqrt(energy), 3e-8) << i;
}

TEST(FftRel, MatchesTheDirectDftWithItsBinPowersAndRoundTrips) {
  // 128, 256 and 512 take the table-driven permutation, the other sizes the counter-based one.
  for (short n : {4, 8, 16, 32, 64, 128, 256, 512, 1024}) {
    SCOPED_TRACE("n = " + std::to_string(n));
    Floats x = sim::WhiteNoise(n, 0.5, 1000u + n);
    const Floats original = x;
    const std::vector<double> want = PackedDft(x);
    fft_rel(x.data(), n, Log2(n));
    double err = 0.0;
    for (int i = 0; i < n; ++i) err = std::max(err, std::fabs(x[i] - want[i]));
    // Float rounding grows like log2(n) * sqrt(n) on this input scale.
    EXPECT_LT(err, 1.5e-7 * Log2(n) * std::sqrt(n));
    if (n == 512 || n == 64) std::printf("fft_rel n=%d: max |error| vs double DFT = %.3g\n", n, err);
    if (n == 512) {
      // Bin powers of this spectrum, and the mean over a band's width: bins outside the spectrum add
      // nothing and an empty band is 0.
      Floats psd(n / 2 + 1);
      GetPsd(x.data(), n, psd.data());
      for (int k = 0; k <= n / 2; ++k) {
        const double power = want[k] * want[k] + (k > 0 && k < n / 2 ? want[n - k] * want[n - k] : 0.0);
        ASSERT_NEAR(psd[k], power, 2e-4 * (1.0 + power)) << "bin " << k;
      }
      const std::pair<int, int> bands[] = {{0, 0},     {0, 10},    {5, 40},   {200, 256}, {0, 256},
                                           {256, 256}, {250, 300}, {-10, 0},  {20, 10}};
      for (const auto& [el, eh] : bands) {
        double sum = 0.0;
        for (int k = std::max(el, 0); k <= std::min(eh, n / 2); ++k) sum += psd[k];
        const double band_mean = eh < el ? 0.0 : sum / (eh - el + 1);
        EXPECT_NEAR(GetSubbandEng(x.data(), n, el, eh), band_mean, 1e-5 * band_mean) << el << ".." << eh;
      }
    }
    ifft_rel(x.data(), n, Log2(n));
    for (int i = 0; i < n; ++i) ASSERT_NEAR(x[i], original[i], 0.5 * 4e-7 * Log2(n)) << "round trip " << i;
    if (n != 64 && n != 512) continue;

    // An impulse and a constant give their spectra exactly.
    Floats impulse(n, 0.0f), constant(n, 0.75f);
    impulse[0] = 1.0f;
    fft_rel(impulse.data(), n, Log2(n));
    for (int i = 0; i < n; ++i) ASSERT_EQ(impulse[i], i <= n / 2 ? 1.0f : 0.0f) << "bin slot " << i;
    fft_rel(constant.data(), n, Log2(n));
    EXPECT_EQ(constant[0], n * 0.75f);
    for (int i = 1; i < n; ++i) ASSERT_NEAR(constant[i], 0.0f, 1e-5) << "bin slot " << i;
    ifft_rel(constant.data(), n, Log2(n));
    for (int i = 0; i < n; ++i) ASSERT_NEAR(constant[i], 0.75f, 1e-6) << "sample " << i;
  }
  // Sizes the transform does not support leave the buffer alone: beyond the twiddle table, n and m
  // disagreeing, not a power of two, a negative order, too short.
  struct Case { short n, m; };
  for (const Case c : {Case{2048, 11}, Case{512, 8}, Case{100, 7}, Case{512, -1}, Case{2, 1}}) {
    const Floats original = sim::WhiteNoise(c.n, 1.0, 7u);
    Floats x = original;
    fft_rel(x.data(), c.n, c.m);
    EXPECT_EQ(x, original) << c.n << ", " << c.m;
    ifft_rel(x.data(), c.n, c.m);
    EXPECT_EQ(x, original) << c.n << ", " << c.m;
  }
}

// Bit for bit, except that a NaN may carry either sign: where two NaNs meet in
// a sum, the one kept depends on the operand order the compiler picks for a
// commutative operation, in the plain routine as in the vector one. Where the
// NaNs land is still checked.
::testing::AssertionResult SameBitsOrBothNaN(const Floats& plain, const Floats& vector) {
  for (std::size_t i = 0; i < plain.size(); ++i) {
    if (std::isnan(plain[i]) && std::isnan(vector[i])) continue;
    if (std::memcmp(&plain[i], &vector[i], sizeof(float)) != 0)
      return ::testing::AssertionFailure() << "at " << i << ": " << plain[i] << " vs " << vector[i];
  }
  return ::testing::AssertionSuccess();
}

// The vector transforms against their plain twins, bit for bit, on every
// size, on noise, on values of very different scales, and on signed zeros,
// infinities and NaN (which must travel through the same lanes).
TEST(FftRel, VectorTransformsGiveThePlainBits) {
#if defined(VORN_SIMD4)
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  for (short n : {4, 8, 16, 32, 64, 128, 256, 512, 1024}) {
    SCOPED_TRACE("n = " + std::to_string(n));
    std::vector<Floats> inputs = {sim::WhiteNoise(n, 1000.0, 50u + n), sim::WhiteNoise(n, 1e-30, 51u + n)};
    Floats mixed = sim::WhiteNoise(n, 1.0, 52u + n);
    for (int i = 0; i < n; i += 7) mixed[i] *= 1e20f;
    inputs.push_back(mixed);
    Floats special(n, -0.0f);
    special[n / 2 - 1] = inf;
    special[n - 3] = nan;
    inputs.push_back(special);
    for (const Floats& input : inputs) {
      Floats plain = input, vector = input, wide = input;
      FftRelPlain(plain.data(), n, Log2(n));
      FftRelSimd(vector.data(), n, Log2(n));
      ASSERT_TRUE(SameBitsOrBothNaN(plain, vector)) << "forward";
#if defined(VORN_AVX2)
      if (CpuHasAvx2()) {
        FftRelAvx2(wide.data(), n, Log2(n));
        ASSERT_TRUE(SameBitsOrBothNaN(plain, wide)) << "forward, eight lanes";
        IfftRelAvx2(wide.data(), n, Log2(n));
      }
#endif
      IfftRelPlain(plain.data(), n, Log2(n));
      IfftRelSimd(vector.data(), n, Log2(n));
      ASSERT_TRUE(SameBitsOrBothNaN(plain, vector)) << "inverse";
#if defined(VORN_AVX2)
      if (CpuHasAvx2()) {
        ASSERT_TRUE(SameBitsOrBothNaN(plain, wide)) << "inverse, eight lanes";
      }
#endif
    }
  }
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

// Blocks transformed together against each transformed alone by the plain
// routines, bit for bit: every batch size, the sizes with lanes and one
// without, and a different input in every block (noise, tiny and huge
// values, signed zeros with an infinity and a NaN), so a block that took
// another's values or its neighbour's lane shows.
TEST(FftRel, BlocksTransformedTogetherGiveThePlainBits) {
  const float inf = std::numeric_limits<float>::infinity();
  for (short n : {64, 128, 256, 512}) {
    const short m = Log2(n);
    Floats special(n, -0.0f);
    special[n / 2 - 1] = inf;
    special[n - 3] = kNaN;
    Floats mixed = sim::WhiteNoise(n, 1.0, 62u + n);
    for (int i = 0; i < n; i += 7) mixed[i] *= 1e20f;
    const std::vector<Floats> inputs = {sim::WhiteNoise(n, 1000.0, 60u + n), special,
                                        sim::WhiteNoise(n, 1e-30, 61u + n), mixed};
    for (int count = 1; count <= kFftRelLanes; ++count) {
      for (int rotate = 0; rotate < 4; ++rotate) {
        SCOPED_TRACE("n = " + std::to_string(n) + ", blocks = " + std::to_string(count) +
                     ", first input " + std::to_string(rotate));
        std::vector<Floats> plain, lanes;
        for (int b = 0; b < count; ++b) plain.push_back(inputs[(b + rotate) % 4]);
        lanes = plain;
        std::vector<Floats> four = plain;
        float* x[kFftRelLanes] = {};
        float* x4[kFftRelLanes] = {};
        for (int b = 0; b < count; ++b) x[b] = lanes[b].data(), x4[b] = four[b].data();
        FftRelLanes(x, count, n, m);
#if defined(VORN_SIMD4)
        FftRelLanesSimd(x4, count, n, m, false);
#else
        FftRelLanes(x4, count, n, m);
#endif
        for (int b = 0; b < count; ++b) {
          FftRelPlain(plain[b].data(), n, m);
          ASSERT_TRUE(SameBitsOrBothNaN(plain[b], lanes[b])) << "forward, block " << b;
          ASSERT_TRUE(SameBitsOrBothNaN(plain[b], four[b])) << "forward, four lanes, block " << b;
        }
        IfftRelLanes(x, count, n, m);
#if defined(VORN_SIMD4)
        IfftRelLanesSimd(x4, count, n, m, false);
#else
        IfftRelLanes(x4, count, n, m);
#endif
        for (int b = 0; b < count; ++b) {
          IfftRelPlain(plain[b].data(), n, m);
          ASSERT_TRUE(SameBitsOrBothNaN(plain[b], lanes[b])) << "inverse, block " << b;
          ASSERT_TRUE(SameBitsOrBothNaN(plain[b], four[b])) << "inverse, four lanes, block " << b;
        }
      }
    }
  }
}

TEST(CommonUtil, TruncSaturatesAndZeroesTheExactLimits) {
  const float inf = std::numeric_limits<float>::infinity();
  struct Case { const char* name; float x; short want; };
  const Case cases[] = {
      {"exactly 32767.0", 32767.0f, 0},         {"exactly -32768.0", -32768.0f, 0},
      {"NaN", kNaN, 0},                         {"just above the top", 32767.5f, 32767},
      {"just below the bottom", -32768.5f, -32768}, {"+inf", inf, 32767},
      {"-inf", -inf, -32768},                   {"truncates, positive", 1.9f, 1},
      {"truncates toward zero", -1.9f, -1},     {"small negative to zero", -0.9f, 0},
      {"largest float under the top", std::nextafter(32767.0f, 0.0f), 32766},
      {"smallest float over the bottom", std::nextafter(-32768.0f, 0.0f), -32767},
  };
  for (const Case& c : cases) EXPECT_EQ(TRUNC(c.x), c.want) << c.name;
  float in[3] = {kNaN, 32767.5f, -1.9f};
  short out[3];
  Float2PCM(in, out, 3);
  EXPECT_EQ(std::vector<short>(out, out + 3), (std::vector<short>{0, 32767, -1}));
#if defined(VORN_SIMD4)
  // The vector truncation gives the plain bits on every case, in each lane,
  // among noise past the rails, with an odd tail.
  std::vector<float> x = sim::WhiteNoise(203, 30000.0, 4);
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    x[i] = cases[i].x;
    x[2 * std::size(cases) + 3 * i] = cases[i].x;
  }
  std::vector<short> plain(x.size()), vector(x.size());
  Float2PCMPlain(x.data(), plain.data(), static_cast<int>(x.size()));
  TruncToPcmSimd(x.data(), vector.data(), static_cast<int>(x.size()));
  EXPECT_EQ(plain, vector);
#endif
}

TEST(CommonUtil, FrameSlidesKeepTheTailAndAppend) {
  Floats buf = {0, 1, 2, 3, 4, 5, 6, 7};
  std::vector<short> fresh = {-32768, 100, 32767, 5, 5, 5, 5, 5};
  SaveFrameMoveAu(buf.data(), fresh.data(), 8, 3);
  AddZero(buf.data(), 8, 3);
  EXPECT_EQ(buf, (Floats{6, 7, -32768, 100, 32767, 0, 0, 0}));
  SaveFrameMoveAu(buf.data(), fresh.data() + 3, 5, 5);  // a whole 5-entry frame moves
  for (int move : {0, -1, 9}) {  // nonsense sizes change nothing
    AddZero(buf.data(), 8, move);
    SaveFrameMoveAu(buf.data(), fresh.data(), 8, move);
  }
  EXPECT_EQ(buf, (Floats{5, 5, 5, 5, 5, 0, 0, 0}));
}

TEST(CommonUtil, ElementwiseRoutinesAndMeans) {
  Floats a = {1.0f, 2.0f, kNaN, 3.0f, 1e30f}, b = {2.0f, 2.0f, 4.0f, kNaN, 1e30f}, c(5);
  DataMin(a.data(), b.data(), 5, c.data());
  EXPECT_EQ(c[0], 1.0f);
  EXPECT_EQ(c[2], 4.0f);  // NaN in a: b wins
  EXPECT_TRUE(std::isnan(c[3]));
  // (a*b)*scale: 1e30*1e30 overflows before the scale could bring it back.
  DataMult(a.data(), b.data(), 5, 1e-30f, c.data());
  EXPECT_EQ(c[0], 2e-30f);
  EXPECT_TRUE(std::isinf(c[4]));
  EXPECT_EQ(DataMean(a.data(), 0, 2), 1.5f);
  EXPECT_EQ(DataMean(a.data(), 2, 2), 0.0f);
#if defined(VORN_AVX2)
  // The eight-lane twins give the plain bits, NaN, signed zeros, infinities
  // and denormals included, in place and out of place, over whole vectors
  // and a tail.
  if (CpuHasAvx2()) {
    const Floats specials = {kNaN, 0.0f, -0.0f, 1e-40f, -1e-40f, std::numeric_limits<float>::infinity(), -3.5f, 1e30f};
    for (int len : {257, 7}) {
      Floats x = sim::WhiteNoise(len, 1.0, 41u), y = sim::WhiteNoise(len, 1.0, 42u);
      for (int k = 0; k < len; k += 3) x[k] = specials[k % specials.size()];
      for (int k = 1; k < len; k += 4) y[k] = specials[(k + 3) % specials.size()];
      const auto same = [len](const Floats& p, const Floats& q) {
        return std::memcmp(p.data(), q.data(), len * sizeof(float)) == 0;
      };
      Floats plain(len), wide(len);
      DataMinPlain(x.data(), y.data(), len, plain.data());
      DataMinAvx2(x.data(), y.data(), len, wide.data());
      EXPECT_TRUE(same(plain, wide)) << "min, " << len;
      DataMultPlain(x.data(), y.data(), len, 0.7f, plain.data());
      DataMultAvx2(x.data(), y.data(), len, 0.7f, wide.data());
      EXPECT_TRUE(same(plain, wide)) << "product, " << len;
      AddWinPlain(x.data(), y.data(), len, plain.data());
      AddWinAvx2(x.data(), y.data(), len, wide.data());
      EXPECT_TRUE(same(plain, wide)) << "window, " << len;
      plain = y, wide = y;
      SmoothDataPlain(plain.data(), x.data(), 0.9f, len);
      SmoothDataAvx2(wide.data(), x.data(), 0.9f, len);
      EXPECT_TRUE(same(plain, wide)) << "smoothing, " << len;
      plain = x, wide = x;  // in place, as the suppressor calls them
      DataMinPlain(y.data(), plain.data(), len, plain.data());
      DataMinAvx2(y.data(), wide.data(), len, wide.data());
      EXPECT_TRUE(same(plain, wide)) << "min in place, " << len;
    }
    for (int n : {512, 20}) {  // the bin powers, their mirrored half read backwards
      Floats f = sim::WhiteNoise(n, 1.0, 43u);
      for (int k = 0; k < n; k += 7) f[k] = specials[k % specials.size()];
      Floats plain(n / 2 + 1), wide(n / 2 + 1);
      GetPsdPlain(f.data(), n, plain.data());
      GetPsdAvx2(f.data(), n, wide.data());
      EXPECT_EQ(std::memcmp(plain.data(), wide.data(), plain.size() * sizeof(float)), 0) << "bin powers, " << n;
    }
  }
#endif
  // A plain truncating mean: no wrap-around at 360 and no overflow.
  struct Case { std::vector<int> ang; int want; };
  const Case cases[] = {{{1, 2}, 1}, {{-1, -2}, -1}, {{350, 10}, 180}, {{2000000000, 2000000000}, 2000000000}};
  for (const Case& m : cases) {
    std::vector<int> ang = m.ang;
    EXPECT_EQ(MeanAngle360(ang.data(), static_cast<int>(ang.size())), m.want) << ang[0];
  }
  EXPECT_EQ(MeanAngle360(nullptr, 0), 0);
}

TEST(CommonUtil, ConvIsCentredAndDropsTermsBeyondBothEdges) {
  struct Case { const char* name; int alen, blen; bool a_is_signal; };
  const Case cases[] = {{"odd kernel in b", 40, 5, true},      {"odd kernel in a", 3, 40, false},
                        {"even kernel", 40, 4, true},          {"equal lengths: b is the signal", 7, 7, false},
                        {"kernel of one", 1, 9, false},        {"signal barely longer", 6, 5, true},
                        {"kernel longer than half", 9, 8, true},
                        {"suppressor's global smoothing", 31, 257, false},
                        {"suppressor's local smoothing", 257, 3, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Floats a = sim::WhiteNoise(c.alen, 1.0, 11u + c.alen), b = sim::WhiteNoise(c.blen, 1.0, 13u + c.blen);
    const Floats &signal = c.a_is_signal ? a : b, &kernel = c.a_is_signal ? b : a;
    Floats out(signal.size());
    Conv(a.data(), c.alen, b.data(), c.blen, out.data());
    Floats plain(signal.size());
    ConvPlain(a.data(), c.alen, b.data(), c.blen, plain.data());
    EXPECT_EQ(std::memcmp(out.data(), plain.data(), out.size() * sizeof(float)), 0) << "differs from the plain loop";
    // The definition, independently: every term whose signal index is inside.
    const int n = static_cast<int>(signal.size()), len = static_cast<int>(kernel.size());
    for (int o = 0; o < n; ++o) {
      double want = 0.0;
      for (int j = 0, idx = o - (len + 1) / 2 + 1; j < len; ++j, ++idx) {
        if (idx >= 0 && idx < n) want += static_cast<double>(kernel[j]) * signal[idx];
      }
      ASSERT_NEAR(out[o], want, 1e-5) << "output " << o;
    }
  }
  // A range gives the same bits as the whole, plain and vector (four and eight
  // lanes) alike, and
  // writes nothing outside it.
  {
    Floats xi = sim::WhiteNoise(257, 1.0, 21u), kernel = sim::WhiteNoise(31, 1.0, 22u), whole(257);
    ConvPlain(kernel.data(), 31, xi.data(), 257, whole.data());
    const int ranges[][2] = {{6, 151}, {0, 257}, {0, 3}, {250, 300}, {-4, 20}, {100, 100}, {140, 139}};
    for (const auto& r : ranges) {
      SCOPED_TRACE(testing::Message() << "outputs " << r[0] << ".." << r[1]);
      std::vector<decltype(&ConvRange)> convs = {&ConvRange, &ConvRangePlain};
#if defined(VORN_SIMD4)
      convs.push_back(&ConvRangeSimd);
#endif
#if defined(VORN_AVX2)
      if (CpuHasAvx2()) convs.push_back(&ConvRangeAvx2);
#endif
      for (auto* conv : convs) {
        Floats out(257, -7.0f);
        conv(kernel.data(), 31, xi.data(), 257, r[0], r[1], out.data());
        for (int o = 0; o < 257; ++o)
          ASSERT_EQ(out[o], o >= r[0] && o < r[1] ? whole[o] : -7.0f) << "output " << o;
      }
    }
  }
  // Nothing is written for empty inputs.
  Floats ones(6, 1.0f), kernel = {1.0f, 2.0f, 1.0f}, out(6, 9.0f);
  Conv(ones.data(), 0, kernel.data(), 3, out.data());
  Conv(ones.data(), 6, kernel.data(), -1, out.data());
  EXPECT_EQ(out, Floats(6, 9.0f));
}

TEST(CommonUtil, DecibelsAndHanningWindow) {
  EXPECT_NEAR(CalcDB(0.0f, 0.0f), -50.0f, 1e-4);
  EXPECT_NEAR(CalcDB(100.0f, 1.0f), 20.0f, 1e-4);
  EXPECT_NEAR(CalcDB(1.0f, 1000.0f), 10.0 * std::log10(1.01e-3), 1e-4);  // the 1e-5 floor shows

  for (int len : {1, 2, 7, 256}) {
    Floats win(len);
    const float sum = GetHanningWin(len, win.data());
    double stored_sum = 0.0;
    for (int i = 1; i <= len; ++i) {
      ASSERT_NEAR(win[i - 1], 0.5 * (1.0 - std::cos(i * 6.2831852 / (len + 1))), 1e-7) << len << ": " << i;
      stored_sum += win[i - 1];
    }
    EXPECT_NEAR(sum, stored_sum, 1e-6 * len) << len;  // the sum of what was stored
  }
  float untouched = 42.0f;
  EXPECT_EQ(GetHanningWin(0, &untouched), 0.0f);
  EXPECT_EQ(untouched, 42.0f);
}

double Rational(double x, const double num[3], const double den[2]) {
  return (num[0] * x * x + num[1] * x + num[2]) / (x * x + den[0] * x + den[1]);
}

TEST(CommonUtil, ExpExpintTakesTheUpperBranchAtEachBreakpoint) {
  // Each pair of neighbouring branches differs by more than the tolerance at their breakpoint.
  const double low_num[3] = {1.092, 0.2034, 0.001081}, low_den[2] = {0.03076, 2.257e-5};
  const double mid_num[3] = {0.9287, 1.045, 0.3339}, mid_den[2] = {0.991, 0.0774};
  const double high_num[3] = {1.01, 0.1371, 0.7789}, high_den[2] = {0.2453, 0.4813};
  auto below = [](float b) { return std::nextafter(b, 0.0f); };
  auto pole = [](double x) { return 0.7497 / std::sqrt(x); };
  struct Case { const char* name; float x; double want; };
  const Case cases[] = {
      {"tiny", 1e-6f, pole(1e-6f)},
      {"under 0.001", below(0.001f), pole(below(0.001f))},
      {"at 0.001", 0.001f, Rational(0.001f, low_num, low_den)},
      {"under 0.25", below(0.25f), Rational(below(0.25f), low_num, low_den)},
      {"at 0.25", 0.25f, Rational(0.25, mid_num, mid_den)},
      {"under 1", below(1.0f), Rational(below(1.0f), mid_num, mid_den)},
      {"at 1", 1.0f, Rational(1.0, high_num, high_den)},
      {"under 5", below(5.0f), Rational(below(5.0f), high_num, high_den)},
      {"at 5", 5.0f, 1.0},  {"above 5", 100.0f, 1.0},  {"zero", 0.0f, 1.0},  {"negative", -0.5f, 1.0},
      {"NaN", kNaN, 1.0},
  };
  for (const Case& c : cases) EXPECT_NEAR(ExpExpint(c.x), c.want, 2e-6 * c.want) << c.name;
}

// A path of the test's own under the temporary directory.
std::string TempPath(const std::string& name) {
  return testing::TempDir() + "vorn_common_" + std::to_string(getpid()) + "_" + name;
}

// One tagged block: 8-byte NUL-padded tag, little-endian 32-bit length, data.
std::string Block(std::string tag, unsigned declared_len, size_t actual_bytes) {
  tag.resize(8, '\0');
  for (int i = 0; i < 4; ++i) tag.push_back(static_cast<char>((declared_len >> (8 * i)) & 0xFF));
  for (size_t i = 0; i < actual_bytes; ++i) tag.push_back(static_cast<char>(i * 7));
  return tag;
}
std::string FloatBlock(const std::string& tag, int count) { return Block(tag, 4u * count, 4u * count); }

TEST(CommonFiles, FilterReadValidatesTaggedBlocksAndSaveDataAppends) {
  struct Case { const char* name; std::string bytes; int data_len; std::string head; int head_len; int want; };
  const std::string aec = "AEC----_";
  const Case cases[] = {
      {"second block matches", FloatBlock("OTHER", 3) + FloatBlock(aec, 64), 64, aec, 8, 0},
      {"prefix match", FloatBlock(aec, 16), 16, "AEC", 3, 0},
      {"short tag, NUL padded", FloatBlock("NS", 5), 5, "NS", 3, 0},
      {"head longer than the stored tag", FloatBlock("NS", 5), 5, "NSX", 3, -1},
      {"head beyond 8 characters", FloatBlock("ABCDEFGH", 5), 5, "ABCDEFGHI", 9, -1},
      {"exactly 12 bytes, matching empty block", Block(aec, 0, 0), 0, aec, 8, -1},
      {"wrong length in the first match", FloatBlock(aec, 32) + FloatBlock(aec, 64), 64, aec, 8, -1},
      {"data truncated", Block(aec, 256, 200), 64, aec, 8, -1},
      {"length beyond 4 GB-wrap", Block(aec, 0xFFFFFFFCu, 8), 0x3FFFFFFF, aec, 8, -1},
      {"header truncated after a skip", FloatBlock("OTHER", 2) + std::string(6, 'A'), 2, "AEC", 3, -1},
      {"no such tag", FloatBlock("OTHER", 2) + FloatBlock("MORE", 2), 2, "AEC", 3, -1},
      {"skip past the end", Block("OTHER", 1000, 4) + FloatBlock(aec, 1), 1, "AEC", 3, -1},
      {"negative data_len", FloatBlock(aec, 1), -1, aec, 8, -1},
      {"match on zero characters takes the first block", FloatBlock("ANY", 4), 4, "", 0, 0},
  };
  std::string path = TempPath("filter.bin");
  for (const Case& c : cases) {
    std::ofstream(path, std::ios::binary).write(c.bytes.data(), static_cast<std::streamsize>(c.bytes.size()));
    float canary = 123.0f;  // a locator only: never writes coefficients
    EXPECT_EQ(Common_FilterRead(path.data(), &canary, c.data_len, c.head.c_str(), c.head_len), c.want) << c.name;
    EXPECT_EQ(canary, 123.0f) << c.name;
  }
  std::filesystem::remove(path);
  std::string directory = testing::TempDir();
  EXPECT_EQ(Common_FilterRead(path.data(), nullptr, 4, "AEC", 3), -1);  // missing
  EXPECT_EQ(Common_FilterRead(directory.data(), nullptr, 4, "AEC", 3), -1);
  EXPECT_EQ(Common_FilterRead(nullptr, nullptr, 4, "AEC", 3), 0);

  short first[3] = {1, -2, 3}, second[1] = {32767}, back[5] = {};
  EXPECT_EQ(SaveData(path.c_str(), first, 3, sizeof(short)), 0);
  EXPECT_EQ(SaveData(path.c_str(), second, 1, sizeof(short)), 0);
  EXPECT_EQ(std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(back), 10).gcount(), 8);
  EXPECT_EQ(std::vector<short>(back, back + 4), (std::vector<short>{1, -2, 3, 32767}));
  std::filesystem::remove(path);
  testing::internal::CaptureStderr();
  EXPECT_EQ(SaveData(TempPath("no_such_dir/dump.bin").c_str(), first, 3, sizeof(short)), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the library never prints
}

}  // namespace
}  // namespace vorn
