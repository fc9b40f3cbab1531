// Utterance direction. The library's search covers at most 64 frames
// (about one second), and one second of a reverberant, noisy room can point
// anywhere near the talker. So the recording is cut into consecutive
// stretches of that length, the ones where the talker fills most frames are
// searched, and the answer is the mean of the answers that agree, within 10
// degrees, with the best supported one. Only the most talkative stretches are kept, which
// bounds memory and time on long recordings. The search of the history
// (flag 1) reads the scores the running beamformer stored for the latest
// frames, so it is asked as each stretch ends; the search over samples
// (flags 2 and 3) is given copies of the kept stretches after the frame
// loop, two frames longer than what it scores since its analysis frames
// reach 512 samples ahead.
#include "direction.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vorn::cli {
namespace {

constexpr int kSearchFrames = 64;
constexpr int kSampleSearchFrames = kSearchFrames + 2;
// A stretch counts when the talker fills three quarters of its frames.
constexpr int kLeastTalkerFrames = kSearchFrames * 3 / 4;
constexpr size_t kMostStretches = 16;
constexpr int kAgreementDeg = 10;

int AngleBetween(int a, int b) {
  const int d = ((a - b) % 360 + 360) % 360;
  return std::min(d, 360 - d);
}

}  // namespace

std::optional<int> DirectionFinder::Consensus(const std::vector<int>& answers) {
  const int* best = nullptr;
  int best_support = 0;
  for (const int& candidate : answers) {
    int support = 0;
    for (int other : answers) support += AngleBetween(candidate, other) <= kAgreementDeg ? 1 : 0;
    if (support > best_support) {
      best_support = support;
      best = &candidate;
    }
  }
  if (best == nullptr) return std::nullopt;
  // The agreeing answers are averaged as directions (unit vectors), which
  // is right across 0 degrees and finer than the search's 5-degree grid.
  double x = 0.0, y = 0.0;
  for (int other : answers) {
    if (AngleBetween(*best, other) > kAgreementDeg) continue;
    x += std::cos(other * std::numbers::pi / 180.0);
    y += std::sin(other * std::numbers::pi / 180.0);
  }
  const int mean = static_cast<int>(std::lround(std::atan2(y, x) * 180.0 / std::numbers::pi));
  return (mean % 360 + 360) % 360;
}

void DirectionFinder::AddFrame(FrontEnd& front_end, const int16_t* mics, bool talker) {
  if (search_flag_ == 0) return;
  if (search_flag_ != 1) current_.insert(current_.end(), mics, mics + kMics * kFrameSamples);
  ++current_frames_;
  current_talker_ += talker ? 1 : 0;
  if (current_frames_ == (search_flag_ == 1 ? kSearchFrames : kSampleSearchFrames)) CloseStretch(front_end);
}

void DirectionFinder::CloseStretch(FrontEnd& front_end) {
  Stretch stretch;
  stretch.talker_frames = current_talker_;
  stretch.order = stretches_seen_++;
  current_frames_ = 0;
  current_talker_ = 0;
  std::vector<int16_t> samples;
  samples.swap(current_);
  if (stretch.talker_frames < kLeastTalkerFrames) return;
  if (search_flag_ == 1) {
    // The history search reads no samples, but wants a block that says how
    // many frames to look back over.
    std::vector<int16_t> block(static_cast<size_t>(kMics) * kSearchFrames * kFrameSamples);
    int azimuth = 0;
    if (front_end.UtteranceDirection(1, block.data(), kSearchFrames * kFrameSamples, &azimuth) != 0) return;
    stretch.answer = azimuth;
  } else {
    stretch.samples = std::move(samples);
  }
  kept_.push_back(std::move(stretch));
  if (kept_.size() > kMostStretches) {
    // Drop the least talkative, the latest of those on ties.
    auto worst = std::min_element(kept_.begin(), kept_.end(), [](const Stretch& a, const Stretch& b) {
      return a.talker_frames != b.talker_frames ? a.talker_frames < b.talker_frames : a.order > b.order;
    });
    kept_.erase(worst);
  }
}

std::optional<int> DirectionFinder::Finish(FrontEnd& front_end) {
  if (search_flag_ == 0) return std::nullopt;
  std::vector<int> answers;
  for (Stretch& stretch : kept_) {
    if (search_flag_ == 1) {
      if (stretch.answer) answers.push_back(*stretch.answer);
      continue;
    }
    int azimuth = 0;
    const int samples = static_cast<int>(stretch.samples.size() / kMics);
    if (front_end.UtteranceDirection(search_flag_, stretch.samples.data(), samples, &azimuth) == 0)
      answers.push_back(azimuth);
  }
  return Consensus(answers);
}

void LibraryDirection::AddFrame(const int16_t* mics) {
  if (search_flag_ != 2 && search_flag_ != 3) return;
  constexpr size_t kFrameValues = static_cast<size_t>(kMics) * kFrameSamples;
  constexpr size_t kMostValues = static_cast<size_t>(kMostSearchedSeconds) * 16000 * kMics;
  kept_.insert(kept_.end(), mics, mics + kFrameValues);
  if (kept_.size() - start_ > kMostValues) start_ += kFrameValues;
  // Drop what has scrolled out once it is as large as what is kept.
  if (start_ >= kMostValues) {
    kept_.erase(kept_.begin(), kept_.begin() + static_cast<long>(start_));
    start_ = 0;
  }
}

std::optional<int> LibraryDirection::Finish(FrontEnd& front_end, double* confidence) {
  *confidence = 0.0;
  if (search_flag_ == 0) return std::nullopt;
  int azimuth = 0;
  int code = 0;
  if (search_flag_ == 1) {
    // The history search reads no samples but wants a block to point at.
    const int16_t none[kMics] = {0, 0, 0};
    code = front_end.UtteranceDirection(1, none, 0, &azimuth);
  } else {
    const int samples = static_cast<int>((kept_.size() - start_) / kMics);
    code = front_end.UtteranceDirection(search_flag_, kept_.data() + start_, samples, &azimuth);
  }
  if (code != 0) return std::nullopt;
  *confidence = front_end.DirectionConfidence();
  if (*confidence <= 0.0) return std::nullopt;
  return azimuth;
}

}  // namespace vorn::cli
