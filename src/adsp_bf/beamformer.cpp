// Beam type dispatch. Fixed beams are formed in the frequency domain and
// brought back by overlap-save: the weights carry a common delay of a quarter
// block, so the beam's response lies inside the second half of the inverse
// transform, which is the hop we keep. Types 3 and 4 hand the fixed beam to
// the adaptive canceller as its speech reference.
#include "adsp_bf/beamformer.h"

#include "adsp_bf/fixed_beamformer.h"
#include "common/adsp_common_fft_rel.h"

namespace vorn {

void BF(T_AudioDspState* st, float f[3][512], float* out, int fbf_type, int angle) {
  if (fbf_type == 3 || fbf_type == 4) {
    // The fixed beam is formed in the output block itself: the canceller
    // reads it before it writes its samples there.
    FixedBF(f, out, fbf_type, angle);
    Adapt_GSC(st, f, out, angle, out);
    return;
  }
  FixedBF(f, out, fbf_type, angle);
  ifft_rel(out, kBfFftLen, kBfFftOrder);
  for (int n = 0; n < kBfHop; ++n) out[n] = out[n + kBfHop];
}

}  // namespace vorn
