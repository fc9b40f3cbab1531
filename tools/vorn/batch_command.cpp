// `vorn batch`: every row of a manifest processed as `vorn process` would,
// on N worker threads (one front-end instance each; instances share
// nothing). A row's output is written under a hidden temporary name and
// renamed when complete, so an interrupted run leaves whole files or none,
// and --resume can trust any output that exists. A row that fails is
// recorded and the rest go on; the exit status says whether any failed.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "batch_manifest.h"
#include "batch_summary.h"
#include "commands.h"

namespace vorn::cli {
namespace {

namespace fs = std::filesystem;

// Hidden, in the output's directory (so the rename stays on one file
// system), with the output's extension (which decides its format).
std::string TemporaryPath(const std::string& output) {
  const fs::path path(output);
  std::string name = ".";
  name.append(path.filename().string()).append(".part-").append(std::to_string(getpid()));
  name.append(path.extension().string());
  return (path.parent_path() / name).string();
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : "; ") + part;
  return text;
}

void RunRow(const ManifestRow& row, bool resume, BatchOutcome* outcome) {
  const auto started = std::chrono::steady_clock::now();
  outcome->line = row.line;
  outcome->input = row.options.input;
  outcome->output = row.options.output;
  if (!row.error.empty()) {
    outcome->error = row.error;
    return;
  }
  std::error_code ec;
  if (resume && fs::exists(row.options.output, ec)) {
    outcome->status = BatchOutcome::Status::kSkipped;
    return;
  }
  const fs::path parent = fs::path(row.options.output).parent_path();
  if (!parent.empty()) fs::create_directories(parent, ec);
  ProcessOptions options = row.options;
  options.output = TemporaryPath(row.options.output);
  options.progress = false;
  MessageSink sink;
  SetMessageSink(&sink);
  std::vector<int> speech_flags;
  const int status = ProcessRecording(options, &outcome->summary, &speech_flags);
  SetMessageSink(nullptr);
  outcome->warnings = Joined(sink.warnings);
  if (status == kExitOk) {
    fs::rename(options.output, row.options.output, ec);
    if (ec) sink.errors.push_back(row.options.output + ": " + ec.message());
  }
  if (status != kExitOk || !sink.errors.empty()) {
    fs::remove(options.output, ec);
    outcome->error = sink.errors.empty() ? "processing failed" : Joined(sink.errors);
  } else {
    outcome->status = BatchOutcome::Status::kDone;
    outcome->summary.output = row.options.output;
  }
  outcome->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

// "[#####.....] 12/20 files, 1 failed" redrawn in place on a terminal.
class BatchProgress {
 public:
  explicit BatchProgress(size_t total) : total_(total), enabled_(isatty(fileno(stderr)) != 0) {}
  void FileDone(bool failed) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    if (failed) ++failed_;
    if (!enabled_) return;
    constexpr size_t kWidth = 30;
    const size_t filled = total_ > 0 ? done_ * kWidth / total_ : kWidth;
    std::fprintf(stderr, "\r[%s%s] %zu/%zu files, %zu failed", std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, '.').c_str(), done_, total_, failed_);
    std::fflush(stderr);
  }
  void Finish() {
    if (enabled_ && done_ > 0) std::fputs("\n", stderr);
  }

 private:
  std::mutex mutex_;
  size_t total_, done_ = 0, failed_ = 0;
  bool enabled_;
};

}  // namespace

int RunBatch(const BatchOptions& options) {
  std::ifstream file(options.manifest, std::ios::binary);
  if (!file) {
    ReportError(options.manifest + ": cannot read the manifest");
    return kExitFailure;
  }
  std::stringstream text;
  text << file.rdbuf();
  const std::string dir = fs::path(options.manifest).parent_path().string();
  const std::vector<ManifestRow> rows = ParseManifest(text.str(), dir.empty() ? "." : dir, options.defaults);

  const auto started = std::chrono::steady_clock::now();
  std::vector<BatchOutcome> outcomes(rows.size());
  std::atomic<size_t> next{0};
  BatchProgress progress(rows.size());
  auto worker = [&] {
    for (size_t i = next++; i < rows.size(); i = next++) {
      RunRow(rows[i], options.resume, &outcomes[i]);
      progress.FileDone(outcomes[i].status == BatchOutcome::Status::kFailed);
    }
  };
  std::vector<std::thread> threads;
  const size_t jobs = std::min(static_cast<size_t>(options.jobs), std::max<size_t>(rows.size(), 1));
  for (size_t t = 1; t < jobs; ++t) threads.emplace_back(worker);
  worker();
  for (std::thread& thread : threads) thread.join();
  progress.Finish();

  size_t failed = 0, skipped = 0;
  double audio_s = 0.0;
  for (const BatchOutcome& o : outcomes) {
    if (o.status == BatchOutcome::Status::kFailed) {
      ++failed;
      ReportError(options.manifest + " line " + std::to_string(o.line) + ": " + o.error);
    }
    if (o.status == BatchOutcome::Status::kSkipped) ++skipped;
    if (o.status == BatchOutcome::Status::kDone) audio_s += o.summary.duration_s;
  }
  std::string error;
  if (!WriteBatchSummary(options.summary_path, outcomes, &error)) {
    ReportError(error);
    return kExitFailure;
  }
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::fprintf(stderr, "vorn: %zu files: %zu done, %zu skipped, %zu failed; %.1f s of audio in %.1f s (%.0fx real time); summary in %s\n",
               rows.size(), rows.size() - failed - skipped, skipped, failed, audio_s, wall,
               wall > 0 ? audio_s / wall : 0.0, options.summary_path.c_str());
  return failed > 0 ? kExitFailure : kExitOk;
}

}  // namespace vorn::cli
