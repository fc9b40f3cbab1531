// Generalised sidelobe canceller. The fixed beam is the speech reference;
// three blocking outputs, each a per-bin combination of the microphones that
// nulls the look direction, are noise references. Three 256-tap filters,
// adapted in the frequency domain (constrained, normalised LMS on overlap-save
// blocks) only in hops the small detector judges free of speech, predict the
// noise that leaks into the fixed beam; their summed output is subtracted
// from the fixed beam delayed by a quarter block, which keeps the filters
// causal relative to it. The taps' joint norm is capped at 1/sqrt(2), which
// bounds what a filter misadapted on leaking speech can take out of the
// talker; the same cap bounds the cancellation when the blocking outputs are
// weak against the fixed beam.
#include <cmath>

#include "adsp_bf/beamformer.h"
#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/util.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "common/fft_rel_lanes.h"

namespace vorn {

namespace {

constexpr int kHalf = kBfFftLen / 2;
constexpr int kOutputs = 3;
constexpr int kVadLowBin = 8;    // 250 Hz ...
constexpr int kVadHighBin = 107; // ... to 3.3 kHz, inclusive
constexpr float kSmooth = 0.9f;
constexpr float kStep = 0.1f;
constexpr float kTapNormLimit = 0.7071f;
constexpr float kPowerFloor = 1e-8f;

const float* BlockingMatrix(int angle) {
  if (angle == 0) return bm_0;
  if (angle == 60) return bm_60;
  return bm_300;
}

void CopyBlock(const float* from, float* to) {
  for (int i = 0; i < kBfFftLen; ++i) to[i] = from[i];
}

float BandPower(const float* spectrum) {
  float sum = 0.0f;
  for (int k = kVadLowBin; k <= kVadHighBin; ++k) sum += spectrum[k] * spectrum[k] + spectrum[kBfFftLen - k] * spectrum[kBfFftLen - k];
  return sum;
}

void BlockingBinAt(const float* bm, int j, const float f[3][512], float* blocked, int k) {
  float re, im;
  WeightedBin(f, bm + 18 * k + 6 * j, k, re, im);
  blocked[k] = re;
  blocked[kBfFftLen - k] = im;
}

// DC and Nyquist: real only.
void BlockingEdges(const float* bm, int j, const float f[3][512], float* blocked) {
  float dc = 0.0f, nyquist = 0.0f;
  for (int m = 0; m < kBfChannels; ++m) {
    dc += bm[6 * j + 2 * m] * f[m][0];
    nyquist += bm[18 * kHalf + 6 * j + 2 * m] * f[m][kHalf];
  }
  blocked[0] = dc;
  blocked[kHalf] = nyquist;
}

}  // namespace

void GscBlockingPlain(const float* bm, int j, const float f[3][512], float* blocked) {
  BlockingEdges(bm, j, f, blocked);
  for (int k = 1; k < kHalf; ++k) BlockingBinAt(bm, j, f, blocked, k);
}

#if defined(VORN_SIMD4)
// Four bins per vector. The matrix holds 18 floats per bin; a 4 x 4 turn of
// the four bins' floats from output j's start gives microphones 0 and 1 as
// (re, im) lane vectors, one more from four floats on gives microphone 2
// (the other two rows belong to the next output or bin and are dropped; the
// last group's reads stay inside the matrix's 257 bins).
void GscBlockingSimd(const float* bm, int j, const float f[3][512], float* blocked) {
  using namespace simd;
  BlockingEdges(bm, j, f, blocked);
  int k = 1;
  for (; k + 4 <= kHalf; k += 4) {
    const float* w = bm + 18 * k + 6 * j;
    F4 w_re[3], w_im[3];
    F4 r0 = Load(w), r1 = Load(w + 18), r2 = Load(w + 36), r3 = Load(w + 54);
    Transpose(r0, r1, r2, r3);
    w_re[0] = r0, w_im[0] = r1, w_re[1] = r2, w_im[1] = r3;
    r0 = Load(w + 4), r1 = Load(w + 22), r2 = Load(w + 40), r3 = Load(w + 58);
    Transpose(r0, r1, r2, r3);
    w_re[2] = r0, w_im[2] = r1;
    F4 re = Zero(), im = Zero();
    for (int m = 0; m < kBfChannels; ++m) {
      const F4 x_re = Load(f[m] + k), x_im = LoadReversed(f[m] + kBfFftLen - k);
      re = Add(re, Sub(Mul(w_re[m], x_re), Mul(w_im[m], x_im)));
      im = Add(im, Add(Mul(w_im[m], x_re), Mul(w_re[m], x_im)));
    }
    Store(blocked + k, re);
    StoreReversed(blocked + kBfFftLen - k, im);
  }
  for (; k < kHalf; ++k) BlockingBinAt(bm, j, f, blocked, k);
}
#endif

// Stack: a device thread has little of it, so the hop keeps only what must
// outlive a step: the three reference spectra (read again by the detector and
// the filter update) and the running sum of the filtered references. The
// blocking outputs are formed in the reference blocks and go back to time
// there together with the fixed beam (four transforms at once); one work
// block then serves as each filtered reference, dead once consumed. The
// filtered references are summed as they come, in the same order (0 + 1,
// then + 2), so the sum is the same to the bit as summing three stored ones.
void Adapt_GSC(T_AudioDspState* st, float f[3][512], float* fbf, int angle, float* out) {
  const float* bm = BlockingMatrix(angle);

  float work[kBfFftLen];
  CopyBlock(fbf, work);
  float ref[kOutputs][kBfFftLen];
  for (int j = 0; j < kOutputs; ++j) {
#if defined(VORN_SIMD4)
    GscBlockingSimd(bm, j, f, ref[j]);
#else
    GscBlockingPlain(bm, j, f, ref[j]);
#endif
  }
  float* const to_time[kOutputs + 1] = {work, ref[0], ref[1], ref[2]};
  IfftRelLanes(to_time, kOutputs + 1, kBfFftLen, kBfFftOrder);
  FrameShiftSave(st->td_fbf_out, work + kHalf);

  // Each blocking output's reference spectrum is that of its last two hops,
  // as overlap-save filtering needs.
  for (int j = 0; j < kOutputs; ++j) {
    FrameShiftSave(st->td_bm_out[j], ref[j] + kHalf);
    CopyBlock(st->td_bm_out[j], ref[j]);
  }
  float* const refs[kOutputs] = {ref[0], ref[1], ref[2]};
  FftRelLanes(refs, kOutputs, kBfFftLen, kBfFftOrder);

  float noise_est[kBfFftLen];
  for (int j = 0; j < kOutputs; ++j) {
    FreqFilter(ref[j], st->fd_g[j], j == 0 ? noise_est : work);
    if (j > 0)
      for (int i = 0; i < kBfFftLen; ++i) noise_est[i] += work[i];
  }
  ifft_rel(noise_est, kBfFftLen, kBfFftOrder);

  // The output is formed in place in the first half of the noise estimate
  // (each sample reads one 256 further on) and only copied out after the
  // detector has read the fixed beam: out may be the fixed beam's buffer.
  for (int n = 0; n < kHalf; ++n) noise_est[n] = st->td_fbf_out[n + kHalf / 2] - noise_est[n + kHalf];
  const int speech = GscVad(st, ref, fbf);
  for (int n = 0; n < kHalf; ++n) out[n] = noise_est[n];
  if (speech == 0) UpdateFilter(st, noise_est, ref);
}

int GscVad(T_AudioDspState* st, float bm_f[3][512], float* fbf_f) {
  const float c = 1.0f - kSmooth;  // 0.100000024 in single precision, on purpose
  float ref_sum = 0.0f;
  for (int j = 0; j < kOutputs; ++j)
    for (int k = kVadLowBin; k <= kVadHighBin; ++k)
      ref_sum += bm_f[j][k] * bm_f[j][k] + bm_f[j][kBfFftLen - k] * bm_f[j][kBfFftLen - k];
  const float ref_en = ref_sum / 3.0f;
  const float fixed_en = BandPower(fbf_f);

  // The first hops seed the noise level unconditionally.
  if (st->frame_num <= 9) st->vad_noise = c * ref_en + kSmooth * st->vad_noise;
  const float noise_level = st->vad_noise > kPowerFloor ? st->vad_noise : kPowerFloor;
  const float snr = std::log10(fixed_en / noise_level);
  st->long_fbf_en = c * fixed_en + kSmooth * st->long_fbf_en;
  if (0.1f * st->long_fbf_en > fixed_en || snr < 0.5f) st->vad_noise = c * ref_en + kSmooth * st->vad_noise;
  // A hop of digital silence has snr = -inf. It still counts as noise
  // (below), but it must not enter the long-term average: once that is
  // -inf it stays there, every later hop would be judged speech and the
  // filters would never adapt again.
  if (std::isfinite(snr)) st->long_snr = c * snr + kSmooth * st->long_snr;
  return snr > 0.2f + st->long_snr ? 1 : 0;
}

namespace {

float SmoothedNoiseAt(const float fd_ref[3][512], const float* noise, int k) {
  float p = 0.0f;
  for (int j = 0; j < kOutputs; ++j)
    p += fd_ref[j][k] * fd_ref[j][k] + fd_ref[j][kBfFftLen - k] * fd_ref[j][kBfFftLen - k];
  return kSmooth * noise[k] + kStep * p;
}

// DC and Nyquist: real only.
void SmoothEdgeNoise(const float fd_ref[3][512], float* noise) {
  float p = fd_ref[0][0] * fd_ref[0][0] + fd_ref[1][0] * fd_ref[1][0] + fd_ref[2][0] * fd_ref[2][0];
  noise[0] = kSmooth * noise[0] + kStep * p;
  p = fd_ref[0][kHalf] * fd_ref[0][kHalf] + fd_ref[1][kHalf] * fd_ref[1][kHalf] + fd_ref[2][kHalf] * fd_ref[2][kHalf];
  noise[kHalf] = kSmooth * noise[kHalf] + kStep * p;
}

void MoveEdges(const float* err, const float* r, const float* noise, float* g) {
  g[0] += kStep * err[0] * r[0] / std::fmax(noise[0], kPowerFloor);
  g[kHalf] += kStep * err[kHalf] * r[kHalf] / std::fmax(noise[kHalf], kPowerFloor);
}

void MoveFilterAt(const float* err, const float* r, const float* noise, float* g, int k) {
  const float e_re = err[k], e_im = err[kBfFftLen - k];
  const float r_re = r[k], r_im = r[kBfFftLen - k];
  const float norm = std::fmax(noise[k], kPowerFloor);
  // E times the conjugate of R: correlation of error and reference.
  g[k] += kStep * (e_re * r_re + e_im * r_im) / norm;
  g[kBfFftLen - k] += kStep * (e_im * r_re - e_re * r_im) / norm;
}

}  // namespace

void GscStepPlain(const float* err, const float fd_ref[3][512], float* noise, float* const filters[3]) {
  SmoothEdgeNoise(fd_ref, noise);
  for (int k = 1; k < kHalf; ++k) noise[k] = SmoothedNoiseAt(fd_ref, noise, k);
  for (int j = 0; j < kOutputs; ++j) {
    MoveEdges(err, fd_ref[j], noise, filters[j]);
    for (int k = 1; k < kHalf; ++k) MoveFilterAt(err, fd_ref[j], noise, filters[j], k);
  }
}

#if defined(VORN_SIMD4)
// Bins 1 to 252 four at a time: the real parts rise through the packed
// spectra, the imaginary parts fall through their upper halves and are read
// and written backwards. The floor is a selection, which gives fmax's result
// for every value (a NaN takes the floor in both).
void GscStepSimd(const float* err, const float fd_ref[3][512], float* noise, float* const filters[3]) {
  using namespace simd;
  const F4 smooth = Set1(kSmooth), step = Set1(kStep), floor = Set1(kPowerFloor);
  SmoothEdgeNoise(fd_ref, noise);
  int k = 1;
  for (; k + 4 <= kHalf; k += 4) {
    F4 p = Zero();
    for (int j = 0; j < kOutputs; ++j) {
      const F4 re = Load(fd_ref[j] + k), im = LoadReversed(fd_ref[j] + kBfFftLen - k);
      p = Add(p, Add(Mul(re, re), Mul(im, im)));
    }
    Store(noise + k, Add(Mul(smooth, Load(noise + k)), Mul(step, p)));
  }
  for (; k < kHalf; ++k) noise[k] = SmoothedNoiseAt(fd_ref, noise, k);

  for (int j = 0; j < kOutputs; ++j) {
    const float* r = fd_ref[j];
    float* g = filters[j];
    MoveEdges(err, r, noise, g);
    for (k = 1; k + 4 <= kHalf; k += 4) {
      const F4 e_re = Load(err + k), e_im = LoadReversed(err + kBfFftLen - k);
      const F4 r_re = Load(r + k), r_im = LoadReversed(r + kBfFftLen - k);
      const F4 n = Load(noise + k);
      const F4 norm = Select(Gt(n, floor), n, floor);
      Store(g + k, Add(Load(g + k), Div(Mul(step, Add(Mul(e_re, r_re), Mul(e_im, r_im))), norm)));
      StoreReversed(g + kBfFftLen - k,
                    Add(LoadReversed(g + kBfFftLen - k), Div(Mul(step, Sub(Mul(e_im, r_re), Mul(e_re, r_im))), norm)));
    }
    for (; k < kHalf; ++k) MoveFilterAt(err, r, noise, g, k);
  }
}
#endif

void UpdateFilter(T_AudioDspState* st, float* td_out, float fd_ref[3][512]) {
  float err[kBfFftLen];
  for (int n = 0; n < kHalf; ++n) err[n] = 0.0f;
  for (int n = 0; n < kHalf; ++n) err[n + kHalf] = td_out[n];
  fft_rel(err, kBfFftLen, kBfFftOrder);

  float* const filters[kOutputs] = {st->fd_g[0], st->fd_g[1], st->fd_g[2]};
#if defined(VORN_SIMD4)
  GscStepSimd(err, fd_ref, st->noise, filters);
#else
  GscStepPlain(err, fd_ref, st->noise, filters);
#endif

  // Constrain: keep the filters causal (256 taps) and their joint norm
  // capped. The taps are formed in place in the state: the norm needs all
  // three filters before any can be scaled, and a separate copy of them
  // would cost 6 KB of stack.
  float energy = 0.0f;
  IfftRelLanes(filters, kOutputs, kBfFftLen, kBfFftOrder);
  for (int j = 0; j < kOutputs; ++j)
    for (int n = 0; n < kHalf; ++n) energy += st->fd_g[j][n] * st->fd_g[j][n];
  const float norm = std::sqrt(energy);
  if (norm > kTapNormLimit) {
    const float scale = kTapNormLimit / norm;
    for (int j = 0; j < kOutputs; ++j)
      for (int n = 0; n < kHalf; ++n) st->fd_g[j][n] *= scale;
  }
  for (int j = 0; j < kOutputs; ++j)
    for (int n = kHalf; n < kBfFftLen; ++n) st->fd_g[j][n] = 0.0f;
  FftRelLanes(filters, kOutputs, kBfFftLen, kBfFftOrder);
}

}  // namespace vorn
