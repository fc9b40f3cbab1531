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

// Parses `filename` into the scratch area prepared by LoadConfFileInit and
// points `*pkey` at the three result records (index = mode). Returns -1 (and
// leaves `*pkey` null) when the file cannot be opened; malformed lines,
// unknown sections and keys and unparsable values are skipped silently.
int32_t LoadConfFileProc(const char* filename, char* p, T_VornKey** pkey);

// The front end's own section and its processing-profile key:
//   [VORN]
//   profile = classic | enhanced      (case-insensitive)
inline constexpr char kFrontEndSection[] = "VORN";
inline constexpr char kProfileKey[] = "profile";
constexpr int32_t kConfProfileAbsent = -1;

// Reads the profile the file asks for into `*profile`: 0 classic, 1
// enhanced, kConfProfileAbsent when the file does not say. Uses the scratch
// area's text buffers (not its results). Returns 0; -1 when the file cannot be
// opened; -2 when a profile key names something else.
int32_t LoadConfFileProfile(const char* filename, char* p, int32_t* profile);

// The enhanced level control's target, in the same section:
//   agc_target_dbfs = -26          (a decimal number, dBFS)
inline constexpr char kAgcTargetKey[] = "agc_target_dbfs";

// Reads the target the file asks for: `*present` tells whether it names one
// (the last mention wins) and `*target_dbfs` holds it. The range is the level
// control's to judge. Returns 0; -1 when the file cannot be opened; -2 when a
// value is not a number.
int32_t LoadConfFileAgcTarget(const char* filename, char* p, bool* present, float* target_dbfs);

}  // namespace vorn
