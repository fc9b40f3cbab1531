// Read-only tables shared by the real FFT and the analysis windowing.
#pragma once

namespace vorn {

// 8-bit bit reversal of the index: 0, 128, 64, 192, 32, 160, ...
extern const short fft256_read_indexes[256];

// sin(2*pi*i/1024) for i = 0..640; the cosine of the same angle sits 256
// entries further on, so transforms up to 1024 points read all their
// twiddles from here.
extern const float sincos_t_ext[641];

// Symmetric 512-point Hamming window (period 511) scaled to unit energy.
extern const float hanmming_win[512];

}  // namespace vorn
