// Float front of the delay estimator. A power spectrum becomes a 32-bit word:
// band k (12..43, roughly 1.5 to 5.4 kHz at 16 kHz, where speech and music
// carry most of their detail) sets bit k - 12 when its power is above that
// band's running mean (a first-order average with weight 1/64, started at half
// the first positive power). Far and near end keep their own means, so the
// words are insensitive to the echo path's gain and colouring.
#include "adsp_aec/delay_estimator_wrapper.h"

namespace vorn {
namespace {

uint32_t BinarySpectrumFloat(const float* spectrum, SpectrumType* threshold_spectrum, int* threshold_initialized) {
  if (!*threshold_initialized) {
    for (int k = kBandFirst; k <= kBandLast; ++k) {
      if (spectrum[k] > 0.0f) {
        threshold_spectrum[k].float_ = spectrum[k] / 2;
        *threshold_initialized = 1;
      }
    }
  }
  uint32_t out = 0;
  for (int k = kBandFirst; k <= kBandLast; ++k) {
    threshold_spectrum[k].float_ += (spectrum[k] - threshold_spectrum[k].float_) / 64;
    if (spectrum[k] > threshold_spectrum[k].float_) out |= 1u << (k - kBandFirst);
  }
  return out;
}

// Fixed-point twin: the spectrum is brought to Q15 and the means follow it
// with the same 1/64 weight, in integer steps.
uint32_t BinarySpectrumFix(const uint16_t* spectrum, SpectrumType* threshold_spectrum, int q_domain,
                           int* threshold_initialized) {
  const int shift_to_q15 = 15 - q_domain;
  if (!*threshold_initialized) {
    for (int k = kBandFirst; k <= kBandLast; ++k) {
      if (spectrum[k] > 0) {
        threshold_spectrum[k].int32_ = (static_cast<int32_t>(spectrum[k]) << shift_to_q15) >> 1;
        *threshold_initialized = 1;
      }
    }
  }
  uint32_t out = 0;
  for (int k = kBandFirst; k <= kBandLast; ++k) {
    const int32_t spectrum_Q15 = static_cast<int32_t>(spectrum[k]) << shift_to_q15;
    Adsp_MeanEstimatorFix(spectrum_Q15, 6, &threshold_spectrum[k].int32_);
    if (spectrum_Q15 > threshold_spectrum[k].int32_) out |= 1u << (k - kBandFirst);
  }
  return out;
}

DelayEstimatorFarend* Farend(void* handle) { return static_cast<DelayEstimatorFarend*>(handle); }
DelayEstimator* Near(void* handle) { return static_cast<DelayEstimator*>(handle); }
const DelayEstimator* Near(const void* handle) { return static_cast<const DelayEstimator*>(handle); }

}  // namespace

void* Adsp_CreateDelayEstimatorFarend(DelayEstimatorFarend* self_buf, int spectrum_size, int history_size) {
  if (self_buf == nullptr || spectrum_size != kDelayEstimatorSpectrumSize) return nullptr;
  if (Adsp_CreateBinaryDelayEstimatorFarend(&self_buf->binary_farend, history_size) != 0) return nullptr;
  self_buf->spectrum_size = spectrum_size;
  Adsp_InitDelayEstimatorFarend(self_buf);
  return self_buf;
}

int Adsp_InitDelayEstimatorFarend(void* handle) {
  DelayEstimatorFarend* self = Farend(handle);
  if (self == nullptr) return -1;
  Adsp_InitBinaryDelayEstimatorFarend(&self->binary_farend);
  for (SpectrumType& mean : self->mean_far_spectrum) mean.float_ = 0.0f;
  self->far_spectrum_initialized = 0;
  return 0;
}

void Adsp_SoftResetDelayEstimatorFarend(void* handle, int delay_shift) {
  if (handle == nullptr) return;
  Adsp_SoftResetBinaryDelayEstimatorFarend(&Farend(handle)->binary_farend, delay_shift);
}

int Adsp_AddFarSpectrumFloat(void* handle, const float* far_spectrum, int spectrum_size) {
  DelayEstimatorFarend* self = Farend(handle);
  if (self == nullptr || far_spectrum == nullptr || spectrum_size != self->spectrum_size) return -1;
  const uint32_t binary_spectrum =
      BinarySpectrumFloat(far_spectrum, self->mean_far_spectrum, &self->far_spectrum_initialized);
  Adsp_AddBinaryFarSpectrum(&self->binary_farend, binary_spectrum);
  return 0;
}

int Adsp_AddFarSpectrumFix(void* handle, const uint16_t* far_spectrum, int spectrum_size, int far_q) {
  DelayEstimatorFarend* self = Farend(handle);
  if (self == nullptr || far_spectrum == nullptr || spectrum_size != self->spectrum_size) return -1;
  if (far_q < 0 || far_q > 15) return -1;
  const uint32_t binary_spectrum =
      BinarySpectrumFix(far_spectrum, self->mean_far_spectrum, far_q, &self->far_spectrum_initialized);
  Adsp_AddBinaryFarSpectrum(&self->binary_farend, binary_spectrum);
  return 0;
}

void* Adsp_CreateDelayEstimator(DelayEstimator* self_buf, void* farend_handle, int max_lookahead) {
  DelayEstimatorFarend* farend = Farend(farend_handle);
  if (self_buf == nullptr || farend == nullptr || farend->spectrum_size != kDelayEstimatorSpectrumSize) {
    return nullptr;
  }
  if (Adsp_CreateBinaryDelayEstimator(&self_buf->binary_handle, &farend->binary_farend, max_lookahead) != 0) {
    return nullptr;
  }
  self_buf->spectrum_size = farend->spectrum_size;
  Adsp_InitDelayEstimator(self_buf);
  return self_buf;
}

int Adsp_InitDelayEstimator(void* handle) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  Adsp_InitBinaryDelayEstimator(&self->binary_handle);
  for (SpectrumType& mean : self->mean_near_spectrum) mean.float_ = 0.0f;
  self->near_spectrum_initialized = 0;
  return 0;
}

int Adsp_SoftResetDelayEstimator(void* handle, int delay_shift) {
  if (handle == nullptr) return -1;
  return Adsp_SoftResetBinaryDelayEstimator(&Near(handle)->binary_handle, delay_shift);
}

int Adsp_DelayEstimatorProcessFloat(void* handle, const float* near_spectrum, int spectrum_size) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || near_spectrum == nullptr || spectrum_size != self->spectrum_size) return -1;
  const uint32_t binary_spectrum =
      BinarySpectrumFloat(near_spectrum, self->mean_near_spectrum, &self->near_spectrum_initialized);
  return Adsp_ProcessBinarySpectrum(&self->binary_handle, binary_spectrum);
}

int Adsp_DelayEstimatorProcessFix(void* handle, const uint16_t* near_spectrum, int spectrum_size, int near_q) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || near_spectrum == nullptr || spectrum_size != self->spectrum_size) return -1;
  if (near_q < 0 || near_q > 15) return -1;
  const uint32_t binary_spectrum =
      BinarySpectrumFix(near_spectrum, self->mean_near_spectrum, near_q, &self->near_spectrum_initialized);
  return Adsp_ProcessBinarySpectrum(&self->binary_handle, binary_spectrum);
}

// Both ends share one history length; changing it restarts them, as the old
// comparisons no longer line up with the new positions.
int Adsp_set_history_size(void* handle, int history_size) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || history_size < 2 || history_size > kHistorySizeBlocks) return -1;
  BinaryDelayEstimator* binary = &self->binary_handle;
  BinaryDelayEstimatorFarend* farend = Adsp_BinaryFarendOf(binary);
  farend->history_size = history_size;
  binary->history_size = history_size;
  Adsp_InitBinaryDelayEstimatorFarend(farend);
  Adsp_InitBinaryDelayEstimator(binary);
  return history_size;
}

int Adsp_history_size(const void* handle) {
  const DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  return self->binary_handle.history_size;
}

int Adsp_set_lookahead(void* handle, int lookahead) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || lookahead < 0 || lookahead > self->binary_handle.near_history_size - 1) return -1;
  self->binary_handle.lookahead = lookahead;
  return lookahead;
}

int Adsp_lookahead(void* handle) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  return self->binary_handle.lookahead;
}

int Adsp_set_allowed_offset(void* handle, int allowed_offset) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || allowed_offset < 0) return -1;
  self->binary_handle.allowed_offset = allowed_offset;
  return 0;
}

int Adsp_get_allowed_offset(const void* handle) {
  const DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  return self->binary_handle.allowed_offset;
}

int Adsp_enable_robust_validation(void* handle, int enable) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr || enable < 0 || enable > 1) return -1;
  self->binary_handle.robust_validation_enabled = enable;
  return 0;
}

int Adsp_is_robust_validation_enabled(const void* handle) {
  const DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  return self->binary_handle.robust_validation_enabled;
}

int Adsp_last_delay(void* handle) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr) return -1;
  return Adsp_binary_last_delay(&self->binary_handle);
}

float Adsp_last_delay_quality(void* handle) {
  DelayEstimator* self = Near(handle);
  if (self == nullptr) return 0.0f;
  return Adsp_binary_last_delay_quality(&self->binary_handle);
}

}  // namespace vorn
