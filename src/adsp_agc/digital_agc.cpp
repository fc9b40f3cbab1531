// Digital compressor and limiter in fixed point.
//
// Every 1 ms sub-frame the peak energy (largest squared sample) feeds two
// envelope followers: a fast one that jumps up to every peak and decays in
// about 65 ms, and a slow one that rises with a time constant of about
// 130 ms and only falls while a level detector says speech is present. The louder of the two
// is the level; its base-2 logarithm (one step is 3 dB of energy) indexes a
// 32-entry gain table holding a soft-knee compressor curve, interpolated
// linearly within each step. A gate pulls the gain toward the table's
// smallest entry when the fast envelope drops below the slow one in a steady
// signal (background noise between words), and a limiter trims each
// sub-frame's gain until its peak fits in 16 bits. The gain moves linearly
// across each sub-frame; reductions take effect one sub-frame early so that a
// rising peak never overshoots for more than the first sub-frame of a block.
//
// The level detector works at 8 kHz on 1 ms rounds: high-pass, energy, log2
// with a linear fraction, short-term (16-round) and long-term (up to 250
// rounds) mean and deviation. Its output, logRatio, is the smoothed distance
// of the current level from the long-term mean in deviations: positive in
// speech onsets, zero or negative in steady noise.
//
// Two outside figures steer the slow follower: the wake-up mode (1 falls
// fast, 2 slowly) and the SNR estimates of the noise suppressor. In mode 1 a
// high noise floor at the output stops the fall altogether, so that the gain
// does not climb until the noise is what the listener hears, and at high SNR
// a slow envelope far above the fast one is pulled down quickly.
#include "adsp_agc/digital_agc.h"

#include <cmath>
#include <cstring>

#include "adsp_agc/agc_spl.h"

namespace vorn {
namespace {

constexpr int kSubFrames = 16;
constexpr int kVadRounds = 16;
constexpr int kVadRoundOutput = 8;  // 8 kHz samples per round
constexpr int16_t kVadCounterMax = 250;
constexpr int16_t kNoiseVoiceStart = 110;
constexpr int32_t kNoiseFloorFreezeLevel = 0x800000;  // squared amplitude, about -21 dBFS peak

// High-pass of the level detector: y[n] = x[n] - x[n-1] + a y[n-1] with
// a = 0.75 (Q10 768): -3 dB near 300 Hz at 8 kHz, -10 dB at 100 Hz. It
// keeps DC offsets, mains hum and the low rumble that dominates most room
// noise out of the level, so that the statistics react to the formant region
// where speech carries its energy. In transposed form the single state is
// s = a y - x = a s[-1] - (1 - a) x, a low-pass of -x whose gain is one at
// DC and less elsewhere, so it stays within the 16-bit range of the input
// (it is saturated against the few units that flooring can add).
constexpr int32_t kHighPassPoleQ10 = 768;

int32_t SaturateW32(int64_t value) {
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// c + a*b/2^16 with the product in 64 bits: the first-order updates of the
// envelope followers.
int32_t ScaleDiff32(int32_t a, int32_t b, int32_t c) {
  return SaturateW32(c + ((static_cast<int64_t>(a) * b) >> 16));
}

// Rounds half away from zero and saturates to +-2147483647; a result that is
// not a number (only reachable with absurd gains) gives 0.
int32_t RoundSaturate(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483647.0) return 2147483647;
  if (value <= -2147483647.0) return -2147483647;
  return static_cast<int32_t>(std::round(value));
}

// Q10 log2 level of an energy: (15 - leading zeros) * 2048 plus the eleven
// bits below the leading one as a linear fraction of the step.
int32_t LogLevelQ10(uint32_t energy) {
  int zeros = energy == 0 ? 31 : std::countl_zero(energy);
  if (zeros > 31) zeros = 31;
  const uint32_t fraction = ((energy << zeros) & 0x7FFFFFFFu) >> 20;
  return (15 - zeros) * 2048 + static_cast<int32_t>(fraction);
}

// One 1 ms round of the level detector statistics for level_Q10.
void UpdateLevelStatistics(AgcVad_t* state, int32_t level_Q10, int16_t AgcVadFlag) {
  if (state->counter < kVadCounterMax) ++state->counter;

  const int32_t level_sq_Q8 = (level_Q10 * level_Q10) >> 12;

  state->meanShortTerm = static_cast<int16_t>((state->meanShortTerm * 15 + level_Q10) >> 4);
  state->varianceShortTerm = (level_sq_Q8 + state->varianceShortTerm * 15) / 16;
  state->stdShortTerm = AdaptAgcSpl_SatW32ToW16(
      AdaptAgcSpl_Sqrt(state->varianceShortTerm * 4096 - state->meanShortTerm * state->meanShortTerm));

  const int16_t count_plus_one = static_cast<int16_t>(state->counter + 1);
  state->meanLongTerm =
      AdaptAgcSpl_DivW32W16ResW16(state->meanLongTerm * state->counter + level_Q10, count_plus_one);
  state->varianceLongTerm =
      AdaptAgcSpl_DivW32W16(level_sq_Q8 + state->varianceLongTerm * state->counter, count_plus_one);
  state->stdLongTerm = AdaptAgcSpl_SatW32ToW16(
      AdaptAgcSpl_Sqrt(state->varianceLongTerm * 4096 - state->meanLongTerm * state->meanLongTerm));

  // Deviation seen early in externally flagged speech; informational only.
  if (AgcVadFlag == 1) {
    if (state->noisevoice > 0) --state->noisevoice;
    if (state->noisevoice >= 2 && state->noisevoice <= 100) {
      if (state->counterVad < 255) {
        ++state->counterVad;
        state->stdLongTermMeanVad = AdaptAgcSpl_DivW32W16ResW16(
            state->stdLongTermMeanVad * (state->counterVad - 1) + state->stdLongTerm, state->counterVad);
      } else {
        state->stdLongTermMeanVad =
            static_cast<int16_t>((state->stdLongTermMeanVad * 255 + state->stdLongTerm) >> 8);
      }
    }
  } else {
    state->noisevoice = kNoiseVoiceStart;
  }

  // logRatio = 0.8125 logRatio + 0.1875 (level - mean) / std, in Q10; a
  // zero deviation counts as an infinitely large ratio.
  const int32_t scaled_distance = 12288 * (level_Q10 - state->meanLongTerm);
  int64_t ratio = AdaptAgcSpl_DivW32W16(scaled_distance, state->stdLongTerm);
  ratio += (state->logRatio * 53248) >> 10;
  ratio >>= 6;
  if (ratio > 2048) ratio = 2048;
  if (ratio < -2048) ratio = -2048;
  state->logRatio = static_cast<int16_t>(ratio);
}

// Decay of the slow envelope per sub-frame (Q16, <= 0) from the detector.
int32_t SlowEnvelopeDecay(const DigitalAgc_t* stt, int16_t logRatio) {
  int32_t decay = 0;
  if (logRatio > 1024) {
    decay = stt->cmdWkp == 1 ? -65 : stt->cmdWkp == 2 ? -15 : 0;
  } else if (logRatio >= 0) {
    decay = stt->cmdWkp == 1 ? (-logRatio * 65) >> 10 : stt->cmdWkp == 2 ? (-logRatio * 15) >> 10 : 0;
  }
  if (stt->agcMode == kAgcModeFixedDigital) return decay;

  // Only a signal that varies like speech keeps the envelope falling: a
  // moderate long-term deviation scales the decay; outside that range
  // (steady input, or input swinging between speech and near silence) only a
  // short-term deviation clearly above the long-term one, an onset, does.
  const int32_t std_long = stt->vadNearend.stdLongTerm;
  const int32_t std_short = stt->vadNearend.stdShortTerm;
  int32_t adjusted = 0;
  if (std_long >= 4000 && std_long <= 8095) adjusted = ((std_long - 4000) * decay) >> 12;
  if (adjusted == 0 && decay != 0) {
    if (std_short > std_long + 199 && std_short <= std_long + 4095) {
      adjusted = ((std_short - std_long) * decay) >> 12;
    }
  }
  return adjusted;
}

// Gain (Q16) for a level, interpolated in the log domain. The level's
// leading-zero count selects the table step; the twelve bits below its
// leading one give the position inside the step. Twelve bits resolve a step
// of 3 dB to under 0.001 dB, finer than the 16-bit output can show, and the
// product of a table difference with the fraction is formed in 64 bits since
// the steps of a high-gain table exceed 2^19.
struct LevelLog {
  int zeros;           // leading zeros, 1..31
  int32_t fraction_Q12;
};

LevelLog LevelLogOf(int32_t level) {
  if (level <= 0) return LevelLog{31, 0};
  const int zeros = std::countl_zero(static_cast<uint32_t>(level));
  const uint32_t mantissa = (static_cast<uint32_t>(level) << zeros) & 0x7FFFFFFFu;
  return LevelLog{zeros, static_cast<int32_t>(mantissa >> 19)};
}

int32_t GainForLevel(const int32_t* gainTable, const LevelLog& level) {
  const int64_t step = static_cast<int64_t>(gainTable[level.zeros - 1]) - gainTable[level.zeros];
  return SaturateW32(gainTable[level.zeros] + ((step * level.fraction_Q12) >> 12));
}

// Log level in Q9 counted as leading zeros (larger is quieter).
int32_t ZerosQ9(const LevelLog& level) { return level.zeros * 512 - (level.fraction_Q12 >> 3); }

// Lowers gain_Q16 in -0.1 dB steps until envelope * gain^2 (the squared
// output peak) fits under full scale. The squared gain is formed from the
// gain shifted down by z bits, z = 10 or more for large gains; the test
// (env/2^12 + 1)(g/2^z + 1)^2 / 2^13 > 32767 * 2^(2(11 - z)) is that
// product compared with 32767^2 on a common scale, evaluated in 64 bits
// without truncating either side. z follows the gain as it falls: held at
// 16, the +1 terms alone would exceed the bound for a full-scale envelope
// and the loop would never end.
int32_t LimitGain(int32_t gain_Q16, int32_t envelope) {
  const int64_t envelope_term = (envelope >> 12) + 1;
  for (;;) {
    int z = 10;
    if (gain_Q16 > 47453132) z = 16 - AdaptAgcSpl_NormW32(gain_Q16);
    const int64_t gain_term = (gain_Q16 >> z) + 1;
    const int64_t lhs = envelope_term * gain_term * gain_term;
    const int64_t rhs = int64_t{32767} << (35 - 2 * z);
    if (lhs <= rhs) return gain_Q16;
    gain_Q16 = static_cast<int32_t>((static_cast<int64_t>(gain_Q16) * 253) / 256);
  }
}

// Applies the sub-frame gains in place, the gain ramping linearly (Q20)
// from each sub-frame's start value to its end value. A coarse product in
// units of 8 output steps decides saturation before the exact one is formed.
void ApplyGains(const int32_t* gains_Q16, int sub_frame_length, int16_t* block) {
  const int ramp_scale = 16 / sub_frame_length;
  for (int k = 0; k < kSubFrames; ++k) {
    int64_t gain_Q20 = static_cast<int64_t>(gains_Q16[k]) * 16;
    const int64_t step_Q20 = (static_cast<int64_t>(gains_Q16[k + 1]) - gains_Q16[k]) * ramp_scale;
    int16_t* sub_frame = block + k * sub_frame_length;
    for (int n = 0; n < sub_frame_length; ++n) {
      const int64_t coarse = (sub_frame[n] * ((gain_Q20 + 127) >> 7)) >> 16;
      if (coarse > 4095) {
        sub_frame[n] = 32767;
      } else if (coarse < -4096) {
        sub_frame[n] = -32768;
      } else {
        sub_frame[n] = AdaptAgcSpl_SatW32ToW16(SaturateW32((sub_frame[n] * (gain_Q20 >> 4)) >> 16));
      }
      gain_Q20 += step_Q20;
    }
  }
}

}  // namespace

int32_t DigitalAgc_CalculateGainTable_Float(int32_t* gainTable, int16_t compressionGaindB,
                                            int16_t targetLevelDbfs, int16_t compRatio) {
  if (gainTable == nullptr) return -3;
  if (targetLevelDbfs < 0 && compRatio < 2) return -1;

  // e as the single-precision constant; the curve was fitted with it.
  const double kE = 2.7182817459106445;
  const double G = compressionGaindB;
  const double T = targetLevelDbfs;
  const double R = compRatio;
  const double A = std::log(std::pow(kE, G) + 1.0);
  const double max_Q16 = 65536.0 * std::pow(10.0, (G - T) / 20.0);
  // Entry k serves an input peak 3.0103 (k - 1) dB below full scale. Above
  // a soft knee (ln(1 + e^x) ~ x) the output rises with slope 1/R and
  // reaches -T dB at full scale; below it (ln(1 + e^x) ~ 0) the gain levels
  // off at its maximum, G - T dB.
  auto entry = [&](double step) {
    const double x = G - step * 3.0103 * (R - 1.0) / R;
    return RoundSaturate(max_Q16 * std::pow(10.0, -0.05 * G * std::log(1.0 + std::pow(kE, x)) / A));
  };

  // Once an entry reaches the last one the curve is flat: fill the rest.
  const int32_t last = entry(30.0);
  gainTable[31] = last;
  for (int k = 0; k < 31; ++k) {
    gainTable[k] = entry(static_cast<double>(k - 1));
    if (gainTable[k] == last) {
      for (int rest = k + 1; rest < 31; ++rest) gainTable[rest] = last;
      break;
    }
  }
  return 0;
}

void DigitalAgc_InitVad(AgcVad_t* state) {
  std::memset(state, 0, sizeof(*state));
  state->counter = 3;
  state->meanLongTerm = 15360;
  state->varianceLongTerm = 128000;
  state->counterVad = 3;
  state->noisevoice = kNoiseVoiceStart;
  state->meanShortTerm = 15360;
  state->varianceShortTerm = 128000;
}

int32_t DigitalAgc_InitDigital(DigitalAgc_t* stt, int16_t agcMode) {
  if (stt == nullptr) return -1;
  stt->capacitorSlow = agcMode == kAgcModeFixedDigital ? 0 : 0x200000;
  stt->last_max_capacitorSlow = 0;
  stt->capacitorFast = 0;
  stt->gain = 0x10000;
  stt->gatePrevious = 0;
  stt->agcMode = agcMode;
  DigitalAgc_InitVad(&stt->vadNearend);
  stt->AgcVadFlag = 0;
  stt->cmdWkp = 1;
  for (int32_t& snr : stt->SNR) snr = 0;
  stt->snrFlag = 0;
  stt->continueNoiseCount = 0;
  stt->noiseAmpNrgSmooth = 0.0f;
  stt->noiseAmpNrg = 0;
  stt->dMinNoiseAmpNrg = 1e6f;
  stt->dInitMinNoiseAmpNrg = 0.0f;
  return 0;
}

int16_t DigitalAgc_ProcessVad(AgcVad_t* state, const int16_t* in, size_t nrSamples, int16_t AgcVadFlag) {
  // 128 samples are a block at 8 kHz already; otherwise 16 kHz input is
  // decimated 16 samples at a time.
  const bool already_8k = nrSamples == kVadRounds * kVadRoundOutput;
  const size_t rounds = already_8k ? kVadRounds : nrSamples / (2 * kVadRoundOutput);

  int32_t hp_state = state->HPstate;
  for (size_t round = 0; round < rounds; ++round) {
    int16_t decimated[kVadRoundOutput];
    const int16_t* samples_8k = decimated;
    if (already_8k) {
      samples_8k = in + round * kVadRoundOutput;
    } else {
      AdaptAgcSpl_DownsampleBy2(in + round * 2 * kVadRoundOutput, 2 * kVadRoundOutput, decimated,
                                state->downState);
    }

    uint32_t energy = 0;
    for (int n = 0; n < kVadRoundOutput; ++n) {
      const int32_t x = samples_8k[n];
      const int32_t y = x + hp_state;
      hp_state = AdaptAgcSpl_SatW32ToW16(((kHighPassPoleQ10 * y) >> 10) - x);
      energy += static_cast<uint32_t>((static_cast<int64_t>(y) * y) >> 6);
    }
    UpdateLevelStatistics(state, LogLevelQ10(energy), AgcVadFlag);
  }
  state->HPstate = static_cast<int16_t>(hp_state);
  return state->logRatio;
}

int32_t DigitalAgc_ProcessDigital(DigitalAgc_t* stt, const int16_t* in_near, const int16_t* in_near_H,
                                  int16_t* out, int16_t* out_H, uint32_t FS) {
  if (stt == nullptr || in_near == nullptr || out == nullptr) return -1;
  int sub_frame_length = 0;
  if (FS == 8000) {
    sub_frame_length = 8;
  } else if (FS == 16000 || FS == 32000) {
    sub_frame_length = 16;
  } else {
    return -1;
  }
  const size_t block_length = static_cast<size_t>(kSubFrames * sub_frame_length);
  const bool upper_band = FS == 32000 && in_near_H != nullptr && out_H != nullptr;

  if (in_near != out) std::memmove(out, in_near, block_length * sizeof(int16_t));
  if (upper_band && in_near_H != out_H) std::memmove(out_H, in_near_H, block_length * sizeof(int16_t));

  const int16_t logRatio = DigitalAgc_ProcessVad(&stt->vadNearend, out, block_length, stt->AgcVadFlag);
  const int32_t decay = SlowEnvelopeDecay(stt, logRatio);

  // SNR steering, once the detector has settled.
  bool low_snr = false;
  bool high_snr = false;
  if (stt->snrFlag != 0 && stt->cmdWkp == 1 && stt->vadNearend.counter >= kVadCounterMax) {
    if (stt->SNR[2] < 10241) {
      low_snr = stt->SNR[2] < 2048;
    } else {
      high_snr = stt->SNR[0] > static_cast<int64_t>(stt->SNR[1]) + 4096;  // caller's figures may be extreme
    }
  }

  int32_t envelope[kSubFrames];
  for (int k = 0; k < kSubFrames; ++k) {
    int32_t peak_energy = 0;
    for (int n = 0; n < sub_frame_length; ++n) {
      const int32_t sample = out[k * sub_frame_length + n];
      if (sample * sample > peak_energy) peak_energy = sample * sample;
    }
    envelope[k] = peak_energy;
  }

  const bool slow_may_fall = stt->cmdWkp == 2 || (stt->cmdWkp == 1 && stt->noiseAmpNrg < kNoiseFloorFreezeLevel);
  int32_t gains_Q16[kSubFrames + 1];
  gains_Q16[0] = stt->gain;
  LevelLog level_log{};
  for (int k = 0; k < kSubFrames; ++k) {
    // Fast follower: falls by 1000/65536 per millisecond, jumps to peaks.
    stt->capacitorFast = ScaleDiff32(-1000, stt->capacitorFast, stt->capacitorFast);
    if (envelope[k] > stt->capacitorFast) stt->capacitorFast = envelope[k];

    if (envelope[k] > stt->capacitorSlow) {
      stt->capacitorSlow = ScaleDiff32(500, envelope[k] - stt->capacitorSlow, stt->capacitorSlow);
    } else if (slow_may_fall) {
      stt->capacitorSlow = ScaleDiff32(decay, stt->capacitorSlow, stt->capacitorSlow);
      if (stt->cmdWkp == 1 && high_snr && stt->capacitorFast != 0 &&
          stt->capacitorSlow / stt->capacitorFast > 6) {
        stt->capacitorSlow += (envelope[k] - stt->capacitorSlow) >> 7;
      }
    }

    const int32_t level = stt->capacitorFast > stt->capacitorSlow ? stt->capacitorFast : stt->capacitorSlow;
    level_log = LevelLogOf(level);
    gains_Q16[k + 1] = GainForLevel(stt->gainTable, level_log);
  }

  // Gate: the further the fast envelope lies below the level, and the
  // steadier the signal, the more the gain leans toward the table's floor.
  const int32_t fast_zeros_Q9 = ZerosQ9(LevelLogOf(stt->capacitorFast));
  int32_t gate = 1000 + fast_zeros_Q9 - ZerosQ9(level_log) - stt->vadNearend.stdShortTerm;
  if (gate < 0) {
    stt->gatePrevious = 0;
  } else {
    gate = (gate + 7 * stt->gatePrevious) >> 3;
    stt->gatePrevious = AdaptAgcSpl_SatW32ToW16(gate);
  }
  if (gate > 0) {
    const int32_t gain_adjust = gate < 2500 ? (2500 - gate) >> 5 : 0;
    const int64_t floor_Q16 = stt->gainTable[0];
    for (int k = 1; k <= kSubFrames; ++k) {
      const int64_t above_floor = gains_Q16[k] - floor_Q16;
      // Large differences are shifted first, as a 32-bit product would
      // overflow; the 64-bit product keeps the same rounding either way.
      const int64_t pulled =
          above_floor > 8388608 ? (above_floor >> 8) * (178 + gain_adjust) : (above_floor * (178 + gain_adjust)) >> 8;
      gains_Q16[k] = SaturateW32(floor_Q16 + pulled);
    }
  }

  for (int k = 0; k < kSubFrames; ++k) gains_Q16[k + 1] = LimitGain(gains_Q16[k + 1], envelope[k]);
  for (int k = 1; k < kSubFrames; ++k) {
    if (gains_Q16[k] > gains_Q16[k + 1]) gains_Q16[k] = gains_Q16[k + 1];
  }
  stt->gain = gains_Q16[kSubFrames];

  ApplyGains(gains_Q16, sub_frame_length, out);
  if (upper_band) ApplyGains(gains_Q16, sub_frame_length, out_H);
  int32_t max_output_energy = 0;
  for (size_t i = 0; i < block_length; ++i) {
    if (out[i] * out[i] > max_output_energy) max_output_energy = out[i] * out[i];
  }

  // Noise floor at the output, measured in blocks where the fast envelope has
  // fallen below the slow one (pauses) or the suppressor reports low SNR.
  // The running minimum rises by 1 % per block while the floor is above it,
  // and dInitMinNoiseAmpNrg follows it down at once and up slowly (about
  // 16 s); the result gates the slow envelope's fall from the next block on.
  // The count of consecutive rises restarts every block, so the rise is never
  // capped; the tracker was tuned that way.
  if (stt->capacitorSlow > stt->capacitorFast || low_snr) {
    stt->noiseAmpNrgSmooth = 0.9f * stt->noiseAmpNrgSmooth + 0.1f * static_cast<float>(max_output_energy);
    if (stt->vadNearend.counter > 50) {
      if (stt->dMinNoiseAmpNrg > stt->noiseAmpNrgSmooth) {
        stt->continueNoiseCount = 0;
        stt->dMinNoiseAmpNrg =
            ((stt->dMinNoiseAmpNrg - stt->noiseAmpNrgSmooth) * 0.1f + stt->noiseAmpNrgSmooth) * 1.01f;
      } else if (stt->continueNoiseCount <= 999) {
        stt->dMinNoiseAmpNrg *= 1.01f;
        ++stt->continueNoiseCount;
      }
    }
    stt->continueNoiseCount = 0;
    if (stt->dMinNoiseAmpNrg <= stt->dInitMinNoiseAmpNrg) {
      stt->dInitMinNoiseAmpNrg = stt->dMinNoiseAmpNrg;
    } else {
      stt->dInitMinNoiseAmpNrg = 0.999f * stt->dInitMinNoiseAmpNrg + 0.001f * stt->dMinNoiseAmpNrg;
    }
    const float floor_energy = stt->dInitMinNoiseAmpNrg;
    stt->noiseAmpNrg = floor_energy >= 2147483520.0f ? INT32_MAX
                       : floor_energy <= 0.0f        ? 0
                                                     : static_cast<int32_t>(floor_energy);
  }
  return 0;
}

}  // namespace vorn
