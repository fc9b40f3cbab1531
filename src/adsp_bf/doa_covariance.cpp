// Pooled spatial covariances and their principal eigenvectors.
//
// The eigenvector is found by power iteration on the 3x3 Hermitian matrix,
// in double precision: thirty steps from the broadside vector settle it to
// well under a degree whenever the largest eigenvalue is clearly apart from
// the next, and where it is not the bin's weight is small anyway.
#include "adsp_bf/doa_covariance.h"

#include <cmath>

namespace vorn {
namespace {

constexpr int kPairA[kGccPairs] = {0, 0, 1};
constexpr int kPairB[kGccPairs] = {1, 2, 2};
constexpr int kIterations = 30;

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
    double mr[kBfChannels][kBfChannels], mi[kBfChannels][kBfChannels];
    double trace = 0.0, pooled_trace = 0.0;
    for (int m = 0; m < kBfChannels; ++m) {
      mr[m][m] = pooled.power[m][b] - scale * noise.power[m][b];
      mi[m][m] = 0.0;
      trace += mr[m][m];
      pooled_trace += pooled.power[m][b];
    }
    if (!(trace > 0.0) || !(pooled_trace > 0.0)) continue;
    for (int p = 0; p < kGccPairs; ++p) {
      const double re = pooled.re[p][b] - scale * noise.re[p][b];
      const double im = pooled.im[p][b] - scale * noise.im[p][b];
      mr[kPairA[p]][kPairB[p]] = re, mi[kPairA[p]][kPairB[p]] = im;
      mr[kPairB[p]][kPairA[p]] = re, mi[kPairB[p]][kPairA[p]] = -im;
    }
    double vr[kBfChannels] = {1.0, 1.0, 1.0}, vi[kBfChannels] = {0.0, 0.0, 0.0};
    double eigenvalue = 0.0;
    for (int it = 0; it < kIterations; ++it) {
      double nr[kBfChannels] = {}, ni[kBfChannels] = {};
      for (int i = 0; i < kBfChannels; ++i)
        for (int j = 0; j < kBfChannels; ++j) {
          nr[i] += mr[i][j] * vr[j] - mi[i][j] * vi[j];
          ni[i] += mr[i][j] * vi[j] + mi[i][j] * vr[j];
        }
      double norm = 0.0;
      eigenvalue = 0.0;  // the Rayleigh quotient of the unit vector v
      for (int i = 0; i < kBfChannels; ++i) {
        norm += nr[i] * nr[i] + ni[i] * ni[i];
        eigenvalue += vr[i] * nr[i] + vi[i] * ni[i];
      }
      if (!(norm > 0.0)) break;
      norm = std::sqrt(norm);
      for (int i = 0; i < kBfChannels; ++i) vr[i] = nr[i] / norm, vi[i] = ni[i] / norm;
    }
    if (!(eigenvalue > 0.0)) continue;
    // The eigenvalue over the mean of the other two, as a share of the trace.
    const double rest = 0.5 * (trace - eigenvalue);
    const double dominance = (eigenvalue - (rest > 0.0 ? rest : 0.0)) / trace;
    if (!(dominance > 0.0)) continue;
    const double clear = trace / pooled_trace;
    const double weight = dominance * (clear < 1.0 ? clear : 1.0);
    for (int p = 0; p < kGccPairs; ++p) {
      const int a = kPairA[p], c = kPairB[p];
      const double re = vr[a] * vr[c] + vi[a] * vi[c];
      const double im = vi[a] * vr[c] - vr[a] * vi[c];
      const double magnitude = std::sqrt(re * re + im * im);
      if (!(magnitude > 1e-20)) continue;
      cross->re[p][b] += static_cast<float>(weight * re / magnitude);
      cross->im[p][b] += static_cast<float>(weight * im / magnitude);
    }
    total += static_cast<float>(weight);
  }
  return total;
}

}  // namespace vorn
