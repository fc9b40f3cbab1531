// Overlap-save plumbing of the beamformer: sliding a two-hop history, out of
// place transforms, and the per-bin product that applies a frequency-domain
// filter to a packed spectrum; plus the microphone order of the input.
#include "adsp_bf/util.h"

#include "common/adsp_common_fft_rel.h"

namespace vorn {

namespace {
constexpr int kLen = 512;
constexpr int kHalf = 256;
constexpr short kOrder = 9;
}  // namespace

void FrameShiftSave(float* old_data, float* new_data) {
  for (int i = 0; i < kHalf; ++i) old_data[i] = old_data[i + kHalf];
  for (int i = 0; i < kHalf; ++i) old_data[i + kHalf] = new_data[i];
}

void FFT(float* in, float* out) {
  float scratch[kLen];
  for (int i = 0; i < kLen; ++i) scratch[i] = in[i];
  fft_rel(scratch, kLen, kOrder);
  for (int i = 0; i < kLen; ++i) out[i] = scratch[i];
}

void IFFT(float* in, float* out) {
  float scratch[kLen];
  for (int i = 0; i < kLen; ++i) scratch[i] = in[i];
  ifft_rel(scratch, kLen, kOrder);
  for (int i = 0; i < kLen; ++i) out[i] = scratch[i];
}

void FreqFilter(float* f, float* g, float* out) {
  out[0] = g[0] * f[0];
  out[kHalf] = g[kHalf] * f[kHalf];
  for (int k = 1; k < kHalf; ++k) {
    // Read both halves first so that out may be f or g.
    const float f_re = f[k], f_im = f[kLen - k];
    const float g_re = g[k], g_im = g[kLen - k];
    out[k] = g_re * f_re - g_im * f_im;
    out[kLen - k] = g_im * f_re + f_im * g_re;
  }
}

bool TakeMicOrder(const short* mic_order, short order[3]) {
  for (int m = 0; m < 3; ++m) order[m] = static_cast<short>(m);
  if (mic_order == nullptr) return true;
  for (int m = 0; m < 3; ++m) {
    if (mic_order[m] < 0 || mic_order[m] > 2) return false;
    order[m] = mic_order[m];
  }
  return true;
}

}  // namespace vorn
