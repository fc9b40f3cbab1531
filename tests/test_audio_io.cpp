// WAV header reading and writing and the channel splitter, on real files
// whose bytes the tests compose themselves.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_io/audio_io.h"
#include "support/wav_file.h"

namespace {

using vorn::hdr_t;
using vorn::sig_wave_stream_init;

// Little-endian byte composer, independent of the code under test.
struct Bytes {
  std::string out;
  Bytes& id(const char* four) { out.append(four, 4); return *this; }
  Bytes& le(uint32_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return *this;
  }
  Bytes& raw(const std::string& bytes) { out += bytes; return *this; }
};

struct WaveLayout {
  int fmt_size = 16;          // 18 and 40 carry an extension
  bool fact = false;          // a "fact" chunk before "data"
  const char* other_chunk = "";  // id of a further chunk before "data" ("LIST")
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
  if (*layout.other_chunk != '\0') chunks.id(layout.other_chunk).le(6, 4).raw("INFOab");
  chunks.id("data").le(layout.data_bytes, 4);
  const int present = static_cast<int>(layout.data_bytes) + layout.length_change;
  for (int n = 0; 2 * n + 1 < present; ++n) chunks.le(static_cast<uint32_t>(n), 2);
  if (present % 2 == 1) chunks.le(0x55, 1);
  const uint32_t totsize =
      4 + static_cast<uint32_t>(chunks.out.size()) - layout.length_change + layout.totsize_change;
  return Bytes().id(layout.riff).le(totsize, 4).id(layout.wave).raw(chunks.out).out;
}

// Files live in a fresh directory that goes away with the test program.
struct ScratchDir {
  std::string path = vorn::test::MakeTempDir("audio_io");
  ~ScratchDir() { std::filesystem::remove_all(path); }
};

std::string TempPath(const std::string& tag) {
  static const ScratchDir dir;
  static int serial = 0;
  return dir.path + "/" + tag + "_" + std::to_string(serial++) + ".wav";
}

std::string WriteFile(const std::string& bytes) {
  const std::string path = TempPath("in");
  EXPECT_TRUE(vorn::test::WriteBytes(path, bytes)) << path;
  return path;
}

struct Opened {
  int32_t rc = 0;
  hdr_t header{};
  FILE* stream = nullptr;
  int flen = -7;
  std::string messages;
};

Opened OpenWave(const std::string& path, FILE* given = nullptr, int given_len = -7) {
  Opened o;
  o.stream = given;
  o.flen = given_len;
  ::testing::internal::CaptureStderr();
  o.rc = sig_wave_stream_init(&o.header, path.c_str(), &o.stream, &o.flen);
  o.messages = ::testing::internal::GetCapturedStderr();
  return o;
}

// The file's name replaces "@" in an expected message.
std::string WithPath(std::string text, const std::string& path) {
  for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + path.size())) {
    text.replace(at, 1, path);
  }
  return text;
}

TEST(AudioIo, HeaderLayoutsAndMessages) {
  const char* const not_wave = "sig_wave_stream_init(): stream @ is not a WAVE format\n";
  struct Case {
    const char* name;
    WaveLayout layout;
    int32_t want_rc;
    std::string want_messages;
  };
  // Plain file: RIFF size = 4 + 24 (fmt) + 8 + 600 = 636.
  const Case cases[] = {
      {"plain 16-byte format chunk", {}, 44, ""},
      {"18-byte format chunk", {.fmt_size = 18}, 46, ""},
      {"40-byte extensible format chunk", {.fmt_size = 40}, 68, ""},
      {"fact chunk", {.fact = true}, 56, ""},
      {"18-byte format chunk and fact chunk", {.fmt_size = 18, .fact = true}, 58, ""},
      {"empty data", {.data_bytes = 0}, 44, ""},
      {"long file", {.length_change = 6}, 44, "@ contain extra information!\n"},
      {"short file", {.length_change = -2}, -1, "sig_wave_stream_init(): stream @ datsize error \n"},
      // The LIST chunk's size word is taken for the data size.
      {"LIST chunk", {.other_chunk = "LIST"}, -1,
       std::string(not_wave) + "RIFF WAVE LIST 644(650 - 6) == 44\n"},
      {"RIFF size one too large", {.totsize_change = 1}, -1,
       std::string(not_wave) + "RIFF WAVE data 37(637 - 600) == 44\n"},
      {"trailing bytes counted in the RIFF size", {.length_change = 10, .totsize_change = 10}, -1,
       std::string(not_wave) + "RIFF WAVE data 46(646 - 600) == 44\n"},
      {"big-endian RIFX", {.riff = "RIFX"}, -1, std::string(not_wave) + "RIFX WAVE data 36(636 - 600) == 44\n"},
      {"not WAVE", {.wave = "AVI "}, -1, std::string(not_wave) + "RIFF AVI  data 36(636 - 600) == 44\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string bytes = BuildWave(c.layout);
    const std::string path = WriteFile(bytes);
    Opened o = OpenWave(path);
    EXPECT_EQ(o.rc, c.want_rc);
    EXPECT_EQ(o.messages, WithPath(c.want_messages, path));
    if (c.want_rc > 0) {
      ASSERT_NE(o.stream, nullptr);
      EXPECT_EQ(o.flen, static_cast<int>(bytes.size()) - c.want_rc);
      EXPECT_EQ(o.header.numchans, 3);
      EXPECT_EQ(o.header.Fs, 16000);
      EXPECT_EQ(o.header.nbytespersample, 6);
      EXPECT_EQ(o.header.datsize, c.layout.data_bytes);
      // The stream stands at the first audio sample.
      int16_t first[2] = {-1, -1};
      const size_t got = std::fread(first, sizeof(int16_t), 2, o.stream);
      if (c.layout.data_bytes >= 4) {
        EXPECT_EQ(got, 2u);
        EXPECT_EQ(first[0], 0);
        EXPECT_EQ(first[1], 1);
      }
      std::fclose(o.stream);
    } else {
      EXPECT_EQ(o.stream, nullptr);
    }
    std::remove(path.c_str());
  }

  const std::string missing = TempPath("missing");
  const Opened o = OpenWave(missing);
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.stream, nullptr);
  EXPECT_EQ(o.messages, "sig_wave_stream_init(): cannot open file " + missing + "\n");
}

TEST(AudioIo, DamagedHeadersAreRefusedWithoutOverreading) {
  const std::string good = BuildWave({.fact = true});
  std::string huge_format = BuildWave({});
  huge_format[16] = huge_format[17] = huge_format[18] = '\xFF';
  huge_format[19] = '\x7F';  // format chunk of 2^31 - 1 bytes in a 656-byte file
  const std::string cases[] = {
      "", good.substr(0, 3), good.substr(0, 20), good.substr(0, 47), good.substr(0, 54), huge_format,
  };
  for (const std::string& bytes : cases) {
    SCOPED_TRACE(bytes.size());
    const std::string path = WriteFile(bytes);
    const Opened o = OpenWave(path);
    EXPECT_EQ(o.rc, -1);
    EXPECT_EQ(o.stream, nullptr);
    EXPECT_EQ(o.messages.rfind("sig_wave_stream_init(): stream " + path + " is not a WAVE format\n", 0), 0u)
        << o.messages;
    std::remove(path.c_str());
  }
}

TEST(AudioIo, CallerStreamIsReadInPlace) {
  const std::string bytes = BuildWave({.length_change = -100});  // shorter than declared
  const std::string path = WriteFile(bytes);
  {
    SCOPED_TRACE("a stream the caller opened: no length check, caller's length kept");
    FILE* given = std::fopen(path.c_str(), "rb");
    ASSERT_NE(given, nullptr);
    const Opened o = OpenWave("stdin.wav", given, 2147483611);
    EXPECT_EQ(o.rc, 44);
    EXPECT_EQ(o.stream, given);
    EXPECT_EQ(o.flen, 2147483611 - 44);
    EXPECT_EQ(o.messages, "");
    std::fclose(given);
  }
  {
    SCOPED_TRACE("the exhausted stream of a previous file is refused and closed");
    FILE* given = std::fopen(path.c_str(), "rb");
    ASSERT_NE(given, nullptr);
    std::vector<char> sink(bytes.size());
    ASSERT_EQ(std::fread(sink.data(), 1, sink.size(), given), bytes.size());
    const Opened o = OpenWave("next.wav", given, 1000);
    EXPECT_EQ(o.rc, -1);
    EXPECT_EQ(o.stream, nullptr);
    EXPECT_EQ(o.messages, "sig_wave_stream_init(): stream next.wav is not a WAVE format\n"
                          "   0(0 - 0) == 0\n");
  }
  std::remove(path.c_str());
}

TEST(AudioIo, MonoHeaderBytesAndRoundTrip) {
  const int input_bytes = 3 * 1000 + 2;  // the writer divides by three, rounding down
  const std::string path = TempPath("out");
  FILE* out = std::fopen(path.c_str(), "wb");
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(vorn::write_wave_header(vorn::mono_wave_header(input_bytes), out), 0);
  const std::string audio(1000, '\x11');
  std::fwrite(audio.data(), 1, audio.size(), out);
  std::fclose(out);

  const std::string want = Bytes()
                               .id("RIFF").le(1036, 4).id("WAVE")
                               .id("fmt ").le(16, 4).le(1, 2).le(1, 2).le(16000, 4).le(32000, 4).le(2, 2).le(16, 2)
                               .id("data").le(1000, 4)
                               .out;
  EXPECT_EQ(vorn::test::ReadText(path).substr(0, 44), want);

  const Opened o = OpenWave(path);
  EXPECT_EQ(o.rc, 44);
  EXPECT_EQ(o.flen, 1000);
  EXPECT_EQ(o.header.numchans, 1);
  EXPECT_EQ(o.messages, "");
  if (o.stream != nullptr) std::fclose(o.stream);
  std::remove(path.c_str());

  EXPECT_EQ(vorn::mono_wave_header(-5).datsize, 0u);
  EXPECT_EQ(vorn::mono_wave_header(2147483610).datsize, 715827870u);
}

TEST(AudioIo, ChannelSplitter) {
  // Two sample frames; channel c of frame i holds 10 * (i + 1) + c.
  const short three[] = {10, 11, 12, 20, 21, 22};
  const short four[] = {10, 11, 12, 13, 20, 21, 22, 23};
  struct Case {
    const char* name;
    const short* data;
    int mics;
    int k;
    std::vector<short> want_in;
    std::vector<short> want_ref;
  };
  const Case cases[] = {
      {"reference first", three, 3, 0, {11, 12, 21, 22}, {10, 20}},
      {"reference in the middle", three, 3, 1, {10, 12, 20, 22}, {11, 21}},
      {"reference last", four, 4, 3, {10, 11, 12, 20, 21, 22}, {13, 23}},
      {"two channels", three, 2, 1, {10, 12}, {11, 20}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<short> in(c.want_in.size() + 1, -1);  // one sentinel beyond the end
    std::vector<short> ref(c.want_ref.size() + 1, -1);
    vorn::getChannelK(c.data, in.data(), ref.data(), 2, c.mics, c.k);
    EXPECT_EQ(std::vector<short>(in.begin(), in.end() - 1), c.want_in);
    EXPECT_EQ(std::vector<short>(ref.begin(), ref.end() - 1), c.want_ref);
    EXPECT_EQ(in.back(), -1);
    EXPECT_EQ(ref.back(), -1);
    // Either destination may be left out.
    std::vector<short> ref_only(c.want_ref.size(), -1);
    vorn::getChannelK(c.data, nullptr, ref_only.data(), 2, c.mics, c.k);
    EXPECT_EQ(ref_only, c.want_ref);
    std::vector<short> in_only(c.want_in.size(), -1);
    vorn::getChannelK(c.data, in_only.data(), nullptr, 2, c.mics, c.k);
    EXPECT_EQ(in_only, c.want_in);
  }
}

TEST(AudioIoDeathTest, ChannelSplitterRejectsImpossibleLayouts) {
  const short data[6] = {};
  short in[4];
  short ref[2];
  const char* const message =
      "getChannelK.*Assertion `numMic > 1 && k > -1 && k < numMic && \\(\\(void \\*\\)0\\) != data' failed";
  EXPECT_DEATH(vorn::getChannelK(data, in, ref, 2, 1, 0), message);
  EXPECT_DEATH(vorn::getChannelK(data, in, ref, 2, 3, -1), message);
  EXPECT_DEATH(vorn::getChannelK(data, in, ref, 2, 3, 3), message);
  EXPECT_DEATH(vorn::getChannelK(nullptr, in, ref, 2, 3, 0), message);
}

}  // namespace
