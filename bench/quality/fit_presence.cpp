// vorn_fit_presence SCENES TABLE.cpp: designs the enhanced speech presence's
// two networks (src/adsp_ns/presence_net.h) and the speech flag's threshold,
// and writes them as the generated table src/adsp_ns/presence_net_table.cpp:
//
//   build/rel/bench/quality/vorn_fit_presence 60 src/adsp_ns/presence_net_table.cpp
//
// About five minutes on one core of the development machine, most of it
// rendering the scenes (VORN_FIT_CACHE=DIR keeps rendered scenes between runs).
//
// Assumptions, written here because the weights have no closed rule:
//  - Training scenes come from the bench's room simulator with seeds from
//    9000 on, so none is one of the bench's own evaluation scenes (those use
//    seeds below 1000). Each has a speech-like talker of its own (pitch
//    90-250 Hz, 3-6 syllables a second, 45-75 % voiced), a level of -50 to
//    -10 dBFS, a room of RT60 0.2-0.7 s, and one of the five noises of the
//    bench (white, pink, speech-shaped, babble, a point source) at 0-20 dB.
//    Every third scene has a far end as well (from the start for 5-9 s, its
//    echo at -35 to -15 dBFS, the talker from 2-5 s on); those scenes go
//    through the classic canceller (aec_flag 1) as the library's chain sends
//    them, and its output with the loudspeaker's reference is what the
//    presence hears.
//  - For the presence network, a hop is labelled speech when the talker is
//    in a syllable at the middle of its analysis window (the frame label the
//    simulator gives there; the canceller's output lags its input by 64
//    samples). For the flag network, the frame leaving the suppressor takes
//    the label of the input frame two frames back (it lags by 1.5 frames, or
//    1.75 behind the canceller; the bench rounds both to 2), judged from the
//    five hops centred on that input frame.
//  - The networks see the cues as the library hands them, normalised by
//    their training mean and spread. Each is trained by Adam on the
//    cross-entropy of its labels, full batch, from a fixed seed, with a small
//    weight decay.
//  - The flag's threshold maximises the F1 of the flag over the training
//    scenes.
// The program prints the weights as C++ to paste over the old ones, with the
// training scenes' figures.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "adsp_ns/ns_enhanced.h"
#include "adsp_ns/presence_net.h"
#include "quality/scoring.h"
#include "sim/metrics.h"
#include "sim/front_end_param.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;
using namespace vorn::bench;
using namespace vorn::sim;

constexpr int kEpochs = 1000;
constexpr double kLearningRate = 0.01;
constexpr double kWeightDecay = 1e-4;
constexpr std::uint32_t kFirstSeed = 9000;
constexpr std::size_t kAecBlock = 64;

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
  if (seed % 3 == 0) {
    s.far_end_s = 5.0 + 4.0 * u(rng);
    s.echo_level_dbfs = -35.0 + 20.0 * u(rng);
    s.talker_begin_s = 2.0 + 3.0 * u(rng);
  }
  s.talker_end_s = 12.0;
  s.azimuth_deg = 360.0 * u(rng);
  s.talker_level_dbfs = -50.0 + 40.0 * u(rng);
  sim::SpeechLikeOptions voice;
  voice.f0_hz = 90.0 + 160.0 * u(rng);
  voice.syllable_hz = 3.0 + 3.0 * u(rng);
  voice.duty = 0.45 + 0.3 * u(rng);
  voice.lead_silence_s = 0.3 * u(rng);
  const std::size_t samples = static_cast<std::size_t>((s.talker_end_s - s.talker_begin_s) * kSampleRate);
  sim::SpeechLike talker = sim::MakeSpeechLike(samples, seed * 7u + 3u, voice);
  s.talker = std::move(talker.samples);
  *talker_active = std::move(talker.active);
  NoiseSource noise;
  noise.snr_db = 20.0 * u(rng);
  switch (seed % 5) {
    case 0: noise.kind = NoiseKind::kSensor, noise.colour = NoiseColour::kWhite; break;
    case 1: noise.kind = NoiseKind::kDiffuse, noise.colour = NoiseColour::kPink; break;
    case 2: noise.kind = NoiseKind::kDiffuse, noise.colour = NoiseColour::kSpeechShaped; break;
    case 3: noise.kind = NoiseKind::kBabble; break;
    default:
      noise.kind = NoiseKind::kInterferer, noise.colour = NoiseColour::kPink;
      noise.azimuth_deg = 360.0 * u(rng);
      noise.distance_m = 1.0 + u(rng);
  }
  s.noises.push_back(noise);
  s.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 45.0});
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

// Microphone 0 and the frame labels of a training scene, rendered or read back.
bool Load(std::uint32_t seed, std::vector<std::int16_t>* mics, std::vector<std::int16_t>* reference,
          std::vector<std::uint8_t>* labels) {
  const char* cache = std::getenv("VORN_FIT_CACHE");
  const std::string path = cache ? std::string(cache) + "/fit_" + std::to_string(seed) + ".bin" : "";
  if (!path.empty() && std::filesystem::exists(path)) {
    std::ifstream in(path, std::ios::binary);
    Get(in, *mics);
    Get(in, *reference);
    Get(in, *labels);
    return true;
  }
  RenderedScene r;
  std::string error;
  std::vector<std::uint8_t> talker_active;
  const Scene scene = TrainingScene(seed, &talker_active);
  if (!RenderScene(scene, &r, &error)) {
    std::fprintf(stderr, "scene %u left out: %s\n", seed, error.c_str());
    return false;
  }
  // Labels as the bench's own talkers get them: syllable activity, moved to
  // the microphones' time line by the direct path (the simulator labels a
  // talker it is handed by its energy instead, which runs a frame wider).
  std::vector<std::uint8_t> active(r.mics.size() / kMics, 0);
  const std::size_t begin = static_cast<std::size_t>(scene.talker_begin_s * kSampleRate) + r.truth.talker_delay;
  for (std::size_t i = 0; i < talker_active.size() && begin + i < active.size(); ++i) active[begin + i] = talker_active[i];
  r.truth.speech = sim::FrameLabels(active);
  *mics = r.mics;
  *reference = r.reference;
  *labels = r.truth.speech;
  if (!path.empty()) {
    std::ofstream out(path, std::ios::binary);
    Put(out, *mics);
    Put(out, *reference);
    Put(out, *labels);
  }
  return true;
}

using Cues = std::array<float, kPresenceCues>;

struct SceneCues {
  std::vector<Cues> hops;            // per hop, as the library computes them
  std::vector<std::uint8_t> labels;  // per frame
  std::size_t delay = 0;             // samples the heard signal lags the microphone
};

// What the presence hears: microphone 0, or with a far end the classic
// canceller's output (its recognition output, aec_flag 1).
std::vector<std::int16_t> Heard(std::vector<std::int16_t> mics, std::vector<std::int16_t> reference) {
  const std::size_t frames = std::min(mics.size() / (kMics * kFrame), reference.size() / kFrame);
  std::vector<std::int16_t> heard(frames * kFrame);
  std::vector<unsigned char> state(static_cast<std::size_t>(VornGetBuffSize()) + 1000000);
  const sim::Switches switches{.aec = 1, .ns = 0, .vad_mode = 2};
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, 0);
  if (VornInit(&pm, nullptr) != 0) return heard;
  short order[3] = {0, 1, 2};
  for (std::size_t f = 0; f < frames; ++f)
    VornProc(&pm, &mics[f * kMics * kFrame], &reference[f * kFrame], &heard[f * kFrame], order);
  return heard;
}

SceneCues Analyse(const std::vector<std::int16_t>& mics, const std::vector<std::int16_t>& reference,
                  const std::vector<std::uint8_t>& labels, bool far_end) {
  SceneCues sc;
  sc.labels = labels;
  sc.delay = far_end ? kAecBlock : 0;
  std::vector<std::int16_t> near(mics.size() / kMics);
  for (std::size_t i = 0; i < near.size(); ++i) near[i] = mics[i * kMics];
  const std::vector<std::int16_t> heard = far_end ? Heard(mics, reference) : near;
  EnhancedPresenceState st;
  EnhancedPresenceInit(&st);
  for (std::size_t h = 0; (h + 1) * kNsHop <= heard.size() && h < labels.size() * 2; ++h) {
    NsHopAnalysis hop;
    const NsEchoCues echo{far_end ? &reference[h * kNsHop] : nullptr, far_end ? &near[h * kNsHop] : nullptr};
    EnhancedPresenceHop(&st, &heard[h * kNsHop], echo, &hop);
    Cues c;
    std::copy(hop.cues, hop.cues + kPresenceCues, c.begin());
    sc.hops.push_back(c);
  }
  return sc;
}

// The inputs of a network over `context` hops ending at hop `last`, newest first.
std::vector<float> Inputs(const SceneCues& sc, std::size_t last, int context) {
  std::vector<float> in;
  for (int back = 0; back < context; ++back) {
    const Cues zero{};
    const Cues& c = last >= static_cast<std::size_t>(back) ? sc.hops[last - static_cast<std::size_t>(back)] : zero;
    in.insert(in.end(), c.begin(), c.end());
  }
  return in;
}

// A network in double for training.
struct Net {
  int inputs = 0;
  std::vector<double> mean, scale, w1, b1, w2;  // w1 row-major [hidden][inputs]
  double b2 = 0.0;
};

Net Train(const std::vector<std::vector<float>>& x, const std::vector<double>& y, const char* name) {
  const int n_in = static_cast<int>(x[0].size());
  const double n = static_cast<double>(x.size());
  Net net;
  net.inputs = n_in;
  net.mean.assign(static_cast<std::size_t>(n_in), 0.0);
  net.scale.assign(static_cast<std::size_t>(n_in), 0.0);
  for (int i = 0; i < n_in; ++i) {
    const auto u = static_cast<std::size_t>(i);
    double sum = 0.0, sq = 0.0;
    for (const auto& s : x) sum += s[u];
    net.mean[u] = sum / n;
    for (const auto& s : x) sq += (s[u] - net.mean[u]) * (s[u] - net.mean[u]);
    net.scale[u] = 1.0 / std::sqrt(sq / n + 1e-6);
  }
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> init(-1.0 / std::sqrt(n_in), 1.0 / std::sqrt(n_in));
  net.w1.resize(static_cast<std::size_t>(kNetHidden * n_in));
  for (double& w : net.w1) w = init(rng);
  net.b1.assign(kNetHidden, 0.0);
  net.w2.resize(kNetHidden);
  for (double& w : net.w2) w = init(rng);

  // Parameters in one vector for Adam: w1, b1, w2, b2.
  const std::size_t params = net.w1.size() + 2 * kNetHidden + 1;
  std::vector<double> m(params, 0.0), v(params, 0.0), g(params);
  std::vector<double> xs(static_cast<std::size_t>(n_in)), hidden(kNetHidden);
  for (int epoch = 1; epoch <= kEpochs; ++epoch) {
    std::fill(g.begin(), g.end(), 0.0);
    double loss = 0.0;
    for (std::size_t s = 0; s < x.size(); ++s) {
      for (std::size_t i = 0; i < xs.size(); ++i) xs[i] = (x[s][i] - net.mean[i]) * net.scale[i];
      double out = net.b2;
      for (int h = 0; h < kNetHidden; ++h) {
        double a = net.b1[static_cast<std::size_t>(h)];
        for (int i = 0; i < n_in; ++i) a += net.w1[static_cast<std::size_t>(h * n_in + i)] * xs[static_cast<std::size_t>(i)];
        hidden[static_cast<std::size_t>(h)] = std::tanh(a);
        out += net.w2[static_cast<std::size_t>(h)] * hidden[static_cast<std::size_t>(h)];
      }
      const double p = 1.0 / (1.0 + std::exp(-out));
      loss -= y[s] > 0.5 ? std::log(p + 1e-12) : std::log(1.0 - p + 1e-12);
      const double d = p - y[s];
      for (int h = 0; h < kNetHidden; ++h) {
        const auto hu = static_cast<std::size_t>(h);
        const double dh = d * net.w2[hu] * (1.0 - hidden[hu] * hidden[hu]);
        for (int i = 0; i < n_in; ++i) g[static_cast<std::size_t>(h * n_in + i)] += dh * xs[static_cast<std::size_t>(i)];
        g[net.w1.size() + hu] += dh;
        g[net.w1.size() + kNetHidden + hu] += d * hidden[hu];
      }
      g[params - 1] += d;
    }
    std::size_t k = 0;
    auto step = [&](double& w, bool decay) {
      const double grad = g[k] / n + (decay ? kWeightDecay * w : 0.0);
      m[k] = 0.9 * m[k] + 0.1 * grad;
      v[k] = 0.999 * v[k] + 0.001 * grad * grad;
      const double mh = m[k] / (1.0 - std::pow(0.9, epoch)), vh = v[k] / (1.0 - std::pow(0.999, epoch));
      w -= kLearningRate * mh / (std::sqrt(vh) + 1e-8);
      ++k;
    };
    for (double& w : net.w1) step(w, true);
    for (double& w : net.b1) step(w, false);
    for (double& w : net.w2) step(w, true);
    step(net.b2, false);
    if (epoch % 100 == 0) std::fprintf(stderr, "%s, epoch %d: cross-entropy %.4f\n", name, epoch, loss / n);
  }
  return net;
}

// The network rounded to float and evaluated as the library evaluates it.
struct FloatNet {
  std::vector<float> mean, scale, w1, b1, w2;
  float b2 = 0.0f;
  int inputs = 0;
  explicit FloatNet(const Net& net) : inputs(net.inputs) {
    auto round = [](const std::vector<double>& a) { return std::vector<float>(a.begin(), a.end()); };
    mean = round(net.mean), scale = round(net.scale), w1 = round(net.w1), b1 = round(net.b1), w2 = round(net.w2);
    b2 = static_cast<float>(net.b2);
  }
  float Prob(const std::vector<float>& in) const {
    float out = b2;
    for (int h = 0; h < kNetHidden; ++h) {
      float a = b1[static_cast<std::size_t>(h)];
      for (int i = 0; i < inputs; ++i) {
        const auto u = static_cast<std::size_t>(i);
        a += w1[static_cast<std::size_t>(h * inputs + i)] * ((in[u] - mean[u]) * scale[u]);
      }
      out += w2[static_cast<std::size_t>(h)] * std::tanh(a);
    }
    return 1.0f / (1.0f + std::exp(-out));
  }
};

void PrintRow(std::FILE* f, const float* a, int count) {
  std::fprintf(f, "{");
  for (int i = 0; i < count; ++i) std::fprintf(f, "%s%#.9gf", i ? ", " : "", static_cast<double>(a[i]));
  std::fprintf(f, "}");
}

void PrintNet(std::FILE* f, const char* type, const char* name, const FloatNet& net) {
  std::fprintf(f, "const %s %s = {\n  ", type, name);
  PrintRow(f, net.mean.data(), net.inputs);
  std::fprintf(f, ",\n  ");
  PrintRow(f, net.scale.data(), net.inputs);
  std::fprintf(f, ",\n  {\n");
  for (int h = 0; h < kNetHidden; ++h) {
    std::fprintf(f, "    ");
    PrintRow(f, net.w1.data() + h * net.inputs, net.inputs);
    std::fprintf(f, ",\n");
  }
  std::fprintf(f, "  },\n  ");
  PrintRow(f, net.b1.data(), kNetHidden);
  std::fprintf(f, ",\n  ");
  PrintRow(f, net.w2.data(), kNetHidden);
  std::fprintf(f, ",\n  %#.9gf,\n};\n\n", static_cast<double>(net.b2));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: vorn_fit_presence SCENES TABLE.cpp\n");
    return 2;
  }
  const int scenes = std::atoi(argv[1]);
  std::vector<SceneCues> data;
  for (int i = 0; i < scenes; ++i) {
    const std::uint32_t seed = kFirstSeed + static_cast<std::uint32_t>(i);
    std::vector<std::int16_t> mics, reference;
    std::vector<std::uint8_t> labels;
    if (!Load(seed, &mics, &reference, &labels)) continue;
    data.push_back(Analyse(mics, reference, labels, seed % 3 == 0));
    std::fprintf(stderr, "scene %d ready\n", i);
  }

  // Presence: every hop past the first 320 ms, labelled at its window's middle.
  std::vector<std::vector<float>> x;
  std::vector<double> y;
  for (const SceneCues& sc : data)
    for (std::size_t h = 40; h < sc.hops.size(); ++h) {
      x.push_back(Inputs(sc, h, kNetContext));
      y.push_back(sc.labels[((h + 1) * kNsHop - kNsFftLen / 2 - sc.delay) / kFrame]);
    }
  const std::size_t presence_samples = x.size();
  const FloatNet presence(Train(x, y, "presence"));

  // Flag: frame f, from the hops up to its first one, labelled as frame f - 2.
  x.clear();
  y.clear();
  for (const SceneCues& sc : data)
    for (std::size_t f = 20; f < sc.labels.size() && 2 * f + 1 < sc.hops.size(); ++f) {
      x.push_back(Inputs(sc, 2 * f, kFlagContext));
      y.push_back(sc.labels[f - 2]);
    }
  const FloatNet flag(Train(x, y, "flag"));

  double best_f1 = 0.0;
  float threshold = 0.5f;
  for (int step = 0; step <= 12; ++step) {
    const float t = 0.2f + 0.05f * static_cast<float>(step);
    std::vector<VadScores> scores;
    for (const SceneCues& sc : data) {
      std::vector<std::uint8_t> flags(sc.labels.size(), 0);
      for (std::size_t f = 0; f < flags.size() && 2 * f + 1 < sc.hops.size(); ++f)
        flags[f] = flag.Prob(Inputs(sc, 2 * f, kFlagContext)) > t ? 1 : 0;
      scores.push_back(ScoreVad(flags, sc.labels, 2));
    }
    const VadScores pooled = PoolVad(scores);
    std::fprintf(stderr, "threshold %.2f: P %.3f R %.3f F1 %.3f\n", static_cast<double>(t), pooled.precision,
                 pooled.recall, pooled.f1);
    if (pooled.f1 > best_f1) best_f1 = pooled.f1, threshold = t;
  }

  std::FILE* f = std::fopen(argv[2], "w");
  if (f == nullptr) {
    std::fprintf(stderr, "cannot write %s\n", argv[2]);
    return 1;
  }
  std::fprintf(f,
               "// Generated by bench/quality/fit_presence.cpp (its header gives the command and the\n"
               "// assumptions); do not edit. %zu training hops from %zu scenes; the speech flag's\n"
               "// F1 over them is %.3f at the threshold below.\n"
               "#include \"adsp_ns/presence_net.h\"\n\nnamespace vorn {\n\n// clang-format off\n",
               presence_samples, data.size(), best_f1);
  PrintNet(f, "NetTable<kNetInputs>", "kPresenceNet", presence);
  PrintNet(f, "NetTable<kFlagInputs>", "kFlagNet", flag);
  std::fprintf(f, "const float kFlagThreshold = %#.9gf;\n// clang-format on\n\n}  // namespace vorn\n",
               static_cast<double>(threshold));
  std::fclose(f);
  std::printf("wrote %s: flag F1 %.3f at threshold %.2f over the training scenes\n", argv[2], best_f1,
              static_cast<double>(threshold));
  return 0;
}
