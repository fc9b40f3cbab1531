// Hand-offs between module states and the speech-detection path. Modules
// never call each other; the core copies what one produces into the state
// of the next.
#pragma once

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "vorn_proc.h"

namespace vorn {

// The beamformer's three beams of the last frame.
void VornGetMbfTimeSignalFromBf(TBfParam* pm, short out[3][256]);
void VornGetMbfTimeSignalFromBfToNs(TBfParam* bf_pm, TNsParam* ns_pm);
// The suppressor's noise power estimate feeds the direction finder's weights.
void VornGetNosieEstFromNsToBf(TNsParam* ns_pm, TBfParam* bf_pm);

// Speech decision for one 256-sample frame: 1 speech, 0 not. Runs the VAD's
// own suppressor instance, steered by the canceller's coherence and the
// reference-to-residual energy ratio when the canceller is on. ns_out
// receives that suppressor's output, or is null when nobody reads it (the
// suppressor then forms only what the decision needs).
int VornVadProc(T_VornParam* vorn_pm, const short* au, const short* aec_ref, const float* corr_far_near, int corr_len,
                short* ns_out);

}  // namespace vorn
