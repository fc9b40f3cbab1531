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

TEST(CommonRom, HammingWindowIsTheUnitEnergyHammingShape) {
  double raw[512], energy = 0.0;
  for (int i = 0; i < 512; ++i) {
    raw[i] = 0.54 - 0.46 * std::cos(2.0 * kPi * i / 511.0);
    energy += raw[i] * raw[i];
  }
  for (int i = 0; i < 512; ++i) ASSERT_NEAR(hanmming_win[i], raw[i] / std::sqrt(energy), 3e-8) << "index " << i;
  EXPECT_NEAR(hanmming_win[0], 0.00561382, 3e-8);
  EXPECT_NEAR(hanmming_win[256], 0.07017218, 3e-8);
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
    std::vector<float> spectrum = test::WhiteNoise(n, 10.0, 2000u + n);
    const std::vector<double> want = InversePackedDft(spectrum);
    ifft_rel(spectrum.data(), static_cast<short>(n), static_cast<short>(Log2(n)));
    const double err = MaxAbsDiff(spectrum, want);
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

// ---------------------------------------------------------------- conversion

TEST(CommonUtil, TruncSaturatesAndZeroesTheExactLimits) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  struct Case { const char* name; float x; short want; };
  const Case cases[] = {
      {"exactly 32767.0", 32767.0f, 0},
      {"exactly -32768.0", -32768.0f, 0},
      {"NaN", nan, 0},
      {"just above the top", 32767.5f, 32767},
      {"just below the bottom", -32768.5f, -32768},
      {"+inf", inf, 32767},
      {"-inf", -inf, -32768},
      {"largest float under the top", std::nextafter(32767.0f, 0.0f), 32766},
      {"smallest float over the bottom", std::nextafter(-32768.0f, 0.0f), -32767},
      {"truncates, not rounds, positive", 1.9f, 1},
      {"truncates toward zero, negative", -1.9f, -1},
      {"small negative to zero", -0.9f, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(TRUNC(c.x), c.want);
  }
  float in[3] = {nan, 32767.5f, -1.9f};
  short out[3];
  Float2PCM(in, out, 3);
  EXPECT_EQ(std::vector<short>(out, out + 3), (std::vector<short>{0, 32767, -1}));
}

// ---------------------------------------------------------------- buffers

TEST(CommonUtil, FrameSlidesKeepTheTailAndAppend) {
  const int frame_len = 8, frame_move = 3;
  std::vector<float> buf = {0, 1, 2, 3, 4, 5, 6, 7};
  std::vector<short> fresh = {-32768, 100, 32767};
  SaveFrameMoveAu(buf.data(), fresh.data(), frame_len, frame_move);
  EXPECT_EQ(buf, (std::vector<float>{3, 4, 5, 6, 7, -32768, 100, 32767}));
  AddZero(buf.data(), frame_len, frame_move);
  EXPECT_EQ(buf, (std::vector<float>{6, 7, -32768, 100, 32767, 0, 0, 0}));

  // Whole-frame move replaces everything; nonsense sizes change nothing.
  std::vector<short> frame(frame_len, 5);
  SaveFrameMoveAu(buf.data(), frame.data(), frame_len, frame_len);
  EXPECT_EQ(buf, std::vector<float>(frame_len, 5.0f));
  for (int move : {0, -1, frame_len + 1}) {
    AddZero(buf.data(), frame_len, move);
    SaveFrameMoveAu(buf.data(), frame.data(), frame_len, move);
    EXPECT_EQ(buf, std::vector<float>(frame_len, 5.0f)) << "move " << move;
  }
}

TEST(CommonUtil, ElementwiseRoutines) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> a = {1.0f, 2.0f, nan, 3.0f, 1e30f};
  std::vector<float> b = {2.0f, 2.0f, 4.0f, nan, 1e30f};
  std::vector<float> c(a.size());

  DataMin(a.data(), b.data(), 5, c.data());
  EXPECT_EQ(c[0], 1.0f);
  EXPECT_EQ(c[1], 2.0f);
  EXPECT_EQ(c[2], 4.0f);  // NaN in a: b wins
  EXPECT_TRUE(std::isnan(c[3]));

  // (a*b)*scale: 1e30*1e30 overflows before the scale could bring it back.
  DataMult(a.data(), b.data(), 5, 1e-30f, c.data());
  EXPECT_EQ(c[0], 2e-30f * 1.0f);
  EXPECT_TRUE(std::isinf(c[4]));

  std::vector<float> y = {1.0f, 1.0f, 1.0f};
  std::vector<float> x = {0.0f, 0.0f, 0.0f};
  for (int i = 0; i < 10; ++i) SmoothData(y.data(), x.data(), 0.5f, 2);
  EXPECT_EQ(y[0], std::ldexp(1.0f, -10));
  EXPECT_EQ(y[2], 1.0f);  // beyond the length: untouched

  // Zero and negative lengths touch nothing.
  const std::vector<float> before = y;
  InitData(y.data(), 1.0f, -5);
  CopyData(y.data(), x.data(), 0);
  SmoothData(y.data(), x.data(), 0.1f, -1);
  EXPECT_EQ(y, before);
}

TEST(CommonUtil, Means) {
  struct Case { const char* name; std::vector<int> ang; int want; };
  const Case cases[] = {{"truncates", {1, 2}, 1},
                        {"truncates toward zero", {-1, -2}, -1},
                        {"no wrap-around", {350, 10}, 180},
                        {"single", {359}, 359},
                        {"large values do not overflow", {2000000000, 2000000000}, 2000000000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int> ang = c.ang;
    EXPECT_EQ(MeanAngle360(ang.data(), static_cast<int>(ang.size())), c.want);
  }
  EXPECT_EQ(MeanAngle360(nullptr, 0), 0);

  std::vector<float> x = {1.0f, 2.0f, 3.0f, 10.0f};
  EXPECT_EQ(DataMean(x.data(), 0, 3), 2.0f);
  EXPECT_EQ(DataMean(x.data(), 3, 4), 10.0f);
  EXPECT_EQ(DataMean(x.data(), 2, 2), 0.0f);
}

// ---------------------------------------------------------------- Conv

// The definition, independently: every term whose signal index is inside.
std::vector<double> CentredConv(const std::vector<float>& s, const std::vector<float>& k) {
  const int n = static_cast<int>(s.size()), len = static_cast<int>(k.size());
  const int h = (len + 1) / 2;
  std::vector<double> out(n, 0.0);
  for (int o = 0; o < n; ++o)
    for (int j = 0; j < len; ++j) {
      const int idx = o + j - (h - 1);
      if (idx >= 0 && idx < n) out[o] += static_cast<double>(k[j]) * s[idx];
    }
  return out;
}

TEST(CommonUtil, ConvIsCentredAndDropsTermsBeyondBothEdges) {
  struct Case { const char* name; int alen, blen; bool a_is_signal; };
  const Case cases[] = {
      {"odd kernel in b", 40, 5, true},       {"odd kernel in a", 3, 40, false},
      {"even kernel", 40, 4, true},           {"equal lengths: b is the signal", 7, 7, false},
      {"kernel of one", 1, 9, false},         {"signal barely longer", 6, 5, true},
      {"kernel longer than half", 9, 8, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<float> a = test::WhiteNoise(c.alen, 1.0, 11u + c.alen);
    std::vector<float> b = test::WhiteNoise(c.blen, 1.0, 13u + c.blen);
    const std::vector<float>& signal = c.a_is_signal ? a : b;
    const std::vector<float>& kernel = c.a_is_signal ? b : a;
    std::vector<float> out(signal.size());
    Conv(a.data(), c.alen, b.data(), c.blen, out.data());
    const std::vector<double> want = CentredConv(signal, kernel);
    for (size_t o = 0; o < out.size(); ++o) ASSERT_NEAR(out[o], want[o], 1e-5) << "output " << o;
  }

  // Edges by hand: [1 2 1] over ones gives 3 at both ends, 4 inside.
  std::vector<float> ones(6, 1.0f);
  std::vector<float> kernel = {1.0f, 2.0f, 1.0f};
  std::vector<float> out(6);
  Conv(ones.data(), 6, kernel.data(), 3, out.data());
  EXPECT_EQ(out, (std::vector<float>{3, 4, 4, 4, 4, 3}));

  // Nothing written for empty inputs.
  Conv(ones.data(), 0, kernel.data(), 3, out.data());
  Conv(ones.data(), 6, kernel.data(), -1, out.data());
  EXPECT_EQ(out, (std::vector<float>{3, 4, 4, 4, 4, 3}));
}

// ---------------------------------------------------------------- spectra

TEST(CommonUtil, PsdAndSubbandEnergyMatchTheDirectDft) {
  const int n = 512;
  std::vector<float> x = test::WhiteNoise(n, 1.0, 99u);
  const std::vector<float> time = x;
  fft_rel(x.data(), n, 9);
  std::vector<float> psd(n / 2 + 1);
  GetPsd(x.data(), n, psd.data());
  const std::vector<double> spectrum = PackedDft(time);
  for (int k = 0; k <= n / 2; ++k) {
    const double im = (k > 0 && k < n / 2) ? spectrum[n - k] : 0.0;
    const double power = spectrum[k] * spectrum[k] + im * im;
    ASSERT_NEAR(psd[k], power, 2e-4 * (1.0 + power)) << "bin " << k;
  }

  struct Band { int el, eh; };
  for (const Band band : {Band{0, 0}, Band{0, 10}, Band{5, 40}, Band{200, 256}, Band{0, 256}, Band{256, 256}}) {
    SCOPED_TRACE("band " + std::to_string(band.el) + ".." + std::to_string(band.eh));
    double sum = 0.0;
    for (int k = band.el; k <= band.eh; ++k) sum += psd[k];
    const double want = sum / (band.eh - band.el + 1);
    EXPECT_NEAR(GetSubbandEng(x.data(), n, band.el, band.eh), want, 1e-5 * want);
  }
  // Bins outside the spectrum add nothing; an empty band is 0.
  EXPECT_NEAR(GetSubbandEng(x.data(), n, 250, 300), (psd[250] + psd[251] + psd[252] + psd[253] + psd[254] +
                                                    psd[255] + psd[256]) / 51.0, 1e-3);
  EXPECT_NEAR(GetSubbandEng(x.data(), n, -10, 0), psd[0] / 11.0, 1e-3);
  EXPECT_EQ(GetSubbandEng(x.data(), n, 20, 10), 0.0f);
}

TEST(CommonUtil, CentroidAndDecibels) {
  std::vector<float> zeros(16, 0.0f);
  EXPECT_EQ(GetCentroid(zeros.data(), 16), 1.0f);
  EXPECT_EQ(GetCentroid(zeros.data(), 0), 1.0f);
  std::vector<float> peak(16, 0.0f);
  peak[3] = 2.0f;  // bin 4, 1-based
  EXPECT_NEAR(GetCentroid(peak.data(), 16), 0.25f, 1e-7);
  std::vector<float> flat(9, 1.0f);  // centroid 5
  EXPECT_NEAR(GetCentroid(flat.data(), 9), 0.2f, 1e-7);

  EXPECT_NEAR(CalcDB(0.0f, 0.0f), -50.0f, 1e-4);
  EXPECT_NEAR(CalcDB(100.0f, 1.0f), 20.0f, 1e-4);
  EXPECT_NEAR(CalcDB(1.0f, 1000.0f), 10.0 * std::log10(1.01e-3), 1e-4);  // the 1e-5 floor shows
}

TEST(CommonUtil, HanningWindow) {
  for (int len : {1, 2, 7, 256}) {
    SCOPED_TRACE("len " + std::to_string(len));
    std::vector<float> win(len);
    const float sum = GetHanningWin(len, win.data());
    double stored_sum = 0.0;
    for (int i = 1; i <= len; ++i) {
      const double want = 0.5 * (1.0 - std::cos(i * 6.2831852 / (len + 1)));
      ASSERT_NEAR(win[i - 1], want, 1e-7) << "sample " << i;
      stored_sum += win[i - 1];
    }
    EXPECT_NEAR(sum, stored_sum, 1e-6 * len);
    EXPECT_NEAR(sum, (len + 1) / 2.0, 1e-4 * len);  // closed form for the exact 2*pi
  }
  float untouched = 42.0f;
  EXPECT_EQ(GetHanningWin(0, &untouched), 0.0f);
  EXPECT_EQ(untouched, 42.0f);
}

// ---------------------------------------------------------------- ExpExpint

double Rational(double x, const double num[3], const double den[2]) {
  return (num[0] * x * x + num[1] * x + num[2]) / (x * x + den[0] * x + den[1]);
}

TEST(CommonUtil, ExpExpintTakesTheUpperBranchAtEachBreakpoint) {
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
      {"at 5", 5.0f, 1.0},
      {"above 5", 100.0f, 1.0},
      {"zero", 0.0f, 1.0},
      {"negative", -0.5f, 1.0},
      {"NaN", std::numeric_limits<float>::quiet_NaN(), 1.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_NEAR(ExpExpint(c.x), c.want, 2e-6 * c.want);
  }
  // The branches really differ at the breakpoints (otherwise the checks above
  // could not tell which side was taken).
  EXPECT_GT(std::fabs(Rational(0.25, low_num, low_den) - Rational(0.25, mid_num, mid_den)), 1e-4);
  EXPECT_GT(std::fabs(Rational(1.0, mid_num, mid_den) - Rational(1.0, high_num, high_den)), 1e-4);
  EXPECT_GT(std::fabs(pole(0.001f) - Rational(0.001f, low_num, low_den)), 1e-4);
  EXPECT_GT(std::fabs(Rational(5.0, high_num, high_den) - 1.0), 1e-4);
}

// ---------------------------------------------------------------- files

class CommonFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::path(::testing::TempDir()) /
           ("vorn_common_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = (dir_ / name).string();
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
  }

  std::filesystem::path dir_;
};

// One tagged block: 8-byte NUL-padded tag, little-endian 32-bit length, data.
std::string Block(const std::string& tag, std::uint32_t declared_len, size_t actual_bytes) {
  std::string out(8, '\0');
  std::memcpy(out.data(), tag.data(), std::min<size_t>(tag.size(), 8));
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((declared_len >> (8 * i)) & 0xFF));
  for (size_t i = 0; i < actual_bytes; ++i) out.push_back(static_cast<char>(i * 7));
  return out;
}

std::string Floats(const std::string& tag, int count) { return Block(tag, 4u * count, 4u * count); }

TEST_F(CommonFiles, FilterReadLocatesAndValidatesTaggedBlocks) {
  struct Case {
    const char* name;
    std::string bytes;
    int data_len;
    std::string head;
    int head_len;
    int want;
  };
  const Case cases[] = {
      {"single matching block", Floats("AEC----_", 64), 64, "AEC----_", 8, 0},
      {"second block matches", Floats("OTHER", 3) + Floats("AEC----_", 64), 64, "AEC----_", 8, 0},
      {"prefix match", Floats("AEC----_", 16), 16, "AEC", 3, 0},
      {"short tag, NUL padded", Floats("NS", 5), 5, "NS", 3, 0},
      {"head longer than the stored tag", Floats("NS", 5), 5, "NSX", 3, -1},
      {"head beyond 8 characters", Floats("ABCDEFGH", 5), 5, "ABCDEFGHI", 9, -1},
      {"exactly 12 bytes, matching empty block", Block("AEC----_", 0, 0), 0, "AEC----_", 8, -1},
      {"wrong length in the first match", Floats("AEC----_", 32) + Floats("AEC----_", 64), 64, "AEC----_", 8,
       -1},
      {"data truncated", Block("AEC----_", 256, 200), 64, "AEC----_", 8, -1},
      {"length beyond 4 GB-wrap", Block("AEC----_", 0xFFFFFFFCu, 8), 0x3FFFFFFF, "AEC----_", 8, -1},
      {"header truncated after a skip", Floats("OTHER", 2) + std::string(6, 'A'), 2, "AEC", 3, -1},
      {"no such tag", Floats("OTHER", 2) + Floats("MORE", 2), 2, "AEC", 3, -1},
      {"skip past the end", Block("OTHER", 1000, 4) + Floats("AEC----_", 1), 1, "AEC", 3, -1},
      {"negative data_len", Floats("AEC----_", 1), -1, "AEC----_", 8, -1},
      {"match on zero characters takes the first block", Floats("ANY", 4), 4, "", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path = Write("filter.bin", c.bytes);
    float canary = 123.0f;
    EXPECT_EQ(Common_FilterRead(path.data(), &canary, c.data_len, c.head.c_str(), c.head_len), c.want);
    EXPECT_EQ(canary, 123.0f);  // a locator only: never writes coefficients
  }

  std::string missing = (dir_ / "absent.bin").string();
  EXPECT_EQ(Common_FilterRead(missing.data(), nullptr, 4, "AEC", 3), -1);
  std::string directory = dir_.string();
  EXPECT_EQ(Common_FilterRead(directory.data(), nullptr, 4, "AEC", 3), -1);
  EXPECT_EQ(Common_FilterRead(nullptr, nullptr, 4, "AEC", 3), 0);
}

TEST_F(CommonFiles, SaveDataAppendsAndReportsUnopenableFiles) {
  const std::string path = (dir_ / "dump.bin").string();
  std::vector<short> first = {1, -2, 3};
  std::vector<short> second = {32767};
  SaveData(path.c_str(), first.data(), 3, sizeof(short));
  SaveData(path.c_str(), second.data(), 1, sizeof(short));
  std::ifstream in(path, std::ios::binary);
  std::vector<short> back(4);
  in.read(reinterpret_cast<char*>(back.data()), 8);
  EXPECT_EQ(in.gcount(), 8);
  EXPECT_EQ(back, (std::vector<short>{1, -2, 3, 32767}));
  EXPECT_EQ(std::filesystem::file_size(path), 8u);

  ::testing::internal::CaptureStderr();
  SaveData((dir_ / "no_such_dir" / "dump.bin").string().c_str(), first.data(), 3, sizeof(short));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "file error!\n");
}

}  // namespace
}  // namespace vorn
