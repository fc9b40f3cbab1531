// Scene files. The truth is JSON so that scripts plotting the bench's results
// read it without a parser of ours; it is written by hand because it is flat.
#include "scene/scene_io.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "audio_io/wav_file.h"

namespace vorn::bench {
namespace {

std::string Labels(const std::vector<std::uint8_t>& labels) {
  std::string s = "[";
  for (std::size_t f = 0; f < labels.size(); ++f) {
    if (f) s += ',';
    s += static_cast<char>('0' + labels[f]);
  }
  return s + "]";
}

std::string Spans(const std::vector<sim::Span>& spans) {
  std::ostringstream s;
  s << "[";
  for (std::size_t k = 0; k < spans.size(); ++k) s << (k ? ",[" : "[") << spans[k].begin << "," << spans[k].end << "]";
  s << "]";
  return s.str();
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", v);
  return text;
}

const char* NoiseName(sim::NoiseKind kind) {
  switch (kind) {
    case sim::NoiseKind::kSensor: return "sensor";
    case sim::NoiseKind::kDiffuse: return "diffuse";
    case sim::NoiseKind::kBabble: return "babble";
    case sim::NoiseKind::kInterferer: return "interferer";
  }
  return "";
}

const char* ColourName(sim::NoiseColour colour) {
  switch (colour) {
    case sim::NoiseColour::kWhite: return "white";
    case sim::NoiseColour::kPink: return "pink";
    case sim::NoiseColour::kSpeech: return "speech";
    case sim::NoiseColour::kSpeechShaped: return "speech-shaped";
  }
  return "";
}

}  // namespace

std::string TruthJson(const sim::Scene& scene, const sim::Truth& truth) {
  std::ostringstream j;
  j << "{\n";
  j << "  \"sample_rate\": " << sim::kSampleRate << ",\n  \"frame_samples\": " << sim::kFrame << ",\n";
  j << "  \"seed\": " << scene.seed << ",\n";
  j << "  \"room_m\": [" << Number(scene.room.size.x) << "," << Number(scene.room.size.y) << ","
    << Number(scene.room.size.z) << "],\n";
  j << "  \"rt60_s\": " << Number(scene.room.rt60_s) << ",\n";
  j << "  \"array_centre_m\": [" << Number(scene.array_centre.x) << "," << Number(scene.array_centre.y) << ","
    << Number(scene.array_centre.z) << "],\n";
  j << "  \"azimuth_deg\": " << Number(truth.azimuth_deg) << ",\n";
  j << "  \"elevation_deg\": " << Number(truth.elevation_deg) << ",\n";
  j << "  \"distance_m\": " << Number(truth.distance_m) << ",\n";
  j << "  \"talker_delay_samples\": " << truth.talker_delay << ",\n";
  j << "  \"talker_level_dbfs\": " << Number(scene.talker_level_dbfs) << ",\n";
  j << "  \"far_level_dbfs\": " << Number(scene.far_level_dbfs) << ",\n";
  j << "  \"echo_level_dbfs\": " << Number(scene.echo_level_dbfs) << ",\n";
  j << "  \"clip_fraction\": " << Number(scene.clip_fraction) << ",\n";
  j << "  \"noises\": [";
  for (std::size_t k = 0; k < scene.noises.size(); ++k) {
    const sim::NoiseSource& n = scene.noises[k];
    const sim::NoiseColour colour = n.kind == sim::NoiseKind::kBabble ? sim::NoiseColour::kSpeech : n.colour;
    j << (k ? ", " : "") << "{\"kind\": \"" << NoiseName(n.kind) << "\", \"colour\": \"" << ColourName(colour)
      << "\", \"snr_db\": " << Number(n.snr_db);
    if (n.kind == sim::NoiseKind::kBabble) j << ", \"talkers\": " << n.talkers;
    if (n.kind == sim::NoiseKind::kInterferer)
      j << ", \"azimuth_deg\": " << Number(n.azimuth_deg) << ", \"elevation_deg\": " << Number(n.elevation_deg)
        << ", \"distance_m\": " << Number(n.distance_m);
    j << "}";
  }
  j << "],\n";
  j << "  \"speech\": " << Labels(truth.speech) << ",\n";
  j << "  \"far_end\": " << Labels(truth.far_end) << ",\n";
  j << "  \"far_single_talk\": " << Spans(truth.far_single_talk) << ",\n";
  j << "  \"near_single_talk\": " << Spans(truth.near_single_talk) << ",\n";
  j << "  \"double_talk\": " << Spans(truth.double_talk) << "\n";
  j << "}\n";
  return j.str();
}

bool WriteScene(const std::string& dir, const sim::Scene& scene, const sim::RenderedScene& rendered,
                std::string* error) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  const auto path = [&](const char* name) { return (std::filesystem::path(dir) / name).string(); };
  const std::string truth = TruthJson(scene, rendered.truth);
  const bool ok = WriteWavFile(path("mics.wav"), rendered.mics, sim::kMics) &&
                  WriteWavFile(path("reference.wav"), rendered.reference, 1) &&
                  WriteWavFile(path("target.wav"), sim::ToPcm(rendered.target), 1) &&
                  static_cast<bool>(std::ofstream(path("truth.json"), std::ios::binary) << truth);
  if (!ok && error) *error = "cannot write the scene into " + dir;
  return ok;
}

bool ReadSourceWav(const std::string& path, sim::Signal* out, std::string* error) {
  WavAudio wav;
  std::string problem;
  if (!ReadWavFile(path, &wav))
    problem = "not a PCM WAV file: " + path;
  else if (wav.channels != 1)
    problem = "a source must be mono: " + path;
  else if (wav.sample_rate != sim::kSampleRate)
    problem = "a source must be sampled at 16000 Hz: " + path;
  if (!problem.empty()) {
    if (error) *error = problem;
    return false;
  }
  out->assign(wav.samples.begin(), wav.samples.end());
  return true;
}

}  // namespace vorn::bench
