// Reader of the mode configuration file: an INI-style text with the sections
// "VORN_WKP", "VORN_ASR" and "VORN_COM" (one per operating mode) holding
// "key = value" lines. It fills three T_VornKey records inside a scratch area
// the caller lends (the start of the front end's state buffer) and allocates
// nothing but the open file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn_proc.h"

namespace vorn {

// A line of content holds at most this many characters; the window of raw
// file bytes holds at most kIniWindowBytes.
constexpr int kIniWindowBytes = 1024;
constexpr int kIniMaxContent = 1023;

// The reader's scratch record, laid out at the start of the caller's area.
struct ini_read_t {
  char line_buffer[kIniWindowBytes + 1];   // raw file bytes not yet consumed
  char value_buffer[kIniWindowBytes + 1];  // the current line's content, NUL-terminated
  int32_t buf_len_rest;                    // number of unconsumed bytes in line_buffer
  T_VornKey tKey[3];                       // results, index = mode
};
static_assert(sizeof(T_VornKey) == 540, "one mode's switches are 540 bytes");
static_assert(offsetof(ini_read_t, value_buffer) == 1025);
static_assert(offsetof(ini_read_t, buf_len_rest) == 2052);
static_assert(offsetof(ini_read_t, tKey) == 2056);
static_assert(sizeof(ini_read_t) == 3676, "the scratch area must hold 3676 bytes");

enum _ELineType_ : int32_t {
  LINE_IDLE = 0,     // the window ran out before the line ended
  LINE_ERROR = 1,    // content that is neither a section nor a key/value line, or too long
  LINE_EMPTY = 2,    // white space and comments only
  LINE_SECTION = 3,  // "[name]"
  LINE_VALUE = 4,    // "key = value"
};
using ELineType = _ELineType_;

constexpr int kIniNameChars = 21;
constexpr int kIniSectionCount = 3;
constexpr int kIniKeyCount = 20;
constexpr int kIniUsedKeyCount = 8;

// Index = mode (vorn_mode).
inline constexpr char g_section_str[kIniSectionCount][kIniNameChars] = {
    "VORN_WKP", "VORN_ASR", "VORN_COM"};

// Index order = field order of T_VornKey. The azimuth key is spelled
// "bf_zaimuth" in every configuration file ever shipped, so that spelling is
// the key. The trailing empty entries are spare slots.
inline constexpr char g_key_str[kIniKeyCount][kIniNameChars] = {
    "agc_flag", "bf_flag",  "doa_flag", "aec_flag", "ns_flag",
    "bf_zaimuth", "vad_mode", "preaec_filter_path"};

// Prepares the scratch area `p` of `data_len` bytes: clears the results and
// both text buffers. Returns 0, or -1 when `p` is null or `data_len` (taken as
// unsigned) is below sizeof(ini_read_t). `p` must be aligned for int32.
int32_t LoadConfFileInit(char* p, int data_len);

// Where a configuration is read from: a file, or text in memory.
struct ConfSource {
  const char* path;  // the file to read, or null
  const char* text;  // NUL-terminated text, read when path is null
};

// The front end's own section and its keys, beside the modes' sections:
//   [VORN]
//   profile = classic | enhanced      (case-insensitive)
//   agc_target_dbfs = -26             (the enhanced level control's target, a
//                                      decimal number in the header's range)
inline constexpr char kFrontEndSection[] = "VORN";
inline constexpr char kAgcTargetKey[] = "agc_target_dbfs";
constexpr int32_t kConfProfileAbsent = -1;

// What the [VORN] section sets. A key it does not mention keeps the value
// given here.
struct FrontEndConf {
  int32_t profile = kConfProfileAbsent;  // 0 classic, 1 enhanced
  bool agc_target_given = false;
  float agc_target_dbfs = VORN_AGC_TARGET_DEFAULT_DBFS;
};

// Mistakes the reader skipped, as sentences for the caller: one line each,
// "line N: ...", in file order. The text holds as many whole lines as fit;
// `count` counts them all.
constexpr int kConfWarningBytes = 4096;
struct ConfWarnings {
  int32_t count;
  char text[kConfWarningBytes];  // NUL-terminated
};

// Parses the whole source into the scratch area prepared by LoadConfFileInit:
// the mode records into its results, the [VORN] settings into *front_end and
// the mistakes it skips (unknown sections and keys, values that do not
// parse, lines that are neither a section nor a key = value, a path cut to
// fit) into *warnings; either may be null. Returns 0; -1 when the source
// cannot be read; -2 when a [VORN] value is refused (a level target that is
// no number or out of range, or a profile name that
// names no profile: running another profile than the file asks for would be
// a silent guess). The mode records are filled in every case but -1.
int32_t LoadConf(const ConfSource& source, char* p, FrontEndConf* front_end, ConfWarnings* warnings);

// The designed entry: parses `filename` into the scratch area prepared by
// LoadConfFileInit and points `*pkey` at the three result records (index =
// mode). Returns -1 (and leaves `*pkey` null) when the file cannot be
// opened; mistakes are skipped (LoadConf reports them).
int32_t LoadConfFileProc(const char* filename, char* p, T_VornKey** pkey);


}  // namespace vorn
