// Configuration file reader.
//
// The file is read in chunks into a window of at most 1024 bytes; lines are
// cut from the front of the window and the unconsumed rest waits for the next
// chunk. The line scanner keeps its state (quotes, comment, content so far,
// half of a two-character line end) between calls, so a line may straddle any
// number of chunk boundaries and may even be longer than the window: only its
// content (from the first to the last non-blank character before a comment)
// is bounded, to 1023 characters. Line ends are LF, CR, CR LF and LF CR; a
// repeated LF or CR starts a new, empty line.
//
// Each content line is a section "[name]" or "key = value". Section and key
// names compare ASCII case-insensitively against fixed tables, integer values
// are stored only when the whole value is a decimal number, and the filter
// path is copied over the previous one in place. Anything else is skipped,
// and each skip is reported as a warning with its line number: a mistyped
// key must not quietly leave a feature off. Whether the values make sense is
// for the front end's parameter check to judge once a mode is selected.
//
// The source is a file or text in memory; both go through the same window.
#include "conf_read/conf_read.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace vorn {
namespace {

constexpr int kNoSection = -1;
constexpr int kPathField = 7;
constexpr int kPathMaxChars = static_cast<int>(sizeof(T_VornKey{}.preaec_filter_path)) - 1;

// White space as the C locale's isspace has it; pinned here so that a caller's
// setlocale cannot change how a configuration file parses.
bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Scan state of the line in progress; survives the refills of the window.
struct LineScan {
  bool in_double_quotes = false;
  bool in_single_quotes = false;
  bool in_comment = false;
  bool too_long = false;
  int scanned_len = 0;   // content characters stored so far, blanks included
  int content_len = 0;   // up to and including the last non-blank one
  bool any_byte = false; // the line has at least one byte (so it exists at end of file)
};

// Second character of a two-character line end still to be skipped ('\0' if
// none): after CR an immediate LF belongs to the same line end, and after LF
// an immediate CR.
struct LineEndPair {
  char swallow = '\0';
};

ELineType ClassifyLine(const LineScan& scan, char* value_buffer) {
  if (scan.too_long) {
    value_buffer[0] = '\0';
    return LINE_ERROR;
  }
  if (scan.content_len == 0) {
    value_buffer[0] = '\0';
    return LINE_EMPTY;
  }
  value_buffer[scan.content_len] = '\0';
  if (value_buffer[0] == '[' && value_buffer[scan.content_len - 1] == ']') return LINE_SECTION;
  if (std::memchr(value_buffer, '=', static_cast<size_t>(scan.content_len)) != nullptr) {
    return LINE_VALUE;
  }
  return LINE_ERROR;
}

// Scans bytes of `window` (length `window_len`) into the line in progress.
// Returns the line's kind once its end is met, with `*consumed` bytes used
// (line end included); LINE_IDLE when the window ran out first (all of it
// consumed). At the end of the file (`last_chunk`) an unterminated line ends
// with the window.
ELineType GetLine(const char* window, int window_len, bool last_chunk, LineScan& scan,
                  LineEndPair& pair, char* value_buffer, int* consumed) {
  int pos = 0;
  while (pos < window_len) {
    const char c = window[pos++];
    const char swallow = pair.swallow;
    pair.swallow = '\0';
    if (swallow != '\0' && c == swallow) continue;
    if (c == '\n' || c == '\r') {
      pair.swallow = (c == '\n') ? '\r' : '\n';
      *consumed = pos;
      const ELineType kind = ClassifyLine(scan, value_buffer);
      scan = LineScan{};
      return kind;
    }
    scan.any_byte = true;
    if (scan.in_comment || scan.too_long) continue;
    if (c == '"' && !scan.in_single_quotes) {
      scan.in_double_quotes = !scan.in_double_quotes;
    } else if (c == '\'' && !scan.in_double_quotes) {
      scan.in_single_quotes = !scan.in_single_quotes;
    } else if ((c == '#' || c == ';') && !scan.in_double_quotes && !scan.in_single_quotes) {
      scan.in_comment = true;
      continue;
    }
    const bool blank = IsBlank(c);
    if (blank && scan.scanned_len == 0) continue;  // content starts at its first non-blank
    // Blanks past the limit are dropped: trailing ones do not count, and a
    // later non-blank character makes the line too long anyway.
    if (scan.scanned_len < kIniMaxContent) {
      value_buffer[scan.scanned_len++] = c;
      if (!blank) scan.content_len = scan.scanned_len;
    } else if (!blank) {
      scan.too_long = true;
    }
  }
  *consumed = pos;
  if (last_chunk && scan.any_byte) {
    const ELineType kind = ClassifyLine(scan, value_buffer);
    scan = LineScan{};
    return kind;
  }
  return LINE_IDLE;
}

// Removes leading and trailing white space in place.
void StrStrip(char* text) {
  size_t len = std::strlen(text);
  while (len > 0 && IsBlank(text[len - 1])) --len;
  text[len] = '\0';
  size_t start = 0;
  while (start < len && IsBlank(text[start])) ++start;
  if (start > 0) std::memmove(text, text + start, len - start + 1);
}

// ASCII case-insensitive comparison; 0 when equal.
int StriCmp(const char* a, const char* b) {
  for (;; ++a, ++b) {
    const char la = AsciiLower(*a);
    const char lb = AsciiLower(*b);
    if (la != lb) return static_cast<unsigned char>(la) < static_cast<unsigned char>(lb) ? -1 : 1;
    if (la == '\0') return 0;
  }
}

// Splits "key = value" at its first '=' and strips both halves.
bool GetKeyValue(char* content, char** key, char** value) {
  char* equals = std::strchr(content, '=');
  if (equals == nullptr) return false;
  *equals = '\0';
  *key = content;
  *value = equals + 1;
  StrStrip(*key);
  StrStrip(*value);
  return true;
}

// A signed decimal integer that must make up the whole text. An empty text
// is the number 0 (nothing to convert, nothing left over). Numbers outside
// the int32 range are refused rather than wrapped, so that a typo can never
// turn into a different valid switch.
bool iniGetValue(const char* text, int32_t* value) {
  const char* cursor = text;
  bool negative = false;
  if (*cursor == '+' || *cursor == '-') {
    negative = (*cursor == '-');
    ++cursor;
    if (*cursor == '\0') return false;
  }
  int64_t magnitude = 0;
  for (; *cursor != '\0'; ++cursor) {
    if (*cursor < '0' || *cursor > '9') return false;
    magnitude = magnitude * 10 + (*cursor - '0');
    if (magnitude > static_cast<int64_t>(INT32_MAX) + 1) return false;
  }
  const int64_t signed_value = negative ? -magnitude : magnitude;
  if (signed_value > INT32_MAX) return false;
  *value = static_cast<int32_t>(signed_value);
  return true;
}

// Copies the path's characters over the field without clearing what lies
// behind them, so a shorter later value for the same mode shows the tail of
// the earlier one; existing files give the path once per section and are
// read exactly as before. Then a pair of enclosing quotes is dropped. A path
// is cut at kPathMaxChars characters: the field's last byte is never written
// and stays the terminator. No real path is that long; a cut one simply fails
// to open later, as any wrong path does.
void iniGetString(const char* text, char* field) {
  size_t copy_len = std::strlen(text);
  if (copy_len > static_cast<size_t>(kPathMaxChars)) copy_len = kPathMaxChars;
  std::memcpy(field, text, copy_len);
  const size_t stored_len = std::strlen(field);
  if (stored_len >= 2 && (field[0] == '"' || field[0] == '\'') &&
      field[stored_len - 1] == field[0]) {
    std::memmove(field, field + 1, stored_len - 2);
    field[stored_len - 2] = '\0';
  }
}

int32_t* IntegerField(T_VornKey& key, int index) {
  switch (index) {
    case 0: return &key.agc_flag;
    case 1: return &key.bf_flag;
    case 2: return &key.doa_flag;
    case 3: return &key.aec_flag;
    case 4: return &key.ns_flag;
    case 5: return &key.bf_azimuth;
    case 6: return &key.vad_mode;
    default: return nullptr;
  }
}

// What became of a key = value line.
enum class ValueVerdict { kStored, kUnknownKey, kUnparsable, kCut, kRefused };

ValueVerdict FlushValue(const char* key, const char* value, T_VornKey& key_record) {
  int index = 0;
  while (index < kIniKeyCount && StriCmp(key, g_key_str[index]) != 0) ++index;
  if (index >= kIniUsedKeyCount) return ValueVerdict::kUnknownKey;  // unknown, or a spare (empty) slot
  if (index == kPathField) {
    iniGetString(value, key_record.preaec_filter_path);
    return std::strlen(value) > static_cast<size_t>(kPathMaxChars) ? ValueVerdict::kCut : ValueVerdict::kStored;
  }
  int32_t number = 0;
  if (!iniGetValue(value, &number)) return ValueVerdict::kUnparsable;
  *IntegerField(key_record, index) = number;
  return ValueVerdict::kStored;
}

// The [VORN] section's keys. Each reader stores its value into the settings
// or says why it did not; a new front-end setting is a field of FrontEndConf
// and a row here.
ValueVerdict ReadProfile(const char* value, FrontEndConf* conf) {
  if (StriCmp(value, "classic") == 0) {
    conf->profile = 0;
  } else if (StriCmp(value, "enhanced") == 0) {
    conf->profile = 1;
  } else {
    return ValueVerdict::kRefused;
  }
  return ValueVerdict::kStored;
}

// [+|-]digits[.digits], the whole text: no exponent, no locale (a decimal
// comma in the host's locale must not change what a file means).
bool ParseDecimal(const char* text, float* value) {
  const char* cursor = text;
  const bool negative = *cursor == '-';
  if (*cursor == '+' || *cursor == '-') ++cursor;
  double number = 0.0, scale = 1.0;
  int digits = 0;
  bool point = false;
  for (; *cursor != '\0'; ++cursor) {
    if (*cursor == '.' && !point) {
      point = true;
    } else if (*cursor >= '0' && *cursor <= '9' && digits < 16) {
      number = number * 10.0 + (*cursor - '0');
      if (point) scale *= 10.0;
      ++digits;
    } else {
      return false;
    }
  }
  if (digits == 0) return false;
  *value = static_cast<float>((negative ? -number : number) / scale);
  return true;
}

ValueVerdict ReadAgcTarget(const char* value, FrontEndConf* conf) {
  float number = 0.0f;
  if (!ParseDecimal(value, &number) || !(number >= VORN_AGC_TARGET_MIN_DBFS && number <= VORN_AGC_TARGET_MAX_DBFS))
    return ValueVerdict::kRefused;
  conf->agc_target_given = true;
  conf->agc_target_dbfs = number;
  return ValueVerdict::kStored;
}

struct FrontEndKey {
  const char* name;
  ValueVerdict (*read)(const char* value, FrontEndConf* conf);
};
constexpr FrontEndKey kFrontEndKeys[] = {
    {"profile", ReadProfile},
    {kAgcTargetKey, ReadAgcTarget},
};

ValueVerdict FlushFrontEndValue(const char* key, const char* value, FrontEndConf* conf) {
  for (const FrontEndKey& known : kFrontEndKeys) {
    if (StriCmp(key, known.name) == 0) return known.read(value, conf);
  }
  return ValueVerdict::kUnknownKey;
}

// The name of a section line, stripped, in place.
char* SectionName(char* content) {
  const size_t len = std::strlen(content);
  content[len - 1] = '\0';  // the closing bracket
  char* name = content + 1;
  StrStrip(name);
  return name;
}

// Sections beside the modes' (index = mode).
constexpr int kFrontEndSectionIndex = kIniSectionCount;
constexpr int kUnknownSection = -2;

int FlushSection(const char* name) {
  for (int mode = 0; mode < kIniSectionCount; ++mode) {
    if (StriCmp(name, g_section_str[mode]) == 0) return mode;
  }
  if (StriCmp(name, kFrontEndSection) == 0) return kFrontEndSectionIndex;
  return kUnknownSection;
}

const char* SectionLabel(int section) {
  return section == kFrontEndSectionIndex ? kFrontEndSection : g_section_str[section];
}

// The bytes of a configuration, from a file or from text.
class Source {
 public:
  explicit Source(const ConfSource& source) {
    if (source.path != nullptr) {
      file_ = std::fopen(source.path, "rb");
      if (file_ != nullptr) left_ = FileSize(file_);
    } else if (source.text != nullptr) {
      text_ = source.text;
      left_ = static_cast<long>(std::strlen(text_));
    }
  }
  ~Source() {
    if (file_ != nullptr) std::fclose(file_);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  bool readable() const { return file_ != nullptr || text_ != nullptr; }
  long left() const { return left_; }

  // Up to `want` bytes (no more than left()); a short read ends the source
  // where the data ended.
  size_t Read(char* to, size_t want) {
    size_t got = want;
    if (file_ != nullptr) {
      got = std::fread(to, 1, want, file_);
    } else {
      std::memcpy(to, text_, want);
      text_ += want;
    }
    left_ = (got < want) ? 0 : left_ - static_cast<long>(got);
    return got;
  }

 private:
  // Size of an open file, or 0 when it cannot be told (then nothing is read).
  static long FileSize(FILE* file) {
    if (std::fseek(file, 0, SEEK_END) != 0) return 0;
    const long size = std::ftell(file);
    if (std::fseek(file, 0, SEEK_SET) != 0) return 0;
    return size < 0 ? 0 : size;
  }

  FILE* file_ = nullptr;
  const char* text_ = nullptr;
  long left_ = 0;
};

// Reads the source line by line through the scratch area's window and hands
// every section, key/value and malformed line to `on_line(kind, content,
// line_number)` (numbered from 1).
template <typename OnLine>
void ScanLines(Source& source, ini_read_t* ini, OnLine on_line) {
  ini->buf_len_rest = 0;
  LineScan scan;
  LineEndPair pair;
  int line_number = 1;
  for (;;) {
    const int room = kIniWindowBytes - ini->buf_len_rest;
    if (source.left() > 0 && room > 0) {
      const size_t want = static_cast<size_t>(source.left() < room ? source.left() : room);
      ini->buf_len_rest += static_cast<int32_t>(source.Read(ini->line_buffer + ini->buf_len_rest, want));
    }
    const bool last_chunk = (source.left() == 0);

    for (;;) {
      int consumed = 0;
      const ELineType kind = GetLine(ini->line_buffer, ini->buf_len_rest, last_chunk, scan, pair,
                                     ini->value_buffer, &consumed);
      ini->buf_len_rest -= consumed;
      std::memmove(ini->line_buffer, ini->line_buffer + consumed,
                   static_cast<size_t>(ini->buf_len_rest));
      if (kind == LINE_IDLE) break;
      if (kind != LINE_EMPTY) on_line(kind, ini->value_buffer, line_number);
      ++line_number;
      if (ini->buf_len_rest == 0) break;
    }
    if (last_chunk && ini->buf_len_rest == 0) break;
  }
}

// Collects warnings as text; whole lines only, the count goes on past the
// text's end.
class WarningLog {
 public:
  explicit WarningLog(ConfWarnings* out) : out_(out) {
    if (out_ != nullptr) {
      out_->count = 0;
      out_->text[0] = '\0';
    }
  }

  [[gnu::format(printf, 3, 4)]] void Add(int line_number, const char* format, ...) {
    if (out_ == nullptr) return;
    ++out_->count;
    if (full_) return;
    char sentence[512];
    int len = std::snprintf(sentence, sizeof sentence, "line %d: ", line_number);
    va_list args;
    va_start(args, format);
    len += std::vsnprintf(sentence + len, sizeof sentence - static_cast<size_t>(len), format, args);
    va_end(args);
    const size_t used = std::strlen(out_->text);
    if (len < 0 || static_cast<size_t>(len) + 2 > sizeof sentence ||
        used + static_cast<size_t>(len) + 2 > sizeof out_->text) {
      full_ = true;
      return;
    }
    std::memcpy(out_->text + used, sentence, static_cast<size_t>(len));
    out_->text[used + static_cast<size_t>(len)] = '\n';
    out_->text[used + static_cast<size_t>(len) + 1] = '\0';
  }

 private:
  ConfWarnings* out_;
  bool full_ = false;
};

// The caller's text in a warning: at most this many characters, marked when cut.
constexpr int kQuotedChars = 40;
struct Quoted {
  char text[kQuotedChars + 4];
  explicit Quoted(const char* from) {
    const size_t len = std::strlen(from);
    const size_t kept = len > static_cast<size_t>(kQuotedChars) ? static_cast<size_t>(kQuotedChars) : len;
    std::memcpy(text, from, kept);
    std::strcpy(text + kept, len > kept ? "..." : "");
  }
};

}  // namespace

int32_t LoadConfFileInit(char* p, int data_len) {
  if (p == nullptr || static_cast<unsigned>(data_len) < sizeof(ini_read_t)) return -1;
  new (p) ini_read_t{};
  return 0;
}

int32_t LoadConf(const ConfSource& source, char* p, FrontEndConf* front_end, ConfWarnings* warnings) {
  WarningLog log(warnings);
  if (p == nullptr) return -1;
  Source input(source);
  if (!input.readable()) return -1;

  ini_read_t* ini = std::launder(reinterpret_cast<ini_read_t*>(p));
  FrontEndConf settings = front_end != nullptr ? *front_end : FrontEndConf{};
  bool refused = false;
  int section = kNoSection;
  ScanLines(input, ini, [&](ELineType kind, char* content, int line) {
    if (kind == LINE_ERROR) {
      if (content[0] == '\0') {
        log.Add(line, "longer than %d characters; ignored", kIniMaxContent);
      } else {
        log.Add(line, "\"%s\" is neither a [section] nor a key = value line; ignored", Quoted(content).text);
      }
      return;
    }
    if (kind == LINE_SECTION) {
      const char* name = SectionName(content);
      section = FlushSection(name);
      if (section == kUnknownSection) log.Add(line, "unknown section [%s]; its lines are ignored", Quoted(name).text);
      return;
    }
    if (section == kUnknownSection) return;  // reported once, at the section line
    char* key = nullptr;
    char* value = nullptr;
    // A NUL byte ahead of the '=' hides it: the line is then neither kind.
    if (!GetKeyValue(content, &key, &value)) {
      log.Add(line, "\"%s\" is neither a [section] nor a key = value line; ignored", Quoted(content).text);
      return;
    }
    if (section == kNoSection) {
      log.Add(line, "\"%s\" comes before any section; ignored", Quoted(key).text);
      return;
    }
    const ValueVerdict verdict = section == kFrontEndSectionIndex ? FlushFrontEndValue(key, value, &settings)
                                                                  : FlushValue(key, value, ini->tKey[section]);
    const char* label = SectionLabel(section);
    switch (verdict) {
      case ValueVerdict::kStored:
        break;
      case ValueVerdict::kUnknownKey:
        log.Add(line, "unknown key \"%s\" in [%s]; ignored", Quoted(key).text, label);
        break;
      case ValueVerdict::kUnparsable:
        log.Add(line, "%s = \"%s\" in [%s] is not a whole decimal number; ignored", key, Quoted(value).text, label);
        break;
      case ValueVerdict::kCut:
        log.Add(line, "%s in [%s] is longer than %d characters; cut", key, label, kPathMaxChars);
        break;
      case ValueVerdict::kRefused:
        // Remembered, so that a later good value cannot hide it.
        log.Add(line, "%s = \"%s\" in [%s] is not one of its values", key, Quoted(value).text, label);
        refused = true;
        break;
    }
  });

  if (front_end != nullptr) *front_end = settings;
  return refused ? -2 : 0;
}

int32_t LoadConfFileProc(const char* filename, char* p, T_VornKey** pkey) {
  if (pkey == nullptr) return -1;
  *pkey = nullptr;
  if (filename == nullptr || p == nullptr) return -1;
  if (LoadConf(ConfSource{filename, nullptr}, p, nullptr, nullptr) == -1) return -1;
  *pkey = &std::launder(reinterpret_cast<ini_read_t*>(p))->tKey[0];
  return 0;
}

}  // namespace vorn
