#include "quality/noise_vad_section.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "adsp_ns/adsp_ns_proc.h"
#include "adsp_ns/ns_enhanced.h"
#include "quality/learned_peers.h"
#include "quality/noise_vad_grid.h"
#include "quality/scoring.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#include "vorn_proc.h"
#ifdef VORN_WITH_SPEEXDSP
#include <speex/speex_preprocess.h>

#include "quality/speex_peer.h"
#endif

namespace vorn::bench {

using namespace vorn::sim;
namespace {

namespace fs = std::filesystem;
constexpr std::size_t kMaxLag = 4096;

// The single-microphone recognition chain (canceller, suppressor, speech
// flag), as SpeexDSP's chain is single-microphone too.
const VornConfig kClassic{"classic", {.aec = 1, .ns = 1, .vad_mode = 2}, false, false, false, VORN_PROFILE_CLASSIC};
const VornConfig kEnhanced{"enhanced", {.aec = 1, .ns = 1, .vad_mode = 2}, false, false, false, VORN_PROFILE_ENHANCED};
const char* const kSpeex = "SpeexDSP";
const char* const kRnnoise = "RNNoise";
const char* const kSilero = "Silero VAD";

struct Score {
  Enhancement enhancement;
  VadScores vad;
};

Score ScoreRun(const RenderedScene& r, const SystemRun& run) {
  Score s;
  Signal target = r.target;
  target.resize(run.output.size(), 0.0f);
  const Signal mic0 = Channel(r.mics, 0);
  s.enhancement = ScoreEnhancement(mic0, run.output, target, kMaxLag);
  s.vad = ScoreVad(run.speech, r.truth.speech, FrameLag(s.enhancement.latency));
  return s;
}

std::string Fixed(double v, int decimals = 1) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

// Appends " text |" to a table row (appends, which GCC 12 does not misread
// as overlapping copies the way it does chained operator+).
void AddCell(std::string& row, const std::string& text) { row.append(" ").append(text).append(" |"); }

using Results = std::map<std::string, std::map<std::string, Score>>;  // system -> scene -> score

double MeanOver(const Results& results, const std::string& system, const std::vector<const NoiseVadScene*>& scenes,
                double (*figure)(const Score&)) {
  auto it = results.find(system);
  if (it == results.end() || scenes.empty()) return 0.0;
  double sum = 0.0;
  for (const NoiseVadScene* s : scenes) sum += figure(it->second.at(s->cell.name));
  return sum / static_cast<double>(scenes.size());
}

VadScores Pooled(const Results& results, const std::string& system, const std::vector<const NoiseVadScene*>& scenes) {
  std::vector<VadScores> v;
  auto it = results.find(system);
  if (it == results.end()) return {};
  for (const NoiseVadScene* s : scenes) v.push_back(it->second.at(s->cell.name).vad);
  return PoolVad(v);
}

double SnrGain(const Score& s) { return s.enhancement.SnrImprovementDb(); }
double SiSdrChange(const Score& s) { return s.enhancement.SiSdrImprovementDb(); }

// ---- cost per frame ------------------------------------------------------------

template <typename F>
double MicrosPerFrame(std::size_t frames, F&& per_frame) {
  double best = 1e30;
  for (int rep = 0; rep < 5; ++rep) {
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t f = 0; f < frames; ++f) per_frame(f);
    const auto end = std::chrono::steady_clock::now();
    best = std::min(best, std::chrono::duration<double, std::micro>(end - start).count() / static_cast<double>(frames));
  }
  return best;
}

std::string SpeedMarkdown(const RenderedScene& r, const LearnedPeerRuns& peers) {
  const std::size_t frames = WholeFrames(r);
  std::vector<short> mic(frames * kFrame);
  for (std::size_t i = 0; i < mic.size(); ++i) mic[i] = r.mics[i * kMics];
  std::vector<short> out(kFrame);

  // Classic: the suppressor's two hops and the VAD path's two hops on its own instance.
  std::vector<float> ns_region(kNsStateBytes / sizeof(float)), vad_region(kNsStateBytes / sizeof(float));
  T_AdspNsParam ns{ns_region.data(), kNsStateBytes, kNsParamSize, kNsDataTimeDomain, 0, 1, 0, 2};
  T_AdspNsParam vad{vad_region.data(), kNsStateBytes, kNsParamSize, kNsDataTimeDomain, 0, 1, 0, 2};
  AdspNsInit(&ns);
  AdspNsInit(&vad);
  std::vector<short> ns_out(kFrame);
  float scratch[kNsFftLen];
  const double classic = MicrosPerFrame(frames, [&](std::size_t f) {
    short* in = &mic[f * kFrame];
    AdspNsProc(&ns, nullptr, nullptr, nullptr, in, ns_out.data());
    AdspNsProc(&ns, nullptr, nullptr, nullptr, in + kNsHop, ns_out.data() + kNsHop);
    NsVadProc(&vad, scratch, nullptr, nullptr, ns_out.data(), out.data());
    NsVadProc(&vad, scratch, nullptr, nullptr, ns_out.data() + kNsHop, out.data() + kNsHop);
  });

  // Enhanced: presence, suppressor and flag on one shared analysis; with the
  // canceller on, the presence also analyses its input and the loudspeaker.
  std::vector<short> far(mic.size());
  for (std::size_t i = 0; i < far.size(); ++i) far[i] = r.reference[i];
  volatile int flags = 0;
  auto enhanced_run = [&](bool far_end) {
    auto speech = std::make_unique<EnhancedSpeechRecords>();
    EnhancedPresenceInit(&speech->presence);
    EnhancedSuppressorInit(&speech->suppressor);
    EnhancedVadInit(&speech->vad);
    NsHopAnalysis hops[2];
    return MicrosPerFrame(frames, [&](std::size_t f) {
      for (int h = 0; h < 2; ++h) {
        short* in = &mic[f * kFrame + static_cast<std::size_t>(h) * kNsHop];
        const NsEchoCues echo{far_end ? &far[f * kFrame + static_cast<std::size_t>(h) * kNsHop] : nullptr,
                              far_end ? in : nullptr};
        EnhancedPresenceHop(&speech->presence, in, echo, &hops[h]);
      }
      const float p = EnhancedOutputPresence(speech->presence);
      EnhancedSuppressHop(&speech->suppressor, speech->presence, &hops[0], out.data());
      EnhancedSuppressHop(&speech->suppressor, speech->presence, &hops[1], out.data() + kNsHop);
      flags = flags + EnhancedVadDecide(&speech->vad, p);
    });
  };
  const double enhanced = enhanced_run(false), enhanced_far = enhanced_run(true);

  std::string md;
  md += "| system | µs per 16 ms frame |\n|---|---|\n";
  md += "| classic (suppressor + VAD suppressor) | " + Fixed(classic) + " |\n";
  md += "| enhanced (presence + suppressor + flag) | " + Fixed(enhanced) + " |\n";
  md += "| enhanced, canceller on (also its input and the loudspeaker) | " + Fixed(enhanced_far) + " |\n";
#ifdef VORN_WITH_SPEEXDSP
  SpeexPreprocessState* pre = speex_preprocess_state_init(kFrame, kSampleRate);
  int on = 1;
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_DENOISE, &on);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_VAD, &on);
  std::vector<spx_int16_t> buf(kFrame);
  const double speex = MicrosPerFrame(frames, [&](std::size_t f) {
    std::copy(&mic[f * kFrame], &mic[f * kFrame] + kFrame, buf.begin());
    flags = flags + speex_preprocess_run(pre, buf.data());
  });
  speex_preprocess_state_destroy(pre);
  md += "| SpeexDSP (preprocessor: denoise + VAD) | " + Fixed(speex) + " |\n";
#endif
  if (peers.ran) {
    md += "| RNNoise (WebAssembly in node, 48 kHz; resampling not counted) | " + Fixed(peers.rnnoise_us_per_frame) +
          " |\n";
    md += "| Silero VAD (ONNX Runtime in node, one thread) | " + Fixed(peers.silero_us_per_frame) + " |\n";
  }
  md += "\nWall time on this machine, best of five passes over one 12 s scene; `bench_ns_enhanced` measures the "
        "same with Google Benchmark.\n";
  return md;
}

// ---- the markdown ---------------------------------------------------------------

std::string Markdown(const std::vector<NoiseVadScene>& scenes, const Results& results,
                     const std::vector<std::string>& systems, const LearnedPeerRuns& peers) {
  std::string md;
  auto line = [&md](const std::string& text) { md += text + "\n"; };
  auto of = [&scenes](auto keep) {
    std::vector<const NoiseVadScene*> out;
    for (const NoiseVadScene& s : scenes)
      if (keep(s)) out.push_back(&s);
    return out;
  };
  const auto noise_grid = of([](const NoiseVadScene& s) { return !s.echo; });
  std::vector<std::string> noise_systems;
  for (const std::string& s : systems)
    if (s != kSilero) noise_systems.push_back(s);

  line("## Noise suppression and speech detection");
  line("");
  line("Single-microphone chain (canceller, suppressor `ns_flag` 1, speech flag; `vad_mode` 2), classic and "
       "enhanced profiles, against SpeexDSP's preprocessor (denoise and VAD, behind its canceller) and, where "
       "node is installed, RNNoise and Silero VAD on microphone 0. Scenes: a speech-like talker 2-12 s in a room "
       "of RT60 0.3 s with one noise at 0, 5, 10, 15 and 20 dB SNR; for speech detection also each noise at 10 dB "
       "with the far end's echo (far end 0-8 s, talker 4-12 s).");
  if (!peers.ran) line("\nRNNoise and Silero VAD were not run: " + peers.why_not + ".");
  line("");
  for (int table = 0; table < 2; ++table) {
    line(table == 0 ? "### SNR gain, dB (mean over the five SNRs)" : "### SI-SDR change, dB (output minus microphone)");
    line("");
    std::string head = "| noise |", rule = "|---|";
    for (const auto& s : noise_systems) AddCell(head, s), rule += "---|";
    line(head);
    line(rule);
    std::vector<std::string> rows = NoiseNames();
    rows.push_back("mean");
    for (const std::string& noise : rows) {
      const auto cells = noise == "mean" ? noise_grid
                                         : of([&](const NoiseVadScene& s) { return !s.echo && s.noise == noise; });
      if (cells.empty()) continue;  // a filtered run: nothing of this noise
      std::string row = "| " + (noise == "mean" ? std::string("**mean**") : noise) + " |";
      for (const auto& s : noise_systems) AddCell(row, Fixed(MeanOver(results, s, cells, table == 0 ? SnrGain : SiSdrChange)));
      line(row);
    }
    line("");
  }
  line("SI-SDR change by input SNR (mean over the five noises):");
  line("");
  {
    std::string head = "| SNR in |", rule = "|---|";
    for (const auto& s : noise_systems) AddCell(head, s), rule += "---|";
    line(head);
    line(rule);
    for (double snr : NoiseSnrs()) {
      const auto cells = of([&](const NoiseVadScene& s) { return !s.echo && s.snr_db == snr; });
      if (cells.empty()) continue;
      std::string row = "| " + Fixed(snr, 0) + " dB |";
      for (const auto& s : noise_systems) AddCell(row, Fixed(MeanOver(results, s, cells, SiSdrChange)));
      line(row);
    }
  }
  line("");
  line("### Speech detection: precision / recall / F1");
  line("");
  std::string head = "| condition |", rule = "|---|";
  for (const auto& s : systems) AddCell(head, s), rule += "---|";
  line(head);
  line(rule);
  auto vad_row = [&](const std::string& label, const std::vector<const NoiseVadScene*>& cells) {
    if (cells.empty()) return;
    std::string row = "| " + label + " |";
    for (const auto& s : systems) {
      const VadScores v = Pooled(results, s, cells);
      AddCell(row, Fixed(v.precision, 2).append(" / ").append(Fixed(v.recall, 2)).append(" / **").append(Fixed(v.f1, 3)).append("**"));
    }
    line(row);
  };
  for (const std::string& noise : NoiseNames())
    vad_row(noise + " (0-20 dB)", of([&](const NoiseVadScene& s) { return !s.echo && s.noise == noise; }));
  vad_row("babble 15 dB", of([](const NoiseVadScene& s) { return !s.echo && s.noise == "babble" && s.snr_db == 15.0; }));
  vad_row("echo (each noise at 10 dB)", of([](const NoiseVadScene& s) { return s.echo; }));
  vad_row("**pooled, whole grid**", of([](const NoiseVadScene&) { return true; }));
  line("");
  line("Frames are scored against the talker's syllable labels, each system's flags moved back by its own "
       "latency. RNNoise and Silero VAD hear microphone 0 with no echo reference, so they cannot tell the far "
       "end from the talker.");
  return md;
}

}  // namespace

int RunNoiseVadSection(const fs::path& dir, const std::string& match) {
  std::vector<NoiseVadScene> scenes = NoiseVadScenes();
  std::erase_if(scenes, [&](const NoiseVadScene& s) { return s.cell.name.find(match) == std::string::npos; });
  if (scenes.empty()) {
    std::fprintf(stderr, "no noise or speech-detection scene matches \"%s\"\n", match.c_str());
    return 1;
  }
  std::vector<RenderedScene> rendered(scenes.size());
  std::map<std::string, const RenderedScene*> by_name;
  for (std::size_t i = 0; i < scenes.size(); ++i) {
    std::string error;
    if (!RenderScene(scenes[i].cell.scene, &rendered[i], &error)) {
      std::fprintf(stderr, "%s: %s\n", scenes[i].cell.name.c_str(), error.c_str());
      return 1;
    }
    by_name[scenes[i].cell.name] = &rendered[i];
  }
  const char* modules = std::getenv("VORN_NODE_PEERS");
  const LearnedPeerRuns peers = RunLearnedPeers(dir / "peers", modules ? modules : "", by_name);

  std::vector<std::string> systems = {kClassic.name, kEnhanced.name};
#ifdef VORN_WITH_SPEEXDSP
  systems.push_back(kSpeex);
#endif
  if (peers.ran) {
    systems.push_back(kRnnoise);
    systems.push_back(kSilero);
  }
  Results results;
  for (std::size_t i = 0; i < scenes.size(); ++i) {
    const std::string& name = scenes[i].cell.name;
    const RenderedScene& r = rendered[i];
    for (const VornConfig* config : {&kClassic, &kEnhanced}) {
      SystemRun run;
      std::string error;
      if (!RunVorn(*config, scenes[i].cell.scene, r, &run, &error)) {
        std::fprintf(stderr, "%s on %s: %s\n", config->name.c_str(), name.c_str(), error.c_str());
        return 1;
      }
      results[config->name][name] = ScoreRun(r, run);
    }
#ifdef VORN_WITH_SPEEXDSP
    static const SpeexConfig kSpeexChain{kSpeex, true, true, false, 256, 768};
    SystemRun speex;
    std::string error;
    if (!RunSpeex(kSpeexChain, r, &speex, &error)) {
      std::fprintf(stderr, "SpeexDSP on %s: %s\n", name.c_str(), error.c_str());
      return 1;
    }
    results[kSpeex][name] = ScoreRun(r, speex);
#endif
    if (peers.ran) {
      results[kRnnoise][name] = ScoreRun(r, peers.rnnoise.at(name));
      results[kSilero][name] = ScoreRun(r, peers.silero.at(name));
    }
    // Per-scene F1 on the log, so a weak condition can be traced to its scenes.
    std::string f1s;
    for (const std::string& s : systems) {
      const VadScores& v = results[s][name].vad;
      f1s += " " + s + " " + Fixed(v.precision, 2) + "/" + Fixed(v.recall, 2) + "/" + Fixed(v.f1, 3);
    }
    std::fprintf(stderr, "scored %s:%s\n", name.c_str(), f1s.c_str());
  }

  const std::string md = Markdown(scenes, results, systems, peers);
  std::FILE* file = std::fopen((dir / "noise_vad.md").c_str(), "w");
  if (file == nullptr) return 1;
  std::fputs(md.c_str(), file);
  std::fclose(file);
  // The cost is timed on the full grid's eighth scene; a filtered run does
  // not time anything.
  std::string speed;
  if (match.empty()) {
    speed = SpeedMarkdown(rendered[7], peers);
    if (std::FILE* f = std::fopen((dir / "noise_vad_speed.md").c_str(), "w")) {
      std::fputs(speed.c_str(), f);
      std::fclose(f);
    }
  }
  std::printf("%s\n%s", md.c_str(), speed.c_str());
  return 0;
}

}  // namespace vorn::bench
