// Configuration reader on real files: section and key matching, value
// conversion, comments and quotes, every line-end form, lines that straddle
// the reader's 1024-byte window, and input it must survive.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "conf_read/conf_read.h"
#include "support/wav_file.h"

namespace {

using namespace std::string_literals;
using vorn::LoadConfFileInit;
using vorn::LoadConfFileProc;

int32_t T_VornKey::*const kIntFields[] = {
    &T_VornKey::agc_flag, &T_VornKey::bf_flag,    &T_VornKey::doa_flag, &T_VornKey::aec_flag,
    &T_VornKey::ns_flag,  &T_VornKey::bf_azimuth, &T_VornKey::vad_mode};
enum Field { kAgc, kBf, kDoa, kAec, kNs, kAzimuth, kVad };

// Files live in a fresh directory that goes away with the test program.
struct ScratchDir {
  std::string path = vorn::test::MakeTempDir("conf_read");
  ~ScratchDir() { std::filesystem::remove_all(path); }
};

std::string WriteFile(const std::string& bytes) {
  static const ScratchDir dir;
  static int serial = 0;
  const std::string path = dir.path + "/" + std::to_string(serial++) + ".ini";
  EXPECT_TRUE(vorn::test::WriteBytes(path, bytes)) << path;
  return path;
}

struct Loaded {
  int32_t rc = 0;
  std::array<T_VornKey, 3> keys{};
};

// Runs the reader on `bytes` written to a real file, in a scratch area of
// exactly the minimum size so that any write beyond it trips the sanitizer.
Loaded Load(const std::string& bytes) {
  const std::string path = WriteFile(bytes);
  std::vector<int32_t> storage(sizeof(vorn::ini_read_t) / sizeof(int32_t));
  char* scratch = reinterpret_cast<char*>(storage.data());
  Loaded loaded;
  EXPECT_EQ(LoadConfFileInit(scratch, sizeof(vorn::ini_read_t)), 0);
  T_VornKey* keys = nullptr;
  loaded.rc = LoadConfFileProc(path.c_str(), scratch, &keys);
  std::remove(path.c_str());
  if (loaded.rc == 0) {
    EXPECT_EQ(reinterpret_cast<char*>(keys), scratch + offsetof(vorn::ini_read_t, tKey));
    std::memcpy(loaded.keys.data(), keys, sizeof(loaded.keys));
  }
  return loaded;
}

bool SameKeys(const std::array<T_VornKey, 3>& a, const std::array<T_VornKey, 3>& b) {
  return std::memcmp(a.data(), b.data(), sizeof(a)) == 0;
}

TEST(ConfRead, IntegerRules) {
  struct Case {
    const char* name;
    const char* text;
    int mode;
    Field field;
    int32_t want;
  };
  const Case cases[] = {
      {"comment after a value", "[VORN_WKP]\nagc_flag = 2 ; comment\n", 0, kAgc, 2},
      {"tabs around key and value", "[VORN_WKP]\n\tagc_flag\t=\t2\t\n", 0, kAgc, 2},
      {"trailing garbage keeps the old value", "[VORN_WKP]\nagc_flag=1\nagc_flag = 2x\n", 0, kAgc, 1},
      {"hex is not decimal", "[VORN_WKP]\nagc_flag=1\nagc_flag = 0x2\n", 0, kAgc, 1},
      {"empty value stores zero", "[VORN_WKP]\nagc_flag=1\nagc_flag =\n", 0, kAgc, 0},
      {"lone sign is no number", "[VORN_WKP]\nagc_flag=1\nagc_flag = -\n", 0, kAgc, 1},
      {"negative", "[VORN_WKP]\nvad_mode = -5\n", 0, kVad, -5},
      {"second equals sign is part of the value", "[VORN_WKP]\nns_flag=1\nns_flag = 1=2\n", 0, kNs, 1},
      {"quoted number is no number", "[VORN_WKP]\nns_flag=1\nns_flag = '2'\n", 0, kNs, 1},
      {"int32 minimum", "[VORN_WKP]\nbf_flag = -2147483648\n", 0, kBf, INT32_MIN},
      {"above int32 is refused, not wrapped", "[VORN_WKP]\nbf_flag=1\nbf_flag = 4294967298\n", 0, kBf, 1},
      {"correct azimuth spelling is unknown", "[VORN_WKP]\nbf_azimuth = 60\n", 0, kAzimuth, 0},
      {"the file's azimuth key", "[VORN_WKP]\nBF_ZAIMUTH = 60\n", 0, kAzimuth, 60},
      {"key before any section", "agc_flag = 2\n[VORN_WKP]\n", 0, kAgc, 0},
      {"key under an unknown section", "[OTHER]\nagc_flag = 2\n", 0, kAgc, 0},
      {"unknown section ends the known one", "[VORN_WKP]\nagc_flag=1\n[OTHER]\nagc_flag=2\n", 0, kAgc, 1},
      {"repeated section accumulates", "[VORN_WKP]\nagc_flag=1\n[VORN_ASR]\n[VORN_WKP]\nns_flag=2\n", 0, kAgc, 1},
      {"repeated section accumulates (second)", "[VORN_WKP]\nagc_flag=1\n[VORN_ASR]\n[VORN_WKP]\nns_flag=2\n", 0, kNs, 2},
      {"later value wins", "[VORN_COM]\nns_flag=1\nns_flag=2\n", 2, kNs, 2},
      {"commented-out line", "[VORN_WKP]\n# agc_flag=1\n  ; agc_flag=2\n", 0, kAgc, 0},
      {"line without equals sign", "[VORN_WKP]\nagc_flag 2\n", 0, kAgc, 0},
      {"unclosed section is no section", "[VORN_WKP]\n[VORN_ASR\naec_flag=3\n", 0, kAec, 3},
      {"text after the bracket is no section", "[VORN_WKP]\n[VORN_ASR]x\naec_flag=3\n", 0, kAec, 3},
      {"quote state ends with the line", "[VORN_WKP]\nx = \"open\nagc_flag = 1 ; \"\n", 0, kAgc, 1},
      {"last line without line end", "[VORN_WKP]\nvad_mode = 2", 0, kVad, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded loaded = Load(c.text);
    ASSERT_EQ(loaded.rc, 0);
    EXPECT_EQ(loaded.keys[c.mode].*kIntFields[c.field], c.want);
  }
}

// A configuration that sets every key of every mode to a value of its own
// (100 * (mode + 1) + field index), dressed with comments, quotes, blank
// lines and mixed case the way hand-written files are.
std::vector<std::string> FullConfigLines() {
  const char* const sections[] = {"[VORN_WKP]", "[ vorn_asr ]", "[VORN_Com] ; calls"};
  const char* const keys[] = {"agc_flag", "BF_FLAG", "doa_flag", "aec_flag",
                              "ns_flag",  "bf_zaimuth", "vad_mode"};
  std::vector<std::string> lines = {"; front-end modes", ""};
  for (int mode = 0; mode < 3; ++mode) {
    lines.push_back(sections[mode]);
    for (int field = 0; field < 7; ++field) {
      lines.push_back(std::string(keys[field]) + " = " + std::to_string(100 * (mode + 1) + field) +
                      (field == 2 ? " # see the manual" : ""));
    }
    lines.push_back("preaec_filter_path = \"/filters/mode;" + std::to_string(mode) + ".bin\"");
  }
  return lines;
}

std::string Join(const std::vector<std::string>& lines, const std::string& eol) {
  std::string text;
  for (const std::string& line : lines) text += line + eol;
  return text;
}

TEST(ConfRead, EveryKeyLandsInItsOwnFieldAndAbsentKeysAreZero) {
  const std::string text = Join(FullConfigLines(), "\n");
  const Loaded all = Load(text);
  ASSERT_EQ(all.rc, 0);
  for (int mode = 0; mode < 3; ++mode) {
    for (int field = 0; field < 7; ++field) {
      EXPECT_EQ(all.keys[mode].*kIntFields[field], 100 * (mode + 1) + field) << mode << " " << field;
    }
    EXPECT_STREQ(all.keys[mode].preaec_filter_path,
                 ("/filters/mode;" + std::to_string(mode) + ".bin").c_str());
  }

  // A file that names only one key leaves every other field of every mode zero.
  const Loaded one = Load("[VORN_ASR]\nagc_flag = 1\n= 5\nunknown = 3\n");
  ASSERT_EQ(one.rc, 0);
  std::array<T_VornKey, 3> want{};
  want[1].agc_flag = 1;
  EXPECT_TRUE(SameKeys(one.keys, want));
}

TEST(ConfRead, FilterPathRules) {
  struct Case {
    const char* name;
    std::string text;  // lines under [VORN_WKP]
    std::string want;
  };
  std::string long_path(600, 'p');
  long_path[0] = '/';
  const Case cases[] = {
      {"double quotes protect a semicolon", "preaec_filter_path = \"/data/a;b.bin\"\n", "/data/a;b.bin"},
      {"single quotes protect a hash", "preaec_filter_path = '/data/a#b.bin'\n", "/data/a#b.bin"},
      {"single quote inside double quotes", "preaec_filter_path = \"/x/it's;.bin\"\n", "/x/it's;.bin"},
      {"unquoted path with a comment", "preaec_filter_path = /plain/path.bin ; note\n", "/plain/path.bin"},
      {"inner blanks are kept", "preaec_filter_path = /my  dir/x.bin\n", "/my  dir/x.bin"},
      {"mismatched quotes stay", "preaec_filter_path = \"/a/b'\n", "\"/a/b'"},
      {"a lone quote stays", "preaec_filter_path = \"\n", "\""},
      {"empty quotes give an empty path", "preaec_filter_path = \"\"\n", ""},
      {"a shorter later value leaves the tail", "preaec_filter_path = /long/path/file.bin\npreaec_filter_path = /x\n",
       "/xong/path/file.bin"},
      {"an empty later value changes nothing", "preaec_filter_path = /keep.bin\npreaec_filter_path =\n", "/keep.bin"},
      {"a long path is cut at 511 characters", "preaec_filter_path = " + long_path + "\n", long_path.substr(0, 511)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded loaded = Load("[VORN_WKP]\n" + c.text);
    ASSERT_EQ(loaded.rc, 0);
    const char* path = loaded.keys[0].preaec_filter_path;
    EXPECT_EQ(path[sizeof(T_VornKey{}.preaec_filter_path) - 1], '\0');
    EXPECT_EQ(std::string(path), c.want);
  }
}

TEST(ConfRead, EveryLineEndFormParsesAlike) {
  const Loaded reference = Load(Join(FullConfigLines(), "\n"));
  ASSERT_EQ(reference.rc, 0);
  ASSERT_EQ(reference.keys[2].vad_mode, 306);  // the reference itself parsed

  const char* const eols[] = {"\r", "\r\n", "\n\r", "\n\n", "\r\r", "\r\n\r\n", "\n\r\n\r"};
  for (const char* eol : eols) {
    SCOPED_TRACE(::testing::PrintToString(std::string(eol)));
    const Loaded loaded = Load(Join(FullConfigLines(), eol));
    ASSERT_EQ(loaded.rc, 0);
    EXPECT_TRUE(SameKeys(loaded.keys, reference.keys));
  }

  // All four forms mixed in one file, and no line end after the last line.
  std::mt19937 rng(7);
  const char* const mixed[] = {"\n", "\r", "\r\n", "\n\r"};
  std::string text;
  const std::vector<std::string> lines = FullConfigLines();
  for (size_t i = 0; i < lines.size(); ++i) {
    text += lines[i];
    if (i + 1 < lines.size()) text += mixed[rng() % 4];
  }
  const Loaded loaded = Load(text);
  ASSERT_EQ(loaded.rc, 0);
  EXPECT_TRUE(SameKeys(loaded.keys, reference.keys));
}

// Padding before the configuration moves every line, and every line end, over
// each of the first window boundaries in turn; the file is several windows
// long, so later boundaries fall at shifting places too.
TEST(ConfRead, LinesStraddlingTheWindowBoundaries) {
  const Loaded reference = Load(Join(FullConfigLines(), "\n"));
  ASSERT_EQ(reference.rc, 0);
  const char* const eols[] = {"\n", "\r", "\r\n", "\n\r"};
  std::vector<std::string> lines = FullConfigLines();
  // Comment lines between the settings make the file span several windows.
  for (size_t i = lines.size(); i-- > 1;) lines.insert(lines.begin() + i, "#" + std::string(97, '-'));
  for (const char* eol : eols) {
    const std::string body = Join(lines, eol);
    ASSERT_GT(body.size(), 3000u);
    for (int pad = 900; pad <= 1100; ++pad) {
      SCOPED_TRACE(::testing::PrintToString(std::string(eol)) + " pad " + std::to_string(pad));
      const Loaded loaded = Load(std::string(static_cast<size_t>(pad), ' ') + eol + body);
      ASSERT_EQ(loaded.rc, 0);
      ASSERT_TRUE(SameKeys(loaded.keys, reference.keys));
    }
  }
}

TEST(ConfRead, ContentLengthLimit) {
  struct Case {
    const char* name;
    std::string line;
    int32_t want;  // agc_flag after "agc_flag = 9" and then this line
  };
  const auto padded_key = [](size_t content_len) {
    // "agc_flag" + blanks + "= 3" with exactly content_len characters.
    return "agc_flag" + std::string(content_len - 11, ' ') + "= 3";
  };
  const Case cases[] = {
      {"1023 content characters", padded_key(1023), 3},
      {"1024 content characters", padded_key(1024), 9},
      {"5000 content characters", padded_key(5000), 9},
      {"trailing blanks do not count", padded_key(1023) + std::string(3000, ' '), 3},
      {"leading blanks do not count", std::string(3000, ' ') + "agc_flag = 3", 3},
      {"a comment does not count", "agc_flag = 3 ;" + std::string(5000, 'c'), 3},
      {"quoted comment characters do count", "agc_flag = 3 \"" + std::string(1100, ';') + "\"", 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded loaded = Load("[VORN_WKP]\nagc_flag = 9\n" + c.line + "\nns_flag = 2\n");
    ASSERT_EQ(loaded.rc, 0);
    EXPECT_EQ(loaded.keys[0].agc_flag, c.want);
    EXPECT_EQ(loaded.keys[0].ns_flag, 2);  // the long line never swallows the next one
  }
}

TEST(ConfRead, InitChecksTheScratchArea) {
  std::vector<int32_t> storage(1000);
  char* scratch = reinterpret_cast<char*>(storage.data());
  struct Case {
    const char* name;
    char* p;
    int len;
    int32_t want;
  };
  const Case cases[] = {
      {"null area", nullptr, 4000, -1},
      {"one byte short", scratch, 3675, -1},
      {"exact size", scratch, 3676, 0},
      {"empty", scratch, 0, -1},
      {"negative size reads as a huge unsigned one", scratch, -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(LoadConfFileInit(c.p, c.len), c.want);
  }

  // Init clears what an earlier file left.
  const std::string path = WriteFile("[VORN_COM]\nvad_mode=2\npreaec_filter_path=/f.bin\n");
  ASSERT_EQ(LoadConfFileInit(scratch, 3676), 0);
  T_VornKey* keys = nullptr;
  ASSERT_EQ(LoadConfFileProc(path.c_str(), scratch, &keys), 0);
  ASSERT_EQ(keys[2].vad_mode, 2);
  ASSERT_EQ(LoadConfFileInit(scratch, 3676), 0);
  const std::array<T_VornKey, 3> zero{};
  EXPECT_EQ(std::memcmp(keys, zero.data(), sizeof(zero)), 0);
  std::remove(path.c_str());
}

TEST(ConfRead, FailuresAreReportedNotCrashed) {
  std::vector<int32_t> storage(sizeof(vorn::ini_read_t) / sizeof(int32_t));
  char* scratch = reinterpret_cast<char*>(storage.data());
  ASSERT_EQ(LoadConfFileInit(scratch, 3676), 0);
  T_VornKey dummy{};
  T_VornKey* keys = &dummy;
  const std::string missing = WriteFile("") + ".missing";
  EXPECT_EQ(LoadConfFileProc(missing.c_str(), scratch, &keys), -1);
  EXPECT_EQ(keys, nullptr);
  keys = &dummy;
  EXPECT_EQ(LoadConfFileProc(nullptr, scratch, &keys), -1);
  EXPECT_EQ(keys, nullptr);
  EXPECT_EQ(LoadConfFileProc(missing.c_str(), scratch, nullptr), -1);

  // An empty file and a directory read as files without settings.
  const Loaded empty = Load("");
  EXPECT_EQ(empty.rc, 0);
  EXPECT_TRUE(SameKeys(empty.keys, {}));
  keys = nullptr;
  const std::string directory = std::filesystem::path(WriteFile("")).parent_path().string();
  const int32_t rc = LoadConfFileProc(directory.c_str(), scratch, &keys);
  EXPECT_TRUE(rc == 0 || rc == -1) << rc;
  if (rc == 0) {
    ASSERT_NE(keys, nullptr);
    const std::array<T_VornKey, 3> zero{};
    EXPECT_EQ(std::memcmp(keys, zero.data(), sizeof(zero)), 0);
  }
}

TEST(ConfRead, BinaryGarbageIsSurvived) {
  std::mt19937 rng(11);
  for (int trial = 0; trial < 20; ++trial) {
    std::string bytes(2000 + rng() % 5000, '\0');
    // Skew towards the characters the scanner reacts to.
    const char interesting[] = {'\0', '\n', '\r', '"', '\'', '#', ';', '[', ']', '=', ' ', 'a'};
    for (char& b : bytes) {
      b = (rng() % 2) ? interesting[rng() % sizeof(interesting)] : static_cast<char>(rng());
    }
    // Embed valid lines so the garbage also reaches the value handlers.
    bytes.insert(rng() % bytes.size(), "\n[VORN_WKP]\npreaec_filter_path = \"/x\0y\"\n"s);
    bytes.insert(rng() % bytes.size(), "\n[\0VORN_ASR]\nagc\0_flag=1\n[VORN_COM]\nns_flag=\0\n"s);
    SCOPED_TRACE(trial);
    EXPECT_EQ(Load(bytes).rc, 0);
  }
}

}  // namespace
