// Progress display. Short inputs finish before a bar would be read, and a
// bar written into a file or a pipe is noise, so it appears only on a
// terminal and only past a few seconds of audio. It redraws in place with a
// carriage return at most ten times a second.
#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <string>

namespace vorn::cli {
namespace {

constexpr double kLeastSeconds = 5.0;
constexpr int kBarWidth = 30;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

}  // namespace

ProgressBar::ProgressBar(FILE* stream, std::optional<double> total_s) : stream_(stream), total_s_(total_s) {
  enabled_ = isatty(fileno(stream)) != 0 && (!total_s || *total_s > kLeastSeconds);
}

void ProgressBar::Update(double done_s) {
  if (!enabled_) return;
  if (!total_s_ && done_s < kLeastSeconds) return;
  const auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - last_draw_ < kRedrawInterval) return;
  last_draw_ = now;
  Draw(done_s);
}

void ProgressBar::Draw(double done_s) {
  if (total_s_) {
    const double share = *total_s_ > 0 ? std::min(1.0, done_s / *total_s_) : 1.0;
    const int filled = static_cast<int>(share * kBarWidth);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kBarWidth - filled), '.');
    std::fprintf(stream_, "\r[%s] %3d%%  %.1f / %.1f s", bar.c_str(), static_cast<int>(share * 100.0), done_s,
                 *total_s_);
  } else {
    std::fprintf(stream_, "\r%.1f s processed", done_s);
  }
  std::fflush(stream_);
  drawn_ = true;
}

void ProgressBar::Finish() {
  if (!drawn_) return;
  std::fprintf(stream_, "\r%*s\r", kBarWidth + 30, "");
  std::fflush(stream_);
  drawn_ = false;
}

}  // namespace vorn::cli
