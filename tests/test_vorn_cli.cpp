// End-to-end tests of the `vorn` tool: every option and error path is run
// through the built executable on short files the tests write themselves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "direction.h"
#include "support/signals.h"
#include "support/wav_file.h"
#include "vorn_proc.h"

namespace {

using namespace vorn::test;

constexpr int kFrame = 256;

struct Result {
  int status = -1;
  std::string out, err;
};

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

class VornCli : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = MakeTempDir("vorn_cli"); }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs the tool in the scratch directory; `stdin_file` feeds standard
  // input through a pipe, which cannot seek.
  Result Run(const std::vector<std::string>& args, const std::string& stdin_file = "") const {
    std::string command = "cd " + Quote(dir_) + " && ";
    command.append(stdin_file.empty() ? std::string("</dev/null ") : "cat " + Quote(stdin_file) + " | ");
    command.append(Quote(tool_));
    for (const std::string& arg : args) command.append(" ").append(Quote(arg));
    command.append(" >").append(Quote(Path("stdout.txt"))).append(" 2>").append(Quote(Path("stderr.txt")));
    Result result;
    const int raw = std::system(command.c_str());
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = ReadText(Path("stdout.txt"));
    result.err = ReadText(Path("stderr.txt"));
    return result;
  }

  // A talker at `azimuth` over light sensor noise, `seconds` long, as
  // interleaved three-microphone samples.
  static std::vector<int16_t> Capture(double seconds, double azimuth = 60.0) {
    const auto n = static_cast<size_t>(seconds * kSampleRate);
    SpeechLikeOptions voice;
    voice.lead_silence_s = 0.3;
    const SpeechLike talker = MakeSpeechLike(n, 11, voice);
    return Interleave(Mix(PlaneWave(talker.samples, azimuth), IndependentNoise(n, 30.0, 12)));
  }

  const std::string tool_ = VORN_CLI_PATH;
  std::string dir_;
};

std::vector<int16_t> Channel(const std::vector<int16_t>& interleaved, int channels, int which) {
  std::vector<int16_t> one;
  for (size_t i = static_cast<size_t>(which); i < interleaved.size(); i += static_cast<size_t>(channels))
    one.push_back(interleaved[i]);
  return one;
}

std::vector<int16_t> WavSamples(const std::string& path) {
  WavData wav;
  EXPECT_TRUE(ReadWav(path, &wav)) << path;
  return wav.samples;
}

// Little-endian byte composer for WAV files in unusual layouts.
struct Bytes {
  std::string out;
  Bytes& id(const char* four) { out.append(four, 4); return *this; }
  Bytes& le(uint32_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return *this;
  }
  Bytes& pcm(const std::vector<int16_t>& samples) {
    for (int16_t s : samples) le(static_cast<uint16_t>(s), 2);
    return *this;
  }
};
std::string FormatChunk(int channels, int rate, int bits) {
  const int align = channels * bits / 8;
  return Bytes().id("fmt ").le(16, 4).le(1, 2).le(channels, 2).le(rate, 4).le(rate * align, 4).le(align, 2).le(bits, 2).out;
}
std::string Riff(const std::string& chunks) { return Bytes().id("RIFF").le(4 + chunks.size(), 4).id("WAVE").out + chunks; }
std::string DataChunk(const std::vector<int16_t>& samples, uint32_t declared) {
  return Bytes().id("data").le(declared, 4).pcm(samples).out;
}

double MeanSquare(const std::vector<int16_t>& x, size_t begin, size_t end) {
  double sum = 0.0;
  for (size_t i = begin; i < end; ++i) sum += static_cast<double>(x[i]) * x[i];
  return sum / static_cast<double>(end - begin);
}

// The value of "key": in the JSON summary, as text.
std::string JsonField(const std::string& json, const std::string& key) {
  const std::string tag = "\"" + key + "\": ";
  const size_t at = json.find(tag);
  if (at == std::string::npos) return "<missing>";
  const size_t begin = at + tag.size();
  return json.substr(begin, json.find_first_of(",\n}", begin) - begin);
}

std::vector<std::vector<std::string>> CsvRows(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> cells;
    std::istringstream fields(line);
    for (std::string cell; std::getline(fields, cell, ',');) cells.push_back(cell);
    rows.push_back(cells);
  }
  return rows;
}

TEST(VornCliDirection, ConsensusAveragesTheAgreeingAnswersAcrossZero) {
  using vorn::cli::DirectionFinder;
  struct Case {
    const char* name;
    std::vector<int> answers;
    std::optional<int> want;
  };
  const Case cases[] = {
      {"nothing heard", {}, std::nullopt},
      {"one answer", {125}, 125},
      {"an outlier is left out", {240, 250, 215, 245}, 245},
      {"agreement across 0", {355, 5, 0, 180}, 0},
      {"mean below 0 wraps", {350, 355, 0, 90}, 355},
      {"best supported, not first", {90, 200, 205, 210}, 205},
      {"first of equally supported", {10, 100}, 10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(DirectionFinder::Consensus(c.answers), c.want);
  }
}

TEST_F(VornCli, HelpAndVersionFollowTheUsualStyle) {
  struct Case {
    std::vector<std::string> args;
    const char* want;
  };
  const Case cases[] = {
      {{"--help"}, "Usage: vorn COMMAND"},
      {{"-h"}, "Usage: vorn COMMAND"},
      {{"process", "--help"}, "--vad-mode=N"},
      {{"help", "process"}, "--vad-mode=N"},
      {{"demo", "--help"}, "Usage: vorn demo [DIR]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(c.want), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
  }
  const Result version = Run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, std::string("vorn ") + VornGetVersion() + "\n");
}

TEST_F(VornCli, CommandLineMistakesAreUsageErrors) {
  ASSERT_TRUE(WriteWav(Path("in.wav"), Capture(0.2), 3));
  ASSERT_TRUE(WriteWav(Path("in4.wav"), std::vector<int16_t>(4 * 3200, 0), 4));
  ASSERT_TRUE(WriteWav(Path("ref.wav"), std::vector<int16_t>(3200, 0), 1));
  struct Case {
    std::vector<std::string> args;
    const char* want;
  };
  const Case cases[] = {
      {{}, "missing command"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"--frobnicate"}, "unknown option '--frobnicate'"},
      {{"process", "in.wav"}, "missing output file"},
      {{"process", "-o", "out.wav"}, "missing input file"},
      {{"process", "in.wav", "-o", "out.wav", "--bogus"}, "unknown option '--bogus'"},
      {{"process", "in.wav", "-o", "out.wav", "--json=1"}, "'--json' takes no value"},
      {{"process", "in.wav", "-o", "out.wav", "--agc"}, "'--agc' needs a value"},
      {{"process", "in.wav", "-o", "out.wav", "--agc", "7"}, "invalid value '7' for --agc (expected 0..2)"},
      {{"process", "in.wav", "-o", "out.wav", "--bf=8"}, "for --bf (expected 0..7)"},
      {{"process", "in.wav", "-o", "out.wav", "--doa", "x"}, "for --doa (expected 0..3)"},
      {{"process", "in.wav", "-o", "out.wav", "--aec", "-1"}, "for --aec (expected 0..3)"},
      {{"process", "in.wav", "-o", "out.wav", "--ns", "3"}, "for --ns (expected 0..2)"},
      {{"process", "in.wav", "-o", "out.wav", "--azimuth", "360"}, "for --azimuth (expected 0..359)"},
      {{"process", "in.wav", "-o", "out.wav", "--vad-mode", "0"}, "for --vad-mode (expected 1..2)"},
      {{"process", "in.wav", "-o", "out.wav", "--mode", "loud"}, "invalid mode 'loud'"},
      {{"process", "in.wav", "-o", "out.wav", "--channels", "2"}, "for --channels (expected 3 or 4)"},
      {{"process", "in.wav", "b.wav", "-o", "out.wav"}, "one input only"},
      {{"process", "in.wav", "-o", "out.mp3"}, "cannot tell the type of output 'out.mp3'"},
      {{"process", "in.wav", "-o", "in.wav"}, "would overwrite the input"},
      {{"process", "in.wav", "-o", "-", "--json"}, "conflicting options: --json and -o -"},
      {{"process", "in.wav", "-o", "out.wav", "--mode", "asr", "--mode=comm"}, "conflicting options: --mode"},
      {{"process", "-", "-o", "out.wav", "--ref", "-"}, "cannot both read standard input"},
      {{"process", "in.wav", "-o", "out.wav", "--track", "t.csv", "--doa", "2"}, "--track needs per-frame tracking"},
      {{"process", "in4.wav", "-o", "out.wav", "--ref", "ref.wav"}, "already carries the reference"},
      {{"process", "in.wav", "-o", "out.wav", "--aec", "1"}, "--aec 1 needs a loudspeaker reference"},
      {{"process", "in.wav", "-o", "out.wav", "--channels", "4"}, "--channels 4 but in.wav has 3 channels"},
      {{"demo", "a", "b"}, "one directory only"},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const auto& a : c.args) line += a + " ";
    SCOPED_TRACE(line);
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(c.want), std::string::npos) << r.err;
    EXPECT_EQ(r.err.rfind("vorn: ", 0), 0u) << r.err;
    if (!c.args.empty() && c.args[0] == "process" && r.err.find("conflicting options: --channels") == std::string::npos &&
        r.err.find("already carries") == std::string::npos && r.err.find("needs a loudspeaker") == std::string::npos) {
      // Mistakes found while parsing point to the subcommand's help.
      EXPECT_NE(r.err.find("Try 'vorn process --help'"), std::string::npos) << r.err;
    }
    EXPECT_FALSE(std::filesystem::exists(Path("out.wav")));
  }
}

TEST_F(VornCli, BadFilesNameTheFileAndTheProblem) {
  const std::vector<int16_t> frames = Capture(0.1);
  ASSERT_TRUE(WriteWav(Path("in.wav"), frames, 3));
  ASSERT_TRUE(WriteWav(Path("two.wav"), Channel(frames, 3, 0), 2));
  ASSERT_TRUE(WriteWav(Path("cd.wav"), frames, 3, 44100));
  ASSERT_TRUE(WriteBytes(Path("eight.wav"), Riff(FormatChunk(3, 16000, 8) + Bytes().id("data").le(6, 4).le(0, 4).le(0, 2).out)));
  ASSERT_TRUE(WriteBytes(Path("text.wav"), "this is not audio"));
  ASSERT_TRUE(WriteBytes(Path("nodata.wav"), Riff(FormatChunk(3, 16000, 16))));
  ASSERT_TRUE(WriteWav(Path("ref8k.wav"), std::vector<int16_t>(800, 0), 1, 8000));
  ASSERT_TRUE(WriteWav(Path("refstereo.wav"), std::vector<int16_t>(3200, 0), 2));
  ASSERT_TRUE(WriteBytes(Path("novad.ini"), "[VORN_WKP]\nagc_flag = 1\nns_flag = 1\n"));
  struct Case {
    std::vector<std::string> args;
    const char* want;
  };
  const Case cases[] = {
      {{"process", "missing.wav", "-o", "out.wav"}, "missing.wav: No such file"},
      {{"process", "two.wav", "-o", "out.wav"}, "two.wav: 2 channels; vorn needs 16 kHz 16-bit PCM"},
      {{"process", "cd.wav", "-o", "out.wav"}, "cd.wav: 44100 Hz"},
      {{"process", "eight.wav", "-o", "out.wav"}, "eight.wav: 8-bit"},
      {{"process", "text.wav", "-o", "out.wav"}, "text.wav: not a WAV file"},
      {{"process", "nodata.wav", "-o", "out.wav"}, "nodata.wav: WAV file without a data chunk"},
      {{"process", "in.wav", "-o", "out.wav", "--ref", "ref8k.wav"},
       "ref8k.wav: sample rate 8000 Hz, but the capture is 16000 Hz; nothing was processed"},
      {{"process", "in.wav", "-o", "out.wav", "--ref", "refstereo.wav"}, "refstereo.wav: 2 channels"},
      {{"process", "in.wav", "-o", "out.wav", "--ref", "nowhere.wav"}, "nowhere.wav: No such file"},
      {{"process", "in.wav", "-o", "out.wav", "--config", "nowhere.ini"},
       "nowhere.ini: cannot load the configuration file"},
      {{"process", "in.wav", "-o", "out.wav", "--config", "novad.ini"}, "(code 10): vad-mode must be 1 or 2"},
      {{"process", "in.wav", "-o", "out.wav", "--bf", "3", "--azimuth", "90"}, "(code 9): azimuth must be"},
      {{"process", "in.wav", "-o", "nodir/out.wav"}, "nodir/out.wav: No such file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1] + " " + c.args.back());
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.want), std::string::npos) << r.err;
  }
  // The configuration file's missing switch can be supplied on the command line.
  EXPECT_EQ(Run({"process", "in.wav", "-o", "out.wav", "--config", "novad.ini", "--vad-mode", "1"}).status, 0);
}

TEST_F(VornCli, EveryInputFormGivesTheSameOutput) {
  // 1000 sample frames: three whole frames and a partial one.
  const std::vector<int16_t> frames = Capture(1000.0 / kSampleRate);
  ASSERT_TRUE(WriteWav(Path("plain.wav"), frames, 3));
  ASSERT_TRUE(WriteRaw(Path("plain.pcm"), frames));
  // Chunks a writer may add, in an order a stream could not follow: a LIST
  // before everything, the format after the audio, an odd-sized chunk with
  // its pad byte.
  const std::string list = Bytes().id("LIST").le(5, 4).id("INFO").le(0x21, 1).le(0, 1).out;
  ASSERT_TRUE(WriteBytes(Path("shuffled.wav"),
                         Riff(list + DataChunk(frames, 2 * frames.size()) + FormatChunk(3, 16000, 16))));
  // A streaming writer's header: sizes unknown.
  ASSERT_TRUE(WriteBytes(Path("streamed.wav"),
                         Bytes().id("RIFF").le(0xFFFFFFFF, 4).id("WAVE").out + FormatChunk(3, 16000, 16) + list +
                             DataChunk(frames, 0xFFFFFFFF)));

  ASSERT_EQ(Run({"process", "plain.wav", "-o", "reference.pcm"}).status, 0);
  const std::vector<int16_t> want = ReadRaw(Path("reference.pcm"));
  ASSERT_EQ(want.size(), frames.size() / 3);

  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string stdin_file, output;
  };
  const std::vector<Case> cases = {
      {"wav to wav", {"process", "plain.wav", "-o", "out.wav"}, "", "out.wav"},
      {"raw file", {"process", "plain.pcm", "-o", "out.raw"}, "", "out.raw"},
      {"chunks in any order", {"process", "shuffled.wav", "-o", "out1.pcm"}, "", "out1.pcm"},
      {"streaming header", {"process", "streamed.wav", "-o", "out2.pcm"}, "", "out2.pcm"},
      {"wav on standard input", {"process", "-", "-o", "out3.pcm"}, Path("streamed.wav"), "out3.pcm"},
      {"raw on standard input", {"process", "-", "-o", "out4.pcm"}, Path("plain.pcm"), "out4.pcm"},
      {"standard output", {"process", "plain.wav", "-o", "-"}, "", "stdout.txt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Result r = Run(c.args, c.stdin_file);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::vector<int16_t> got = c.output == "out.wav" ? WavSamples(Path(c.output)) : ReadRaw(Path(c.output));
    EXPECT_EQ(got, want);
  }
  // A stream cannot rewind to a format chunk that follows the audio.
  const Result shuffled = Run({"process", "-", "-o", "out5.pcm"}, Path("shuffled.wav"));
  EXPECT_EQ(shuffled.status, 1);
  EXPECT_NE(shuffled.err.find("standard input: the format chunk follows the audio"), std::string::npos) << shuffled.err;
}

TEST_F(VornCli, DamagedEndsAreReadAsFarAsTheyGoWithAWarning) {
  const std::vector<int16_t> frames = Capture(0.1);
  std::string bytes = Bytes().pcm(frames).out;
  ASSERT_TRUE(WriteBytes(Path("odd.pcm"), bytes + "\x01\x02\x03"));
  struct Case {
    const char* input;
    const char* want;
  };
  const Case cases[] = {
      {"odd.pcm", "warning: odd.pcm: ignored 3 trailing bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    const Result r = Run({"process", c.input, "-o", "out.pcm"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.err.find(c.want), std::string::npos) << r.err;
    EXPECT_EQ(ReadRaw(Path("out.pcm")).size(), frames.size() / 3);
  }
  // An empty recording is processed into an empty one.
  ASSERT_TRUE(WriteWav(Path("empty.wav"), {}, 3));
  const Result empty = Run({"process", "empty.wav", "-o", "out.wav", "--json"});
  EXPECT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(JsonField(empty.out, "frames"), "0");
  EXPECT_EQ(JsonField(empty.out, "direction_deg"), "null");
  EXPECT_TRUE(WavSamples(Path("out.wav")).empty());
}

TEST_F(VornCli, SwitchesReachTheLibrary) {
  const std::vector<int16_t> frames = Capture(0.5);
  ASSERT_TRUE(WriteWav(Path("in.wav"), frames, 3));
  // With every stage off the output is the first microphone, sample for sample.
  ASSERT_EQ(Run({"process", "in.wav", "-o", "plain.pcm", "--agc", "0", "--bf", "0", "--ns", "0"}).status, 0);
  EXPECT_EQ(ReadRaw(Path("plain.pcm")), Channel(frames, 3, 0));
  // Each switch on its own changes the output.
  ASSERT_EQ(Run({"process", "in.wav", "-o", "base.pcm", "--agc", "0", "--ns", "0"}).status, 0);
  const std::vector<int16_t> base = ReadRaw(Path("base.pcm"));
  const std::vector<std::vector<std::string>> changes = {
      {"--agc", "1"}, {"--bf", "1"}, {"--ns", "1"}, {"--ns", "2"}, {"--bf", "2", "--azimuth", "180"}};
  for (const auto& change : changes) {
    SCOPED_TRACE(change[0] + " " + change[1]);
    std::vector<std::string> args = {"process", "in.wav", "-o", "changed.pcm", "--agc", "0", "--ns", "0"};
    for (size_t i = 0; i < change.size(); i += 2) {
      auto at = std::find(args.begin(), args.end(), change[i]);
      if (at != args.end()) args.erase(at, at + 2);
      args.insert(args.end(), change.begin() + static_cast<long>(i), change.begin() + static_cast<long>(i) + 2);
    }
    ASSERT_EQ(Run(args).status, 0);
    EXPECT_NE(ReadRaw(Path("changed.pcm")), base);
  }
}

TEST_F(VornCli, SummaryShowsTheSwitchesInForce) {
  ASSERT_TRUE(WriteWav(Path("in.wav"), Capture(0.3), 3));
  ASSERT_TRUE(WriteWav(Path("in4.wav"), std::vector<int16_t>(4 * 4800, 0), 4));
  ASSERT_TRUE(WriteBytes(Path("modes.ini"),
                         "[VORN_COM]\nagc_flag = 0\nbf_flag = 1\ndoa_flag = 1\naec_flag = 0\nns_flag = 2\n"
                         "bf_zaimuth = 90\nvad_mode = 2\n"));
  struct Case {
    std::vector<std::string> args;
    const char* want;  // the "switches" object
  };
  const Case cases[] = {
      {{"in.wav"}, R"("agc": 1, "bf": 0, "doa": 0, "aec": 0, "ns": 1, "azimuth": 0, "vad_mode": 1)"},
      {{"in.wav", "--mode", "asr"}, R"("agc": 2, "bf": 0, "doa": 0, "aec": 0, "ns": 1, "azimuth": 0, "vad_mode": 2)"},
      {{"in.wav", "--mode", "2", "--agc", "0", "--bf", "2", "--doa", "3", "--ns", "0", "--azimuth", "45",
        "--vad-mode", "1"},
       R"("agc": 0, "bf": 2, "doa": 3, "aec": 0, "ns": 0, "azimuth": 45, "vad_mode": 1)"},
      {{"in.wav", "--mode", "comm", "--config", "modes.ini"},
       R"("agc": 0, "bf": 1, "doa": 1, "aec": 0, "ns": 2, "azimuth": 90, "vad_mode": 2)"},
      {{"in.wav", "--mode", "comm", "--config", "modes.ini", "--ns", "1"},
       R"("agc": 0, "bf": 1, "doa": 1, "aec": 0, "ns": 1, "azimuth": 90, "vad_mode": 2)"},
      // A reference switches the echo canceller on unless told otherwise.
      {{"in4.wav"}, R"("agc": 1, "bf": 0, "doa": 0, "aec": 1, "ns": 1, "azimuth": 0, "vad_mode": 1)"},
      {{"in4.wav", "--mode", "comm"}, R"("agc": 2, "bf": 0, "doa": 0, "aec": 2, "ns": 1, "azimuth": 0, "vad_mode": 2)"},
      {{"in4.wav", "--aec", "0"}, R"("agc": 1, "bf": 0, "doa": 0, "aec": 0, "ns": 1, "azimuth": 0, "vad_mode": 1)"},
      {{"in4.wav", "--aec", "3"}, R"("agc": 1, "bf": 0, "doa": 0, "aec": 3, "ns": 1, "azimuth": 0, "vad_mode": 1)"},
      // Tracking is switched on for --track.
      {{"in.wav", "--track", "t.csv"}, R"("agc": 1, "bf": 0, "doa": 1, "aec": 0, "ns": 1, "azimuth": 0, "vad_mode": 1)"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"process"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", "out.wav", "--json"});
    std::string line;
    for (const auto& a : args) line += a + " ";
    SCOPED_TRACE(line);
    const Result r = Run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(std::string("\"switches\": {") + c.want + "}"), std::string::npos) << r.out;
  }
}

TEST_F(VornCli, PerFrameFilesAndSummaryAgree) {
  const double seconds = 2.0;
  const std::vector<int16_t> frames = Capture(seconds, 120.0);
  ASSERT_TRUE(WriteWav(Path("in.wav"), frames, 3));
  const Result r = Run({"process", "in.wav", "-o", "out.wav", "--vad", "vad.csv", "--track", "track.csv", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const size_t want_frames = (frames.size() / 3 + kFrame - 1) / kFrame;
  const auto vad = CsvRows(ReadText(Path("vad.csv")));
  const auto track = CsvRows(ReadText(Path("track.csv")));
  ASSERT_EQ(vad.size(), want_frames + 1);
  ASSERT_EQ(track.size(), want_frames + 1);
  EXPECT_EQ(vad[0], (std::vector<std::string>{"time_s", "speech"}));
  EXPECT_EQ(track[0], (std::vector<std::string>{"time_s", "azimuth_deg"}));
  int speech = 0;
  for (size_t f = 1; f <= want_frames; ++f) {
    SCOPED_TRACE(f);
    ASSERT_EQ(vad[f].size(), 2u);
    EXPECT_NEAR(std::stod(vad[f][0]), 0.016 * static_cast<double>(f - 1), 1e-9);
    EXPECT_EQ(track[f][0], vad[f][0]);
    EXPECT_TRUE(vad[f][1] == "0" || vad[f][1] == "1");
    speech += std::stoi(vad[f][1]);
    const int azimuth = std::stoi(track[f][1]);
    EXPECT_GE(azimuth, 0);
    EXPECT_LT(azimuth, 360);
  }
  EXPECT_EQ(JsonField(r.out, "frames"), std::to_string(want_frames));
  EXPECT_EQ(JsonField(r.out, "speech_frames"), std::to_string(speech));
  EXPECT_NEAR(std::stod(JsonField(r.out, "speech_share")), static_cast<double>(speech) / want_frames, 1e-4);
  EXPECT_NEAR(std::stod(JsonField(r.out, "duration_s")), seconds, 1e-3);
  EXPECT_GT(std::stod(JsonField(r.out, "realtime_factor")), 0.0);
  EXPECT_EQ(JsonField(r.out, "input"), "\"in.wav\"");
  EXPECT_EQ(JsonField(r.out, "reference"), "\"none\"");
  // Direction finding switched off leaves no direction.
  const Result off = Run({"process", "in.wav", "-o", "out.wav", "--doa", "0", "--json"});
  EXPECT_EQ(JsonField(off.out, "direction_deg"), "null");
}

TEST_F(VornCli, UtteranceDirectionFindsAPlaneWave) {
  ASSERT_TRUE(WriteWav(Path("in.wav"), Capture(3.0, 200.0), 3));
  for (const char* doa : {"1", "2", "3"}) {
    SCOPED_TRACE(doa);
    const Result r = Run({"process", "in.wav", "-o", "out.wav", "--doa", doa, "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string direction = JsonField(r.out, "direction_deg");
    ASSERT_NE(direction, "null");
    EXPECT_NEAR(std::stoi(direction), 200, 10);
  }
}

// The echo of a far-end talker through a short room path, on each microphone.
struct EchoScene {
  std::vector<int16_t> reference;
  std::vector<int16_t> mics;  // interleaved
};
EchoScene MakeEcho(double seconds) {
  const auto n = static_cast<size_t>(seconds * kSampleRate);
  const SpeechLike far = MakeSpeechLike(n, 21, {.rms = 4000.0, .f0_hz = 180.0, .syllable_hz = 3.0, .duty = 0.8});
  ThreeMics echo;
  for (int m = 0; m < 3; ++m) {
    echo[m].assign(n, 0.0f);
    const size_t delay = 40 + static_cast<size_t>(m);
    for (size_t i = delay; i < n; ++i) {
      echo[m][i] = static_cast<float>(0.5 * far.samples[i - delay] + (i >= delay + 37 ? 0.2 * far.samples[i - delay - 37] : 0.0) -
                                      (i >= delay + 90 ? 0.1 * far.samples[i - delay - 90] : 0.0));
    }
  }
  return {ToPcm(far.samples), Interleave(Mix(echo, IndependentNoise(n, 10.0, 22)))};
}

TEST_F(VornCli, AReferenceChannelRemovesTheEcho) {
  const double seconds = 4.0;
  const EchoScene scene = MakeEcho(seconds);
  const size_t n = scene.reference.size();
  std::vector<int16_t> four(4 * n);
  for (size_t i = 0; i < n; ++i) {
    for (int m = 0; m < 3; ++m) four[4 * i + m] = scene.mics[3 * i + m];
    four[4 * i + 3] = scene.reference[i];
  }
  ASSERT_TRUE(WriteWav(Path("four.wav"), four, 4));
  ASSERT_TRUE(WriteWav(Path("three.wav"), scene.mics, 3));
  ASSERT_TRUE(WriteWav(Path("ref.wav"), scene.reference, 1));
  // The gain control is off so that the levels compare the cancellation alone.
  const Result cancelled = Run({"process", "four.wav", "-o", "cancelled.wav", "--agc", "0", "--json"});
  ASSERT_EQ(cancelled.status, 0) << cancelled.err;
  EXPECT_EQ(JsonField(cancelled.out, "reference"), "\"channel 4\"");
  ASSERT_EQ(Run({"process", "four.wav", "-o", "kept.wav", "--agc", "0", "--aec", "0"}).status, 0);
  const Result separate = Run({"process", "three.wav", "--ref", "ref.wav", "-o", "separate.wav", "--agc", "0", "--json"});
  ASSERT_EQ(separate.status, 0) << separate.err;
  EXPECT_EQ(JsonField(separate.out, "reference"), "\"ref.wav\"");

  ASSERT_TRUE(WriteRaw(Path("ref.pcm"), scene.reference));
  ASSERT_EQ(Run({"process", "three.wav", "--ref", "-", "-o", "piped.wav", "--agc", "0"}, Path("ref.pcm")).status, 0);

  const std::vector<int16_t> with_aec = WavSamples(Path("cancelled.wav"));
  const std::vector<int16_t> without = WavSamples(Path("kept.wav"));
  ASSERT_EQ(with_aec.size(), n);
  EXPECT_EQ(WavSamples(Path("separate.wav")), with_aec);
  EXPECT_EQ(WavSamples(Path("piped.wav")), with_aec);
  // After a second of convergence.
  const double reduction_db =
      10.0 * std::log10(MeanSquare(without, n / 4, n) / std::max(MeanSquare(with_aec, n / 4, n), 1e-9));
  std::printf("echo reduction over the last %.0f s: %.1f dB\n", seconds * 3 / 4, reduction_db);
  EXPECT_GT(reduction_db, 15.0);
}

TEST_F(VornCli, AShortReferenceIsPaddedWithSilenceAndSaidSo) {
  const EchoScene scene = MakeEcho(1.0);
  ASSERT_TRUE(WriteWav(Path("three.wav"), scene.mics, 3));
  ASSERT_TRUE(WriteWav(Path("ref.wav"), std::vector<int16_t>(scene.reference.begin(), scene.reference.begin() + 8000), 1));
  const Result r = Run({"process", "three.wav", "--ref", "ref.wav", "-o", "out.wav"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("warning: ref.wav: the reference ends at 0.50 s, before the capture (1.00 s); the rest was "
                       "processed against a silent reference"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(WavSamples(Path("out.wav")).size(), scene.reference.size());
}

TEST_F(VornCli, ProgressBarOnlyOnATerminalAndOnlyForLongInputs) {
  ASSERT_TRUE(WriteWav(Path("long.wav"), std::vector<int16_t>(3 * 6 * kSampleRate, 0), 3));
  ASSERT_TRUE(WriteWav(Path("short.wav"), std::vector<int16_t>(3 * 2 * kSampleRate, 0), 3));
  // Not a terminal: nothing on standard error.
  const Result piped = Run({"process", "long.wav", "-o", "out.wav"});
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.err, "");
  // On a pseudo-terminal, through script(1) when the system has it.
  if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "no script(1) for a pseudo-terminal";
  struct Case {
    const char* input;
    bool bar;
  };
  for (const Case c : {Case{"long.wav", true}, Case{"short.wav", false}}) {
    SCOPED_TRACE(c.input);
    const std::string inner = Quote(tool_) + " process " + c.input + " -o out.wav";
    const std::string command = "cd " + Quote(dir_) + " && script -qec " + Quote(inner) + " /dev/null >" +
                                Quote(Path("tty.txt")) + " 2>&1 </dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string tty = ReadText(Path("tty.txt"));
    EXPECT_EQ(tty.find("%  ") != std::string::npos, c.bar) << tty;
    EXPECT_NE(tty.find("out.wav: "), std::string::npos) << tty;  // the summary line for a person
  }
}

TEST_F(VornCli, DemoFindsTheTalkerAndWritesItsFiles) {
  const Result r = Run({"demo", "scene"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::printf("%s", r.out.c_str());
  WavData input, output;
  ASSERT_TRUE(ReadWav(Path("scene/input.wav"), &input));
  ASSERT_TRUE(ReadWav(Path("scene/output.wav"), &output));
  EXPECT_EQ(input.channels, 4);
  EXPECT_EQ(output.channels, 1);
  EXPECT_EQ(output.samples.size(), input.samples.size() / 4);
  int found = -1, truth = -1;
  const size_t line = r.out.find("direction");
  ASSERT_NE(line, std::string::npos) << r.out;
  ASSERT_EQ(std::sscanf(r.out.c_str() + line, "direction %d deg found, %d deg true", &found, &truth), 2) << r.out;
  const int error = std::min((found - truth + 360) % 360, (truth - found + 360) % 360);
  EXPECT_LE(error, 10);
}

}  // namespace
