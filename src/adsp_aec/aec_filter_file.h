// Reader of the stored echo path: a tagged-record coefficient file holding a
// 768-tap FIR estimate of the loudspeaker-to-microphone path (12 partitions of
// 64 float32 taps, little-endian). The taps are transformed partition by
// partition and summed into the canceller's partitioned frequency-domain
// filter, two planes (real, imaginary) of 32 partitions x 65 bins.
//
// File records: 8-byte tag, 32-bit little-endian payload length, payload.
#pragma once

#include <cstdint>

namespace vorn {

inline constexpr char kAecFilterHead[8] = {'A', 'E', 'C', '-', '-', '-', '-', '_'};
inline constexpr int kAecFilterFilePartitions = 12;
inline constexpr int kAecFilterFileTaps = 64;  // taps per partition
inline constexpr int kAecFilterFilePayloadBytes = kAecFilterFilePartitions * kAecFilterFileTaps * 4;
inline constexpr int kAecFilterPlaneBins = 65;   // bins per partition
inline constexpr int kAecFilterPlaneLen = 32 * kAecFilterPlaneBins;  // one plane, 32 partitions
static_assert(kAecFilterFilePayloadBytes == 3072);

// Adds the file's filter into wf_ini (wf_ini[0] real plane, wf_ini[1]
// imaginary plane). 0 on success, -1 on any failure. A file too short for its
// payload is refused before anything is added; only a read that fails halfway
// (the file shrinking underneath, say) clears both planes.
int32_t AdspAec_FilterReadPlanes(const char* path, float (*wf_ini)[kAecFilterPlaneLen]);

// The canceller's entry point: reads the file into the core's initial filter
// wfBuf_ini. Written over the core type so that this reader does not depend
// on the core's layout; AecCore is the only type it is used with.
template <typename Core>
int32_t AdspAec_FilterRead(char* path, Core* aec) {
  if (aec == nullptr) return -1;
  return AdspAec_FilterReadPlanes(path, aec->wfBuf_ini);
}

}  // namespace vorn
