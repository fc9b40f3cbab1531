// The AGC module: the instance record kept in the caller's buffer and its
// entry points. The instance wraps the digital compressor/limiter
// (digital_agc.h) with its configuration and the checks of the calling
// convention; there is no microphone-gain control.
#pragma once

#include <cstddef>
#include <cstdint>

#include "adsp_agc/digital_agc.h"

namespace vorn {

constexpr int32_t kAgcInstanceSize = 388;
constexpr int16_t kAgcInitFlag = 42;
constexpr int32_t kAgcVersion = 10000;

struct DigitalAgc_config_t {
  int16_t targetLevelDbfs;    // target peak level, dB below full scale
  int16_t compressionGaindB;
  int16_t CompRatio;          // stored and reported; the gain table uses a fixed ratio
  uint8_t limiterEnable;
};

struct Agc_t {
  uint32_t Agc_t_len;
  uint32_t fs;
  int16_t compressionGaindB;
  int16_t targetLevelDbfs;
  uint8_t limiterEnable;
  int16_t CompRatio;
  int16_t agcMode;
  DigitalAgc_config_t defaultConfig;
  DigitalAgc_config_t usedConfig;
  int16_t initFlag;
  int16_t analogTarget;
  int32_t filterState[8];
  AgcVad_t vadMic;  // kept for the layout; the digital path does not use it
  DigitalAgc_t digitalAgc;
};

static_assert(sizeof(DigitalAgc_config_t) == 8);
static_assert(sizeof(Agc_t) == kAgcInstanceSize);
static_assert(offsetof(Agc_t, CompRatio) == 14);
static_assert(offsetof(Agc_t, defaultConfig) == 18);
static_assert(offsetof(Agc_t, usedConfig) == 26);
static_assert(offsetof(Agc_t, initFlag) == 34);
static_assert(offsetof(Agc_t, filterState) == 40);
static_assert(offsetof(Agc_t, vadMic) == 72);
static_assert(offsetof(Agc_t, digitalAgc) == 136);

// agcInst points to kAgcInstanceSize bytes, 4-byte aligned. Returns -3 for a
// null instance, -2 unless buf_len is 388 and fs is 16000, else 0.
int32_t DigitalAgc_Init(void* agcInst, int32_t buf_len, uint32_t fs);

// Returns -1 unless the instance is initialised and the configuration valid.
int32_t DigitalAgc_set_config(void* agcInst, DigitalAgc_config_t config);
int32_t DigitalAgc_get_config(void* agcInst, DigitalAgc_config_t* config);
int32_t DigitalAgc_version();

// Processes samples (256 or 512) of 16 kHz audio from in_near into out (they
// may be the same buffer). AgcVadFlag is -1..1, cmdWkpMode the wake-up mode
// 1 or 2, agcSNR three Q10 dB figures, snrFlag enables their use.
// Returns -1 for a null instance or steering out of range (nothing stored),
// -3 for a null buffer or a 32000 Hz instance, -2 for an uninitialised
// instance or a bad length, -1 if processing fails, else 0.
int32_t DigitalAgc_Process(void* agcInst, const int16_t* in_near, int32_t samples, int16_t* out,
                           int16_t AgcVadFlag, int16_t cmdWkpMode, const int32_t* agcSNR, int16_t snrFlag);

}  // namespace vorn
