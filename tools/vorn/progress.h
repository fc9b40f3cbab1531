// A progress bar on standard error, for long inputs when a person watches.
#pragma once

#include <chrono>
#include <cstdio>
#include <optional>

namespace vorn::cli {

class ProgressBar {
 public:
  // Draws only when `stream` is a terminal and the input is longer than a
  // few seconds (or of unknown length).
  ProgressBar(FILE* stream, std::optional<double> total_s);
  void Update(double done_s);
  // Clears the bar so that later messages start on a clean line.
  void Finish();

 private:
  void Draw(double done_s);

  FILE* stream_;
  std::optional<double> total_s_;
  bool enabled_ = false;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_draw_{};
};

}  // namespace vorn::cli
