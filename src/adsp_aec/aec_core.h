// Echo canceller core: far-end spectrum rings, signal-based delay alignment,
// the pair of partitioned frequency-domain adaptive filters (an adaptive one
// and a slower main one), coherence-driven residual suppression and comfort
// noise, block by block on 64 samples. The core lives inside the instance
// record of echo_cancellation.h; every ring and array below is storage inside
// it, nothing is allocated.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/delay_estimator_wrapper.h"
#include "adsp_aec/ring_buffer.h"

namespace vorn {

constexpr int kAecBlockLen = 64;                    // samples per block and band
constexpr int kAecBlockLen2 = 2 * kAecBlockLen;     // far-end partition / transform size
constexpr int kAecBins = kAecBlockLen + 1;          // bins 0..64 of a 128-point spectrum
static_assert(kAecBins == kRdftBins, "the canceller's spectra are the transform's bins");
constexpr int kNormalNumPartitions = 12;
constexpr int kExtendedNumPartitions = 32;
constexpr int kMaxPartitions = kExtendedNumPartitions;
constexpr int kFilterPlaneLen = kMaxPartitions * kAecBins;  // 2080
constexpr int kFarBufSizePartitions = 250;           // far-end spectra kept for alignment
constexpr int kLookaheadBlocks = 15;
constexpr int kMaxUpperBands = 2;
constexpr int kDoubleFilterLen = 250;
constexpr float kExtendedMu = 0.4f;
constexpr float kExtendedErrorThreshold = 1.0e-6f;
constexpr float kAecOffsetLevel = -100.0f;

typedef float complex_t[2];

enum { kAecNlpConservative = 0, kAecNlpModerate = 1, kAecNlpAggressive = 2 };

// Frame level accumulator of the metrics: a frame is 16 blocks; minlevel is
// the slowly tracked noise floor of the level.
struct PowerLevel {
  float sfrsum;
  int sfrcounter;
  float framelevel;
  float frsum;
  int frcounter;
  float minlevel;
  float averagelevel;
};

struct Stats {
  float instant;
  float average;
  float min;
  float max;
  float sum;
  float hisum;
  float himean;
  int counter;
  int hicounter;
};

// Decisions of the main/adaptive filter comparison, one per block.
struct DoubleFilter {
  int delta_e_power[kDoubleFilterLen];
  int32_t index;
  float delta_e_power_sum;
  float delta_e_power_mean;
  int count_positive;
  int count_negative;
};

struct AecCore {
  int frame_count;
  int farBufWritePos;
  int farBufReadPos;
  int knownDelay;
  int inSamples;
  int outSamples;
  int delayEstCtr;

  RingBuffer nearFrBuf;
  RingBuffer outFrBuf[2];  // 0 feeds outAsr, 1 outCom
  RingBuffer nearFrBufH[kMaxUpperBands];
  RingBuffer outFrBufH[2][kMaxUpperBands];
  float nearFrBuf_data[kAecBlockLen2];
  float outFrBuf_data[2][kAecBlockLen2];
  float nearFrBufH_data[kMaxUpperBands][kAecBlockLen2];
  float outFrBufH_data[2][kMaxUpperBands][kAecBlockLen2];

  float dBuf[kAecBlockLen2];  // near end: previous block, current block
  float eBuf[kAecBlockLen2];  // main filter's error
  float cBuf[kAecBlockLen2];  // adaptive filter's error (the second error signal)
  float dBufH[kMaxUpperBands][kAecBlockLen2];

  float xPow[kAecBins];
  float dPow[kAecBins];
  float dMinPow[kAecBins];
  float dInitMinPow[kAecBins];
  int noise_pow_settled;  // comfort noise from dMinPow (1) or, while starting, dInitMinPow (0)

  float xfBuf[2][kFilterPlaneLen];
  float wfBuf[2][kFilterPlaneLen];
  float wfBuf_main[2][kFilterPlaneLen];
  float wfBuf_ini[2][kFilterPlaneLen];

  float wf_main_u;
  int decay_count;
  int filter_flag;  // 1: routines act on wfBuf, 0: on wfBuf_main, else nothing
  DoubleFilter double_filter;

  complex_t sde[kAecBins];
  complex_t sxd[kAecBins];
  complex_t sxe[kAecBins];
  complex_t xfwBuf[kFilterPlaneLen];

  int NlpPf;

  float sx[kAecBins], sd[kAecBins], se[kAecBins], sc[kAecBins], sAEC[kAecBins];
  float sAecPfNlpCng[kAecBins], Rnn[kAecBins], hNs[kAecBins];

  float hNlFbMin, hNlFbLocalMin;
  float hNlXdAvgMin;
  float* subcohXd;  // the caller's coherence output during AdspAec_Process, null between calls
  int hNlNewMin, hNlMinCtr;
  float overDrive, overDriveSm;
  int nlp_mode;
  float outBuf[2][kAecBlockLen];
  int delayIdx;
  float hNlXdAvg;
  int16_t stNearState;
  int16_t echoState;
  int16_t divergeState;
  int xfBufBlockPos;

  RingBuffer far_buf;
  RingBuffer far_buf_windowed;
  float far_buf_data[kFarBufSizePartitions][2][kAecBins];
  float far_buf_windowed_data[kFarBufSizePartitions][2][kAecBins];

  int system_delay;
  int mult;
  int sampFreq;
  int num_bands;
  uint32_t seed;
  float normal_mu;
  float normal_error_threshold;
  int noiseEstCtr;

  PowerLevel farlevel;
  PowerLevel nearlevel;
  PowerLevel linoutlevel;
  PowerLevel nlpoutlevel;
  int metricsMode;
  int stateCounter;
  Stats erl;
  Stats erle;
  Stats aNlp;
  Stats rerl;
  int freq_avg_ic;
  int flag_Hband_cn;
  float cn_scale_Hband;
  int delay_histogram[kHistorySizeBlocks];
  int delay_logging_enabled;

  DelayEstimatorFarend delay_estimator_farend;
  DelayEstimator delay_estimator;  // over delay_estimator_farend
  int signal_delay_correction;
  int previous_delay;
  int delay_correction_count;
  int shift_offset;
  float delay_quality_threshold;
  int reported_delay_enabled;
  int extended_filter_enabled;
  int num_partitions;
};

// The block kernels, called directly: which one runs is fixed when the
// library is compiled, so instances share no writable state.
void FilterFar(AecCore* aec, float yf[2][kAecBins]);
void ScaleErrorSignal(AecCore* aec, float ef[2][kAecBins]);
// Adapts the adaptive filter (wfBuf) from ef_adaptive and the main filter
// (wfBuf_main) from ef_main, and leaves filter_flag at 0 (the main filter).
void AdaptBothFilters(AecCore* aec, float ef_adaptive[2][kAecBins], float ef_main[2][kAecBins]);
// The filter the kernels act on (filter_flag): one plane of wfBuf or
// wfBuf_main, or null.
float* ActiveFilter(AecCore* aec, int plane);
// The plain filter kernels (the reference; fft is their transform scratch) and,
// where the build has four-lane vectors, their twins that give the same bits
// (aec_core_filter_simd.cpp: four partitions per transform batch).
void FilterFarPlain(AecCore* aec, float yf[2][kAecBins]);
// The error spectrum's step normalisation: each bin divided by the far power,
// or scaled down to the limit where that would exceed it, then times mu.
void ScaleErrorBins(const float* x_pow, float limit, float mu, float ef[2][kAecBins]);
void ScaleErrorBinsPlain(const float* x_pow, float limit, float mu, float ef[2][kAecBins]);
void ScaleErrorBinAt(const float* x_pow, float limit, float mu, float ef[2][kAecBins], int k);
// Whether the far end's mean square over the filter's span (the float sum of
// the bin powers of the n bins in memory order, over divisor) exceeds a
// positive threshold. The sum is a chain of n dependent additions; the vector
// twin sums the same float terms in double, four at a time, and forms the
// float chain only when that mean lies within 1e-3 of the threshold (or is
// not finite): elsewhere the chain's rounding, below 2.5e-4 of the sum for
// the longest filter's 2080 bins, cannot carry it across.
bool FarSpanAbove(const float* x_re, const float* x_im, int n, float divisor, float threshold);
// Sum of the squares of n floats, formed in double: four at a time where the
// build has vectors, in order otherwise. For level estimates that need no
// particular rounding, only not a chain of n dependent float additions.
double SquareSum(const float* v, int n);
bool FarSpanAbovePlain(const float* x_re, const float* x_im, int n, float divisor, float threshold);
void FilterAdaptationPlain(AecCore* aec, float* fft, float ef[2][kAecBins]);
#if defined(VORN_SIMD4)
void FilterFarSimd(AecCore* aec, float yf[2][kAecBins]);
void FilterAdaptationSimd(AecCore* aec, float ef[2][kAecBins]);
void ScaleErrorBinsSimd(const float* x_pow, float limit, float mu, float ef[2][kAecBins]);
bool FarSpanAboveSimd(const float* x_re, const float* x_im, int n, float divisor, float threshold);
#endif
#if defined(VORN_AVX2)
void FilterFarAvx2(AecCore* aec, float yf[2][kAecBins]);
// The adaptation of both filters (each from its scaled error spectrum), eight
// partitions per batch; processors with AVX2 only.
void FilterAdaptationBothAvx2(AecCore* aec, const float ef_adaptive[2][kAecBins], const float ef_main[2][kAecBins]);
#endif
void OverdriveAndSuppress(AecCore* aec, float* hNl, const float hNlFb, float efw[2][kAecBins],
                          int EnableFlag);
void ComfortNoise(AecCore* aec, float efw[2][kAecBins], complex_t* comfortNoiseHband,
                  const float* noisePow, const float* lambda);
// This block's spectra of the near end d, the main filter's error e, the far
// end x and, for the post-filter variant, the adaptive filter's error c
// (else null).
struct CoherenceSpectra {
  const float (*d)[kAecBins];
  const float (*e)[kAecBins];
  const float (*x)[kAecBins];
  const float (*c)[kAecBins];
};
// Moves the smoothed spectra sd, se, sx (at least 15) and the cross spectra
// sde, sxd, sxe (and sc, with sAEC the error's power, when c is given)
// towards this block's: g[0] * old + g[1] * new.
void SmoothSpectra(AecCore* aec, const CoherenceSpectra& in, const float g[2]);
void SmoothSpectraPlain(AecCore* aec, const CoherenceSpectra& in, const float g[2]);
// min(1, |cross|^2 / (a * b + 1e-10)) per bin.
void Coherence(const complex_t* cross, const float* a, const float* b, float* coherence);
void CoherencePlain(const complex_t* cross, const float* a, const float* b, float* coherence);
#if defined(VORN_SIMD4)
void SmoothSpectraSimd(AecCore* aec, const CoherenceSpectra& in, const float g[2]);
void CoherenceSimd(const complex_t* cross, const float* a, const float* b, float* coherence);
#endif
void SubbandCoherence(AecCore* aec, float efw[2][kAecBins], float xfw[2][kAecBins], float* fft,
                      float* cohde, float* cohxd, float* cohxe, float* Rbb, int PostFilterflag);

// Records this block's comparison of the two filters' error energies in
// double_filter and copies one filter into the other when the record says
// so (aec_core_filter.cpp).
void UpdateDoubleFilter(AecCore* aec, float main_error_energy, float adaptive_error_energy,
                        float far_mean_square);

int AdspAec_CreateAec(AecCore* aec);
// Restarts the core; the stored echo path (wfBuf_ini) is left as it is.
int AdspAec_InitAec(AecCore* aec, int sampFreq);
void AdspAec_BufferFarendPartition(AecCore* aec, const float* farend);
void AdspAec_ProcessFrames(AecCore* aec, const float* const* nearend, int num_bands,
                           int num_samples, int knownDelay, float* const* outAsr,
                           float* const* outCom);
int AdspAec_MoveFarReadPtr(AecCore* aec, int elements);

int AdspAec_echo_state(AecCore* self);
int AdspAec_system_delay(AecCore* self);
void AdspAec_SetSystemDelay(AecCore* self, int delay);
void AdspAec_enable_reported_delay(AecCore* self, int enable);
int AdspAec_reported_delay_enabled(AecCore* self);
void AdspAec_enable_delay_correction(AecCore* self, int enable);
int AdspAec_delay_correction_enabled(AecCore* self);

// Metrics and comfort noise (aec_core_metrics.cpp).
void AdspAec_SetConfigCore(AecCore* self, int nlp_mode, int metrics_mode, int delay_logging);
int AdspAec_GetDelayMetricsCore(AecCore* aec, int* median, int* std);
void AdspAec_GetEchoStats(AecCore* self, Stats* erl, Stats* erle, Stats* a_nlp);
void InitLevel(PowerLevel* level);
void InitStats(Stats* stats);
void InitMetrics(AecCore* aec);
// Per-block update of the level records and the ERL/ERLE/A-NLP statistics.
// Arguments are the block mean squares of far end, near end, linear output
// and suppressed output.
void UpdateMetrics(AecCore* aec, float far_ms, float near_ms, float linout_ms, float nlpout_ms);

// Suppression gain selection between coherence and OverdriveAndSuppress
// (aec_core_nlp.cpp): fills hNl and the feedback value, updates echoState,
// stNearState and the overdrive.
void SelectSuppressionGains(AecCore* aec, const float* cohde, const float* cohxd, float* hNl,
                            float* hNlFb);
// Smooths overDrive into overDriveSm.
void SmoothOverdrive(AecCore* aec);

// Constant curves, computed from their rules at compile time.
extern const std::array<float, kAecBins> AdspAec_sqrtHanning;     // sin(pi k / 128)
extern const std::array<float, kAecBins> AdspAec_overDriveCurve;  // 1 + sqrt(k / 64), 4 decimals
extern const std::array<float, kAecBins> AdspAec_weightCurve;     // 0, then 0.1 + 0.3 sqrt((k-1)/63)

// One block in three steps, so that another suppression can follow the
// linear filters: the linear step reads the next 64 near-end samples from
// nearFrBuf and one far-end spectrum, runs both filters and leaves the near
// end, the main filter's error and the adaptive filter's error in the upper
// halves of dBuf, eBuf and cBuf (their lower halves hold the previous block);
// it returns the far partition's mean square. The finishing step moves those
// halves down and counts the block.
float AdspAec_ProcessLinearBlock(AecCore* aec);
// The linear step in its two parts: the filters alone (what the step
// returns), then the near block and the far history into the delay
// estimator. A caller that places the far end by other means runs only the
// first.
float AdspAec_FilterBlock(AecCore* aec);
void AdspAec_FeedDelayEstimator(AecCore* aec);
void AdspAec_FinishBlock(AecCore* aec);

// A 128-sample frame (previous and current block) through the square-root
// Hann window and the transform; fft is a 16-byte aligned work array.
void AdspAec_WindowAndTransform(const float* block, float* fft, float spectrum[2][kAecBins]);

// Core output handling after the linear filters (aec_core_nlp.cpp): windowed
// spectra, coherence, gains, comfort noise and the synthesis of the outputs.
void ProcessNlpBlock(AecCore* aec, float far_mean_square);

}  // namespace vorn
