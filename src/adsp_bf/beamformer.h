// Beam forming inside the module: the dispatch from beam type to fixed or
// adaptive beam, the adaptive generalised sidelobe canceller, and the three
// simultaneous beams handed to the multi-channel post filter.
#pragma once

#include "adsp_bf/audio_dsp_proc.h"
#include "common/simd4.h"

namespace vorn {

// One hop of beam type fbf_type (1..7) steered to angle: f holds the three
// unwindowed microphone spectra; out (512 floats of room) receives the 256
// output samples in out[0..255].
void BF(T_AudioDspState* st, float f[3][512], float* out, int fbf_type, int angle);

// Adaptive beam for look direction angle (0, 60, otherwise 300): fbf is the
// fixed-beam spectrum, out receives 256 samples; out may be fbf itself.
void Adapt_GSC(T_AudioDspState* st, float f[3][512], float* fbf, int angle, float* out);
// Speech detector of the GSC on the reference spectra bm_f and the fixed beam:
// 1 = speech (do not adapt), 0 = not.
int GscVad(T_AudioDspState* st, float bm_f[3][512], float* fbf_f);
// One normalised LMS step of the three filters from the 256 output samples.
void UpdateFilter(T_AudioDspState* st, float* td_out, float fd_ref[3][512]);
// The step's per-bin part on packed spectra: the references' summed power
// smoothed into noise, then each filter moved by the error times its
// reference's conjugate over that power (floored). The plain loop is the
// reference; the four-lane twin gives its bits.
void GscStepPlain(const float* err, const float fd_ref[3][512], float* noise, float* const filters[3]);
// Blocking output j of the hop from the microphone spectra f with the
// blocking matrix bm ([257 bins][3 outputs][3 microphones][re, im]):
// B_j(k) = sum_m bm_j,m(k) X_m(k), microphones in order 0, 1, 2, packed like
// f. The plain loop is the reference; the four-lane twin gives its bits.
void GscBlockingPlain(const float* bm, int j, const float f[3][512], float* blocked);
#if defined(VORN_SIMD4)
void GscBlockingSimd(const float* bm, int j, const float f[3][512], float* blocked);
#endif
#if defined(VORN_SIMD4)
void GscStepSimd(const float* err, const float fd_ref[3][512], float* noise, float* const filters[3]);
#endif

// Three delay-and-sum beam spectra steered to angle, angle + 120 and
// angle + 240 degrees.
void VornMbf(float f[3][512], float out[3][512], int angle);

// The edge-bin accumulators the beams of one hop hand on to the next beam.
struct MbfCarry {
  float re = 0.0f;       // bin 0, then the real part of each bin 1..255
  float nyquist = 0.0f;  // bin 256, summed across the beams
};
// Beam b (0, 1, 2) of VornMbf into y, given the carries of beams 0..b-1;
// called for b = 0, 1, 2 in turn it forms the same beams one block at a time.
void MbfBeam(float f[3][512], float* y, int b, int angle, MbfCarry& carry);
void MbfBeamPlain(float f[3][512], float* y, int b, int angle, MbfCarry& carry);
#if defined(VORN_SIMD4)
void MbfBeamSimd(float f[3][512], float* y, int b, int angle, MbfCarry& carry);
#endif

}  // namespace vorn
