// The bench's reference direction finders, in double precision.
//
// All three analyse the capture as the library does (512-point Hann frames
// every 256 samples) over 250 Hz - 7 kHz and pool second-order statistics:
// - SRP-PHAT sums, per microphone pair, the cross-spectra reduced to unit
//   magnitude, and scores a direction by the pairs' generalised
//   cross-correlations at the pair delays that direction implies (the
//   correlations are formed on a 1/20-sample lag grid and interpolated).
//   The SNR-weighted variant weights each bin by its Wiener gain against a
//   noise floor (the 20th percentile of the bin's power over the capture).
// - MUSIC pools the 3x3 spatial covariance per bin; with one talker the
//   noise subspace is the complement of the principal eigenvector e, so the
//   pseudo-spectrum is 1 / (3 - |e^H a|^2) for a unit-modulus steering vector
//   a. Each bin's pseudo-spectrum is divided by its largest value over the
//   search grid before the bins are summed, so that a few sharp bins cannot
//   decide alone.
// Directions are searched over azimuth and over elevations 0-40 degrees (the
// array is planar: +e and -e look the same), then refined by a parabola
// through the best azimuth and its neighbours.
#include "quality/direction_baselines.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <memory>
#include <numbers>

#include "common/adsp_common_fft_rel.h"
#include "sim/signals.h"

namespace vorn::bench {
namespace {

using Complex = std::complex<double>;

constexpr int kFft = 512, kFftOrder = 9, kHop = 256;
constexpr int kLowBin = 8, kHighBin = 224, kBins = kHighBin - kLowBin + 1;
constexpr int kMics = 3, kPairs = 3;
constexpr int kPairA[kPairs] = {0, 0, 1}, kPairB[kPairs] = {1, 2, 2};
constexpr double kForgetS = 0.5;
constexpr double kRingsDeg[] = {0.0, 10.0, 20.0, 30.0, 40.0};
constexpr double kLagStep = 0.05, kLagMax = 3.5;
constexpr int kLags = static_cast<int>(2 * kLagMax / kLagStep) + 1;
constexpr double kPi = std::numbers::pi;

double Omega(int k) { return 2.0 * kPi * k / kFft; }

// The product written out: std::complex's operator* checks for infinities
// and costs several times more in these inner loops.
Complex Times(Complex a, Complex b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}
Complex TimesConj(Complex a, Complex b) {
  return {a.real() * b.real() + a.imag() * b.imag(), a.imag() * b.real() - a.real() * b.imag()};
}

// Samples by which microphone m hears a plane wave from (az, el) before the
// array centre.
double LeadSamples(int m, double az_deg, double el_deg) {
  const double az = az_deg * kPi / 180.0, el = el_deg * kPi / 180.0;
  return sim::kArrayRadiusM * std::cos(el) * std::cos(az - 2.0 * kPi * m / 3.0) / sim::kSpeedOfSound *
         sim::kSampleRate;
}

using Spectra = std::array<std::array<Complex, kBins>, kMics>;

std::vector<Spectra> Analyse(const std::vector<std::int16_t>& mics) {
  const std::size_t frames = mics.size() / (kMics * kHop);
  std::vector<Spectra> out(frames);
  float block[kFft];
  for (std::size_t f = 0; f < frames; ++f) {
    for (int m = 0; m < kMics; ++m) {
      for (int n = 0; n < kFft; ++n) {
        const long at = static_cast<long>(f) * kHop - kHop + n;
        const double hann = 0.5 - 0.5 * std::cos(2.0 * kPi * n / kFft);
        block[n] = at < 0 ? 0.0f : static_cast<float>(hann * mics[static_cast<std::size_t>(at) * kMics + m]);
      }
      fft_rel(block, kFft, kFftOrder);
      for (int k = kLowBin; k <= kHighBin; ++k) out[f][m][k - kLowBin] = Complex(block[k], block[kFft - k]);
    }
  }
  return out;
}

double Power(const Spectra& x, int b) {
  double p = 0.0;
  for (int m = 0; m < kMics; ++m) p += std::norm(x[m][b]);
  return p / kMics;
}

// Per-bin noise floor: the 20th percentile of the bin's power over the capture.
std::array<double, kBins> NoiseFloor(const std::vector<Spectra>& spectra) {
  std::array<double, kBins> floor{};
  std::vector<double> powers(spectra.size());
  for (int b = 0; b < kBins; ++b) {
    for (std::size_t f = 0; f < spectra.size(); ++f) powers[f] = Power(spectra[f], b);
    if (powers.empty()) continue;
    auto nth = powers.begin() + static_cast<long>(powers.size() / 5);
    std::nth_element(powers.begin(), nth, powers.end());
    floor[b] = *nth;
  }
  return floor;
}

// The coarse search grid: every ring, azimuths `step_deg` apart.
struct Grid {
  double step_deg;
  std::vector<std::pair<double, double>> directions;  // (azimuth, elevation)
  explicit Grid(double step) : step_deg(step) {
    for (double el : kRingsDeg)
      for (double az = 0.0; az < 360.0; az += step) directions.emplace_back(az, el);
  }
};

// Azimuth of the best-scoring direction: the coarse grid's winner (scores
// given per grid direction), a 1-degree pass round it, and a parabola
// through the best three.
double Refine(const Grid& grid, const std::vector<double>& coarse, const std::function<double(double, double)>& score) {
  const std::size_t best = static_cast<std::size_t>(std::max_element(coarse.begin(), coarse.end()) - coarse.begin());
  const auto [best_az, best_el] = grid.directions[best];
  const int reach = static_cast<int>(grid.step_deg) - 1;
  double fine_best = coarse[best], fine_az = best_az;
  for (int d = -reach; d <= reach; ++d)
    if (d != 0)
      if (const double s = score(best_az + d, best_el); s > fine_best) fine_best = s, fine_az = best_az + d;
  const double left = score(fine_az - 1.0, best_el), right = score(fine_az + 1.0, best_el);
  const double curvature = left - 2.0 * fine_best + right;
  double offset = curvature < 0.0 ? 0.5 * (left - right) / curvature : 0.0;
  offset = std::clamp(offset, -0.5, 0.5);
  const double az = std::fmod(fine_az + offset, 360.0);
  return az < 0.0 ? az + 360.0 : az;
}

double Search(const Grid& grid, const std::function<double(double, double)>& score) {
  std::vector<double> coarse;
  coarse.reserve(grid.directions.size());
  for (const auto& [az, el] : grid.directions) coarse.push_back(score(az, el));
  return Refine(grid, coarse, score);
}

// ---- SRP-PHAT ---------------------------------------------------------------

using PairSpectra = std::array<std::array<Complex, kBins>, kPairs>;

struct LagTable {
  std::vector<Complex> rotation;  // [lag][bin]: exp(-i w_k lag)
  LagTable() : rotation(static_cast<std::size_t>(kLags) * kBins) {
    for (int l = 0; l < kLags; ++l)
      for (int b = 0; b < kBins; ++b)
        rotation[static_cast<std::size_t>(l) * kBins + b] =
            std::polar(1.0, -Omega(b + kLowBin) * (l * kLagStep - kLagMax));
  }
};

const LagTable& Lags() {
  static const LagTable table;
  return table;
}

double SrpSearch(const PairSpectra& pooled, const Grid& grid) {
  std::array<std::array<double, kLags>, kPairs> gcc{};
  const LagTable& lags = Lags();
  for (int p = 0; p < kPairs; ++p)
    for (int l = 0; l < kLags; ++l) {
      double sum = 0.0;
      const Complex* rot = &lags.rotation[static_cast<std::size_t>(l) * kBins];
      for (int b = 0; b < kBins; ++b) sum += pooled[p][b].real() * rot[b].real() - pooled[p][b].imag() * rot[b].imag();
      gcc[p][l] = sum;
    }
  auto score = [&gcc](double az, double el) {
    double s = 0.0;
    for (int p = 0; p < kPairs; ++p) {
      const double lag = LeadSamples(kPairA[p], az, el) - LeadSamples(kPairB[p], az, el);
      const double at = (lag + kLagMax) / kLagStep;
      const int i = std::clamp(static_cast<int>(at), 0, kLags - 2);
      const double frac = at - i;
      s += gcc[p][i] * (1.0 - frac) + gcc[p][i + 1] * frac;
    }
    return s;
  };
  return Search(grid, score);
}

void AddPhat(const Spectra& x, const std::array<double, kBins>* floor, double gain, PairSpectra& pooled) {
  for (int b = 0; b < kBins; ++b) {
    double w = gain;
    if (floor != nullptr) {
      const double xi = std::max(Power(x, b) / std::max((*floor)[b], 1e-9) - 1.0, 0.0);
      w *= xi / (1.0 + xi);
    }
    for (int p = 0; p < kPairs; ++p) {
      const Complex c = TimesConj(x[kPairA[p]][b], x[kPairB[p]][b]);
      const double mag = std::abs(c);
      if (mag > 1e-12) pooled[p][b] += c * (w / mag);
    }
  }
}

// ---- MUSIC ------------------------------------------------------------------

using Covariance = std::array<std::array<Complex, kMics * kMics>, kBins>;

void AddOuter(const Spectra& x, double gain, Covariance& r) {
  for (int b = 0; b < kBins; ++b)
    for (int i = 0; i < kMics; ++i)
      for (int j = 0; j < kMics; ++j) r[b][i * kMics + j] += gain * TimesConj(x[i][b], x[j][b]);
}

// Principal eigenvector by power iteration from the previous one.
void Principal(const std::array<Complex, kMics * kMics>& r, std::array<Complex, kMics>& v) {
  for (int it = 0; it < 30; ++it) {
    std::array<Complex, kMics> next{};
    for (int i = 0; i < kMics; ++i)
      for (int j = 0; j < kMics; ++j) next[i] += Times(r[i * kMics + j], v[j]);
    double norm = 0.0;
    for (const Complex& c : next) norm += std::norm(c);
    if (norm <= 1e-300) return;
    norm = std::sqrt(norm);
    for (int i = 0; i < kMics; ++i) v[i] = next[i] / norm;
  }
}

// Unit-modulus steering vectors of a grid's directions, [direction][bin][mic].
struct Steering {
  std::vector<Complex> a;
  explicit Steering(const Grid& grid) : a(grid.directions.size() * kBins * kMics) {
    std::size_t at = 0;
    for (const auto& [az, el] : grid.directions)
      for (int b = 0; b < kBins; ++b)
        for (int m = 0; m < kMics; ++m) a[at++] = std::polar(1.0, Omega(b + kLowBin) * LeadSamples(m, az, el));
  }
};

double Pseudo(const std::array<Complex, kMics>& e, const Complex* a) {
  Complex sum = 0.0;
  for (int m = 0; m < kMics; ++m) sum += TimesConj(a[m], e[m]);
  return 1.0 / (3.0 - std::min(std::norm(sum), 2.999999));
}

double MusicSearch(const Covariance& r, std::array<std::array<Complex, kMics>, kBins>& principal, const Grid& grid,
                   const Steering& steering) {
  for (int b = 0; b < kBins; ++b) Principal(r[b], principal[b]);
  const std::size_t count = grid.directions.size();
  std::vector<double> coarse(count, 0.0);
  std::vector<double> column(count);
  std::array<double, kBins> peak{};
  for (int b = 0; b < kBins; ++b) {
    for (std::size_t d = 0; d < count; ++d) column[d] = Pseudo(principal[b], &steering.a[(d * kBins + b) * kMics]);
    peak[b] = *std::max_element(column.begin(), column.end());
    for (std::size_t d = 0; d < count; ++d) coarse[d] += column[d] / peak[b];
  }
  auto score = [&](double az, double el) {
    double s = 0.0;
    for (int b = 0; b < kBins; ++b) {
      std::array<Complex, kMics> a;
      for (int m = 0; m < kMics; ++m) a[m] = std::polar(1.0, Omega(b + kLowBin) * LeadSamples(m, az, el));
      s += Pseudo(principal[b], a.data()) / peak[b];
    }
    return s;
  };
  return Refine(grid, coarse, score);
}

}  // namespace

const char* BaselineName(Baseline b) {
  switch (b) {
    case Baseline::kSrpPhat:
      return "SRP-PHAT";
    case Baseline::kSrpPhatSnr:
      return "SRP-PHAT, SNR-weighted";
    case Baseline::kMusic:
      return "MUSIC, normalised per frequency";
  }
  return "?";
}

BaselineAnswers RunBaseline(Baseline method, const std::vector<std::int16_t>& mics,
                            const std::vector<FrameRange>& stretches) {
  const std::vector<Spectra> spectra = Analyse(mics);
  const std::array<double, kBins> floor = NoiseFloor(spectra);
  const std::array<double, kBins>* weights = method == Baseline::kSrpPhatSnr ? &floor : nullptr;
  const double forget = std::exp(-static_cast<double>(kHop) / sim::kSampleRate / kForgetS);
  static const Grid track_grid(5.0), stretch_grid(1.0);
  BaselineAnswers answers;
  answers.per_frame_deg.reserve(spectra.size());

  std::array<std::array<Complex, kMics>, kBins> principal;
  const auto reset_principal = [&principal] {
    for (auto& v : principal) v.fill(Complex(1.0 / std::sqrt(3.0), 0.0));
  };
  reset_principal();
  if (method == Baseline::kMusic) {
    static const Steering track_steering(track_grid), stretch_steering(stretch_grid);
    auto tracked = std::make_unique<Covariance>();
    for (const Spectra& x : spectra) {
      for (auto& bin : *tracked)
        for (Complex& c : bin) c *= forget;
      AddOuter(x, 1.0, *tracked);
      answers.per_frame_deg.push_back(MusicSearch(*tracked, principal, track_grid, track_steering));
    }
    for (const FrameRange& range : stretches) {
      auto pooled = std::make_unique<Covariance>();
      for (std::size_t f = range.begin; f < range.end && f < spectra.size(); ++f) AddOuter(spectra[f], 1.0, *pooled);
      reset_principal();
      answers.stretch_deg.push_back(MusicSearch(*pooled, principal, stretch_grid, stretch_steering));
    }
    return answers;
  }
  PairSpectra tracked{};
  for (const Spectra& x : spectra) {
    for (auto& pair : tracked)
      for (Complex& c : pair) c *= forget;
    AddPhat(x, weights, 1.0, tracked);
    answers.per_frame_deg.push_back(SrpSearch(tracked, track_grid));
  }
  for (const FrameRange& range : stretches) {
    PairSpectra pooled{};
    for (std::size_t f = range.begin; f < range.end && f < spectra.size(); ++f)
      AddPhat(spectra[f], weights, 1.0, pooled);
    answers.stretch_deg.push_back(SrpSearch(pooled, stretch_grid));
  }
  return answers;
}

}  // namespace vorn::bench
