// Pooled spatial covariances and their principal eigenvectors.
//
// The eigenvector is found by power iteration on the 3x3 Hermitian matrix,
// in double precision: thirty steps from the broadside vector settle it to
// well under a degree whenever the largest eigenvalue is clearly apart from
// the next, and where it is not the bin's weight is small anyway. The
// whitened form runs the same iteration on L^-1 talk L^-H, L the Cholesky
// factor of the noise's covariance.
#include "adsp_bf/doa_covariance.h"

#include <cmath>
#include <complex>

namespace vorn {
namespace {

constexpr int kPairA[kGccPairs] = {0, 0, 1};
constexpr int kPairB[kGccPairs] = {1, 2, 2};
constexpr int kIterations = 30;
// The noise's covariance is loaded with this share of its mean power on the
// diagonal before it is factored: a lone source in a dry room leaves it
// nearly of rank one, and the loading keeps the whitening finite while
// still taking out a noise 20 dB above what the loading adds.
constexpr double kNoiseLoading = 0.01;

using Complex = std::complex<double>;
using Matrix = Complex[kBfChannels][kBfChannels];

// Bin b of a pooled covariance, per hop, as a full Hermitian matrix.
void MatrixOf(const GccCovariance& c, int b, double hops, Matrix m) {
  for (int i = 0; i < kBfChannels; ++i) m[i][i] = c.power[i][b] / hops;
  for (int p = 0; p < kGccPairs; ++p) {
    m[kPairA[p]][kPairB[p]] = Complex(c.re[p][b], c.im[p][b]) / hops;
    m[kPairB[p]][kPairA[p]] = std::conj(m[kPairA[p]][kPairB[p]]);
  }
}

// Lower-triangular l with l l^H = m; false where m is not positive definite.
bool Cholesky(const Matrix m, Matrix l) {
  for (int i = 0; i < kBfChannels; ++i)
    for (int j = 0; j <= i; ++j) {
      Complex sum = m[i][j];
      for (int k = 0; k < j; ++k) sum -= l[i][k] * std::conj(l[j][k]);
      if (i == j) {
        if (!(sum.real() > 0.0)) return false;
        l[i][i] = std::sqrt(sum.real());
      } else {
        l[i][j] = sum / l[j][j].real();
      }
    }
  return true;
}

// w = l^-1 for lower-triangular l.
void InvertLower(const Matrix l, Matrix w) {
  for (int j = 0; j < kBfChannels; ++j) {
    for (int i = 0; i < j; ++i) w[i][j] = 0.0;
    w[j][j] = 1.0 / l[j][j];
    for (int i = j + 1; i < kBfChannels; ++i) {
      Complex sum = 0.0;
      for (int k = j; k < i; ++k) sum += l[i][k] * w[k][j];
      w[i][j] = -sum / l[i][i];
    }
  }
}

// The principal eigenvector v (unit length) of Hermitian m, by power
// iteration from the broadside vector; returns its Rayleigh quotient.
double Principal(const Matrix m, Complex v[kBfChannels]) {
  for (int i = 0; i < kBfChannels; ++i) v[i] = 1.0;
  double eigenvalue = 0.0;
  for (int it = 0; it < kIterations; ++it) {
    Complex next[kBfChannels] = {};
    for (int i = 0; i < kBfChannels; ++i)
      for (int j = 0; j < kBfChannels; ++j) next[i] += m[i][j] * v[j];
    double norm = 0.0;
    eigenvalue = 0.0;
    for (int i = 0; i < kBfChannels; ++i) {
      norm += std::norm(next[i]);
      eigenvalue += (std::conj(v[i]) * next[i]).real();
    }
    if (!(norm > 0.0)) break;
    norm = std::sqrt(norm);
    for (int i = 0; i < kBfChannels; ++i) v[i] = next[i] / norm;
  }
  return eigenvalue;
}

// How far the eigenvalue stands above the mean of the other two, as a share
// of the trace (1 for a single plane wave, 0 for a field with no direction).
double Dominance(double eigenvalue, double trace) {
  const double rest = 0.5 * (trace - eigenvalue);
  return (eigenvalue - (rest > 0.0 ? rest : 0.0)) / trace;
}

// cross += weight * v's pair products v_a conj(v_b) reduced to unit
// magnitude, in bin b.
void AddPairProducts(const Complex v[kBfChannels], double weight, int b, GccCross* cross) {
  for (int p = 0; p < kGccPairs; ++p) {
    const Complex a = v[kPairA[p]], c = v[kPairB[p]];
    const double re = a.real() * c.real() + a.imag() * c.imag();
    const double im = a.imag() * c.real() - a.real() * c.imag();
    const double magnitude = std::sqrt(re * re + im * im);
    if (!(magnitude > 1e-20)) continue;
    cross->re[p][b] += static_cast<float>(weight * re / magnitude);
    cross->im[p][b] += static_cast<float>(weight * im / magnitude);
  }
}

}  // namespace

void GccAddCovariance(const GccBand& band, const float* weight, GccCovariance* c) {
  for (int b = 0; b < kGccBins; ++b) {
    const float w = weight ? weight[b] : 1.0f;
    if (w <= 0.0f) continue;
    for (int m = 0; m < kBfChannels; ++m)
      c->power[m][b] += w * (band.re[m][b] * band.re[m][b] + band.im[m][b] * band.im[m][b]);
    for (int p = 0; p < kGccPairs; ++p) {
      const float ar = band.re[kPairA[p]][b], ai = band.im[kPairA[p]][b];
      const float br = band.re[kPairB[p]][b], bi = band.im[kPairB[p]][b];
      c->re[p][b] += w * (ar * br + ai * bi);
      c->im[p][b] += w * (ai * br - ar * bi);
    }
  }
}

float GccAddPrincipal(const GccCovariance& pooled, const GccCovariance& noise, const float noise_scale[kGccBins],
                      GccCross* cross) {
  float total = 0.0f;
  for (int b = 0; b < kGccBins; ++b) {
    const double scale = noise_scale[b];
    Matrix m;
    double trace = 0.0, pooled_trace = 0.0;
    for (int i = 0; i < kBfChannels; ++i) {
      m[i][i] = pooled.power[i][b] - scale * noise.power[i][b];
      trace += m[i][i].real();
      pooled_trace += pooled.power[i][b];
    }
    if (!(trace > 0.0) || !(pooled_trace > 0.0)) continue;
    for (int p = 0; p < kGccPairs; ++p) {
      m[kPairA[p]][kPairB[p]] =
          Complex(pooled.re[p][b] - scale * noise.re[p][b], pooled.im[p][b] - scale * noise.im[p][b]);
      m[kPairB[p]][kPairA[p]] = std::conj(m[kPairA[p]][kPairB[p]]);
    }
    Complex v[kBfChannels];
    const double eigenvalue = Principal(m, v);
    if (!(eigenvalue > 0.0)) continue;
    const double dominance = Dominance(eigenvalue, trace);
    if (!(dominance > 0.0)) continue;
    const double clear = trace / pooled_trace;
    const double weight = dominance * (clear < 1.0 ? clear : 1.0);
    AddPairProducts(v, weight, b, cross);
    total += static_cast<float>(weight);
  }
  return total;
}

float GccAddWhitenedPrincipal(const GccCovariance& talk, float talk_hops, const GccCovariance& noise,
                              float noise_hops, GccCross* cross) {
  if (!(talk_hops > 0.0f) || !(noise_hops > 0.0f)) return 0.0f;
  float total = 0.0f;
  for (int b = 0; b < kGccBins; ++b) {
    Matrix rt, rn, l, w;
    MatrixOf(talk, b, talk_hops, rt);
    MatrixOf(noise, b, noise_hops, rn);
    const double loading = kNoiseLoading * (rn[0][0] + rn[1][1] + rn[2][2]).real() / kBfChannels;
    for (int i = 0; i < kBfChannels; ++i) rn[i][i] += loading;
    if (!Cholesky(rn, l)) continue;
    InvertLower(l, w);
    // c = w rt w^H, the talk as the whitened microphones hear it.
    Matrix half{}, c{};
    for (int i = 0; i < kBfChannels; ++i)
      for (int j = 0; j < kBfChannels; ++j)
        for (int k = 0; k < kBfChannels; ++k) half[i][j] += w[i][k] * rt[k][j];
    for (int i = 0; i < kBfChannels; ++i)
      for (int j = 0; j < kBfChannels; ++j)
        for (int k = 0; k < kBfChannels; ++k) c[i][j] += half[i][k] * std::conj(w[j][k]);
    Complex u[kBfChannels];
    const double eigenvalue = Principal(c, u);
    const double trace = (c[0][0] + c[1][1] + c[2][2]).real();
    if (!(eigenvalue > 1.0) || !(trace > 0.0)) continue;
    const double dominance = Dominance(eigenvalue, trace);
    if (!(dominance > 0.0)) continue;
    const double weight = dominance * (1.0 - 1.0 / eigenvalue);
    // The steering vector l u (= noise * v for v = l^-H u).
    Complex h[kBfChannels] = {};
    for (int i = 0; i < kBfChannels; ++i)
      for (int k = 0; k <= i; ++k) h[i] += l[i][k] * u[k];
    AddPairProducts(h, weight, b, cross);
    total += static_cast<float>(weight);
  }
  return total;
}

}  // namespace vorn
