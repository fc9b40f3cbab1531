// The recording's direction. With the classic profile the tool chooses the
// stretches of the recording that hold the talker and asks the library for
// the talker's direction in each; the answer is the direction most of them
// agree on. The enhanced profile does that work itself: the tool asks it
// once, at the end.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "front_end.h"

namespace vorn::cli {

class DirectionFinder {
 public:
  // `search_flag`: 0 none, 1 the per-frame history, 2 or 3 the search over
  // the samples of each stretch.
  explicit DirectionFinder(int search_flag) : search_flag_(search_flag) {}

  // After each processed frame: its microphone samples and whether it holds
  // the talker (speech, and no loudspeaker sound).
  void AddFrame(FrontEnd& front_end, const int16_t* mics, bool talker);
  // The direction in degrees, or nothing when the talker was never heard
  // long enough, the search is off, or it failed.
  std::optional<int> Finish(FrontEnd& front_end);

  // The direction most of `answers` agree on: the mean of those within 10
  // degrees (across 0) of the best supported answer, the earliest such on
  // ties; nothing for an empty list.
  static std::optional<int> Consensus(const std::vector<int>& answers);

 private:
  struct Stretch {
    int talker_frames = 0;
    uint64_t order = 0;
    std::vector<int16_t> samples;  // sample search only
    std::optional<int> answer;     // history search only
  };
  void CloseStretch(FrontEnd& front_end);

  int search_flag_;
  std::vector<int16_t> current_;  // the stretch being filled
  int current_frames_ = 0;
  int current_talker_ = 0;
  uint64_t stretches_seen_ = 0;
  std::vector<Stretch> kept_;  // the most talkative stretches
};

// The enhanced library's answer for the whole recording: with per-frame
// tracking (flag 1), the talker evidence the tracker pooled over the run
// (speech only, the loudspeaker and its echo left out); with the search over
// samples (2, 3), that search over the capture as recorded, of which the
// last kMostSearchedSeconds are kept.
class LibraryDirection {
 public:
  static constexpr int kMostSearchedSeconds = 300;

  explicit LibraryDirection(int search_flag) : search_flag_(search_flag) {}
  void AddFrame(const int16_t* mics);
  // The direction in degrees and its confidence (0..1), or nothing when the
  // search is off, failed, or found no talker.
  std::optional<int> Finish(FrontEnd& front_end, double* confidence);

 private:
  int search_flag_;
  std::vector<int16_t> kept_;  // the newest frames, oldest first from `start_`
  size_t start_ = 0;
};

}  // namespace vorn::cli
