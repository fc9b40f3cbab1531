// The echo bench. Three chains of Vorn, each in both profiles:
//   recognition  aec 1, ns 1, no AGC (ERLE, the near talker in double talk);
//   wake-up      aec 1, ns 1, AGC 1, VAD mode 1 (speech flags under echo, the
//                output level after the AGC while only the far end talks);
//   communication  MVDR beam at the talker, aec 3, the multi-channel post
//                filter (ns 2), no AGC (ERLE).
// SpeexDSP's canceller with a 768- and a 2048-tap filter, followed by its
// preprocessor (denoise, VAD, residual echo suppression; AGC for the wake-up
// comparison), is the peer on the same samples.
#include "quality/echo_bench.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <vector>

#include "quality/echo_grid.h"
#include "quality/scoring.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#include "vorn_proc.h"
#ifdef VORN_WITH_SPEEXDSP
#include "quality/speex_peer.h"
#endif

namespace vorn::bench {
namespace {

using namespace sim;

constexpr std::size_t kMaxLag = 4096;
constexpr std::size_t kFramesPerSecond = kSampleRate / kFrame;
constexpr std::size_t kAll = static_cast<std::size_t>(-1);

enum class Chain { kRecognition, kWakeUp, kCommunication };
constexpr Chain kChains[] = {Chain::kRecognition, Chain::kWakeUp, Chain::kCommunication};

const char* const kClassic = "classic";
const char* const kEnhanced = "enhanced";
const char* const kSpeex768 = "SpeexDSP-768";
const char* const kSpeex2048 = "SpeexDSP-2048";

struct EchoScore {
  long latency = 0;
  double erle_whole = NAN, erle_converged = NAN;
  double erle_before_change = NAN, erle_after_change = NAN;  // [converged, change), [change + 1 s, change + 3 s)
  double relock_s = NAN;  // from the change until a 250 ms window's ERLE is back within 3 dB of erle_before_change
  std::vector<double> window_erle;  // per short window from the change on (the trace behind relock_s)
  double double_talk_si_sdr = NAN;
  VadScores vad;
  std::size_t alone_frames = 0, alone_flagged = 0;  // far single talk
};

struct System {
  std::string name;
  Chain chain;
  std::function<bool(const EchoScene&, const RenderedScene&, SystemRun*, std::string*)> run;
};

VornConfig ChainConfig(Chain chain, int profile) {
  VornConfig c;
  switch (chain) {
    case Chain::kRecognition: c = {"recognition", {0, 0, 0, 1, 1, 0, 2}}; break;
    case Chain::kWakeUp: c = {"wake-up", {1, 0, 0, 1, 1, 0, 1}}; break;
    case Chain::kCommunication: c = {"communication", {0, 2, 0, 3, 2, 0, 2}, true}; break;
  }
  c.profile = profile;
  return c;
}

std::vector<System> Systems() {
  std::vector<System> systems;
  for (Chain chain : kChains) {
    for (int profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
      const VornConfig config = ChainConfig(chain, profile);
      systems.push_back({profile == VORN_PROFILE_CLASSIC ? kClassic : kEnhanced, chain,
                         [config](const EchoScene& s, const RenderedScene& r, SystemRun* out, std::string* error) {
                           return RunVorn(config, s.scene, r, out, error);
                         }});
    }
#ifdef VORN_WITH_SPEEXDSP
    if (chain == Chain::kCommunication) continue;  // the peer has no multi-channel chain
    for (int taps : {768, 2048}) {
      const SpeexConfig config{taps == 768 ? kSpeex768 : kSpeex2048, true, true, chain == Chain::kWakeUp, 256, taps};
      systems.push_back({config.name, chain,
                         [config](const EchoScene&, const RenderedScene& r, SystemRun* out, std::string* error) {
                           return RunSpeex(config, r, out, error);
                         }});
    }
#endif
  }
  return systems;
}

double FrameEnergy(const Signal& x, std::size_t f) {
  double sum = 0.0;
  for (std::size_t i = f * kFrame; i < (f + 1) * kFrame && i < x.size(); ++i) sum += static_cast<double>(x[i]) * x[i];
  return sum;
}

// Microphone over output energy on the far single-talk frames in [first,
// last) where the far end is in a syllable.
double ErleBetween(const Signal& mic, const Signal& out, const Truth& truth, std::size_t first, std::size_t last) {
  double mic_energy = 0.0, out_energy = 0.0;
  for (const Span& span : truth.far_single_talk) {
    for (std::size_t f = std::max(span.begin, first); f < span.end && f < last && f < truth.far_end.size(); ++f) {
      if (!truth.far_end[f]) continue;
      mic_energy += FrameEnergy(mic, f);
      out_energy += FrameEnergy(out, f);
    }
  }
  if (mic_energy <= 0.0) return NAN;
  // One LSB squared per sample keeps digital silence finite.
  return 10.0 * std::log10(mic_energy / (out_energy + 1.0));
}

constexpr std::size_t kRelockWindow = kFramesPerSecond / 4;
constexpr double kRelockToleranceDb = 3.0;

// Seconds from `change` to the end of the first 250 ms window (sliding a
// frame at a time, up to `last`) whose ERLE is back within 3 dB of `before`;
// NAN if none is. `trace` receives the ERLE of the consecutive windows.
double RelockSeconds(const Signal& mic, const Signal& out, const Truth& truth, std::size_t change, std::size_t last,
                     double before, std::vector<double>* trace) {
  for (std::size_t w = change; w + kRelockWindow <= last; w += kRelockWindow)
    trace->push_back(ErleBetween(mic, out, truth, w, w + kRelockWindow));
  for (std::size_t w = change; w + kRelockWindow <= last; ++w) {
    const double erle = ErleBetween(mic, out, truth, w, w + kRelockWindow);
    if (!std::isnan(erle) && erle >= before - kRelockToleranceDb)
      return static_cast<double>(w + kRelockWindow - change) / static_cast<double>(kFramesPerSecond);
  }
  return NAN;
}

EchoScore Score(const EchoScene& echo, const RenderedScene& rendered, const SystemRun& run) {
  EchoScore s;
  const Signal mic0 = Channel(rendered.mics, 0);
  Signal target = rendered.target;
  target.resize(run.output.size(), 0.0f);
  s.latency = FindLatency(target, run.output, kMaxLag);
  const Signal aligned = Advance(run.output, s.latency);
  const Truth& truth = rendered.truth;
  const std::size_t converged = static_cast<std::size_t>(echo.converged_from_s * kFramesPerSecond);
  s.erle_whole = ErleBetween(mic0, aligned, truth, 0, kAll);
  s.erle_converged = ErleBetween(mic0, aligned, truth, converged, kAll);
  if (echo.change_s >= 0.0) {
    const std::size_t change = static_cast<std::size_t>(echo.change_s * kFramesPerSecond);
    s.erle_before_change = ErleBetween(mic0, aligned, truth, converged, change);
    s.erle_after_change = ErleBetween(mic0, aligned, truth, change + kFramesPerSecond, change + 3 * kFramesPerSecond);
    s.relock_s = RelockSeconds(mic0, aligned, truth, change, change + 3 * kFramesPerSecond, s.erle_before_change,
                               &s.window_erle);
  }
  if (!truth.double_talk.empty())
    s.double_talk_si_sdr = SiSdrDb(SpanSamples(aligned, truth.double_talk), SpanSamples(target, truth.double_talk));
  const std::size_t lag = FrameLag(s.latency);
  s.vad = ScoreVad(run.speech, truth.speech, lag);
  for (const Span& span : truth.far_single_talk) {
    for (std::size_t f = span.begin; f < span.end && f + lag < run.speech.size(); ++f) {
      s.alone_frames += 1;
      s.alone_flagged += run.speech[f + lag];
    }
  }
  return s;
}

struct Results {
  std::vector<EchoScene> scenes;
  // scene -> chain -> system -> score
  std::map<std::string, std::map<Chain, std::map<std::string, EchoScore>>> by_scene;
};

const EchoScore* Find(const Results& r, const std::string& scene, Chain chain, const std::string& system) {
  const auto s = r.by_scene.find(scene);
  if (s == r.by_scene.end()) return nullptr;
  const auto c = s->second.find(chain);
  if (c == s->second.end()) return nullptr;
  const auto y = c->second.find(system);
  return y == c->second.end() ? nullptr : &y->second;
}

std::string Fixed(double value, int decimals = 1) {
  if (std::isnan(value)) return "–";
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

const std::vector<std::string>& Columns() {
  static const std::vector<std::string> columns = {kClassic, kEnhanced, kSpeex768, kSpeex2048};
  return columns;
}

template <typename Figure>
double Mean(const Results& r, const std::vector<const EchoScene*>& scenes, Chain chain, const std::string& system,
            Figure figure) {
  double sum = 0.0;
  int n = 0;
  for (const EchoScene* s : scenes)
    if (const EchoScore* score = Find(r, s->name, chain, system)) {
      const double v = figure(*score);
      if (std::isnan(v)) continue;
      sum += v;
      ++n;
    }
  return n ? sum / n : NAN;
}

std::vector<const EchoScene*> Of(const Results& r, std::initializer_list<EchoKind> kinds) {
  std::vector<const EchoScene*> out;
  for (const EchoScene& s : r.scenes)
    for (EchoKind k : kinds)
      if (s.kind == k) out.push_back(&s);
  return out;
}

// One table: a row per scene, a column per system, one figure.
template <typename Figure>
void FigureTable(std::string& md, const Results& r, const std::vector<const EchoScene*>& scenes, Chain chain,
                 const std::string& label, Figure figure, bool with_mean) {
  md += "| " + label + " |";
  for (const auto& c : Columns()) md += " " + c + " |";
  md += "\n|---|";
  for (std::size_t i = 0; i < Columns().size(); ++i) md += "---|";
  md += "\n";
  for (const EchoScene* s : scenes) {
    md += "| " + s->name + " |";
    for (const auto& c : Columns()) {
      const EchoScore* score = Find(r, s->name, chain, c);
      md.append(" ").append(score ? Fixed(figure(*score)) : std::string("–")).append(" |");
    }
    md += "\n";
  }
  if (with_mean) {
    md += "| **mean** |";
    for (const auto& c : Columns()) md.append(" **").append(Fixed(Mean(r, scenes, chain, c, figure))).append("** |");
    md += "\n";
  }
  md += "\n";
}

VadScores PooledVad(const Results& r, const std::vector<const EchoScene*>& scenes, Chain chain,
                    const std::string& system) {
  std::vector<VadScores> all;
  for (const EchoScene* s : scenes)
    if (const EchoScore* score = Find(r, s->name, chain, system)) all.push_back(score->vad);
  return PoolVad(all);
}

double AloneFlaggedShare(const Results& r, const std::vector<const EchoScene*>& scenes, Chain chain,
                         const std::string& system) {
  std::size_t frames = 0, flagged = 0;
  for (const EchoScene* s : scenes)
    if (const EchoScore* score = Find(r, s->name, chain, system)) {
      frames += score->alone_frames;
      flagged += score->alone_flagged;
    }
  return frames ? 100.0 * static_cast<double>(flagged) / static_cast<double>(frames) : NAN;
}

std::string Verdict(bool met) { return met ? "met" : "**not met**"; }

std::string Markdown(const Results& r) {
  std::string md;
  auto line = [&md](const std::string& text) { md += text + "\n"; };
  const auto erle_whole = [](const EchoScore& s) { return s.erle_whole; };
  const auto erle_converged = [](const EchoScore& s) { return s.erle_converged; };
  const auto double_talk = [](const EchoScore& s) { return s.double_talk_si_sdr; };
  const auto after_change = [](const EchoScore& s) { return s.erle_after_change; };
  const auto before_change = [](const EchoScore& s) { return s.erle_before_change; };
  const auto double_talk_scenes = Of(r, {EchoKind::kDoubleTalk});
  const auto talker_scenes = Of(r, {EchoKind::kDoubleTalk, EchoKind::kMusic, EchoKind::kDistortion});
  const auto lead_scenes = Of(r, {EchoKind::kLead, EchoKind::kJump});
  const auto change_scenes = Of(r, {EchoKind::kJump, EchoKind::kPathChange});
  std::vector<const EchoScene*> all;
  for (const EchoScene& s : r.scenes) all.push_back(&s);

  line("# Echo control: classic | enhanced | SpeexDSP");
  line("");
  line("Generated by `vorn_bench_quality --only echo`; do not edit by hand. Every scene starts with the far end "
       "alone, has diffuse room noise 30 dB and microphone hiss 40 dB below the talker (-30 dBFS), RT60 0.35 s, the "
       "loudspeaker 6 cm below the array. ERLE: microphone over output energy on far single-talk frames where the "
       "far end is in a syllable; *converged* counts from 2.5 s (double-talk scenes) or 5 s (the others) on. "
       "SI-SDR: the near talker in double talk, against the talker as microphone 0 hears it.");
  line("");
  line("Chains: **recognition** `aec_flag` 1, `ns_flag` 1, no AGC; **wake-up** `aec_flag` 1, `ns_flag` 1, "
       "`agc_flag` 1, `vad_mode` 1; **communication** MVDR beam at the talker, `aec_flag` 3, `ns_flag` 2. "
       "SpeexDSP: its canceller (frames of 256, filter of 768 or 2048 taps) and its preprocessor (denoise, VAD, "
       "residual echo suppression; AGC in the wake-up comparison) on microphone 0.");
  line("");

  line("## Double talk (recognition chain)");
  line("");
  line("Near talker from 5 s, far end throughout; SER is the talker's level over the echo's at microphone 0.");
  line("");
  FigureTable(md, r, double_talk_scenes, Chain::kRecognition, "near talker SI-SDR in double talk, dB", double_talk,
              true);
  FigureTable(md, r, Of(r, {EchoKind::kDoubleTalk, EchoKind::kMusic, EchoKind::kDistortion}), Chain::kRecognition,
              "ERLE far single talk, converged, dB", erle_converged, true);
  FigureTable(md, r, Of(r, {EchoKind::kDoubleTalk, EchoKind::kMusic, EchoKind::kDistortion}), Chain::kRecognition,
              "ERLE far single talk, whole, dB", erle_whole, true);

  line("## Music and a distorting loudspeaker (recognition chain)");
  line("");
  line("Music as the far end at SER 0 dB; a loudspeaker that clips at 30 % of the reference's peak with its echo 5 dB "
       "above the talker.");
  line("");
  FigureTable(md, r, Of(r, {EchoKind::kMusic, EchoKind::kDistortion}), Chain::kRecognition,
              "near talker SI-SDR in double talk, dB", double_talk, false);

  line("## Reference lead (recognition chain)");
  line("");
  line("The reference runs ahead of its echo by the lead given (playback buffering); far end alone for 12 s. The "
       "jump scenes move the lead from 40 ms to the figure in their name at 7 s (over the same far end): a large jump, "
       "one of 4.5 blocks down and one of three quarters of a block up.");
  line("");
  FigureTable(md, r, lead_scenes, Chain::kRecognition, "ERLE from 5 s on, dB", erle_converged, false);
  FigureTable(md, r, lead_scenes, Chain::kRecognition, "ERLE whole, dB", erle_whole, false);

  line("## Changes (recognition chain)");
  line("");
  line("ERLE from 5 s up to the change at 7 s, and from 1 s to 3 s after it. The path change moves the loudspeaker "
       "(someone standing next to it). Re-lock: from the change to the end of the first 250 ms window (sliding by "
       "frames) whose ERLE is back within 3 dB of the figure before the change.");
  line("");
  FigureTable(md, r, change_scenes, Chain::kRecognition, "ERLE before the change, dB", before_change, false);
  FigureTable(md, r, change_scenes, Chain::kRecognition, "ERLE 1-3 s after the change, dB", after_change, false);
  FigureTable(md, r, change_scenes, Chain::kRecognition, "re-lock after the change, s",
              [](const EchoScore& s) { return s.relock_s; }, false);

  line("## Speech flags and level under echo (wake-up chain)");
  line("");
  line("VAD counts pooled over the scenes with a talker (double talk, music, distortion); flags moved back by each "
       "system's latency. Echo alone: every frame of far single talk, all scenes. Output level: microphone over "
       "output energy in far single talk after the AGC.");
  line("");
  line("| figure |" + [] {
    std::string h;
    for (const auto& c : Columns()) h += " " + c + " |";
    return h;
  }());
  line("|---|---|---|---|---|");
  std::string f1_row = "| VAD F1, echo scenes |", alone_row = "| frames flagged with echo alone, % |",
              level_row = "| output below the microphone in far single talk, converged, dB |",
              level_whole_row = "| the same, whole, dB |";
  for (const auto& c : Columns()) {
    f1_row += " " + Fixed(PooledVad(r, talker_scenes, Chain::kWakeUp, c).f1, 3) + " |";
    alone_row += " " + Fixed(AloneFlaggedShare(r, all, Chain::kWakeUp, c)) + " |";
    level_row += " " + Fixed(Mean(r, all, Chain::kWakeUp, c, erle_converged)) + " |";
    level_whole_row += " " + Fixed(Mean(r, all, Chain::kWakeUp, c, erle_whole)) + " |";
  }
  line(f1_row);
  line(alone_row);
  line(level_row);
  line(level_whole_row);
  line("");

  FigureTable(md, r, all, Chain::kWakeUp, "wake-up chain: output below the microphone, converged, dB", erle_converged,
              true);
  FigureTable(md, r, talker_scenes, Chain::kWakeUp, "wake-up chain: VAD F1", [](const EchoScore& s) { return s.vad.f1; },
              false);

  line("## Communication chain with the multi-channel post filter");
  line("");
  line("SpeexDSP has no array chain; its columns repeat its recognition-chain figures.");
  line("");
  {
    std::string head = "| figure |", rule = "|---|", conv = "| ERLE converged, mean of all scenes, dB |",
                whole = "| ERLE whole, dB |";
    for (const auto& c : Columns()) {
      head += " " + c + " |";
      rule += "---|";
      const Chain chain = (c == kClassic || c == kEnhanced) ? Chain::kCommunication : Chain::kRecognition;
      conv += " " + Fixed(Mean(r, all, chain, c, erle_converged)) + " |";
      whole += " " + Fixed(Mean(r, all, chain, c, erle_whole)) + " |";
    }
    line(head);
    line(rule);
    line(conv);
    line(whole);
    line("");
  }

  line("## Acceptance (enhanced)");
  line("");
  const double dt_enh = Mean(r, double_talk_scenes, Chain::kRecognition, kEnhanced, double_talk);
  const double dt_peer = Mean(r, double_talk_scenes, Chain::kRecognition, kSpeex2048, double_talk);
  const double erle_dt =
      Mean(r, Of(r, {EchoKind::kDoubleTalk}), Chain::kRecognition, kEnhanced, erle_converged);
  const double level = Mean(r, all, Chain::kWakeUp, kEnhanced, erle_converged);
  const double level_whole = Mean(r, all, Chain::kWakeUp, kEnhanced, erle_whole);
  const double f1 = PooledVad(r, talker_scenes, Chain::kWakeUp, kEnhanced).f1;
  const double alone = AloneFlaggedShare(r, all, Chain::kWakeUp, kEnhanced);
  double worst_lead = INFINITY;
  // The jump scenes count with their first lead, up to the jump; what
  // follows a jump is the next criteria's.
  for (const EchoScene* s : Of(r, {EchoKind::kLead, EchoKind::kJump}))
    if (const EchoScore* score = Find(r, s->name, Chain::kRecognition, kEnhanced))
      worst_lead = std::min(worst_lead,
                            s->kind == EchoKind::kJump ? score->erle_before_change : score->erle_converged);
  // Every jump counts: the worst figure of them (a re-lock never found
  // counts as the worst).
  double after_jump = NAN, relock = NAN;
  for (const EchoScene* s : Of(r, {EchoKind::kJump}))
    if (const EchoScore* score = Find(r, s->name, Chain::kRecognition, kEnhanced)) {
      after_jump = std::isnan(after_jump) ? score->erle_after_change : std::min(after_jump, score->erle_after_change);
      const double seconds = std::isnan(score->relock_s) ? INFINITY : score->relock_s;
      relock = std::isnan(relock) ? seconds : std::max(relock, seconds);
    }
  const double com = Mean(r, all, Chain::kCommunication, kEnhanced, erle_converged);
  line("| criterion | measured | verdict |");
  line("|---|---|---|");
  line("| double talk: SI-SDR at least 2 dB above SpeexDSP-2048's (mean over the SER grid) | " + Fixed(dt_enh) +
       " against " + Fixed(dt_peer) + " dB | " + Verdict(dt_enh >= dt_peer + 2.0) + " |");
  line("| far single talk ERLE >= 40 dB once converged (double-talk scenes) | " + Fixed(erle_dt) + " dB | " +
       Verdict(erle_dt >= 40.0) + " |");
  line("| wake-up chain: output >= 35 dB below the microphone in far single talk | " + Fixed(level) +
       " dB converged, " + Fixed(level_whole) + " dB whole | " + Verdict(level >= 35.0) + " |");
  line("| echo scenes: VAD F1 >= 0.80 | " + Fixed(f1, 3) + " | " + Verdict(f1 >= 0.80) + " |");
  line("| echo alone: < 5 % of frames flagged | " + Fixed(alone) + " % | " + Verdict(alone < 5.0) + " |");
  line("| every lead 0-250 ms (the jump scenes up to their jump): ERLE >= 35 dB from 5 s on | lowest " +
       Fixed(worst_lead) + " dB | " + Verdict(worst_lead >= 35.0) + " |");
  line("| after every jump of the lead: ERLE >= 25 dB within 1 s (1-3 s after it; the worst jump) | " +
       Fixed(after_jump) + " dB | " + Verdict(after_jump >= 25.0) + " |");
  const std::string relock_text = std::isinf(relock) ? std::string("never") : Fixed(relock, 2) + " s";
  line("| after every jump of the lead: re-locked within 1 s (ERLE back within 3 dB; the slowest) | " + relock_text +
       " | " + Verdict(relock <= 1.0) + " |");
  line("| communication chain (`ns_flag` 2): ERLE >= 40 dB converged | " + Fixed(com) + " dB | " +
       Verdict(com >= 40.0) + " |");
  line("");
  return md;
}

}  // namespace

bool RunEchoBench(const std::filesystem::path& dir, const std::string& match, const std::string& system_match,
                  std::string* error) {
  Results results;
  const std::vector<System> systems = Systems();
  for (const EchoScene& echo : EchoGrid()) {
    if (!match.empty() && echo.name.find(match) == std::string::npos) continue;
    results.scenes.push_back(echo);
    RenderedScene rendered;
    if (!RenderEchoScene(echo, &rendered, error)) {
      *error = echo.name + ": " + *error;
      return false;
    }
    for (const System& system : systems) {
      const std::string label = ChainConfig(system.chain, VORN_PROFILE_CLASSIC).name + "/" + system.name;
      if (!system_match.empty() && label.find(system_match) == std::string::npos) continue;
      SystemRun run;
      if (!system.run(echo, rendered, &run, error)) {
        *error = system.name + " on " + echo.name + ": " + *error;
        return false;
      }
      const EchoScore& score = results.by_scene[echo.name][system.chain][system.name] = Score(echo, rendered, run);
      if (!system_match.empty())
        std::fprintf(stderr,
                     "  %s: SI-SDR %.1f dB, ERLE converged %.1f dB, whole %.1f dB, VAD tp %zu fp %zu fn %zu, "
                     "echo alone flagged %zu/%zu\n",
                     label.c_str(), score.double_talk_si_sdr, score.erle_converged, score.erle_whole,
                     score.vad.true_positive, score.vad.false_positive, score.vad.false_negative, score.alone_flagged,
                     score.alone_frames);
      if (!system_match.empty() && !score.window_erle.empty()) {
        std::fprintf(stderr, "  re-lock %.2f s; ERLE per 250 ms from the change:", score.relock_s);
        for (double e : score.window_erle) std::fprintf(stderr, " %.0f", e);
        std::fprintf(stderr, "\n");
      }
    }
    std::fprintf(stderr, "scored %s\n", echo.name.c_str());
  }
  const std::string md = Markdown(results);
  std::FILE* file = std::fopen((dir / "echo.md").c_str(), "w");
  if (file == nullptr) {
    *error = "cannot write " + (dir / "echo.md").string();
    return false;
  }
  std::fputs(md.c_str(), file);
  std::fclose(file);
  return true;
}

}  // namespace vorn::bench
