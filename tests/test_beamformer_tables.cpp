// Weight tables and the fixed beamformer, checked the way a user would see
// them: plane waves on the array (fractional delays, broadband sources,
// diffuse noise) through the overlap-save flow, with spectra from a direct
// DFT in double, and the set selection of FixedBF/SelectBf.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <random>
#include <vector>

#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::Signal;
using test::ThreeMics;
using Complex = std::complex<double>;

constexpr int kN = 512;
constexpr int kHop = 256;
constexpr double kPi = 3.14159265358979323846;
constexpr double kBinHz = 16000.0 / kN;
constexpr int kPlaneWaveDelay = 16;  // common delay of test::PlaneWave
constexpr int kBeamDelay = 128;      // common delay the weight sets carry
constexpr double kRadiusSamples = test::kArrayRadiusM * test::kSampleRate / test::kSpeedOfSound;

using Spectra = std::array<std::array<float, kN>, 3>;

// Packed spectrum of 512 samples by a direct DFT in double.
std::array<float, kN> PackedDft(const double* x) {
  std::array<float, kN> packed{};
  for (int k = 0; k <= kN / 2; ++k) {
    double re = 0.0, im = 0.0;
    for (int n = 0; n < kN; ++n) {
      const int phase = (k * n) % kN;
      re += x[n] * std::cos(2.0 * kPi * phase / kN);
      im -= x[n] * std::sin(2.0 * kPi * phase / kN);
    }
    packed[k] = float(re);
    if (k > 0 && k < kN / 2) packed[kN - k] = float(im);
  }
  return packed;
}

std::array<double, kN> PackedIdft(const float* packed) {
  std::array<double, kN> x{};
  for (int n = 0; n < kN; ++n) {
    double acc = packed[0] + packed[kN / 2] * ((n % 2) ? -1.0 : 1.0);
    for (int k = 1; k < kN / 2; ++k) {
      const int phase = (k * n) % kN;
      acc += 2.0 * (packed[k] * std::cos(2.0 * kPi * phase / kN) - packed[kN - k] * std::sin(2.0 * kPi * phase / kN));
    }
    x[n] = acc / kN;
  }
  return x;
}

Complex Bin(const float* packed, int k) {
  return {packed[k], (k == 0 || k == kN / 2) ? 0.0 : packed[kN - k]};
}

Complex Weight(const float* set, int k, int m) { return {set[(3 * k + m) * 2], set[(3 * k + m) * 2 + 1]}; }

// A packed beam spectrum from any per-hop beam function.
using Beam = std::function<void(float f[3][kN], float* out)>;

Beam TableBeam(int fbf_type, int angle) {
  return [=](float f[3][kN], float* out) { FixedBF(f, out, fbf_type, angle); };
}

// Independent reference product of a set with the spectra, in double.
std::array<double, kN> ReferenceProduct(const float* set, float f[3][kN]) {
  std::array<double, kN> out{};
  for (int m = 0; m < 3; ++m) {
    out[0] += double(set[2 * m]) * f[m][0];
    out[kN / 2] += double(Weight(set, kN / 2, m).real()) * f[m][kN / 2];
  }
  for (int k = 1; k < kN / 2; ++k) {
    Complex y = 0.0;
    for (int m = 0; m < 3; ++m) y += Weight(set, k, m) * Bin(f[m], k);
    out[k] = y.real();
    out[kN - k] = y.imag();
  }
  return out;
}

Beam SetBeam(const float* set) {
  return [=](float f[3][kN], float* out) {
    const std::array<double, kN> y = ReferenceProduct(set, f);
    for (int i = 0; i < kN; ++i) out[i] = float(y[i]);
  };
}

// The module's frame flow: 512-sample history per microphone, unwindowed
// transform, beam, inverse transform, keep samples 256..511. The transforms
// are the direct DFT in double, or the library's own fft_rel/ifft_rel.
Signal OverlapSave(const ThreeMics& mics, const Beam& beam, bool shared_fft = false) {
  const std::size_t hops = mics[0].size() / kHop;
  Signal y(hops * kHop, 0.0f);
  std::array<std::array<double, kN>, 3> history{};
  for (std::size_t h = 0; h < hops; ++h) {
    float f[3][kN];
    for (int m = 0; m < 3; ++m) {
      std::copy(history[m].begin() + kHop, history[m].end(), history[m].begin());
      for (int n = 0; n < kHop; ++n) history[m][kHop + n] = mics[m][h * kHop + n];
      if (shared_fft) {
        for (int n = 0; n < kN; ++n) f[m][n] = float(history[m][n]);
        fft_rel(f[m], kN, 9);
      } else {
        const std::array<float, kN> spectrum = PackedDft(history[m].data());
        std::copy(spectrum.begin(), spectrum.end(), f[m]);
      }
    }
    float out[kN];
    beam(f, out);
    if (shared_fft) {
      ifft_rel(out, kN, 9);
      for (int n = 0; n < kHop; ++n) y[h * kHop + n] = out[kHop + n];
      continue;
    }
    const std::array<double, kN> time = PackedIdft(out);
    for (int n = 0; n < kHop; ++n) y[h * kHop + n] = float(time[kHop + n]);
  }
  return y;
}

// Mean power per bin over Hann-windowed 512-sample frames (hop 256).
std::vector<double> PowerSpectrum(const Signal& x, std::size_t skip) {
  std::vector<double> power(kN / 2 + 1, 0.0);
  std::array<double, kN> frame;
  for (std::size_t start = skip; start + kN <= x.size(); start += kHop) {
    for (int n = 0; n < kN; ++n) frame[n] = x[start + n] * (0.5 - 0.5 * std::cos(2.0 * kPi * n / kN));
    const std::array<float, kN> spectrum = PackedDft(frame.data());
    for (int k = 0; k <= kN / 2; ++k) power[k] += std::norm(Bin(spectrum.data(), k));
  }
  return power;
}

double BandPower(const std::vector<double>& power, double lo_hz, double hi_hz) {
  double sum = 0.0;
  for (int k = 0; k <= kN / 2; ++k)
    if (k * kBinHz >= lo_hz && k * kBinHz <= hi_hz) sum += power[k];
  return sum;
}

Signal Delayed(const Signal& x, int delay) {
  Signal y(x.size(), 0.0f);
  for (std::size_t i = delay; i < x.size(); ++i) y[i] = x[i - delay];
  return y;
}

// Residual of a beam output against the expected signal within a band, in
// dB below the expected signal's power there. Beyond 7 kHz neither the
// plane-wave interpolator nor a real-valued Nyquist bin can hold a
// fractional delay, so the checks stay below it.
double BandResidualDb(const Signal& got, const Signal& want, double lo_hz, double hi_hz) {
  Signal error(got.size());
  for (std::size_t i = 0; i < got.size(); ++i) error[i] = float(double(got[i]) - want[i]);
  return 10.0 * std::log10(BandPower(PowerSpectrum(error, 2 * kHop), lo_hz, hi_hz) /
                           BandPower(PowerSpectrum(want, 2 * kHop), lo_hz, hi_hz));
}

// Broadband source: white noise, the hardest case for fractional delays.
Signal Broadband(std::size_t n, std::uint32_t seed) { return test::WhiteNoise(n, 3000.0, seed); }

// Steering factor of microphone m for a plane wave; polar angle theta from
// the vertical (90 = in the array plane), advance on a circle of radius r.
Complex Steering(int k, int m, double az_deg, double theta_deg = 90.0, double r = kRadiusSamples) {
  const double tau = r * std::sin(theta_deg * kPi / 180.0) * std::cos((az_deg - 120.0 * m) * kPi / 180.0);
  return std::polar(1.0, 2.0 * kPi * k * tau / kN);
}

Complex CommonDelay(int k) { return std::polar(1.0, -2.0 * kPi * k * kBeamDelay / kN); }

// --- table contents ---------------------------------------------------------

struct QuotedRow {
  int bin;
  double re[3], im[3];
};

TEST(WeightTables, DelayAndSumMatchesReferenceRows) {
  const QuotedRow rows[] = {{0, {0.33301, 0.33317, 0.33317}, {0, 0, 0}},
                            {1, {-0.00750, 0.00375, 0.00375}, {-0.33325, -0.33331, -0.33331}},
                            {256, {0.28819, -0.32210, -0.32210}, {0, 0, 0}}};
  for (const QuotedRow& row : rows)
    for (int m = 0; m < 3; ++m) {
      SCOPED_TRACE(testing::Message() << "bin " << row.bin << " mic " << m);
      // The reference data follow the steering rule to about three decimals.
      EXPECT_NEAR(Weight(ds_w_0, row.bin, m).real(), row.re[m], 2e-3);
      EXPECT_NEAR(Weight(ds_w_0, row.bin, m).imag(), row.im[m], 2e-3);
    }
}

TEST(WeightTables, MvdrReproducesReferenceRows) {
  const QuotedRow rows[] = {{0, {0.33299, 0.33314, 0.33314}, {0, 0, 0}},
                            {1, {-0.23034, 0.11517, 0.11517}, {-0.32948, -0.33143, -0.33143}},
                            {64, {-0.04666, 0.19487, 0.19487}, {-0.40414, 0.23650, 0.23650}},
                            {256, {0.25956, -0.32830, -0.32830}, {0, 0, 0}}};
  for (const QuotedRow& row : rows)
    for (int m = 0; m < 3; ++m) {
      SCOPED_TRACE(testing::Message() << "bin " << row.bin << " mic " << m);
      EXPECT_NEAR(Weight(bf_mvdr_w_0, row.bin, m).real(), row.re[m], 1.5e-3);
      EXPECT_NEAR(Weight(bf_mvdr_w_0, row.bin, m).imag(), row.im[m], 1.5e-3);
    }
  // On microphone 0's axis microphones 1 and 2 are mirror images.
  for (int k = 0; k <= 256; ++k) EXPECT_EQ(Weight(bf_mvdr_w_0, k, 1), Weight(bf_mvdr_w_0, k, 2)) << "bin " << k;
}

// Every list entry must be steered where its position says: unit response
// with the common delay for a plane wave from its own direction (and, for a
// delay-and-sum family, from its own elevation).
TEST(WeightTables, EveryListEntryPassesItsOwnDirection) {
  struct List {
    const char* name;
    const float* const* sets;
    int count;
    double first_deg, step_deg, theta_deg, radius;
  };
  const float* const sector_mvdr[3] = {mvdr_w_0, mvdr_w_120, mvdr_w_240};
  const float* const loudspeaker_set[1] = {ls_w_300};
  const List lists[] = {
      {"doa_tab", doa_tab, 72, 0, 5, 90, kRadiusSamples},
      {"doa_tab80", doa_tab80, 72, 0, 5, 80, kRadiusSamples},
      {"doa_tab70", doa_tab70, 72, 0, 5, 70, kRadiusSamples},
      {"doa_tab60", doa_tab60, 72, 0, 5, 60, kRadiusSamples},
      {"doa_tab55", doa_tab55, 72, 0, 5, 55, kRadiusSamples},
      {"doa_ele_azi_tab", doa_ele_azi_tab[0], 72, 0, 5, 60, kRadiusSamples},
      {"mbf_bf_mvdr_tab", mbf_bf_mvdr_tab, 72, 0, 5, 90, kRadiusSamples},
      {"mvdr_tab", mvdr_tab, 3, 0, 120, 90, kRadiusSamples},
      {"ds_tab", ds_tab, 3, 0, 120, 90, 1.812},  // sector sets: 1.812-sample advance
      {"mbf_tab", mbf_tab, 3, 0, 120, 90, 1.812},
      {"mvdr_w_*", sector_mvdr, 3, 0, 120, 90, 1.812},
      {"ls_w_300", loudspeaker_set, 1, 300, 0, 90, kRadiusSamples},
  };
  for (const List& list : lists)
    for (int i = 0; i < list.count; ++i) {
      SCOPED_TRACE(testing::Message() << list.name << "[" << i << "]");
      double worst = 0.0;
      for (int k = 1; k < 256; ++k) {
        Complex response = 0.0;
        for (int m = 0; m < 3; ++m)
          response += Weight(list.sets[i], k, m) * Steering(k, m, list.first_deg + i * list.step_deg, list.theta_deg, list.radius);
        worst = std::max(worst, std::abs(response - CommonDelay(k)));
      }
      EXPECT_LT(worst, 1e-5);
      EXPECT_EQ(list.sets[i][1], 0.0f);  // imaginary part of bin 0
    }
  EXPECT_EQ(mbf_angles[0], 0);
  EXPECT_EQ(mbf_angles[1], 120);
  EXPECT_EQ(mbf_angles[2], 240);
}

TEST(WeightTables, SectorAndSpecialSetsHaveZeroSecondHalf) {
  const float* sets[] = {bf_ds_w_0, bf_ds_w_120, bf_ds_w_240, mvdr_w_0, mvdr_w_120, mvdr_w_240, ls_w_300};
  for (const float* set : sets) {
    double first_half = 0.0, second_half = 0.0;
    for (int i = 0; i < kBfSetFloats; ++i) first_half += std::fabs(set[i]);
    for (int i = kBfSetFloats; i < kBfSectorSetFloats; ++i) second_half += std::fabs(set[i]);
    EXPECT_GT(first_half, 100.0);
    EXPECT_EQ(second_half, 0.0);
  }
}

// --- plane waves through the overlap-save flow -----------------------------

TEST(FixedBeams, DelayAndSumPassesLookDirectionWithCommonDelay) {
  const Signal source = Broadband(16 * kHop, 7);
  const Signal want = Delayed(source, kPlaneWaveDelay + kBeamDelay);
  struct Case {
    const char* name;
    Beam beam;
    double az, elevation;
  };
  const Case cases[] = {
      {"type 1 at 0", TableBeam(1, 0), 0, 0},        {"type 1 at 35", TableBeam(1, 35), 35, 0},
      {"type 1 at 250", TableBeam(1, 250), 250, 0},  {"type 1 at 355", TableBeam(1, 355), 355, 0},
      {"ds_w80_100", SetBeam(doa_tab80[20]), 100, 10}, {"ds_w70_200", SetBeam(doa_tab70[40]), 200, 20},
      {"ds_w60_45", SetBeam(doa_tab60[9]), 45, 30},  {"ds_w55_300", SetBeam(doa_tab55[60]), 300, 35},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Signal y = OverlapSave(test::PlaneWave(source, c.az, c.elevation), c.beam);
    EXPECT_LT(BandResidualDb(y, want, 300.0, 7000.0), -45.0);
  }
  // The same beam does not pass a source it is not steered to.
  const Signal off = OverlapSave(test::PlaneWave(source, 180, 0), TableBeam(1, 0));
  EXPECT_GT(BandResidualDb(off, want, 300.0, 7000.0), -10.0);
}

// The tables and the library's own transform agree on sign and packing:
// the beams pass their look direction through fft_rel/ifft_rel as well.
TEST(FixedBeams, LookDirectionPassesThroughTheSharedFft) {
  const Signal source = test::MakeSpeechLike(16 * kHop, 5).samples;
  const Signal want = Delayed(source, kPlaneWaveDelay + kBeamDelay);
  for (int type : {1, 2}) {
    SCOPED_TRACE(testing::Message() << "type " << type);
    const Signal y = OverlapSave(test::PlaneWave(source, 250, 0), TableBeam(type, 250), true);
    EXPECT_LT(BandResidualDb(y, want, 300.0, 7000.0), -45.0);
  }
}

// MVDR: distortionless in every third-octave band from 300 Hz to 7 kHz.
TEST(FixedBeams, MvdrIsDistortionlessAtLookDirection) {
  const Signal source = Broadband(24 * kHop, 11);
  const Signal want = Delayed(source, kPlaneWaveDelay + kBeamDelay);
  const std::vector<double> want_power = PowerSpectrum(want, 2 * kHop);
  for (int az : {0, 45, 200, 355}) {
    SCOPED_TRACE(testing::Message() << "azimuth " << az);
    const Signal y = OverlapSave(test::PlaneWave(source, az, 0), TableBeam(2, az));
    const std::vector<double> got_power = PowerSpectrum(y, 2 * kHop);
    double worst_db = 0.0;
    for (double lo = 300.0; lo < 7000.0; lo *= std::cbrt(2.0)) {
      const double hi = std::min(lo * std::cbrt(2.0), 7000.0);
      const double db = 10.0 * std::log10(BandPower(got_power, lo, hi) / BandPower(want_power, lo, hi));
      worst_db = std::max(worst_db, std::fabs(db));
    }
    EXPECT_LT(worst_db, 0.5);
    EXPECT_LT(BandResidualDb(y, want, 300.0, 7000.0), -45.0);
  }
}

// Directivity: response to the look direction over the response to a
// spherically isotropic field, whose coherence between two microphones
// (one chord apart) is sin(x)/x.
double DirectivityDb(const float* set, int k, double look_deg) {
  const double x = 2.0 * kPi * k * kBinHz * test::kArrayRadiusM * std::sqrt(3.0) / test::kSpeedOfSound;
  const double coherence = k == 0 ? 1.0 : std::sin(x) / x;
  Complex response = 0.0;
  double noise = 0.0;
  for (int i = 0; i < 3; ++i) {
    response += Weight(set, k, i) * Steering(k, i, look_deg);
    for (int j = 0; j < 3; ++j)
      noise += (Weight(set, k, i) * std::conj(Weight(set, k, j))).real() * (i == j ? 1.0 : coherence);
  }
  return 10.0 * std::log10(std::norm(response) / noise);
}

TEST(FixedBeams, MvdrIsMoreDirectiveThanDelayAndSum) {
  for (int i : {0, 9, 40, 71}) {
    SCOPED_TRACE(testing::Message() << "azimuth " << 5 * i);
    double ds_low = 0.0, mvdr_low = 0.0;
    int low_bins = 0;
    for (int k = int(300 / kBinHz); k <= int(7000 / kBinHz); ++k) {
      const double ds = DirectivityDb(doa_tab[i], k, 5 * i);
      const double mvdr = DirectivityDb(mbf_bf_mvdr_tab[i], k, 5 * i);
      EXPECT_GT(mvdr, ds - 0.01) << "bin " << k;
      if (k * kBinHz < 2000.0) {
        ds_low += ds;
        mvdr_low += mvdr;
        ++low_bins;
      }
    }
    EXPECT_GT((mvdr_low - ds_low) / low_bins, 2.0);  // dB, on average below 2 kHz
  }

  // The same with simulated diffuse noise: many uncorrelated plane waves
  // spread evenly over the sphere, received by the array and beamformed.
  const std::size_t n = 24 * kHop;
  ThreeMics diffuse{Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)};
  constexpr int kSources = 64;
  for (int s = 0; s < kSources; ++s) {
    const double z = 1.0 - (2.0 * s + 1.0) / kSources;  // Fibonacci sphere
    const double elevation = std::asin(z) * 180.0 / kPi;
    const double azimuth = std::fmod(s * 137.50776405003785, 360.0);
    diffuse = test::Mix(diffuse, test::PlaneWave(test::WhiteNoise(n, 300.0, 100 + s), azimuth, elevation));
  }
  const std::vector<double> mic = PowerSpectrum(diffuse[0], 2 * kHop);
  const std::vector<double> ds = PowerSpectrum(OverlapSave(diffuse, TableBeam(1, 0)), 2 * kHop);
  const std::vector<double> mvdr = PowerSpectrum(OverlapSave(diffuse, TableBeam(2, 0)), 2 * kHop);
  const double ds_db = 10.0 * std::log10(BandPower(ds, 300, 2000) / BandPower(mic, 300, 2000));
  const double mvdr_db = 10.0 * std::log10(BandPower(mvdr, 300, 2000) / BandPower(mic, 300, 2000));
  EXPECT_LT(ds_db, -1.0);
  EXPECT_LT(mvdr_db, ds_db - 1.0);
}

// One blocking output as a weight set of the usual layout.
std::vector<float> BlockingOutput(const float* bm, int out) {
  std::vector<float> set(kBfSetFloats);
  for (int k = 0; k < kBfBins; ++k)
    for (int m = 0; m < 3; ++m) {
      set[(3 * k + m) * 2] = bm[18 * k + 6 * out + 2 * m];
      set[(3 * k + m) * 2 + 1] = bm[18 * k + 6 * out + 2 * m + 1];
    }
  return set;
}

// Each blocking output cancels a plane wave from its matrix's look
// direction (below 1 % of what its weights pass) and keeps other directions.
TEST(BlockingMatrices, BlockTheLookDirection) {
  struct Case {
    const float* bm;
    double look;
  };
  const Case cases[] = {{bm_0, 0}, {bm_60, 60}, {bm_300, 300}};
  const Signal source = Broadband(16 * kHop, 23);
  const std::vector<double> source_power = PowerSpectrum(Delayed(source, kPlaneWaveDelay + kBeamDelay), 2 * kHop);
  for (const Case& c : cases) {
    for (int out = 0; out < 3; ++out) {
      SCOPED_TRACE(testing::Message() << "look " << c.look << " output " << out);
      const std::vector<float> set = BlockingOutput(c.bm, out);
      double worst = 0.0;
      for (int k = 0; k < 256; ++k) {
        Complex response = 0.0;
        double magnitude = 0.0;
        for (int m = 0; m < 3; ++m) {
          response += Weight(set.data(), k, m) * Steering(k, m, c.look);
          magnitude += std::abs(Weight(set.data(), k, m));
        }
        worst = std::max(worst, std::abs(response) / magnitude);
      }
      EXPECT_LT(worst, 0.01);

      // A simulated plane wave through the overlap-save flow: output power
      // against the power the weights pass from the microphones one by one.
      auto leakage_db = [&](double az) {
        const std::vector<double> blocked =
            PowerSpectrum(OverlapSave(test::PlaneWave(source, az, 0), SetBeam(set.data())), 2 * kHop);
        double passed = 0.0;
        for (int k = int(300 / kBinHz); k <= int(7000 / kBinHz); ++k)
          for (int m = 0; m < 3; ++m) passed += std::norm(Weight(set.data(), k, m)) * source_power[k];
        return 10.0 * std::log10(BandPower(blocked, 300, 7000) / passed);
      };
      EXPECT_LT(leakage_db(c.look), -40.0);  // amplitude below 1 %
      EXPECT_GT(leakage_db(c.look + 90.0), -10.0);
    }
  }
}

// --- set selection ----------------------------------------------------------

void RandomSpectra(float f[3][kN], std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> value(-1000.0f, 1000.0f);
  for (int m = 0; m < 3; ++m)
    for (int i = 0; i < kN; ++i) f[m][i] = value(rng);
}

double MaxDeviation(const float* got, const std::array<double, kN>& want) {
  double worst = 0.0;
  for (int i = 0; i < kN; ++i) worst = std::max(worst, std::fabs(got[i] - want[i]));
  return worst;
}

TEST(FixedBF, SelectsTheSetOfTypeAndAngle) {
  struct Case {
    int type, angle;
    const float* want;
  };
  const Case cases[] = {
      {1, 0, ds_w_0},        {1, 4, ds_w_0},           {1, 5, ds_w_5},          {1, 359, ds_w_355},
      {1, -3, ds_w_0},       {1, -90, ds_w_0},         {1, 720, ds_w_355},      {2, 4, bf_mvdr_w_0},
      {2, 5, bf_mvdr_w_5},   {2, 359, bf_mvdr_w_355},  {2, -1, bf_mvdr_w_0},    {2, 137, bf_mvdr_w_135},
      // The GSC reference types index three-entry lists with angle / 5 and
      // run on into the following lists.
      {3, 0, bf_ds_w_0},     {3, 60, ds_w_20},         {3, 300, ds_w_260},      {4, 0, bf_mvdr_w_0},
      {4, 60, ds_w_0},       {4, 300, ds_w_240},       {7, 123, ls_w_300},      {0, 90, mvdr_w_0},
      {8, 90, mvdr_w_0},     {-1, 90, mvdr_w_0},
  };
  float f[3][kN];
  RandomSpectra(f, 5);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << c.type << " angle " << c.angle);
    float out[kN];
    FixedBF(f, out, c.type, c.angle);
    EXPECT_LT(MaxDeviation(out, ReferenceProduct(c.want, f)), 1e-2);  // float rounding on values ~1e3
  }
}

TEST(FixedBF, SectorBeamsFollowTheStrongestSector) {
  struct Case {
    double source_az;
    int sector;
  };
  const Case cases[] = {{10, 0}, {350, 0}, {115, 1}, {130, 1}, {240, 2}, {200, 2}};
  const ThreeMics silence{Signal(kN, 0.0f), Signal(kN, 0.0f), Signal(kN, 0.0f)};
  const Signal talker = test::MakeSpeechLike(8 * kHop, 3).samples;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "source at " << c.source_az);
    const ThreeMics mics = test::PlaneWave(talker, c.source_az, 0);
    float f[3][kN];
    std::array<double, kN> frame;
    for (int m = 0; m < 3; ++m) {
      for (int i = 0; i < kN; ++i) frame[i] = mics[m][4 * kHop + i];
      const std::array<float, kN> spectrum = PackedDft(frame.data());
      std::copy(spectrum.begin(), spectrum.end(), f[m]);
    }
    EXPECT_EQ(SelectBf(f), c.sector);
    float out[kN];
    FixedBF(f, out, 5, 77);
    EXPECT_LT(MaxDeviation(out, ReferenceProduct(ds_tab[c.sector], f)), 1e-1);
    FixedBF(f, out, 6, 77);
    EXPECT_LT(MaxDeviation(out, ReferenceProduct(mvdr_tab[c.sector], f)), 1e-1);
  }
  float zero[3][kN] = {};
  EXPECT_EQ(SelectBf(zero), 0);
  float out[kN];
  FixedBF(zero, out, 5, 240);
  for (float v : out) EXPECT_EQ(v, 0.0f);
}

}  // namespace
}  // namespace vorn
