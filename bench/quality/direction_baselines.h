// Direction finders the bench measures Vorn against, written here from their
// textbook definitions: steered response power with the phase transform
// (plain, and with each bin weighted by its SNR) and MUSIC with the
// pseudo-spectrum normalised per frequency. Each gives a per-frame azimuth
// (statistics pooled with a 0.5 s forgetting time) and one azimuth per
// stretch (statistics pooled over the stretch), searching azimuth and
// elevation over the same range the bench's talkers cover.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn::bench {

enum class Baseline { kSrpPhat, kSrpPhatSnr, kMusic };

const char* BaselineName(Baseline b);

struct FrameRange {
  std::size_t begin = 0, end = 0;  // 256-sample frames [begin, end)
};

struct BaselineAnswers {
  std::vector<double> per_frame_deg;  // one per frame
  std::vector<double> stretch_deg;    // one per requested stretch
};

// `mics`: interleaved three-microphone capture; `stretches`: the spans to
// answer for as a whole.
BaselineAnswers RunBaseline(Baseline method, const std::vector<std::int16_t>& mics,
                            const std::vector<FrameRange>& stretches);

}  // namespace vorn::bench
