// End-to-end tests of test_vorn_3mic_stdin_stdout, run as a user would run it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_io/wav_file.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "support/files.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn::test {
namespace {

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = MakeTempDir("tool"); }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  // Runs the tool with the given arguments (already shell-quoted where needed).
  RunResult Run(const std::string& args, const std::string& stdin_file = "") const {
    const std::string out = Path("stdout.txt"), err = Path("stderr.txt");
    std::string cmd = std::string("cd ") + dir_ + " && " + VORN_TOOL_PATH + " " + args + " >" + out + " 2>" + err;
    if (!stdin_file.empty()) cmd += " <" + stdin_file;
    const int raw = std::system(cmd.c_str());
    RunResult r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = ReadText(out);
    r.err = ReadText(err);
    return r;
  }

  // "agc bf doa aec ns azimuth vad_mode vad_file config"
  static std::string Switches(int agc, int bf, int doa, int aec, int ns, int az = 0, int vad = 2, int vad_file = 0) {
    return std::to_string(agc) + " " + std::to_string(bf) + " " + std::to_string(doa) + " " + std::to_string(aec) +
           " " + std::to_string(ns) + " " + std::to_string(az) + " " + std::to_string(vad) + " " +
           std::to_string(vad_file) + " none.conf";
  }

  // A talker at the given azimuth in light noise, as three interleaved microphones.
  static std::vector<std::int16_t> Capture(double seconds, double azimuth, std::uint32_t seed = 7) {
    const auto n = static_cast<std::size_t>(seconds * sim::kSampleRate);
    sim::SpeechLikeOptions opt;
    opt.rms = 2500.0;
    opt.lead_silence_s = 0.3;
    const sim::SpeechLike talker = sim::MakeSpeechLike(n, seed, opt);
    const sim::ThreeMics mics =
        sim::Mix(sim::PlaneWave(talker.samples, azimuth), sim::IndependentNoise(n, 60.0, seed + 1));
    return sim::Interleave(mics);
  }

  std::string dir_;
};

TEST_F(ToolTest, TooFewArgumentsPrintHelp) {
  const RunResult r = Run("a.wav b.wav 1 0 0 0 1 0 2 0");  // eleven words with the program name
  EXPECT_EQ(r.status, 1);
  const std::string want_head = "Lost argument!\n*********************************VORN version : 0.4.4 *************************\n";
  EXPECT_EQ(r.err.substr(0, want_head.size()), want_head);
  EXPECT_NE(r.err.find("VORN.exe  agc_flag bf_flag doa_flag aec_flag ns_flag bf_azimuth \n"), std::string::npos);
  EXPECT_NE(r.err.find("           2 \xEF\xBC\x9Amulti-channel NS\n"), std::string::npos);
  EXPECT_NE(r.err.find("vad_flag : VAD flag. null - disable vad_flag output;\n" + std::string(78, '*') + "\n"),
            std::string::npos);
  EXPECT_EQ(r.err.size() - r.err.rfind(std::string(78, '*')), 79u);  // the asterisks close the text
}

TEST_F(ToolTest, ErrorPathsReportAndFail) {
  ASSERT_TRUE(WriteWavFile(Path("two.wav"), std::vector<std::int16_t>(1024, 1), 2));
  ASSERT_TRUE(WriteRaw(Path("in.pcm"), Capture(0.2, 0)));
  ASSERT_TRUE(WriteBytes(Path("junk.wav"), "not a wave file at all, really not one....."));
  ASSERT_TRUE(WriteBytes(Path("list3.txt"), "in.pcm out.pcm extra\n"));
  struct Case {
    const char* name;
    std::string args;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"bad input extension", "in.mp3 out.wav " + Switches(1, 0, 0, 0, 1), 1,
       "Input file ext is not match(wav or pcm or txt):in.mp3\n"},
      {"missing raw input", "nothere.pcm out.wav " + Switches(1, 0, 0, 0, 1), 1, "Open input file failed:nothere.pcm\n"},
      {"unreadable header", "junk.wav out.wav " + Switches(1, 0, 0, 0, 1), 1,
       "Input file head is unrecognized:junk.wav\n"},
      {"two channels", "two.wav out.wav " + Switches(1, 0, 0, 0, 1), 1, "two.wav data error! \n"},
      {"bad output extension", "in.pcm out.mp3 " + Switches(1, 0, 0, 0, 1), 1,
       "Output file ext is not match(wav) :out.mp3\n"},
      {"speech flags need a wav output", "in.pcm out.pcm " + Switches(1, 0, 0, 0, 1, 0, 2, 1), 1,
       "Output file ext is not match(wav) :out.pcm\n"},
      {"missing output directory", "in.pcm nodir/out.wav " + Switches(1, 0, 0, 0, 1), 1,
       "Output directory does not exist:nodir\n"},
      {"library refuses the switches", "in.pcm out.wav " + Switches(3, 0, 0, 0, 1), 1, "Init error!\n"},
      {"missing list", "nolist.txt out.wav " + Switches(1, 0, 0, 0, 1), 255, "Failed open input file nolist.txt\n"},
      {"list with three words", "list3.txt x " + Switches(1, 0, 0, 0, 1), 255,
       "Input file list3.txt more two column!\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const RunResult r = Run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}

TEST_F(ToolTest, PartialFramesAndLengths) {
  // 767 values: not a multiple of three, nothing is processed.
  ASSERT_TRUE(WriteRaw(Path("v767.pcm"), std::vector<std::int16_t>(767, 100)));
  RunResult r = Run("v767.pcm o767.pcm " + Switches(1, 0, 0, 0, 1));
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(ReadRaw(Path("o767.pcm")).empty());

  // 771 values: one full frame and a one-sample tail.
  ASSERT_TRUE(WriteRaw(Path("v771.pcm"), std::vector<std::int16_t>(771, 100)));
  r = Run("v771.pcm o771.pcm " + Switches(1, 0, 0, 0, 1));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(ReadRaw(Path("o771.pcm")).size(), 257u);
  EXPECT_EQ(r.err.find("Warning"), std::string::npos) << r.err;

  // A WAV capture of a non-whole number of frames comes out as long as it went in.
  const auto capture = Capture(0.5, 30);
  ASSERT_TRUE(WriteWavFile(Path("cap.wav"), capture, 3));
  r = Run("cap.wav cap_out.wav " + Switches(1, 1, 0, 0, 1, 30, 2, 1));
  ASSERT_EQ(r.status, 0) << r.err;
  WavAudio out;
  ASSERT_TRUE(ReadWavFile(Path("cap_out.wav"), &out));
  EXPECT_EQ(out.channels, 1);
  EXPECT_EQ(out.sample_rate, 16000);
  EXPECT_EQ(out.samples.size(), capture.size() / 3);
  // One speech flag per full frame, each 0 or 1.
  const std::string flags = ReadText(Path("cap_out_VornVad.txt"));
  std::size_t lines = 0;
  for (std::size_t i = 0; i < flags.size(); i += 2) {
    EXPECT_TRUE(flags.compare(i, 2, "0\n") == 0 || flags.compare(i, 2, "1\n") == 0);
    ++lines;
  }
  EXPECT_EQ(lines, capture.size() / 3 / 256);
}

TEST_F(ToolTest, StandardStreams) {
  const auto capture = Capture(0.5, 0);
  ASSERT_TRUE(WriteRaw(Path("in.pcm"), capture));
  ASSERT_TRUE(WriteWavFile(Path("in.wav"), capture, 3));
  // Raw samples on standard output, no size warnings.
  RunResult r = Run("in.pcm stdout.pcm " + Switches(1, 0, 0, 0, 1));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.size(), capture.size() / 3 * 2);
  EXPECT_EQ(r.err.find("Warning"), std::string::npos);
  // WAV on standard input gives the same samples as the file.
  r = Run("stdin.wav stdout.pcm " + Switches(1, 0, 0, 0, 1), Path("in.wav"));
  EXPECT_EQ(r.status, 0);
  const RunResult from_file = Run("in.wav stdout.pcm " + Switches(1, 0, 0, 0, 1));
  EXPECT_EQ(r.out, from_file.out);
  // Direction finding cannot reread standard input: skipped, said so, success.
  r = Run("stdin.pcm stdout.pcm " + Switches(1, 0, 1, 0, 1), Path("in.pcm"));
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.err.find("DOA test skipped"), std::string::npos);
}

TEST_F(ToolTest, ListStopsAtEmptyLine) {
  ASSERT_TRUE(WriteRaw(Path("a.pcm"), Capture(0.2, 0)));
  ASSERT_TRUE(WriteRaw(Path("b.pcm"), Capture(0.2, 0, 9)));
  ASSERT_TRUE(WriteBytes(Path("list.txt"), "a.pcm a_out.pcm\r\n\nb.pcm b_out.pcm\n"));
  const RunResult r = Run("list.txt unused " + Switches(1, 0, 0, 0, 1));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(Path("a_out.pcm")));
  EXPECT_FALSE(std::filesystem::exists(Path("b_out.pcm")));
}

TEST_F(ToolTest, DirectionPassFindsTheTalker) {
  for (int doa : {1, 2}) {
    for (int azimuth : {40, 200}) {
      SCOPED_TRACE("doa " + std::to_string(doa) + " azimuth " + std::to_string(azimuth));
      ASSERT_TRUE(WriteWavFile(Path("talk.wav"), Capture(3.0, azimuth), 3));
      const RunResult r = Run("talk.wav talk_out.wav " + Switches(1, 1, doa, 0, 1, azimuth));
      ASSERT_EQ(r.status, 0) << r.err;
      const int found = std::atoi(r.out.c_str());
      int error = std::abs(found - azimuth) % 360;
      if (error > 180) error = 360 - error;
      EXPECT_LE(error, 10) << "printed " << r.out;
    }
  }
}

// Each position of the command line sets its own switch: the tool's output,
// its speech flags and the direction it prints are the library's, run here
// with the same switches (every stage on) and the silent reference the tool
// gives the canceller. Every switch combination's routing is checked
// in-process.
TEST_F(ToolTest, SwitchesReachTheLibraryFromTheirPositions) {
  const sim::Switches switches{.agc = 2, .bf = 4, .doa = 1, .aec = 3, .ns = 1, .azimuth = 60, .vad_mode = 2};
  std::vector<short> capture = Capture(62 * 256.0 / sim::kSampleRate, 60);  // whole frames
  ASSERT_TRUE(WriteRaw(Path("talk.pcm"), capture));
  const RunResult r = Run("talk.pcm out.wav " + Switches(switches.agc, switches.bf, switches.doa, switches.aec,
                                                         switches.ns, switches.azimuth, switches.vad_mode, 1));
  ASSERT_EQ(r.status, 0) << r.err;

  std::vector<unsigned char> state(kVornMinBuffSize);
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, 1);
  ASSERT_EQ(VornInit(&pm, nullptr), 0);
  std::vector<short> out(capture.size() / 3);
  std::string flags;
  short silent[256] = {}, order[3] = {0, 1, 2};
  for (std::size_t f = 0; f < out.size() / 256; ++f) {
    ASSERT_EQ(VornProc(&pm, &capture[3 * 256 * f], silent, &out[256 * f], order), 0);
    flags += std::to_string(pm.vad_flag) + "\n";
  }
  ASSERT_EQ(VornDoa(&pm, capture.data(), order, static_cast<int>(out.size())), 0);
  WavAudio written;
  ASSERT_TRUE(ReadWavFile(Path("out.wav"), &written));
  EXPECT_TRUE(written.samples == out);
  EXPECT_EQ(ReadText(Path("out_VornVad.txt")), flags);
  EXPECT_EQ(r.out, std::to_string(pm.azimuth) + "\n");
}

}  // namespace
}  // namespace vorn::test
