// The learned MVDR beam.
//
// Per band, Rn is the noise covariance and Rx the noisy talker's. The
// talker's relative transfer function h (h_0 = 1) is the principal
// generalised eigenvector v of (Rx - Rn, Rn) mapped back, h = Rn v / (Rn v)_0:
// whitening by the noise before taking the eigenvector keeps the estimate
// from leaning towards the noise's own strong directions. The eigenvector
// comes from a few power steps started at Rn^-1 d, d the look direction's
// free-field steering, which is already close. The weights are the MVDR
// w = Rn^-1 h / (h^H Rn^-1 h) on the loaded Rn, so the output holds the
// talker as microphone 0 hears it, early reflections and all: a beam steered
// by the free-field model reshapes that image in a room, and the listener
// (and any scoring against microphone 0) hears the difference as distortion.
//
// Rn is loaded by half its mean power. Hops the presence calls noise still
// carry the talker's late reverberation, as diffuse as the noise, and a
// lightly loaded MVDR takes that down with the noise: in the bench, loadings
// of 0.01 and 0.05 cost 4.5 and 1 dB of SI-SDR against the free-field beam
// at 20 dB input SNR. Where the talker is not found in the
// look direction (not heard clearly enough, as mostly at 0 dB input SNR, or
// heard elsewhere) the free-field design is used whole: the learned noise
// field alone with the look direction's steering cost 0.2 dB of SI-SDR there.
//
// The weights are then limited to 256 taps around the common delay so that
// the overlap-save product of the beam is a true linear filter.
#include "adsp_bf/beam_learned.h"

#include <cmath>
#include <complex>

#include "common/adsp_common_fft_rel.h"

namespace vorn {
namespace {

using Complex = std::complex<double>;
constexpr int kHalf = kBfFftLen / 2;
constexpr double kPi = 3.14159265358979323846;
constexpr float kNoiseBelow = 0.3f;   // presence under which a hop is noise
constexpr float kTalkerAbove = 0.7f;  // and over which it is the talker
// Counted in hops taken in, every fourth one: hops 64 ms apart share no
// samples, and a band of the talker still sees about a hundred snapshots
// (two bins a hop) over three seconds of speech.
constexpr int32_t kNoiseHops = 16;    // the noise is averaged over about a second
constexpr int32_t kNoisyHops = 47;    // the talker over about three seconds of speech
constexpr int32_t kMinHops = 8;       // half a second of each before the first design
constexpr double kLoading = 0.5;      // diagonal loading of the noise, relative to its mean power
constexpr double kMinTalker = 0.1;    // whitened talker-to-noise ratio a band needs
constexpr int kPowerSteps = 3;
// The learned talker is taken as the one in the look direction when its
// transfer function, over 1 to 4 kHz where the array resolves direction,
// matches the look direction's free-field steering better than that of any
// direction kOtherDeg or more away: a room bends the transfer function far
// from free field, but still less towards another direction.
constexpr int kMatchFromBin = 32;
constexpr int kMatchToBin = 128;
constexpr int kMatchStepBins = 8;
constexpr float kOtherDeg = 60.0f;
constexpr float kOtherStepDeg = 30.0f;

struct Matrix3 {
  Complex a[3][3];
};

struct Vector3 {
  Complex v[3];
};

// Band b of a covariance kept entry by entry.
template <int kBands>
Matrix3 Unpack(const float (*r)[kBands], int b) {
  Matrix3 m;
  m.a[0][0] = r[0][b];
  m.a[1][1] = r[1][b];
  m.a[2][2] = r[2][b];
  m.a[0][1] = Complex(r[3][b], r[4][b]);
  m.a[0][2] = Complex(r[5][b], r[6][b]);
  m.a[1][2] = Complex(r[7][b], r[8][b]);
  m.a[1][0] = std::conj(m.a[0][1]);
  m.a[2][0] = std::conj(m.a[0][2]);
  m.a[2][1] = std::conj(m.a[1][2]);
  return m;
}

Vector3 Times(const Matrix3& m, const Vector3& x) {
  Vector3 y;
  for (int i = 0; i < 3; ++i) y.v[i] = m.a[i][0] * x.v[0] + m.a[i][1] * x.v[1] + m.a[i][2] * x.v[2];
  return y;
}

Complex Dot(const Vector3& x, const Vector3& y) {  // x^H y
  return std::conj(x.v[0]) * y.v[0] + std::conj(x.v[1]) * y.v[1] + std::conj(x.v[2]) * y.v[2];
}

double Norm2(const Vector3& x) { return std::norm(x.v[0]) + std::norm(x.v[1]) + std::norm(x.v[2]); }

// Inverse by cofactors; a loaded covariance is well conditioned.
Matrix3 Inverse(const Matrix3& m) {
  Matrix3 c;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      const int i1 = (i + 1) % 3, i2 = (i + 2) % 3, j1 = (j + 1) % 3, j2 = (j + 2) % 3;
      c.a[j][i] = m.a[i1][j1] * m.a[i2][j2] - m.a[i1][j2] * m.a[i2][j1];  // adjugate: transposed cofactor
    }
  }
  const Complex det = m.a[0][0] * c.a[0][0] + m.a[0][1] * c.a[1][0] + m.a[0][2] * c.a[2][0];
  const Complex inv_det = std::conj(det) / std::norm(det);
  for (auto& row : c.a)
    for (Complex& e : row) e *= inv_det;
  return c;
}

// The free-field transfer function from azimuth_deg relative to microphone
// 0 at bins first, first + step, ... (count of them): a rotation per
// microphone rather than a sine and cosine per bin.
void Steering(float azimuth_deg, double first, double step, int count, Vector3* d) {
  const double lead0 = MicLeadSamples(0, azimuth_deg);
  Complex at[kBfChannels], turn[kBfChannels];
  for (int m = 0; m < kBfChannels; ++m) {
    const double radians_per_bin = 2.0 * kPi * (MicLeadSamples(m, azimuth_deg) - lead0) / kBfFftLen;
    at[m] = std::polar(1.0, radians_per_bin * first);
    turn[m] = std::polar(1.0, radians_per_bin * step);
  }
  for (int i = 0; i < count; ++i) {
    for (int m = 0; m < kBfChannels; ++m) {
      d[i].v[m] = at[m];
      at[m] *= turn[m];
    }
  }
}

double BandCentre(int b) { return b + 1 < kNoisyBands ? kNoisyBandBins * b + 0.5 * (kNoisyBandBins - 1) : kHalf; }

// The look direction at every talker band's centre.
void LookSteering(float azimuth_deg, Vector3 d[kNoisyBands]) {
  Steering(azimuth_deg, BandCentre(0), kNoisyBandBins, kNoisyBands - 1, d);
  Steering(azimuth_deg, kHalf, 0.0, 1, d + kNoisyBands - 1);
}

// The nine entries of one hop's outer product x x^H in every bin, in the
// order LearnedBeam keeps them: three powers, then the real and
// imaginary parts of the pairs (0,1), (0,2), (1,2). Laid out bin by bin in
// rows, so that each is one pass over contiguous memory.
struct OuterProducts {
  float e[kHermitian3][kBfNumBins];
};

void OuterProductsOf(float spectrum[kBfChannels][kBfFftLen], OuterProducts* p) {
  float re[kBfChannels][kBfNumBins], im[kBfChannels][kBfNumBins];
  for (int m = 0; m < kBfChannels; ++m) {
    const float* x = spectrum[m];
    re[m][0] = x[0];
    im[m][0] = 0.0f;
    re[m][kHalf] = x[kHalf];
    im[m][kHalf] = 0.0f;
    for (int k = 1; k < kHalf; ++k) {
      re[m][k] = x[k];
      im[m][k] = x[kBfFftLen - k];
    }
  }
  for (int m = 0; m < kBfChannels; ++m)
    for (int k = 0; k < kBfNumBins; ++k) p->e[m][k] = re[m][k] * re[m][k] + im[m][k] * im[m][k];
  static constexpr int kPairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
  for (int q = 0; q < 3; ++q) {
    const float* re_i = re[kPairs[q][0]];
    const float* im_i = im[kPairs[q][0]];
    const float* re_j = re[kPairs[q][1]];
    const float* im_j = im[kPairs[q][1]];
    float* real = p->e[3 + 2 * q];
    float* imag = p->e[4 + 2 * q];
    for (int k = 0; k < kBfNumBins; ++k) {
      real[k] = re_i[k] * re_j[k] + im_i[k] * im_j[k];
      imag[k] = im_i[k] * re_j[k] - re_i[k] * im_j[k];
    }
  }
}

// Folds one hop into the running means over bands of kWidth bins (the last
// band the Nyquist bin alone): r += a (band mean - r), entry by entry.
template <int kWidth, int kBands>
void FoldIn(const OuterProducts& p, float a, float (*r)[kBands]) {
  static_assert(kBands == kHalf / kWidth + 1);
  constexpr float kPerBin = 1.0f / kWidth;
  for (int e = 0; e < kHermitian3; ++e) {
    const float* row = p.e[e];
    float* mean = r[e];
    for (int b = 0; b + 1 < kBands; ++b) {
      float sum = 0.0f;
      for (int j = 0; j < kWidth; ++j) sum += row[kWidth * b + j];
      mean[b] += a * (kPerBin * sum - mean[b]);
    }
    mean[kBands - 1] += a * (row[kHalf] - mean[kBands - 1]);
  }
}

// The talker's relative transfer function in one band into *rtf; false,
// with the free-field steering d there instead, where the talker left no
// trace above the noise.
bool TalkerTransfer(const Matrix3& rn, const Matrix3& rn_inv, const Matrix3& rs, const Vector3& d, Vector3* rtf) {
  *rtf = d;
  Vector3 v = Times(rn_inv, d);
  for (int step = 0; step < kPowerSteps; ++step) {
    v = Times(rn_inv, Times(rs, v));
    const double norm = std::sqrt(Norm2(v));
    if (!(norm > 0.0)) return false;
    for (Complex& e : v.v) e /= norm;
  }
  const double talker = Dot(v, Times(rs, v)).real();
  const Vector3 h = Times(rn, v);
  const double noise = Dot(v, h).real();
  if (!(talker > kMinTalker * noise) || !(std::norm(h.v[0]) > 1e-12 * Norm2(h))) return false;
  const Complex to_unit = std::conj(h.v[0]) / std::norm(h.v[0]);  // 1 / h_0 without a complex division
  for (int m = 0; m < kBfChannels; ++m) rtf->v[m] = h.v[m] * to_unit;
  return true;
}

double Match(const Vector3& h, const Vector3& d) { return std::norm(Dot(d, h)) / (Norm2(h) * Norm2(d)); }

constexpr int kMatchBins = (kMatchToBin - kMatchFromBin) / kMatchStepBins + 1;
constexpr int kMatchFirstBand = kMatchFromBin / kNoisyBandBins;
constexpr int kMatchBandStep = kMatchStepBins / kNoisyBandBins;

// Over the bands where the talker was heard.
double MatchOver1To4kHz(const Vector3 rtf[kNoisyBands], const bool heard[kNoisyBands], float azimuth_deg) {
  Vector3 d[kMatchBins];
  Steering(azimuth_deg, BandCentre(kMatchFirstBand), kMatchStepBins, kMatchBins, d);
  double sum = 0.0;
  for (int i = 0; i < kMatchBins; ++i) {
    const int b = kMatchFirstBand + i * kMatchBandStep;
    if (heard[b]) sum += Match(rtf[b], d[i]);
  }
  return sum;
}

// Bands where the talker was not heard hold the look direction's own
// steering and would vote for it; they do not count, and a talker heard in
// fewer than half of the bands is not taken as found.
bool TalkerInLook(const Vector3 rtf[kNoisyBands], const bool heard[kNoisyBands], float azimuth_deg) {
  int count = 0;
  for (int i = 0; i < kMatchBins; ++i) count += heard[kMatchFirstBand + i * kMatchBandStep] ? 1 : 0;
  if (2 * count < kMatchBins) return false;
  const double look = MatchOver1To4kHz(rtf, heard, azimuth_deg);
  for (float off = kOtherDeg; off <= 360.0f - kOtherDeg; off += kOtherStepDeg)
    if (MatchOver1To4kHz(rtf, heard, azimuth_deg + off) > look) return false;
  return true;
}

// Limits each microphone's filter to 256 taps around the common delay.
void LimitTaps(BeamWeights* weights) {
  for (int m = 0; m < kBfChannels; ++m) {
    float packed[kBfFftLen];
    packed[0] = weights->re[m][0];
    packed[kHalf] = weights->re[m][kHalf];
    for (int k = 1; k < kHalf; ++k) {
      packed[k] = weights->re[m][k];
      packed[kBfFftLen - k] = weights->im[m][k];
    }
    ifft_rel(packed, kBfFftLen, kBfFftOrder);
    for (int t = kHalf; t < kBfFftLen; ++t) packed[t] = 0.0f;
    fft_rel(packed, kBfFftLen, kBfFftOrder);
    weights->re[m][0] = packed[0];
    weights->im[m][0] = 0.0f;
    weights->re[m][kHalf] = packed[kHalf];
    weights->im[m][kHalf] = 0.0f;
    for (int k = 1; k < kHalf; ++k) {
      weights->re[m][k] = packed[k];
      weights->im[m][k] = packed[kBfFftLen - k];
    }
  }
}

}  // namespace

void LearnedBeamReset(LearnedBeam* lb) { *lb = LearnedBeam{}; }

void LearnedBeamObserve(LearnedBeam* lb, float spectrum[kBfChannels][kBfFftLen], float presence) {
  const int32_t phase = lb->hop_phase;
  lb->hop_phase = (phase + 1) & 3;
  const bool noise = presence < kNoiseBelow && phase == 0;
  const bool talker = presence > kTalkerAbove && phase == 0;
  if (!noise && !talker) return;
  OuterProducts now;
  OuterProductsOf(spectrum, &now);
  // A plain mean over the first hops, then an exponential one.
  if (noise) {
    lb->noise_hops = lb->noise_hops < kNoiseHops ? lb->noise_hops + 1 : kNoiseHops;
    FoldIn<kNoiseBandBins, kNoiseBands>(now, 1.0f / static_cast<float>(lb->noise_hops), lb->noise);
  } else {
    lb->noisy_hops = lb->noisy_hops < kNoisyHops ? lb->noisy_hops + 1 : kNoisyHops;
    lb->fresh_talker = lb->fresh_talker < kNoisyHops ? lb->fresh_talker + 1 : kNoisyHops;
    FoldIn<kNoisyBandBins, kNoisyBands>(now, 1.0f / static_cast<float>(lb->noisy_hops), lb->noisy);
  }
}

void LearnedBeamForgetTalker(LearnedBeam* lb) {
  for (auto& band : lb->noisy)
    for (float& e : band) e = 0.0f;
  lb->noisy_hops = 0;
  lb->fresh_talker = 0;
}

bool LearnedBeamReady(const LearnedBeam* lb) {
  return lb->noise_hops >= kMinHops && lb->noisy_hops >= kMinHops;
}

bool LearnedBeamDesign(LearnedBeam* lb, float azimuth_deg, BeamWeights* weights) {
  lb->fresh_talker = 0;
  Matrix3 loaded[kNoiseBands], loaded_inv[kNoiseBands];
  for (int b = 0; b < kNoiseBands; ++b) {
    loaded[b] = Unpack(lb->noise, b);
    const double loading =
        kLoading * (loaded[b].a[0][0].real() + loaded[b].a[1][1].real() + loaded[b].a[2][2].real()) / 3.0 + 1e-9;
    for (int i = 0; i < 3; ++i) loaded[b].a[i][i] += loading;
    loaded_inv[b] = Inverse(loaded[b]);
  }
  Vector3 rtf[kNoisyBands], look[kNoisyBands];
  bool heard[kNoisyBands];
  LookSteering(azimuth_deg, look);
  const auto transfer = [&](int b) {
    const int nb = kNoisyBandBins * b / kNoiseBandBins;
    const Matrix3 rn = Unpack(lb->noise, nb);
    const Matrix3 rx = Unpack(lb->noisy, b);
    Matrix3 rs;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) rs.a[i][j] = rx.a[i][j] - rn.a[i][j];
    heard[b] = TalkerTransfer(loaded[nb], loaded_inv[nb], rs, look[b], &rtf[b]);
  };
  // The bands the look test reads first: the others are wanted only when
  // the talker is found in the look direction.
  const auto tested = [](int b) {
    return b >= kMatchFirstBand && (b - kMatchFirstBand) % kMatchBandStep == 0 &&
           (b - kMatchFirstBand) / kMatchBandStep < kMatchBins;
  };
  for (int b = 0; b < kNoisyBands; ++b)
    if (tested(b)) transfer(b);
  if (!TalkerInLook(rtf, heard, azimuth_deg)) {
    DesignBeam(BeamDesign{azimuth_deg, kBeamMvdr, kAllMics}, weights);
    return false;
  }
  for (int b = 0; b < kNoisyBands; ++b)
    if (!tested(b)) transfer(b);
  for (int b = 0; b < kNoisyBands; ++b) {
    const Vector3& h = rtf[b];
    const Vector3 g = Times(loaded_inv[kNoisyBandBins * b / kNoiseBandBins], h);
    const double den = Dot(h, g).real();
    const int first = kNoisyBandBins * b;
    const int last = b + 1 < kNoisyBands ? first + kNoisyBandBins : kHalf + 1;
    for (int k = first; k < last; ++k) {
      float delay_re, delay_im;
      CommonDelayFactor(k, &delay_re, &delay_im);
      const Complex delay(delay_re, delay_im);
      for (int m = 0; m < kBfChannels; ++m) {
        const Complex w = std::conj(g.v[m] / den) * delay;
        weights->re[m][k] = static_cast<float>(w.real());
        weights->im[m][k] = static_cast<float>(w.imag());
      }
    }
  }
  LimitTaps(weights);
  return true;
}

}  // namespace vorn
