// End-to-end tests of the `vorn` tool: every option and error path is run
// through the built executable on short files the tests write themselves.
// Broken files and hostile surroundings are test_tool_bad_input's.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "direction.h"
#include "audio_io/wav_file.h"
#include "support/run_command.h"
#include "sim/signals.h"
#include "support/files.h"
#include "vorn_proc.h"

namespace {

using namespace vorn::test;
namespace sim = vorn::sim;
using vorn::ReadWavFile;
using vorn::WavAudio;
using vorn::WriteWavFile;

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
  CommandResult Run(const std::vector<std::string>& args, const std::string& stdin_file = "") const {
    std::string command = Quote(VORN_CLI_PATH);
    for (const std::string& arg : args) command.append(" ").append(Quote(arg));
    if (stdin_file.empty()) return RunCommand(dir_, command + " </dev/null");
    return RunCommand(dir_, "cat " + Quote(stdin_file) + " | " + command);
  }
  std::vector<int16_t> Wav(const std::string& name) const {
    WavAudio wav;
    EXPECT_TRUE(ReadWavFile(Path(name), &wav)) << name;
    return wav.samples;
  }

  // A talker at `azimuth` over light sensor noise, as interleaved
  // three-microphone samples.
  static std::vector<int16_t> Capture(double seconds, double azimuth = 60.0) {
    const auto n = static_cast<size_t>(seconds * sim::kSampleRate);
    const sim::SpeechLike talker = sim::MakeSpeechLike(n, 11, {.lead_silence_s = 0.3});
    return sim::Interleave(sim::Mix(sim::PlaneWave(talker.samples, azimuth), sim::IndependentNoise(n, 30.0, 12)));
  }

  std::string dir_;
};

std::string Le(uint32_t value, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
  return out;
}
// The format chunk of a three-channel 16 kHz recording.
std::string FormatChunk(int bits) {
  const int align = 3 * bits / 8;
  return "fmt " + Le(16, 4) + Le(1, 2) + Le(3, 2) + Le(16000, 4) + Le(16000 * align, 4) + Le(align, 2) +
         Le(bits, 2);
}
std::string Riff(const std::string& chunks) { return "RIFF" + Le(4 + chunks.size(), 4) + "WAVE" + chunks; }
std::string Pcm(const std::vector<int16_t>& samples) {
  return std::string(reinterpret_cast<const char*>(samples.data()), 2 * samples.size());
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
    std::istringstream fields(line);
    rows.emplace_back();
    for (std::string cell; std::getline(fields, cell, ',');) rows.back().push_back(cell);
  }
  return rows;
}

// The direction most answers agree on: the mean of those within 10 degrees
// of the best supported one (the first on ties), across 0.
TEST(VornCliDirection, ConsensusAveragesTheAgreeingAnswersAcrossZero) {
  const std::vector<std::pair<std::vector<int>, std::optional<int>>> cases = {
      {{}, std::nullopt},       {{125}, 125},         {{240, 250, 215, 245}, 245}, {{355, 5, 0, 180}, 0},
      {{350, 355, 0, 90}, 355}, {{90, 200, 205, 210}, 205}, {{10, 100}, 10}};
  for (const auto& [answers, want] : cases) {
    EXPECT_EQ(vorn::cli::DirectionFinder::Consensus(answers), want) << ::testing::PrintToString(answers);
  }
}

TEST_F(VornCli, HelpAndVersionFollowTheUsualStyle) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases = {
      {{"--help"}, "Usage: vorn COMMAND"},          {{"-h"}, "Usage: vorn COMMAND"},
      {{"process", "--help"}, "--vad-mode=N"},      {{"help", "process"}, "--vad-mode=N"},
      {{"demo", "--help"}, "Usage: vorn demo [DIR]"}, {{"--version"}, "vorn "}};
  for (const auto& [args, want] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const CommandResult r = Run(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(want), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");
  }
  EXPECT_EQ(Run({"--version"}).out, std::string("vorn ") + VornGetVersion() + "\n");
}

// Usage errors end with status 2 and, when found while parsing `process`,
// point to its help; a file or setting the tool cannot use ends with status
// 1, naming the file and the problem; a warning leaves status 0.
TEST_F(VornCli, MistakesNameTheProblem) {
  const std::vector<int16_t> frames = Capture(0.2);
  ASSERT_TRUE(WriteWavFile(Path("in.wav"), frames, 3));
  ASSERT_TRUE(WriteWavFile(Path("in4.wav"), std::vector<int16_t>(4 * 3200, 0), 4));
  ASSERT_TRUE(WriteWavFile(Path("ref.wav"), std::vector<int16_t>(3200, 0), 1));
  ASSERT_TRUE(WriteWavFile(Path("two.wav"), frames, 2));
  ASSERT_TRUE(WriteWavFile(Path("cd.wav"), frames, 3, 44100));
  ASSERT_TRUE(WriteBytes(Path("eight.wav"), Riff(FormatChunk(8) + "data" + Le(6, 4) + std::string(6, 0))));
  ASSERT_TRUE(WriteWavFile(Path("ref8k.wav"), std::vector<int16_t>(800, 0), 1, 8000));
  ASSERT_TRUE(WriteWavFile(Path("refstereo.wav"), std::vector<int16_t>(3200, 0), 2));
  ASSERT_TRUE(WriteBytes(Path("novad.ini"), "[VORN_WKP]\nagc_flag = 1\nns_flag = 1\n"));
  ASSERT_TRUE(WriteBytes(Path("typo.ini"), "[VORN_WKP]\nagc_flag = 1\nvad_mdoe = 1\nns_flag = one\n"));
  ASSERT_TRUE(WriteBytes(Path("odd.pcm"), Pcm(frames) + "\x01\x02\x03"));
  const auto p = [](std::vector<std::string> more) {
    more.insert(more.begin(), {"process", "in.wav", "-o", "out.wav"});
    return more;
  };
  struct Case {
    std::vector<std::string> args;
    const char* want;
    int status = 2;
    bool hint = true;
  };
  const Case cases[] = {
      {{}, "missing command", 2, false},
      {{"frobnicate"}, "unknown command 'frobnicate'", 2, false},
      {{"--frobnicate"}, "unknown option '--frobnicate'", 2, false},
      {{"demo", "a", "b"}, "one directory only", 2, false},
      {{"process", "in.wav"}, "missing output file"},
      {{"process", "-o", "out.wav"}, "missing input file"},
      {p({"--bogus"}), "unknown option '--bogus'"},
      {p({"--json=1"}), "'--json' takes no value"},
      {p({"--agc"}), "'--agc' needs a value"},
      {p({"--agc", "7"}), "invalid value '7' for --agc (expected 0..2)"},
      {p({"--bf=8"}), "for --bf (expected 0..7)"},
      {p({"--doa", "x"}), "for --doa (expected 0..3)"},
      {p({"--aec", "-1"}), "for --aec (expected 0..3)"},
      {p({"--ns", "3"}), "for --ns (expected 0..2)"},
      {p({"--azimuth", "360"}), "for --azimuth (expected 0..359)"},
      {p({"--vad-mode", "0"}), "for --vad-mode (expected 1..2)"},
      {p({"--mode", "loud"}), "invalid mode 'loud'"},
      {p({"--profile", "turbo"}), "invalid profile 'turbo' (expected classic or enhanced)"},
      {{"demo", "--profile=Classic"}, "invalid profile 'Classic' (expected classic or enhanced)", 2, false},
      {p({"--channels", "2"}), "for --channels (expected 3 or 4)"},
      {p({"b.wav"}), "one input only"},
      {p({"--mode", "asr", "--mode=comm"}), "conflicting options: --mode"},
      {p({"--track", "t.csv", "--doa", "2"}), "--track needs per-frame tracking"},
      {{"process", "in.wav", "-o", "out.mp3"}, "cannot tell the type of output 'out.mp3'"},
      {{"process", "in.wav", "-o", "in.wav"}, "would overwrite the input"},
      {{"process", "in.wav", "-o", "-", "--json"}, "conflicting options: --json and -o -"},
      {{"process", "-", "-o", "out.wav", "--ref", "-"}, "cannot both read standard input"},
      {{"process", "in4.wav", "-o", "out.wav", "--ref", "ref.wav"}, "already carries the reference", 2, false},
      {p({"--aec", "1"}), "--aec 1 needs a loudspeaker reference", 2, false},
      {p({"--channels", "4"}), "--channels 4 but in.wav has 3 channels", 2, false},
      {{"process", "two.wav", "-o", "out.wav"}, "two.wav: 2 channels; vorn needs 16 kHz 16-bit PCM", 1, false},
      {{"process", "cd.wav", "-o", "out.wav"}, "cd.wav: 44100 Hz", 1, false},
      {{"process", "eight.wav", "-o", "out.wav"}, "eight.wav: 8-bit", 1, false},
      {p({"--ref", "ref8k.wav"}),
       "ref8k.wav: sample rate 8000 Hz, but the capture is 16000 Hz; nothing was processed", 1, false},
      {p({"--ref", "refstereo.wav"}), "refstereo.wav: 2 channels", 1, false},
      {p({"--ref", "nowhere.wav"}), "nowhere.wav: No such file", 1, false},
      {p({"--config", "nowhere.ini"}), "nowhere.ini: cannot load the configuration file", 1, false},
      {p({"--config", "novad.ini"}), "(code 10): vad-mode must be 1 or 2", 1, false},
      {p({"--config", "typo.ini"}),
       "vorn: warning: typo.ini: line 3: unknown key \"vad_mdoe\" in [VORN_WKP]; ignored\n"
       "vorn: warning: typo.ini: line 4: ns_flag = \"one\" in [VORN_WKP] is not a whole decimal number; ignored\n"
       "vorn: initialisation with mode wakeup of typo.ini failed (code 10)",
       1, false},
      {p({"--bf", "3", "--azimuth", "90"}), "(code 9): azimuth must be", 1, false},
      {{"process", "odd.pcm", "-o", "out.pcm"}, "vorn: warning: odd.pcm: ignored 3 trailing bytes", 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const CommandResult r = Run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.want), std::string::npos) << r.err;
    EXPECT_EQ(r.err.rfind("vorn: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find("Try 'vorn process --help'") != std::string::npos, c.hint) << r.err;
    EXPECT_FALSE(std::filesystem::exists(Path("out.wav")));
  }
  EXPECT_EQ(ReadRaw(Path("out.pcm")).size(), frames.size() / 3);
  // The configuration file's missing switch can be supplied on the command line.
  EXPECT_EQ(Run(p({"--config", "novad.ini", "--vad-mode", "1"})).status, 0);
  // An empty recording is processed into an empty one.
  ASSERT_TRUE(WriteWavFile(Path("empty.wav"), {}, 3));
  const CommandResult empty = Run({"process", "empty.wav", "-o", "out.wav", "--json"});
  EXPECT_EQ(empty.status, 0) << empty.err;
  EXPECT_EQ(JsonField(empty.out, "frames"), "0");
  EXPECT_EQ(JsonField(empty.out, "direction_deg"), "null");
  EXPECT_TRUE(Wav("out.wav").empty());
}

TEST_F(VornCli, EveryInputFormGivesTheSameOutput) {
  // 1000 sample frames: three whole frames and a partial one.
  const std::vector<int16_t> frames = Capture(1000.0 / sim::kSampleRate);
  ASSERT_TRUE(WriteWavFile(Path("plain.wav"), frames, 3));
  ASSERT_TRUE(WriteRaw(Path("plain.pcm"), frames));
  // Chunks a writer may add, in an order a stream could not follow: a LIST
  // before everything, the format after the audio, an odd-sized chunk with
  // its pad byte; and a streaming writer's header, sizes unknown.
  const std::string list = "LIST" + Le(5, 4) + "INFO!" + std::string(1, 0);
  const std::string audio = Pcm(frames);
  const std::string data = "data" + Le(audio.size(), 4) + audio;
  ASSERT_TRUE(WriteBytes(Path("shuffled.wav"), Riff(list + data + FormatChunk(16))));
  ASSERT_TRUE(WriteBytes(Path("streamed.wav"),
                         "RIFF" + Le(~0u, 4) + "WAVE" + FormatChunk(16) + list + "data" + Le(~0u, 4) + audio));
  ASSERT_EQ(Run({"process", "plain.wav", "-o", "reference.pcm"}).status, 0);
  const std::string want = ReadText(Path("reference.pcm"));
  ASSERT_EQ(want.size(), 2 * frames.size() / 3);
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {  // arguments, standard input
      {{"process", "plain.wav", "-o", "out.wav"}, ""},    {{"process", "plain.pcm", "-o", "out.raw"}, ""},
      {{"process", "shuffled.wav", "-o", "out.pcm"}, ""}, {{"process", "streamed.wav", "-o", "out.pcm"}, ""},
      {{"process", "-", "-o", "out.pcm"}, "streamed.wav"}, {{"process", "-", "-o", "out.pcm"}, "plain.pcm"},
      {{"process", "plain.wav", "-o", "-"}, ""}};
  for (const auto& [args, input] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args) + input);
    std::filesystem::remove(Path(args.back()));
    const CommandResult r = Run(args, input.empty() ? "" : Path(input));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string& output = args.back();
    EXPECT_EQ(output == "-" ? r.out : output == "out.wav" ? Pcm(Wav(output)) : ReadText(Path(output)), want);
  }
  // A stream cannot rewind to a format chunk that follows the audio.
  const CommandResult shuffled = Run({"process", "-", "-o", "out.pcm"}, Path("shuffled.wav"));
  EXPECT_EQ(shuffled.status, 1);
  EXPECT_NE(shuffled.err.find("standard input: the format chunk follows the audio"), std::string::npos)
      << shuffled.err;
}

TEST_F(VornCli, SwitchesReachTheLibraryAndTheSummaryShowsThem) {
  // Long enough for the enhanced level control to hear the talker: it keeps
  // unity gain until it has.
  const std::vector<int16_t> frames = Capture(1.5);
  ASSERT_TRUE(WriteWavFile(Path("in.wav"), frames, 3));
  // With every stage off the output is the first microphone, sample for sample.
  ASSERT_EQ(Run({"process", "in.wav", "-o", "plain.pcm", "--agc", "0", "--bf", "0", "--ns", "0"}).status, 0);
  std::vector<int16_t> first;
  for (size_t i = 0; i < frames.size(); i += 3) first.push_back(frames[i]);
  EXPECT_EQ(ReadRaw(Path("plain.pcm")), first);
  // Each switch on its own changes the output.
  ASSERT_EQ(Run({"process", "in.wav", "-o", "base.pcm", "--agc", "0", "--ns", "0"}).status, 0);
  const std::vector<std::vector<std::string>> changes = {{"--agc", "1", "--ns", "0"},
                                                        {"--bf", "1", "--agc", "0", "--ns", "0"},
                                                        {"--ns", "1", "--agc", "0"},
                                                        {"--ns", "2", "--agc", "0"},
                                                        {"--bf", "2", "--azimuth", "180", "--agc", "0", "--ns", "0"}};
  for (const auto& change : changes) {
    std::vector<std::string> args = {"process", "in.wav", "-o", "changed.pcm"};
    args.insert(args.end(), change.begin(), change.end());
    SCOPED_TRACE(::testing::PrintToString(args));
    ASSERT_EQ(Run(args).status, 0);
    EXPECT_NE(ReadRaw(Path("changed.pcm")), ReadRaw(Path("base.pcm")));
  }
  // The switches in force, in the summary: agc bf doa aec ns azimuth vad_mode.
  ASSERT_TRUE(WriteWavFile(Path("in4.wav"), std::vector<int16_t>(4 * 4800, 0), 4));
  ASSERT_TRUE(WriteBytes(Path("modes.ini"), "[VORN_COM]\nagc_flag = 0\nbf_flag = 1\ndoa_flag = 1\naec_flag = 0\n"
                                            "ns_flag = 2\nbf_zaimuth = 90\nvad_mode = 2\n"));
  const std::vector<std::pair<std::vector<std::string>, std::vector<int>>> summaries = {
      // The enhanced profile tracks the talker for the recording's direction
      // unless told not to; the classic one keeps the mode's switch.
      {{"in.wav"}, {1, 0, 1, 0, 1, 0, 1}},
      {{"in.wav", "--doa", "0"}, {1, 0, 0, 0, 1, 0, 1}},
      {{"in.wav", "--profile", "classic"}, {1, 0, 0, 0, 1, 0, 1}},
      {{"in.wav", "--mode", "asr"}, {2, 0, 1, 0, 1, 0, 2}},
      {{"in.wav", "--mode", "2", "--agc", "0", "--bf", "2", "--doa", "3", "--ns", "0", "--azimuth", "45", "--vad-mode",
        "1"},
       {0, 2, 3, 0, 0, 45, 1}},
      {{"in.wav", "--mode", "comm", "--config", "modes.ini"}, {0, 1, 1, 0, 2, 90, 2}},
      {{"in.wav", "--mode", "comm", "--config", "modes.ini", "--ns", "1"}, {0, 1, 1, 0, 1, 90, 2}},
      // A reference switches the echo canceller on unless told otherwise.
      {{"in4.wav"}, {1, 0, 1, 1, 1, 0, 1}},
      {{"in4.wav", "--mode", "comm"}, {2, 0, 1, 2, 1, 0, 2}},
      {{"in4.wav", "--aec", "0"}, {1, 0, 1, 0, 1, 0, 1}},
      {{"in4.wav", "--aec", "3"}, {1, 0, 1, 3, 1, 0, 1}},
      {{"in.wav", "--track", "t.csv"}, {1, 0, 1, 0, 1, 0, 1}},  // tracking is switched on for --track
  };
  // The profile in force: enhanced unless the command line says classic.
  for (const auto& [profile, want] : {std::pair<const char*, const char*>{nullptr, "enhanced"},
                                      {"classic", "classic"},
                                      {"enhanced", "enhanced"}}) {
    std::vector<std::string> args = {"process", "in.wav", "-o", "out.wav", "--json"};
    if (profile != nullptr) args.insert(args.end(), {"--profile", profile});
    const CommandResult r = Run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(std::string(R"("profile": ")") + want + "\""), std::string::npos) << r.out;
  }
  for (const auto& [more, v] : summaries) {
    std::vector<std::string> args = {"process", "-o", "out.wav", "--json"};
    args.insert(args.begin() + 1, more.begin(), more.end());
    SCOPED_TRACE(::testing::PrintToString(args));
    const CommandResult r = Run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    char want[160];
    std::snprintf(want, sizeof want, R"("switches": {"agc": %d, "bf": %d, "doa": %d, "aec": %d, "ns": %d, )"
                  R"("azimuth": %d, "vad_mode": %d})", v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
    EXPECT_NE(r.out.find(want), std::string::npos) << r.out;
  }
}

// Per-frame files and the summary agree, and every direction search finds a
// plane wave; with the search off there is no direction.
TEST_F(VornCli, PerFrameFilesSummaryAndDirection) {
  const double seconds = 3.0;
  const std::vector<int16_t> frames = Capture(seconds, 200.0);
  ASSERT_TRUE(WriteWavFile(Path("in.wav"), frames, 3));
  const CommandResult r =
      Run({"process", "in.wav", "-o", "out.wav", "--vad", "vad.csv", "--track", "track.csv", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const size_t want_frames = (frames.size() / 3 + 255) / 256;
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
    EXPECT_TRUE(std::stoi(track[f][1]) >= 0 && std::stoi(track[f][1]) < 360) << track[f][1];
  }
  EXPECT_EQ(JsonField(r.out, "frames"), std::to_string(want_frames));
  EXPECT_EQ(JsonField(r.out, "speech_frames"), std::to_string(speech));
  EXPECT_NEAR(std::stod(JsonField(r.out, "speech_share")), static_cast<double>(speech) / want_frames, 1e-4);
  EXPECT_NEAR(std::stod(JsonField(r.out, "duration_s")), seconds, 1e-3);
  EXPECT_GT(std::stod(JsonField(r.out, "realtime_factor")), 0.0);
  EXPECT_EQ(JsonField(r.out, "input"), "\"in.wav\"");
  EXPECT_EQ(JsonField(r.out, "reference"), "\"none\"");
  for (const char* doa : {"0", "1", "2", "3"}) {
    SCOPED_TRACE(doa);
    const CommandResult run = Run({"process", "in.wav", "-o", "out.wav", "--doa", doa, "--json"});
    const std::string direction = JsonField(run.out, "direction_deg");
    const std::string confidence = JsonField(run.out, "direction_confidence");
    if (doa[0] == '0') {
      EXPECT_EQ(direction, "null");
      EXPECT_EQ(confidence, "null");
    } else {
      EXPECT_NEAR(std::stoi(direction), 200, 10);
      EXPECT_GT(std::stod(confidence), 0.5);
    }
  }
  // The classic profile's consensus gives a direction but no confidence.
  const CommandResult classic = Run({"process", "in.wav", "-o", "out.wav", "--profile", "classic", "--json"});
  EXPECT_NEAR(std::stoi(JsonField(classic.out, "direction_deg")), 200, 10);
  EXPECT_EQ(JsonField(classic.out, "direction_confidence"), "null");
}

// A far-end talker's echo through a short room path on each microphone,
// with its source as a fourth channel, a separate file or a pipe.
TEST_F(VornCli, AReferenceRemovesTheEcho) {
  const double seconds = 4.0;
  const auto n = static_cast<size_t>(seconds * sim::kSampleRate);
  const sim::SpeechLike far =
      sim::MakeSpeechLike(n, 21, {.rms = 4000.0, .f0_hz = 180.0, .syllable_hz = 3.0, .duty = 0.8});
  sim::ThreeMics echo;
  for (int m = 0; m < 3; ++m) {
    echo[m].assign(n, 0.0f);
    for (size_t i = 130 + static_cast<size_t>(m); i < n; ++i) {
      const float* x = &far.samples[i - static_cast<size_t>(m)];
      echo[m][i] = static_cast<float>(0.5 * x[-40] + 0.2 * x[-77] - 0.1 * x[-130]);
    }
  }
  const std::vector<int16_t> reference = sim::ToPcm(far.samples);
  const std::vector<int16_t> mics = sim::Interleave(sim::Mix(echo, sim::IndependentNoise(n, 10.0, 22)));
  std::vector<int16_t> four(4 * n);
  for (size_t i = 0; i < n; ++i) {
    std::copy_n(&mics[3 * i], 3, &four[4 * i]);
    four[4 * i + 3] = reference[i];
  }
  ASSERT_TRUE(WriteWavFile(Path("four.wav"), four, 4));
  ASSERT_TRUE(WriteWavFile(Path("three.wav"), mics, 3));
  ASSERT_TRUE(WriteWavFile(Path("ref.wav"), reference, 1));
  ASSERT_TRUE(WriteRaw(Path("ref.pcm"), reference));
  ASSERT_TRUE(WriteWavFile(Path("short.wav"), std::vector<int16_t>(reference.begin(), reference.begin() + 8000), 1));
  // The gain control is off so that the levels compare the cancellation alone.
  const CommandResult cancelled = Run({"process", "four.wav", "-o", "cancelled.wav", "--agc", "0", "--json"});
  ASSERT_EQ(cancelled.status, 0) << cancelled.err;
  EXPECT_EQ(JsonField(cancelled.out, "reference"), "\"channel 4\"");
  ASSERT_EQ(Run({"process", "four.wav", "-o", "kept.wav", "--agc", "0", "--aec", "0"}).status, 0);
  const CommandResult separate =
      Run({"process", "three.wav", "--ref", "ref.wav", "-o", "separate.wav", "--agc", "0", "--json"});
  ASSERT_EQ(separate.status, 0) << separate.err;
  EXPECT_EQ(JsonField(separate.out, "reference"), "\"ref.wav\"");
  ASSERT_EQ(Run({"process", "three.wav", "--ref", "-", "-o", "piped.wav", "--agc", "0"}, Path("ref.pcm")).status,
            0);
  const std::vector<int16_t> with_aec = Wav("cancelled.wav"), without = Wav("kept.wav");
  ASSERT_EQ(with_aec.size(), n);
  EXPECT_EQ(Wav("separate.wav"), with_aec);
  EXPECT_EQ(Wav("piped.wav"), with_aec);
  // After a second of convergence.
  const auto tail_rms = [n](const std::vector<int16_t>& x) {
    return sim::Rms(std::vector<int16_t>(x.begin() + static_cast<long>(n / 4), x.end()));
  };
  const double reduction_db = 20.0 * std::log10(tail_rms(without) / std::max(tail_rms(with_aec), 1e-9));
  std::printf("echo reduction over the last %.0f s: %.1f dB\n", seconds * 3 / 4, reduction_db);
  EXPECT_GT(reduction_db, 15.0);
  // A short reference is padded with silence, and the run says so.
  const CommandResult padded = Run({"process", "three.wav", "--ref", "short.wav", "-o", "out.wav"});
  EXPECT_EQ(padded.status, 0);
  EXPECT_NE(padded.err.find("warning: short.wav: the reference ends at 0.50 s, before the capture (4.00 s); "
                            "the rest was processed against a silent reference"),
            std::string::npos)
      << padded.err;
  EXPECT_EQ(Wav("out.wav").size(), n);
  // A reference wired to a microphone is reported; a true one is not.
  std::vector<int16_t> mic0(n);
  for (size_t i = 0; i < n; ++i) mic0[i] = mics[3 * i];
  ASSERT_TRUE(WriteWavFile(Path("mic0.wav"), mic0, 1));
  const CommandResult miswired = Run({"process", "three.wav", "--ref", "mic0.wav", "-o", "out.wav"});
  EXPECT_EQ(miswired.status, 0);
  const std::string copy_warning = "the reference carries a microphone's own signal";
  EXPECT_NE(miswired.err.find(copy_warning), std::string::npos) << miswired.err;
  EXPECT_EQ(separate.err.find(copy_warning), std::string::npos) << separate.err;
}

TEST_F(VornCli, ProgressBarOnlyOnATerminalAndOnlyForLongInputs) {
  ASSERT_TRUE(WriteWavFile(Path("long.wav"), std::vector<int16_t>(3 * 6 * sim::kSampleRate, 0), 3));
  ASSERT_TRUE(WriteWavFile(Path("short.wav"), std::vector<int16_t>(3 * 2 * sim::kSampleRate, 0), 3));
  const CommandResult piped = Run({"process", "long.wav", "-o", "out.wav"});  // not a terminal: nothing
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.err, "");
  // On a pseudo-terminal, through script(1) when the system has it.
  if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "no script(1) for a pseudo-terminal";
  for (const auto& [input, bar] : {std::pair{"long.wav", true}, {"short.wav", false}}) {
    SCOPED_TRACE(input);
    const std::string inner = Quote(VORN_CLI_PATH) + " process " + input + " -o out.wav";
    const CommandResult r = RunCommand(dir_, "script -qec " + Quote(inner) + " /dev/null </dev/null");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.find("%  ") != std::string::npos, bar) << r.out;
    EXPECT_NE(r.out.find("out.wav: "), std::string::npos) << r.out;  // the summary line for a person
  }
}

TEST_F(VornCli, DemoFindsTheTalkerAndWritesItsFiles) {
  const CommandResult r = Run({"demo", "scene"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::printf("%s", r.out.c_str());
  WavAudio input, output;
  ASSERT_TRUE(ReadWavFile(Path("scene/input.wav"), &input));
  ASSERT_TRUE(ReadWavFile(Path("scene/output.wav"), &output));
  EXPECT_EQ(input.channels, 4);
  EXPECT_EQ(output.channels, 1);
  EXPECT_EQ(output.samples.size(), input.samples.size() / 4);
  int found = -1, truth = -1;
  const size_t line = r.out.find("direction");
  ASSERT_NE(line, std::string::npos) << r.out;
  ASSERT_EQ(std::sscanf(r.out.c_str() + line, "direction %d deg found, %d deg true", &found, &truth), 2) << r.out;
  EXPECT_LE(std::min((found - truth + 360) % 360, (truth - found + 360) % 360), 10);
}

}  // namespace
