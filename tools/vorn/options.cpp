// Command-line parsing for `vorn`. Options follow the GNU habits users know:
// "--name value" or "--name=value", "-o FILE" or "-oFILE", "--" ends the
// options and a lone "-" names a standard stream. An option given twice with
// different values is refused rather than letting the last one win silently,
// since a script that says two things has a mistake in it.
#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <map>

#include "audio_io/audio_output.h"

namespace vorn::cli {
namespace {

constexpr const char* kModeNames[] = {"wakeup", "asr", "comm"};
constexpr const char* kProfileNames[] = {"classic", "enhanced"};

bool ParseInt(const std::string& text, int lo, int hi, int* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long parsed = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || parsed < lo || parsed > hi) return false;
  *value = static_cast<int>(parsed);
  return true;
}

bool ParseProfile(const std::string& text, int* profile, std::string* error) {
  for (int p = 0; p < 2; ++p) {
    if (text == kProfileNames[p]) {
      *profile = p;
      return true;
    }
  }
  *error = "invalid profile '" + text + "' (expected classic or enhanced)";
  return false;
}

bool ParseMode(const std::string& text, int* mode) {
  for (int m = 0; m < 3; ++m) {
    if (text == kModeNames[m]) {
      *mode = m;
      return true;
    }
  }
  return ParseInt(text, 0, 2, mode);
}

// The numeric switches: option name, field, accepted range.
struct SwitchOption {
  const char* name;
  std::optional<int> SwitchOverrides::*field;
  int lo, hi;
};
constexpr SwitchOption kSwitchOptions[] = {
    {"--agc", &SwitchOverrides::agc, 0, 2},         {"--bf", &SwitchOverrides::bf, 0, 7},
    {"--doa", &SwitchOverrides::doa, 0, 3},         {"--aec", &SwitchOverrides::aec, 0, 3},
    {"--ns", &SwitchOverrides::ns, 0, 2},           {"--azimuth", &SwitchOverrides::azimuth, 0, 359},
    {"--vad-mode", &SwitchOverrides::vad_mode, 1, 2},
};

// Options that take a value, and which those are.
bool TakesValue(const std::string& name, const std::string& command) {
  if (name == "--profile") return true;
  if (command == "demo") return name == "--seconds";
  if (command == "batch" && (name == "-j" || name == "--jobs" || name == "--summary")) return true;
  if (command == "batch" || command == "row") {
    if (name == "--mode" || name == "--config") return true;
    for (const SwitchOption& option : kSwitchOptions)
      if (name == option.name) return true;
    return false;
  }
  static const char* const kValued[] = {"-o",   "--output", "--ref",   "--mode",     "--config",
                                        "--vad", "--track", "--channels"};
  for (const char* valued : kValued)
    if (name == valued) return true;
  for (const SwitchOption& option : kSwitchOptions)
    if (name == option.name) return true;
  return false;
}

bool IsFlag(const std::string& name, const std::string& command) {
  return name == "--help" || name == "-h" || (command == "process" && name == "--json") ||
         (command == "batch" && name == "--resume");
}

struct RawOption {
  std::string name, value;
};

// Splits the words after the subcommand into options (with their values)
// and operands.
bool Tokenize(const std::vector<std::string>& words, const std::string& command, std::vector<RawOption>* options,
              std::vector<std::string>* operands, std::string* error) {
  bool options_ended = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (options_ended || word == "-" || word.empty() || word[0] != '-') {
      operands->push_back(word);
      continue;
    }
    if (word == "--") {
      options_ended = true;
      continue;
    }
    std::string name = word, value;
    bool has_value = false;
    if (word.rfind("--", 0) == 0) {
      const size_t eq = word.find('=');
      if (eq != std::string::npos) {
        name = word.substr(0, eq);
        value = word.substr(eq + 1);
        has_value = true;
      }
    } else if (word.size() > 2) {  // "-oFILE"
      name = word.substr(0, 2);
      value = word.substr(2);
      has_value = true;
    }
    if (IsFlag(name, command)) {
      if (has_value) {
        *error = "option '" + name + "' takes no value";
        return false;
      }
      options->push_back({name, ""});
      continue;
    }
    if (!TakesValue(name, command)) {
      *error = "unknown option '" + name + "'";
      return false;
    }
    if (!has_value) {
      if (i + 1 >= words.size()) {
        *error = "option '" + name + "' needs a value";
        return false;
      }
      value = words[++i];
    }
    options->push_back({name, value});
  }
  return true;
}

// Refuses the second occurrence of an option unless it repeats the value.
bool CheckRepeats(const std::vector<RawOption>& options, std::string* error) {
  std::map<std::string, std::string> seen;
  for (const RawOption& option : options) {
    const std::string key = option.name == "-o" ? "--output" : option.name == "-h" ? "--help" : option.name;
    const auto [it, fresh] = seen.emplace(key, option.value);
    if (!fresh && it->second != option.value) {
      *error = "conflicting options: " + key + " given as '" + it->second + "' and '" + option.value + "'";
      return false;
    }
  }
  return true;
}

bool ApplyProcessOption(const RawOption& option, ProcessOptions* process, std::string* error) {
  const std::string& name = option.name;
  const std::string& value = option.value;
  for (const SwitchOption& sw : kSwitchOptions) {
    if (name != sw.name) continue;
    int parsed = 0;
    if (!ParseInt(value, sw.lo, sw.hi, &parsed)) {
      *error = "invalid value '" + value + "' for " + name + " (expected " + std::to_string(sw.lo) + ".." +
               std::to_string(sw.hi) + ")";
      return false;
    }
    process->overrides.*sw.field = parsed;
    return true;
  }
  if (name == "--profile") return ParseProfile(value, &process->profile, error);
  if (name == "--mode") {
    if (!ParseMode(value, &process->mode)) {
      *error = "invalid mode '" + value + "' (expected wakeup, asr or comm)";
      return false;
    }
  } else if (name == "--channels") {
    int channels = 0;
    if (!ParseInt(value, 3, 4, &channels)) {
      *error = "invalid value '" + value + "' for --channels (expected 3 or 4)";
      return false;
    }
    process->channels = channels;
  } else if (name == "-o" || name == "--output") {
    process->output = value;
  } else if (name == "--ref") {
    process->ref_path = value;
  } else if (name == "--config") {
    process->config_path = value;
  } else if (name == "--vad") {
    process->vad_path = value;
  } else if (name == "--track") {
    process->track_path = value;
  } else if (name == "--json") {
    process->json = true;
  }
  return true;
}

bool EmptyValue(const std::vector<RawOption>& options, std::string* error, const std::string& command = "process") {
  for (const RawOption& option : options) {
    if (option.value.empty() && !IsFlag(option.name, command)) {
      *error = "option '" + option.name + "' needs a value";
      return true;
    }
  }
  return false;
}

bool ParseProcess(const std::vector<RawOption>& options, const std::vector<std::string>& operands,
                  ProcessOptions* process, std::string* error) {
  if (EmptyValue(options, error)) return false;
  for (const RawOption& option : options)
    if (!ApplyProcessOption(option, process, error)) return false;
  if (operands.empty()) {
    *error = "process: missing input file";
    return false;
  }
  if (operands.size() > 1) {
    *error = "process: one input only, got '" + operands[0] + "' and '" + operands[1] + "'";
    return false;
  }
  process->input = operands[0];
  if (process->output.empty()) {
    *error = "process: missing output file (-o FILE)";
    return false;
  }
  if (OutputKindOf(process->output) == OutputKind::kUnknown) {
    *error = "process: cannot tell the type of output '" + process->output +
             "' (name it .wav, .pcm or .raw, or - for standard output)";
    return false;
  }
  if (process->json && process->output == "-") {
    *error = "conflicting options: --json and -o - both write to standard output";
    return false;
  }
  if (process->output != "-" && process->output == process->input) {
    *error = "conflicting options: the output '" + process->output + "' would overwrite the input";
    return false;
  }
  if (process->ref_path == "-" && process->input == "-") {
    *error = "conflicting options: the input and --ref cannot both read standard input";
    return false;
  }
  if (!process->track_path.empty() && process->overrides.doa && *process->overrides.doa != 1) {
    *error = "conflicting options: --track needs per-frame tracking (--doa 1), not --doa " +
             std::to_string(*process->overrides.doa);
    return false;
  }
  return true;
}

bool ParseDemo(const std::vector<RawOption>& options, const std::vector<std::string>& operands, DemoOptions* demo,
               std::string* error) {
  for (const RawOption& option : options) {
    if (option.name == "--profile" && !ParseProfile(option.value, &demo->profile, error)) return false;
    if (option.name != "--seconds") continue;
    int seconds = 0;
    if (!ParseInt(option.value, 4, 120, &seconds)) {
      *error = "invalid value '" + option.value + "' for --seconds (expected 4..120)";
      return false;
    }
    demo->seconds = seconds;
  }
  if (operands.size() > 1) {
    *error = "demo: one directory only, got '" + operands[0] + "' and '" + operands[1] + "'";
    return false;
  }
  if (!operands.empty()) demo->dir = operands[0];
  return true;
}

bool ParseBatch(const std::vector<RawOption>& options, const std::vector<std::string>& operands, BatchOptions* batch,
                std::string* error) {
  if (EmptyValue(options, error, "batch")) return false;
  for (const RawOption& option : options) {
    if (option.name == "-j" || option.name == "--jobs") {
      if (!ParseInt(option.value, 1, 256, &batch->jobs)) {
        *error = "invalid value '" + option.value + "' for " + option.name + " (expected 1..256)";
        return false;
      }
    } else if (option.name == "--summary") {
      batch->summary_path = option.value;
    } else if (option.name == "--resume") {
      batch->resume = true;
    } else if (!ApplyProcessOption(option, &batch->defaults, error)) {
      return false;
    }
  }
  if (operands.size() != 1) {
    *error = operands.empty() ? "batch: missing manifest file"
                              : "batch: one manifest only, got '" + operands[0] + "' and '" + operands[1] + "'";
    return false;
  }
  batch->manifest = operands[0];
  if (batch->summary_path.empty()) batch->summary_path = batch->manifest + ".summary.csv";
  return true;
}

}  // namespace

bool ParseRowOptions(const std::string& text, ProcessOptions* process, std::string* error) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start < text.size()) {
    const size_t space = text.find(' ', start);
    const size_t end = space == std::string::npos ? text.size() : space;
    if (end > start) words.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  std::vector<RawOption> options;
  std::vector<std::string> operands;
  if (!Tokenize(words, "row", &options, &operands, error) || !CheckRepeats(options, error)) return false;
  if (!operands.empty()) {
    *error = "unexpected word '" + operands[0] + "' among the options";
    return false;
  }
  if (EmptyValue(options, error)) return false;
  for (const RawOption& option : options)
    if (!ApplyProcessOption(option, process, error)) return false;
  return true;
}

const char* ModeName(int mode) { return mode >= 0 && mode < 3 ? kModeNames[mode] : "?"; }

const char* ProfileName(int profile) { return profile >= 0 && profile < 2 ? kProfileNames[profile] : "?"; }

bool ParseCommandLine(const std::vector<std::string>& args, ParsedCommand* parsed, std::string* error) {
  if (args.empty()) {
    *error = "missing command (process, batch or demo)";
    return false;
  }
  const std::string& first = args[0];
  if (first == "--help" || first == "-h" || first == "help") {
    parsed->command = Command::kHelp;
    if (first == "help" && args.size() > 1) parsed->help_topic = args[1];
    return true;
  }
  if (first == "--version") {
    parsed->command = Command::kVersion;
    return true;
  }
  if (first != "process" && first != "demo" && first != "batch") {
    *error = first[0] == '-' ? "unknown option '" + first + "'" : "unknown command '" + first + "'";
    return false;
  }
  std::vector<RawOption> options;
  std::vector<std::string> operands;
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (!Tokenize(rest, first, &options, &operands, error)) return false;
  for (const RawOption& option : options) {
    if (option.name == "--help" || option.name == "-h") {
      parsed->command = Command::kHelp;
      parsed->help_topic = first;
      return true;
    }
  }
  if (!CheckRepeats(options, error)) return false;
  if (first == "process") {
    parsed->command = Command::kProcess;
    return ParseProcess(options, operands, &parsed->process, error);
  }
  if (first == "batch") {
    parsed->command = Command::kBatch;
    return ParseBatch(options, operands, &parsed->batch, error);
  }
  parsed->command = Command::kDemo;
  return ParseDemo(options, operands, &parsed->demo, error);
}

}  // namespace vorn::cli
