// Echo canceller core: creation, the far-end partitions and the block driver.
//
// The far end arrives as 128-sample partitions (64 new samples each) whose
// spectra wait in a ring; the near end arrives in 64-sample blocks. Each block
// runs two partitioned overlap-save NLMS filters over the same far-end history:
// the adaptive filter keeps a constant step and follows echo-path changes at
// once; the main filter starts with the same step and slowly freezes, so that
// it settles close to the true path and resists double talk. A per-block
// comparison of their errors decides when one is copied into the other. The
// main filter's error is the canceller's linear output; the adaptive filter's
// error is the second error signal the post-filter variant looks at. The
// far-end spectra are aligned to the near end by a binary-spectrum delay
// estimator before filtering, so the 48 ms filter only has to span the room.
#include "adsp_aec/aec_core.h"

#include <cmath>
#include <cstring>

#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/delay_estimator_wrapper.h"

namespace vorn {

namespace {

constexpr int kFarSpectrumFloats = 2 * kAecBins;
constexpr float kInverseScale = 2.0f / kAecBlockLen2;
constexpr int kEstimatorFarLagBlocks = 3;

// Alignment moves shift which far-end spectrum is read next; the far-end
// sample bookkeeping (system_delay) belongs to the buffer management of the
// instance and is left as it is.
int MoveFarReadPtrWithoutSystemDelayUpdate(AecCore* aec, int elements) {
  const int moved = Adsp_MoveReadPtr(&aec->far_buf_windowed, elements);
  Adsp_MoveReadPtr(&aec->far_buf, moved);
  return moved;
}

void ResetDoubleFilter(DoubleFilter* df) { std::memset(df, 0, sizeof(*df)); }

// Runs one filter (selected by filter_flag) over the current far history:
// output, error against the near block and its step-scaled spectrum (ef,
// what the adaptation adds). Writes the error block (64 samples) and returns
// its energy.
float RunFilter(AecCore* aec, const float* near_block, float* error_block, float ef[2][kAecBins]) {
  alignas(16) float fft[kAecBlockLen2];
  float yf[2][kAecBins] = {};
  FilterFar(aec, yf);
  aec_rdft_pack_128(yf, fft);
  aec_rdft_inverse_128(fft);
  float energy = 0.0f;
  for (int i = 0; i < kAecBlockLen; ++i) {
    error_block[i] = near_block[i] - fft[kAecBlockLen + i] * kInverseScale;
    energy += error_block[i] * error_block[i];
  }
  std::memset(fft, 0, sizeof(float) * kAecBlockLen);
  std::memcpy(fft + kAecBlockLen, error_block, sizeof(float) * kAecBlockLen);
  aec_rdft_forward_128(fft);
  aec_rdft_unpack_128(fft, ef);
  ScaleErrorSignal(aec, ef);
  return energy;
}

}  // namespace

float AdspAec_FilterBlock(AecCore* aec) {
  // Far-end power is smoothed with these weights; the partition count scales
  // it to the energy the whole filter sees, which is what normalises the step.
  const float kPowSmooth[2] = {0.9f, 0.1f};

  float near_copy[kAecBlockLen];
  float* near_block = nullptr;
  Adsp_ReadBuffer(&aec->nearFrBuf, reinterpret_cast<void**>(&near_block), near_copy, kAecBlockLen);
  std::memcpy(aec->dBuf + kAecBlockLen, near_block, sizeof(float) * kAecBlockLen);
  for (int b = 0; b < aec->num_bands - 1 && b < kMaxUpperBands; ++b) {
    float band_copy[kAecBlockLen];
    float* band_block = nullptr;
    // A caller that hands in fewer bands than the rate implies leaves the
    // missing ones silent.
    if (Adsp_ReadBuffer(&aec->nearFrBufH[b], reinterpret_cast<void**>(&band_block), band_copy,
                        kAecBlockLen) == static_cast<size_t>(kAecBlockLen)) {
      std::memcpy(aec->dBufH[b] + kAecBlockLen, band_block, sizeof(float) * kAecBlockLen);
    } else {
      std::memset(aec->dBufH[b] + kAecBlockLen, 0, sizeof(float) * kAecBlockLen);
    }
  }

  // The far-end spectra of this block; an empty ring (no far end buffered at
  // all yet) reads as silence.
  float xf[2][kAecBins] = {};
  float xfw[2][kAecBins] = {};
  {
    float copy[kFarSpectrumFloats];
    float* ptr = nullptr;
    if (Adsp_ReadBuffer(&aec->far_buf_windowed, reinterpret_cast<void**>(&ptr), copy, 1) == 1)
      std::memcpy(xfw, ptr, sizeof(xfw));
    if (Adsp_ReadBuffer(&aec->far_buf, reinterpret_cast<void**>(&ptr), copy, 1) == 1)
      std::memcpy(xf, ptr, sizeof(xf));
  }

  float far_power_sum = 0.0f;
  for (int k = 0; k < kAecBins; ++k) {
    const float far_power = xf[0][k] * xf[0][k] + xf[1][k] * xf[1][k];
    far_power_sum += far_power;
    aec->xPow[k] = kPowSmooth[0] * aec->xPow[k] +
                   kPowSmooth[1] * static_cast<float>(aec->num_partitions) * far_power;
  }

  // Newest far spectrum goes one place back in the circular history, so that
  // partition p reads position (xfBufBlockPos + p).
  aec->xfBufBlockPos -= 1;
  if (aec->xfBufBlockPos < 0) aec->xfBufBlockPos += aec->num_partitions;
  const int pos = aec->xfBufBlockPos * kAecBins;
  std::memcpy(&aec->xfBuf[0][pos], xf[0], sizeof(float) * kAecBins);
  std::memcpy(&aec->xfBuf[1][pos], xf[1], sizeof(float) * kAecBins);
  for (int k = 0; k < kAecBins; ++k) {
    aec->xfwBuf[pos + k][0] = xfw[0][k];
    aec->xfwBuf[pos + k][1] = xfw[1][k];
  }

  const float* near_now = aec->dBuf + kAecBlockLen;
  // Each filter's adaptation changes only its own taps, which the other's
  // run does not read, so both adapt after both have run.
  float ef_adaptive[2][kAecBins], ef_main[2][kAecBins];
  aec->filter_flag = 1;
  const float adaptive_energy = RunFilter(aec, near_now, aec->cBuf + kAecBlockLen, ef_adaptive);
  aec->filter_flag = 0;
  const float main_energy = RunFilter(aec, near_now, aec->eBuf + kAecBlockLen, ef_main);
  AdaptBothFilters(aec, ef_adaptive, ef_main);

  // Mean square of the far partition from its half spectrum (Parseval).
  const float far_mean_square = far_power_sum / (kAecBlockLen * kAecBlockLen2);
  UpdateDoubleFilter(aec, main_energy, adaptive_energy, far_mean_square);
  return far_mean_square;
}

void AdspAec_FeedDelayEstimator(AecCore* aec) {
  alignas(16) float fft[kAecBlockLen2];
  std::memcpy(fft, aec->dBuf, sizeof(fft));
  aec_rdft_forward_128(fft);
  float df[2][kAecBins];
  aec_rdft_unpack_128(fft, df);

  float abs_far[kAecBins];
  float abs_near[kAecBins];  // magnitudes: what the delay estimator binarises
  for (int k = 0; k < kAecBins; ++k) abs_near[k] = std::sqrt(df[0][k] * df[0][k] + df[1][k] * df[1][k]);

  // The delay estimator sees the far end kEstimatorFarLagBlocks late, which
  // makes every alignment it triggers leave that many blocks of causal
  // margin: the strongest taps of a room come first, and an alignment that
  // overshoots by a single block puts them before the far-end partition,
  // where no filter tap can reach them, while the 12 partitions have room
  // to spare behind a 30 ms room.
  {
    int lagged = aec->xfBufBlockPos + kEstimatorFarLagBlocks;
    if (lagged >= aec->num_partitions) lagged -= aec->num_partitions;
    for (int k = 0; k < kAecBins; ++k) {
      const float re = aec->xfBuf[0][lagged * kAecBins + k];
      const float im = aec->xfBuf[1][lagged * kAecBins + k];
      abs_far[k] = std::sqrt(re * re + im * im);
    }
  }
  Adsp_AddFarSpectrumFloat(&aec->delay_estimator_farend, abs_far, kAecBins);
  const int delay_estimate = Adsp_DelayEstimatorProcessFloat(&aec->delay_estimator, abs_near, kAecBins);
  // The histogram reports true delays: the estimator's lag is added back.
  const int logged_delay = delay_estimate + kEstimatorFarLagBlocks;
  if (aec->delay_logging_enabled && delay_estimate >= 0 && logged_delay < kHistorySizeBlocks)
    aec->delay_histogram[logged_delay] += 1;
}

float AdspAec_ProcessLinearBlock(AecCore* aec) {
  const float far_mean_square = AdspAec_FilterBlock(aec);
  // The filters change neither the near block nor the far history the
  // estimator reads.
  AdspAec_FeedDelayEstimator(aec);
  return far_mean_square;
}

void AdspAec_FinishBlock(AecCore* aec) {
  std::memmove(aec->dBuf, aec->dBuf + kAecBlockLen, sizeof(float) * kAecBlockLen);
  std::memmove(aec->eBuf, aec->eBuf + kAecBlockLen, sizeof(float) * kAecBlockLen);
  std::memmove(aec->cBuf, aec->cBuf + kAecBlockLen, sizeof(float) * kAecBlockLen);
  for (int b = 0; b < aec->num_bands - 1 && b < kMaxUpperBands; ++b)
    std::memmove(aec->dBufH[b], aec->dBufH[b] + kAecBlockLen, sizeof(float) * kAecBlockLen);
  aec->frame_count += 1;
}

namespace {

void ProcessBlock(AecCore* aec) {
  const float far_mean_square = AdspAec_ProcessLinearBlock(aec);
  ProcessNlpBlock(aec, far_mean_square);
  AdspAec_FinishBlock(aec);
}

void SignalBasedDelayCorrection(AecCore* aec) {
  int shift = 0;
  const int last_delay = Adsp_last_delay(&aec->delay_estimator);
  const float quality = Adsp_last_delay_quality(&aec->delay_estimator);
  if (last_delay >= 0 && last_delay != aec->previous_delay &&
      quality > aec->delay_quality_threshold) {
    const int delay = last_delay - Adsp_lookahead(&aec->delay_estimator);
    // A small positive delay is inside the filter's reach: leave it.
    const int upper_bound = aec->num_partitions / 4;
    if (delay <= 0 || delay > upper_bound) {
      shift = aec->shift_offset - delay;
      aec->shift_offset = aec->shift_offset - 1 > 1 ? aec->shift_offset - 1 : 1;
      const int available = static_cast<int>(Adsp_available_read(&aec->far_buf_windowed));
      if (shift < available - aec->mult) {
        aec->previous_delay = last_delay;
        aec->delay_correction_count += 1;
      } else {
        shift = 0;
      }
    }
  }
  // Once the alignment has been corrected, later corrections need at least
  // the quality that justified it (capped, so that one lucky estimate cannot
  // lock the alignment forever).
  if (aec->delay_correction_count > 0) {
    const float capped = quality < 0.07f ? quality : 0.07f;
    if (capped > aec->delay_quality_threshold) aec->delay_quality_threshold = capped;
  }
  if (shift != 0) {
    const int moved = MoveFarReadPtrWithoutSystemDelayUpdate(aec, shift);
    Adsp_SoftResetDelayEstimatorFarend(&aec->delay_estimator_farend, moved);
    Adsp_SoftResetDelayEstimator(&aec->delay_estimator, moved);
    aec->signal_delay_correction += moved;
  }
}

}  // namespace

int AdspAec_CreateAec(AecCore* aec) {
  if (aec == nullptr) return -1;
  if (Adsp_CreateBuffer(&aec->nearFrBuf, aec->nearFrBuf_data, kAecBlockLen2, sizeof(float)) != 0) return -2;
  for (int o = 0; o < 2; ++o) {
    if (Adsp_CreateBuffer(&aec->outFrBuf[o], aec->outFrBuf_data[o], kAecBlockLen2, sizeof(float)) != 0) return -3;
  }
  for (int b = 0; b < kMaxUpperBands; ++b) {
    if (Adsp_CreateBuffer(&aec->nearFrBufH[b], aec->nearFrBufH_data[b], kAecBlockLen2, sizeof(float)) != 0)
      return -4;
    for (int o = 0; o < 2; ++o) {
      if (Adsp_CreateBuffer(&aec->outFrBufH[o][b], aec->outFrBufH_data[o][b], kAecBlockLen2, sizeof(float)) != 0)
        return -5;
    }
  }
  if (Adsp_CreateBuffer(&aec->far_buf, aec->far_buf_data, kFarBufSizePartitions,
                        sizeof(float) * kFarSpectrumFloats) != 0)
    return -6;
  if (Adsp_CreateBuffer(&aec->far_buf_windowed, aec->far_buf_windowed_data, kFarBufSizePartitions,
                        sizeof(float) * kFarSpectrumFloats) != 0)
    return -7;
  if (Adsp_CreateDelayEstimatorFarend(&aec->delay_estimator_farend, kAecBins, kHistorySizeBlocks) == nullptr)
    return -9;
  if (Adsp_CreateDelayEstimator(&aec->delay_estimator, &aec->delay_estimator_farend, kHistorySizeBlocks) == nullptr)
    return -10;
  Adsp_set_lookahead(&aec->delay_estimator, kLookaheadBlocks);
  return 0;
}

int AdspAec_InitAec(AecCore* aec, int sampFreq) {
  aec->sampFreq = sampFreq;
  if (sampFreq == 8000) {
    aec->normal_mu = 0.6f;
    aec->normal_error_threshold = 2e-6f;
    aec->num_bands = 1;
  } else {
    aec->normal_mu = 0.5f;
    aec->normal_error_threshold = 1.5e-6f;
    aec->num_bands = sampFreq / 16000;
  }
  Adsp_InitBuffer(&aec->nearFrBuf);
  for (int o = 0; o < 2; ++o) Adsp_InitBuffer(&aec->outFrBuf[o]);
  for (int b = 0; b < kMaxUpperBands; ++b) {
    Adsp_InitBuffer(&aec->nearFrBufH[b]);
    for (int o = 0; o < 2; ++o) Adsp_InitBuffer(&aec->outFrBufH[o][b]);
  }
  Adsp_InitBuffer(&aec->far_buf);
  Adsp_InitBuffer(&aec->far_buf_windowed);
  aec->system_delay = 0;
  if (Adsp_InitDelayEstimatorFarend(&aec->delay_estimator_farend) != 0) return -1;
  if (Adsp_InitDelayEstimator(&aec->delay_estimator) != 0) return -1;
  std::memset(aec->delay_histogram, 0, sizeof(aec->delay_histogram));
  aec->delay_logging_enabled = 0;
  aec->signal_delay_correction = 0;
  aec->previous_delay = -2;
  aec->delay_correction_count = 0;
  aec->shift_offset = 5;
  aec->delay_quality_threshold = 0.0f;
  aec->reported_delay_enabled = 0;
  AdspAec_enable_delay_correction(aec, 0);
  Adsp_enable_robust_validation(&aec->delay_estimator, 1);

  aec->nlp_mode = 1;
  aec->mult = aec->num_bands == 1 ? sampFreq / 8000 : 2;
  aec->farBufWritePos = 0;
  aec->farBufReadPos = 0;
  aec->knownDelay = 0;
  aec->inSamples = 0;
  aec->outSamples = 0;
  aec->frame_count = 0;
  aec->xfBufBlockPos = 0;
  std::memset(aec->dBuf, 0, sizeof(aec->dBuf));
  std::memset(aec->eBuf, 0, sizeof(aec->eBuf));
  std::memset(aec->cBuf, 0, sizeof(aec->cBuf));
  std::memset(aec->dBufH, 0, sizeof(aec->dBufH));
  std::memset(aec->xPow, 0, sizeof(aec->xPow));
  std::memset(aec->dPow, 0, sizeof(aec->dPow));
  std::memset(aec->dInitMinPow, 0, sizeof(aec->dInitMinPow));
  aec->noise_pow_settled = 0;
  aec->noiseEstCtr = 0;
  for (int k = 0; k < kAecBins; ++k) aec->dMinPow[k] = 1.0e6f;
  std::memset(aec->xfBuf, 0, sizeof(aec->xfBuf));
  std::memset(aec->wfBuf, 0, sizeof(aec->wfBuf));
  std::memset(aec->wfBuf_main, 0, sizeof(aec->wfBuf_main));
  std::memset(aec->xfwBuf, 0, sizeof(aec->xfwBuf));
  aec->wf_main_u = 1.0f;
  aec->decay_count = 1;
  aec->filter_flag = 0;
  ResetDoubleFilter(&aec->double_filter);

  std::memset(aec->sde, 0, sizeof(aec->sde));
  std::memset(aec->sxd, 0, sizeof(aec->sxd));
  std::memset(aec->sxe, 0, sizeof(aec->sxe));
  std::memset(aec->se, 0, sizeof(aec->se));
  std::memset(aec->sc, 0, sizeof(aec->sc));
  std::memset(aec->sAEC, 0, sizeof(aec->sAEC));
  std::memset(aec->sAecPfNlpCng, 0, sizeof(aec->sAecPfNlpCng));
  std::memset(aec->Rnn, 0, sizeof(aec->Rnn));
  std::memset(aec->hNs, 0, sizeof(aec->hNs));
  for (int k = 0; k < kAecBins; ++k) {
    aec->sd[k] = 1.0f;
    aec->sx[k] = 1.0f;
  }
  std::memset(aec->outBuf, 0, sizeof(aec->outBuf));

  aec->hNlFbMin = 1.0f;
  aec->hNlFbLocalMin = 1.0f;
  aec->hNlXdAvgMin = 1.0f;
  aec->hNlNewMin = 0;
  aec->hNlMinCtr = 0;
  aec->overDrive = 2.0f;
  aec->overDriveSm = 2.0f;
  aec->delayIdx = 0;
  aec->hNlXdAvg = 0.0f;
  aec->echoState = 0;
  aec->divergeState = 0;
  aec->stNearState = 0;
  aec->subcohXd = nullptr;

  aec->seed = 777;
  aec->delayEstCtr = 0;
  aec->freq_avg_ic = 0;
  aec->flag_Hband_cn = 0;
  aec->cn_scale_Hband = 0.0f;
  InitMetrics(aec);
  return 0;
}

void AdspAec_BufferFarendPartition(AecCore* aec, const float* farend) {
  alignas(16) float fft[kAecBlockLen2];
  float spectrum[2][kAecBins];
  if (Adsp_available_write(&aec->far_buf) < 1) AdspAec_MoveFarReadPtr(aec, 1);

  std::memcpy(fft, farend, sizeof(fft));
  aec_rdft_forward_128(fft);
  aec_rdft_unpack_128(fft, spectrum);
  Adsp_WriteBuffer(&aec->far_buf, spectrum, 1);

  for (int i = 0; i < kAecBlockLen; ++i) {
    fft[i] = farend[i] * AdspAec_sqrtHanning[i];
    fft[kAecBlockLen + i] = farend[kAecBlockLen + i] * AdspAec_sqrtHanning[kAecBlockLen - i];
  }
  aec_rdft_forward_128(fft);
  aec_rdft_unpack_128(fft, spectrum);
  Adsp_WriteBuffer(&aec->far_buf_windowed, spectrum, 1);
}

int AdspAec_MoveFarReadPtr(AecCore* aec, int elements) {
  const int moved = MoveFarReadPtrWithoutSystemDelayUpdate(aec, elements);
  aec->system_delay -= moved * kAecBlockLen;
  return moved;
}

void AdspAec_ProcessFrames(AecCore* aec, const float* const* nearend, int num_bands,
                           int num_samples, int knownDelay, float* const* outAsr,
                           float* const* outCom) {
  for (int j = 0; j < num_samples; j += kAecBlockLen) {
    Adsp_WriteBuffer(&aec->nearFrBuf, &nearend[0][j], kAecBlockLen);
    for (int b = 1; b < num_bands && b <= kMaxUpperBands; ++b)
      Adsp_WriteBuffer(&aec->nearFrBufH[b - 1], &nearend[b][j], kAecBlockLen);

    // Far end running dry (the caller stopped feeding it, or feeds it late):
    // step back and reuse recent spectra rather than stall the filters.
    if (aec->system_delay < kAecBlockLen) AdspAec_MoveFarReadPtr(aec, -(aec->mult + 1));

    if (aec->reported_delay_enabled) {
      const int move_elements = (aec->knownDelay - knownDelay - 32) / kAecBlockLen;
      const int moved = MoveFarReadPtrWithoutSystemDelayUpdate(aec, move_elements);
      aec->knownDelay -= moved * kAecBlockLen;
    } else {
      SignalBasedDelayCorrection(aec);
    }

    while (Adsp_available_read(&aec->nearFrBuf) >= static_cast<size_t>(kAecBlockLen))
      ProcessBlock(aec);

    aec->system_delay -= kAecBlockLen;

    float* const* outputs[2] = {outAsr, outCom};
    for (int o = 0; o < 2; ++o) {
      if ((aec->NlpPf & (1 << o)) == 0 || outputs[o] == nullptr) continue;
      const int readable = static_cast<int>(Adsp_available_read(&aec->outFrBuf[o]));
      if (readable < kAecBlockLen) {
        const int shortfall = kAecBlockLen - readable;
        Adsp_MoveReadPtr(&aec->outFrBuf[o], -shortfall);
        for (int b = 0; b < kMaxUpperBands; ++b) Adsp_MoveReadPtr(&aec->outFrBufH[o][b], -shortfall);
      }
      Adsp_ReadBuffer(&aec->outFrBuf[o], nullptr, &outputs[o][0][j], kAecBlockLen);
      for (int b = 1; b < num_bands && b <= kMaxUpperBands; ++b)
        Adsp_ReadBuffer(&aec->outFrBufH[o][b - 1], nullptr, &outputs[o][b][j], kAecBlockLen);
    }
  }
}

int AdspAec_echo_state(AecCore* self) { return self->echoState; }
int AdspAec_system_delay(AecCore* self) { return self->system_delay; }
void AdspAec_SetSystemDelay(AecCore* self, int delay) { self->system_delay = delay; }
void AdspAec_enable_reported_delay(AecCore* self, int enable) {
  self->reported_delay_enabled = enable;
}
int AdspAec_reported_delay_enabled(AecCore* self) { return self->reported_delay_enabled; }
void AdspAec_enable_delay_correction(AecCore* self, int enable) {
  self->extended_filter_enabled = enable;
  self->num_partitions = enable ? kExtendedNumPartitions : kNormalNumPartitions;
  Adsp_set_allowed_offset(&self->delay_estimator, self->num_partitions / 2);
}
int AdspAec_delay_correction_enabled(AecCore* self) { return self->extended_filter_enabled; }

}  // namespace vorn
