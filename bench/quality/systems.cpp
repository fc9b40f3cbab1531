// Vorn driven through its public entry points, and the unprocessed baseline.
// The caller keeps vorn_mode outside 0..2 so that the switches it writes into
// the active fields stay as set on every frame (a mode would overwrite them).
#include "quality/systems.h"

#include <cmath>

#include "sim/front_end_param.h"
#include "sim/metrics.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn::bench {
namespace {

std::string Failure(const char* call, int code) { return std::string(call) + " returned " + std::to_string(code); }

}  // namespace

std::size_t WholeFrames(const sim::RenderedScene& rendered) {
  const std::size_t by_mics = rendered.mics.size() / (sim::kMics * sim::kFrame);
  const std::size_t by_reference = rendered.reference.size() / sim::kFrame;
  return by_mics < by_reference ? by_mics : by_reference;
}

int TableAzimuth(double azimuth_deg) {
  double wrapped = std::fmod(azimuth_deg, 360.0);
  if (wrapped < 0.0) wrapped += 360.0;
  return (static_cast<int>(std::lround(wrapped / 5.0)) * 5) % 360;
}

bool RunVorn(const VornConfig& config, const sim::Scene& scene, const sim::RenderedScene& rendered, SystemRun* run,
             std::string* error) {
  std::vector<unsigned char> state(kVornMinBuffSize);
  sim::Switches switches = config.switches;
  if (config.steer_to_talker) switches.azimuth = TableAzimuth(scene.azimuth_deg + config.steer_offset_deg);
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, switches.doa != 0 ? 1 : 0);
  if (const int code = VornInit(&pm, nullptr); code != 0) {
    *error = Failure("VornInit", code);
    return false;
  }
  if (const int code = VornSetProfile(&pm, config.profile); code != 0) {
    *error = Failure("VornSetProfile", code);
    return false;
  }
  if (const int code = VornSetAgcTarget(&pm, config.agc_target_dbfs); code != 0) {
    *error = Failure("VornSetAgcTarget", code);
    return false;
  }
  // A beam told which microphone is broken: the best the working ones can do.
  EnhancedBeamExclude(&EnhancedStateOf(VornStateOf(&pm))->modules.beam, config.exclude_mics);
  const std::size_t frames = WholeFrames(rendered);
  std::vector<short> mics(rendered.mics.begin(), rendered.mics.end());
  std::vector<short> reference(rendered.reference.begin(), rendered.reference.end());
  short order[3] = {0, 1, 2};
  short out[sim::kFrame];
  *run = SystemRun{};
  run->output.reserve(frames * sim::kFrame);
  for (std::size_t f = 0; f < frames; ++f) {
    if (config.doa_updates_on_speech)
      pm.doa_update_flag = f < rendered.truth.speech.size() && rendered.truth.speech[f] != 0 ? 1 : 0;
    const int code = VornProc(&pm, &mics[f * sim::kMics * sim::kFrame], &reference[f * sim::kFrame], out, order);
    // The chain reports a module's own status codes per frame; only the
    // parameter checks (1..10) mean the frame was not processed.
    if (code >= 1 && code <= 10) {
      *error = Failure("VornProc", code);
      return false;
    }
    run->output.insert(run->output.end(), out, out + sim::kFrame);
    run->speech.push_back(pm.vad_flag != 0 ? 1 : 0);
    std::uint32_t warnings = 0;
    VornGetWarnings(&pm, &warnings);
    run->warnings.push_back(warnings);
    if (switches.doa != 0) run->azimuth_deg.push_back(pm.azimuth);
  }
  if (config.utterance_doa) {
    const std::size_t begin = static_cast<std::size_t>(scene.talker_begin_s * sim::kSampleRate);
    std::size_t end = static_cast<std::size_t>(scene.talker_end_s * sim::kSampleRate);
    if (end > frames * sim::kFrame) end = frames * sim::kFrame;
    pm.doa_flag = 2;
    pm.doa_update_flag = 1;
    if (const int code = VornDoa(&pm, &mics[begin * sim::kMics], order, static_cast<int>(end - begin)); code != 0) {
      *error = Failure("VornDoa", code);
      return false;
    }
    run->utterance_azimuth_deg = pm.azimuth;
  }
  return true;
}

SystemRun RunUnprocessed(const sim::RenderedScene& rendered) {
  SystemRun run;
  const std::size_t frames = WholeFrames(rendered);
  run.output = sim::Channel(rendered.mics, 0);
  run.output.resize(frames * sim::kFrame);
  run.speech.assign(frames, 1);
  return run;
}

}  // namespace vorn::bench
