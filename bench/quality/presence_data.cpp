// vorn_presence_data SCENES OUT.bin: renders the training scenes of the
// enhanced speech presence's two networks (src/adsp_ns/presence_net.h),
// SCENES talker scenes and then the fixed set of scenes without one, and
// writes, per scene, the cues the library computes for every hop and the
// talker's frame labels. bench/quality/train_presence.py trains the networks
// on that file and writes src/adsp_ns/presence_net_table.cpp; its header
// gives the command and the assumptions about training.
//
// Assumptions about the data, written here because the weights have no
// closed rule:
//  - Training scenes come from the bench's room simulator with seeds from
//    9000 on, so none is one of the bench's own evaluation scenes (those use
//    seeds below 1000). Each has a speech-like talker of its own (pitch
//    90-250 Hz, 3-6 syllables a second, 45-75 % voiced), a level of -50 to
//    -10 dBFS, a room of RT60 0.2-0.7 s, and one of the five noises of the
//    bench (white, pink, speech-shaped, babble, a point source) at 0-20 dB.
//    Every third scene has a far end as well (from the start for 5-9 s, its
//    echo at -35 to -15 dBFS, the talker from 2-5 s on); half of those far
//    ends are a speech-like talker, half music (the echo bench's generator).
//  - After the talker scenes come 30 room scenes with nobody near the array
//    for most of their 20 s (seeds from 9500): each of the five noises in
//    turn at -70 to -10 dBFS, every other time after 2-4 s of a talker, every
//    third time with the far end playing on alone to the end (speech or
//    music, its echo at -35 to -15 dBFS), some stepping by 20 dB; and 12
//    scenes of 30 s that give all three microphones one signal (seeds from
//    9600): white or pink noise stepping by 30-40 dB, under a DC offset,
//    swelling by 20 dB, after 4 s of a talker, or steady, at -75 to -20
//    dBFS. They teach the networks that a minute of noise, a level step or
//    the far end alone is no talker, which the talker scenes' few seconds
//    of noise and echo do not. None is a bench scene or a test's signal.
//  - Every scene goes through the chain the bench scores the speech flag in
//    (enhanced profile, canceller on, suppressor, vad_mode 2), and the cues
//    are read from the presence's record as the library computed them, so
//    the networks learn from exactly what they will see.
//  - Labels are the talker's syllable activity per 256-sample frame on the
//    microphones' time line; the file also gives, per scene, the samples by
//    which the heard signal lags the microphone (the canceller's 64), so the
//    trainer can label each hop at the middle of its analysis window.
//
// File layout (native little-endian): "VPD2", then int32 cues per hop, hop
// length, analysis length, frame length and scene count; per scene int32
// seed, lag, hops and frames, float32 cues[hops][cues], uint8 labels[frames],
// uint8 gates[hops / 2] (per processed frame: bit 0 the canceller called it
// echo alone, bit 1 the far end plays or its echo still rings).
// About six minutes on one core, most of it rendering the scenes
// (VORN_FIT_CACHE=DIR keeps rendered scenes between runs).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "adsp_ns/ns_enhanced.h"
#include "quality/echo_grid.h"
#include "sim/metrics.h"
#include "sim/front_end_param.h"
#include "vorn/vorn_echo_stage.h"
#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;
using namespace vorn::sim;

constexpr std::uint32_t kFirstSeed = 9000;       // talker scenes, as many as asked for
constexpr std::uint32_t kFirstNoiseSeed = 9500;  // rooms with nobody near the array
constexpr int kNoiseScenes = 30;
constexpr std::uint32_t kFirstPlainSeed = 9600;  // one signal on every microphone
constexpr int kPlainScenes = 12;
constexpr std::size_t kAecBlock = 64;
constexpr double kEchoTailS = 0.3;  // the room still rings with the far end this long after it stops

bool HasFarEnd(std::uint32_t seed) { return seed % 3 == 0; }

// One of the five noises, chosen by `which`, at 0-20 dB SNR, over sensor
// noise 45 dB down.
void AddRoomNoises(std::uint32_t which, std::mt19937& rng, std::uniform_real_distribution<double>& u, Scene* s) {
  NoiseSource noise;
  noise.snr_db = 20.0 * u(rng);
  switch (which % 5) {
    case 0: noise.kind = NoiseKind::kSensor, noise.colour = NoiseColour::kWhite; break;
    case 1: noise.kind = NoiseKind::kDiffuse, noise.colour = NoiseColour::kPink; break;
    case 2: noise.kind = NoiseKind::kDiffuse, noise.colour = NoiseColour::kSpeechShaped; break;
    case 3: noise.kind = NoiseKind::kBabble; break;
    default:
      noise.kind = NoiseKind::kInterferer, noise.colour = NoiseColour::kPink;
      noise.azimuth_deg = 360.0 * u(rng);
      noise.distance_m = 1.0 + u(rng);
  }
  s->noises.push_back(noise);
  s->noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 45.0});
}

// The scene and its talker's syllable activity per sample (from the start
// of the talker's window).
Scene TrainingScene(std::uint32_t seed, std::vector<std::uint8_t>* talker_active) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  Scene s;
  s.seed = seed;
  s.room.rt60_s = 0.2 + 0.5 * u(rng);
  s.far_begin_s = s.far_end_s = 0.0;
  s.talker_begin_s = 1.0 + 2.0 * u(rng);
  if (HasFarEnd(seed)) {
    s.far_end_s = 5.0 + 4.0 * u(rng);
    s.echo_level_dbfs = -35.0 + 20.0 * u(rng);
    s.talker_begin_s = 2.0 + 3.0 * u(rng);
    // Every other far end plays music, which never pauses for the talker.
    if (seed % 2 == 1)
      s.far_end = bench::MakeMusicLike(static_cast<std::size_t>(s.far_end_s * sim::kSampleRate), 3000.0, seed * 5u + 1u);
  }
  s.talker_end_s = 12.0;
  s.azimuth_deg = 360.0 * u(rng);
  s.talker_level_dbfs = -50.0 + 40.0 * u(rng);
  sim::SpeechLikeOptions voice;
  voice.f0_hz = 90.0 + 160.0 * u(rng);
  voice.syllable_hz = 3.0 + 3.0 * u(rng);
  voice.duty = 0.45 + 0.3 * u(rng);
  voice.lead_silence_s = 0.3 * u(rng);
  const std::size_t samples = static_cast<std::size_t>((s.talker_end_s - s.talker_begin_s) * sim::kSampleRate);
  sim::SpeechLike talker = sim::MakeSpeechLike(samples, seed * 7u + 3u, voice);
  s.talker = std::move(talker.samples);
  *talker_active = std::move(talker.active);
  AddRoomNoises(seed, rng, u, &s);
  return s;
}

template <class T>
void Put(std::ofstream& o, const std::vector<T>& v) {
  const std::size_t n = v.size();
  o.write(reinterpret_cast<const char*>(&n), sizeof n);
  o.write(reinterpret_cast<const char*>(v.data()), static_cast<std::streamsize>(n * sizeof(T)));
}
template <class T>
void Get(std::ifstream& i, std::vector<T>& v) {
  std::size_t n = 0;
  i.read(reinterpret_cast<char*>(&n), sizeof n);
  v.resize(n);
  i.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(n * sizeof(T)));
}

// A room scene with nobody near the array for most of it: one of the five
// noises alone for 20 s at -70 to -10 dBFS, every other time after 2-4 s of
// the talker (so the flag learns noise that follows a voice it knows), every
// third time with the loudspeaker playing to the end (echo alone), and every
// fourth one without a far end stepping up or down by 20 dB after 12 s.
Scene NoiseScene(std::uint32_t seed, std::vector<std::uint8_t>* talker_active, double* step_db) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  const std::uint32_t i = seed - kFirstNoiseSeed;
  Scene s;
  s.seed = seed;
  s.duration_s = 20.0;
  s.room.rt60_s = 0.2 + 0.5 * u(rng);
  s.azimuth_deg = 360.0 * u(rng);
  s.talker_level_dbfs = -50.0 + 40.0 * u(rng);
  s.far_begin_s = s.far_end_s = 0.0;
  s.talker_begin_s = s.talker_end_s = 0.0;
  talker_active->clear();
  if ((i / 5) % 2 == 1) {
    s.talker_begin_s = 0.5 + u(rng);
    s.talker_end_s = s.talker_begin_s + 2.0 + 2.0 * u(rng);
    sim::SpeechLikeOptions voice;
    voice.f0_hz = 90.0 + 160.0 * u(rng);
    sim::SpeechLike talker = sim::MakeSpeechLike(
        static_cast<std::size_t>((s.talker_end_s - s.talker_begin_s) * sim::kSampleRate), seed * 7u + 3u, voice);
    s.talker = std::move(talker.samples);
    *talker_active = std::move(talker.active);
  }
  if (i % 3 == 0) {
    s.far_begin_s = s.talker_end_s + 0.5 * u(rng);
    s.far_end_s = s.duration_s;
    s.echo_level_dbfs = -35.0 + 20.0 * u(rng);
    if ((i / 3) % 2 == 1)
      s.far_end = bench::MakeMusicLike(static_cast<std::size_t>((s.far_end_s - s.far_begin_s) * sim::kSampleRate),
                                       3000.0, seed * 5u + 1u);
  }
  *step_db = i % 3 != 0 && i % 4 == 1 ? (u(rng) < 0.5 ? 20.0 : -20.0) : 0.0;
  AddRoomNoises(i, rng, u, &s);
  return s;
}

constexpr double kStepAtS = 12.0;

// What the data tool hands to the analysis: the capture, the reference, the
// talker's frame labels and the far end's window.
struct Capture {
  std::vector<std::int16_t> mics, reference;
  std::vector<std::uint8_t> labels;
  double far_begin_s = 0.0, far_end_s = 0.0;
};

// One signal on all three microphones, as a device fed a single channel
// hears it (no room, nothing else playing): 30 s of steady noise stepping
// by 30-40 dB, a DC offset under faint noise, a slow 20 dB swell, a talker
// for 4 s and then noise, or noise at one level throughout; -75 to -20 dBFS.
Capture PlainScene(std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  const std::uint32_t i = seed - kFirstPlainSeed;
  const std::size_t n = 30 * static_cast<std::size_t>(sim::kSampleRate);
  const double rms = 32768.0 * std::pow(10.0, (-75.0 + 55.0 * u(rng)) / 20.0);
  const bool pink = (i / 6) % 2 == 1;
  const auto noise = [&](double level, std::uint32_t sub) {
    return pink ? sim::PinkNoise(n, level, seed * 11u + sub) : sim::WhiteNoise(n, level, seed * 11u + sub);
  };
  sim::Signal x = noise(rms, 1);
  std::vector<std::uint8_t> active(n, 0);
  switch (i % 6) {
    case 0:
    case 1: {  // a step up (or down) by 30-40 dB somewhere after 5 s
      const double db = (30.0 + 10.0 * u(rng)) * (i % 6 == 0 ? 1.0 : -1.0);
      const std::size_t at = static_cast<std::size_t>((5.0 + 20.0 * u(rng)) * sim::kSampleRate);
      const float g = static_cast<float>(std::pow(10.0, db / 20.0));
      for (std::size_t k = at; k < n; ++k) x[k] *= g;
      break;
    }
    case 2: {  // a DC offset
      const float dc = static_cast<float>((u(rng) < 0.5 ? -1.0 : 1.0) * (1000.0 + 7000.0 * u(rng)));
      for (float& v : x) v += dc;
      break;
    }
    case 3:  // a swell by 20 dB over the recording
      for (std::size_t k = 0; k < n; ++k) x[k] *= static_cast<float>(std::pow(10.0, static_cast<double>(k) / static_cast<double>(n)));
      break;
    case 4: {  // a talker 10-30 dB above the noise, then the noise alone
      sim::SpeechLikeOptions voice;
      voice.f0_hz = 90.0 + 160.0 * u(rng);
      voice.rms = rms * std::pow(10.0, (10.0 + 20.0 * u(rng)) / 20.0);
      sim::SpeechLike talker = sim::MakeSpeechLike(4 * static_cast<std::size_t>(sim::kSampleRate), seed * 7u + 3u, voice);
      for (std::size_t k = 0; k < talker.samples.size(); ++k) x[k] += talker.samples[k], active[k] = talker.active[k];
      break;
    }
    default:
      break;
  }
  Capture c;
  const std::vector<std::int16_t> pcm = sim::ToPcm(x);
  c.mics.resize(kMics * n);
  for (std::size_t k = 0; k < n; ++k)
    for (std::size_t m = 0; m < kMics; ++m) c.mics[kMics * k + m] = pcm[k];
  c.reference.assign(n, 0);
  c.labels = sim::FrameLabels(active);
  return c;
}

// A fingerprint of everything a scene is rendered from, so that a cached
// render is only read back for the recipe it was made from: keyed by the
// seed alone, a changed recipe silently trained on the old scenes.
class RecipeKey {
 public:
  void Add(double v) { Bytes(&v, sizeof v); }
  void Add(const std::vector<float>& v) {
    Add(static_cast<double>(v.size()));
    Bytes(v.data(), v.size() * sizeof(float));
  }
  void Add(const std::vector<std::uint8_t>& v) {
    Add(static_cast<double>(v.size()));
    Bytes(v.data(), v.size());
  }
  std::string Hex() const {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash_));
    return text;
  }

 private:
  void Bytes(const void* data, std::size_t n) {  // 64-bit FNV-1a
    const auto* b = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < n; ++i) hash_ = (hash_ ^ b[i]) * 0x100000001b3ULL;
  }
  std::uint64_t hash_ = 0xcbf29ce484222325ULL;
};

std::string SceneKey(const Scene& s, const std::vector<std::uint8_t>& talker_active, double step_db) {
  RecipeKey k;
  for (double v : {s.room.size.x, s.room.size.y, s.room.size.z, s.room.rt60_s, s.array_centre.x, s.array_centre.y,
                   s.array_centre.z, s.duration_s, static_cast<double>(s.seed), s.azimuth_deg, s.elevation_deg,
                   s.distance_m, s.talker_level_dbfs, s.talker_begin_s, s.talker_end_s, s.loudspeaker_offset.x,
                   s.loudspeaker_offset.y, s.loudspeaker_offset.z, s.far_begin_s, s.far_end_s, s.far_level_dbfs,
                   s.echo_level_dbfs, s.clip_fraction, s.echo_delay_ms, step_db})
    k.Add(v);
  for (const auto& n : s.noises)
    for (double v : {static_cast<double>(n.kind), static_cast<double>(n.colour), n.snr_db, n.azimuth_deg,
                     n.elevation_deg, n.distance_m, static_cast<double>(n.talkers)})
      k.Add(v);
  k.Add(s.talker);
  k.Add(s.far_end);
  k.Add(talker_active);
  return k.Hex();
}

// Microphone 0 and the frame labels of a training scene, rendered or read back.
bool Load(std::uint32_t seed, Capture* c) {
  if (seed >= kFirstPlainSeed) {
    *c = PlainScene(seed);
    return true;
  }
  std::vector<std::uint8_t> talker_active;
  double step_db = 0.0;
  const Scene scene =
      seed >= kFirstNoiseSeed ? NoiseScene(seed, &talker_active, &step_db) : TrainingScene(seed, &talker_active);
  c->far_begin_s = scene.far_begin_s;
  c->far_end_s = scene.far_end_s;
  const char* cache = std::getenv("VORN_FIT_CACHE");
  const std::string path =
      cache ? std::string(cache) + "/fit_" + std::to_string(seed) + "_" + SceneKey(scene, talker_active, step_db) + ".bin"
            : "";
  if (!path.empty() && std::filesystem::exists(path)) {
    std::ifstream in(path, std::ios::binary);
    Get(in, c->mics);
    Get(in, c->reference);
    Get(in, c->labels);
    return true;
  }
  RenderedScene r;
  std::string error;
  if (!RenderScene(scene, &r, &error)) {
    std::fprintf(stderr, "scene %u left out: %s\n", seed, error.c_str());
    return false;
  }
  // Labels as the bench's own talkers get them: syllable activity, moved to
  // the microphones' time line by the direct path (the simulator labels a
  // talker it is handed by its energy instead, which runs a frame wider).
  std::vector<std::uint8_t> active(r.mics.size() / kMics, 0);
  const std::size_t begin = static_cast<std::size_t>(scene.talker_begin_s * sim::kSampleRate) + r.truth.talker_delay;
  for (std::size_t i = 0; i < talker_active.size() && begin + i < active.size(); ++i) active[begin + i] = talker_active[i];
  r.truth.speech = sim::FrameLabels(active);
  if (step_db != 0.0) {
    const double g = std::pow(10.0, step_db / 20.0);
    for (std::size_t k = static_cast<std::size_t>(kStepAtS * sim::kSampleRate) * kMics; k < r.mics.size(); ++k)
      r.mics[k] = static_cast<std::int16_t>(std::clamp(std::lround(r.mics[k] * g), -32768L, 32767L));
  }
  c->mics = r.mics;
  c->reference = r.reference;
  c->labels = r.truth.speech;
  if (!path.empty()) {
    std::ofstream out(path, std::ios::binary);
    Put(out, c->mics);
    Put(out, c->reference);
    Put(out, c->labels);
  }
  return true;
}

using Cues = std::array<float, kPresenceCues>;

struct SceneCues {
  std::vector<Cues> hops;            // per hop, as the library computes them
  std::vector<std::uint8_t> labels;  // per frame
  std::vector<std::uint8_t> gates;   // per frame: 1 echo alone (the canceller's picture), 2 far end playing
  std::size_t delay = 0;             // samples the heard signal lags the microphone
};

// The cues of every hop as the library computes them in the bench's speech
// chain (enhanced profile, canceller, suppressor; vad_mode 2), read from the
// presence's record after each frame: the frame's two hops are its newest.
SceneCues Analyse(const std::vector<std::int16_t>& mics, const std::vector<std::int16_t>& reference,
                  const std::vector<std::uint8_t>& labels, double far_begin_s, double far_end_s) {
  SceneCues sc;
  sc.labels = labels;
  sc.delay = kAecBlock;
  const std::size_t frames = std::min(mics.size() / (kMics * kFrame), reference.size() / kFrame);
  std::vector<unsigned char> state(static_cast<std::size_t>(VornGetBuffSize()) + 1000000);
  const sim::Switches switches{.aec = 1, .ns = 1, .vad_mode = 2};
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, 0);
  if (VornInit(&pm, nullptr) != 0 || VornSetProfile(&pm, VORN_PROFILE_ENHANCED) != 0) return sc;
  const EnhancedPresenceState& presence = EnhancedStateOf(VornStateOf(&pm))->modules.speech.presence;
  short order[3] = {0, 1, 2}, out[kFrame];
  for (std::size_t f = 0; f < frames; ++f) {
    if (VornProc(&pm, &mics[f * kMics * kFrame], &reference[f * kFrame], out, order) != 0) break;
    for (int back = 1; back >= 0; --back) {
      Cues c;
      std::copy(presence.recent_cues[back], presence.recent_cues[back] + kPresenceCues, c.begin());
      sc.hops.push_back(c);
    }
    const double t = static_cast<double>(f * kFrame) / sim::kSampleRate;
    sc.gates.push_back(static_cast<std::uint8_t>((EchoStageOf(VornStateOf(&pm))->picture.echo_only ? 1 : 0) |
                                                 (t >= far_begin_s && t < far_end_s + kEchoTailS ? 2 : 0)));
  }
  return sc;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: vorn_presence_data SCENES OUT.bin\n");
    return 2;
  }
  const int scenes = std::atoi(argv[1]);
  std::ofstream out(argv[2], std::ios::binary);
  if (!out) {
    std::fprintf(stderr, "cannot write %s\n", argv[2]);
    return 1;
  }
  const auto put = [&out](std::int32_t v) { out.write(reinterpret_cast<const char*>(&v), sizeof v); };
  out.write("VPD2", 4);
  put(kPresenceCues), put(static_cast<std::int32_t>(kNsHop)), put(static_cast<std::int32_t>(kNsFftLen));
  const int total = scenes + kNoiseScenes + kPlainScenes;
  put(static_cast<std::int32_t>(kFrame)), put(total);
  int written = 0;
  for (int i = 0; i < total; ++i) {
    const std::uint32_t seed = i < scenes                  ? kFirstSeed + static_cast<std::uint32_t>(i)
                               : i < scenes + kNoiseScenes ? kFirstNoiseSeed + static_cast<std::uint32_t>(i - scenes)
                                                           : kFirstPlainSeed + static_cast<std::uint32_t>(i - scenes - kNoiseScenes);
    Capture c;
    if (!Load(seed, &c)) continue;
    const SceneCues sc = Analyse(c.mics, c.reference, c.labels, c.far_begin_s, c.far_end_s);
    put(static_cast<std::int32_t>(seed)), put(static_cast<std::int32_t>(sc.delay));
    put(static_cast<std::int32_t>(sc.hops.size())), put(static_cast<std::int32_t>(sc.labels.size()));
    for (const Cues& hop : sc.hops) out.write(reinterpret_cast<const char*>(hop.data()), sizeof hop);
    out.write(reinterpret_cast<const char*>(sc.labels.data()), static_cast<std::streamsize>(sc.labels.size()));
    out.write(reinterpret_cast<const char*>(sc.gates.data()), static_cast<std::streamsize>(sc.gates.size()));
    ++written;
    std::fprintf(stderr, "scene %d (seed %u) ready\n", i, seed);
  }
  if (written != total) {
    std::fprintf(stderr, "%d of %d scenes could not be rendered\n", total - written, total);
    return 1;
  }
  std::printf("wrote %s: %d scenes\n", argv[2], written);
  return out ? 0 : 1;
}
