// The `vorn` command line: subcommands, options and their checks. Parsing
// only; nothing here touches files or the library.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorn::cli {

// Overrides of one mode's switches; unset fields keep the mode's value.
struct SwitchOverrides {
  std::optional<int> agc, bf, doa, aec, ns, azimuth, vad_mode;
};

// Processing profiles as the library numbers them (VORN_PROFILE_CLASSIC,
// VORN_PROFILE_ENHANCED); the tool runs the enhanced one unless told.
constexpr int kProfileClassic = 0;
constexpr int kProfileEnhanced = 1;

struct ProcessOptions {
  std::string input;   // "-" is standard input
  std::string output;  // "-" is standard output (raw samples)
  std::string ref_path;
  std::string config_path;
  std::string vad_path;
  std::string track_path;
  int mode = 0;                   // 0 wake-up, 1 recognition, 2 communication
  std::optional<int> channels;    // channel count of raw input (3 or 4)
  SwitchOverrides overrides;
  int profile = kProfileEnhanced;
  bool json = false;
  bool progress = true;  // the bar on a terminal; off when several files run at once
};

// `vorn batch`: the manifest's rows, each processed as `vorn process` would,
// with `defaults` giving what a row does not say.
struct BatchOptions {
  std::string manifest;
  std::string summary_path;  // .json for JSON, anything else CSV
  int jobs = 1;
  bool resume = false;
  ProcessOptions defaults;
};

struct DemoOptions {
  std::string dir = "vorn-demo";
  double seconds = 10.0;  // length of the simulated scene
  int profile = kProfileEnhanced;
};

enum class Command { kHelp, kVersion, kProcess, kBatch, kDemo };

struct ParsedCommand {
  Command command = Command::kHelp;
  std::string help_topic;  // "", "process" or "demo"
  ProcessOptions process;
  DemoOptions demo;
  BatchOptions batch;
};

// Exit statuses: a command line that cannot be understood is a usage error,
// distinct from a file or processing failure, as shells and scripts expect.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Parses argv[1..]. On a usage error returns false with the message (without
// the program name) in *error.
bool ParseCommandLine(const std::vector<std::string>& args, ParsedCommand* parsed, std::string* error);

// A manifest row's options ("--mode comm --ns 2"): the switches, --mode,
// --profile and --config, applied over `process`.
bool ParseRowOptions(const std::string& text, ProcessOptions* process, std::string* error);

// Mode names as the user types them, indexed by mode number.
const char* ModeName(int mode);
// Profile names as the user types them, indexed by profile number.
const char* ProfileName(int profile);

// Help texts.
std::string MainHelp();
std::string ProcessHelp();
std::string BatchHelp();
std::string DemoHelp();

}  // namespace vorn::cli
