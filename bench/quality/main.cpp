// vorn_bench_quality OUT_DIR: renders the bench's scenes, runs every system
// over each, and writes the quality section of the report (quality.md) with
// the data files the plots are drawn from. Everything here is deterministic:
// two runs write the same bytes.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quality/beam_grid.h"
#include "quality/direction_bench.h"
#include "quality/echo_bench.h"
#include "quality/grid.h"
#include "quality/level_grid.h"
#include "quality/markdown.h"
#include "quality/noise_vad_section.h"
#include "quality/scoring.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#include "vorn_proc.h"
#ifdef VORN_WITH_SPEEXDSP
#include "quality/speex_peer.h"
#endif

namespace {

using namespace vorn::bench;
namespace sim = vorn::sim;

constexpr std::size_t kMaxLag = 4096;
constexpr std::size_t kDoaSettleFrames = 62;      // one second of speech
constexpr std::size_t kEchoPlotWindowFrames = 9;  // 144 ms, about a syllable

// The systems compared on every scene. Vorn runs as the recognition chain on
// one microphone (the like-for-like peer of SpeexDSP, which has no array
// processing), the same chain behind an MVDR beam aimed at the talker, and
// the communication chain with the multi-channel post filter. The gain
// control is scored on its own sweep so that it does not blur the others.
// Switches: agc, bf, doa, aec, ns, azimuth (steered to the talker where it says so), vad_mode.
const VornConfig kVornMono{"Vorn 1-mic", {0, 0, 1, 1, 1, 0, 2}, false, false};
const VornConfig kVornArray{"Vorn array", {0, 2, 1, 1, 1, 0, 2}, true, true};
const VornConfig kVornPostFilter{"Vorn array + post filter", {0, 2, 1, 3, 2, 0, 2}, true, false};
const VornConfig kVornAgc{"Vorn 1-mic + AGC", {2, 0, 0, 1, 1, 0, 2}, false, false};
const char* const kUnprocessed = "mic 0 (no processing)";

struct Scored {
  long latency = 0;
  sim::Enhancement enhancement;
  sim::VadScores vad;
  double erle_db = 0.0, double_talk_si_sdr_db = 0.0, near_si_sdr_db = 0.0;
  double level_dbfs = 0.0;
  sim::DoaScores tracking;
  sim::DoaScores gated_tracking;  // updates permitted on speech frames only
  double utterance_error_deg = -1.0;
  SystemRun run;
};

Scored Score(const GridScene& cell, const sim::RenderedScene& rendered, SystemRun run) {
  Scored s;
  const sim::Signal mic0 = sim::Channel(rendered.mics, 0);
  sim::Signal target = rendered.target;
  target.resize(run.output.size(), 0.0f);
  s.latency = sim::FindLatency(target, run.output, kMaxLag);
  s.enhancement = sim::ScoreEnhancement(mic0, run.output, target, kMaxLag);
  const std::size_t lag = FrameLag(s.latency);
  s.vad = sim::ScoreVad(run.speech, rendered.truth.speech, lag);
  const sim::Signal aligned = sim::Advance(run.output, s.latency);
  if (cell.task == Task::kEcho) {
    s.erle_db = sim::ErleDb(mic0, aligned, rendered.truth);
    s.double_talk_si_sdr_db =
        sim::SiSdrDb(SpanSamples(aligned, rendered.truth.double_talk), SpanSamples(target, rendered.truth.double_talk));
    s.near_si_sdr_db = sim::SiSdrDb(SpanSamples(aligned, rendered.truth.near_single_talk),
                               SpanSamples(target, rendered.truth.near_single_talk));
  }
  s.level_dbfs = sim::ActiveLevelDbfs(run.output, rendered.truth.speech, lag);
  if (!run.azimuth_deg.empty())
    s.tracking =
        ScoreTracking(run.azimuth_deg, rendered.truth.speech, lag, rendered.truth.azimuth_deg, kDoaSettleFrames);
  if (!run.gated_azimuth_deg.empty())
    s.gated_tracking = ScoreTracking(run.gated_azimuth_deg, rendered.truth.speech, lag, rendered.truth.azimuth_deg,
                                     kDoaSettleFrames);
  if (run.utterance_azimuth_deg >= 0.0)
    s.utterance_error_deg = sim::AzimuthErrorDeg(run.utterance_azimuth_deg, rendered.truth.azimuth_deg);
  s.run = std::move(run);
  return s;
}

struct System {
  std::string name;
  std::function<bool(const GridScene&, const sim::RenderedScene&, SystemRun*, std::string*)> run;
  bool for_levels_only = false;
};

std::vector<System> Systems() {
  std::vector<System> systems;
  systems.push_back({kUnprocessed, [](const GridScene&, const sim::RenderedScene& r, SystemRun* out, std::string*) {
                       *out = RunUnprocessed(r);
                       return true;
                     }});
  for (const VornConfig* config : {&kVornMono, &kVornArray, &kVornPostFilter, &kVornAgc}) {
    systems.push_back({config->name,
                       [config](const GridScene& cell, const sim::RenderedScene& r, SystemRun* out,
                                std::string* error) {
                         if (!RunVorn(*config, cell.scene, r, out, error)) return false;
                         if (config != &kVornArray || cell.task != Task::kDirection) return true;
                         // The tracker averages every decision it is allowed to
                         // make, pauses included; the caller's update flag is
                         // how a device holds it while nobody talks. Scored
                         // both ways so the report separates the two.
                         VornConfig held = *config;
                         held.utterance_doa = false;
                         held.doa_updates_on_speech = true;
                         SystemRun gated;
                         if (!RunVorn(held, cell.scene, r, &gated, error)) return false;
                         out->gated_azimuth_deg = std::move(gated.azimuth_deg);
                         return true;
                       },
                       config == &kVornAgc});
  }
#ifdef VORN_WITH_SPEEXDSP
  static const SpeexConfig kSpeex{"SpeexDSP", true, true, false, 256, 768};
  static const SpeexConfig kSpeexAgc{"SpeexDSP + AGC", true, true, true, 256, 768};
  for (const SpeexConfig* config : {&kSpeex, &kSpeexAgc}) {
    systems.push_back({config->name,
                       [config](const GridScene&, const sim::RenderedScene& r, SystemRun* out, std::string* error) {
                         return RunSpeex(*config, r, out, error);
                       },
                       config == &kSpeexAgc});
  }
#endif
  return systems;
}

// ---- plot data -----------------------------------------------------------

void WriteSpectrogram(const std::filesystem::path& path, const sim::Signal& x) {
  const auto rows = Spectrogram(x, 512, 256);
  std::FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return;
  for (std::size_t t = 0; t < rows.size(); ++t) {
    for (std::size_t k = 0; k < rows[t].size(); k += 2)
      std::fprintf(file, "%.3f %.0f %.1f\n", static_cast<double>(t * 256 + 256) / sim::kSampleRate,
                   static_cast<double>(k) * sim::kSampleRate / 512.0, rows[t][k]);
    std::fprintf(file, "\n");
  }
  std::fclose(file);
}

struct Results {
  std::vector<std::string> system_names;
  // scene name -> system name -> scores
  std::map<std::string, std::map<std::string, Scored>> by_scene;
  std::vector<GridScene> scenes;
};

const Scored* Find(const Results& results, const std::string& scene, const std::string& system) {
  auto s = results.by_scene.find(scene);
  if (s == results.by_scene.end()) return nullptr;
  auto r = s->second.find(system);
  return r == s->second.end() ? nullptr : &r->second;
}

// The VAD counts of one system pooled over one task's scenes.
sim::VadScores PooledVad(const Results& results, Task task, const std::string& system) {
  std::vector<sim::VadScores> scores;
  for (const GridScene& c : results.scenes)
    if (c.task == task)
      if (const Scored* s = Find(results, c.name, system)) scores.push_back(s->vad);
  return PoolVad(scores);
}

void WritePlotData(const std::filesystem::path& dir, const Results& results,
                   const std::map<std::string, sim::RenderedScene>& kept) {
  // Direction error over the grid.
  if (std::FILE* f = std::fopen((dir / "doa.dat").c_str(), "w")) {
    std::fprintf(f, "# rt60 snr tracking_mean_err within10 utterance_err\n");
    for (const GridScene& cell : results.scenes) {
      if (cell.task != Task::kDirection) continue;
      const Scored* s = Find(results, cell.name, kVornArray.name);
      if (s == nullptr) continue;
      std::fprintf(f, "%.1f %.0f %.2f %.3f %.1f\n", cell.scene.room.rt60_s, cell.scene.noises[0].snr_db,
                   s->tracking.mean_error_deg, s->tracking.share_within_10, s->utterance_error_deg);
    }
    std::fclose(f);
  }
  // Echo attenuation over time on the plain echo scene.
  const char* echo_scene = "echo_plain";
  if (auto it = kept.find(echo_scene); it != kept.end()) {
    const sim::RenderedScene& r = it->second;
    const sim::Signal mic0 = sim::Channel(r.mics, 0);
    std::vector<std::string> names;
    std::vector<std::vector<double>> curves;
    for (const std::string& name : results.system_names) {
      const Scored* s = Find(results, echo_scene, name);
      if (s == nullptr || name == kUnprocessed) continue;
      names.push_back(name);
      curves.push_back(FrameAttenuationDb(mic0, sim::Advance(s->run.output, s->latency), kEchoPlotWindowFrames));
    }
    if (std::FILE* f = std::fopen((dir / "echo_time.dat").c_str(), "w")) {
      std::fprintf(f, "time far_active near_active");
      for (const auto& n : names) std::fprintf(f, " \"%s\"", n.c_str());
      std::fprintf(f, "\n");
      for (std::size_t t = 0; t < r.truth.far_end.size(); ++t) {
        std::fprintf(f, "%.3f %d %d", static_cast<double>(t * 256) / sim::kSampleRate, r.truth.far_end[t],
                     t < r.truth.speech.size() ? r.truth.speech[t] : 0);
        for (const auto& c : curves) std::fprintf(f, " %.2f", t < c.size() ? c[t] : 0.0);
        std::fprintf(f, "\n");
      }
      std::fclose(f);
    }
  }
  // Spectrograms before and after on the noisy echo scene.
  const char* spectrogram_scene = "echo_noisy_delayed";
  if (auto it = kept.find(spectrogram_scene); it != kept.end()) {
    WriteSpectrogram(dir / "spectrogram_mic0.dat", sim::Channel(it->second.mics, 0));
    if (const Scored* s = Find(results, spectrogram_scene, kVornMono.name))
      WriteSpectrogram(dir / "spectrogram_vorn_mono.dat", s->run.output);
    if (const Scored* s = Find(results, spectrogram_scene, "SpeexDSP"))
      WriteSpectrogram(dir / "spectrogram_speex.dat", s->run.output);
  }
  // Speech flags against the truth on one grid cell.
  const char* vad_scene = "doa_rt0.4_snr10";
  if (auto it = kept.find(vad_scene); it != kept.end()) {
    const sim::RenderedScene& r = it->second;
    const sim::Signal mic0 = sim::Channel(r.mics, 0);
    const Scored* mono = Find(results, vad_scene, kVornMono.name);
    const Scored* array = Find(results, vad_scene, kVornArray.name);
    const Scored* speex = Find(results, vad_scene, "SpeexDSP");
    if (std::FILE* f = std::fopen((dir / "vad.dat").c_str(), "w")) {
      std::fprintf(f,
                   "# time mic0_dbfs truth vorn_mono vorn_array speex "
                   "(flags moved back by each latency)\n");
      auto flag = [](const Scored* s, std::size_t t) -> int {
        if (s == nullptr) return -1;
        const std::size_t at = t + FrameLag(s->latency);
        return at < s->run.speech.size() ? s->run.speech[at] : -1;
      };
      for (std::size_t t = 0; t < r.truth.speech.size() && (t + 1) * 256 <= mic0.size(); ++t) {
        const double rms = vorn::sim::Rms(mic0.data() + t * 256, 256);
        std::fprintf(f, "%.3f %.1f %d %d %d %d\n", static_cast<double>(t * 256) / sim::kSampleRate,
                     20.0 * std::log10(rms / 32768.0 + 1e-9), r.truth.speech[t], flag(mono, t), flag(array, t),
                     flag(speex, t));
      }
      std::fclose(f);
    }
  }
  // Output level against input level over the sweep.
  if (std::FILE* f = std::fopen((dir / "agc.dat").c_str(), "w")) {
    std::fprintf(f, "# talker_dbfs unprocessed vorn_agc speex_agc\n");
    for (const GridScene& cell : results.scenes) {
      if (cell.task != Task::kLevel) continue;
      const Scored* base = Find(results, cell.name, kUnprocessed);
      const Scored* vorn = Find(results, cell.name, kVornAgc.name);
      const Scored* speex = Find(results, cell.name, "SpeexDSP + AGC");
      std::fprintf(f, "%.0f %.2f %.2f %s\n", cell.scene.talker_level_dbfs, base ? base->level_dbfs : 0.0,
                   vorn ? vorn->level_dbfs : 0.0, speex ? Fixed(speex->level_dbfs, 2).c_str() : "NaN");
    }
    std::fclose(f);
  }
}

// ---- the markdown ----------------------------------------------------------

std::vector<std::string> SystemsFor(const Results& results, Task task) {
  std::vector<std::string> names;
  for (const std::string& name : results.system_names) {
    const bool agc = name == kVornAgc.name || name == "SpeexDSP + AGC";
    if ((task == Task::kLevel) == agc || (task == Task::kLevel && name == kUnprocessed)) names.push_back(name);
  }
  return names;
}

std::string QualityMarkdown(const Results& results) {
  std::string md;
  auto line = [&md](const std::string& text) { md += text + "\n"; };
  auto cells = [&results](Task task) {
    std::vector<const GridScene*> out;
    for (const GridScene& c : results.scenes)
      if (c.task == task) out.push_back(&c);
    return out;
  };

  // Direction.
  line("### Direction of arrival");
  line("");
  line(
      "Vorn array configuration, per-frame tracking (`doa_flag` 1) scored on "
      "speech frames after the first "
      "second of speech, with `doa_update_flag` 1 on every frame (\"track\") and "
      "with it set only on speech-labelled frames (\"held\", a caller that holds "
      "the tracker in pauses with a perfect speech detector), and the utterance search (`VornDoa`, `doa_flag` 2) "
      "over the talker's window. Diffuse "
      "pink noise at the SNR given; the talker's azimuth differs per cell. "
      "SpeexDSP has no direction finding; a "
      "guess that ignores the audio errs by 90° on average and is within 10° "
      "5.6 % of the time.");
  line("");
  line("| RT60 \\ SNR | 0 dB | 10 dB | 20 dB |");
  line("|---|---|---|---|");
  double track_sum = 0.0, within_sum = 0.0, held_sum = 0.0, held_within_sum = 0.0, utt_sum = 0.0;
  int utt_within = 0, n = 0;
  for (double rt60 : {0.2, 0.4, 0.7}) {
    std::string row = "| " + Fixed(rt60) + " s |";
    for (const GridScene* c : cells(Task::kDirection)) {
      if (std::abs(c->scene.room.rt60_s - rt60) > 1e-9) continue;
      const Scored* s = Find(results, c->name, kVornArray.name);
      if (s == nullptr) continue;
      row += " track " + Fixed(s->tracking.mean_error_deg) + "° (" + Fixed(100.0 * s->tracking.share_within_10, 0) +
             " % ≤10°), held " + Fixed(s->gated_tracking.mean_error_deg) + "° (" +
             Fixed(100.0 * s->gated_tracking.share_within_10, 0) + " % ≤10°), utterance " +
             Fixed(s->utterance_error_deg, 0) + "° |";
      track_sum += s->tracking.mean_error_deg;
      within_sum += s->tracking.share_within_10;
      held_sum += s->gated_tracking.mean_error_deg;
      held_within_sum += s->gated_tracking.share_within_10;
      utt_sum += s->utterance_error_deg;
      utt_within += s->utterance_error_deg <= 10.0 ? 1 : 0;
      ++n;
    }
    line(row);
  }
  if (n > 0) {
    line("");
    line("Over the grid: tracking mean error " + Fixed(track_sum / n) + "°, " + Fixed(100.0 * within_sum / n, 0) +
         " % of speech frames within 10°; held in pauses " + Fixed(held_sum / n) + "°, " +
         Fixed(100.0 * held_within_sum / n, 0) + " % within 10°; utterance search mean error " + Fixed(utt_sum / n) + "°, " +
         std::to_string(utt_within) + " of " + std::to_string(n) + " scenes within 10°.");
  }
  line("");

  // Noise suppression.
  line("### Noise suppression (direction grid, 9 scenes)");
  line("");
  line(
      "SNR judged by the clean target (speech frames against noise-only "
      "frames), SI-SDR against the clean "
      "target at microphone 0; changes are against microphone 0. Means over "
      "the three cells of each input SNR.");
  line("");
  line(
      "| system | ΔSNR at 0 dB | at 10 dB | at 20 dB | mean SI-SDR in → out "
      "(dB) |");
  line("|---|---|---|---|---|");
  for (const std::string& name : SystemsFor(results, Task::kDirection)) {
    double dsnr[3] = {0, 0, 0}, si_in = 0, si_out = 0;
    int count[3] = {0, 0, 0}, all = 0;
    for (const GridScene* c : cells(Task::kDirection)) {
      const Scored* s = Find(results, c->name, name);
      if (s == nullptr) continue;
      const int band = static_cast<int>(std::lround(c->scene.noises[0].snr_db / 10.0));
      dsnr[band] += s->enhancement.SnrImprovementDb();
      ++count[band];
      si_in += s->enhancement.si_sdr_in_db;
      si_out += s->enhancement.si_sdr_out_db;
      ++all;
    }
    if (all == 0) continue;
    std::string row = "| " + name + " |";
    for (int b = 0; b < 3; ++b) AddCell(row, count[b] ? Fixed(dsnr[b] / count[b]) : std::string("–"));
    AddCell(row, Fixed(si_in / all) + " → " + Fixed(si_out / all));
    line(row);
  }
  line("");

  // VAD.
  line("### Voice activity");
  line("");
  line(
      "Per 16 ms frame against the talker's syllable labels, flags moved back "
      "by each system's latency; "
      "counts pooled over the scenes. \"mic 0\" is the detector that calls "
      "every frame speech.");
  line("");
  line(
      "| system | noise grid: precision | recall | F1 | echo scenes: "
      "precision | recall | F1 |");
  line("|---|---|---|---|---|---|---|");
  for (const std::string& name : SystemsFor(results, Task::kDirection)) {
    std::string row = "| " + name + " |";
    for (Task task : {Task::kDirection, Task::kEcho}) {
      const sim::VadScores pooled = PooledVad(results, task, name);
      const double precision = pooled.precision, recall = pooled.recall, f1 = pooled.f1;
      AddCell(row, Fixed(precision, 3));
      AddCell(row, Fixed(recall, 3));
      AddCell(row, Fixed(f1, 3));
    }
    line(row);
  }
  line("");

  // Echo.
  line("### Echo cancellation");
  line("");
  line(
      "Far end 0-8 s, talker 4-12 s. ERLE: microphone over output energy in "
      "far single talk (syllables only). "
      "SI-SDR of the near-end talker in double talk and in near single talk "
      "(the echo canceller must leave "
      "it alone). Filter length 768 samples (48 ms) on both sides.");
  line("");
  line(
      "| scene | system | ERLE far single talk (dB) | SI-SDR double talk (dB) "
      "| SI-SDR near single talk (dB) |");
  line("|---|---|---|---|---|");
  for (const GridScene* c : cells(Task::kEcho)) {
    for (const std::string& name : SystemsFor(results, Task::kEcho)) {
      const Scored* s = Find(results, c->name, name);
      if (s == nullptr) continue;
      line("| " + c->name + " | " + name + " | " + Fixed(s->erle_db) + " | " + Fixed(s->double_talk_si_sdr_db) + " | " +
           Fixed(s->near_si_sdr_db) + " |");
    }
  }
  line("");

  // Level.
  line("### Gain control (level sweep)");
  line("");
  line(
      "Active speech level of the output (dBFS) as the talker goes from -50 "
      "to -10 dBFS at microphone 0; "
      "the spread is the largest minus the smallest level (smaller is "
      "better).");
  line("");
  const auto level_systems = SystemsFor(results, Task::kLevel);
  std::string header = "| talker level |", rule = "|---|";
  for (const auto& name : level_systems) {
    AddCell(header, name);
    rule += "---|";
  }
  line(header);
  line(rule);
  std::map<std::string, std::vector<double>> levels;
  for (const GridScene* c : cells(Task::kLevel)) {
    std::string row = "| " + Fixed(c->scene.talker_level_dbfs, 0) + " dBFS |";
    for (const auto& name : level_systems) {
      const Scored* s = Find(results, c->name, name);
      AddCell(row, s ? Fixed(s->level_dbfs) : std::string("–"));
      if (s) levels[name].push_back(s->level_dbfs);
    }
    line(row);
  }
  std::string spread = "| spread |";
  for (const auto& name : level_systems) AddCell(spread, Fixed(sim::LevelSpreadDb(levels[name])) + " dB");
  line(spread);
  line("");
  return md;
}

// Mean of a figure over the scenes of one task for one system (NaN when the
// system did not run there).
template <typename Figure>
double MeanOver(const Results& results, Task task, const std::string& system, Figure figure) {
  double sum = 0.0;
  int count = 0;
  for (const GridScene& c : results.scenes) {
    if (c.task != task) continue;
    if (const Scored* s = Find(results, c.name, system)) {
      sum += figure(*s);
      ++count;
    }
  }
  return count ? sum / count : std::nan("");
}

double PooledF1(const Results& results, Task task, const std::string& system) {
  return PooledVad(results, task, system).f1;
}

double Spread(const Results& results, const std::string& system) {
  std::vector<double> levels;
  for (const GridScene& c : results.scenes)
    if (c.task == Task::kLevel)
      if (const Scored* s = Find(results, c.name, system)) levels.push_back(s->level_dbfs);
  return levels.empty() ? std::nan("") : sim::LevelSpreadDb(levels);
}

// One line per task: Vorn (one microphone / array), the peer, the baseline.
std::string HeadlineMarkdown(const Results& results) {
  const std::string speex = "SpeexDSP", speex_agc = "SpeexDSP + AGC";
  std::string md;
  md += "| task | figure | Vorn 1-mic / array | SpeexDSP | mic 0 (no processing) |\n";
  md += "|---|---|---|---|---|\n";
  auto row = [&md](const std::string& task, const std::string& figure, const std::string& vorn, const std::string& peer,
                   const std::string& base) {
    md += "| " + task + " | " + figure + " | " + vorn + " | " + peer + " | " + base + " |\n";
  };
  auto both = [&results](Task task, auto figure, int decimals = 1) {
    return Cell(MeanOver(results, task, kVornMono.name, figure), decimals) + " / " +
           Cell(MeanOver(results, task, kVornArray.name, figure), decimals);
  };
  auto one = [&results](Task task, const std::string& system, auto figure, int decimals = 1) {
    return Cell(MeanOver(results, task, system, figure), decimals);
  };
  const auto erle = [](const Scored& s) { return s.erle_db; };
  const auto double_talk = [](const Scored& s) { return s.double_talk_si_sdr_db; };
  const auto dsnr = [](const Scored& s) { return s.enhancement.SnrImprovementDb(); };
  const auto si_sdr = [](const Scored& s) { return s.enhancement.si_sdr_out_db; };
  row("echo", "ERLE in far single talk, dB (mean of 3 scenes)", both(Task::kEcho, erle), one(Task::kEcho, speex, erle),
      one(Task::kEcho, kUnprocessed, erle));
  row("echo", "near talker SI-SDR in double talk, dB", both(Task::kEcho, double_talk),
      one(Task::kEcho, speex, double_talk), one(Task::kEcho, kUnprocessed, double_talk));
  row("noise", "SNR gain, dB (mean of 9 scenes, 0-20 dB in)", both(Task::kDirection, dsnr),
      one(Task::kDirection, speex, dsnr), one(Task::kDirection, kUnprocessed, dsnr));
  row("noise", "SI-SDR of the output, dB", both(Task::kDirection, si_sdr), one(Task::kDirection, speex, si_sdr),
      one(Task::kDirection, kUnprocessed, si_sdr));
  row("VAD", "F1 on the noise grid",
      Fixed(PooledF1(results, Task::kDirection, kVornMono.name), 3) + " / " +
          Fixed(PooledF1(results, Task::kDirection, kVornArray.name), 3),
      results.by_scene.begin()->second.count(speex) ? Fixed(PooledF1(results, Task::kDirection, speex), 3) : "–",
      Fixed(PooledF1(results, Task::kDirection, kUnprocessed), 3) + " (all speech)");
  const double utterance =
      MeanOver(results, Task::kDirection, kVornArray.name, [](const Scored& s) { return s.utterance_error_deg; });
  const double tracking =
      MeanOver(results, Task::kDirection, kVornArray.name, [](const Scored& s) { return s.tracking.mean_error_deg; });
  row("direction", "mean azimuth error, degrees (utterance search; per-frame tracking)",
      "– / " + Cell(utterance) + "; " + Cell(tracking), "no direction finding", "90 (a guess)");
  row("gain control", "output level spread over a 40 dB talker sweep, dB",
      Cell(Spread(results, kVornAgc.name)) + " (1-mic + AGC)", Cell(Spread(results, speex_agc)),
      Cell(Spread(results, kUnprocessed)));
  return md;
}

// Where Vorn trails the peer (or the unprocessed microphone) on a task it
// claims, with the figures and the reason as far as the measurements show
// it. Each paragraph appears only while the gap is there.
std::string FindingsMarkdown(const Results& results) {
  const std::string speex = "SpeexDSP";
  std::string md;
  auto mean = [&results](Task task, const std::string& system, auto figure) {
    return MeanOver(results, task, system, figure);
  };
  const auto erle = [](const Scored& s) { return s.erle_db; };
  const auto double_talk = [](const Scored& s) { return s.double_talk_si_sdr_db; };
  const auto si_sdr = [](const Scored& s) { return s.enhancement.si_sdr_out_db; };
  const auto dsnr = [](const Scored& s) { return s.enhancement.SnrImprovementDb(); };

  const double vorn_dt = mean(Task::kEcho, kVornMono.name, double_talk);
  const double peer_dt = mean(Task::kEcho, speex, double_talk);
  if (vorn_dt < peer_dt) {
    md += "- **Double talk (echo).** Vorn keeps less of the near talker while the far end talks: SI-SDR " +
          Fixed(vorn_dt) + " dB against SpeexDSP's " + Fixed(peer_dt) +
          " dB (1-mic configuration, mean of the echo scenes). It buys that with far more echo removal (ERLE " +
          Fixed(mean(Task::kEcho, kVornMono.name, erle)) + " against " + Fixed(mean(Task::kEcho, speex, erle)) +
          " dB): its nonlinear suppression follows the coherence between the far end and the microphone and "
          "cuts every band where echo is likely, near speech included, while SpeexDSP's residual echo "
          "suppressor subtracts an estimate of the residue and lets more of the talker (and of the echo) through. "
          "The spectrograms show it: during 4-8 s Vorn's output goes dark with each far-end syllable, near talker "
          "included.\n";
  }
  const double post_erle = mean(Task::kEcho, kVornPostFilter.name, erle);
  if (post_erle < mean(Task::kEcho, speex, erle)) {
    md += "- **Post filter and echo.** With the multi-channel post filter (`ns_flag` 2) the echo comes back: ERLE " +
          Fixed(post_erle) +
          " dB. The post filter takes its three beams straight from the beamformer, ahead of the echo "
          "canceller, so the echo they carry reaches the output; the communication chain needs `ns_flag` 1 "
          "while the loudspeaker plays.\n";
  }
  const double vorn_si = mean(Task::kDirection, kVornMono.name, si_sdr);
  const double peer_si = mean(Task::kDirection, speex, si_sdr);
  if (vorn_si < peer_si) {
    md += "- **Speech distortion (noise).** Vorn removes more noise (SNR gain " +
          Fixed(mean(Task::kDirection, kVornMono.name, dsnr)) + " dB against " +
          Fixed(mean(Task::kDirection, speex, dsnr)) +
          " dB) but its output matches the clean talker less well: " + "SI-SDR " + Fixed(vorn_si) +
          " dB against SpeexDSP's " + Fixed(peer_si) + " dB and the microphone's " +
          Fixed(mean(Task::kDirection, kUnprocessed, si_sdr)) +
          " dB. Its suppressor applies deep gains in low-SNR bins inside speech as well (and the beam in the "
          "array configuration adds its own coloration), which SI-SDR counts as distortion; SpeexDSP "
          "suppresses so gently that its output stays as close to the talker as the microphone was.\n";
  }
  const double vorn_spread = Spread(results, kVornAgc.name);
  const double peer_spread = Spread(results, "SpeexDSP + AGC");
  if (vorn_spread > peer_spread) {
    md += "- **Gain control.** Over a 40 dB talker sweep Vorn's output levels spread over " + Fixed(vorn_spread) +
          " dB, SpeexDSP's over " + Fixed(peer_spread) +
          " dB. Vorn's AGC is a compressor with a bounded gain: quiet talkers get about 20 dB and stay "
          "quiet, loud ones are held near -15 dBFS. SpeexDSP's AGC slowly steers its gain (up to 30 dB) "
          "towards a fixed target level.\n";
  }
  const double vad_echo = PooledF1(results, Task::kEcho, kVornMono.name);
  const double vad_all_speech = PooledF1(results, Task::kEcho, kUnprocessed);
  if (vad_echo < vad_all_speech + 0.02) {
    md += "- **Speech flag under echo** (SpeexDSP no better). In the echo scenes Vorn's VAD reaches F1 " +
          Fixed(vad_echo, 3) + ", no better than calling every frame speech (" + Fixed(vad_all_speech, 3) +
          "): it flags the far end's echo as speech through far single talk, although the VAD path listens to "
          "the canceller's output and its coherence. On the noise grid, without echo, it does beat that "
          "baseline (F1 " +
          Fixed(PooledF1(results, Task::kDirection, kVornMono.name), 3) + ").\n";
  }
  const double tracking =
      mean(Task::kDirection, kVornArray.name, [](const Scored& s) { return s.tracking.mean_error_deg; });
  if (tracking > 30.0) {
    const double held =
        mean(Task::kDirection, kVornArray.name, [](const Scored& s) { return s.gated_tracking.mean_error_deg; });
    md += "- **Direction tracking** (no peer). The per-frame azimuth errs by " + Fixed(tracking) +
          "° on average over the grid. It is the plain mean, in degrees and without wrap-around at 0/360, of "
          "the last 64 per-hop decisions (about a second), and every hop the caller permits adds one: with "
          "`doa_update_flag` always 1 the pauses between syllables add scattered decisions whose mean sits "
          "near 180°, so the track leans towards 180° whatever the talker's azimuth. Held in pauses it errs "
          "by " +
          Fixed(held) +
          "°; what remains comes from reverberation and noise, where single-hop decisions scatter (the "
          "utterance search pools scores over many hops instead), and from talkers near 0°, where the "
          "plain mean splits 5° and 355° into 180°.\n";
  }
  return md;
}

}  // namespace

int main(int argc, char** argv) {
  // --only TOPIC runs one section alone (direction, noise_vad, beam, level
  // or echo; beam and level go to OUT_DIR/sections, which the report
  // links); --match TEXT keeps the direction, echo or noise_vad section's scenes whose
  // name contains TEXT, or the beam section's part so named (look, adaptive,
  // fault): a quicker look while developing; --fresh runs the direction
  // section on its fresh draw of scenes (direction_fresh.md), --draw NUMBERS on
  // a draw given as ParseDrawRecipe reads it (direction_draw.md); --system TEXT
  // keeps the echo section's systems whose "chain/system" label contains
  // TEXT and prints their figures per scene.
  std::string only, match, system_match, draw_text;
  bool fresh = false;
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--fresh")
      fresh = true;
    else if ((arg == "--only" || arg == "--match" || arg == "--system" || arg == "--draw") && i + 1 < argc)
      (arg == "--only" ? only : arg == "--match" ? match : arg == "--draw" ? draw_text : system_match) = argv[++i];
    else
      rest.push_back(arg);
  }
  const bool known = only.empty() || only == "direction" || only == "noise_vad" || only == "beam" || only == "level" ||
                     only == "echo";
  // An unknown option (--help among them) is a request for the usage, never
  // the name of an output directory to fill with a whole report.
  const bool dashed = !rest.empty() && rest[0].rfind("-", 0) == 0;
  const bool drawn = fresh || !draw_text.empty();
  if (rest.size() != 1 || !known || dashed || (drawn && only != "direction") || (fresh && !draw_text.empty())) {
    std::fprintf(stderr,
                 "usage: vorn_bench_quality OUT_DIR [--only direction|noise_vad|beam|level|echo] [--match TEXT] "
                 "[--system TEXT] [--fresh | --draw STILL_SEED,WALK_SEED,FIRST_DEG,STEP_DEG,FIRST_HEIGHT,"
                 "WALK_FIRST_DEG (with --only direction)]\n");
    return 2;
  }
  DirectionDrawRecipe given{};
  if (std::string draw_error; !draw_text.empty() && !ParseDrawRecipe(draw_text, &given, &draw_error)) {
    std::fprintf(stderr, "%s\n", draw_error.c_str());
    return 2;
  }
  const std::filesystem::path dir = rest[0];
  std::filesystem::create_directories(dir);
  if (only == "direction") {
    const DirectionDraw draw = fresh ? DirectionDraw::kFresh
                               : draw_text.empty() ? DirectionDraw::kTuned
                                                   : DirectionDraw::kGiven;
    return RunDirectionBench(dir, match, draw, draw == DirectionDraw::kGiven ? given : RecipeOf(draw));
  }
  if (only == "noise_vad") return vorn::bench::RunNoiseVadSection(dir, match);
  std::string echo_error;
  if (only == "echo") {
    if (RunEchoBench(dir, match, system_match, &echo_error)) return 0;
    std::fprintf(stderr, "%s\n", echo_error.c_str());
    return 1;
  }
  std::string section_error;
  const std::filesystem::path sections = dir / "sections";
  std::filesystem::create_directories(sections);
  if (only.empty() || only == "beam") {
    if (!WriteBeamReport(sections, only == "beam" ? match : std::string(), &section_error)) {
      std::fprintf(stderr, "beam section: %s\n", section_error.c_str());
      return 1;
    }
    std::fprintf(stderr, "wrote %s\n", (sections / "beam.md").c_str());
  }
  if (only.empty() || only == "level") {
    if (!WriteLevelReport(sections, &section_error)) {
      std::fprintf(stderr, "level section: %s\n", section_error.c_str());
      return 1;
    }
    std::fprintf(stderr, "wrote %s\n", (sections / "level.md").c_str());
  }
  if (!only.empty()) return 0;
  if (const int rc = vorn::bench::RunNoiseVadSection(dir); rc != 0) return rc;
  Results results;
  results.scenes = AllScenes();
  const std::vector<System> systems = Systems();
  for (const System& s : systems) results.system_names.push_back(s.name);
  const std::vector<std::string> kept_scenes = {"echo_plain", "echo_noisy_delayed", "doa_rt0.4_snr10"};
  std::map<std::string, sim::RenderedScene> kept;
  for (const GridScene& cell : results.scenes) {
    sim::RenderedScene rendered;
    std::string error;
    if (!sim::RenderScene(cell.scene, &rendered, &error)) {
      std::fprintf(stderr, "%s: %s\n", cell.name.c_str(), error.c_str());
      return 1;
    }
    for (const System& system : systems) {
      if (system.for_levels_only != (cell.task == Task::kLevel) && system.name != kUnprocessed) continue;
      SystemRun run;
      if (!system.run(cell, rendered, &run, &error)) {
        std::fprintf(stderr, "%s on %s: %s\n", system.name.c_str(), cell.name.c_str(), error.c_str());
        return 1;
      }
      results.by_scene[cell.name][system.name] = Score(cell, rendered, std::move(run));
    }
    std::fprintf(stderr, "scored %s\n", cell.name.c_str());
    for (const auto& keep : kept_scenes)
      if (keep == cell.name) kept[cell.name] = std::move(rendered);
  }
  WritePlotData(dir, results, kept);
  const std::string md = QualityMarkdown(results);
  std::FILE* file = std::fopen((dir / "quality.md").c_str(), "w");
  if (file == nullptr) {
    std::fprintf(stderr, "cannot write %s\n", (dir / "quality.md").c_str());
    return 1;
  }
  std::fputs(md.c_str(), file);
  std::fclose(file);
  if (std::FILE* findings = std::fopen((dir / "findings.md").c_str(), "w")) {
    std::fputs(FindingsMarkdown(results).c_str(), findings);
    std::fclose(findings);
  }
  if (std::FILE* headline = std::fopen((dir / "headline.md").c_str(), "w")) {
    std::fputs(HeadlineMarkdown(results).c_str(), headline);
    std::fclose(headline);
  }
  std::printf("%s", md.c_str());
  if (const int rc = RunDirectionBench(dir, "", DirectionDraw::kTuned, RecipeOf(DirectionDraw::kTuned)); rc != 0)
    return rc;
  if (!RunEchoBench(dir, "", "", &echo_error)) {
    std::fprintf(stderr, "%s\n", echo_error.c_str());
    return 1;
  }
  return 0;
}
