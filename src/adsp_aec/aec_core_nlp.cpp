// Residual echo suppression after the linear filters.
//
// Per block the near end, the main filter's error and the far end (taken at
// the partition where the filter holds most energy, i.e. aligned with the
// echo) are windowed and transformed. Smoothed auto- and cross-spectra give
// two coherences: near/error (cohde, near 1 where the filter removed nothing,
// i.e. near-end speech or noise) and far/near (cohxd, high where the near end
// is echo). Gains follow from them, are pushed down harder where echo has been
// seen (an overdrive exponent tracked from the lowest gains), and the
// suppressed bins are refilled with comfort noise at the near-end noise floor.
// The outputs are synthesised by overlap-add of square-root-Hanning frames, so
// they lag the input by one block (64 samples); an output without suppression
// goes through the same synthesis and therefore has the same latency.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_rdft.h"

namespace vorn {

namespace {

// Compile-time versions of sqrt and sin for the constant curves.
constexpr double ConstSqrt(double x) {
  if (x <= 0.0) return 0.0;
  double r = x > 1.0 ? x : 1.0;
  for (int i = 0; i < 64; ++i) r = 0.5 * (r + x / r);
  return r;
}
constexpr double ConstSin(double x) {  // |x| <= pi/2 here
  double term = x;
  double sum = x;
  for (int n = 1; n < 20; ++n) {
    term *= -x * x / ((2.0 * n) * (2.0 * n + 1.0));
    sum += term;
  }
  return sum;
}
constexpr double Round4(double x) {
  return static_cast<double>(static_cast<long long>(x * 10000.0 + 0.5)) / 10000.0;
}
constexpr double kPi = 3.14159265358979323846;

constexpr std::array<float, kAecBins> MakeSqrtHanning() {
  std::array<float, kAecBins> t{};
  for (int k = 0; k < kAecBins; ++k) t[k] = static_cast<float>(ConstSin(kPi * k / 128.0));
  return t;
}
constexpr std::array<float, kAecBins> MakeOverDriveCurve() {
  std::array<float, kAecBins> t{};
  for (int k = 0; k < kAecBins; ++k) t[k] = static_cast<float>(Round4(1.0 + ConstSqrt(k / 64.0)));
  return t;
}
constexpr std::array<float, kAecBins> MakeWeightCurve() {
  std::array<float, kAecBins> t{};
  for (int k = 1; k < kAecBins; ++k)
    t[k] = static_cast<float>(Round4(0.1 + 0.3 * ConstSqrt((k - 1) / 63.0)));
  return t;
}

constexpr float kNormalSmoothingCoefficients[2][2] = {{0.9f, 0.1f}, {0.93f, 0.07f}};
constexpr float kExtendedSmoothingCoefficients[2][2] = {{0.9f, 0.1f}, {0.92f, 0.08f}};
constexpr float kNormalMinOverDrive[3] = {1.0f, 2.0f, 5.0f};
constexpr float kExtendedMinOverDrive[3] = {3.0f, 6.0f, 15.0f};
constexpr float kTargetSupp[3] = {-6.9f, -11.5f, -18.4f};
// A main filter whose error carries more than 13 dB above the near end has
// run away; it restarts from the stored echo path.
constexpr float kMainFilterResetRatio = 19.95f;

// The preferred band: 12 bins from 250 Hz (250..1750 Hz at 16 kHz,
// 250..1000 Hz at 8 kHz).
// Speech, and therefore its echo, carries most of its energy there; the
// decisions (echo seen, near-end talker, overdrive) are only as good as the
// share of the band that the echo actually reaches, and above 2 kHz room
// noise usually outweighs it.
constexpr int kPrefBandSize = 12;
int PrefBandStart(int mult) { return mult == 1 ? 4 : 2; }

float MinOverDrive(const AecCore* aec) {
  return aec->extended_filter_enabled ? kExtendedMinOverDrive[aec->nlp_mode]
                                      : kNormalMinOverDrive[aec->nlp_mode];
}

// Noise floor for the comfort noise: a minimum tracker on the smoothed power
// of the windowed error spectrum (the frames the noise goes into), allowed to
// rise by kNoiseRamp per block (about 0.5 dB/s). The error rather than the
// near end: the linear filter has already removed most of the echo, so the
// floor shows through even while the far end talks without pause. During
// the first blocks a faster-rising tracker (dInitMinPow) stands in, and the
// smoothed power starts from the first block's power instead of zero, which
// would otherwise pin the minimum far below the noise.
constexpr float kNoiseRamp = 1.0005f;
constexpr float kInitNoiseRamp = 1.005f;
constexpr int kInitNoiseBlocks = 50;
// The minimum of a power smoothed over ten blocks sits about 5 dB below its
// mean; this restores the mean.
constexpr float kComfortNoiseScale = 3.0f;

void UpdateNoiseEstimate(AecCore* aec, const float efw[2][kAecBins]) {
  for (int k = 0; k < kAecBins; ++k) {
    const float power = efw[0][k] * efw[0][k] + efw[1][k] * efw[1][k];
    if (aec->noiseEstCtr == 0) {
      aec->dPow[k] = power;
      aec->dMinPow[k] = power;
      aec->dInitMinPow[k] = power;
      continue;
    }
    aec->dPow[k] = 0.9f * aec->dPow[k] + 0.1f * power;
    const float ramped = aec->dMinPow[k] * kNoiseRamp;
    aec->dMinPow[k] = aec->dPow[k] < ramped ? aec->dPow[k] : ramped;
    const float init_ramped = aec->dInitMinPow[k] * kInitNoiseRamp;
    aec->dInitMinPow[k] = aec->dPow[k] < init_ramped ? aec->dPow[k] : init_ramped;
  }
  if (aec->noiseEstCtr < kInitNoiseBlocks) {
    aec->noiseEstCtr += 1;
    aec->noise_pow_settled = 0;
  } else {
    aec->noise_pow_settled = 1;
  }
}

// Below this mean square (-70 dBFS) over the filter's span the far end is
// silent.
constexpr float kFarSilentPower = 100.0f;

float FarSpanDivisor(const AecCore* aec) {
  return static_cast<float>(aec->num_partitions * kAecBlockLen * kAecBlockLen2);
}

float BlockMeanSquare(const float* x) {
  float sum = 0.0f;
  for (int i = 0; i < kAecBlockLen; ++i) sum += x[i] * x[i];
  return sum / kAecBlockLen;
}


// Inverse transform of a (conjugated) spectrum, synthesis window and
// overlap-add with the tail kept in outBuf[which]; the 64 finished samples go
// to the output ring, the upper bands (delayed by the same block) with a
// single gain. Returns the mean square of the finished block.
float Synthesize(AecCore* aec, const float spectrum[2][kAecBins], int which, float upper_gain) {
  alignas(16) float fft[kAecBlockLen2];
  fft[0] = spectrum[0][0];
  fft[1] = spectrum[0][kAecBlockLen];
  // The suppression leaves the spectrum conjugated; undo it for the inverse.
  for (int k = 1; k < kAecBlockLen; ++k) {
    fft[2 * k] = spectrum[0][k];
    fft[2 * k + 1] = -spectrum[1][k];
  }
  aec_rdft_inverse_128(fft);
  const float scale = 2.0f / kAecBlockLen2;
  float out[kAecBlockLen];
  for (int i = 0; i < kAecBlockLen; ++i) {
    const float head = fft[i] * scale * AdspAec_sqrtHanning[i];
    const float tail = fft[kAecBlockLen + i] * scale * AdspAec_sqrtHanning[kAecBlockLen - i];
    out[i] = std::clamp(head + aec->outBuf[which][i], -32768.0f, 32767.0f);
    aec->outBuf[which][i] = tail;
  }
  Adsp_WriteBuffer(&aec->outFrBuf[which], out, kAecBlockLen);
  for (int b = 0; b < aec->num_bands - 1 && b < kMaxUpperBands; ++b) {
    float band[kAecBlockLen];
    for (int i = 0; i < kAecBlockLen; ++i)
      band[i] = std::clamp(aec->dBufH[b][i] * upper_gain, -32768.0f, 32767.0f);
    Adsp_WriteBuffer(&aec->outFrBufH[which][b], band, kAecBlockLen);
  }
  return BlockMeanSquare(out);
}

// The upper bands have no linear filter; they follow the suppression of the
// top quarter of the lowest band, where the gains are closest to theirs.
float UpperBandGain(const float* hNl) {
  float sum = 0.0f;
  for (int k = 48; k < kAecBlockLen; ++k) sum += hNl[k];
  return sum / 16.0f;
}

// Partition of the main filter with the most energy: where the echo sits.
int StrongestPartition(const AecCore* aec) {
  float best = 0.0f;
  int index = 0;
  for (int p = 0; p < aec->num_partitions; ++p) {
    float energy = 0.0f;
    const int pos = p * kAecBins;
    for (int k = 0; k < kAecBins; ++k) {
      energy += aec->wfBuf_main[0][pos + k] * aec->wfBuf_main[0][pos + k] +
                aec->wfBuf_main[1][pos + k] * aec->wfBuf_main[1][pos + k];
    }
    if (energy > best) {
      best = energy;
      index = p;
    }
  }
  return index;
}

}  // namespace

constexpr std::array<float, kAecBins> AdspAec_sqrtHanning = MakeSqrtHanning();
constexpr std::array<float, kAecBins> AdspAec_overDriveCurve = MakeOverDriveCurve();
constexpr std::array<float, kAecBins> AdspAec_weightCurve = MakeWeightCurve();
static_assert(AdspAec_overDriveCurve[0] == 1.0f && AdspAec_overDriveCurve[64] == 2.0f);
static_assert(AdspAec_overDriveCurve[1] == 1.125f);
static_assert(AdspAec_weightCurve[0] == 0.0f && AdspAec_weightCurve[1] == 0.1f);
static_assert(AdspAec_weightCurve[64] == 0.4f);

void AdspAec_WindowAndTransform(const float* block, float* fft, float spectrum[2][kAecBins]) {
  for (int i = 0; i < kAecBlockLen; ++i) {
    fft[i] = block[i] * AdspAec_sqrtHanning[i];
    fft[kAecBlockLen + i] = block[kAecBlockLen + i] * AdspAec_sqrtHanning[kAecBlockLen - i];
  }
  aec_rdft_forward_128(fft);
  aec_rdft_unpack_128(fft, spectrum);
}

void SubbandCoherence(AecCore* aec, float efw[2][kAecBins], float xfw[2][kAecBins], float* fft,
                      float* cohde, float* cohxd, float* cohxe, float* Rbb, int PostFilterflag) {
  float dfw[2][kAecBins];
  float cfw[2][kAecBins];
  AdspAec_WindowAndTransform(aec->dBuf, fft, dfw);
  AdspAec_WindowAndTransform(aec->eBuf, fft, efw);
  if (PostFilterflag == 1) AdspAec_WindowAndTransform(aec->cBuf, fft, cfw);

  const float* g = aec->extended_filter_enabled ? kExtendedSmoothingCoefficients[aec->mult - 1]
                                                : kNormalSmoothingCoefficients[aec->mult - 1];
  SmoothSpectra(aec, {dfw, efw, xfw, PostFilterflag == 1 ? cfw : nullptr}, g);
  float sd_sum = 0.0f;
  float se_sum = 0.0f;
  for (int k = 0; k < kAecBins; ++k) {
    const float weight = k == kAecBlockLen ? 0.5f : 1.0f;
    sd_sum += weight * aec->sd[k];
    se_sum += weight * aec->se[k];
  }

  const float hysteresis = aec->divergeState ? 1.05f : 1.0f;
  aec->divergeState = hysteresis * se_sum > sd_sum ? 1 : 0;
  if (aec->divergeState) std::memcpy(efw, dfw, sizeof(dfw));
  if (!aec->extended_filter_enabled && se_sum > kMainFilterResetRatio * sd_sum)
    std::memcpy(aec->wfBuf_main, aec->wfBuf_ini, sizeof(aec->wfBuf_main));

  // A coherence cannot exceed 1, but for two nearly identical signals the
  // rounding of the smoothed sums can put it a hair above; 1 - coherence must
  // not go negative, since the gains are raised to fractional powers.
  Coherence(aec->sde, aec->sd, aec->se, cohde);
  Coherence(aec->sxd, aec->sx, aec->sd, cohxd);
  // Post-filter variant: the far/error coherence, and from it the part of the
  // error power that is still echo.
  if (PostFilterflag == 1) {
    Coherence(aec->sxe, aec->sx, aec->se, cohxe);
    for (int k = 0; k < kAecBins; ++k) Rbb[k] = cohxe[k] * aec->se[k];
  }
  if (aec->subcohXd != nullptr) {
    for (int k = 0; k < kAecBins; ++k) {
      aec->subcohXd[k] = cohxd[k];
      aec->subcohXd[kAecBins + k] = cohde[k];
    }
  }
}

void SelectSuppressionGains(AecCore* aec, const float* cohde, const float* cohxd, float* hNl,
                            float* hNlFb) {
  const int start = PrefBandStart(aec->mult);
  float d_avg = 0.0f;
  float x_avg = 0.0f;
  for (int k = start; k < start + kPrefBandSize; ++k) {
    d_avg += cohde[k];
    x_avg += cohxd[k];
  }
  d_avg /= kPrefBandSize;
  x_avg /= kPrefBandSize;
  aec->hNlXdAvg = x_avg;
  const float echo_free = 1.0f - x_avg;

  if (echo_free < 0.75f && echo_free < aec->hNlXdAvgMin) aec->hNlXdAvgMin = echo_free;

  if (d_avg > 0.98f && echo_free > 0.9f) {
    aec->stNearState = 1;
  } else if (aec->NlpPf == 3) {
    aec->stNearState = (d_avg < 0.3f && echo_free < 0.3f) ? -1 : 0;
  } else if (d_avg < 0.95f && echo_free < 0.8f) {
    aec->stNearState = 0;
  }
  const bool blend = aec->NlpPf == 3 && aec->stNearState != -1;

  float fb = 0.0f;
  float fb_low = 0.0f;
  if (aec->hNlXdAvgMin == 1.0f) {
    aec->echoState = 0;
    aec->overDrive = MinOverDrive(aec);
    if (aec->stNearState == 1) {
      std::memcpy(hNl, cohde, sizeof(float) * kAecBins);
      fb = fb_low = d_avg;
    } else {
      for (int k = 0; k < kAecBins; ++k)
        hNl[k] = blend ? 0.7f * (1.0f - cohxd[k]) + 0.3f * cohde[k] : 1.0f - cohxd[k];
      // With blended gains the feedback is blended the same way, so that the
      // feedback stays a typical gain of the band it summarises.
      fb = fb_low = blend ? 0.7f * echo_free + 0.3f * d_avg : echo_free;
    }
  } else if (aec->stNearState == 1) {
    aec->echoState = 0;
    std::memcpy(hNl, cohde, sizeof(float) * kAecBins);
    fb = fb_low = d_avg;
  } else {
    aec->echoState = 1;
    for (int k = 0; k < kAecBins; ++k) {
      hNl[k] = blend ? 0.7f * (1.0f - cohxd[k]) + 0.3f * cohde[k]
                     : std::min(cohde[k], 1.0f - cohxd[k]);
    }
    float band[kPrefBandSize];
    std::memcpy(band, hNl + start, sizeof(band));
    std::sort(band, band + kPrefBandSize);
    fb = band[static_cast<int>(std::floor(0.75 * (kPrefBandSize - 1)))];
    fb_low = band[static_cast<int>(std::floor(0.5 * (kPrefBandSize - 1)))];
  }

  if (fb_low < 0.6f && fb_low < aec->hNlFbLocalMin) {
    aec->hNlFbMin = fb_low;
    aec->hNlFbLocalMin = fb_low;
    aec->hNlNewMin = 1;
    aec->hNlMinCtr = 0;
  }
  aec->hNlFbLocalMin = std::min(aec->hNlFbLocalMin + 0.0008f / aec->mult, 1.0f);
  aec->hNlXdAvgMin = std::min(aec->hNlXdAvgMin + 0.0006f / aec->mult, 1.0f);
  if (aec->hNlNewMin == 1) aec->hNlMinCtr += 1;
  if (aec->hNlMinCtr == 2) {
    aec->hNlNewMin = 0;
    aec->hNlMinCtr = 0;
    aec->overDrive = std::max(kTargetSupp[aec->nlp_mode] /
                                  (static_cast<float>(std::log(aec->hNlFbMin + 1e-10f)) + 1e-10f),
                              MinOverDrive(aec));
  }
  *hNlFb = fb;
}

// More suppression is applied at once (a few blocks), less only slowly (about
// half a second): residual echo that leaks for even a few blocks is audible,
// while holding the suppression a little too long costs little. The exponent
// is held below kOverDriveCeiling times the mode's minimum: when the lowest
// gains seen are only moderately low (0.5 gives an overdrive above 16), a
// larger exponent buys next to nothing on the echo bins, which are already
// near zero, but crushes every bin whose gain is not exactly 1 - the near-end
// talker in double talk and the background noise.
constexpr float kOverDriveCeiling = 2.5f;

void SmoothOverdrive(AecCore* aec) {
  const float rate = aec->overDrive > aec->overDriveSm ? 0.1f : 0.01f;
  aec->overDriveSm = (1.0f - rate) * aec->overDriveSm + rate * aec->overDrive;
  const float ceiling = kOverDriveCeiling * MinOverDrive(aec);
  if (aec->overDriveSm > ceiling) aec->overDriveSm = ceiling;
}

// The synthesis takes the spectrum conjugated.
void Conjugate(const float in[2][kAecBins], float out[2][kAecBins]) {
  for (int k = 0; k < kAecBins; ++k) {
    out[0][k] = in[0][k];
    out[1][k] = -in[1][k];
  }
}

// Without suppression the gains are left as they are: no caller reads them
// then (the comfort noise is only added to a suppressed block).
void OverdriveAndSuppress(AecCore* aec, float* hNl, const float hNlFb, float efw[2][kAecBins],
                          int EnableFlag) {
  if (EnableFlag != 1) {
    Conjugate(efw, efw);
    return;
  }
  for (int k = 0; k < kAecBins; ++k) {
    if (hNl[k] > hNlFb) {
      hNl[k] = AdspAec_weightCurve[k] * hNlFb + (1.0f - AdspAec_weightCurve[k]) * hNl[k];
    }
    hNl[k] = std::pow(hNl[k], aec->overDriveSm * AdspAec_overDriveCurve[k]);
    efw[0][k] *= hNl[k];
    efw[1][k] = -(efw[1][k] * hNl[k]);
  }
}

void ProcessNlpBlock(AecCore* aec, float far_mean_square) {
  alignas(16) float fft[kAecBlockLen2];
  float efw[2][kAecBins];
  float xfw[2][kAecBins];
  float cohde[kAecBins], cohxd[kAecBins], cohxe[kAecBins], Rbb[kAecBins];
  float hNl[kAecBins];
  float hNlFb = 1.0f;

  aec->delayIdx = StrongestPartition(aec);
  int q = aec->xfBufBlockPos + aec->delayIdx;
  if (q >= aec->num_partitions) q -= aec->num_partitions;
  for (int k = 0; k < kAecBins; ++k) {
    xfw[0][k] = aec->xfwBuf[q * kAecBins + k][0];
    xfw[1][k] = aec->xfwBuf[q * kAecBins + k][1];
  }

  const int post_filter = aec->NlpPf == 3 ? 1 : 0;
  SubbandCoherence(aec, efw, xfw, fft, cohde, cohxd, cohxe, Rbb, post_filter);
  UpdateNoiseEstimate(aec, efw);
  SelectSuppressionGains(aec, cohde, cohxd, hNl, &hNlFb);
  SmoothOverdrive(aec);

  // Which output carries what:
  //  - both wanted (the front end's VAD listens to the communication output):
  //    the ASR output is the linear canceller output, free of the spectral
  //    gain modulation that recognisers are not trained on; the communication
  //    output is suppressed and filled with comfort noise for a listener;
  //  - ASR alone: suppressed, without comfort noise (the downstream noise
  //    suppressor and VAD see the near end, not invented noise);
  //  - communication alone: suppressed and filled with comfort noise.
  complex_t comfort_noise_hband[kAecBins];
  float comfort_pow[kAecBins];
  const float* noise_pow = aec->noise_pow_settled ? aec->dMinPow : aec->dInitMinPow;
  for (int k = 0; k < kAecBins; ++k) comfort_pow[k] = kComfortNoiseScale * noise_pow[k];
  const float linout_ms = BlockMeanSquare(aec->eBuf);
  float nlpout_ms = linout_ms;
  // Echo needs a far end: when the loudspeaker has been silent for the whole
  // span of the filter, nothing in this block can be echo, and suppressing it
  // would only cut into near-end speech and noise.
  const int suppress = FarSpanAbove(aec->xfBuf[0], aec->xfBuf[1], aec->num_partitions * kAecBins,
                                    FarSpanDivisor(aec), kFarSilentPower)
                           ? 1
                           : 0;
  const float upper_gain = suppress ? UpperBandGain(hNl) : 1.0f;
  if (aec->NlpPf == 3) {
    // The linear output takes no gains.
    float linear[2][kAecBins];
    Conjugate(efw, linear);
    Synthesize(aec, linear, 0, 1.0f);
    OverdriveAndSuppress(aec, hNl, hNlFb, efw, suppress);
    if (suppress) ComfortNoise(aec, efw, comfort_noise_hband, comfort_pow, hNl);
    nlpout_ms = Synthesize(aec, efw, 1, upper_gain);
  } else if (aec->NlpPf & 1) {
    OverdriveAndSuppress(aec, hNl, hNlFb, efw, suppress);
    nlpout_ms = Synthesize(aec, efw, 0, upper_gain);
  } else if (aec->NlpPf & 2) {
    OverdriveAndSuppress(aec, hNl, hNlFb, efw, suppress);
    if (suppress) ComfortNoise(aec, efw, comfort_noise_hband, comfort_pow, hNl);
    nlpout_ms = Synthesize(aec, efw, 1, upper_gain);
  } else {
    OverdriveAndSuppress(aec, hNl, hNlFb, efw, 0);
  }

  if (aec->metricsMode == 1)
    UpdateMetrics(aec, far_mean_square, BlockMeanSquare(aec->dBuf), linout_ms, nlpout_ms);
}

}  // namespace vorn
