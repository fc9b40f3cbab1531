// The ceiling a linear beam could reach on a rendered scene: an MVDR beam
// designed offline from the scene's own statistics, which no run-time beam
// has. It tells how much of a beam's shortfall is the estimator's and how
// much the array's.
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

}  // namespace vorn::bench
