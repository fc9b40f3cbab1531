// Scenes of the direction bench. Talkers sit at azimuths and elevations
// that change from cell to cell so that no method is flattered by one lucky
// geometry; the interferer stands well away from the talker, and the walking
// talker keeps its distance and height while it goes round the array.
#include "quality/direction_grid.h"

#include <cmath>
#include <cstdio>

#include "sim/metrics.h"
#include "sim/signal_ops.h"

namespace vorn::bench {
namespace {

using namespace vorn::sim;

constexpr double kRt60s[] = {0.2, 0.4, 0.6, 0.8};
constexpr double kSnrsDb[] = {0.0, 5.0, 10.0, 20.0};
constexpr DirectionNoise kNoises[] = {DirectionNoise::kDiffuse, DirectionNoise::kBabble, DirectionNoise::kInterferer};
// Seven heights, a count prime to the grid's other dimensions.
constexpr double kElevationsDeg[] = {-30.0, -15.0, 0.0, 10.0, 20.0, 30.0, 40.0};
constexpr double kWalkStepDeg = 3.0;
constexpr double kSensorSnrDb = 40.0;

Scene Talking(double rt60_s, std::uint32_t seed) {
  Scene scene;
  scene.room.rt60_s = rt60_s;
  scene.seed = seed;
  scene.far_begin_s = scene.far_end_s = 0.0;
  scene.talker_begin_s = 2.0;
  scene.talker_end_s = 12.0;
  // Direction finding lives on the band above 1 kHz, where this small
  // array's phase differences grow: the voices have speech's spectrum there.
  scene.speech_spectrum_voices = true;
  scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, kSensorSnrDb});
  return scene;
}

NoiseSource Noise(DirectionNoise kind, double snr_db, double talker_azimuth_deg, int cell) {
  NoiseSource noise;
  noise.snr_db = snr_db;
  switch (kind) {
    case DirectionNoise::kDiffuse:
      noise.kind = NoiseKind::kDiffuse;
      noise.colour = NoiseColour::kPink;
      break;
    case DirectionNoise::kBabble:
      noise.kind = NoiseKind::kBabble;
      noise.talkers = 6;
      break;
    case DirectionNoise::kInterferer:
      // A fan or a television's hiss across the room, 100-160 degrees from
      // the talker.
      noise.kind = NoiseKind::kInterferer;
      noise.colour = NoiseColour::kPink;
      noise.azimuth_deg = std::fmod(talker_azimuth_deg + 100.0 + 30.0 * (cell % 3), 360.0);
      noise.elevation_deg = 0.0;
      noise.distance_m = 1.6;
      break;
  }
  return noise;
}

double Wrap360(double deg) {
  const double w = std::fmod(deg, 360.0);
  return w < 0.0 ? w + 360.0 : w;
}

// The walking talker's azimuth at time t (seconds on the source's time line).
double WalkAzimuth(const DirectionScene& cell, double t) {
  if (cell.walk_deg == 0.0 || t <= cell.walk_begin_s) return cell.scene.azimuth_deg;
  if (t >= cell.walk_end_s) return cell.scene.azimuth_deg + cell.walk_deg;
  return cell.scene.azimuth_deg + cell.walk_deg * (t - cell.walk_begin_s) / (cell.walk_end_s - cell.walk_begin_s);
}

// Adds the walking talker to `out`, which holds the scene's noise alone.
bool AddWalkingTalker(const DirectionScene& cell, DirectionRender* out, std::string* error) {
  const Scene& scene = cell.scene;
  const std::size_t n = out->rendered.mics.size() / kMics;
  const std::size_t begin = static_cast<std::size_t>(std::llround(scene.talker_begin_s * kSampleRate));
  const std::size_t end = static_cast<std::size_t>(std::llround(scene.talker_end_s * kSampleRate));
  sim::SpeechLikeOptions voice;
  voice.f0_hz = 130.0;
  voice.speech_spectrum = scene.speech_spectrum_voices;
  const sim::SpeechLike source = sim::MakeSpeechLike(end - begin, scene.seed * 2654435761u + 7u, voice);

  // Positions every few degrees along the walk, each owning a triangular
  // share of the source around its moment; the shares sum to one.
  const int steps = static_cast<int>(std::lround(cell.walk_deg / kWalkStepDeg));
  std::vector<double> at_s(static_cast<std::size_t>(steps) + 1);
  for (int j = 0; j <= steps; ++j)
    at_s[static_cast<std::size_t>(j)] = cell.walk_begin_s + (cell.walk_end_s - cell.walk_begin_s) * j / steps;
  ThreeMics talker{Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)};
  std::size_t direct_delay = 0;
  for (int j = 0; j <= steps; ++j) {
    const double azimuth = scene.azimuth_deg + kWalkStepDeg * j;
    const Point where = PointToward(scene.array_centre, azimuth, scene.elevation_deg, scene.distance_m);
    if (!InsideRoom(scene.room.size, where, 0.05)) {
      *error = "walking talker leaves the room";
      return false;
    }
    const double prev = j > 0 ? at_s[static_cast<std::size_t>(j - 1)] : -1e9;
    const double here = at_s[static_cast<std::size_t>(j)];
    const double next = j < steps ? at_s[static_cast<std::size_t>(j + 1)] : 1e9;
    const std::size_t from = static_cast<std::size_t>(std::max(0.0, prev * kSampleRate));
    const std::size_t to = static_cast<std::size_t>(std::min(static_cast<double>(n), next * kSampleRate));
    std::vector<std::vector<double>> responses;
    for (int m = 0; m < kMics; ++m)
      responses.push_back(RoomImpulseResponse(scene.room, where, MicPosition(scene.array_centre, m)));
    if (j == 0)
      direct_delay = static_cast<std::size_t>(std::llround(Distance(where, MicPosition(scene.array_centre, 0)) *
                                                           kSampleRate / kSpeedOfSound)) +
                     kInterpHalfWidth;
    Signal share(to - from + responses[0].size(), 0.0f);
    for (std::size_t i = from; i < to; ++i) {
      if (i < begin || i >= end) continue;
      const double t = static_cast<double>(i) / kSampleRate;
      double weight = 1.0;
      if (t < here && j > 0) weight = (t - prev) / (here - prev);
      if (t > here && j < steps) weight = (next - t) / (next - here);
      share[i - from] = static_cast<float>(source.samples[i - begin] * weight);
    }
    const std::vector<Signal> through = ConvolveEach(share, responses);
    for (int m = 0; m < kMics; ++m)
      for (std::size_t i = 0; i < through[static_cast<std::size_t>(m)].size() && from + i < n; ++i)
        talker[static_cast<std::size_t>(m)][from + i] += through[static_cast<std::size_t>(m)][i];
  }

  std::vector<std::uint8_t> active(n, 0);
  for (std::size_t i = begin; i < end && i + direct_delay < n; ++i) active[i + direct_delay] = source.active[i - begin];
  const double ms = sim::MaskedMeanSquare(talker[0], active, 1);
  const double want = std::pow(32768.0 * std::pow(10.0, scene.talker_level_dbfs / 20.0), 2.0);
  const double gain = ms > 0.0 ? std::sqrt(want / ms) : 0.0;
  std::vector<std::int16_t>& mics = out->rendered.mics;
  for (std::size_t i = 0; i < n; ++i)
    for (int m = 0; m < kMics; ++m) {
      const double v = mics[kMics * i + static_cast<std::size_t>(m)] + gain * talker[static_cast<std::size_t>(m)][i];
      mics[kMics * i + static_cast<std::size_t>(m)] =
          static_cast<std::int16_t>(std::lround(std::max(-32768.0, std::min(32767.0, v))));
    }
  out->rendered.target = talker[0];
  for (float& v : out->rendered.target) v = static_cast<float>(v * gain);
  out->rendered.truth.speech = sim::FrameLabels(active);
  out->rendered.truth.talker_delay = direct_delay;
  return true;
}

}  // namespace

const char* NoiseName(DirectionNoise noise) {
  switch (noise) {
    case DirectionNoise::kDiffuse:
      return "diffuse";
    case DirectionNoise::kBabble:
      return "babble";
    case DirectionNoise::kInterferer:
      return "interferer";
  }
  return "?";
}

constexpr DirectionDrawRecipe kTunedDraw{500u, 700u, 17.0, 41.0, 0, 30.0};
constexpr DirectionDrawRecipe kFreshDraw{9100u, 9700u, 53.0, 67.0, 3, 75.0};

DirectionDrawRecipe RecipeOf(DirectionDraw draw) { return draw == DirectionDraw::kFresh ? kFreshDraw : kTunedDraw; }

bool ParseDrawRecipe(const std::string& text, DirectionDrawRecipe* recipe, std::string* error) {
  long long still = 0, walk = 0;
  double first = 0.0, step = 0.0, walk_first = 0.0;
  int height = 0, used = 0;
  const bool read = std::sscanf(text.c_str(), "%lld,%lld,%lf,%lf,%d,%lf%n", &still, &walk, &first, &step, &height,
                                &walk_first, &used) == 6 &&
                    static_cast<std::size_t>(used) == text.size();
  constexpr long long kMostSeed = 0xFFFFFFFFll;
  const bool seeds = still >= 0 && still <= kMostSeed && walk >= 0 && walk <= kMostSeed;
  if (!read || !seeds || height < 0 || height >= 7 || !std::isfinite(first) || !std::isfinite(step) ||
      !std::isfinite(walk_first)) {
    *error = "a draw is STILL_SEED,WALK_SEED,FIRST_DEG,STEP_DEG,FIRST_HEIGHT,WALK_FIRST_DEG (height 0-6), not \"" +
             text + "\"";
    return false;
  }
  *recipe = {static_cast<std::uint32_t>(still), static_cast<std::uint32_t>(walk), first, step, height, walk_first};
  return true;
}

std::vector<DirectionScene> DirectionScenes(DirectionDraw which) { return DirectionScenes(RecipeOf(which)); }

std::vector<DirectionScene> DirectionScenes(const DirectionDrawRecipe& draw) {
  std::vector<DirectionScene> grid;
  int cell = 0;
  for (double rt60 : kRt60s) {
    for (DirectionNoise noise : kNoises) {
      for (double snr : kSnrsDb) {
        DirectionScene s;
        char name[64];
        std::snprintf(name, sizeof name, "rt%.1f_%s_snr%.0f", rt60, NoiseName(noise), snr);
        s.name = name;
        s.noise = noise;
        s.snr_db = snr;
        s.scene = Talking(rt60, draw.still_seed + static_cast<std::uint32_t>(cell));
        s.scene.azimuth_deg = Wrap360(draw.first_deg + draw.step_deg * cell);
        s.scene.elevation_deg = kElevationsDeg[(draw.first_height + cell) % 7];
        s.scene.noises.push_back(Noise(noise, snr, s.scene.azimuth_deg, cell));
        grid.push_back(s);
        ++cell;
      }
    }
  }
  int walk = 0;
  for (double rt60 : kRt60s) {
    for (double snr : {5.0, 20.0}) {
      DirectionScene s;
      char name[64];
      std::snprintf(name, sizeof name, "walk_rt%.1f_snr%.0f", rt60, snr);
      s.name = name;
      s.snr_db = snr;
      s.scene = Talking(rt60, draw.walk_seed + static_cast<std::uint32_t>(walk));
      s.scene.azimuth_deg = Wrap360(draw.walk_first_deg + 77.0 * walk);
      s.scene.elevation_deg = 10.0;
      s.scene.noises.push_back(Noise(DirectionNoise::kDiffuse, snr, s.scene.azimuth_deg, walk));
      s.walk_deg = 90.0;
      s.walk_begin_s = 5.0;
      s.walk_end_s = 8.0;
      grid.push_back(s);
      ++walk;
    }
  }
  return grid;
}

bool RenderDirectionScene(const DirectionScene& cell, DirectionRender* out, std::string* error) {
  Scene scene = cell.scene;
  if (cell.walk_deg != 0.0) {
    // The noise is rendered against the talker's nominal level with a
    // silent talker; the walking talker is added afterwards.
    scene.talker.assign(static_cast<std::size_t>((scene.talker_end_s - scene.talker_begin_s) * kSampleRate), 0.0f);
  }
  if (!RenderScene(scene, &out->rendered, error)) return false;
  if (cell.walk_deg != 0.0 && !AddWalkingTalker(cell, out, error)) return false;
  const std::size_t frames = out->rendered.truth.speech.size();
  out->azimuth_deg.resize(frames);
  const double delay_s = static_cast<double>(out->rendered.truth.talker_delay) / kSampleRate;
  for (std::size_t f = 0; f < frames; ++f) {
    const double t = (static_cast<double>(f) + 0.5) * static_cast<double>(kFrame) / kSampleRate - delay_s;
    out->azimuth_deg[f] = Wrap360(WalkAzimuth(cell, t));
  }
  return true;
}

}  // namespace vorn::bench
