// The microphones' spatial covariance per band bin, pooled over a stretch,
// and the direction evidence of its principal eigenvector.
//
// Where one talker is louder than the rest of the room in a bin, the
// pooled covariance there is nearly of rank one and its principal
// eigenvector is the talker's steering vector: the phase differences it
// holds are those of the direct sound, with the diffuse part (babble,
// the room's tail) spread over all three eigenvectors rather than mixed
// into the one that is kept. Unlike the onset weighting, every hop of the
// stretch contributes, the loud ones most, so a short stretch whose
// onsets are few still gives one vote per bin.
#pragma once

#include "adsp_bf/doa_gcc.h"

namespace vorn {

// c += weight[b] * x x^H per bin (every bin fully when weight is null).
void GccAddCovariance(const GccBand& band, const float* weight, GccCovariance* c);

// For each bin, the principal eigenvector of pooled - noise_scale[b] * noise
// is reduced to its unit-magnitude pair products and added to `cross`,
// weighted by how far its eigenvalue stands above the other two (1 for a
// single plane wave, 0 for a field with no direction) and by the share of
// the bin's pooled power left once the noise is taken out. Returns the sum
// of the weights.
float GccAddPrincipal(const GccCovariance& pooled, const GccCovariance& noise, const float noise_scale[kGccBins],
                      GccCross* cross);

// The same evidence from the talk's covariance whitened by the noise's:
// per bin, the principal generalised eigenvector v of (talk, noise), both
// taken per hop (each pooled sum over its count of hops), gives the
// talker's steering vector as noise * v, whatever the noise's own
// direction. A point noise that outweighs the talker in every bin, which
// turns the plain principal eigenvector toward itself, is whitened away;
// diffuse noise is no worse off than before. Each bin is weighted by how far
// its whitened eigenvalue stands above the other two and by the share of
// it that is not noise (1 - 1/eigenvalue: a whitened bin of noise alone has
// every eigenvalue near 1). Returns the sum of the weights.
float GccAddWhitenedPrincipal(const GccCovariance& talk, float talk_hops, const GccCovariance& noise,
                              float noise_hops, GccCross* cross);

}  // namespace vorn
