// The echo canceller's interface: one instance record in caller memory, its
// configuration, the far-end feed and the per-frame call that returns the
// cancelled near end (for recognition and/or communication) and the sub-band
// coherence, plus the status and metrics queries.
#pragma once

#include <cstddef>
#include <cstdint>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_resampler.h"
#include "adsp_aec/ring_buffer.h"

namespace vorn {

constexpr int16_t initCheck = 42;
constexpr int sampMsNb = 8;
constexpr int kFixedDelayMs = 50;
constexpr int kMinTrustedDelayMs = 20;
constexpr int kMaxTrustedDelayMs = 500;
constexpr int kMaxBufSizeStart = 62;
constexpr int kDelayDiffOffsetSamples = 0;
constexpr int kResamplingDelay = 1;
constexpr int kOffsetLevel = -100;
constexpr int kFarPreBufLen = 384;
// What the front end reserves for the instance and what AdspAec_Init demands.
constexpr uint32_t kAecInstanceBytes = 464724;

enum {
  kAecErrUnspecified = 12000,
  kAecErrUnsupported = 12001,
  kAecErrUninitialized = 12002,
  kAecErrNullPointer = 12003,
  kAecErrBadParameter = 12004,
  kAecWarnBadParameter = 12050,
};

enum { kAecFalse = 0, kAecTrue = 1 };

struct AecConfig {
  int16_t nlpMode;
  int16_t skewMode;
  int16_t metricsMode;
  int delay_logging;
};

struct AecLevel {
  int instant;
  int average;
  int max;
  int min;
};

struct AecMetrics {
  AecLevel rerl;
  AecLevel erl;
  AecLevel erle;
  AecLevel aNlp;
};

struct Aec {
  int delayCtr;
  int sampFreq;
  int splitSampFreq;
  int scSampFreq;
  float sampFactor;
  int16_t skewMode;
  int bufSizeStart;
  int knownDelay;
  int rate_factor;
  int16_t initFlag;
  int16_t counter;
  int sum;
  int16_t firstVal;
  int16_t checkBufSizeCtr;
  int16_t msInSndCardBuf;
  int16_t filtDelay;
  int timeForDelayChange;
  int startup_phase;
  int checkBuffSize;
  int16_t lastDelayDiff;
  AecResampler resampler;
  int skewFrCtr;
  int resample;
  int highSkewCtr;
  float skew;
  RingBuffer far_pre_buf;
  float far_pre_buf_data[kFarPreBufLen];
  int lastError;
  int farend_started;
  AecCore core;
};
// The whole record, core included, must fit the region the front end gives
// the canceller; AdspAec_Init checks the caller's figure against that region.
static_assert(sizeof(Aec) <= kAecInstanceBytes, "echo canceller instance outgrew its region");

int32_t AdspAec_Init(void* aecInst, uint32_t aecInst_buf_len, int32_t sampFreq, int32_t scSampFreq,
                     const int NlpPf, char* filter_conf);
// Restarts an initialised instance as AdspAec_Init would, with its rates and
// the echo path it read then (no file is read), producing the outputs
// NlpPf selects. 0, or -1 (null, uninitialised, NlpPf not 0..3).
int32_t AdspAec_Reset(void* aecInst, int NlpPf);
// Changes which outputs a running instance produces (NlpPf 0..3), keeping
// its filters; an output switched on starts from silence. 0, or -1.
int32_t AdspAec_SetOutputs(void* aecInst, int NlpPf);
int AdspAec_set_config(void* handle, AecConfig config);
int32_t AdspAec_BufferFarend(void* aecInst, const float* farend, int16_t nrOfSamples);
int32_t AdspAec_Process(void* aecInst, const float* const* nearend, int num_bands,
                        float* const* outAsr, float* const* outCom, float* subcohXd, int cohxdLen,
                        int16_t nrOfSamples, int16_t msInSndCardBuf, int32_t skew);
int AdspAec_get_echo_status(void* handle, int* status);
int AdspAec_GetMetrics(void* handle, AecMetrics* metrics);
int AdspAec_GetDelayMetrics(void* handle, int* median, int* std);
int32_t AdspAec_get_error_code(void* aecInst);
AecCore* AdspAec_aec_core(void* handle);

}  // namespace vorn
