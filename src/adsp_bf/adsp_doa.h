// Direction of arrival: per-hop steered-response search over 72 azimuths,
// its tracking history, and the angle helpers the searches share.
#pragma once

#include "adsp_bf/audio_dsp_proc.h"
#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

// Best direction of one elevation set and its score.
struct EleAziStruct {
  int idx;
  float en;
};
// Winning set (its position in the list) and its direction index.
struct EleAziIndex {
  int elevation;
  int azimuth;
};

// One hop of tracking on the windowed microphone spectra f: scores the 72
// directions, records the decision and returns the tracked azimuth (degrees).
int DOA(T_AudioDspState* st, float f[3][512]);
// Power of one packed spectrum of len points into len/2 slots; slot 0 holds
// the DC magnitude and slot len/2-1 the Nyquist magnitude (not powers), and
// bin len/2-1's own power is not formed. Those slots lie outside every band
// the weights are used in.
void GetDoaPsd(float* fft_data, float* psd, int len);
// Per-bin weight from how far the bin's power stands above the noise: 0.1 for
// noise-like bins, growing with the squared power ratio up to 100. The plain
// loop is the reference; the four-lane twin gives its bits.
void GetBfWeight(float* curr_freq_amp, float* ns_amp, float* w, int len);
void BfWeightPlain(const float* power, const float* noise, float* w, int len);
#if defined(VORN_SIMD4)
void BfWeightSimd(const float* power, const float* noise, float* w, int len);
#endif
// Scores every direction of every elevation set over bins 17..221 with
// magnitude-normalised microphone spectra weighted by w, ages and fills
// pr_ele and frame_bf_en, and returns the winning direction index 0..71.
int DoaSelectBfElevationAzimuth(T_AudioDspState* st, float f[3][512], float* w);
// Search band of the direction scores: bins 17..221, about 531 Hz to 6.9 kHz.
constexpr int kDoaLowBin = 17;
constexpr int kDoaHighBin = 221;
constexpr int kDoaBandBins = kDoaHighBin - kDoaLowBin + 1;

// The microphones' bins of the search band at unit magnitude, from the
// packed spectra f: unit[k - kDoaLowBin][m] = (re, im) / |X_m(k)|, the
// magnitude floored at 1e-8. The plain loop is the reference; the four-lane
// twin takes four bins at a time with the same operations and gives its bits.
void DoaUnitBins(const float f[3][512], float (*unit)[3][2]);
void DoaUnitBinsPlain(const float f[3][512], float (*unit)[3][2]);
#if defined(VORN_SIMD4)
void DoaUnitBinsSimd(const float f[3][512], float (*unit)[3][2]);
#endif

// Steered power of num_sets weight sets over the search band:
// scores[d] = sum over k of |sum_m W_d,m(k) U_m(k)|^2 w[k], bins in rising
// order, with U the unit-magnitude microphone bins (unit[k - kDoaLowBin][m]
// = re, im). The plain loop over the sets is the reference; the vector one
// scores the 72 directions of a transposed family (weight_tables.h) four at a
// time with the same operations per direction and gives the same bits; its
// AVX2 twin scores eight at a time, where the processor has it.
void DoaSteeredPowerPlain(const float* const* sets, int num_sets, const float (*unit)[3][2], const float* w,
                          float* scores);
#if defined(VORN_SIMD4)
void DoaSteeredPowerSimd(const float* search_table, const float (*unit)[3][2], const float* w, float* scores);
#endif
#if defined(VORN_AVX2)
void DoaSteeredPowerAvx2(const float* search_table, const float (*unit)[3][2], const float* w, float* scores);
#endif

// Position of the largest en (first on ties) and that entry's idx.
void SelectSort(EleAziStruct* ele_azi_struct, int len, EleAziIndex* phai_theta);

int AngleTo180(int a);  // a - 360 when a >= 181
int AngleTo360(int a);  // a + 360 when a < 0
// Truncating mean of angles taken in -179..180, mapped back to 0..359.
int MeanAngle(int* a, int n);
// Mean of the angles in the most populated 60-degree sector (sectors start
// every 30 degrees); 0 when no angle falls in any sector.
int HistAngle(int* a, int n);

}  // namespace vorn
