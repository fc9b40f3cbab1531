// AGC instance: initialisation, configuration and the per-frame entry point.
// The instance lives in the caller's buffer; every call checks the calling
// convention (instance length, rate, length of the frame) before touching
// the signal, and the frame is processed in 256-sample blocks by the digital
// compressor/limiter. Only the digital path exists: the "analog" target is
// kept for the record layout and mirrors the compression gain.
#include "adsp_agc/analog_agc.h"

#include <cstring>

#include "adsp_agc/agc_spl.h"

namespace vorn {
namespace {

constexpr uint32_t kAgcSampleRate = 16000;
constexpr uint32_t kAgcUpperBandRate = 32000;
constexpr int32_t kAgcBlockSize = 256;
// The gain table is always computed with this ratio, whatever CompRatio the
// configuration holds: the curve was tuned with it.
constexpr int16_t kGainTableRatio = 80;

}  // namespace

int32_t DigitalAgc_Init(void* agcInst, int32_t buf_len, uint32_t fs) {
  if (agcInst == nullptr) return -3;
  if (buf_len != kAgcInstanceSize || fs != kAgcSampleRate) return -2;

  std::memset(agcInst, 0, kAgcInstanceSize);
  Agc_t* stt = static_cast<Agc_t*>(agcInst);
  stt->Agc_t_len = static_cast<uint32_t>(buf_len);
  stt->fs = fs;
  stt->agcMode = kAgcModeAdaptiveDigital;
  DigitalAgc_InitDigital(&stt->digitalAgc, stt->agcMode);
  DigitalAgc_InitVad(&stt->vadMic);
  AdaptAgcSpl_MemSetW32(stt->filterState, 0, 8);

  stt->defaultConfig.targetLevelDbfs = 6;
  stt->defaultConfig.compressionGaindB = 50;
  stt->defaultConfig.CompRatio = 3;
  stt->defaultConfig.limiterEnable = 1;
  stt->initFlag = kAgcInitFlag;
  if (DigitalAgc_set_config(stt, stt->defaultConfig) != 0) return -1;
  return 0;
}

int32_t DigitalAgc_set_config(void* agcInst, DigitalAgc_config_t config) {
  Agc_t* stt = static_cast<Agc_t*>(agcInst);
  if (stt == nullptr || stt->initFlag != kAgcInitFlag) return -1;
  if (config.limiterEnable > 1 || config.targetLevelDbfs > 31 || stt->agcMode > kAgcModeFixedDigital) return -1;

  stt->limiterEnable = config.limiterEnable;
  stt->targetLevelDbfs = config.targetLevelDbfs;
  stt->CompRatio = config.CompRatio;
  stt->compressionGaindB = config.compressionGaindB;
  // In fixed-digital mode the gain is read relative to the target.
  if (stt->agcMode == kAgcModeFixedDigital) {
    stt->compressionGaindB = static_cast<int16_t>(stt->compressionGaindB + config.targetLevelDbfs);
  }
  stt->usedConfig = config;
  stt->analogTarget = stt->compressionGaindB;

  if (DigitalAgc_CalculateGainTable_Float(stt->digitalAgc.gainTable, stt->compressionGaindB,
                                          stt->targetLevelDbfs, kGainTableRatio) != 0) {
    return -1;
  }
  return 0;
}

int32_t DigitalAgc_get_config(void* agcInst, DigitalAgc_config_t* config) {
  const Agc_t* stt = static_cast<const Agc_t*>(agcInst);
  if (stt == nullptr || config == nullptr) return -1;
  config->limiterEnable = stt->limiterEnable;
  config->targetLevelDbfs = stt->targetLevelDbfs;
  config->compressionGaindB = stt->compressionGaindB;
  config->CompRatio = stt->CompRatio;
  return 0;
}

int32_t DigitalAgc_version() { return kAgcVersion; }

int32_t DigitalAgc_Process(void* agcInst, const int16_t* in_near, int32_t samples, int16_t* out,
                           int16_t AgcVadFlag, int16_t cmdWkpMode, const int32_t* agcSNR, int16_t snrFlag) {
  Agc_t* stt = static_cast<Agc_t*>(agcInst);
  if (stt == nullptr) return -1;
  if (AgcVadFlag < -1 || AgcVadFlag > 1 || cmdWkpMode < 1 || cmdWkpMode > 2) return -1;

  // The steering is taken before the buffers are judged: a frame rejected
  // below still updates what the next accepted frame is steered by.
  DigitalAgc_t* digital = &stt->digitalAgc;
  digital->AgcVadFlag = AgcVadFlag;
  digital->cmdWkp = cmdWkpMode;
  digital->snrFlag = snrFlag;
  if (agcSNR != nullptr) {
    for (int i = 0; i < 3; ++i) digital->SNR[i] = agcSNR[i];
  }

  if (in_near == nullptr || out == nullptr || agcSNR == nullptr || stt->fs == kAgcUpperBandRate) return -3;
  if (stt->initFlag != kAgcInitFlag || stt->fs != kAgcSampleRate ||
      stt->Agc_t_len != static_cast<uint32_t>(kAgcInstanceSize)) {
    return -2;
  }
  if (samples != kAgcBlockSize && samples != 2 * kAgcBlockSize) return -2;

  if (in_near != out) std::memmove(out, in_near, static_cast<size_t>(samples) * sizeof(int16_t));
  for (int32_t offset = 0; offset < samples; offset += kAgcBlockSize) {
    int16_t* block = out + offset;
    if (DigitalAgc_ProcessDigital(digital, block, nullptr, block, nullptr, stt->fs) != 0) return -1;
  }
  return 0;
}

}  // namespace vorn
