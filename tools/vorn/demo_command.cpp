// `vorn demo`: a guided first run. It simulates a device in a room (a talker
// at a known direction, diffuse noise, the loudspeaker playing a far-end
// talker that the microphones pick up as echo), processes the recording the
// way `vorn process` would with the reference as a fourth channel, and
// scores the result against the simulation's truth. The scene starts with
// the far end alone, so the echo canceller has time to converge before the
// talker joins; the talker then continues alone, which is the stretch the
// direction search is meant to find.
#include <cmath>
#include <algorithm>
#include <filesystem>

#include "audio_io/audio_input.h"
#include "audio_io/audio_output.h"
#include "commands.h"
#include "front_end.h"
#include "sim/metrics.h"
#include "sim/scene.h"

namespace vorn::cli {
namespace {

constexpr double kTalkerAzimuthDeg = 250.0;
constexpr double kRt60S = 0.35;
// Room noise arriving from everywhere, plus the microphones' own hiss.
constexpr double kDiffuseSnrDb = 25.0;
constexpr double kSensorSnrDb = 30.0;

// The first stretch holds the noise alone, to measure its reduction.
constexpr double kLeadShare = 0.15;

double Tenths(double seconds) { return std::round(seconds * 10.0) / 10.0; }

sim::Scene DemoScene(double seconds) {
  sim::Scene scene;
  scene.seed = 7;
  scene.duration_s = seconds;
  scene.room.rt60_s = kRt60S;
  scene.azimuth_deg = kTalkerAzimuthDeg;
  scene.elevation_deg = 10.0;
  scene.distance_m = 1.2;
  scene.talker_level_dbfs = -30.0;
  scene.talker_begin_s = Tenths(seconds * 0.35);
  scene.talker_end_s = seconds;
  scene.far_begin_s = Tenths(seconds * kLeadShare);
  scene.far_end_s = Tenths(seconds * 0.5);
  scene.echo_level_dbfs = -25.0;
  sim::NoiseSource diffuse;
  diffuse.kind = sim::NoiseKind::kDiffuse;
  diffuse.colour = sim::NoiseColour::kPink;
  diffuse.snr_db = kDiffuseSnrDb;
  scene.noises.push_back(diffuse);
  sim::NoiseSource hiss;
  hiss.kind = sim::NoiseKind::kSensor;
  hiss.snr_db = kSensorSnrDb;
  scene.noises.push_back(hiss);
  return scene;
}

bool WriteCapture(const std::string& path, const sim::RenderedScene& rendered, std::string* error) {
  const size_t samples = rendered.reference.size();
  std::vector<int16_t> four(4 * samples);
  for (size_t n = 0; n < samples; ++n) {
    for (int m = 0; m < kMics; ++m) four[4 * n + m] = rendered.mics[kMics * n + m];
    four[4 * n + 3] = rendered.reference[n];
  }
  AudioOutput out;
  return out.Open(path, 4, error) && out.Write(four.data(), samples, error) && out.Close(error);
}

bool ReadMono(const std::string& path, sim::Signal* signal, std::string* error) {
  AudioInput in;
  if (!in.Open(path, 1, error)) return false;
  std::vector<int16_t> block(4096);
  for (size_t got; (got = in.Read(block.data(), block.size())) > 0;)
    for (size_t i = 0; i < got; ++i) signal->push_back(block[i]);
  return true;
}

double MeanSquare(const sim::Signal& x, size_t begin, size_t end) {
  end = std::min(end, x.size());
  double sum = 0.0;
  for (size_t i = begin; i < end; ++i) sum += static_cast<double>(x[i]) * x[i];
  return end > begin ? sum / static_cast<double>(end - begin) : 0.0;
}

struct Reductions {
  double noise_db = 0.0;  // noise power in over out, where the noise is alone
  double echo_db = 0.0;   // echo return loss enhancement over the far end's single talk
};

// Scores a processed file against the scene. The output is first aligned
// to the microphones by its latency against the clean talker.
bool Measure(const sim::Scene& scene, const sim::RenderedScene& rendered, const std::string& output_path,
             Reductions* reductions, std::string* error) {
  sim::Signal output;
  if (!ReadMono(output_path, &output, error)) return false;
  const sim::Signal mic0 = sim::Channel(rendered.mics, 0);
  const sim::Enhancement enhancement = sim::ScoreEnhancement(mic0, output, rendered.target);
  const sim::Signal aligned = sim::Advance(output, enhancement.latency);
  reductions->echo_db = sim::ErleDb(mic0, aligned, rendered.truth);
  // The noise is measured in the second half of the lead, where it is alone;
  // the first half lets the suppressor learn it.
  const auto lead_end = static_cast<size_t>(scene.far_begin_s * 16000.0);
  reductions->noise_db =
      sim::PowerDb(MeanSquare(mic0, lead_end / 2, lead_end)) -
      sim::PowerDb(MeanSquare(aligned, lead_end / 2, lead_end));
  return true;
}

double Share(const std::vector<std::uint8_t>& labels) {
  size_t on = 0;
  for (auto label : labels) on += label;
  return labels.empty() ? 0.0 : static_cast<double>(on) / static_cast<double>(labels.size());
}

}  // namespace

int RunDemo(const DemoOptions& opt) {
  const sim::Scene scene = DemoScene(opt.seconds);
  sim::RenderedScene rendered;
  std::string error;
  if (!sim::RenderScene(scene, &rendered, &error)) {
    ReportError("demo: cannot simulate the scene: " + error);
    return kExitFailure;
  }
  std::error_code fs_error;
  std::filesystem::create_directories(opt.dir, fs_error);
  if (fs_error) {
    ReportError(opt.dir + ": " + fs_error.message());
    return kExitFailure;
  }
  const std::string input_path = (std::filesystem::path(opt.dir) / "input.wav").string();
  const std::string output_path = (std::filesystem::path(opt.dir) / "output.wav").string();
  if (!WriteCapture(input_path, rendered, &error)) {
    ReportError(error);
    return kExitFailure;
  }

  ProcessOptions process;
  process.input = input_path;
  process.output = output_path;
  process.profile = opt.profile;
  Summary summary;
  std::vector<int> flags;
  if (const int status = ProcessRecording(process, &summary, &flags); status != kExitOk) return status;
  Reductions in_output, before_gain;
  if (!Measure(scene, rendered, output_path, &in_output, &error)) {
    ReportError(error);
    return kExitFailure;
  }
  // The gain control lifts whatever it takes for speech, the echo's residue
  // included, so the stages before it are also measured on their own.
  const bool gain_on = summary.switches.agc != 0;
  if (gain_on) {
    ProcessOptions no_gain = process;
    no_gain.output = (std::filesystem::path(opt.dir) / ".output-without-gain-control.wav").string();
    no_gain.overrides.agc = 0;
    Summary unused_summary;
    std::vector<int> unused_flags;
    if (const int status = ProcessRecording(no_gain, &unused_summary, &unused_flags); status != kExitOk) return status;
    const bool measured = Measure(scene, rendered, no_gain.output, &before_gain, &error);
    std::filesystem::remove(no_gain.output, fs_error);
    if (!measured) {
      ReportError(error);
      return kExitFailure;
    }
  }
  const sim::Truth& truth = rendered.truth;
  std::vector<std::uint8_t> flagged(flags.begin(), flags.end());

  std::printf("vorn demo: %.1f s in a %.1f x %.1f x %.1f m room (RT60 %.2f s)\n", scene.duration_s,
              scene.room.size.x, scene.room.size.y, scene.room.size.z, scene.room.rt60_s);
  std::printf("  talker      azimuth %.0f deg, elevation %.0f deg, %.1f m away, talking %.1f-%.1f s\n",
              scene.azimuth_deg, scene.elevation_deg, scene.distance_m, scene.talker_begin_s, scene.talker_end_s);
  std::printf("  noise       diffuse pink noise at SNR %.0f dB, microphone hiss at %.0f dB\n", kDiffuseSnrDb,
              kSensorSnrDb);
  std::printf("  echo        loudspeaker playing %.1f-%.1f s, echo %.0f dBFS against the talker's %.0f dBFS\n",
              scene.far_begin_s, scene.far_end_s, scene.echo_level_dbfs, scene.talker_level_dbfs);
  const sim::Switches& s = summary.switches;
  std::printf("processed in mode %s, profile %s (agc %d, bf %d, doa %d, aec %d, ns %d, vad-mode %d), "
              "echo canceller fed with the reference, %.0fx real time\n",
              summary.mode.c_str(), summary.profile.c_str(), s.agc, s.bf, s.doa, s.aec, s.ns, s.vad_mode,
              summary.realtime_factor);
  if (summary.direction_deg)
    std::printf("  direction   %d deg found, %.0f deg true (error %.0f deg)\n", *summary.direction_deg,
                truth.azimuth_deg, sim::AzimuthErrorDeg(*summary.direction_deg, truth.azimuth_deg));
  else
    std::printf("  direction   not found (no speech detected), %.0f deg true\n", truth.azimuth_deg);
  std::printf("  speech      %.0f%% of frames flagged, talker in a syllable in %.0f%%\n", 100.0 * Share(flagged),
              100.0 * Share(truth.speech));
  const double lead_s = scene.far_begin_s;
  if (gain_on) {
    std::printf("  noise       reduced by %.1f dB before the gain control, %.1f dB in the output, where it is alone "
                "(%.1f-%.1f s)\n",
                before_gain.noise_db, in_output.noise_db, lead_s / 2, lead_s);
    std::printf("  echo        reduced by %.1f dB before the gain control, %.1f dB in the output, while the "
                "loudspeaker plays alone\n",
                before_gain.echo_db, in_output.echo_db);
  } else {
    std::printf("  noise       reduced by %.1f dB where it is alone (%.1f-%.1f s)\n", in_output.noise_db, lead_s / 2,
                lead_s);
    std::printf("  echo        reduced by %.1f dB while the loudspeaker plays alone\n", in_output.echo_db);
  }
  std::printf("  files       %s (3 microphones + reference), %s\n", input_path.c_str(), output_path.c_str());
  return kExitOk;
}

}  // namespace vorn::cli
