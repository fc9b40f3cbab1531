// The ceiling a linear multi-microphone filter could reach on a rendered
// scene: filters designed offline from the scene's own statistics, which no
// run-time beam has. They tell how much of a beam's shortfall is the
// estimator's and how much the array's.
#pragma once

#include <string>

#include "quality/systems.h"
#include "sim/scene.h"

namespace vorn::bench {

// Per bin of a 512-point transform (hop 256, square-root Hann windows), the
// noise covariance of the whole recording and the talker's transfer function
// relative to microphone 0 (its covariance's first column over its power at
// microphone 0), both taken from separate renderings of the talker and of
// the noise; the beam w = Rn^-1 h / (h^H Rn^-1 h), Rn loaded by `loading`
// times its mean diagonal, run over the capture. No suppressor follows.
// False with a message when the scene cannot be rendered again.
bool RunOracleBeam(const sim::Scene& scene, const sim::RenderedScene& rendered, double loading, SystemRun* run,
                   std::string* error);

// The same statistics, the talker's taken whole (its full-rank covariance Rs,
// reverberation and all, rather than one transfer function), in the
// speech-distortion-weighted multi-channel Wiener filter that estimates
// microphone 0's own image of the talker: w = (Rs + mu Rn)^-1 Rs e0. The
// larger `mu`, the more noise it removes and the more it distorts the talker.
// With `microphone_0_only` the same filter on microphone 0 alone: the
// per-bin gain Rs00 / (Rs00 + mu Rn00), what the filter owes nothing to the
// array for.
bool RunOracleWiener(const sim::Scene& scene, const sim::RenderedScene& rendered, double mu, bool microphone_0_only,
                     SystemRun* run, std::string* error);

}  // namespace vorn::bench
