// Replays every kept fuzz input (the seed corpora in fuzz/corpus/<target>/
// and the inputs of past findings in fuzz/regressions/<target>/) through the
// fuzz targets' own bodies, so the normal and the sanitizer builds re-run
// them without libFuzzer. A body aborts on a broken invariant; the sanitizer
// build reports memory faults. Seeds named ok_* are valid inputs and must
// reach the reader's accepting path, or they would not seed anything deep.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "target_bodies.h"

namespace {

namespace fs = std::filesystem;

struct Target {
  const char* name;
  bool (*body)(const uint8_t*, size_t);
};

const Target kTargets[] = {
    {"conf_read", vorn::fuzz::FuzzConfRead},
    {"wav_header", vorn::fuzz::FuzzWavHeader},
    {"filter_read", vorn::fuzz::FuzzFilterRead},
    {"aec_filter_file", vorn::fuzz::FuzzAecFilterFile},
    {"vorn_proc", vorn::fuzz::FuzzVornProc},
    {"list_file", vorn::fuzz::FuzzListFile},
    {"vorn_wav", vorn::fuzz::FuzzVornWav},
};

void PrintTo(const Target& target, std::ostream* out) { *out << target.name; }

std::vector<fs::path> FilesIn(const fs::path& dir) {
  std::vector<fs::path> files;
  if (!fs::is_directory(dir)) return files;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> ReadAll(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class FuzzReplay : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzReplay, SeedsAreAcceptedAndEveryKeptInputPasses) {
  const Target& target = GetParam();
  const fs::path fuzz_dir = fs::path(VORN_SOURCE_DIR) / "fuzz";
  const std::vector<fs::path> seeds = FilesIn(fuzz_dir / "corpus" / target.name);
  int valid_seeds = 0;
  for (const fs::path& seed : seeds) {
    SCOPED_TRACE(seed.string());
    const std::vector<uint8_t> bytes = ReadAll(seed);
    const bool accepted = target.body(bytes.data(), bytes.size());
    if (seed.filename().string().rfind("ok_", 0) == 0) {
      ++valid_seeds;
      EXPECT_TRUE(accepted);
    }
  }
  EXPECT_GT(valid_seeds, 0) << "a target needs at least one valid seed";

  for (const fs::path& kept : FilesIn(fuzz_dir / "regressions" / target.name)) {
    SCOPED_TRACE(kept.string());
    const std::vector<uint8_t> bytes = ReadAll(kept);
    target.body(bytes.data(), bytes.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(kTargets),
                         [](const ::testing::TestParamInfo<Target>& param_info) {
                           return std::string(param_info.param.name);
                         });

}  // namespace
