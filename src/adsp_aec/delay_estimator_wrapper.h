// Float front of the delay estimator: turns 65-bin power spectra into binary
// spectra (bands 12..43 against their running means) and drives the binary
// estimator. The records live in the owner's memory; the handles are pointers
// to them, handed in on every call and never stored.
#pragma once

#include <cstddef>
#include <cstdint>

#include "adsp_aec/delay_estimator.h"

namespace vorn {

inline constexpr int kDelayEstimatorSpectrumSize = 65;
inline constexpr int kBandFirst = 12;  // first band of the binary spectrum
inline constexpr int kBandLast = 43;   // last band (32 bands, one bit each)

union SpectrumType {
  float float_;
  int32_t int32_;
};
static_assert(sizeof(SpectrumType) == 4);

struct DelayEstimatorFarend {
  SpectrumType mean_far_spectrum[kDelayEstimatorSpectrumSize];
  int far_spectrum_initialized;
  int spectrum_size;
  BinaryDelayEstimatorFarend binary_farend;
};
static_assert(offsetof(DelayEstimatorFarend, binary_farend) == 268);
static_assert(sizeof(DelayEstimatorFarend) == 1272);

struct DelayEstimator {
  SpectrumType mean_near_spectrum[kDelayEstimatorSpectrumSize];
  int near_spectrum_initialized;
  int spectrum_size;
  BinaryDelayEstimator binary_handle;
};
static_assert(offsetof(DelayEstimator, binary_handle) == (alignof(BinaryDelayEstimator) == 8 ? 272 : 268));

// Far end: self_buf is the owner's DelayEstimatorFarend; returns it as the
// handle, or null when spectrum_size is not 65 or history_size is not 2..125.
void* Adsp_CreateDelayEstimatorFarend(DelayEstimatorFarend* self_buf, int spectrum_size, int history_size);
int Adsp_InitDelayEstimatorFarend(void* handle);  // 0, or -1 for a null handle
void Adsp_SoftResetDelayEstimatorFarend(void* handle, int delay_shift);
// 0, or -1 for a null handle, a null spectrum or a size other than the created one.
int Adsp_AddFarSpectrumFloat(void* handle, const float* far_spectrum, int spectrum_size);
// Fixed-point twin: the spectrum is in Q far_q (0..15; -1 beyond).
int Adsp_AddFarSpectrumFix(void* handle, const uint16_t* far_spectrum, int spectrum_size, int far_q);

// Near end over a far-end handle; null unless the far end has 65 bins and
// max_lookahead is 0..125.
void* Adsp_CreateDelayEstimator(DelayEstimator* self_buf, void* farend_handle, int max_lookahead);
int Adsp_InitDelayEstimator(void* handle);  // 0, or -1 for a null handle
// Lowers the lookahead by delay_shift after the owner moved its far-end data;
// returns the part of the shift the lookahead could not absorb (-1 for a null
// handle).
int Adsp_SoftResetDelayEstimator(void* handle, int delay_shift);
// Returns the current delay in blocks (-2 while none is known), or -1 for a
// null handle, a null spectrum or a size other than the created one.
int Adsp_DelayEstimatorProcessFloat(void* handle, const float* near_spectrum, int spectrum_size);
// Fixed-point twin: the spectrum is in Q near_q (0..15; -1 beyond).
int Adsp_DelayEstimatorProcessFix(void* handle, const uint16_t* near_spectrum, int spectrum_size, int near_q);

// Changes the history of both ends (2..125) and restarts them; returns the
// new size, or -1.
int Adsp_set_history_size(void* handle, int history_size);
int Adsp_history_size(const void* handle);
// lookahead 0..max_lookahead; returns it, or -1.
int Adsp_set_lookahead(void* handle, int lookahead);
int Adsp_lookahead(void* handle);
int Adsp_set_allowed_offset(void* handle, int allowed_offset);  // 0, or -1 (null, negative)
int Adsp_get_allowed_offset(const void* handle);
int Adsp_enable_robust_validation(void* handle, int enable);     // 0, or -1 (null, not 0/1)
int Adsp_is_robust_validation_enabled(const void* handle);
int Adsp_last_delay(void* handle);           // -1 for a null handle
float Adsp_last_delay_quality(void* handle);  // 0..1

}  // namespace vorn
