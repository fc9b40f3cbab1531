// Binary-spectrum delay estimator: the far end and the near end are each
// reduced to one 32-bit word per block (one bit per band, set when the band is
// above its running mean). The near-end word is compared with a history of
// far-end words by counting differing bits; the history position whose
// smoothed count is lowest, and distinctly so, is the delay in blocks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn {

inline constexpr int kHistorySizeBlocks = 125;  // far-end history, blocks
inline constexpr int kMaxBitCountsQ9 = 16384;   // 32 bits in Q9

// Set bits of a word, counted in pairs, nibbles and bytes: std::popcount's
// count, in shifts and masks the compiler runs four words at a time (the
// x86-64 baseline has no population count, and the library call it would
// make costs more per word).
inline constexpr int BitCount(uint32_t x) {
  x = x - ((x >> 1) & 0x55555555u);
  x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
  x = (x + (x >> 4)) & 0x0f0f0f0fu;
  x = x + (x >> 8);
  x = x + (x >> 16);
  return static_cast<int>(x & 0x3fu);
}

struct BinaryDelayEstimatorFarend {
  int far_bit_counts[kHistorySizeBlocks];            // set bits of each stored far-end word
  uint32_t binary_far_history[kHistorySizeBlocks];   // newest at 0
  int history_size;
};
static_assert(sizeof(BinaryDelayEstimatorFarend) == 1004);

struct BinaryDelayEstimator {
  int32_t mean_bit_counts[kHistorySizeBlocks + 1];     // smoothed differing-bit counts, Q9
  int32_t bit_counts[kHistorySizeBlocks];              // this block's differing-bit counts
  uint32_t binary_near_history[kHistorySizeBlocks + 1];  // near-end words, newest at 0
  int near_history_size;  // max lookahead + 1
  int history_size;
  int32_t minimum_probability;     // Q9
  int last_delay_probability;      // Q9
  int last_delay;                  // -2 until a first delay is accepted
  int robust_validation_enabled;
  int allowed_offset;              // blocks a new delay may lie from the last one unpenalised
  int last_candidate_delay;
  int compare_delay;               // delay whose histogram value is the quality
  int candidate_hits;              // consecutive blocks with the same candidate
  float histogram[kHistorySizeBlocks + 1];  // evidence per delay, 0..3000
  float last_delay_histogram;               // histogram value of last_delay, capped at 250
  int lookahead;                   // blocks the near end is looked at late
  // The far end this estimator compares with, as a byte offset from this
  // record: both live in the owner's instance and move with it.
  std::ptrdiff_t farend_offset;
};
static_assert(offsetof(BinaryDelayEstimator, bit_counts) == 504);
static_assert(offsetof(BinaryDelayEstimator, binary_near_history) == 1004);
static_assert(offsetof(BinaryDelayEstimator, near_history_size) == 1508);
static_assert(offsetof(BinaryDelayEstimator, histogram) == 1548);
static_assert(offsetof(BinaryDelayEstimator, lookahead) == 2056);
static_assert(offsetof(BinaryDelayEstimator, farend_offset) == (sizeof(std::ptrdiff_t) == 8 ? 2064 : 2060));
static_assert(sizeof(BinaryDelayEstimator) == offsetof(BinaryDelayEstimator, farend_offset) + sizeof(std::ptrdiff_t));

// Far end. Create checks the history size (2..kHistorySizeBlocks) and
// initialises: 0, or -1.
int Adsp_CreateBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self, int history_size);
void Adsp_InitBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self);
// Shifts the history by delay_shift blocks (positive: toward the old end),
// zero-filling the vacated places.
void Adsp_SoftResetBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self, int delay_shift);
void Adsp_AddBinaryFarSpectrum(BinaryDelayEstimatorFarend* self, uint32_t binary_far_spectrum);

// The far end an estimator was created over.
inline BinaryDelayEstimatorFarend* Adsp_BinaryFarendOf(BinaryDelayEstimator* self) {
  return reinterpret_cast<BinaryDelayEstimatorFarend*>(reinterpret_cast<std::uintptr_t>(self) +
                                                        static_cast<std::uintptr_t>(self->farend_offset));
}
inline const BinaryDelayEstimatorFarend* Adsp_BinaryFarendOf(const BinaryDelayEstimator* self) {
  return Adsp_BinaryFarendOf(const_cast<BinaryDelayEstimator*>(self));
}

// Near end over a far end. max_lookahead 0..kHistorySizeBlocks. 0, or -1.
int Adsp_CreateBinaryDelayEstimator(BinaryDelayEstimator* self, BinaryDelayEstimatorFarend* farend,
                                    int max_lookahead);
void Adsp_InitBinaryDelayEstimator(BinaryDelayEstimator* self);
// Lowers the lookahead by delay_shift (kept within 0..near_history_size - 1);
// returns the part of the shift that could not be absorbed.
int Adsp_SoftResetBinaryDelayEstimator(BinaryDelayEstimator* self, int delay_shift);
// Compares one near-end word with the far-end history; returns the current
// delay (last_delay), -2 while none has been accepted.
int Adsp_ProcessBinarySpectrum(BinaryDelayEstimator* self, uint32_t binary_near_spectrum);
int Adsp_binary_last_delay(const BinaryDelayEstimator* self);
float Adsp_binary_last_delay_quality(const BinaryDelayEstimator* self);

// *mean_value += (new_value - *mean_value) >> factor, the shift applied to the
// magnitude of the difference so that both directions round toward the mean.
void Adsp_MeanEstimatorFix(int32_t new_value, int factor, int32_t* mean_value);

}  // namespace vorn
