// A capture the whole front end can be run over: a talker on the array over
// light noise and, optionally, far-end speech played through a decaying echo
// path into every microphone and fed as the loudspeaker reference.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn::test {

struct Scene {
  std::vector<short> mics, ref;  // interleaved microphones; the reference (zeros without echo)
  std::size_t frames() const { return ref.size() / 256; }
  const short* Mics(std::size_t frame) const { return &mics[3 * 256 * frame]; }
  const short* Ref(std::size_t frame) const { return &ref[256 * frame]; }
};

// `talker_rms` 0 gives far-end single talk. The echo arrives 10 ms late.
Scene MakeScene(double seconds, double azimuth, double talker_rms, bool echo, std::uint32_t seed);

}  // namespace vorn::test
