// Small array routines over caller-owned float buffers shared by the noise
// suppressor, the VAD, the post filter and the beamformer, plus the locator
// of a named block in a tagged coefficient file. Nothing here allocates
// (apart from the file streams); a length of zero or less makes every loop
// routine do nothing.
#pragma once

#include "common/cpu_avx2.h"
#include "common/simd4.h"

namespace vorn {

// Float to 16-bit: truncation toward zero inside (-32768, 32767), saturation
// beyond; exactly 32767.0, exactly -32768.0 and NaN give 0.
short TRUNC(float x);
void Float2PCM(float *inp, short *out, int len);
void Float2PCMPlain(const float *inp, short *out, int len);

void InitData(float *x, float a, int len);
void CopyData(float *dst, float *src, int len);

// Truncating integer mean of ang[0..len-1] (no wrap-around handling).
int MeanAngle360(int *ang, int len);

// Slides au_buff left by frame_move and appends new_au (as float, unscaled).
void SaveFrameMoveAu(float *au_buff, const short *new_au, int frame_len, int frame_move);
// Slides au_buff left by frame_move and zeroes the last frame_move entries.
void AddZero(float *au_buff, int frame_len, int frame_move);
// win_out[i] = win[i] * au[i]
void AddWin(float *au, const float *win, int len, float *win_out);
void AddWinPlain(const float *au, const float *win, int len, float *win_out);

// Bin powers of a packed spectrum (see adsp_common_fft_rel.h): fft_len/2+1 outputs.
void GetPsd(float *f, int fft_len, float *psd);
void GetPsdPlain(const float *f, int fft_len, float *psd);
#if defined(VORN_AVX2)
// Eight bins per vector, the mirrored half read backwards (elementwise_avx2).
void GetPsdAvx2(const float *f, int fft_len, float *psd);
#endif

// win[i-1] = 0.5*(1 - cos(i*6.2831852/(len+1))), i = 1..len; returns the sum
// of the stored values (0 for len < 1).
float GetHanningWin(int len, float *win);

// Centred smoothing of the longer array by the shorter; out has as many
// entries as the longer array. Terms beyond either edge are left out.
// ConvPlain is the reference; ConvSimd gives its bits several outputs at a
// time, and Conv takes it where the build has four-lane vectors.
void Conv(float *a, int alen, float *b, int blen, float *out);
void ConvPlain(const float *a, int alen, const float *b, int blen, float *out);
#if defined(VORN_SIMD4)
void ConvSimd(const float *a, int alen, const float *b, int blen, float *out);
#endif
// The same outputs for o = first..past-1 only (clipped to the signal); the
// other entries of out are not written.
void ConvRange(const float *a, int alen, const float *b, int blen, int first, int past, float *out);
void ConvRangePlain(const float *a, int alen, const float *b, int blen, int first, int past, float *out);
#if defined(VORN_SIMD4)
void ConvRangeSimd(const float *a, int alen, const float *b, int blen, int first, int past, float *out);
#endif
#if defined(VORN_AVX2)
// Eight outputs per vector where the processor has AVX2 (ConvRange asks it).
void ConvRangeAvx2(const float *a, int alen, const float *b, int blen, int first, int past, float *out);
#endif

// y[i] = alpha*y[i] + (1 - alpha)*x[i]
void SmoothData(float *y, float *x, float alpha, int length);
// c[i] = a[i] < b[i] ? a[i] : b[i]
void DataMin(float *a, float *b, int length, float *c);
// c[i] = a[i]*b[i]*scale
void DataMult(float *a, float *b, int length, float scale, float *c);
// The plain loops of the four above; where the processor has AVX2 they run
// eight elements per vector (elementwise_avx2) with the same bits.
void SmoothDataPlain(float *y, const float *x, float alpha, int length);
void DataMinPlain(const float *a, const float *b, int length, float *c);
void DataMultPlain(const float *a, const float *b, int length, float scale, float *c);
#if defined(VORN_AVX2)
void SmoothDataAvx2(float *y, const float *x, float alpha, int length);
void DataMinAvx2(const float *a, const float *b, int length, float *c);
void DataMultAvx2(const float *a, const float *b, int length, float scale, float *c);
void AddWinAvx2(const float *au, const float *win, int len, float *win_out);
#endif

// Piecewise rational approximation used by the spectral gain rule.
float ExpExpint(float x);

// Mean of x[si..ei-1].
float DataMean(float *x, int si, int ei);

// Debug dump: appends len items of size bytes to fn. 0, or -1 when the file
// cannot be opened.
int SaveData(const char *fn, const void *p, const int len, int size);

// Mean bin power of a packed spectrum over bins el..eh inclusive.
float GetSubbandEng(float *f, int fft_len, int el, int eh);
// 10*log10(x/(y + 1e-8) + 1e-5)
float CalcDB(float x, float y);

// Checks that the tagged coefficient file filter_conf holds a block whose tag
// starts with filter_head[0..filter_head_len-1] and carries exactly data_len
// floats. Returns 0 when it does (or when filter_conf is null), -1 otherwise.
// It validates only: o_filter is not written.
int Common_FilterRead(char *filter_conf, float *o_filter, int data_len, const char *filter_head,
                      int filter_head_len);

}  // namespace vorn
