// vorn_make_scene: renders one bench scene into a directory.
//
//   vorn_make_scene OUT_DIR [--seed N] [--duration S] [--rt60 S] [--room X,Y,Z]
//       [--azimuth DEG] [--elevation DEG] [--distance M] [--talker-dbfs DB]
//       [--talk BEGIN,END] [--far BEGIN,END] [--echo-dbfs DB] [--clip FRACTION]
//       [--echo-delay MS] [--noise KIND[:COLOUR]=SNR_DB]... [--interferer AZ,EL,DIST]
//       [--talker-wav FILE] [--far-wav FILE]
//
// KIND is sensor, diffuse, babble or interferer; COLOUR white, pink, speech or
// speech-shaped.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "sim/scene.h"
#include "scene/scene_io.h"

namespace {

using vorn::sim::NoiseColour;
using vorn::sim::NoiseKind;
using vorn::sim::NoiseSource;

std::vector<double> Numbers(const std::string& text) {
  std::vector<double> values;
  std::size_t at = 0;
  while (at <= text.size()) {
    const std::size_t comma = text.find(',', at);
    values.push_back(std::atof(text.substr(at, comma - at).c_str()));
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  return values;
}

// KIND[:COLOUR]=SNR_DB
bool ParseNoise(const std::string& text, NoiseSource* noise) {
  const std::size_t eq = text.find('=');
  if (eq == std::string::npos) return false;
  const std::string name = text.substr(0, eq);
  const std::size_t colon = name.find(':');
  const std::string kind = name.substr(0, colon);
  const std::string colour = colon == std::string::npos ? "white" : name.substr(colon + 1);
  if (kind == "sensor") noise->kind = NoiseKind::kSensor;
  else if (kind == "diffuse") noise->kind = NoiseKind::kDiffuse;
  else if (kind == "babble") noise->kind = NoiseKind::kBabble;
  else if (kind == "interferer") noise->kind = NoiseKind::kInterferer;
  else return false;
  if (colour == "white") noise->colour = NoiseColour::kWhite;
  else if (colour == "pink") noise->colour = NoiseColour::kPink;
  else if (colour == "speech") noise->colour = NoiseColour::kSpeech;
  else if (colour == "speech-shaped") noise->colour = NoiseColour::kSpeechShaped;
  else return false;
  noise->snr_db = std::atof(text.c_str() + eq + 1);
  return true;
}

int Usage() {
  std::fprintf(stderr,
               "usage: vorn_make_scene OUT_DIR [--seed N] [--duration S] [--rt60 S] [--room X,Y,Z]\n"
               "  [--azimuth DEG] [--elevation DEG] [--distance M] [--talker-dbfs DB] [--talk BEGIN,END]\n"
               "  [--far BEGIN,END] [--echo-dbfs DB] [--clip FRACTION] [--echo-delay MS]\n"
               "  [--noise KIND[:COLOUR]=SNR_DB]... [--interferer AZ,EL,DIST] [--talker-wav FILE] [--far-wav FILE]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') return Usage();
  const std::string out_dir = argv[1];
  vorn::sim::Scene scene;
  std::vector<double> interferer;
  std::string error;
  for (int i = 2; i < argc; ++i) {
    const std::string option = argv[i];
    if (i + 1 >= argc) return Usage();
    const std::string value = argv[++i];
    const std::vector<double> v = Numbers(value);
    if (option == "--seed") scene.seed = static_cast<std::uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
    else if (option == "--duration") scene.duration_s = v[0];
    else if (option == "--rt60") scene.room.rt60_s = v[0];
    else if (option == "--room" && v.size() == 3) scene.room.size = {v[0], v[1], v[2]};
    else if (option == "--azimuth") scene.azimuth_deg = v[0];
    else if (option == "--elevation") scene.elevation_deg = v[0];
    else if (option == "--distance") scene.distance_m = v[0];
    else if (option == "--talker-dbfs") scene.talker_level_dbfs = v[0];
    else if (option == "--talk" && v.size() == 2) scene.talker_begin_s = v[0], scene.talker_end_s = v[1];
    else if (option == "--far" && v.size() == 2) scene.far_begin_s = v[0], scene.far_end_s = v[1];
    else if (option == "--echo-dbfs") scene.echo_level_dbfs = v[0];
    else if (option == "--clip") scene.clip_fraction = v[0];
    else if (option == "--echo-delay") scene.echo_delay_ms = v[0];
    else if (option == "--interferer" && v.size() == 3) interferer = v;
    else if (option == "--noise") {
      NoiseSource noise;
      if (!ParseNoise(value, &noise)) return Usage();
      scene.noises.push_back(noise);
    } else if (option == "--talker-wav" || option == "--far-wav") {
      vorn::sim::Signal* source = option == "--talker-wav" ? &scene.talker : &scene.far_end;
      if (!vorn::bench::ReadSourceWav(value, source, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
      }
    } else {
      return Usage();
    }
  }
  for (NoiseSource& noise : scene.noises) {
    if (noise.kind != NoiseKind::kInterferer || interferer.empty()) continue;
    noise.azimuth_deg = interferer[0];
    noise.elevation_deg = interferer[1];
    noise.distance_m = interferer[2];
  }
  vorn::sim::RenderedScene rendered;
  if (!vorn::sim::RenderScene(scene, &rendered, &error) ||
      !vorn::bench::WriteScene(out_dir, scene, rendered, &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::printf("%s: %zu samples, azimuth %g\n", out_dir.c_str(), rendered.reference.size(), scene.azimuth_deg);
  return 0;
}
