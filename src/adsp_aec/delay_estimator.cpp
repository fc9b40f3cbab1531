// Delay estimation on binary spectra.
//
// Each block the near-end word is XORed with every stored far-end word; the
// differing-bit counts are smoothed per history position (Q9, faster where
// the far word carries more set bits, since those comparisons say more). The
// lowest smoothed count is the candidate; it is accepted when it lies a clear
// valley below the worst position and below an adaptive probability level.
//
// Robust validation adds a per-delay histogram of evidence so that a short
// burst of misleading blocks (double talk, a moving talker, a click) cannot
// move an established delay, while a delay that really changed takes over
// within a fraction of a second:
//   - growth: the candidate's bin gains the valley depth in bits each block
//     where its far word carried bits (no growth on stale comparisons);
//   - decay: every bin loses 1/256 per block (time constant about one second
//     at 4 ms blocks), so a steady valley of v bits settles near 256 v, and
//     the bins stay within 0..3000;
//   - the last delay defends itself with its bin value, capped at 250 so that
//     a long-established delay cannot lock out a real change for longer than
//     the few dozen blocks a new delay needs to gather 250;
//   - a candidate farther than allowed_offset blocks from the last delay is
//     weighed down by 0.05 per block beyond the offset (to no less than half),
//     since large jumps are less likely than small drifts;
//   - the compared value has a floor of 1.5 so that some evidence is always
//     needed, even against a last delay whose bin has decayed away;
//   - a candidate replaces the last delay when the plain rule accepts it and
//     its weighted bin is at least the compared value, or on its histogram
//     alone (weighted bin above the compared value) once it has been the
//     candidate for 11 consecutive blocks.
#include "adsp_aec/delay_estimator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace vorn {
namespace {

// A fresh smoothed count starts at 20 bits, above the 16 expected between
// unrelated words: a position without evidence sits above any real match
// without deepening the valley as much as a 32-bit start would.
constexpr int32_t kInitialMeanBitCountsQ9 = 20 << 9;
constexpr int32_t kProbabilityOffsetQ9 = 1024;       // 2 bits
constexpr int32_t kProbabilityLowerLimitQ9 = 8704;   // 17 bits
constexpr int32_t kProbabilityMinSpreadQ9 = 2816;    // 5.5 bits
constexpr float kHistogramMax = 3000.0f;
constexpr float kHistogramDecay = 1.0f - 1.0f / 256.0f;
constexpr float kLastDelayHistogramCap = 250.0f;
constexpr float kMinComparedHistogram = 1.5f;
constexpr float kOffsetPenaltyPerBlock = 0.05f;
constexpr float kMinOffsetWeight = 0.5f;
constexpr int kMinCandidateHits = 11;

void UpdateHistogram(BinaryDelayEstimator* self, int candidate, int32_t valley_depth_Q9) {
  for (int i = 0; i < self->history_size; ++i) self->histogram[i] *= kHistogramDecay;
  if (valley_depth_Q9 > kProbabilityOffsetQ9 && Adsp_BinaryFarendOf(self)->far_bit_counts[candidate] > 0) {
    const float valley_bits = static_cast<float>(valley_depth_Q9) / 512.0f;
    self->histogram[candidate] = std::min(self->histogram[candidate] + valley_bits, kHistogramMax);
  }
  self->last_delay_histogram =
      self->last_delay >= 0 ? std::min(self->histogram[self->last_delay], kLastDelayHistogramCap) : 0.0f;
}

bool RobustValidation(const BinaryDelayEstimator* self, int candidate, bool plain_valid) {
  if (self->last_delay < 0 || candidate == self->last_delay) return plain_valid;
  const int distance = std::abs(candidate - self->last_delay);
  const int beyond_offset = std::max(distance - self->allowed_offset, 0);
  const float weight = std::max(1.0f - kOffsetPenaltyPerBlock * beyond_offset, kMinOffsetWeight);
  const float candidate_value = weight * self->histogram[candidate];
  const float compared_value = std::max(self->last_delay_histogram, kMinComparedHistogram);
  if (plain_valid && candidate_value >= compared_value) return true;
  return self->candidate_hits >= kMinCandidateHits && candidate_value > compared_value;
}

}  // namespace

void Adsp_MeanEstimatorFix(int32_t new_value, int factor, int32_t* mean_value) {
  const int32_t diff = new_value - *mean_value;
  // Shift the magnitude so that a falling mean moves by as much as a rising
  // one: -((-diff) >> factor) for a negative difference, formed with its sign
  // mask rather than a branch, which the sign of a delay's match would make
  // as good as random.
  const int32_t sign = diff >> 31;
  *mean_value += ((((diff ^ sign) - sign) >> factor) ^ sign) - sign;
}

int Adsp_CreateBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self, int history_size) {
  if (self == nullptr || history_size < 2 || history_size > kHistorySizeBlocks) return -1;
  self->history_size = history_size;
  Adsp_InitBinaryDelayEstimatorFarend(self);
  return 0;
}

void Adsp_InitBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self) {
  std::memset(self->far_bit_counts, 0, sizeof(self->far_bit_counts));
  std::memset(self->binary_far_history, 0, sizeof(self->binary_far_history));
}

void Adsp_SoftResetBinaryDelayEstimatorFarend(BinaryDelayEstimatorFarend* self, int delay_shift) {
  if (self == nullptr || delay_shift == 0) return;
  const int size = self->history_size;
  const int abs_shift = std::min(std::abs(delay_shift), size);
  const int kept = size - abs_shift;
  if (delay_shift > 0) {  // toward the old end; the newest places are vacated
    std::memmove(self->binary_far_history + abs_shift, self->binary_far_history, kept * sizeof(uint32_t));
    std::memmove(self->far_bit_counts + abs_shift, self->far_bit_counts, kept * sizeof(int));
    std::memset(self->binary_far_history, 0, abs_shift * sizeof(uint32_t));
    std::memset(self->far_bit_counts, 0, abs_shift * sizeof(int));
  } else {  // toward the new end; the oldest places are vacated
    std::memmove(self->binary_far_history, self->binary_far_history + abs_shift, kept * sizeof(uint32_t));
    std::memmove(self->far_bit_counts, self->far_bit_counts + abs_shift, kept * sizeof(int));
    std::memset(self->binary_far_history + kept, 0, abs_shift * sizeof(uint32_t));
    std::memset(self->far_bit_counts + kept, 0, abs_shift * sizeof(int));
  }
}

void Adsp_AddBinaryFarSpectrum(BinaryDelayEstimatorFarend* self, uint32_t binary_far_spectrum) {
  const int kept = self->history_size - 1;
  std::memmove(self->binary_far_history + 1, self->binary_far_history, kept * sizeof(uint32_t));
  std::memmove(self->far_bit_counts + 1, self->far_bit_counts, kept * sizeof(int));
  self->binary_far_history[0] = binary_far_spectrum;
  self->far_bit_counts[0] = BitCount(binary_far_spectrum);
}

int Adsp_CreateBinaryDelayEstimator(BinaryDelayEstimator* self, BinaryDelayEstimatorFarend* farend,
                                    int max_lookahead) {
  if (self == nullptr || farend == nullptr || max_lookahead < 0 || max_lookahead > kHistorySizeBlocks) return -1;
  self->farend_offset = static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(farend) -
                                                    reinterpret_cast<std::uintptr_t>(self));
  self->history_size = farend->history_size;
  self->near_history_size = max_lookahead + 1;
  self->lookahead = max_lookahead;
  self->robust_validation_enabled = 0;
  self->allowed_offset = 0;
  Adsp_InitBinaryDelayEstimator(self);
  return 0;
}

// Clears the estimate; the configuration (lookahead, robust validation,
// allowed offset, sizes) is kept, as the owner sets it once after creation.
void Adsp_InitBinaryDelayEstimator(BinaryDelayEstimator* self) {
  std::memset(self->bit_counts, 0, sizeof(self->bit_counts));
  std::memset(self->binary_near_history, 0, sizeof(self->binary_near_history));
  std::fill(std::begin(self->mean_bit_counts), std::end(self->mean_bit_counts), kInitialMeanBitCountsQ9);
  std::fill(std::begin(self->histogram), std::end(self->histogram), 0.0f);
  self->minimum_probability = kMaxBitCountsQ9;
  self->last_delay_probability = kMaxBitCountsQ9;
  self->last_delay = -2;
  self->last_candidate_delay = -2;
  self->compare_delay = -2;
  self->candidate_hits = 0;
  self->last_delay_histogram = 0.0f;
}

int Adsp_SoftResetBinaryDelayEstimator(BinaryDelayEstimator* self, int delay_shift) {
  if (self == nullptr) return delay_shift;
  const int old_lookahead = self->lookahead;
  self->lookahead = std::clamp(old_lookahead - delay_shift, 0, self->near_history_size - 1);
  return delay_shift - (old_lookahead - self->lookahead);
}

int Adsp_ProcessBinarySpectrum(BinaryDelayEstimator* self, uint32_t binary_near_spectrum) {
  if (self->near_history_size > 1) {
    // Look at the near end lookahead blocks late so that small negative
    // delays (near before far) stay measurable.
    std::memmove(self->binary_near_history + 1, self->binary_near_history,
                 (self->near_history_size - 1) * sizeof(uint32_t));
    self->binary_near_history[0] = binary_near_spectrum;
    binary_near_spectrum = self->binary_near_history[self->lookahead];
  }

  const BinaryDelayEstimatorFarend* farend = Adsp_BinaryFarendOf(self);
  for (int i = 0; i < self->history_size; ++i) {
    self->bit_counts[i] = BitCount(binary_near_spectrum ^ farend->binary_far_history[i]);
  }
  for (int i = 0; i < self->history_size; ++i) {
    if (farend->far_bit_counts[i] > 0) {
      const int shifts = 13 - ((3 * farend->far_bit_counts[i]) >> 4);
      Adsp_MeanEstimatorFix(self->bit_counts[i] << 9, shifts, &self->mean_bit_counts[i]);
    }
  }

  int candidate = -1;
  int32_t best_Q9 = kMaxBitCountsQ9;
  int32_t worst_Q9 = 0;
  for (int i = 0; i < self->history_size; ++i) {
    if (self->mean_bit_counts[i] < best_Q9) {
      best_Q9 = self->mean_bit_counts[i];
      candidate = i;
    }
    worst_Q9 = std::max(worst_Q9, self->mean_bit_counts[i]);
  }
  const int32_t valley_depth_Q9 = worst_Q9 - best_Q9;

  // Tighten the acceptance level while the valley is clearly deep; the last
  // delay's own level relaxes by one step per block so that a better delay can
  // always take over eventually.
  if (self->minimum_probability > kProbabilityLowerLimitQ9 && valley_depth_Q9 > kProbabilityMinSpreadQ9) {
    const int32_t threshold_Q9 = std::max(best_Q9 + kProbabilityOffsetQ9, kProbabilityLowerLimitQ9);
    if (threshold_Q9 < self->minimum_probability) self->minimum_probability = threshold_Q9;
  }
  ++self->last_delay_probability;

  if (candidate < 0) return self->last_delay;

  if (candidate == self->last_candidate_delay) {
    self->candidate_hits = std::min(self->candidate_hits + 1, kMinCandidateHits);
  } else {
    self->last_candidate_delay = candidate;
    self->candidate_hits = 0;
  }

  const bool plain_valid = valley_depth_Q9 > kProbabilityOffsetQ9 &&
                           (best_Q9 < self->minimum_probability || best_Q9 < self->last_delay_probability);
  bool valid = plain_valid;
  if (self->robust_validation_enabled) {
    UpdateHistogram(self, candidate, valley_depth_Q9);
    valid = RobustValidation(self, candidate, plain_valid);
  }
  if (valid) {
    self->last_delay = candidate;
    self->last_delay_probability = best_Q9;
    self->compare_delay = candidate;
    if (self->robust_validation_enabled) {
      self->last_delay_histogram = std::min(self->histogram[candidate], kLastDelayHistogramCap);
    }
  }
  return self->last_delay;
}

int Adsp_binary_last_delay(const BinaryDelayEstimator* self) { return self->last_delay; }

float Adsp_binary_last_delay_quality(const BinaryDelayEstimator* self) {
  if (self->robust_validation_enabled) {
    if (self->compare_delay < 0) return 0.0f;
    return self->histogram[self->compare_delay] / kHistogramMax;
  }
  return std::max(0.0f, static_cast<float>(kMaxBitCountsQ9 - self->last_delay_probability) /
                            static_cast<float>(kMaxBitCountsQ9));
}

}  // namespace vorn
