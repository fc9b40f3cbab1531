// Weight tables and the fixed beamformer: steering of every listed set, directivity in a diffuse
// field, plane waves through the overlap-save flow, and FixedBF/SelectBf's choice of set. Beams
// are an independent product in double; the transforms are the library's own, whose sign and
// packing the tables must match.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <tuple>
#include <vector>

#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "sim/signals.h"

namespace vorn {
namespace {

using sim::Signal;
using sim::ThreeMics;
using Complex = std::complex<double>;

constexpr int kN = 512;
constexpr int kHop = 256;
constexpr double kPi = 3.14159265358979323846;
constexpr double kBinHz = 16000.0 / kN;
constexpr double kRadiusSamples = sim::kArrayRadiusM * sim::kSampleRate / sim::kSpeedOfSound;

Complex Bin(const float* packed, int k) { return {packed[k], k % (kN / 2) == 0 ? 0.0 : packed[kN - k]}; }

Complex Weight(const float* set, int k, int m) { return {set[(3 * k + m) * 2], set[(3 * k + m) * 2 + 1]}; }

// Response of a set to a plane wave; theta is the polar angle (90 = array plane), r the radius in samples.
Complex Response(const float* set, int k, double az, double theta = 90.0, double r = kRadiusSamples) {
  Complex y = 0.0;
  for (int m = 0; m < 3; ++m) {
    const double tau = r * std::sin(theta * kPi / 180.0) * std::cos((az - 120.0 * m) * kPi / 180.0);
    y += Weight(set, k, m) * std::polar(1.0, 2.0 * kPi * k * tau / kN);
  }
  return y;
}

// Reference product of a set with three packed spectra; edge bins use the real weights only.
void Product(const float* set, const float f[3][kN], float* out) {
  for (int k = 0; k <= kN / 2; ++k) {
    Complex y = 0.0;
    for (int m = 0; m < 3; ++m) y += Weight(set, k, m) * Bin(f[m], k);
    out[k] = float(y.real());
    if (k > 0 && k < kN / 2) out[kN - k] = float(y.imag());
  }
}

// The module's frame flow with one set: two-hop history per microphone,
// unwindowed transform, product, inverse, keep samples 256..511.
Signal OverlapSave(const ThreeMics& mics, const float* set) {
  Signal y(mics[0].size() / kHop * kHop, 0.0f);
  float f[3][kN];
  for (std::size_t at = 0; at < y.size(); at += kHop) {
    for (int m = 0; m < 3; ++m) {
      for (std::size_t n = 0; n < kN; ++n) f[m][n] = at + n < kHop ? 0.0f : mics[m][at + n - kHop];
      fft_rel(f[m], kN, 9);
    }
    float out[kN];
    Product(set, f, out);
    ifft_rel(out, kN, 9);
    std::copy(out + kHop, out + kN, y.begin() + long(at));
  }
  return y;
}

// Power from lo_hz to hi_hz, summed over Hann-windowed frames of 512 (hop 256) after two hops of lead-in.
double BandPower(const Signal& x, double lo_hz, double hi_hz) {
  double sum = 0.0;
  for (std::size_t start = 2 * kHop; start + kN <= x.size(); start += kHop) {
    float frame[kN];
    for (int n = 0; n < kN; ++n) frame[n] = float(x[start + n] * (0.5 - 0.5 * std::cos(2.0 * kPi * n / kN)));
    fft_rel(frame, kN, 9);
    for (int k = int(std::ceil(lo_hz / kBinHz)); k * kBinHz <= hi_hz; ++k) sum += std::norm(Bin(frame, k));
  }
  return sum;
}

// Beyond 7 kHz neither the plane-wave interpolator nor a real-valued Nyquist
// bin holds a fractional delay, so levels are compared from 300 Hz to 7 kHz.
double BandRatioDb(const Signal& x, const Signal& ref, double lo_hz = 300.0, double hi_hz = 7000.0) {
  return 10.0 * std::log10(BandPower(x, lo_hz, hi_hz) / BandPower(ref, lo_hz, hi_hz));
}

TEST(WeightTables, ReproduceTheReferenceRows) {
  struct Row {
    const float* set;
    int bin;
    double re[3], im[3], tolerance;
  };
  // The delay-and-sum reference follows the steering rule to about three decimals.
  const Row rows[] = {{ds_w_0, 0, {0.33301, 0.33317, 0.33317}, {0, 0, 0}, 2e-3},
                      {ds_w_0, 1, {-0.00750, 0.00375, 0.00375}, {-0.33325, -0.33331, -0.33331}, 2e-3},
                      {ds_w_0, 256, {0.28819, -0.32210, -0.32210}, {0, 0, 0}, 2e-3},
                      {bf_mvdr_w_0, 0, {0.33299, 0.33314, 0.33314}, {0, 0, 0}, 1.5e-3},
                      {bf_mvdr_w_0, 1, {-0.23034, 0.11517, 0.11517}, {-0.32948, -0.33143, -0.33143}, 1.5e-3},
                      {bf_mvdr_w_0, 64, {-0.04666, 0.19487, 0.19487}, {-0.40414, 0.23650, 0.23650}, 1.5e-3},
                      {bf_mvdr_w_0, 256, {0.25956, -0.32830, -0.32830}, {0, 0, 0}, 1.5e-3}};
  for (const Row& row : rows)
    for (int m = 0; m < 3; ++m) {
      SCOPED_TRACE(testing::Message() << "bin " << row.bin << " mic " << m);
      EXPECT_NEAR(Weight(row.set, row.bin, m).real(), row.re[m], row.tolerance);
      EXPECT_NEAR(Weight(row.set, row.bin, m).imag(), row.im[m], row.tolerance);
    }
}

// Every list entry is steered where its position says: unit response with the common delay for a
// plane wave from its own direction (and, for a delay-and-sum family, its own elevation).
void ExpectSteered(const float* set, double az, double theta, double radius) {
  double worst = 0.0;
  for (int k = 1; k < 256; ++k) {
    const Complex delay = std::polar(1.0, -2.0 * kPi * k * 128 / kN);
    worst = std::max(worst, std::abs(Response(set, k, az, theta, radius) - delay));
  }
  EXPECT_LT(worst, 1e-5) << "azimuth " << az << " polar angle " << theta << " radius " << radius;
  EXPECT_EQ(set[1], 0.0f) << "azimuth " << az;  // imaginary part of bin 0
}

TEST(WeightTables, EveryListEntryPassesItsOwnDirection) {
  // The 72-entry lists with the polar angle their sets are built for.
  const std::pair<const float* const*, double> families[] = {
      {doa_tab, 90},   {doa_tab80, 80},       {doa_tab70, 70},         {doa_tab60, 60},
      {doa_tab55, 55}, {mbf_bf_mvdr_tab, 90}, {doa_ele_azi_tab[0], 60}};
  for (const auto& [list, theta] : families)
    for (int i = 0; i < 72; ++i) ExpectSteered(list[i], 5 * i, theta, kRadiusSamples);
  const float* const sector_mvdr[3] = {mvdr_w_0, mvdr_w_120, mvdr_w_240};
  // The sector sets assume a 1.812-sample advance.
  for (int i = 0; i < 3; ++i) {
    ExpectSteered(mvdr_tab[i], 120 * i, 90, kRadiusSamples);
    for (const float* set : {ds_tab[i], mbf_tab[i], sector_mvdr[i]}) ExpectSteered(set, 120 * i, 90, 1.812);
  }
  ExpectSteered(ls_w_300, 300, 90, kRadiusSamples);
  // Sets of the sector layout are zero beyond their first 1542 values.
  for (const float* set : {bf_ds_w_0, bf_ds_w_120, bf_ds_w_240, mvdr_w_0, mvdr_w_120, mvdr_w_240, ls_w_300})
    EXPECT_TRUE(std::all_of(set + kBfSetFloats, set + kBfSectorSetFloats, [](float v) { return v == 0.0f; }));
}

// The elevated delay-and-sum families and the MVDR sets pass their look direction as the source
// delayed by 144 samples, within 0.5 dB in every third-octave band from 300 Hz to 7 kHz (the
// in-plane family goes through the whole module in test_adsp_bf).
TEST(FixedBeams, PassTheLookDirectionWithTheCommonDelay) {
  const Signal source = sim::WhiteNoise(24 * kHop, 3000.0, 11);
  Signal want(16 + 128, 0.0f);  // sim::PlaneWave's common delay plus the one the weights carry
  want.insert(want.end(), source.begin(), source.end() - long(want.size()));
  const std::tuple<const float*, double, double> cases[] = {
      {doa_tab80[20], 100, 10},     {doa_tab70[40], 200, 20},     {doa_tab60[9], 45, 30},
      {doa_tab55[60], 300, 35},     {mbf_bf_mvdr_tab[0], 0, 0},   {mbf_bf_mvdr_tab[9], 45, 0},
      {mbf_bf_mvdr_tab[40], 200, 0}, {mbf_bf_mvdr_tab[71], 355, 0}};
  for (const auto& [set, az, elevation] : cases) {
    SCOPED_TRACE(testing::Message() << "azimuth " << az << " elevation " << elevation);
    const Signal y = OverlapSave(sim::PlaneWave(source, az, elevation), set);
    EXPECT_LT(BandRatioDb(sim::Mix(y, want, -1.0), want), -45.0);
    for (double lo = 300.0; lo < 7000.0; lo *= std::cbrt(2.0))
      EXPECT_LT(std::fabs(BandRatioDb(y, want, lo, std::min(lo * std::cbrt(2.0), 7000.0))), 0.5) << lo;
  }
}

// Directivity: response to the look direction over the response to a spherically
// isotropic field, whose coherence between microphones one chord apart is sin(x)/x.
double DirectivityDb(const float* set, int k, double look_deg) {
  const double x = 2.0 * kPi * k * kBinHz * sim::kArrayRadiusM * std::sqrt(3.0) / sim::kSpeedOfSound;
  double noise = 0.0;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      noise += (Weight(set, k, i) * std::conj(Weight(set, k, j))).real() * (i == j ? 1.0 : std::sin(x) / x);
  return 10.0 * std::log10(std::norm(Response(set, k, look_deg)) / noise);
}

TEST(FixedBeams, MvdrIsMoreDirectiveThanDelayAndSum) {
  for (int i : {0, 9, 40, 71}) {
    SCOPED_TRACE(testing::Message() << "azimuth " << 5 * i);
    constexpr int kFirst = int(300 / kBinHz), kLast = int(7000 / kBinHz), k2kHz = int(2000 / kBinHz);
    double gain_below_2k = 0.0;
    for (int k = kFirst; k <= kLast; ++k) {
      const double gain = DirectivityDb(mbf_bf_mvdr_tab[i], k, 5 * i) - DirectivityDb(doa_tab[i], k, 5 * i);
      EXPECT_GT(gain, -0.01) << "bin " << k;
      if (k < k2kHz) gain_below_2k += gain / (k2kHz - kFirst);
    }
    EXPECT_GT(gain_below_2k, 2.0);  // dB, on average below 2 kHz
  }
}

// Each blocking output keeps a plane wave from its look direction below 1 % of what its weights pass
// from the microphones one by one (as from spatially white noise), and passes other directions.
TEST(BlockingMatrices, BlockTheLookDirection) {
  const Signal source = sim::WhiteNoise(16 * kHop, 3000.0, 23);
  const ThreeMics white = sim::IndependentNoise(16 * kHop, 3000.0, 24);
  for (const auto& [bm, look] : {std::pair{bm_0, 0.0}, std::pair{bm_60, 60.0}, std::pair{bm_300, 300.0}})
    for (int out = 0; out < 3; ++out) {
      SCOPED_TRACE(testing::Message() << "look " << look << " output " << out);
      std::vector<float> set(kBfSetFloats);  // the output as a set of the usual layout
      for (int k = 0; k < kBfBins; ++k) std::copy_n(bm + 18 * k + 6 * out, 6, set.begin() + 6 * k);
      double worst = 0.0;
      for (int k = 0; k < 256; ++k) {
        const double magnitude = std::abs(Weight(set.data(), k, 0)) + std::abs(Weight(set.data(), k, 1)) +
                                 std::abs(Weight(set.data(), k, 2));
        worst = std::max(worst, std::abs(Response(set.data(), k, look)) / magnitude);
      }
      EXPECT_LT(worst, 0.01);
      const Signal passed = OverlapSave(white, set.data());
      EXPECT_LT(BandRatioDb(OverlapSave(sim::PlaneWave(source, look), set.data()), passed), -40.0);
      EXPECT_GT(BandRatioDb(OverlapSave(sim::PlaneWave(source, look + 90.0), set.data()), passed), -10.0);
    }
}

void ExpectBeamOfSet(float f[3][kN], int type, int angle, const float* set) {
  float want[kN], out[kN];  // spectra up to ~7e5: the tolerance is float rounding
  Product(set, f, want);
  FixedBF(f, out, type, angle);
  for (int i = 0; i < kN; ++i)
    ASSERT_NEAR(out[i], want[i], 0.1) << "type " << type << " angle " << angle << " bin " << i;
}

TEST(FixedBF, SelectsTheSetOfTypeAndAngle) {
  // The sector types pick the sector whose beam is strongest (the first on ties).
  const Signal talker = sim::MakeSpeechLike(8 * kHop, 3).samples;
  const std::pair<int, int> sectors[] = {{10, 0}, {350, 0}, {115, 1}, {130, 1}, {240, 2}, {200, 2}};
  float f[3][kN];
  for (const auto& [source_az, sector] : sectors) {
    SCOPED_TRACE(testing::Message() << "source at " << source_az);
    const ThreeMics mics = sim::PlaneWave(talker, source_az);
    for (int m = 0; m < 3; ++m) {
      std::copy_n(mics[m].begin() + 4 * kHop, kN, f[m]);
      fft_rel(f[m], kN, 9);
    }
    EXPECT_EQ(SelectBf(f), sector);
    ExpectBeamOfSet(f, 5, 77, ds_tab[sector]);
    ExpectBeamOfSet(f, 6, 77, mvdr_tab[sector]);
  }
  // The other types by angle; 3 and 4 index three-entry lists with angle / 5 and run on into the next lists.
  const std::tuple<int, int, const float*> cases[] = {
      {1, 0, ds_w_0},   {1, 4, ds_w_0},      {1, 5, ds_w_5},        {1, 359, ds_w_355},  {1, -3, ds_w_0},
      {1, -90, ds_w_0}, {1, 720, ds_w_355},  {2, 4, bf_mvdr_w_0},   {2, 5, bf_mvdr_w_5}, {2, -1, bf_mvdr_w_0},
      {2, 359, bf_mvdr_w_355},               {2, 137, bf_mvdr_w_135}, {3, 0, bf_ds_w_0}, {3, 60, ds_w_20},
      {3, 300, ds_w_260}, {4, 0, bf_mvdr_w_0}, {4, 60, ds_w_0},     {4, 300, ds_w_240},  {7, 123, ls_w_300},
      {0, 90, mvdr_w_0}, {8, 90, mvdr_w_0},  {-1, 90, mvdr_w_0}};
  for (const auto& [type, angle, set] : cases) ExpectBeamOfSet(f, type, angle, set);
  float zero[3][kN] = {};
  EXPECT_EQ(SelectBf(zero), 0);
}

}  // namespace
}  // namespace vorn
