// Driving the library with a mode and per-switch overrides.
//
// Every init rebuilds the per-mode switch sets (the built-in ones, or the
// configuration file's, which replace them wholesale), and each frame copies
// the selected mode's set into the active fields. Overrides must therefore
// be in force at init, where the echo canceller takes its post-filter
// selector, and stay in force on every frame. So the tool initialises twice:
// once to learn the mode's switches (from the file when there is one), then,
// with the mode set out of range so that the active fields are judged as the
// tool filled them, with the overridden switches; afterwards the mode's set
// is made to hold the same switches and the mode is selected again, so every
// frame runs with exactly what init saw. The filter file path of mode 0,
// which init reads, survives the second init because defaults never touch it.
#include "front_end.h"

#include <cstring>
#include <sstream>

namespace vorn::cli {
namespace {

// The library refuses less than this, although its size query reports less.
constexpr int kStateBytes = VORN_MIN_BUFF_SIZE;

const char* CheckFailure(int code) {
  switch (code) {
    case 1: return "missing state buffer";
    case 2: return "state buffer too small";
    case 3: return "the library was built with another parameter layout";
    case 4: return "agc must be 0..2";
    case 5: return "aec must be 0..3";
    case 6: return "doa must be 0..3";
    case 7: return "ns must be 0..2";
    case 8: return "bf must be 0..7";
    case 9: return "azimuth must be 0..359, and 0, 60 or 300 with bf 3 or 4";
    case 10: return "vad-mode must be 1 or 2";
    case 100: return "the gain control or the echo canceller failed to initialise";
    default: return VornErrorString(code);
  }
}

}  // namespace

FrontEnd::FrontEnd() : state_(kStateBytes) {
  pm_.p_data = state_.data();
  pm_.buff_size = kStateBytes;
  pm_.param_size = static_cast<int32_t>(sizeof(T_VornParam));
  pm_.doa_update_flag = 1;  // let the suppressor's noise estimate steer direction finding
}

std::string FrontEnd::Explain(int code, const char* stage) const {
  const char* text = CheckFailure(code);
  std::string message = std::string(stage) + " failed (code " + std::to_string(code) + ")";
  if (text != nullptr) message += ": " + std::string(text);
  return message;
}

bool FrontEnd::LoadModes(int mode, const std::string& config_path, std::string* error) {
  mode_ = mode;
  config_path_ = config_path;
  pm_.vorn_mode = mode;
  const int code = VornInit(&pm_, config_path.empty() ? nullptr : config_path.c_str());
  int32_t count = 0;
  const char* text = nullptr;
  config_warnings_.clear();
  if (!config_path.empty() && VornGetConfigWarnings(&pm_, &count, &text) == 0) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) config_warnings_.push_back(line);
    const auto shown = static_cast<int32_t>(config_warnings_.size());
    if (count > shown) config_warnings_.push_back("and " + std::to_string(count - shown) + " more");
  }
  if (code == -1) {
    *error = config_path + ": cannot load the configuration file";
    return false;
  }
  // Any other failure judged the mode's switches before the overrides;
  // Start() judges the final ones. The level control's target is all else
  // the file sets; it is read back here because Start() initialises again.
  if (code == 0) VornGetAgcTarget(&pm_, &agc_target_dbfs_);
  return true;
}

sim::Switches FrontEnd::ModeSwitches() const {
  return sim::SwitchesOf(pm_.in_argv[mode_]);
}

bool FrontEnd::Start(const sim::Switches& s, int profile, std::string* error) {
  pm_.vorn_mode = -1;
  sim::CopySwitches(s, &pm_);
  const int code = VornInit(&pm_, nullptr);
  if (code != 0) {
    std::string where = "mode " + std::string(mode_ == 0 ? "wakeup" : mode_ == 1 ? "asr" : "comm");
    if (!config_path_.empty()) where += " of " + config_path_;
    *error = Explain(code, ("initialisation with " + where).c_str());
    return false;
  }
  sim::CopySwitches(s, &pm_.in_argv[mode_]);
  pm_.vorn_mode = mode_;
  VornSetAgcTarget(&pm_, agc_target_dbfs_);
  const int profile_code = VornSetProfile(&pm_, profile);
  if (profile_code != 0) {
    *error = Explain(profile_code, "selecting the processing profile");
    return false;
  }
  return true;
}

int FrontEnd::Process(const int16_t* mics, const int16_t* reference, int16_t* out) {
  return VornProc(&pm_, mics, reference, out, mic_order_);
}

uint32_t FrontEnd::warnings() const {
  uint32_t warnings = 0;
  return VornGetWarnings(&pm_, &warnings) == 0 ? warnings : 0u;
}

double FrontEnd::DirectionConfidence() const {
  float confidence = 0.0f;
  return VornGetDoaConfidence(&pm_, &confidence) == 0 ? confidence : 0.0;
}

bool FrontEnd::ReferenceIsMicrophone() const {
  float copy = 0.0f;
  return VornGetReferenceIsMicrophone(&pm_, &copy) == 0 && copy != 0.0f;
}

int FrontEnd::UtteranceDirection(int doa_flag, const int16_t* mics, int samples_per_channel, int* azimuth_deg) {
  // The search reads the active switches as they stand and leaves its result
  // in the azimuth field, which the next frame would pass on; both are put
  // back so that asking for a direction never changes the processing.
  const int32_t saved_doa = pm_.doa_flag;
  const int32_t saved_azimuth = pm_.azimuth;
  pm_.doa_flag = doa_flag;
  const int code = VornDoa(&pm_, mics, mic_order_, samples_per_channel);
  *azimuth_deg = pm_.azimuth;
  pm_.doa_flag = saved_doa;
  pm_.azimuth = saved_azimuth;
  return code;
}

}  // namespace vorn::cli
