// Residual echo suppression that tells echo from the near talker.
//
// The linear filters leave echo behind: their misadjustment, the room's tail
// beyond their 48 ms and whatever the loudspeaker adds that no linear filter
// follows. Its linear part is estimated per bin as the larger of two terms:
//   - the filters' own echo estimate Y = D - E, with the room's decay behind
//     it, times a leak factor: how much of that echo the error still holds;
//   - the far end aligned with the echo, with the same decay, times its own
//     leak, which catches what the filters do not model at all (before they
//     converge, after the echo path or the lead changes).
// Both leaks are least-squares fits of the error's power to those tails over
// blocks of echo alone, with a short memory, shorter still while the error
// is plainly echo (coherent with the far end or the estimate).
// A loudspeaker driven into distortion adds a third part: products of the
// loud far end that land in bins where the far end itself is quiet, so that
// neither tail of the bin predicts them (with a clipping loudspeaker on the
// bench the error stood up to 28 dB above the linear part there). Their
// power follows how hard the loudspeaker is driven, the far end's
// whole-band tail; per bin it is the slope of the error the two linear
// terms leave unexplained against that tail, fitted over echo alone with a
// longer memory. It is taken about the tail's running mean rather than as a
// ratio through zero: the products appear only once the loudspeaker is
// driven hard and then rise faster than the drive, which a ratio averages
// away (on the bench it left about 2 dB more).
//
// Whether a near talker speaks beside the echo is decided per block (see
// NearTalks). With echo alone the residual estimate is taken sixteen times
// over: removing too much then costs nothing, since the comfort noise
// refills it, while echo let through is what the listener hears. Beside a
// talker it is taken at half: the talker masks the residue it leaves, and
// the estimate, which holds the room's tail at its peak, is generous there
// (taken as it is, it cost the talker about 0.25 dB in double talk on the
// bench).
//
// The gain per bin is a Wiener gain on the error-to-residual ratio with
// decision-directed smoothing against musical noise. What the gain removes
// is filled with random-phase noise at the error's noise floor, so the
// output floor stays put whether the echo comes or goes and the suppressor
// downstream sees steady noise. A block whose error is clearly louder than
// the microphone (filters upset by a reference that changed) takes the
// microphone instead.
//
// Frames are 128 samples with a square-root Hann window at a hop of 64, as
// the classic suppression: the output lags the input by one block.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "adsp_aec/aec_enhanced.h"
#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/randomization_functions.h"
#include "common/constexpr_trig.h"

namespace vorn {
namespace {

using Spectrum = float[2][kAecBins];

constexpr float kTiny = 1e-10f;
// Mean square of a block from the half spectrum of its windowed frame
// (Parseval; the square-root Hann window's squares sum to 64).
constexpr float kSpectrumToMeanSquare = 1.0f / 4096.0f;
constexpr int kSpeechBinFirst = 4;  // 500 Hz
constexpr int kSpeechBinLast = 48;  // 6 kHz, exclusive

// Smoothing, per 4 ms block.
constexpr float kTailDecay = 0.85f;      // the room's decay behind an echo: about 0.7 dB per block
constexpr float kCoherenceKeep = 0.9f;   // coherence spectra, about 40 ms
constexpr float kErrorKeep = 0.5f;       // error power for the decisions
constexpr float kLevelKeep = 0.975f;     // levels over about 150 ms: level, not timing
constexpr float kErleKeep = 0.95f;
constexpr float kEchoOnlyErleKeep = 0.98f;

// Noise floor: minimum statistics with a slowly rising tracker below it.
constexpr float kNoiseKeep = 0.9f;
constexpr float kNoiseRise = 1.002f;  // the floor may rise about 2 dB/s
constexpr float kFloorCap = 4.0f;     // but stays within 6 dB of its 1.6 s minimum
constexpr float kMinFloor = 1.0f;     // per bin: digital silence still has a floor
constexpr float kNoiseBias = 2.0f;    // mean over minimum of the smoothed power

// Residual estimate.
constexpr float kStartLeak = 1.0f;           // the echo path is unknown: assume the worst
constexpr float kLeakKeep = 0.95f;           // leak fit memory, about 80 ms of echo
constexpr float kLeakKeepCoherent = 0.8f;    // while the error is plainly echo
constexpr float kDistortionKeep = 0.99f;     // distortion fit memory, about 400 ms of echo
constexpr float kFarWeight = 0.3f;           // the far end's share beside the estimate's
constexpr float kDivergedRatio = 2.0f;       // error over microphone power that marks upset filters

// Double talk (see NearTalks).
constexpr float kDtdResidual = 1.5f;     // residual margin before the error counts as excess
constexpr float kNearExcess = 1.0f;      // excess over residual and floor that suggests a talker
constexpr float kStrongExcess = 2.5f;    // excess no misfit of the filters produces
constexpr float kEchoCoherent = 0.45f;   // error coherence above which the error is echo
constexpr float kIncoherent = 0.3f;      // below which it is surely not
constexpr float kLevelMargin = 1.4f;     // microphone above the far end's echo level: 1.5 dB
constexpr int kEchoGainWarmup = 100;     // far-end blocks learnt from at the start
constexpr float kEchoGainWarmupRate = 0.05f;
constexpr float kEchoGainRate = 0.01f;
constexpr float kEchoGainDrift = 0.0005f;

// Gains.
constexpr float kOverEstimate = 16.0f;   // echo alone
constexpr float kOverEstimateNear = 0.5f;
constexpr float kPriorKeep = 0.5f;       // decision-directed smoothing

// Far end silent: below -70 dBFS over the filters' span, or within 6 dB of
// its own floor (a reference that carries hiss).
constexpr float kFarSilentMeanSquare = 10.0f;
constexpr float kFarFloorRise = 1.002f;

// Comfort-noise phases: the uniform draws (0..32767) on 1024 steps of a
// turn. Random phase needs no finer steps than that, and a table lookup
// costs a fraction of a sine and cosine per bin.
constexpr int kPhaseSteps = 1024;
constexpr int kPhaseShift = 5;  // 32768 draws / 1024 steps
struct PhaseTable {
  float cos[kPhaseSteps];
  float sin[kPhaseSteps];
};
constexpr PhaseTable MakePhaseTable() {
  PhaseTable t{};
  for (int i = 0; i < kPhaseSteps; ++i) {
    t.cos[i] = static_cast<float>(ct::CosTurn(i, kPhaseSteps));
    t.sin[i] = static_cast<float>(ct::SinTurn(i, kPhaseSteps));
  }
  return t;
}
constexpr PhaseTable kPhase = MakePhaseTable();

void WindowAndTransform(const float* block, Spectrum& spectrum) {
  alignas(16) float fft[kAecBlockLen2];
  AdspAec_WindowAndTransform(block, fft, spectrum);
}

float Power(const Spectrum& s, int k) { return s[0][k] * s[0][k] + s[1][k] * s[1][k]; }

void Smooth(float* value, float keep, float target) { *value = keep * *value + (1.0f - keep) * target; }

float Coherence(const float* cross, float a, float b) {
  return std::min(1.0f, (cross[0] * cross[0] + cross[1] * cross[1]) / (a * b + kTiny));
}

// Cross spectrum a * conj(b), smoothed.
void SmoothCross(float* cross, const Spectrum& a, const Spectrum& b, int k) {
  Smooth(&cross[0], kCoherenceKeep, a[0][k] * b[0][k] + a[1][k] * b[1][k]);
  Smooth(&cross[1], kCoherenceKeep, a[1][k] * b[0][k] - a[0][k] * b[1][k]);
}

// Least-squares fit of the residual power to the tail it follows, with
// forgetting: leak = sum(error * tail) / sum(tail * tail).
void FitLeak(float* num, float* den, float* leak, float error, float tail, float keep) {
  *num = keep * *num + error * tail;
  *den = keep * *den + tail * tail;
  if (*den > kTiny) *leak = *num / *den;
}

// The error's noise floor by minimum statistics: the lowest smoothed power
// over the last 1.6 s, kept as eight sub-window minima. Echo pauses between
// syllables, so the minimum finds the room's noise under it; a floor that
// could only creep upwards would follow an echo the filters have not yet
// learned (or a lead that just jumped) up to its own level.
void UpdateNoiseFloor(AecResidualState* res) {
  const bool first = res->blocks == 0;
  const bool window_done = (res->blocks + 1) % kResidualFloorWindowBlocks == 0;
  for (int k = 0; k < kAecBins; ++k) {
    const float power = std::max(res->noise_smooth[k], kMinFloor);
    if (first) {
      for (float& m : res->noise_minima[k]) m = power;
      res->noise_current[k] = power;
    }
    res->noise_current[k] = std::min(res->noise_current[k], power);
    float lowest = res->noise_current[k];
    for (float m : res->noise_minima[k]) lowest = std::min(lowest, m);
    const float rising = first ? power : std::min(power, res->noise_floor[k] * kNoiseRise);
    res->noise_floor[k] = std::min(rising, kFloorCap * lowest);
    if (window_done) {
      res->noise_minima[k][res->noise_slot] = res->noise_current[k];
      res->noise_current[k] = power;
    }
  }
  if (window_done) res->noise_slot = (res->noise_slot + 1) % kResidualFloorWindows;
}

// Bin k's distortion slope: the residual power the linear terms leave
// unexplained there per unit of the far end's whole-band tail.
float DistortionLeak(const AecResidualState* res, int k) {
  return res->distortion_den > kTiny ? std::max(res->distortion_num[k] / res->distortion_den, 0.0f) : 0.0f;
}

void Synthesize(AecResidualState* res, const Spectrum& spectrum, float* out) {
  alignas(16) float fft[kAecBlockLen2];
  aec_rdft_pack_128(spectrum, fft);
  aec_rdft_inverse_128(fft);
  const float scale = 2.0f / kAecBlockLen2;
  for (int i = 0; i < kAecBlockLen; ++i) {
    const float head = fft[i] * scale * AdspAec_sqrtHanning[i];
    const float tail = fft[kAecBlockLen + i] * scale * AdspAec_sqrtHanning[kAecBlockLen - i];
    out[i] = std::clamp(head + res->synth[i], -32768.0f, 32767.0f);
    res->synth[i] = tail;
  }
}

}  // namespace

void AecResidualInit(AecResidualState* res) {
  std::memset(res, 0, sizeof(*res));
  for (int k = 0; k < kAecBins; ++k) {
    res->leak[k] = kStartLeak;
    res->far_leak[k] = kStartLeak;
  }
  res->far_floor = kFarSilentMeanSquare;
  res->seed = 4711;
}

void AecResidualRestart(AecResidualState* res) {
  for (int k = 0; k < kAecBins; ++k) {
    res->leak[k] = kStartLeak;
    res->far_leak[k] = kStartLeak;
    res->leak_num[k] = res->leak_den[k] = 0.0f;
    res->far_leak_num[k] = res->far_leak_den[k] = 0.0f;
    res->distortion_num[k] = 0.0f;
  }
  res->distortion_den = res->drive_mean = 0.0f;
  res->linear_erle = 0.0f;
  res->echo_only_erle = 0.0f;
  res->echo_only_near = res->echo_only_error = 0.0f;
}

namespace {

// What the suppressor computes from one block before deciding anything.
struct BlockView {
  Spectrum d, e, x;             // near end, error, far end at the echo's partition (windowed)
  float pd[kAecBins], pe[kAecBins], py[kAecBins];
  float near_sum, far_sum, echo_sum;           // whole band
  float near_band, error_band, noise_band;     // speech band
  float linear[kAecBins];    // residual echo the linear terms explain
  float residual[kAecBins], noise[kAecBins];
  float drive;               // the far end's whole-band tail: what drives the loudspeaker's distortion
  bool far_active;
  float echo_coherence;  // speech band, weighted by the error: the error follows the far end or the estimate
};

void Analyse(AecResidualState* res, const AecCore* core, int echo_partition, float* coherence, BlockView* v) {
  WindowAndTransform(core->dBuf, v->d);
  WindowAndTransform(core->eBuf, v->e);
  const int q = (core->xfBufBlockPos + echo_partition) % core->num_partitions;
  for (int k = 0; k < kAecBins; ++k) {
    v->x[0][k] = core->xfwBuf[q * kAecBins + k][0];
    v->x[1][k] = core->xfwBuf[q * kAecBins + k][1];
  }
  v->near_sum = v->far_sum = v->echo_sum = 0.0f;
  float error_sum = 0.0f;
  for (int k = 0; k < kAecBins; ++k) {
    v->pd[k] = Power(v->d, k);
    v->near_sum += v->pd[k];
    v->far_sum += Power(v->x, k);
    error_sum += Power(v->e, k);
  }
  // Filters that make the block clearly louder than the microphone (a
  // reference that changed under them) are not used for it. Near speech
  // alone can make the error a little louder than the microphone, when the
  // small echo left happens to add to it; that is no reason.
  if (error_sum > kDivergedRatio * v->near_sum) std::memcpy(v->e, v->d, sizeof(v->e));

  // Echo can come from any far block the filters span, not only this one.
  const auto span_sum =
      static_cast<float>(SquareSum(&core->xfwBuf[0][0], 2 * core->num_partitions * kAecBins));
  const float span_power = span_sum * kSpectrumToMeanSquare / static_cast<float>(core->num_partitions);
  res->far_floor = std::min(std::max(span_power, kFarSilentMeanSquare), res->far_floor * kFarFloorRise);
  v->far_active = span_power > std::max(kFarSilentMeanSquare, 4.0f * res->far_floor);

  Spectrum y;
  float weighted = 0.0f, weight = 0.0f;
  v->near_band = v->error_band = 0.0f;
  for (int k = 0; k < kAecBins; ++k) {
    v->pe[k] = Power(v->e, k);
    y[0][k] = v->d[0][k] - v->e[0][k];
    y[1][k] = v->d[1][k] - v->e[1][k];
    v->py[k] = Power(y, k);
    v->echo_sum += v->py[k];
    Smooth(&res->sx[k], kCoherenceKeep, Power(v->x, k));
    Smooth(&res->se[k], kCoherenceKeep, v->pe[k]);
    Smooth(&res->sd[k], kCoherenceKeep, v->pd[k]);
    Smooth(&res->sy[k], kCoherenceKeep, v->py[k]);
    SmoothCross(res->sxe[k], v->x, v->e, k);
    SmoothCross(res->sxd[k], v->x, v->d, k);
    SmoothCross(res->sey[k], v->e, y, k);
    const float cxe = Coherence(res->sxe[k], res->sx[k], res->se[k]);
    const float cey = Coherence(res->sey[k], res->se[k], res->sy[k]);
    if (coherence != nullptr) {
      coherence[k] = Coherence(res->sxd[k], res->sx[k], res->sd[k]);
      coherence[kAecBins + k] = 1.0f - cxe;
    }
    if (k >= kSpeechBinFirst && k < kSpeechBinLast) {
      // Weighted by the error's power: the bins that carry the error decide.
      weighted += std::max(cxe, cey) * res->se[k];
      weight += res->se[k];
      v->near_band += v->pd[k];
      v->error_band += v->pe[k];
    }
    Smooth(&res->error_smooth[k], kErrorKeep, v->pe[k]);
    if (res->blocks == 0) res->noise_smooth[k] = v->pe[k];
    Smooth(&res->noise_smooth[k], kNoiseKeep, v->pe[k]);
    res->echo_tail[k] = std::max(v->py[k], kTailDecay * res->echo_tail[k]);
    res->far_tail[k] = std::max(Power(v->x, k), kTailDecay * res->far_tail[k]);
  }
  v->echo_coherence = weighted / (weight + kTiny);
  UpdateNoiseFloor(res);
  v->noise_band = 0.0f;
  v->drive = 0.0f;
  for (int k = 0; k < kAecBins; ++k) v->drive += res->far_tail[k];
  for (int k = 0; k < kAecBins; ++k) {
    v->noise[k] = kNoiseBias * res->noise_floor[k];
    v->linear[k] = std::max(res->leak[k] * res->echo_tail[k], kFarWeight * res->far_leak[k] * res->far_tail[k]);
    v->residual[k] = v->linear[k] + DistortionLeak(res, k) * v->drive;
    if (k >= kSpeechBinFirst && k < kSpeechBinLast) v->noise_band += v->noise[k];
  }
}

// Whether a near talker speaks beside the echo. Two cues:
//   - by the error: it stands above the residual estimate and the floor and
//     is not coherent with the far end or the filters' estimate (residual
//     echo is, near speech never);
//   - by the level: the microphone is louder than the far end's echo can
//     make it (a talker adds to it; filters that lost the echo do not).
// While the filters model the echo (their echo-alone ERLE is high) the
// error hears a talker 10 dB under the echo, where the level hears nothing;
// but a loud new sound the filters have not yet learnt also stands out of
// the error for a few blocks. Such misfits stay within 2.5 times the
// expected power and half coherent with the echo, which a talker rarely
// does; in between, the level must agree. Where the filters do not model
// the echo (a distorting loudspeaker, music the 48 ms cannot follow, a
// moved echo), the level alone decides. by_error_out reports the first cue.
// The error is judged against the linear terms of the residual only: the
// distortion slope, fitted over whatever the detector let through, would
// otherwise grow with each talker block it missed and hide the next ones
// (it cost the talker up to 6.5 dB SI-SDR in double talk on the bench).
bool NearTalks(AecResidualState* res, const BlockView& v, bool* by_level, bool* by_error_out) {
  float excess = 0.0f, expected = 0.0f, far_band = 0.0f;
  for (int k = kSpeechBinFirst; k < kSpeechBinLast; ++k) {
    excess += std::max(res->error_smooth[k] - kDtdResidual * v.linear[k] - v.noise[k], 0.0f);
    expected += v.linear[k] + v.noise[k];
    far_band += res->far_tail[k];
  }
  Smooth(&res->far_level, kLevelKeep, far_band);
  Smooth(&res->near_level, kLevelKeep, std::max(v.near_band - v.noise_band, 0.0f));
  *by_level = res->echo_gain_blocks >= kEchoGainWarmup &&
              res->near_level > kLevelMargin * std::pow(10.0f, 0.1f * res->echo_gain_db) * res->far_level;
  const bool by_error = excess > kNearExcess * expected && v.echo_coherence <= kEchoCoherent;
  *by_error_out = by_error;
  if (res->echo_only_erle <= kModelledErleDb) return *by_level;
  return by_error && (*by_level || excess > kStrongExcess * expected || v.echo_coherence < kIncoherent);
}

// What the block teaches: the leaks and the echo-alone ERLE from echo alone
// (fast where the error is plainly echo), the echo's level from blocks the
// level does not call double talk.
void Learn(AecResidualState* res, const BlockView& v, bool near_active, bool near_by_level, bool near_by_error) {
  if (!v.far_active) return;
  const float erle = 10.0f * std::log10((v.near_band + 1.0f) / (v.error_band + 1.0f));
  Smooth(&res->linear_erle, kErleKeep, erle);
  // The echo's level against the far end's: learnt quickly over the first
  // far-end blocks, then only from blocks the level does not call double
  // talk, with a slow drift either way so that no verdict locks itself in.
  if (res->far_level > kTiny) {
    const float gain_db = 10.0f * std::log10((res->near_level + kTiny) / res->far_level);
    const bool warming = res->echo_gain_blocks < kEchoGainWarmup;
    const float rate = warming ? kEchoGainWarmupRate : near_by_level ? kEchoGainDrift : kEchoGainRate;
    res->echo_gain_db = res->echo_gain_blocks == 0 ? gain_db : res->echo_gain_db + rate * (gain_db - res->echo_gain_db);
    res->echo_gain_blocks += 1;
  }
  if (near_by_level) return;
  // Powers rather than decibels: the loud echo blocks, where a poor fit
  // shows, must weigh more than the quiet ones between syllables. Only
  // blocks neither cue calls double talk count: a talker under the echo
  // would otherwise pass for a poor fit.
  if (!near_by_error) {
    Smooth(&res->echo_only_near, kEchoOnlyErleKeep, v.near_band);
    Smooth(&res->echo_only_error, kEchoOnlyErleKeep, v.error_band);
    res->echo_only_erle = 10.0f * std::log10((res->echo_only_near + 1.0f) / (res->echo_only_error + 1.0f));
  }
  if (near_active) return;
  const float keep = v.echo_coherence > kEchoCoherent ? kLeakKeepCoherent : kLeakKeep;
  Smooth(&res->drive_mean, kDistortionKeep, v.drive);
  const float drive = v.drive - res->drive_mean;
  for (int k = 0; k < kAecBins; ++k) {
    const float error = std::max(res->error_smooth[k] - v.noise[k], 0.0f);
    FitLeak(&res->leak_num[k], &res->leak_den[k], &res->leak[k], error, res->echo_tail[k], keep);
    FitLeak(&res->far_leak_num[k], &res->far_leak_den[k], &res->far_leak[k], error, res->far_tail[k], keep);
    res->distortion_num[k] = kDistortionKeep * res->distortion_num[k] + (error - v.linear[k]) * drive;
  }
  res->distortion_den = kDistortionKeep * res->distortion_den + drive * drive;
}

}  // namespace

void AecResidualProcess(AecResidualState* res, const AecCore* core, int echo_partition, float* out,
                        float* near_power_spectrum, float* coherence, AecEnhancedBlock* report) {
  BlockView v;
  Analyse(res, core, echo_partition, coherence, &v);
  std::memcpy(near_power_spectrum, v.pd, sizeof(v.pd));
  bool near_by_level = false, near_by_error = false;
  const bool near_active = v.far_active && NearTalks(res, v, &near_by_level, &near_by_error);
  Learn(res, v, near_active, near_by_level, near_by_error);

  // Gains (Wiener, decision-directed), comfort noise, synthesis.
  Spectrum o;
  float out_sum = 0.0f, left_sum = 0.0f, residual_sum = 0.0f, floor_sum = 0.0f;
  int16_t random[kAecBins];
  AdspSpl_RandUArray(random, kAecBins, &res->seed);
  const float over = near_active ? kOverEstimateNear : kOverEstimate;
  for (int k = 0; k < kAecBins; ++k) {
    float gain = 1.0f;
    const float masked = over * v.residual[k];
    if (masked > kTiny) {
      const float post = v.pe[k] / masked;
      const float prior = kPriorKeep * res->prior_ser[k] + (1.0f - kPriorKeep) * std::max(post - 1.0f, 0.0f);
      gain = prior / (1.0f + prior);
      res->prior_ser[k] = gain * gain * post;
    } else {
      res->prior_ser[k] = v.pe[k] / (kTiny + v.noise[k]);
    }
    residual_sum += v.residual[k];
    floor_sum += v.noise[k];
    report->residual_bins[k] = gain * gain * v.residual[k];
    report->passed_bins[k] = gain * gain * v.pe[k];
    left_sum += report->residual_bins[k];
    const float fill = std::sqrt(std::max(1.0f - gain * gain, 0.0f) * v.noise[k]);
    const int phase = random[k] >> kPhaseShift;
    o[0][k] = gain * v.e[0][k] + fill * kPhase.cos[phase];
    o[1][k] = (k == 0 || k == kAecBlockLen) ? 0.0f : gain * v.e[1][k] + fill * kPhase.sin[phase];
    out_sum += Power(o, k);
  }
  Synthesize(res, o, out);
  res->blocks += 1;

  report->far_power = v.far_sum * kSpectrumToMeanSquare;
  report->near_power = v.near_sum * kSpectrumToMeanSquare;
  report->echo_power = v.echo_sum * kSpectrumToMeanSquare;
  report->residual_power = left_sum * kSpectrumToMeanSquare;
  report->error_residual_power = residual_sum * kSpectrumToMeanSquare;
  report->output_power = out_sum * kSpectrumToMeanSquare;
  report->floor_power = floor_sum * kSpectrumToMeanSquare;
  report->far_active = v.far_active ? 1 : 0;
  report->echo_present = v.far_active && v.echo_sum + residual_sum > 2.0f * v.noise_band ? 1 : 0;
  report->near_active = near_active ? 1 : 0;
  report->near_by_level = near_by_level ? 1 : 0;
}

}  // namespace vorn
