// Configuration reader on real files: every line and value rule, every
// line-end form, lines across its 1024-byte window, the failures it reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "conf_read/conf_read.h"
#include "support/files.h"

namespace {

using namespace vorn;

int32_t T_VornKey::*const kIntFields[] = {
    &T_VornKey::agc_flag, &T_VornKey::bf_flag,    &T_VornKey::doa_flag, &T_VornKey::aec_flag,
    &T_VornKey::ns_flag,  &T_VornKey::bf_azimuth, &T_VornKey::vad_mode};
enum Field { kAgc, kBf, kDoa, kAec, kNs, kAzimuth, kVad };

T_VornKey Key(std::initializer_list<std::pair<Field, int32_t>> ints, const std::string& filter_path = "") {
  T_VornKey key{};
  for (const auto& [field, value] : ints) key.*kIntFields[field] = value;
  filter_path.copy(key.preaec_filter_path, filter_path.size());
  return key;
}

// Files live in a fresh directory that goes away with the test program.
struct ScratchDir {
  std::string path = test::MakeTempDir("conf_read");
  ~ScratchDir() { std::filesystem::remove_all(path); }
};

// The three records, readably; a path ends at its terminator or its field's end.
std::string Show(const T_VornKey* keys) {
  if (keys == nullptr) return "no records";
  std::ostringstream text;
  for (const T_VornKey& key : std::span(keys, 3)) {
    for (auto field : kIntFields) text << key.*field << ' ';
    const char* path = key.preaec_filter_path;
    text << '"' << std::string(path, strnlen(path, sizeof key.preaec_filter_path)) << "\"\n";
  }
  return text.str();
}

const T_VornKey kZero[3] = {};

// Runs the reader on `bytes` written to a real file, in a scratch area of
// exactly the minimum size so that any write beyond it trips the sanitizer;
// then checks that init clears what the file left.
std::string Load(const std::string& bytes) {
  static const ScratchDir dir;
  const std::string path = dir.path + "/vorn.ini";
  EXPECT_TRUE(test::WriteBytes(path, bytes)) << path;
  std::vector<int32_t> storage(sizeof(ini_read_t) / sizeof(int32_t));
  char* scratch = reinterpret_cast<char*>(storage.data());
  EXPECT_EQ(LoadConfFileInit(scratch, sizeof(ini_read_t)), 0);
  T_VornKey* keys = nullptr;
  EXPECT_EQ(LoadConfFileProc(path.c_str(), scratch, &keys), 0);
  EXPECT_EQ(reinterpret_cast<char*>(keys), scratch + offsetof(ini_read_t, tKey));
  const std::string loaded = Show(keys);
  EXPECT_EQ(LoadConfFileInit(scratch, sizeof(ini_read_t)), 0);
  EXPECT_EQ(Show(keys), Show(kZero));
  return loaded;
}

TEST(ConfRead, EachRuleGivesTheWholeRecordExpected) {
  struct Case {
    const char* name;
    std::string text;  // follows a "[VORN_WKP]" line
    T_VornKey want;
    int mode = 0;  // whose record `want` is; the others stay zero
  };
  const auto path = [](const std::string& value) { return "preaec_filter_path = " + value + "\n"; };
  // The line under test, then a setting it must not swallow.
  const auto line = [](const std::string& text) { return text + "\nns_flag = 2\n"; };
  const auto padded = [](size_t length) { return "agc_flag" + std::string(length - 11, ' ') + "= 3"; };
  const std::string long_path = "/" + std::string(599, 'p'), blanks(3000, ' ');
  const T_VornKey both = Key({{kAgc, 3}, {kNs, 2}}), next = Key({{kNs, 2}});
  const Case cases[] = {
      {"comment after a value", "agc_flag = 2 ; comment\n", Key({{kAgc, 2}})},
      {"tabs around key and value", "\tagc_flag\t=\t2\t\n", Key({{kAgc, 2}})},
      {"trailing garbage keeps the old value", "agc_flag=1\nagc_flag = 2x\n", Key({{kAgc, 1}})},
      {"hex is not decimal", "agc_flag=1\nagc_flag = 0x2\n", Key({{kAgc, 1}})},
      {"empty value stores zero", "agc_flag=1\nagc_flag =\n", {}},
      {"quoted number is no number", "ns_flag=1\nns_flag = '2'\n", Key({{kNs, 1}})},
      {"int32 minimum", "bf_flag = -2147483648\n", Key({{kBf, INT32_MIN}})},
      {"above int32 is refused, not wrapped", "bf_flag=1\nbf_flag = 4294967298\n", Key({{kBf, 1}})},
      {"correct azimuth spelling is unknown", "bf_azimuth = 60\n", {}},
      {"the file's azimuth key", "BF_ZAIMUTH = 60\n", Key({{kAzimuth, 60}})},
      {"empty and unknown keys", "[VORN_ASR]\nagc_flag = 1\n= 5\nunknown = 3\n", Key({{kAgc, 1}}), 1},
      {"unknown section ends the known one", "agc_flag=1\n[OTHER]\nagc_flag=2\n", Key({{kAgc, 1}})},
      {"repeated section accumulates", "agc_flag=3\n[VORN_ASR]\n[VORN_WKP]\nns_flag=2\n", both},
      {"later value wins", "[VORN_COM]\nns_flag=1\nns_flag=2\n", Key({{kNs, 2}}), 2},
      {"unclosed section is no section", "[VORN_ASR\naec_flag=3\n", Key({{kAec, 3}})},
      {"text after the bracket is no section", "[VORN_ASR]x\naec_flag=3\n", Key({{kAec, 3}})},
      {"quote state ends with the line", "x = \"open\nagc_flag = 1 ; \"\n", Key({{kAgc, 1}})},
      {"double quotes hide comments and a single quote", path("\"/it's;#.bin\""), Key({}, "/it's;#.bin")},
      {"single quotes hide comments and a double quote", path("'/a\"#;.bin'"), Key({}, "/a\"#;.bin")},
      {"cut at the first equals sign, blanks kept", path("/my  d/a=b ; note"), Key({}, "/my  d/a=b")},
      {"mismatched quotes stay", path("\"/a/b'"), Key({}, "\"/a/b'")},
      {"a lone quote stays", path("\""), Key({}, "\"")},
      {"empty quotes give an empty path", path("\"\""), Key({}, "")},
      {"a shorter later value leaves the tail", path("/long/f.bin") + path("/x"), Key({}, "/xong/f.bin")},
      {"an empty later value changes nothing", path("/keep.bin") + path(""), Key({}, "/keep.bin")},
      {"a long path is cut at 511 characters", path(long_path), Key({}, long_path.substr(0, 511))},
      // Content length; 5000 characters and 3000 blanks also overfill the window.
      {"1023 content characters", line(padded(1023)), both},
      {"1024 content characters", line(padded(1024)), next},
      {"5000 content characters", line(padded(5000)), next},
      {"blanks around do not count", line(blanks + padded(1023) + blanks), both},
      {"a comment does not count", line("agc_flag = 3 ;" + std::string(5000, 'c')), both},
      {"quoted comment characters count", line(path("\"" + std::string(1100, ';') + "\"")), next},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    T_VornKey want[3] = {};
    want[c.mode] = c.want;
    EXPECT_EQ(Load("[VORN_WKP]\n" + c.text), Show(want));
  }
}

// Every key of every mode set to a value of its own, dressed the way hand-written
// files are, after a setting outside any section (ignored).
TEST(ConfRead, EveryKeyEveryLineEndAndWindowPositionParseAlike) {
  const char* const sections[] = {"[VORN_WKP]", "[ vorn_asr ]", "[VORN_Com] ; calls"};
  const char* const keys[] = {"agc_flag", "BF_FLAG",    "doa_flag", "aec_flag",
                              "ns_flag",  "bf_zaimuth", "vad_mode"};
  std::vector<std::string> lines = {"; front-end modes", "agc_flag = 7", ""};
  T_VornKey want[3] = {};
  for (int mode = 0; mode < 3; ++mode) {
    lines.push_back(sections[mode]);
    for (int field = 0; field < 7; ++field) {
      want[mode].*kIntFields[field] = 100 * (mode + 1) + field;
      lines.push_back(std::string(keys[field]) + " = " + std::to_string(want[mode].*kIntFields[field]) +
                      (field == 2 ? " # see the manual" : ""));
    }
    const std::string path = "/filters/m;" + std::to_string(mode) + ".bin";
    path.copy(want[mode].preaec_filter_path, path.size());
    lines.push_back("preaec_filter_path = \"" + path + "\"");
  }
  for (const char* eol : {"\n", "\r", "\r\n", "\n\r", "\n\n", "\r\r", "\r\n\r\n", "\n\r\n\r"}) {
    SCOPED_TRACE(::testing::PrintToString(std::string(eol)));
    std::string text;
    for (const std::string& line : lines) text += line + eol;
    EXPECT_EQ(Load(text), Show(want));
  }
  // Padding moves every line end, of each form in a mixed file, over the first window boundaries;
  // comment lines make the file several windows long. No line end follows the last line.
  for (auto at = lines.end(); --at != lines.begin();) at = lines.insert(at, std::string(98, '#'));
  const char* const eols[] = {"\n", "\r", "\r\n", "\n\r"};
  for (size_t shift = 0; shift < 4; ++shift) {
    std::string body = lines[0];
    for (size_t i = 1; i < lines.size(); ++i) body += eols[(i + shift) % 4] + lines[i];
    for (int pad = 900; pad <= 1100; ++pad) {
      SCOPED_TRACE("shift " + std::to_string(shift) + " pad " + std::to_string(pad));
      ASSERT_EQ(Load(std::string(static_cast<size_t>(pad), ' ') + eols[shift] + body), Show(want));
    }
  }
}

// Every kind of mistake the reader skips is reported with its line, from a
// file and from text alike; the [VORN] section's profile is read on the way
// and a name that is no profile is refused however it is followed.
TEST(ConfRead, MistakesBecomeWarningsWithTheirLineNumbers) {
  struct Case {
    const char* name;
    std::string text;
    int32_t want_rc, want_profile;
    std::string want_warnings;
  };
  const std::string long_line = "agc_flag = " + std::string(1100, '1');
  const Case cases[] = {
      {"a clean file", "[VORN_WKP]\nagc_flag = 1\n[VORN]\nprofile = Enhanced\n", 0, 1, ""},
      {"unknown key", "[VORN_WKP]\nagc_flag = 1\nbf_azimuth = 60\n", 0, -1,
       "line 3: unknown key \"bf_azimuth\" in [VORN_WKP]; ignored\n"},
      {"value that is no number", "[VORN_COM]\n\n  ns_flag = 2x ; typo\n", 0, -1,
       "line 3: ns_flag = \"2x\" in [VORN_COM] is not a whole decimal number; ignored\n"},
      {"unknown section, reported once", "[VORN_XYZ]\nagc_flag = 1\nns_flag = 1\n", 0, -1,
       "line 1: unknown section [VORN_XYZ]; its lines are ignored\n"},
      {"a key before any section", "agc_flag = 1\n[VORN_WKP]\n", 0, -1,
       "line 1: \"agc_flag\" comes before any section; ignored\n"},
      {"a line of neither kind", "[VORN_WKP]\nagc_flag 1\n", 0, -1,
       "line 2: \"agc_flag 1\" is neither a [section] nor a key = value line; ignored\n"},
      {"a line too long", "[VORN_WKP]\r\n" + long_line + "\r\n", 0, -1, "line 2: longer than 1023 characters; ignored\n"},
      {"a path cut to fit", "[VORN_ASR]\npreaec_filter_path = /" + std::string(600, 'p') + "\n", 0, -1,
       "line 2: preaec_filter_path in [VORN_ASR] is longer than 511 characters; cut\n"},
      {"a mode key in the front end's section", "[VORN]\nagc_flag = 1\n", 0, -1,
       "line 2: unknown key \"agc_flag\" in [VORN]; ignored\n"},
      {"the profile in a mode section", "[VORN_ASR]\nprofile = enhanced\n", 0, -1,
       "line 2: unknown key \"profile\" in [VORN_ASR]; ignored\n"},
      {"a profile that names none", "[VORN]\nprofile = turbo\nprofile = classic\n", -2, 0,
       "line 2: profile = \"turbo\" in [VORN] is not one of its values\n"},
      {"long words are cut in the message", "[VORN_WKP]\n" + std::string(50, 'k') + " = 1\n", 0, -1,
       "line 2: unknown key \"" + std::string(40, 'k') + "...\" in [VORN_WKP]; ignored\n"},
  };
  static const ScratchDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = dir.path + "/warnings.ini";
    ASSERT_TRUE(test::WriteBytes(path, c.text));
    for (const ConfSource& source : {ConfSource{path.c_str(), nullptr}, ConfSource{nullptr, c.text.c_str()}}) {
      std::vector<int32_t> storage(sizeof(ini_read_t) / sizeof(int32_t));
      char* scratch = reinterpret_cast<char*>(storage.data());
      ASSERT_EQ(LoadConfFileInit(scratch, sizeof(ini_read_t)), 0);
      FrontEndConf front_end;
      ConfWarnings warnings;
      EXPECT_EQ(LoadConf(source, scratch, &front_end, &warnings), c.want_rc);
      EXPECT_EQ(front_end.profile, c.want_profile);
      EXPECT_EQ(warnings.text, c.want_warnings);
      EXPECT_EQ(warnings.count, std::count(c.want_warnings.begin(), c.want_warnings.end(), '\n'));
    }
  }
  // The text keeps whole lines; the count goes on.
  std::string many = "[VORN_WKP]\n";
  for (int i = 0; i < 200; ++i) many += "unknown_" + std::to_string(i) + " = 1\n";
  std::vector<int32_t> storage(sizeof(ini_read_t) / sizeof(int32_t));
  ASSERT_EQ(LoadConfFileInit(reinterpret_cast<char*>(storage.data()), sizeof(ini_read_t)), 0);
  ConfWarnings warnings;
  EXPECT_EQ(LoadConf({nullptr, many.c_str()}, reinterpret_cast<char*>(storage.data()), nullptr, &warnings), 0);
  EXPECT_EQ(warnings.count, 200);
  const std::string text = warnings.text;
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 200);
  EXPECT_EQ(LoadConf({nullptr, nullptr}, reinterpret_cast<char*>(storage.data()), nullptr, &warnings), -1);
}

TEST(ConfRead, ScratchAreaChecksAndTheOnlyFileFailure) {
  std::vector<int32_t> storage(1000);
  char* scratch = reinterpret_cast<char*>(storage.data());
  EXPECT_EQ(LoadConfFileInit(nullptr, 4000), -1);
  EXPECT_EQ(LoadConfFileInit(scratch, 3675), -1);
  EXPECT_EQ(LoadConfFileInit(scratch, -1), 0);  // a negative size reads as a huge unsigned one
  EXPECT_EQ(LoadConfFileInit(scratch, 3676), 0);
  T_VornKey dummy{};
  for (const char* name : {"/nonexistent/vorn.ini", static_cast<const char*>(nullptr)}) {
    T_VornKey* keys = &dummy;
    EXPECT_EQ(LoadConfFileProc(name, scratch, &keys), -1);
    EXPECT_EQ(keys, nullptr);
  }
  EXPECT_EQ(LoadConfFileProc("/nonexistent/vorn.ini", scratch, nullptr), -1);
  EXPECT_EQ(Load(""), Show(kZero));
  // A directory reads as a file without settings, or cannot be opened.
  T_VornKey* keys = nullptr;
  const int32_t rc = LoadConfFileProc(std::filesystem::temp_directory_path().c_str(), scratch, &keys);
  EXPECT_TRUE(rc == -1 || (rc == 0 && Show(keys) == Show(kZero))) << rc;
}

}  // namespace
