// Array helpers shared by the suppressor, the VAD, the post filter and the
// beamformer. Each routine is a plain loop with a fixed order of operations
// (the callers' results depend on the float rounding), guarded so that a
// non-positive length does nothing and no index leaves the caller's arrays.
#include "common/adsp_common_util.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "common/pcm_round.h"

namespace vorn {

short TRUNC(float x) {
  if (x > -32768.0f && x < 32767.0f) return static_cast<short>(x);
  if (x > 32767.0f) return 32767;
  if (x < -32768.0f) return -32768;
  return 0;  // exactly 32767.0, exactly -32768.0, NaN
}

void Float2PCMPlain(const float *inp, short *out, int len) {
  for (int i = 0; i < len; ++i) out[i] = TRUNC(inp[i]);
}

// Eight samples at a time where the build has vectors (pcm_round).
void Float2PCM(float *inp, short *out, int len) {
#if defined(VORN_SIMD4)
  TruncToPcmSimd(inp, out, len);
#else
  Float2PCMPlain(inp, out, len);
#endif
}

void InitData(float *x, float a, int len) {
  for (int i = 0; i < len; ++i) x[i] = a;
}

void CopyData(float *dst, float *src, int len) {
  for (int i = 0; i < len; ++i) dst[i] = src[i];
}

// The sum runs in 64 bits so that a long run of large angles cannot overflow;
// an empty list has no mean and gives 0 instead of a division by zero.
int MeanAngle360(int *ang, int len) {
  if (len <= 0) return 0;
  std::int64_t sum = 0;
  for (int i = 0; i < len; ++i) sum += ang[i];
  return static_cast<int>(sum / len);
}

namespace {

// Moves au_buff[frame_move..frame_len-1] to the front; returns the index
// where the frame_move fresh entries start, or -1 when the sizes make no sense.
int SlideLeft(float *au_buff, int frame_len, int frame_move) {
  if (frame_len <= 0 || frame_move <= 0 || frame_move > frame_len) return -1;
  const int keep = frame_len - frame_move;
  for (int i = 0; i < keep; ++i) au_buff[i] = au_buff[i + frame_move];
  return keep;
}

}  // namespace

void SaveFrameMoveAu(float *au_buff, const short *new_au, int frame_len, int frame_move) {
  const int tail = SlideLeft(au_buff, frame_len, frame_move);
  if (tail < 0) return;
  for (int i = 0; i < frame_move; ++i) au_buff[tail + i] = static_cast<float>(new_au[i]);
}

void AddZero(float *au_buff, int frame_len, int frame_move) {
  const int tail = SlideLeft(au_buff, frame_len, frame_move);
  if (tail < 0) return;
  for (int i = 0; i < frame_move; ++i) au_buff[tail + i] = 0.0f;
}

void AddWinPlain(const float *au, const float *win, int len, float *win_out) {
  for (int i = 0; i < len; ++i) win_out[i] = win[i] * au[i];
}

void AddWin(float *au, const float *win, int len, float *win_out) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return AddWinAvx2(au, win, len, win_out);
#endif
  AddWinPlain(au, win, len, win_out);
}

void GetPsd(float *f, int fft_len, float *psd) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return GetPsdAvx2(f, fft_len, psd);
#endif
  GetPsdPlain(f, fft_len, psd);
}

void GetPsdPlain(const float *f, int fft_len, float *psd) {
  if (fft_len <= 0) return;
  const int half = fft_len / 2;
  psd[0] = f[0] * f[0];
  for (int k = 1; k < half; ++k) psd[k] = f[k] * f[k] + f[fft_len - k] * f[fft_len - k];
  psd[half] = f[half] * f[half];
}

// The sum is accumulated in double over the stored floats and rounded once.
float GetHanningWin(int len, float *win) {
  if (len < 1) return 0.0f;
  double sum = 0.0;
  for (int i = 1; i <= len; ++i) {
    win[i - 1] = static_cast<float>(0.5 * (1.0 - std::cos(i * 6.2831852 / (len + 1))));
    sum += win[i - 1];
  }
  return static_cast<float>(sum);
}

void SmoothDataPlain(float *y, const float *x, float alpha, int length) {
  const float beta = 1.0f - alpha;
  for (int i = 0; i < length; ++i) y[i] = alpha * y[i] + beta * x[i];
}

void DataMinPlain(const float *a, const float *b, int length, float *c) {
  for (int i = 0; i < length; ++i) c[i] = a[i] < b[i] ? a[i] : b[i];
}

void DataMultPlain(const float *a, const float *b, int length, float scale, float *c) {
  for (int i = 0; i < length; ++i) c[i] = a[i] * b[i] * scale;
}

void SmoothData(float *y, float *x, float alpha, int length) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return SmoothDataAvx2(y, x, alpha, length);
#endif
  SmoothDataPlain(y, x, alpha, length);
}

void DataMin(float *a, float *b, int length, float *c) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return DataMinAvx2(a, b, length, c);
#endif
  DataMinPlain(a, b, length, c);
}

void DataMult(float *a, float *b, int length, float scale, float *c) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) return DataMultAvx2(a, b, length, scale, c);
#endif
  DataMultPlain(a, b, length, scale, c);
}

// Breakpoints belong to the branch above them; outside (0, 5) and for NaN the
// gain factor is 1.
float ExpExpint(float x) {
  if (x > 0.0f && x < 0.001f) return static_cast<float>(0.7497 / std::sqrt(static_cast<double>(x)));
  if (x >= 0.001f && x < 0.25f)
    return ((1.092f * x) * x + 0.2034f * x + 0.001081f) / (x * x + 0.03076f * x + 2.257e-5f);
  if (x >= 0.25f && x < 1.0f)
    return ((0.9287f * x) * x + 1.045f * x + 0.3339f) / (x * x + 0.991f * x + 0.0774f);
  if (x >= 1.0f && x < 5.0f)
    return ((1.01f * x) * x + 0.1371f * x + 0.7789f) / (x * x + 0.2453f * x + 0.4813f);
  return 1.0f;
}

// An empty range has no mean; it gives 0 rather than 0/0.
float DataMean(float *x, int si, int ei) {
  if (ei <= si) return 0.0f;
  float sum = 0.0f;
  for (int i = si; i < ei; ++i) sum += x[i];
  return sum / static_cast<float>(ei - si);
}

int SaveData(const char *fn, const void *p, const int len, int size) {
  FILE *fp = fn != nullptr ? std::fopen(fn, "ab") : nullptr;
  if (fp == nullptr) return -1;  // the library never prints: the caller hears of it
  if (p != nullptr && len > 0 && size > 0) std::fwrite(p, static_cast<size_t>(size), static_cast<size_t>(len), fp);
  std::fclose(fp);
  return 0;
}

// DC and Nyquist are real and enter once each; the interior bins carry their
// real and imaginary parts. A band reaching beyond 0..fft_len/2 is clipped to
// the spectrum (no read outside f), while the divisor stays the caller's band
// width. An empty band (eh < el) gives 0.
float GetSubbandEng(float *f, int fft_len, int el, int eh) {
  const int width = eh - el + 1;
  if (fft_len <= 0 || width <= 0) return 0.0f;
  const int half = fft_len / 2;
  float sum = 0.0f;
  if (el <= 0 && eh >= 0) sum += f[0] * f[0];
  if (el <= half && eh >= half) sum += f[half] * f[half];
  const int first = el > 1 ? el : 1;
  const int last = eh < half - 1 ? eh : half - 1;
  for (int k = first; k <= last; ++k) sum += f[k] * f[k] + f[fft_len - k] * f[fft_len - k];
  return sum / static_cast<float>(width);
}

float CalcDB(float x, float y) { return 10.0f * std::log10(x / (y + 1e-8f) + 1e-5f); }

namespace {

constexpr long kBlockHeaderBytes = 12;  // 8-byte tag + 32-bit little-endian length
constexpr int kTagBytes = 8;

int CloseWith(FILE *fp, int result) {
  std::fclose(fp);
  return result;
}

}  // namespace

// Walks the blocks of a tagged coefficient file: 8-byte tag, 32-bit length,
// data. The first block whose tag matches decides: it is accepted only when it
// holds exactly data_len floats and ends inside the file; a later block of the
// same name is never consulted.
//
// Tags are at most 8 characters. The stored tag is compared as a NUL-terminated
// string of at most 8 bytes, so a head longer than 8 characters never matches
// and the comparison never reads past the tag; bytes beyond ASCII compare as
// plain bytes. Positions are kept in 64 bits so that a huge block length
// cannot wrap the running position back into the file.
int Common_FilterRead(char *filter_conf, float *o_filter, int data_len, const char *filter_head,
                      int filter_head_len) {
  (void)o_filter;  // validation only: the coefficients are read by the caller's own loader
  if (filter_conf == nullptr) return 0;
  if (filter_head == nullptr || filter_head_len < 0) return -1;

  FILE *fp = std::fopen(filter_conf, "rb");
  if (fp == nullptr) return -1;
  if (std::fseek(fp, 0, SEEK_END) != 0) return CloseWith(fp, -1);
  const long size = std::ftell(fp);
  if (std::fseek(fp, 0, SEEK_SET) != 0) return CloseWith(fp, -1);
  if (size <= kBlockHeaderBytes) return CloseWith(fp, -1);

  const std::int64_t wanted_bytes = static_cast<std::int64_t>(data_len) * 4;
  std::int64_t pos = kBlockHeaderBytes;  // end of the current block header
  do {
    char tag[kTagBytes + 1] = {};
    unsigned char len_bytes[4];
    if (std::fread(tag, 1, kTagBytes, fp) != static_cast<size_t>(kTagBytes)) return CloseWith(fp, -1);
    if (std::fread(len_bytes, 1, 4, fp) != 4) return CloseWith(fp, -1);
    const std::uint32_t block_len = static_cast<std::uint32_t>(len_bytes[0]) |
                                    (static_cast<std::uint32_t>(len_bytes[1]) << 8) |
                                    (static_cast<std::uint32_t>(len_bytes[2]) << 16) |
                                    (static_cast<std::uint32_t>(len_bytes[3]) << 24);
    if (std::strncmp(filter_head, tag, static_cast<size_t>(filter_head_len)) == 0) {
      const bool inside = pos + block_len <= size;
      return CloseWith(fp, inside && static_cast<std::int64_t>(block_len) == wanted_bytes ? 0 : -1);
    }
    if (std::fseek(fp, static_cast<long>(block_len), SEEK_CUR) != 0) return CloseWith(fp, -1);
    pos += static_cast<std::int64_t>(block_len) + kBlockHeaderBytes;
  } while (pos < size);
  return CloseWith(fp, -1);
}

}  // namespace vorn
