// `vorn batch`: the manifest's rows, the outputs (the same bytes as
// `vorn process` gives, whatever the number of workers), per-row failures,
// resuming, and what an interrupted run leaves behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "audio_io/wav_file.h"
#include "batch_manifest.h"
#include "support/files.h"
#include "support/run_command.h"

namespace {

namespace fs = std::filesystem;
using namespace vorn::test;
using vorn::cli::ManifestRow;
using vorn::cli::ParseManifest;
using vorn::cli::ProcessOptions;

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Noise with a slow swell on every channel, different per seed.
std::vector<int16_t> Noise(size_t samples, int channels, uint32_t seed) {
  std::vector<int16_t> v(samples * static_cast<size_t>(channels));
  for (size_t i = 0; i < v.size(); ++i) {
    seed = seed * 1664525u + 1013904223u;
    const double swell = 0.2 + 0.8 * static_cast<double>((i / 4000) % 3) / 2.0;
    v[i] = static_cast<int16_t>(static_cast<double>(static_cast<int32_t>(seed >> 16) - 32768) * 0.2 * swell);
  }
  return v;
}

class VornBatch : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = MakeTempDir("vorn_batch"); }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  void Wav(const std::string& name, double seconds, int channels, uint32_t seed, int rate = 16000) const {
    const auto n = static_cast<size_t>(seconds * 16000);
    ASSERT_TRUE(vorn::WriteWavFile(Path(name), Noise(n, channels, seed), channels, rate));
  }
  void Manifest(const std::string& text) const { std::ofstream(Path("m.csv")) << text; }
  CommandResult Vorn(const std::string& args) const { return RunCommand(dir_, Quote(VORN_CLI_PATH) + " " + args); }
  // The summary's rows as "line,status,error".
  std::vector<std::string> SummaryRows(const std::string& name = "m.csv.summary.csv") const {
    std::istringstream in(Slurp(Path(name)));
    std::vector<std::string> rows;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) rows.push_back(line);
    return rows;
  }

  std::string dir_;
};

TEST_F(VornBatch, OutputsAreThoseOfProcessWhateverTheWorkers) {
  Wav("a.wav", 2.0, 3, 1);
  Wav("b.wav", 1.3, 4, 2);  // reference as the fourth channel
  Wav("c.wav", 1.0, 3, 3);
  Wav("c_ref.wav", 1.0, 1, 4);
  Wav("d.wav", 0.7, 3, 5);
  Manifest(
      "input,output,reference,options\n"
      "# a comment\n"
      "a.wav,out/a.wav\n"
      "b.wav,out/b.wav,,--mode comm --ns 2\n"
      "c.wav , out/c.pcm , c_ref.wav\n"
      "\n"
      "d.wav,out/d.wav,,--profile classic --agc 1\n");
  const struct {
    const char* out;
    const char* process_args;
  } rows[] = {{"out/a.wav", "a.wav --mode asr"},
              {"out/b.wav", "b.wav --mode comm --ns 2"},
              {"out/c.pcm", "c.wav --mode asr --ref c_ref.wav"},
              {"out/d.wav", "d.wav --mode asr --profile classic --agc 1"}};
  for (const int jobs : {1, 3}) {
    SCOPED_TRACE(jobs);
    fs::remove_all(Path("out"));
    const CommandResult run = Vorn("batch m.csv --mode asr -j " + std::to_string(jobs));
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> summary = SummaryRows();
    ASSERT_EQ(summary.size(), 4u);
    for (const std::string& row : summary) EXPECT_NE(row.find(",done,"), std::string::npos) << row;
    for (const auto& row : rows) {
      const std::string expected = std::string("expected_") + fs::path(row.out).filename().string();
      const CommandResult process = Vorn(std::string("process ") + row.process_args + " -o " + expected);
      ASSERT_EQ(process.status, 0) << process.err;
      EXPECT_EQ(Slurp(Path(row.out)), Slurp(Path(expected))) << row.out;
    }
    for (const auto& entry : fs::directory_iterator(Path("out")))
      EXPECT_EQ(entry.path().filename().string().find(".part"), std::string::npos) << entry.path();
  }
}

TEST_F(VornBatch, BadRowsAreReportedAndTheOthersFinish) {
  Wav("good.wav", 0.5, 3, 1);
  Wav("mono.wav", 0.5, 1, 2);
  Wav("rate.wav", 0.5, 3, 3, 48000);
  Manifest(
      "good.wav,out/1.wav\n"
      "missing.wav,out/2.wav\n"
      "mono.wav,out/3.wav\n"
      "rate.wav,out/4.wav\n"
      "good.wav,out/1.wav\n"
      "good.wav,out/6.wav,,--ns 1,extra\n"
      "good.wav,out/7.wav,,--ns 7\n"
      "good.wav,out/8.txt\n"
      "good.wav\n"
      "good.wav,out/10.wav,missing_ref.wav\n"
      "good.wav,out/11.wav\n");
  const CommandResult run = Vorn("batch m.csv -j 2 --summary s.json");
  EXPECT_EQ(run.status, 1);
  const std::string json = Slurp(Path("s.json"));
  const struct {
    int line;
    const char* error;  // empty: done
  } expected[] = {{1, ""},
                  {2, "No such file"},
                  {3, "1 channels"},
                  {4, "48000 Hz"},
                  {5, "also written by line 1"},
                  {6, "5 columns"},
                  {7, "--ns"},
                  {8, "cannot tell the type"},
                  {9, "needs an input and an output"},
                  {10, "missing_ref.wav"},
                  {11, ""}};
  for (const auto& row : expected) {
    SCOPED_TRACE(row.line);
    const size_t at = json.find("{\"line\": " + std::to_string(row.line) + ",");
    ASSERT_NE(at, std::string::npos);
    const std::string record = json.substr(at, json.find('}', at) - at);
    if (*row.error == '\0') {
      EXPECT_NE(record.find("\"status\": \"done\""), std::string::npos) << record;
    } else {
      EXPECT_NE(record.find("\"status\": \"failed\""), std::string::npos) << record;
      EXPECT_NE(record.find(row.error), std::string::npos) << record;
      EXPECT_NE(run.err.find("line " + std::to_string(row.line) + ":"), std::string::npos) << run.err;
    }
  }
  EXPECT_TRUE(fs::exists(Path("out/11.wav")));
  for (const char* absent : {"out/2.wav", "out/3.wav", "out/4.wav", "out/10.wav"}) EXPECT_FALSE(fs::exists(Path(absent)));
}

TEST_F(VornBatch, ResumeSkipsFinishedRowsOnly) {
  Wav("a.wav", 0.5, 3, 1);
  Wav("b.wav", 0.5, 3, 2);
  Manifest("a.wav,a_out.wav\nb.wav,b_out.wav\n");
  ASSERT_EQ(Vorn("batch m.csv").status, 0);
  const std::string b = Slurp(Path("b_out.wav"));
  std::ofstream(Path("a_out.wav")) << "kept";
  fs::remove(Path("b_out.wav"));
  const CommandResult resumed = Vorn("batch m.csv --resume");
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(Slurp(Path("a_out.wav")), "kept");
  EXPECT_EQ(Slurp(Path("b_out.wav")), b);
  const std::vector<std::string> rows = SummaryRows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_NE(rows[0].find(",skipped,"), std::string::npos);
  EXPECT_NE(rows[1].find(",done,"), std::string::npos);
}

TEST_F(VornBatch, AKilledRunLeavesNoPartialOutput) {
  Wav("long.wav", 60.0, 3, 1);
  Manifest("long.wav,long_out.wav\n");
  // Killed early in the file (or, on a fast machine, after it): either way
  // the output is whole or absent, never half written.
  const CommandResult run = Vorn("batch m.csv & pid=$!; sleep 0.3; kill -9 $pid; wait $pid; true");
  (void)run;
  if (fs::exists(Path("long_out.wav"))) {
    ASSERT_EQ(Vorn("process long.wav -o expected.wav").status, 0);
    EXPECT_EQ(Slurp(Path("long_out.wav")), Slurp(Path("expected.wav")));
  }
  ASSERT_EQ(Vorn("batch m.csv --resume").status, 0);
  EXPECT_TRUE(fs::exists(Path("long_out.wav")));
}

TEST(BatchManifest, ReadsRowsAsWritten) {
  ProcessOptions defaults;
  defaults.mode = 1;
  const std::vector<ManifestRow> rows = ParseManifest(
      "input,output\n"
      "  x.wav ,sub/../y.wav\r\n"
      "/abs/in.wav,/abs/out.pcm,r.wav,--mode comm --ns 2\n"
      "#skipped,z.wav\n"
      "input,again.wav\n",
      "corpus", defaults);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].line, 2);
  EXPECT_EQ(rows[0].options.input, "corpus/x.wav");
  EXPECT_EQ(rows[0].options.output, "corpus/y.wav");
  EXPECT_EQ(rows[0].options.mode, 1);
  EXPECT_EQ(rows[0].error, "");
  EXPECT_EQ(rows[1].options.input, "/abs/in.wav");
  EXPECT_EQ(rows[1].options.ref_path, "corpus/r.wav");
  EXPECT_EQ(rows[1].options.mode, 2);
  EXPECT_EQ(rows[1].options.overrides.ns, 2);
  EXPECT_EQ(rows[1].error, "");
  // Only the first line can be a header.
  EXPECT_EQ(rows[2].options.input, "corpus/input");
  EXPECT_EQ(rows[2].error, "");
}

TEST(BatchManifest, RefusesRowsThatCannotRun) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"a.wav,-\n", "standard streams"},
      {"a.wav,a.wav\n", "overwrite the input"},
      {"a.wav,o.wav,,--ns 1 stray\n", "unexpected word 'stray'"},
      {"a.wav,o.wav,,--ns 1 --ns 2\n", "conflicting"},
      {"a.wav,o.wav,,--json\n", "unknown option"},
      {"a.wav,o.wav\nb.wav,./o.wav\n", "also written by line 1"},
  };
  for (const auto& c : cases) {
    const std::vector<ManifestRow> rows = ParseManifest(c.text, ".", ProcessOptions{});
    ASSERT_FALSE(rows.empty()) << c.text;
    EXPECT_NE(rows.back().error.find(c.error), std::string::npos) << c.text << " gave '" << rows.back().error << "'";
  }
}

}  // namespace
