// The offline filters of beam_oracle.h.
//
// The noise is the capture less a rendering of the talker alone (the same
// scene with every noise source 300 dB down), so the two share every sample
// of the talker; the talker's transfer function comes from that rendering.
// Double precision throughout, and a plain radix-2 transform: this measures,
// it does not have to be fast.
#include "quality/beam_oracle.h"

#include <cmath>
#include <complex>
#include <functional>
#include <utility>
#include <vector>

#include "sim/metrics.h"
#include "sim/signal_ops.h"

namespace vorn::bench {
namespace {

using Complex = std::complex<double>;
constexpr int kLen = 512;
constexpr int kHop = 256;
constexpr int kBins = kLen / 2 + 1;
constexpr int kMics = 3;
constexpr double kPi = 3.14159265358979323846;

double Window(int i) { return std::sqrt(0.5 - 0.5 * std::cos(2.0 * kPi * (i + 0.5) / kLen)); }

using Spectra = std::vector<std::vector<Complex>>;  // [frame][bin]

Spectra Analyse(const std::vector<double>& x) {
  Spectra s;
  for (std::size_t at = 0; at + kLen <= x.size(); at += kHop) {
    std::vector<Complex> a(kLen);
    for (int i = 0; i < kLen; ++i) a[i] = x[at + i] * Window(i);
    sim::Fft(a, false);
    a.resize(kBins);
    s.push_back(std::move(a));
  }
  return s;
}

sim::Signal Synthesise(const Spectra& s, std::size_t length) {
  std::vector<double> y(length, 0.0);
  for (std::size_t f = 0; f < s.size(); ++f) {
    std::vector<Complex> a(kLen);
    for (int k = 0; k < kBins; ++k) a[k] = s[f][k];
    for (int k = 1; k < kLen / 2; ++k) a[kLen - k] = std::conj(s[f][k]);
    sim::Fft(a, true);
    for (int i = 0; i < kLen && f * kHop + i < length; ++i) y[f * kHop + i] += a[i].real() * Window(i);
  }
  return sim::Signal(y.begin(), y.end());
}

std::vector<double> Mic(const std::vector<std::int16_t>& interleaved, int m) {
  std::vector<double> x(interleaved.size() / kMics);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = interleaved[i * kMics + static_cast<std::size_t>(m)];
  return x;
}

struct Matrix3 {
  Complex a[kMics][kMics]{};
};

// x x^H summed over the frames of bin k.
Matrix3 Covariance(const Spectra (&x)[kMics], int k) {
  Matrix3 r;
  for (std::size_t f = 0; f < x[0].size(); ++f)
    for (int i = 0; i < kMics; ++i)
      for (int j = 0; j < kMics; ++j) r.a[i][j] += x[i][f][k] * std::conj(x[j][f][k]);
  return r;
}

// Inverse by cofactors; the loaded covariance is well conditioned.
Matrix3 Inverse(const Matrix3& m) {
  Matrix3 c;
  for (int i = 0; i < kMics; ++i)
    for (int j = 0; j < kMics; ++j) {
      const int i1 = (i + 1) % 3, i2 = (i + 2) % 3, j1 = (j + 1) % 3, j2 = (j + 2) % 3;
      c.a[j][i] = m.a[i1][j1] * m.a[i2][j2] - m.a[i1][j2] * m.a[i2][j1];
    }
  const Complex det = m.a[0][0] * c.a[0][0] + m.a[0][1] * c.a[1][0] + m.a[0][2] * c.a[2][0];
  for (auto& row : c.a)
    for (Complex& e : row) e /= det;
  return c;
}

// Per-bin weights from the noise and the talker's covariances.
using Design = std::function<void(Matrix3 rn, const Matrix3& rs, Complex w[kMics])>;

// Renders the talker alone, splits the capture into talker and noise, and
// runs the weights `design` gives each bin over the capture.
bool RunOracle(const sim::Scene& scene, const sim::RenderedScene& rendered, const Design& design, SystemRun* run,
               std::string* error) {
  sim::Scene talker_only = scene;
  for (sim::NoiseSource& n : talker_only.noises) n.snr_db = 300.0;
  sim::RenderedScene talker;
  if (!sim::RenderScene(talker_only, &talker, error)) return false;
  if (talker.mics.size() != rendered.mics.size()) {
    *error = "the talker alone renders to another length";
    return false;
  }
  Spectra x[kMics], noise[kMics], speech[kMics];
  for (int m = 0; m < kMics; ++m) {
    const std::vector<double> capture = Mic(rendered.mics, m), alone = Mic(talker.mics, m);
    std::vector<double> rest(capture.size());
    for (std::size_t i = 0; i < rest.size(); ++i) rest[i] = capture[i] - alone[i];
    x[m] = Analyse(capture);
    noise[m] = Analyse(rest);
    speech[m] = Analyse(alone);
  }
  Spectra y(x[0].size(), std::vector<Complex>(kBins));
  for (int k = 0; k < kBins; ++k) {
    Complex w[kMics];
    design(Covariance(noise, k), Covariance(speech, k), w);
    for (std::size_t f = 0; f < y.size(); ++f)
      for (int m = 0; m < kMics; ++m) y[f][k] += std::conj(w[m]) * x[m][f][k];
  }
  const std::size_t frames = WholeFrames(rendered);
  run->output = Synthesise(y, frames * sim::kFrame);
  run->speech.assign(frames, 1);
  return true;
}

}  // namespace

bool RunOracleBeam(const sim::Scene& scene, const sim::RenderedScene& rendered, double loading, SystemRun* run,
                   std::string* error) {
  const auto mvdr = [loading](Matrix3 rn, const Matrix3& rs, Complex w[kMics]) {
    const double load = loading * (rn.a[0][0] + rn.a[1][1] + rn.a[2][2]).real() / kMics + 1e-9;
    for (int i = 0; i < kMics; ++i) rn.a[i][i] += load;
    const Matrix3 rn_inv = Inverse(rn);
    Complex h[kMics], den = 0.0;
    for (int i = 0; i < kMics; ++i) h[i] = rs.a[i][0] / (rs.a[0][0] + 1e-9);
    for (int i = 0; i < kMics; ++i) {
      w[i] = rn_inv.a[i][0] * h[0] + rn_inv.a[i][1] * h[1] + rn_inv.a[i][2] * h[2];
      den += std::conj(h[i]) * w[i];
    }
    for (int i = 0; i < kMics; ++i) w[i] /= den;
  };
  return RunOracle(scene, rendered, mvdr, run, error);
}

bool RunOracleWiener(const sim::Scene& scene, const sim::RenderedScene& rendered, double mu, bool microphone_0_only,
                     SystemRun* run, std::string* error) {
  const auto mwf = [mu, microphone_0_only](const Matrix3& rn, const Matrix3& rs, Complex w[kMics]) {
    if (microphone_0_only) {
      w[0] = rs.a[0][0] / (rs.a[0][0] + mu * rn.a[0][0] + 1e-9);
      w[1] = w[2] = 0.0;
      return;
    }
    Matrix3 sum;
    for (int i = 0; i < kMics; ++i)
      for (int j = 0; j < kMics; ++j) sum.a[i][j] = rs.a[i][j] + mu * rn.a[i][j];
    // A whisker of loading keeps a silent bin (below the talker's band) invertible.
    const double load = 1e-9 * (sum.a[0][0] + sum.a[1][1] + sum.a[2][2]).real() + 1e-9;
    for (int i = 0; i < kMics; ++i) sum.a[i][i] += load;
    const Matrix3 inv = Inverse(sum);
    for (int i = 0; i < kMics; ++i)
      w[i] = inv.a[i][0] * rs.a[0][0] + inv.a[i][1] * rs.a[1][0] + inv.a[i][2] * rs.a[2][0];
  };
  return RunOracle(scene, rendered, mwf, run, error);
}

}  // namespace vorn::bench
