// Comfort noise and the canceller's metrics.
//
// Comfort noise: suppressed bins would leave holes in the background noise
// that a listener hears as pumping; each bin gets random-phase noise at the
// near-end noise floor, weighted by how much of the bin was taken away.
//
// Metrics: the far end, near end, linear output and suppressed output are
// measured per block and summed into frame levels of 16 blocks; whenever the
// far end is active, one frame gives one instant value of ERL (far over near),
// ERLE (near over linear output) and A-NLP (linear over suppressed output),
// which the statistics records average. The delay histogram counts the delay
// estimator's answers block by block.
#include <cmath>
#include <cstring>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/delay_estimator_wrapper.h"
#include "adsp_aec/randomization_functions.h"

namespace vorn {

namespace {

constexpr int kBlocksPerFrame = 16;
constexpr float kMinLevelInit = 1.0e17f;
// The noise floor of each level may rise by 1 % per frame; the far end counts
// as active 6 dB above its floor and above -70 dBFS.
constexpr float kMinLevelRamp = 1.01f;
constexpr float kFarActiveAboveFloor = 4.0f;
constexpr float kFarActiveLevel = 100.0f;

// Returns true when a new frame level is complete.
bool UpdateLevel(PowerLevel* level, float block_ms) {
  level->frsum += block_ms;
  level->frcounter += 1;
  if (level->frcounter < kBlocksPerFrame) return false;
  level->framelevel = level->frsum / kBlocksPerFrame;
  level->frsum = 0.0f;
  level->frcounter = 0;
  level->sfrsum += level->framelevel;
  level->sfrcounter += 1;
  level->averagelevel = level->sfrsum / static_cast<float>(level->sfrcounter);
  const float ramped = level->minlevel * kMinLevelRamp;
  level->minlevel = level->framelevel < ramped ? level->framelevel : ramped;
  return true;
}

void UpdateStats(Stats* stats, float value) {
  stats->instant = value;
  if (value > stats->max) stats->max = value;
  if (value < stats->min) stats->min = value;
  stats->counter += 1;
  stats->sum += value;
  stats->average = stats->sum / static_cast<float>(stats->counter);
  // himean: the mean of the values above the running mean, the level that is
  // reached whenever the canceller has something to act on.
  if (value > stats->average) {
    stats->hicounter += 1;
    stats->hisum += value;
    stats->himean = stats->hisum / static_cast<float>(stats->hicounter);
  }
}

float RatioDb(float num, float den) { return 10.0f * std::log10((num + 1e-10f) / (den + 1e-10f)); }

}  // namespace

void InitLevel(PowerLevel* level) {
  level->sfrsum = 0.0f;
  level->sfrcounter = 0;
  level->framelevel = 0.0f;
  level->frsum = 0.0f;
  level->frcounter = 0;
  level->minlevel = kMinLevelInit;
  level->averagelevel = 0.0f;
}

void InitStats(Stats* stats) {
  stats->instant = kAecOffsetLevel;
  stats->average = kAecOffsetLevel;
  stats->max = kAecOffsetLevel;
  stats->min = -kAecOffsetLevel;
  stats->himean = kAecOffsetLevel;
  stats->sum = 0.0f;
  stats->hisum = 0.0f;
  stats->counter = 0;
  stats->hicounter = 0;
}

void InitMetrics(AecCore* aec) {
  aec->stateCounter = 0;
  InitLevel(&aec->farlevel);
  InitLevel(&aec->nearlevel);
  InitLevel(&aec->linoutlevel);
  InitLevel(&aec->nlpoutlevel);
  InitStats(&aec->erl);
  InitStats(&aec->erle);
  InitStats(&aec->aNlp);
  InitStats(&aec->rerl);
}

void UpdateMetrics(AecCore* aec, float far_ms, float near_ms, float linout_ms, float nlpout_ms) {
  const bool frame_done = UpdateLevel(&aec->farlevel, far_ms);
  UpdateLevel(&aec->nearlevel, near_ms);
  UpdateLevel(&aec->linoutlevel, linout_ms);
  UpdateLevel(&aec->nlpoutlevel, nlpout_ms);
  if (!frame_done) return;
  const PowerLevel& far = aec->farlevel;
  if (far.framelevel <= kFarActiveLevel || far.framelevel <= kFarActiveAboveFloor * far.minlevel)
    return;
  aec->stateCounter += 1;
  const float erl = RatioDb(far.framelevel, aec->nearlevel.framelevel);
  const float erle = RatioDb(aec->nearlevel.framelevel, aec->linoutlevel.framelevel);
  const float a_nlp = RatioDb(aec->linoutlevel.framelevel, aec->nlpoutlevel.framelevel);
  UpdateStats(&aec->erl, erl);
  UpdateStats(&aec->erle, erle);
  UpdateStats(&aec->aNlp, a_nlp);
  UpdateStats(&aec->rerl, erl + erle);
}

void ComfortNoise(AecCore* aec, float efw[2][kAecBins], complex_t* comfortNoiseHband,
                  const float* noisePow, const float* lambda) {
  int16_t random_q15[kAecBlockLen];
  AdspSpl_RandUArray(random_q15, kAecBlockLen, &aec->seed);
  float noise[2][kAecBins];
  noise[0][0] = 0.0f;
  noise[1][0] = 0.0f;
  constexpr float kTwoPi = 6.28318530717958647692f;
  for (int k = 1; k < kAecBins; ++k) {
    const float phase = kTwoPi * (static_cast<float>(random_q15[k - 1]) / 32768.0f);
    const float amplitude = std::sqrt(noisePow[k]);
    noise[0][k] = amplitude * std::cos(phase);
    noise[1][k] = -amplitude * std::sin(phase);
  }
  for (int k = 0; k < kAecBins; ++k) {
    const float remaining = 1.0f - lambda[k] * lambda[k];
    const float weight = std::sqrt(remaining > 0.0f ? remaining : 0.0f);
    efw[0][k] += weight * noise[0][k];
    efw[1][k] += weight * noise[1][k];
  }
  // Upper bands carry no comfort noise: they keep a gain-scaled copy of their
  // own signal, which never opens a hole deeper than the lowest band's.
  if (comfortNoiseHband != nullptr && aec->num_bands > 1) {
    for (int k = 0; k < kAecBins; ++k) {
      comfortNoiseHband[k][0] = 0.0f;
      comfortNoiseHband[k][1] = 0.0f;
    }
  }
}

void AdspAec_SetConfigCore(AecCore* self, int nlp_mode, int metrics_mode, int delay_logging) {
  self->nlp_mode = nlp_mode;
  // Switching metrics on starts the statistics afresh; asking again while
  // they run keeps what has been gathered.
  if (metrics_mode == 1 && self->metricsMode == 0) InitMetrics(self);
  self->metricsMode = metrics_mode;
  if (delay_logging == 1 && self->delay_logging_enabled == 0)
    std::memset(self->delay_histogram, 0, sizeof(self->delay_histogram));
  self->delay_logging_enabled = delay_logging;
}

int AdspAec_GetDelayMetricsCore(AecCore* aec, int* median, int* std) {
  if (aec->delay_logging_enabled == 0) return -1;
  int total = 0;
  for (int i = 0; i < kHistorySizeBlocks; ++i) total += aec->delay_histogram[i];
  // No estimate since the last query: -1 for both, which no real answer can
  // be (real ones are whole multiples of the block duration).
  if (total == 0) {
    *median = -1;
    *std = -1;
    return 0;
  }
  int half = total / 2;
  int median_index = 0;
  for (int i = 0; i < kHistorySizeBlocks; ++i) {
    half -= aec->delay_histogram[i];
    if (half < 0) {
      median_index = i;
      break;
    }
  }
  const int ms_per_block = kAecBlockLen / (aec->mult * 8);
  *median = (median_index - Adsp_lookahead(&aec->delay_estimator)) * ms_per_block;
  float deviation = 0.0f;
  for (int i = 0; i < kHistorySizeBlocks; ++i)
    deviation += static_cast<float>(std::abs(i - median_index) * aec->delay_histogram[i]);
  *std = static_cast<int>(deviation / static_cast<float>(total) + 0.5f) * ms_per_block;
  std::memset(aec->delay_histogram, 0, sizeof(aec->delay_histogram));
  return 0;
}

void AdspAec_GetEchoStats(AecCore* self, Stats* erl, Stats* erle, Stats* a_nlp) {
  *erl = self->erl;
  *erle = self->erle;
  *a_nlp = self->aNlp;
}

}  // namespace vorn
