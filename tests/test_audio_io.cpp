// The old tool's WAV header reading and writing and the channel splitter, on
// files whose bytes the tests compose; the tools' end-to-end tests add broken
// files.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_io/audio_io.h"
#include "support/files.h"

namespace vorn {
namespace {

// Little-endian byte composer, independent of the code under test.
struct Bytes {
  std::string out;
  Bytes& id(const char* four) { out.append(four, 4); return *this; }
  Bytes& le(uint32_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return *this;
  }
};

struct WaveLayout {
  int fmt_size = 16;          // 18 and 40 carry an extension
  bool fact = false;          // a "fact" chunk before "data"
  bool list = false;          // a "LIST" chunk before "data"
  uint32_t data_bytes = 600;  // declared audio bytes
  int length_change = 0;      // audio bytes actually present, relative to the declaration
  int totsize_change = 0;     // corruption of the RIFF size
  const char* riff = "RIFF";
  const char* wave = "WAVE";
};

// A three-channel 16 kHz file; audio sample n holds the value n.
std::string BuildWave(const WaveLayout& layout) {
  Bytes chunks;
  chunks.id("fmt ").le(layout.fmt_size, 4).le(1, 2).le(3, 2).le(16000, 4).le(96000, 4).le(6, 2).le(16, 2);
  if (layout.fmt_size >= 18) chunks.le(layout.fmt_size - 18, 2);  // extension size
  for (int i = 18; i < layout.fmt_size; ++i) chunks.le(0xAB, 1);
  if (layout.fact) chunks.id("fact").le(4, 4).le(layout.data_bytes / 6, 4);
  if (layout.list) chunks.id("LIST").le(6, 4).id("INFO").le(0x6261, 2);
  chunks.id("data").le(layout.data_bytes, 4);
  const int present = static_cast<int>(layout.data_bytes) + layout.length_change;
  for (int n = 0; 2 * n < present; ++n) chunks.le(static_cast<uint32_t>(n), 2);
  const uint32_t totsize =
      4 + static_cast<uint32_t>(chunks.out.size()) - layout.length_change + layout.totsize_change;
  return Bytes().id(layout.riff).le(totsize, 4).id(layout.wave).out + chunks.out;
}

// Files live in a directory of their own that goes away with the test.
class AudioIo : public ::testing::Test {
 protected:
  void TearDown() override { std::filesystem::remove_all(dir_); }
  const std::string& Write(const std::string& bytes) {
    EXPECT_TRUE(test::WriteBytes(path_, bytes)) << path_;
    return path_;
  }
  // Opens `name` (or reads from the caller's stream `given`) as the tools do.
  int32_t Open(const std::string& name, FILE* given = nullptr, int given_len = 0) {
    stream_ = given;
    flen_ = given_len;
    ::testing::internal::CaptureStderr();
    const int32_t rc = sig_wave_stream_init(&header_, name.c_str(), &stream_, &flen_);
    messages_ = ::testing::internal::GetCapturedStderr();
    return rc;
  }
  const std::string dir_ = test::MakeTempDir("audio_io");
  const std::string path_ = dir_ + "/in.wav";
  hdr_t header_{};
  FILE* stream_ = nullptr;
  int flen_ = 0;
  std::string messages_;
};

TEST_F(AudioIo, HeaderLayoutsAndMessages) {
  const std::string not_wave = "sig_wave_stream_init(): stream " + path_ + " is not a WAVE format\n";
  const std::string with_fact = BuildWave({.fact = true});
  struct Case { const char* name; std::string bytes; int32_t want_rc; std::string want_messages; };
  // Plain file: RIFF size = 4 + 24 (fmt) + 8 + 600 = 636. Headers cut short
  // are refused with a dump of whatever fields were read, not judged here.
  const Case cases[] = {
      {"plain 16-byte format chunk", BuildWave({}), 44, ""},
      {"18-byte format chunk", BuildWave({.fmt_size = 18}), 46, ""},
      {"40-byte extensible format chunk", BuildWave({.fmt_size = 40}), 68, ""},
      {"fact chunk", with_fact, 56, ""},
      {"18-byte format chunk and fact chunk", BuildWave({.fmt_size = 18, .fact = true}), 58, ""},
      {"empty data", BuildWave({.data_bytes = 0}), 44, ""},
      {"short file", BuildWave({.length_change = -2}), -1,
       "sig_wave_stream_init(): stream " + path_ + " datsize error \n"},
      {"LIST chunk before the audio, skipped", BuildWave({.list = true}), 58, ""},
      {"LIST and fact chunks", BuildWave({.fact = true, .list = true}), 70, ""},
      {"trailing bytes counted in the RIFF size", BuildWave({.length_change = 10, .totsize_change = 10}), -1,
       not_wave + "RIFF WAVE data 46(646 - 600) == 44\n"},
      {"big-endian RIFX", BuildWave({.riff = "RIFX"}), -1, not_wave + "RIFX WAVE data 36(636 - 600) == 44\n"},
      {"not WAVE", BuildWave({.wave = "AVI "}), -1, not_wave + "RIFF AVI  data 36(636 - 600) == 44\n"},
      {"cut in the fact chunk", with_fact.substr(0, 47), -1, not_wave},
      {"cut in the data size", with_fact.substr(0, 54), -1, not_wave},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Open(Write(c.bytes)), c.want_rc);
    const bool cut_short = c.want_messages == not_wave;
    EXPECT_EQ(cut_short ? messages_.substr(0, not_wave.size()) : messages_, c.want_messages);
    EXPECT_EQ(stream_ == nullptr, c.want_rc < 0);  // refused streams are closed
    if (stream_ == nullptr) continue;
    const std::size_t audio_bytes = c.bytes.size() - static_cast<std::size_t>(c.want_rc);
    EXPECT_EQ(flen_, static_cast<int>(audio_bytes));
    EXPECT_EQ(header_.datsize, audio_bytes);
    EXPECT_EQ(std::ftell(stream_), c.want_rc);  // at the first audio byte
    std::fclose(stream_);
  }
  // A list's second "stdin.wav" finds the caller's stream exhausted by the first.
  FILE* given = std::fopen(Write(with_fact).c_str(), "rb");
  ASSERT_NE(given, nullptr);
  std::vector<char> sink(1000);
  ASSERT_EQ(std::fread(sink.data(), 1, sink.size(), given), with_fact.size());
  EXPECT_EQ(Open("stdin.wav", given, 1000), -1);
  EXPECT_EQ(stream_, nullptr);
  EXPECT_EQ(messages_, "sig_wave_stream_init(): stream stdin.wav is not a WAVE format\n   0(0 - 0) == 0\n");
}

// The data size is a third of the three-channel input, rounded down.
TEST(AudioIoWriter, MonoHeaderBytes) {
  char written[44] = {};
  FILE* out = fmemopen(written, sizeof written, "wb");
  ASSERT_EQ(write_wave_header(mono_wave_header(3 * 1000 + 2), out), 0);
  EXPECT_EQ(std::ftell(out), 44);
  std::fclose(out);
  const std::string want = Bytes().id("RIFF").le(1036, 4).id("WAVE")
                               .id("fmt ").le(16, 4).le(1, 2).le(1, 2).le(16000, 4).le(32000, 4).le(2, 2)
                               .le(16, 2).id("data").le(1000, 4).out;
  EXPECT_EQ(std::string(written, sizeof written), want);
  EXPECT_EQ(mono_wave_header(-5).datsize, 0u);
  EXPECT_EQ(mono_wave_header(2147483610).datsize, 715827870u);
}

// Two sample frames; channel c of frame i holds 10 * (i + 1) + c. The -1
// closing each expectation is a sentinel the splitter must leave alone.
TEST(AudioIoSplitter, ChannelKGoesToTheReferenceTheRestToTheInput) {
  const short three[] = {10, 11, 12, 20, 21, 22};
  const short four[] = {10, 11, 12, 13, 20, 21, 22, 23};
  struct Case { const char* name; const short* data; int mics, k; std::vector<short> want_in, want_ref; };
  const Case cases[] = {
      {"reference first", three, 3, 0, {11, 12, 21, 22, -1}, {10, 20, -1}},
      {"reference in the middle", three, 3, 1, {10, 12, 20, 22, -1}, {11, 21, -1}},
      {"reference last", four, 4, 3, {10, 11, 12, 20, 21, 22, -1}, {13, 23, -1}},
      {"two channels", three, 2, 1, {10, 12, -1}, {11, 20, -1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (const int left_out : {0, 1, 2}) {  // none, the input, the reference
      std::vector<short> in(c.want_in.size(), -1), ref(c.want_ref.size(), -1);
      getChannelK(c.data, left_out == 1 ? nullptr : in.data(), left_out == 2 ? nullptr : ref.data(), 2, c.mics,
                  c.k);
      EXPECT_EQ(in, left_out == 1 ? std::vector<short>(in.size(), -1) : c.want_in) << left_out;
      EXPECT_EQ(ref, left_out == 2 ? std::vector<short>(ref.size(), -1) : c.want_ref) << left_out;
    }
  }
}

TEST(AudioIoDeathTest, ChannelSplitterRejectsImpossibleLayouts) {
  const short data[6] = {};
  short in[4];
  short ref[2];
  const char* const message = "getChannelK.*Assertion .* failed";  // the argument check, not a crash
  EXPECT_DEATH(getChannelK(data, in, ref, 2, 1, 0), message);
  EXPECT_DEATH(getChannelK(data, in, ref, 2, 3, -1), message);
  EXPECT_DEATH(getChannelK(data, in, ref, 2, 3, 3), message);
  EXPECT_DEATH(getChannelK(nullptr, in, ref, 2, 3, 0), message);
}

}  // namespace
}  // namespace vorn
