// Small helpers of the beamformer: spectral ones on 512-point packed spectra
// (element 0 DC, k = 1..256 real parts, 512-k imaginary parts) or on
// 256-sample halves of a 512-sample overlap-save block, and the microphone
// order of the interleaved input.
#pragma once

namespace vorn {

// old_data[0..255] <- old_data[256..511]; old_data[256..511] <- new_data[0..255].
void FrameShiftSave(float* old_data, float* new_data);
// 512-point forward / inverse transform out of place; `in` is left untouched.
void FFT(float* in, float* out);
void IFFT(float* in, float* out);
// Per-bin complex product out = g * f (no conjugation); out may alias f or g.
void FreqFilter(float* f, float* g, float* out);

// Input slot of microphone rows 0, 1, 2: 0, 1, 2 unless the caller names
// them. False when a named slot is not 0..2: it would address samples
// outside the interleaved frame.
bool TakeMicOrder(const short* mic_order, short order[3]);

}  // namespace vorn
