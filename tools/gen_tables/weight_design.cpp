// Weight design for the fixed beams and the GSC blocking matrices.
//
// Delay-and-sum sets follow their closed steering rule. The MVDR sets solve
// w = R^-1 d / (d^H R^-1 d) per bin with R the noise coherence plus a
// diagonal loading: the loading bounds the white-noise gain, which keeps the
// superdirective low bins from amplifying microphone self-noise without end.
// The stored weight is conj(w) times the common delay, because the beam is
// formed as Y = sum_m W_m X_m without conjugation.
#include "weight_design.h"

#include <cmath>

namespace vorn::gen {
namespace {

using Matrix3 = std::array<std::array<Complex, 3>, 3>;

// Solves A x = b by Gaussian elimination with partial pivoting; the loaded
// coherence matrices are well conditioned (smallest eigenvalue >= loading).
MicVector Solve(Matrix3 a, MicVector b) {
  for (int col = 0; col < 3; ++col) {
    int pivot = col;
    for (int row = col + 1; row < 3; ++row)
      if (std::abs(a[row][col]) > std::abs(a[pivot][col])) pivot = row;
    std::swap(a[col], a[pivot]);
    std::swap(b[col], b[pivot]);
    for (int row = col + 1; row < 3; ++row) {
      const Complex factor = a[row][col] / a[col][col];
      for (int c = col; c < 3; ++c) a[row][c] -= factor * a[col][c];
      b[row] -= factor * b[col];
    }
  }
  MicVector x;
  for (int row = 2; row >= 0; --row) {
    Complex acc = b[row];
    for (int c = row + 1; c < 3; ++c) acc -= a[row][c] * x[c];
    x[row] = acc / a[row][row];
  }
  return x;
}

// Coherence of a spherically isotropic field between two points dist metres
// apart: sin(x)/x with x = 2 pi f dist / c.
double DiffuseCoherence(int k, double dist_m) {
  const double x = 2.0 * kPi * (k * kSampleRate / kFftLen) * dist_m / kSpeedOfSound;
  return x == 0.0 ? 1.0 : std::sin(x) / x;
}

Matrix3 DiffuseNoise(int k) {
  Matrix3 r{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) r[i][j] = i == j ? 1.0 : DiffuseCoherence(k, kMicSpacingM);
  return r;
}

// Mean outer product d d^H over 360 in-plane directions, one per degree:
// the cross-spectral matrix of a field arriving evenly from every azimuth.
Matrix3 InPlaneNoise(int k) {
  Matrix3 r{};
  constexpr int kDirections = 360;
  for (int a = 0; a < kDirections; ++a) {
    const MicVector d = Steering(k, a);
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) r[i][j] += d[i] * std::conj(d[j]) / double(kDirections);
  }
  return r;
}

// Distortionless solution for one bin, stored as conj(w) times the common
// delay so that sum_m W_m d_m equals the delay exactly.
MicVector DistortionlessWeights(int k, Matrix3 noise, const MicVector& steer) {
  for (int i = 0; i < 3; ++i) noise[i][i] += kMvdrLoading;
  const MicVector a = Solve(noise, steer);
  Complex response = 0.0;  // d^H R^-1 d, real and positive
  for (int m = 0; m < 3; ++m) response += std::conj(steer[m]) * a[m];
  MicVector w;
  for (int m = 0; m < 3; ++m) w[m] = CommonDelay(k) * std::conj(a[m] / std::conj(response));
  return w;
}

}  // namespace

WeightSet DelayAndSum(double az_deg, double theta_deg, double radius_samples) {
  WeightSet set;
  for (int k = 0; k < kBins; ++k)
    for (int m = 0; m < 3; ++m) {
      const double delay = kCommonDelay + MicAdvance(m, az_deg, theta_deg, radius_samples);
      set[k][m] = std::polar(1.0 / 3.0, -2.0 * kPi * k * delay / kFftLen);
    }
  return set;
}

WeightSet MvdrDiffuse(double az_deg, double radius_samples) {
  WeightSet set;
  for (int k = 0; k < kBins; ++k)
    set[k] = DistortionlessWeights(k, DiffuseNoise(k), Steering(k, az_deg, 90.0, radius_samples));
  return set;
}

WeightSet LeastSquaresInPlane(double az_deg) {
  WeightSet set;
  for (int k = 0; k < kBins; ++k) set[k] = DistortionlessWeights(k, InPlaneNoise(k), Steering(k, az_deg));
  return set;
}

BlockingMatrix Blocking(double az_deg) {
  BlockingMatrix bm;
  for (int k = 0; k < kBins; ++k) {
    const MicVector d = Steering(k, az_deg);
    const Matrix3 diffuse = DiffuseNoise(k);
    for (int out = 0; out < 3; ++out) {
      MicVector b;
      for (int m = 0; m < 3; ++m) {
        const Complex aligned = out == m ? std::conj(d[m]) : Complex(0.0);
        b[m] = CommonDelay(k) * (aligned - std::conj(d[m]) / 3.0);
      }
      // Output power for a diffuse field of unit power per microphone:
      // E|sum_m b_m X_m|^2 = sum_mn b_m Gamma_mn conj(b_n).
      double power = 0.0;
      for (int m = 0; m < 3; ++m)
        for (int n = 0; n < 3; ++n) power += std::real(b[m] * diffuse[m][n] * std::conj(b[n]));
      const double gain = BlockingGain(power);
      for (int m = 0; m < 3; ++m) bm[k][out][m] = gain * b[m];
    }
  }
  return bm;
}

double BlockingGain(double diffuse_power) {
  // The projection's largest weight is 2/3 of the gain: the upper limit
  // keeps every weight at most kBlockingMaxWeight. A power of 0 (the DC
  // bin, where the field is fully coherent) takes the limit as well.
  constexpr double kMaxGain = kBlockingMaxWeight * 1.5;
  if (!(diffuse_power > 1.0 / (kMaxGain * kMaxGain))) return kMaxGain;
  const double gain = 1.0 / std::sqrt(diffuse_power);
  constexpr double kMinGain = kBlockingMinWeight * 3.0;  // smallest weight is 1/3 of the gain
  return gain < kMinGain ? kMinGain : gain;
}

}  // namespace vorn::gen
