// The enhanced adaptive beam (beam types 3 and 4): a generalised sidelobe
// canceller steered at run time.
//
// The fixed beam of the slot is the speech path. Each working microphone
// beyond the reference, moved to where the reference hears the look direction,
// minus the reference is a blocking output: a plane wave from the look
// direction cancels in it, whatever its spectrum. With three microphones
// there are two, which span everything but the look direction; a third, as
// the classic canceller has, would only repeat them. The blocking outputs are
// delayed a few samples so that the fractional alignment stays causal, and
// 256-tap filters, run by overlap-save on the same two-hop blocks as the
// beam, predict the noise that reaches the fixed beam from them; their sum
// is subtracted. The filters adapt by a normalised frequency-domain LMS step,
// constrained to 256 taps, and only while the talker is silent: the caller's
// speech presence (the previous frame's) must say so and the fixed beam must
// not stand out over the blocking outputs by more than it does in noise, so a
// talker the presence estimate misses still freezes them. A filter adapted on
// the talker would learn to cancel the talker's reverberation and, through
// any mismatch of the blocking, the talker.
#include <cmath>

#include "adsp_bf/gsc_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/fft_rel_lanes.h"

namespace vorn {
namespace {

constexpr int kHalf = kBfFftLen / 2;
constexpr double kBlockingDelay = 8.0;  // samples; the alignment's leads stay inside it
constexpr float kStep = 0.1f;
constexpr float kPowerSmooth = 0.9f;
constexpr float kTapNormLimit = 1.0f;   // joint norm of all filters' taps
constexpr int kLookLowBin = 8;          // 250 Hz ...
constexpr int kLookHighBin = 128;       // ... to 4 kHz
constexpr float kLookRatioRise = 1.005f;  // the noise floor of the ratio creeps up 1.3 dB/s
constexpr float kLookMargin = 2.0f;       // 3 dB above it the look direction is active

float BandPower(const float* spectrum) {
  float sum = 0.0f;
  for (int k = kLookLowBin; k <= kLookHighBin; ++k)
    sum += spectrum[k] * spectrum[k] + spectrum[kBfFftLen - k] * spectrum[kBfFftLen - k];
  return sum;
}

// out = a * b, packed, per bin (no conjugation); out may alias a or b.
void Multiply(const float* a, const float* b, float* out) {
  out[0] = a[0] * b[0];
  out[kHalf] = a[kHalf] * b[kHalf];
  for (int k = 1; k < kHalf; ++k) {
    const float a_re = a[k], a_im = a[kBfFftLen - k], b_re = b[k], b_im = b[kBfFftLen - k];
    out[k] = a_re * b_re - a_im * b_im;
    out[kBfFftLen - k] = a_re * b_im + a_im * b_re;
  }
}

// Blocking output: microphone j aligned to the reference, minus the reference.
void Blocking(float spectrum[kBfChannels][kBfFftLen], int j, int ref, float azimuth, float* out) {
  float phase[kBfNumBins][2];
  AlignmentPhases(j, ref, azimuth, kBlockingDelay, phase);
  float delay[kBfNumBins][2];
  AlignmentPhases(ref, ref, azimuth, kBlockingDelay, delay);
  const float* xj = spectrum[j];
  const float* xr = spectrum[ref];
  out[0] = xj[0] - xr[0];
  out[kHalf] = xj[kHalf] * phase[kHalf][0] - xr[kHalf] * delay[kHalf][0];
  for (int k = 1; k < kHalf; ++k) {
    const float j_re = xj[k], j_im = xj[kBfFftLen - k], r_re = xr[k], r_im = xr[kBfFftLen - k];
    out[k] = (phase[k][0] * j_re - phase[k][1] * j_im) - (delay[k][0] * r_re - delay[k][1] * r_im);
    out[kBfFftLen - k] = (phase[k][1] * j_re + phase[k][0] * j_im) - (delay[k][1] * r_re + delay[k][0] * r_im);
  }
}

// One normalised LMS step of every filter from the hop's error samples, then
// the constraint: 256 causal taps, their joint norm capped.
void Adapt(GscState* gsc, const float* error_td, float blocked[kGscOutputs][kBfFftLen], int outputs) {
  static_assert(kGscOutputs <= kFftRelLanes, "the filters go through the transform together");
  float err[kBfFftLen];
  for (int n = 0; n < kHalf; ++n) err[n] = 0.0f;
  for (int n = 0; n < kHalf; ++n) err[kHalf + n] = error_td[n];
  fft_rel(err, kBfFftLen, kBfFftOrder);

  float mean_power = 0.0f;
  for (int k = 0; k <= kHalf; ++k) {
    float p = 0.0f;
    for (int j = 0; j < outputs; ++j)
      p += k == 0 || k == kHalf ? blocked[j][k] * blocked[j][k]
                                : blocked[j][k] * blocked[j][k] + blocked[j][kBfFftLen - k] * blocked[j][kBfFftLen - k];
    gsc->ref_power[k] = kPowerSmooth * gsc->ref_power[k] + (1.0f - kPowerSmooth) * p;
    mean_power += gsc->ref_power[k];
  }
  // Bins far below the rest must not take huge steps on rounding noise.
  const float floor = 1e-3f * mean_power / kBfNumBins + 1.0f;
  for (int j = 0; j < outputs; ++j) {
    float* g = gsc->filter[j];
    const float* r = blocked[j];
    g[0] += kStep * err[0] * r[0] / (gsc->ref_power[0] + floor);
    g[kHalf] += kStep * err[kHalf] * r[kHalf] / (gsc->ref_power[kHalf] + floor);
    for (int k = 1; k < kHalf; ++k) {
      const float e_re = err[k], e_im = err[kBfFftLen - k], r_re = r[k], r_im = r[kBfFftLen - k];
      const float norm = kStep / (gsc->ref_power[k] + floor);
      g[k] += norm * (e_re * r_re + e_im * r_im);
      g[kBfFftLen - k] += norm * (e_im * r_re - e_re * r_im);
    }
  }
  float* filters[kGscOutputs];
  for (int j = 0; j < outputs; ++j) filters[j] = gsc->filter[j];
  IfftRelLanes(filters, outputs, kBfFftLen, kBfFftOrder);
  float energy = 0.0f;
  for (int j = 0; j < outputs; ++j) {
    for (int n = kHalf; n < kBfFftLen; ++n) gsc->filter[j][n] = 0.0f;
    for (int n = 0; n < kHalf; ++n) energy += gsc->filter[j][n] * gsc->filter[j][n];
  }
  const float scale = energy > kTapNormLimit * kTapNormLimit ? kTapNormLimit / std::sqrt(energy) : 1.0f;
  for (int j = 0; j < outputs; ++j) {
    if (scale != 1.0f)
      for (int n = 0; n < kHalf; ++n) gsc->filter[j][n] *= scale;
  }
  FftRelLanes(filters, outputs, kBfFftLen, kBfFftOrder);
}

}  // namespace

void GscEnhancedInit(GscState* gsc) { *gsc = GscState{}; }

void GscEnhancedBeam(GscState* gsc, const BeamSlot& slot, uint32_t live_mask, float spectrum[kBfChannels][kBfFftLen],
                     bool may_adapt, float* beam) {
  if (gsc->live_mask != live_mask) {
    // Filters learned for other blocking outputs are no use for these.
    GscEnhancedInit(gsc);
    gsc->live_mask = live_mask;
  }
  int mics[kBfChannels], live = 0;
  for (int m = 0; m < kBfChannels; ++m)
    if ((live_mask >> m) & 1u) mics[live++] = m;
  const int outputs = live - 1;

  // The fixed beam, with the blocking outputs' filtered sum taken off it.
  ApplyBeam(slot.weights, spectrum, beam);
  const float fixed_power = BandPower(beam);

  float blocked[kGscOutputs][kBfFftLen];
  float blocked_power = 0.0f;
  for (int j = 0; j < outputs; ++j) {
    Blocking(spectrum, mics[j + 1], mics[0], slot.design.azimuth_deg, blocked[j]);
    blocked_power += BandPower(blocked[j]);
    float filtered[kBfFftLen];
    Multiply(blocked[j], gsc->filter[j], filtered);
    for (int i = 0; i < kBfFftLen; ++i) beam[i] -= filtered[i];
  }
  if (outputs == 0 || !may_adapt) return;

  // The look direction is quiet when the fixed beam stands out over the
  // blocking outputs no more than it does in noise. The ratio's floor follows
  // the lowest values, which noise gives.
  const float ratio = fixed_power / (blocked_power / outputs + 1.0f);
  if (gsc->look_ratio_floor <= 0.0f || ratio < gsc->look_ratio_floor) {
    gsc->look_ratio_floor = ratio;
  } else {
    gsc->look_ratio_floor *= kLookRatioRise;
  }
  if (ratio > kLookMargin * gsc->look_ratio_floor) return;

  float error[kBfFftLen];
  for (int i = 0; i < kBfFftLen; ++i) error[i] = beam[i];
  ifft_rel(error, kBfFftLen, kBfFftOrder);
  Adapt(gsc, error + kHalf, blocked, outputs);
}

}  // namespace vorn
