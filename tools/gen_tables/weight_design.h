// Design procedures of the beamformer weight sets (complex double per bin
// and microphone; the writer rounds to float). Assumptions: DESIGN.md.
#pragma once

#include <array>

#include "array_model.h"

namespace vorn::gen {

using WeightSet = std::array<MicVector, kBins>;                      // [bin][mic]
using BlockingMatrix = std::array<std::array<MicVector, 3>, kBins>;  // [bin][output][mic]

// Diagonal loading of the designed sets, relative to the unit diagonal of
// the noise coherence. Fitted to the reference rows of the MVDR set for
// 0 degrees (least squares over bins 1 and 64 and the real parts of bins 0
// and 256 gives 0.09995); see DESIGN.md.
constexpr double kMvdrLoading = 0.1;

// (1/3) exp(-j 2 pi k (128 + tau_m) / 512): aligns and averages the three
// microphones for a source at az, theta degrees, delayed by 128 samples.
WeightSet DelayAndSum(double az_deg, double theta_deg, double radius_samples = kRadiusSamples);

// Minimum-variance distortionless beam in the array plane against a
// spherically isotropic (diffuse) noise field, with diagonal loading.
WeightSet MvdrDiffuse(double az_deg, double radius_samples = kRadiusSamples);

// Least-squares beam: unit response (with the common delay) at az and the
// least mean power over all in-plane arrival directions, regularised by the
// same loading. Used for the fixed set of beam type 7.
WeightSet LeastSquaresInPlane(double az_deg);

// Three outputs, each microphone j aligned to the look direction minus the
// aligned average of all three, so that every output nulls a plane wave from
// az. Each output is then scaled per bin so that a diffuse field reaches it
// with the power it has at one microphone (BlockingGain): the references
// stay as strong as the noise they describe at every frequency, instead of
// fading where the microphones are coherent.
BlockingMatrix Blocking(double az_deg);

// Limits of the blocking weights' magnitudes: the normalising gain is held
// between kBlockingMinWeight * 3 and kBlockingMaxWeight * 1.5.
constexpr double kBlockingMinWeight = 0.2;
constexpr double kBlockingMaxWeight = 1.9;

// Gain that brings an output whose diffuse-field power (per unit power at
// one microphone) is diffuse_power up to unit power, within those limits.
double BlockingGain(double diffuse_power);

}  // namespace vorn::gen
