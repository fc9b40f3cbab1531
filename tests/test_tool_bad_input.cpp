// The command-line tools fed broken files and hostile surroundings: every
// failure is named on standard error and ends with a nonzero status, and
// nothing (an azimuth or a summary on standard output, a zero status)
// suggests success.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_io/wav_file.h"
#include "support/run_command.h"
#include "sim/signals.h"
#include "support/files.h"

namespace vorn::test {
namespace {

const std::string kTool = VORN_TOOL_PATH;
const std::string kVorn = VORN_CLI_PATH;
// "agc bf doa aec ns azimuth vad_mode vad_file config"
const std::string kPlain = " 1 0 0 0 1 0 2 0 none.conf";
const std::string kWithDoa = " 1 1 1 0 1 0 2 0 none.conf";

void PutLe(std::string* s, std::uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) s->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

// A three-channel 16 kHz WAV whose size fields can lie: `riff_extra` is added
// to the honest RIFF size, `fmt_len` is the declared format chunk length (of
// which fmt_len - 16 zero bytes are written, at most `fmt_pad_cap`), and the
// declared data size and the audio bytes actually present are independent.
struct WavSpec {
  std::uint32_t riff_extra = 0;
  std::uint32_t fmt_len = 16;
  std::size_t fmt_pad_cap = 1 << 20;
  std::uint32_t datsize = 6 * 1024;
  std::size_t audio_bytes = 6 * 1024;
};

std::string WavBytes(const WavSpec& w) {
  const std::size_t pad = w.fmt_len > 16 ? std::min<std::size_t>(w.fmt_len - 16, w.fmt_pad_cap) : 0;
  std::string s = "RIFF";
  PutLe(&s, static_cast<std::uint32_t>(36 + pad + w.datsize + w.riff_extra), 4);
  s += "WAVEfmt ";
  PutLe(&s, w.fmt_len, 4);
  PutLe(&s, 1, 2);
  PutLe(&s, 3, 2);
  PutLe(&s, 16000, 4);
  PutLe(&s, 96000, 4);
  PutLe(&s, 6, 2);
  PutLe(&s, 16, 2);
  s.append(pad, '\0');
  s += "data";
  PutLe(&s, w.datsize, 4);
  const auto noise = sim::ToPcm(sim::WhiteNoise(w.audio_bytes / 2 + 1, 1000.0, 3));
  s.append(reinterpret_cast<const char*>(noise.data()), w.audio_bytes);
  return s;
}

class ToolBadInput : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = MakeTempDir("bad_input"); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  CommandResult Tool(const std::string& args) const { return RunCommand(dir_, kTool + " " + args); }
  std::string dir_;
};

TEST_F(ToolBadInput, BrokenWavFilesAreRefused) {
  struct Case {
    const char* name;
    std::string bytes;
    std::vector<std::string> messages;
  };
  const std::string good = WavBytes({});
  const Case cases[] = {
      {"empty file", "", {"is not a WAVE format", "Input file head is unrecognized:in.wav\n"}},
      {"cut inside the header", good.substr(0, 30), {"is not a WAVE format", "Input file head is unrecognized"}},
      {"cut after the header", good.substr(0, 44), {"datsize error", "Input file head is unrecognized"}},
      {"cut inside the audio", good.substr(0, 44 + 3000), {"datsize error", "Input file head is unrecognized"}},
      {"format chunk claims 2 GiB", WavBytes({.fmt_len = 0x7FFFFFF0u, .fmt_pad_cap = 100}),
       {"is not a WAVE format", "Input file head is unrecognized"}},
      {"format chunk longer than declared RIFF", WavBytes({.fmt_len = 5000, .fmt_pad_cap = 40}),
       {"is not a WAVE format", "Input file head is unrecognized"}},
      {"RIFF size counts a chunk that is not there", WavBytes({.riff_extra = 100}),
       {"is not a WAVE format", "Input file head is unrecognized"}},
      {"data size near 4 GiB", WavBytes({.riff_extra = 0, .datsize = 0xFFFFFFF0u}),
       {"datsize error", "Input file head is unrecognized"}},
      {"data size not whole sample frames", WavBytes({.datsize = 6001, .audio_bytes = 6001}),
       {"in.wav data error! \n"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(WriteBytes(Path("in.wav"), c.bytes));
    const CommandResult r = Tool("in.wav out.wav" + kWithDoa);
    EXPECT_EQ(r.status, 1);
    for (const std::string& m : c.messages) EXPECT_NE(r.err.find(m), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");  // no azimuth
    EXPECT_FALSE(std::filesystem::exists(Path("out.wav")));
  }
}

TEST_F(ToolBadInput, ShortDataSizeIsPlayedToTheEndWithWarnings) {
  // Audio beyond the declared size is kept (trailing bytes are read as
  // audio), and the run says that the lengths disagree.
  ASSERT_TRUE(WriteBytes(Path("in.wav"), WavBytes({.datsize = 1536 * 2, .audio_bytes = 1536 * 4})));
  const CommandResult r = Tool("in.wav out.pcm" + kPlain);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("in.wav contain extra information!\n"), std::string::npos);
  EXPECT_NE(r.err.find("the size of input is not same with the output"), std::string::npos);
  EXPECT_EQ(ReadRaw(Path("out.pcm")).size(), 1024u);
}

TEST_F(ToolBadInput, UnreadableInputsFail) {
  std::filesystem::create_directory(Path("dir.pcm"));
  std::filesystem::create_directory(Path("dir.wav"));
  ASSERT_TRUE(WriteBytes(Path("junk.bin"), "RIFF...."));
  struct Case {
    const char* name;
    std::string command;
    std::string message;
  };
  const Case cases[] = {
      {"missing wav", kTool + " nothere.wav out.wav" + kPlain, "sig_wave_stream_init(): cannot open file nothere.wav\n"},
      {"directory as raw input", kTool + " dir.pcm out.pcm" + kPlain, "read error: dir.pcm\n"},
      {"directory as wav input", kTool + " dir.wav out.pcm" + kPlain, "Input file head is unrecognized:dir.wav\n"},
      {"closed standard input", kTool + " stdin.pcm out.pcm" + kPlain + " <&-", "read error: stdin.pcm\n"},
      {"garbage on standard input", kTool + " stdin.wav out.pcm" + kPlain + " <junk.bin",
       "Input file head is unrecognized:stdin.wav\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const CommandResult r = RunCommand(dir_, c.command);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
}

TEST_F(ToolBadInput, UnwritableOutputsFail) {
  ASSERT_TRUE(WriteBytes(Path("in.wav"), WavBytes({})));
  // More output than a pipe holds, so a departed reader is noticed.
  ASSERT_TRUE(WriteBytes(Path("long.wav"), WavBytes({.datsize = 6 * 48000, .audio_bytes = 6 * 48000})));
  // A directory that refuses new files: permissions do not stop root, so as
  // root a kernel file system stands in for it.
  std::string refused = "/proc/vorn_out.wav";
  if (geteuid() != 0) {
    std::filesystem::create_directory(Path("ro"));
    std::filesystem::permissions(Path("ro"), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    refused = "ro/out.wav";
  }
  std::filesystem::create_symlink("/dev/full", Path("full.pcm"));
  struct Case {
    const char* name;
    std::string command;
    std::string message;
  };
  const Case cases[] = {
      {"missing nested directory", kTool + " in.wav a/b/out.wav" + kPlain, "Output directory does not exist:a/b\n"},
      {"directory refuses the file", kTool + " in.wav " + refused + kPlain, "Open output file failed:" + refused + "\n"},
      {"device full", kTool + " in.wav full.pcm" + kPlain, "write error: full.pcm\n"},
      {"closed standard output", kTool + " in.wav stdout.pcm" + kPlain + " >&-", "write error: stdout.pcm\n"},
      {"reader of standard output goes away",
       "(" + kTool + " long.wav stdout.pcm" + kPlain + "; echo $? >status) | head -c 10 >/dev/null; exit $(cat status)",
       "write error: stdout.pcm\n"},
      {"azimuth cannot be printed", kTool + " in.wav out.wav" + kWithDoa + " >&-", "write error: stdout\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const CommandResult r = RunCommand(dir_, c.command);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
  }
  // The audio of the run whose azimuth was lost is whole, and nothing else
  // (the azimuth through a reused descriptor) landed in it.
  WavAudio out;
  ASSERT_TRUE(ReadWavFile(Path("out.wav"), &out));
  EXPECT_EQ(out.samples.size(), 1024u);
  EXPECT_EQ(std::filesystem::file_size(Path("out.wav")), 44u + 2 * 1024);
}

TEST_F(ToolBadInput, ClosedStandardOutputIsHarmlessWhenUnused) {
  ASSERT_TRUE(WriteBytes(Path("in.wav"), WavBytes({})));
  const CommandResult closed = RunCommand(dir_, kTool + " in.wav closed.wav" + kPlain + " >&-");
  const CommandResult open = Tool("in.wav open.wav" + kPlain);
  EXPECT_EQ(closed.status, 0) << closed.err;
  EXPECT_EQ(open.status, 0) << open.err;
  EXPECT_EQ(ReadText(Path("closed.wav")), ReadText(Path("open.wav")));
}

class VornBadInput : public ToolBadInput {};

TEST_F(VornBadInput, BrokenFilesAndSurroundingsFail) {
  const std::string good = WavBytes({});
  ASSERT_TRUE(WriteBytes(Path("in.wav"), good));
  ASSERT_TRUE(WriteBytes(Path("empty.wav"), ""));
  ASSERT_TRUE(WriteBytes(Path("cut.wav"), good.substr(0, 30)));
  ASSERT_TRUE(WriteBytes(Path("huge_fmt.wav"), WavBytes({.fmt_len = 0x7FFFFFF0u, .fmt_pad_cap = 100})));
  // More output than a pipe holds, so a departed reader is noticed.
  ASSERT_TRUE(WriteBytes(Path("long.wav"), WavBytes({.datsize = 6 * 48000, .audio_bytes = 6 * 48000})));
  std::filesystem::create_directory(Path("dir.wav"));
  std::filesystem::create_directory(Path("dir.pcm"));
  std::filesystem::create_symlink("/dev/full", Path("full.pcm"));
  std::filesystem::create_symlink("/dev/full", Path("full.csv"));
  const std::string refused = geteuid() == 0 ? "/proc/vorn_out.wav" : "/nonexistent/vorn_out.wav";
  struct Case {
    const char* name;
    std::string command;
    std::string message;
  };
  const Case cases[] = {
      {"empty file", kVorn + " process empty.wav -o out.wav --json", "empty.wav: not a WAV file"},
      {"cut inside the header", kVorn + " process cut.wav -o out.wav --json", "cut.wav: WAV file without a data chunk"},
      {"format chunk claims 2 GiB", kVorn + " process huge_fmt.wav -o out.wav --json",
       "huge_fmt.wav: WAV file without a data chunk"},
      {"missing input", kVorn + " process nothere.wav -o out.wav --json", "nothere.wav: No such file"},
      {"directory as wav input", kVorn + " process dir.wav -o out.wav --json", "dir.wav: read failed"},
      {"missing nested directory", kVorn + " process in.wav -o a/b/out.wav --json", "a/b/out.wav: No such file"},
      {"directory refuses the file", kVorn + " process in.wav -o " + refused + " --json", refused + ": "},
      {"device full", kVorn + " process in.wav -o full.pcm --json", "full.pcm: write failed"},
      {"speech flags on a full device", kVorn + " process in.wav -o out.wav --vad full.csv --json",
       "full.csv: write failed"},
      {"closed standard output", kVorn + " process in.wav -o - >&-", "standard output: write failed"},
      {"directory as raw input", kVorn + " process dir.pcm -o out.pcm --json", "dir.pcm: read failed"},
      {"closed standard input", kVorn + " process - -o out.pcm --json <&-", "standard input: read failed"},
      {"summary cannot be printed", kVorn + " process in.wav -o summary_lost.wav --json >&-",
       "standard output: write failed"},
      {"reader of standard output goes away",
       "(" + kVorn + " process long.wav -o -; echo $? >status) | head -c 10 >/dev/null; exit $(cat status)",
       "standard output: write failed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const CommandResult r = RunCommand(dir_, c.command);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");  // no summary
  }
  // The audio of the run whose summary was lost is whole, and nothing else
  // (the summary through a reused descriptor) landed in it.
  WavAudio out;
  ASSERT_TRUE(ReadWavFile(Path("summary_lost.wav"), &out));
  EXPECT_EQ(out.samples.size(), 1024u);
  EXPECT_EQ(std::filesystem::file_size(Path("summary_lost.wav")), 44u + 2 * 1024);
}

TEST_F(VornBadInput, OverstatedSizesFailAndLeaveNoResult) {
  struct Case {
    const char* name;
    std::string bytes;
    bool piped;
    const char* message;
  };
  const std::string good = WavBytes({});
  const std::string cut = good.substr(0, 44 + 3000);
  const Case cases[] = {
      {"cut after the header", good.substr(0, 44), false, "vorn: in.wav: the data chunk claims 6144 bytes but the file holds 0"},
      {"cut inside the audio", cut, false, "vorn: in.wav: the data chunk claims 6144 bytes but the file holds 3000"},
      {"data size near 4 GiB", WavBytes({.datsize = 0xFFFFFFF0u}), false, "the data chunk claims 4294967280 bytes"},
      {"cut stream", cut, true, "vorn: standard input: ended 3144 bytes before its declared length"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(WriteBytes(Path("in.wav"), c.bytes));
    const std::string process = kVorn + " process -o out.wav --json ";
    const CommandResult r = RunCommand(dir_, c.piped ? "cat in.wav | " + process + "-" : process + "in.wav");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(std::filesystem::exists(Path("out.wav")));
  }
}

}  // namespace
}  // namespace vorn::test
