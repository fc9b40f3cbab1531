// Digital compressor/limiter of the AGC: its state records and the routines
// that run it (level detector, gain table, per-block gain computation).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn {

enum {
  kAgcModeUnchanged = 0,
  kAgcModeAdaptiveAnalog = 1,
  kAgcModeAdaptiveDigital = 2,
  kAgcModeFixedDigital = 3,
};

// Level detector: statistics of the signal's log energy per millisecond.
struct AgcVad_t {
  int32_t downState[8];       // 2:1 decimator state
  int16_t HPstate;            // high-pass state
  int16_t counter;            // rounds seen, saturating at 250
  int16_t logRatio;           // Q10, smoothed (level - long-term mean) / deviation
  int16_t meanLongTerm;       // Q10
  int32_t varianceLongTerm;   // Q8
  int16_t stdLongTerm;        // Q10
  int16_t stdLongTermMeanVad; // Q10
  int16_t counterVad;
  int16_t noisevoice;
  int16_t meanShortTerm;      // Q10
  int32_t varianceShortTerm;  // Q8
  int16_t stdShortTerm;       // Q10
};

struct DigitalAgc_t {
  int32_t capacitorSlow;           // slow envelope, squared amplitude
  int32_t last_max_capacitorSlow;
  int32_t capacitorFast;           // fast envelope, squared amplitude
  int32_t gain;                    // Q16, carried from block to block
  int32_t gainTable[32];           // Q16 gain per leading-zero count of the level
  int16_t gatePrevious;
  int16_t agcMode;
  AgcVad_t vadNearend;
  int16_t AgcVadFlag;
  int16_t cmdWkp;                  // wake-up mode: 1 or 2
  int32_t SNR[4];                  // Q10 dB; elements 0..2 used
  int16_t snrFlag;
  int16_t continueNoiseCount;
  float noiseAmpNrgSmooth;
  int32_t noiseAmpNrg;
  float dMinNoiseAmpNrg;
  float dInitMinNoiseAmpNrg;
};

static_assert(sizeof(AgcVad_t) == 64);
static_assert(offsetof(AgcVad_t, HPstate) == 32);
static_assert(offsetof(AgcVad_t, varianceLongTerm) == 40);
static_assert(offsetof(AgcVad_t, varianceShortTerm) == 56);
static_assert(offsetof(AgcVad_t, stdShortTerm) == 60);
static_assert(sizeof(DigitalAgc_t) == 252);
static_assert(offsetof(DigitalAgc_t, gainTable) == 16);
static_assert(offsetof(DigitalAgc_t, gatePrevious) == 144);
static_assert(offsetof(DigitalAgc_t, vadNearend) == 148);
static_assert(offsetof(DigitalAgc_t, AgcVadFlag) == 212);
static_assert(offsetof(DigitalAgc_t, SNR) == 216);
static_assert(offsetof(DigitalAgc_t, snrFlag) == 232);
static_assert(offsetof(DigitalAgc_t, noiseAmpNrgSmooth) == 236);
static_assert(offsetof(DigitalAgc_t, noiseAmpNrg) == 240);
static_assert(offsetof(DigitalAgc_t, dInitMinNoiseAmpNrg) == 248);

// Fills gainTable[0..31] (Q16) for compression gain G dB, target T dB below
// full scale and compression ratio R. Returns -3 for a null table, -1 when
// T < 0 and R < 2, else 0.
int32_t DigitalAgc_CalculateGainTable_Float(int32_t* gainTable, int16_t compressionGaindB,
                                            int16_t targetLevelDbfs, int16_t compRatio);

// Start values for the given mode (the gain table is left alone). Returns -1
// for a null record, else 0.
int32_t DigitalAgc_InitDigital(DigitalAgc_t* stt, int16_t agcMode);
void DigitalAgc_InitVad(AgcVad_t* state);

// Runs the level detector over one block (256 samples at 16 kHz or 128 at
// 8 kHz) and returns logRatio (Q10).
int16_t DigitalAgc_ProcessVad(AgcVad_t* state, const int16_t* in, size_t nrSamples, int16_t AgcVadFlag);

// Compresses and limits one block (16 sub-frames of 1 ms) from in_near into
// out, which may be the same buffer; at 32000 Hz the upper band in_near_H is
// given the same gains into out_H when both are present. Returns -1 for a
// null record or buffer or a rate other than 8000, 16000 or 32000, else 0.
int32_t DigitalAgc_ProcessDigital(DigitalAgc_t* stt, const int16_t* in_near, const int16_t* in_near_H,
                                  int16_t* out, int16_t* out_H, uint32_t FS);

}  // namespace vorn
