// Echo canceller instance: argument checks, the far-end feed that cuts the
// loudspeaker signal into overlapping 128-sample partitions, and the frame
// call that turns the caller's reported sound-card delay into the far-end
// buffer position the core should read from (normal and extended paths),
// optionally compensating clock skew, before handing the frame to the core.
// By default (reported delays off) the core aligns the far end from the
// signals themselves and the bookkeeping here only counts samples.
#include "adsp_aec/echo_cancellation.h"

#include <cmath>
#include <cstring>

#include "adsp_aec/aec_filter_file.h"

namespace vorn {

namespace {

bool Initialized(const Aec* self) { return self->initFlag == initCheck; }

void PassThrough(const Aec* self, const float* const* nearend, int num_bands,
                 float* const* outAsr, float* const* outCom, int nrOfSamples) {
  float* const* outputs[2] = {outAsr, outCom};
  for (int o = 0; o < 2; ++o) {
    if ((self->core.NlpPf & (1 << o)) == 0 || outputs[o] == nullptr) continue;
    for (int b = 0; b < num_bands; ++b) {
      if (outputs[o][b] != nearend[b])
        std::memcpy(outputs[o][b], nearend[b], sizeof(float) * nrOfSamples);
    }
  }
}

int16_t ClampToInt16(float value) {
  if (value > 32767.0f) return 32767;
  if (value < -32768.0f) return -32768;
  return static_cast<int16_t>(value);
}

// Buffer delay of the normal path: the far-end samples the sound card still
// holds, minus what waits in our own buffer, smoothed; a persistent
// difference to the delay in use moves knownDelay.
void EstBufDelayNormal(Aec* self) {
  const int block = kAecBlockLen * self->rate_factor;
  int current_delay = self->msInSndCardBuf * sampMsNb * self->rate_factor -
                      AdspAec_system_delay(&self->core) + block;
  if (self->skewMode == 1 && self->resample == 1) current_delay -= kResamplingDelay;
  if (current_delay < kAecBlockLen)
    current_delay += AdspAec_MoveFarReadPtr(&self->core, 1) * kAecBlockLen;
  const int previous = self->filtDelay < 0 ? 0 : self->filtDelay;
  const int smoothed = static_cast<int>(0.8f * previous + 0.2f * current_delay);
  self->filtDelay = ClampToInt16(static_cast<float>(smoothed < 0 ? 0 : smoothed));

  const int diff = self->filtDelay - self->knownDelay;
  if (diff > 224) {
    self->timeForDelayChange = self->lastDelayDiff > 95 ? self->timeForDelayChange + 1 : 0;
  } else if (diff < 96 && self->knownDelay > 0) {
    self->timeForDelayChange = self->lastDelayDiff < 225 ? self->timeForDelayChange + 1 : 0;
  } else {
    self->timeForDelayChange = 0;
  }
  self->lastDelayDiff = static_cast<int16_t>(diff);
  if (self->timeForDelayChange > 25) {
    const int known = self->filtDelay - 160;
    self->knownDelay = known > 0 ? known : 0;
  }
}

void EstBufDelayExtended(Aec* self) {
  const int block = kAecBlockLen * self->rate_factor;
  int current_delay = self->msInSndCardBuf * sampMsNb * self->rate_factor -
                      AdspAec_system_delay(&self->core) + block;
  if (current_delay < kAecBlockLen)
    current_delay += AdspAec_MoveFarReadPtr(&self->core, 2) * kAecBlockLen;
  int smoothed;
  if (self->filtDelay == -1) {
    smoothed = static_cast<int>(0.5f * current_delay);
  } else {
    smoothed = static_cast<int>(0.95f * self->filtDelay + 0.05f * current_delay);
  }
  self->filtDelay = ClampToInt16(static_cast<float>(smoothed < 0 ? 0 : smoothed));

  const int diff = self->filtDelay - self->knownDelay;
  if (diff > 384) {
    self->timeForDelayChange = self->lastDelayDiff >= 128 ? self->timeForDelayChange + 1 : 0;
  } else if (diff < 128 && self->knownDelay > 0) {
    self->timeForDelayChange = self->lastDelayDiff < 385 ? self->timeForDelayChange + 1 : 0;
  } else {
    self->timeForDelayChange = 0;
  }
  self->lastDelayDiff = static_cast<int16_t>(diff);
  if (self->timeForDelayChange > 25) {
    const int known = self->filtDelay - 256;
    self->knownDelay = known > 0 ? known : 0;
  }
}

// Start-up with reported delays: measure how much far end the sound card
// holds while the reports are stable, then trim our buffer to it.
void SizeFarendBuffer(Aec* self, int nrOfSamples) {
  // A 64-sample frame at 16 kHz is half a sizing frame; counting it as a
  // whole one lets the measurement end at every rate (it would never end
  // with the integer quotient 0).
  int nframes = nrOfSamples / (kAecBlockLen * self->rate_factor);
  if (nframes < 1) nframes = 1;
  if (self->checkBuffSize) {
    self->checkBufSizeCtr += 1;
    int diff = 0;
    if (self->counter == 0) {
      self->firstVal = self->msInSndCardBuf;
      self->sum = 0;
    } else {
      diff = std::abs(self->firstVal - self->msInSndCardBuf);
    }
    const float tolerance = std::fmax(0.2f * self->msInSndCardBuf, static_cast<float>(sampMsNb));
    if (tolerance > static_cast<float>(diff)) {
      self->counter += 1;
      self->sum += self->msInSndCardBuf;
      if (self->counter * nframes > 5) {
        const int blocks = self->sum * 24 * self->rate_factor / (self->counter * 256);
        self->bufSizeStart = blocks < kMaxBufSizeStart ? blocks : kMaxBufSizeStart;
        self->checkBuffSize = 0;
      }
    } else {
      self->counter = 0;
    }
    if (self->checkBuffSize && self->checkBufSizeCtr * nframes > 50) {
      const int blocks = 3 * self->msInSndCardBuf * self->rate_factor / 40;
      self->bufSizeStart = blocks < kMaxBufSizeStart ? blocks : kMaxBufSizeStart;
      self->checkBuffSize = 0;
    }
  }
  if (!self->checkBuffSize) {
    const int overhead = AdspAec_system_delay(&self->core) / kAecBlockLen - self->bufSizeStart;
    if (overhead == 0) {
      self->startup_phase = 0;
    } else if (overhead > 0) {
      AdspAec_MoveFarReadPtr(&self->core, overhead);
      self->startup_phase = 0;
    }
  }
}

int32_t ProcessNormal(Aec* self, const float* const* nearend, int num_bands, float* const* outAsr,
                      float* const* outCom, int16_t nrOfSamples, int16_t reported_delay_ms,
                      int32_t skew, int32_t result) {
  const int16_t capped = reported_delay_ms > kMaxTrustedDelayMs ? kMaxTrustedDelayMs : reported_delay_ms;
  self->msInSndCardBuf = static_cast<int16_t>(capped + 10);

  if (self->skewMode == kAecTrue) {
    if (self->skewFrCtr < 25) {
      self->skewFrCtr += 1;
    } else {
      if (AdspAec_GetSkew(&self->resampler, skew, &self->skew) == -1) {
        self->skew = 0.0f;
        self->lastError = kAecWarnBadParameter;
        result = -6;
      }
      self->skew /= self->sampFactor * nrOfSamples;
      self->resample = (self->skew > -0.001f && self->skew < 0.001f) ? 0 : 1;
      if (self->skew < -0.5f) self->skew = -0.5f;
      if (self->skew > 1.0f) self->skew = 1.0f;
    }
  }

  if (self->startup_phase == 0) {
    if (AdspAec_reported_delay_enabled(&self->core)) EstBufDelayNormal(self);
    AdspAec_ProcessFrames(&self->core, nearend, num_bands, nrOfSamples, self->knownDelay, outAsr,
                          outCom);
  } else {
    PassThrough(self, nearend, num_bands, outAsr, outCom, nrOfSamples);
    SizeFarendBuffer(self, nrOfSamples);
  }
  return result;
}

int32_t ProcessExtended(Aec* self, const float* const* nearend, int num_bands,
                        float* const* outAsr, float* const* outCom, int16_t nrOfSamples,
                        int16_t reported_delay_ms, int32_t result) {
  int16_t delay_ms = reported_delay_ms < kMinTrustedDelayMs ? kMinTrustedDelayMs : reported_delay_ms;
  if (reported_delay_ms >= kMaxTrustedDelayMs) delay_ms = kFixedDelayMs;
  self->msInSndCardBuf = delay_ms;

  if (!self->farend_started) {
    PassThrough(self, nearend, num_bands, outAsr, outCom, nrOfSamples);
    return result;
  }
  if (self->startup_phase) {
    const int startup_ms = delay_ms > kFixedDelayMs ? delay_ms : kFixedDelayMs;
    const int target = startup_ms / 2 * self->rate_factor * sampMsNb;
    AdspAec_MoveFarReadPtr(&self->core, (AdspAec_system_delay(&self->core) - target) / kAecBlockLen);
    self->startup_phase = 0;
  }
  if (AdspAec_reported_delay_enabled(&self->core)) EstBufDelayExtended(self);
  const int known = self->knownDelay > 0 ? self->knownDelay : 0;
  AdspAec_ProcessFrames(&self->core, nearend, num_bands, nrOfSamples, known, outAsr, outCom);
  return result;
}

}  // namespace

namespace {

// Everything AdspAec_Init sets up in a cleared instance, the echo path
// excepted: AdspAec_Reset goes through the same steps over an instance
// cleared all but its stored echo path.
int32_t PrepareInstance(Aec* self, int32_t sampFreq, int32_t scSampFreq, int NlpPf) {
  if (AdspAec_CreateAec(&self->core) != 0) return -1;
  if (Adsp_CreateBuffer(&self->far_pre_buf, self->far_pre_buf_data, kFarPreBufLen, sizeof(float)) != 0) return -1;

  self->lastError = 0;
  self->initFlag = 0;
  self->sampFreq = sampFreq;
  self->scSampFreq = scSampFreq;
  if (AdspAec_InitAec(&self->core, sampFreq) == -1) {
    self->lastError = kAecErrUnspecified;
    return -1;
  }
  self->core.NlpPf = NlpPf;

  if (AdspAec_InitResampler(&self->resampler, scSampFreq) == -1) {
    self->lastError = kAecErrUnspecified;
    return -1;
  }
  Adsp_InitBuffer(&self->far_pre_buf);
  // 64 zeros ahead of the first far-end samples: the overlap of the first
  // partition.
  Adsp_MoveReadPtr(&self->far_pre_buf, -kAecBlockLen);

  self->initFlag = initCheck;
  self->splitSampFreq = (sampFreq == 32000 || sampFreq == 48000) ? 16000 : sampFreq;
  self->rate_factor = self->splitSampFreq / 8000;
  self->sampFactor = static_cast<float>(scSampFreq) / static_cast<float>(self->splitSampFreq);
  self->delayCtr = 0;
  self->firstVal = 0;
  self->counter = 0;
  self->sum = 0;
  self->checkBufSizeCtr = 0;
  self->msInSndCardBuf = 0;
  self->bufSizeStart = 0;
  self->timeForDelayChange = 0;
  self->knownDelay = 0;
  self->lastDelayDiff = 0;
  self->skewFrCtr = 0;
  self->resample = kAecFalse;
  self->highSkewCtr = 0;
  self->skew = 0.0f;
  self->farend_started = 0;
  self->checkBuffSize = 1;
  self->filtDelay = -1;
  self->startup_phase = AdspAec_reported_delay_enabled(&self->core);

  AecConfig config;
  config.nlpMode = kAecNlpModerate;
  config.skewMode = kAecFalse;
  config.metricsMode = kAecFalse;
  config.delay_logging = kAecFalse;
  if (AdspAec_set_config(self, config) == -1) {
    self->lastError = kAecErrUnspecified;
    return -1;
  }
  return 0;
}

// Both filters start from the stored echo path (zeros when there is none).
void SeedFilters(AecCore* core) {
  std::memcpy(core->wfBuf, core->wfBuf_ini, sizeof(core->wfBuf));
  std::memcpy(core->wfBuf_main, core->wfBuf_ini, sizeof(core->wfBuf_main));
}

bool ValidOutputs(int NlpPf) { return NlpPf >= 0 && NlpPf <= 3; }

// An initialised instance and a valid output selector, or null (with the
// reason recorded in the instance when there is one).
Aec* ReadyFor(void* aecInst, int NlpPf) {
  if (aecInst == nullptr) return nullptr;
  Aec* self = static_cast<Aec*>(aecInst);
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return nullptr;
  }
  if (!ValidOutputs(NlpPf)) {
    self->lastError = kAecErrBadParameter;
    return nullptr;
  }
  return self;
}

}  // namespace

int32_t AdspAec_Init(void* aecInst, uint32_t aecInst_buf_len, int32_t sampFreq, int32_t scSampFreq,
                     const int NlpPf, char* filter_conf) {
  // Nowhere to record an error for a missing or misaligned instance (the
  // record holds sizes, which need their natural alignment).
  if (aecInst == nullptr || reinterpret_cast<std::uintptr_t>(aecInst) % alignof(Aec) != 0) return -1;
  Aec* self = static_cast<Aec*>(aecInst);
  if ((sampFreq != 8000 && sampFreq != 16000 && sampFreq != 32000 && sampFreq != 48000) ||
      scSampFreq < 1 || scSampFreq > 96000) {
    self->lastError = kAecErrBadParameter;
    return -1;
  }
  if (!ValidOutputs(NlpPf) || aecInst_buf_len != kAecInstanceBytes) return -2;
  std::memset(self, 0, kAecInstanceBytes);
  const int32_t rc = PrepareInstance(self, sampFreq, scSampFreq, NlpPf);
  if (rc != 0) return rc;

  // A stored echo path seeds both filters; without one (or with a file that
  // cannot be read) the canceller starts from silence.
  if (filter_conf != nullptr) {
    if (AdspAec_FilterRead(filter_conf, &self->core) == 0) {
      SeedFilters(&self->core);
    } else {
      std::memset(self->core.wfBuf_ini, 0, sizeof(self->core.wfBuf_ini));
    }
  }
  return 0;
}

int32_t AdspAec_Reset(void* aecInst, int NlpPf) {
  Aec* self = ReadyFor(aecInst, NlpPf);
  if (self == nullptr) return -1;
  const int32_t sampFreq = self->sampFreq;
  const int32_t scSampFreq = self->scSampFreq;
  // Clear the instance around the stored echo path, as AdspAec_Init clears
  // all of it.
  auto* bytes = reinterpret_cast<unsigned char*>(self);
  auto* kept = reinterpret_cast<unsigned char*>(self->core.wfBuf_ini);
  const std::size_t kept_from = static_cast<std::size_t>(kept - bytes);
  const std::size_t kept_to = kept_from + sizeof(self->core.wfBuf_ini);
  std::memset(bytes, 0, kept_from);
  std::memset(bytes + kept_to, 0, kAecInstanceBytes - kept_to);
  const int32_t rc = PrepareInstance(self, sampFreq, scSampFreq, NlpPf);
  if (rc != 0) return rc;
  SeedFilters(&self->core);
  return 0;
}

int32_t AdspAec_SetOutputs(void* aecInst, int NlpPf) {
  Aec* self = ReadyFor(aecInst, NlpPf);
  if (self == nullptr) return -1;
  AecCore& core = self->core;
  // An output that starts now starts from silence, not from what was left
  // in its overlap and ring when it last ran.
  for (int o = 0; o < 2; ++o) {
    if ((NlpPf & (1 << o)) == 0 || (core.NlpPf & (1 << o)) != 0) continue;
    Adsp_InitBuffer(&core.outFrBuf[o]);
    for (int b = 0; b < kMaxUpperBands; ++b) Adsp_InitBuffer(&core.outFrBufH[o][b]);
    std::memset(core.outBuf[o], 0, sizeof(core.outBuf[o]));
  }
  core.NlpPf = NlpPf;
  return 0;
}

int AdspAec_set_config(void* handle, AecConfig config) {
  if (handle == nullptr) return -1;
  Aec* self = static_cast<Aec*>(handle);
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return -1;
  }
  // Negative values are as far out of range as too large ones (and would
  // index the mode tables out of bounds), so both are refused.
  if (config.skewMode < kAecFalse || config.skewMode > kAecTrue) {
    self->lastError = kAecErrBadParameter;
    return -1;
  }
  self->skewMode = config.skewMode;
  if (config.nlpMode < kAecNlpConservative || config.nlpMode > kAecNlpAggressive ||
      config.metricsMode < 0 || config.metricsMode > 1 || config.delay_logging < 0 ||
      config.delay_logging > 1) {
    self->lastError = kAecErrBadParameter;
    return -1;
  }
  AdspAec_SetConfigCore(&self->core, config.nlpMode, config.metricsMode, config.delay_logging);
  return 0;
}

int32_t AdspAec_BufferFarend(void* aecInst, const float* farend, int16_t nrOfSamples) {
  if (aecInst == nullptr) return -1;
  Aec* self = static_cast<Aec*>(aecInst);
  if (farend == nullptr) {
    self->lastError = kAecErrNullPointer;
    return -1;
  }
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return -1;
  }
  if (nrOfSamples != kAecBlockLen && nrOfSamples != kAecBlockLen2) {
    self->lastError = kAecErrBadParameter;
    return -1;
  }

  const float* samples = farend;
  int count = nrOfSamples;
  // The resampler may stretch a frame by up to 1 / (1 - 0.5).
  float resampled[2 * kAecBlockLen2 + 4];
  if (self->skewMode == kAecTrue && self->resample == kAecTrue) {
    AdspAec_ResampleLinear(&self->resampler, farend, nrOfSamples, self->skew, resampled, &count);
    samples = resampled;
  }

  self->farend_started = 1;
  AdspAec_SetSystemDelay(&self->core, AdspAec_system_delay(&self->core) + count);
  Adsp_WriteBuffer(&self->far_pre_buf, samples, static_cast<size_t>(count));

  while (Adsp_available_read(&self->far_pre_buf) >= static_cast<size_t>(kAecBlockLen2)) {
    float copy[kAecBlockLen2];
    float* partition = nullptr;
    Adsp_ReadBuffer(&self->far_pre_buf, reinterpret_cast<void**>(&partition), copy, kAecBlockLen2);
    AdspAec_BufferFarendPartition(&self->core, partition);
    Adsp_MoveReadPtr(&self->far_pre_buf, -kAecBlockLen);
  }
  return 0;
}

int32_t AdspAec_Process(void* aecInst, const float* const* nearend, int num_bands,
                        float* const* outAsr, float* const* outCom, float* subcohXd, int cohxdLen,
                        int16_t nrOfSamples, int16_t msInSndCardBuf, int32_t skew) {
  if (aecInst == nullptr) return -1;
  Aec* self = static_cast<Aec*>(aecInst);
  // The output mask lives in the core, which only an initialised instance
  // has; an uninitialised one is reported as such.
  if (Initialized(self)) {
    const int mask = self->core.NlpPf;
    if (((mask & 1) && outAsr == nullptr) || ((mask & 2) && outCom == nullptr)) {
      self->lastError = kAecErrNullPointer;
      return -1;
    }
  } else {
    self->lastError = kAecErrUninitialized;
    return -2;
  }
  if (nrOfSamples != kAecBlockLen2 && nrOfSamples != kAecBlockLen) {
    self->lastError = kAecErrBadParameter;
    return -3;
  }
  if (cohxdLen < 2 * kAecBins || subcohXd == nullptr) return -4;
  // A null near end or a band count the core cannot hold are refused like a
  // missing output.
  if (nearend == nullptr || num_bands < 1 || num_bands > 1 + kMaxUpperBands) {
    self->lastError = kAecErrNullPointer;
    return -1;
  }
  self->core.subcohXd = subcohXd;

  int32_t result = 0;
  int16_t reported_delay_ms = msInSndCardBuf;
  if (msInSndCardBuf < 0) {
    reported_delay_ms = 0;
    self->lastError = kAecWarnBadParameter;
    result = -4;
  } else if (msInSndCardBuf > kMaxTrustedDelayMs) {
    self->lastError = kAecWarnBadParameter;
    result = -5;
  }

  if (AdspAec_delay_correction_enabled(&self->core)) {
    result = ProcessExtended(self, nearend, num_bands, outAsr, outCom, nrOfSamples, reported_delay_ms, result);
  } else {
    result = ProcessNormal(self, nearend, num_bands, outAsr, outCom, nrOfSamples, reported_delay_ms, skew, result);
  }
  // The coherence array is the caller's, often on its stack: the instance
  // holds it only for the length of this call.
  self->core.subcohXd = nullptr;
  return result;
}

int AdspAec_get_echo_status(void* handle, int* status) {
  if (handle == nullptr) return -1;
  Aec* self = static_cast<Aec*>(handle);
  if (status == nullptr) {
    self->lastError = kAecErrNullPointer;
    return -1;
  }
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return -1;
  }
  *status = AdspAec_echo_state(&self->core);
  return 0;
}

int AdspAec_GetMetrics(void* handle, AecMetrics* metrics) {
  if (handle == nullptr) return -1;
  Aec* self = static_cast<Aec*>(handle);
  if (metrics == nullptr) {
    self->lastError = kAecErrNullPointer;
    return -1;
  }
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return -1;
  }
  Stats erl, erle, a_nlp;
  AdspAec_GetEchoStats(&self->core, &erl, &erle, &a_nlp);
  const Stats* sources[3] = {&erl, &erle, &a_nlp};
  AecLevel* targets[3] = {&metrics->erl, &metrics->erle, &metrics->aNlp};
  for (int i = 0; i < 3; ++i) {
    const Stats& s = *sources[i];
    AecLevel& level = *targets[i];
    level.instant = static_cast<int>(s.instant);
    if (s.himean > kOffsetLevel && s.average > kOffsetLevel) {
      level.average = static_cast<int>(0.7f * s.himean + 0.3f * s.average);
    } else {
      level.average = kOffsetLevel;
    }
    level.max = static_cast<int>(s.max);
    level.min = s.min < -kOffsetLevel ? static_cast<int>(s.min) : kOffsetLevel;
  }
  int rerl = kOffsetLevel;
  if (metrics->erl.average > kOffsetLevel && metrics->erle.average > kOffsetLevel)
    rerl = metrics->erl.average + metrics->erle.average;
  metrics->rerl.instant = rerl;
  metrics->rerl.average = rerl;
  metrics->rerl.max = rerl;
  metrics->rerl.min = rerl;
  return 0;
}

int AdspAec_GetDelayMetrics(void* handle, int* median, int* std) {
  if (handle == nullptr) return -1;
  Aec* self = static_cast<Aec*>(handle);
  if (median == nullptr || std == nullptr) {
    self->lastError = kAecErrNullPointer;
    return -1;
  }
  if (!Initialized(self)) {
    self->lastError = kAecErrUninitialized;
    return -1;
  }
  const int result = AdspAec_GetDelayMetricsCore(&self->core, median, std);
  if (result != 0) {
    self->lastError = kAecErrUnsupported;
    return result;
  }
  return 0;
}

int32_t AdspAec_get_error_code(void* aecInst) {
  if (aecInst == nullptr) return -1;
  return static_cast<Aec*>(aecInst)->lastError;
}

AecCore* AdspAec_aec_core(void* handle) {
  if (handle == nullptr) return nullptr;
  return &static_cast<Aec*>(handle)->core;
}

}  // namespace vorn
