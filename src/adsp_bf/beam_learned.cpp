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
constexpr float kLoading = 0.5f;      // diagonal loading of the noise, relative to its mean power
constexpr float kMinTalker = 0.1f;    // whitened talker-to-noise ratio a band needs
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

struct Vector3 {
  Complex v[3];
};

Complex Dot(const Vector3& x, const Vector3& y) {  // x^H y
  return std::conj(x.v[0]) * y.v[0] + std::conj(x.v[1]) * y.v[1] + std::conj(x.v[2]) * y.v[2];
}

double Norm2(const Vector3& x) { return std::norm(x.v[0]) + std::norm(x.v[1]) + std::norm(x.v[2]); }

// The design works on every talker band at once, each quantity an array
// over the bands, so that each step is one pass of the same arithmetic
// over contiguous floats (which the compiler turns into vector code).
constexpr int kBands = kNoisyBands;

// Hermitian 3 x 3 matrices, entry by entry as LearnedBeam keeps them.
struct HermitianBands {
  float e[kHermitian3][kBands];
};

// Complex 3-vectors.
struct VectorBands {
  float re[kBfChannels][kBands];
  float im[kBfChannels][kBands];
};

// y = a x, band by band.
void Times(const HermitianBands& a, const VectorBands& x, VectorBands* y) {
  const float* d0 = a.e[0];
  const float* d1 = a.e[1];
  const float* d2 = a.e[2];
  const float* p_re = a.e[3];  // entry (0, 1)
  const float* p_im = a.e[4];
  const float* q_re = a.e[5];  // entry (0, 2)
  const float* q_im = a.e[6];
  const float* r_re = a.e[7];  // entry (1, 2)
  const float* r_im = a.e[8];
  for (int b = 0; b < kBands; ++b) {
    const float x0r = x.re[0][b], x0i = x.im[0][b];
    const float x1r = x.re[1][b], x1i = x.im[1][b];
    const float x2r = x.re[2][b], x2i = x.im[2][b];
    y->re[0][b] = d0[b] * x0r + (p_re[b] * x1r - p_im[b] * x1i) + (q_re[b] * x2r - q_im[b] * x2i);
    y->im[0][b] = d0[b] * x0i + (p_re[b] * x1i + p_im[b] * x1r) + (q_re[b] * x2i + q_im[b] * x2r);
    y->re[1][b] = (p_re[b] * x0r + p_im[b] * x0i) + d1[b] * x1r + (r_re[b] * x2r - r_im[b] * x2i);
    y->im[1][b] = (p_re[b] * x0i - p_im[b] * x0r) + d1[b] * x1i + (r_re[b] * x2i + r_im[b] * x2r);
    y->re[2][b] = (q_re[b] * x0r + q_im[b] * x0i) + (r_re[b] * x1r + r_im[b] * x1i) + d2[b] * x2r;
    y->im[2][b] = (q_re[b] * x0i - q_im[b] * x0r) + (r_re[b] * x1i - r_im[b] * x1r) + d2[b] * x2i;
  }
}

// Re(x^H y), band by band.
void RealDot(const VectorBands& x, const VectorBands& y, float* dot) {
  for (int b = 0; b < kBands; ++b)
    dot[b] = (x.re[0][b] * y.re[0][b] + x.im[0][b] * y.im[0][b]) +
             (x.re[1][b] * y.re[1][b] + x.im[1][b] * y.im[1][b]) +
             (x.re[2][b] * y.re[2][b] + x.im[2][b] * y.im[2][b]);
}

// Inverse by cofactors; a loaded covariance is well conditioned. With a
// = (d0, d1, d2 on the diagonal; p, q, r at (0,1), (0,2), (1,2)) the
// adjugate is Hermitian too and the determinant real.
void Inverse(const HermitianBands& a, HermitianBands* inv) {
  for (int b = 0; b < kBands; ++b) {
    const float d0 = a.e[0][b], d1 = a.e[1][b], d2 = a.e[2][b];
    const float pr = a.e[3][b], pi = a.e[4][b], qr = a.e[5][b], qi = a.e[6][b], rr = a.e[7][b], ri = a.e[8][b];
    const float pp = pr * pr + pi * pi, qq = qr * qr + qi * qi, rr2 = rr * rr + ri * ri;
    const float c00 = d1 * d2 - rr2, c11 = d0 * d2 - qq, c22 = d0 * d1 - pp;
    // p r q*, real part.
    const float prq = (pr * rr - pi * ri) * qr + (pr * ri + pi * rr) * qi;
    const float det = d0 * c00 - d1 * qq - d2 * pp + 2.0f * prq;
    const float inv_det = 1.0f / det;
    inv->e[0][b] = c00 * inv_det;
    inv->e[1][b] = c11 * inv_det;
    inv->e[2][b] = c22 * inv_det;
    // (0,1): q r* - p d2; (0,2): p r - d1 q; (1,2): p* q - d0 r.
    inv->e[3][b] = ((qr * rr + qi * ri) - pr * d2) * inv_det;
    inv->e[4][b] = ((qi * rr - qr * ri) - pi * d2) * inv_det;
    inv->e[5][b] = ((pr * rr - pi * ri) - d1 * qr) * inv_det;
    inv->e[6][b] = ((pr * ri + pi * rr) - d1 * qi) * inv_det;
    inv->e[7][b] = ((pr * qr + pi * qi) - d0 * rr) * inv_det;
    inv->e[8][b] = ((pr * qi - pi * qr) - d0 * ri) * inv_det;
  }
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

// Folds one hop's outer product x x^H into running means over bands of
// kWidth bins (the last band the Nyquist bin alone), r += a (band mean - r),
// entry by entry in the order LearnedBeam keeps them: three powers, then the
// real and imaginary parts of the pairs (0,1), (0,2), (1,2). Each entry is
// formed bin by bin into one row, a pass over contiguous memory, and folded
// at once, so the row stays in the nearest cache.
template <int kWidth, int kCount>
void FoldIn(float spectrum[kBfChannels][kBfFftLen], float a, float (*r)[kCount]) {
  static_assert(kCount == kHalf / kWidth + 1);
  constexpr float kPerBin = 1.0f / kWidth;
  static constexpr int kPairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
  // The packed spectrum's first half holds the real parts bin by bin as it
  // stands; the imaginary parts are turned round (0 at DC and Nyquist).
  float im[kBfChannels][kBfNumBins];
  for (int m = 0; m < kBfChannels; ++m) {
    const float* x = spectrum[m];
    im[m][0] = 0.0f;
    im[m][kHalf] = 0.0f;
    for (int k = 1; k < kHalf; ++k) im[m][k] = x[kBfFftLen - k];
  }
  float row[kBfNumBins];
  for (int e = 0; e < kHermitian3; ++e) {
    if (e < kBfChannels) {
      const float* re = spectrum[e];
      for (int k = 0; k < kBfNumBins; ++k) row[k] = re[k] * re[k] + im[e][k] * im[e][k];
    } else {
      const int q = (e - kBfChannels) / 2;
      const float* re_i = spectrum[kPairs[q][0]];
      const float* im_i = im[kPairs[q][0]];
      const float* re_j = spectrum[kPairs[q][1]];
      const float* im_j = im[kPairs[q][1]];
      if ((e - kBfChannels) % 2 == 0) {
        for (int k = 0; k < kBfNumBins; ++k) row[k] = re_i[k] * re_j[k] + im_i[k] * im_j[k];
      } else {
        for (int k = 0; k < kBfNumBins; ++k) row[k] = im_i[k] * re_j[k] - re_i[k] * im_j[k];
      }
    }
    float* mean = r[e];
    for (int b = 0; b + 1 < kCount; ++b) {
      float sum = 0.0f;
      for (int j = 0; j < kWidth; ++j) sum += row[kWidth * b + j];
      mean[b] += a * (kPerBin * sum - mean[b]);
    }
    mean[kCount - 1] += a * (row[kHalf] - mean[kCount - 1]);
  }
}

// The talker's relative transfer function, band by band, into rtf, and
// whether the talker left a trace above the noise there (heard); where not,
// rtf holds the free-field steering d.
void TalkerTransfer(const HermitianBands& loaded, const HermitianBands& loaded_inv, const HermitianBands& rs,
                    const VectorBands& d, VectorBands* rtf, bool heard[kBands]) {
  VectorBands v, t;
  Times(loaded_inv, d, &v);
  for (int step = 0; step < kPowerSteps; ++step) {
    Times(rs, v, &t);
    Times(loaded_inv, t, &v);
    // Only v's direction matters: the sum of its parts' magnitudes keeps it
    // in range. A v that has vanished stays 0 and is not heard; divisions
    // are kept safe in every band so that the loop runs on whole vectors.
    for (int b = 0; b < kBands; ++b) {
      const float size = (std::fabs(v.re[0][b]) + std::fabs(v.im[0][b])) +
                         (std::fabs(v.re[1][b]) + std::fabs(v.im[1][b])) +
                         (std::fabs(v.re[2][b]) + std::fabs(v.im[2][b]));
      const float safe = size > 0.0f ? size : 1.0f;
      const float scale = size > 0.0f ? 1.0f / safe : 0.0f;
      for (int m = 0; m < kBfChannels; ++m) {
        v.re[m][b] *= scale;
        v.im[m][b] *= scale;
      }
    }
  }
  float talker[kBands], noise[kBands];
  Times(rs, v, &t);
  RealDot(v, t, talker);
  VectorBands& h = t;
  Times(loaded, v, &h);
  RealDot(v, h, noise);
  for (int b = 0; b < kBands; ++b) {
    const float h0r = h.re[0][b], h0i = h.im[0][b];
    const float h0 = h0r * h0r + h0i * h0i;
    const float all = h0 + (h.re[1][b] * h.re[1][b] + h.im[1][b] * h.im[1][b]) +
                      (h.re[2][b] * h.re[2][b] + h.im[2][b] * h.im[2][b]);
    heard[b] = talker[b] > kMinTalker * noise[b] && h0 > 1e-12f * all;
    // h / h_0 = h conj(h_0) / |h_0|^2.
    const float to_unit = 1.0f / (heard[b] ? h0 : 1.0f);
    for (int m = 0; m < kBfChannels; ++m) {
      const float re = (h.re[m][b] * h0r + h.im[m][b] * h0i) * to_unit;
      const float im = (h.im[m][b] * h0r - h.re[m][b] * h0i) * to_unit;
      rtf->re[m][b] = heard[b] ? re : d.re[m][b];
      rtf->im[m][b] = heard[b] ? im : d.im[m][b];
    }
  }
}

Vector3 At(const VectorBands& x, int b) {
  return Vector3{{Complex(x.re[0][b], x.im[0][b]), Complex(x.re[1][b], x.im[1][b]), Complex(x.re[2][b], x.im[2][b])}};
}

double Match(const Vector3& h, const Vector3& d) { return std::norm(Dot(d, h)) / (Norm2(h) * Norm2(d)); }

constexpr int kMatchBins = (kMatchToBin - kMatchFromBin) / kMatchStepBins + 1;
constexpr int kMatchFirstBand = kMatchFromBin / kNoisyBandBins;
constexpr int kMatchBandStep = kMatchStepBins / kNoisyBandBins;

// Over the bands where the talker was heard.
double MatchOver1To4kHz(const VectorBands& rtf, const bool heard[kNoisyBands], float azimuth_deg) {
  Vector3 d[kMatchBins];
  Steering(azimuth_deg, BandCentre(kMatchFirstBand), kMatchStepBins, kMatchBins, d);
  double sum = 0.0;
  for (int i = 0; i < kMatchBins; ++i) {
    const int b = kMatchFirstBand + i * kMatchBandStep;
    if (heard[b]) sum += Match(At(rtf, b), d[i]);
  }
  return sum;
}

// Bands where the talker was not heard hold the look direction's own
// steering and would vote for it; they do not count, and a talker heard in
// fewer than half of the bands is not taken as found.
bool TalkerInLook(const VectorBands& rtf, const bool heard[kNoisyBands], float azimuth_deg) {
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
  // A plain mean over the first hops, then an exponential one.
  if (noise) {
    lb->noise_hops = lb->noise_hops < kNoiseHops ? lb->noise_hops + 1 : kNoiseHops;
    FoldIn<kNoiseBandBins, kNoiseBands>(spectrum, 1.0f / static_cast<float>(lb->noise_hops), lb->noise);
  } else {
    lb->noisy_hops = lb->noisy_hops < kNoisyHops ? lb->noisy_hops + 1 : kNoisyHops;
    lb->fresh_talker = lb->fresh_talker < kNoisyHops ? lb->fresh_talker + 1 : kNoisyHops;
    FoldIn<kNoisyBandBins, kNoisyBands>(spectrum, 1.0f / static_cast<float>(lb->noisy_hops), lb->noisy);
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
  // Each talker band with its noise band, both scaled by the noise's mean
  // power there: neither the talker's transfer function nor the weights
  // change with a common scale, and the determinants stay far inside float
  // range however loud the room.
  float scale[kNoiseBands], loading[kNoiseBands];
  for (int nb = 0; nb < kNoiseBands; ++nb) {
    const float mean = (lb->noise[0][nb] + lb->noise[1][nb] + lb->noise[2][nb]) / 3.0f;
    scale[nb] = mean > 1e-20f ? 1.0f / mean : 1.0f;
    loading[nb] = (kLoading * mean + 1e-9f) * scale[nb];
  }
  HermitianBands loaded, loaded_inv, rs;
  for (int e = 0; e < kHermitian3; ++e) {
    for (int b = 0; b < kBands; ++b) {
      const int nb = kNoisyBandBins * b / kNoiseBandBins;
      loaded.e[e][b] = lb->noise[e][nb] * scale[nb];
      rs.e[e][b] = lb->noisy[e][b] * scale[nb] - loaded.e[e][b];
    }
  }
  for (int m = 0; m < kBfChannels; ++m)
    for (int b = 0; b < kBands; ++b) loaded.e[m][b] += loading[kNoisyBandBins * b / kNoiseBandBins];
  Inverse(loaded, &loaded_inv);
  VectorBands look, rtf;
  {
    Vector3 steering[kBands];
    LookSteering(azimuth_deg, steering);
    for (int b = 0; b < kBands; ++b) {
      for (int m = 0; m < kBfChannels; ++m) {
        look.re[m][b] = static_cast<float>(steering[b].v[m].real());
        look.im[m][b] = static_cast<float>(steering[b].v[m].imag());
      }
    }
  }
  bool heard[kBands];
  TalkerTransfer(loaded, loaded_inv, rs, look, &rtf, heard);
  if (!TalkerInLook(rtf, heard, azimuth_deg)) return false;
  // w = conj(Rn^-1 h / (h^H Rn^-1 h)) times the common delay, which is
  // (-j)^k: exact, so the product is too.
  VectorBands g;
  Times(loaded_inv, rtf, &g);
  float den[kBands];
  RealDot(rtf, g, den);
  for (int b = 0; b < kBands; ++b) {
    const float inv_den = 1.0f / den[b];
    const int first = kNoisyBandBins * b;
    const int last = b + 1 < kBands ? first + kNoisyBandBins : kHalf + 1;
    for (int k = first; k < last; ++k) {
      float delay_re, delay_im;
      CommonDelayFactor(k, &delay_re, &delay_im);
      for (int m = 0; m < kBfChannels; ++m) {
        const float w_re = g.re[m][b] * inv_den, w_im = -g.im[m][b] * inv_den;
        weights->re[m][k] = w_re * delay_re - w_im * delay_im;
        weights->im[m][k] = w_re * delay_im + w_im * delay_re;
      }
    }
  }
  LimitTaps(weights);
  return true;
}

}  // namespace vorn
