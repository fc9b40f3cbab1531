// Fixed beams: a per-bin complex weighted sum of the three microphone
// spectra with a weight set chosen from the constant tables.
#pragma once

namespace vorn {

// Writes one packed 512-point beam spectrum to out. fbf_type is the beam
// type (1 delay-and-sum, 2 MVDR, 3/4 GSC references, 5/6 sector beams,
// 7 the fixed set ls_w_300, anything else the fall-back mvdr_w_0); angle
// picks the direction for types 1 to 4.
void FixedBF(float f[3][512], float* out, int fbf_type, int angle);

// Index 0, 1 or 2 of the delay-and-sum sector (0, 120, 240 degrees) with the
// most energy between about 531 Hz and 6.9 kHz.
int SelectBf(float f[3][512]);

}  // namespace vorn
