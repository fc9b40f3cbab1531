// The level section: scenes, systems and scoring.
//
// Each gain control runs at the end of its own chain on microphone 0 (Vorn:
// echo canceller, suppressor, VAD mode 2, agc_flag 2; SpeexDSP: its echo
// canceller and preprocessor), and each chain also runs without its gain
// control, which is what the pause and echo figures compare against: the
// floor the suppressor (and canceller) left. The enhanced target is -26 dBFS
// active speech level; the classic AGC is a compressor without a target.
// SpeexDSP's AGC level is a sample value, not an RMS figure: its default,
// 8000, leaves this bench's talkers 1.7 dB above -26 dBFS on average (main
// report), so it is set 1.7 dB lower, to 6600, to aim at the same level.
#include "quality/level_grid.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "quality/grid.h"
#include "quality/markdown.h"
#include "quality/scoring.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#include "sim/signals.h"
#ifdef VORN_WITH_SPEEXDSP
#include "quality/speex_peer.h"
#endif

namespace vorn::bench {
namespace {

using namespace vorn::sim;

constexpr std::size_t kMaxLag = 4096;
constexpr double kTargetDbfs = -26.0;
constexpr float kSpeexAgcLevel = 6600.0f;
constexpr double kJumpAtS = 6.0;
constexpr double kPauseFromS = 5.0, kPauseToS = 7.5;  // inside the pause scene's silence (4.5..8 s)
constexpr double kLeadInFromS = 0.5, kLeadInToS = 1.8;  // the sweep before its talker (2 s)

using Runner = std::function<bool(const RenderedScene&, SystemRun*, std::string*)>;

struct System {
  std::string name;
  Runner with_gain, without_gain;
};

Runner Vorn(int profile, int agc) {
  VornConfig config{"", {.agc = agc, .bf = 0, .doa = 0, .aec = 1, .ns = 1, .azimuth = 0, .vad_mode = 2}};
  config.profile = profile;
  return [config](const RenderedScene& r, SystemRun* run, std::string* error) {
    return RunVorn(config, Scene{}, r, run, error);
  };
}

std::vector<System> Systems() {
  std::vector<System> systems = {{"classic", Vorn(0, 2), Vorn(0, 0)}, {"enhanced", Vorn(1, 2), Vorn(1, 0)}};
#ifdef VORN_WITH_SPEEXDSP
  SpeexConfig agc{"", true, true, true, 256, 768};
  agc.agc_level = kSpeexAgcLevel;
  const SpeexConfig plain{"", true, true, false, 256, 768};
  systems.push_back({"SpeexDSP",
                     [agc](const RenderedScene& r, SystemRun* run, std::string* e) { return RunSpeex(agc, r, run, e); },
                     [plain](const RenderedScene& r, SystemRun* run, std::string* e) {
                       return RunSpeex(plain, r, run, e);
                     }});
#endif
  return systems;
}

// One system on one scene, with and without its gain control, aligned to
// the talker.
struct Pair {
  Signal with_gain, without_gain;
  std::size_t lag = 0;  // frames the outputs trail the truth
  int clipped = 0;      // samples at the rails with the gain control
};

bool RunPair(const System& system, const RenderedScene& r, Pair* pair, std::string* error) {
  SystemRun with, without;
  if (!system.with_gain(r, &with, error) || !system.without_gain(r, &without, error)) return false;
  Signal target = r.target;
  target.resize(without.output.size(), 0.0f);
  const long latency = FindLatency(target, without.output, kMaxLag);
  pair->lag = FrameLag(latency);
  pair->with_gain = std::move(with.output);
  pair->without_gain = std::move(without.output);
  pair->clipped = static_cast<int>(std::count_if(pair->with_gain.begin(), pair->with_gain.end(),
                                                 [](float v) { return v >= 32767.0f || v <= -32768.0f; }));
  return true;
}

double FramePower(const Signal& x, std::size_t f) {
  const std::size_t begin = f * kFrame;
  if (begin + kFrame > x.size()) return 0.0;
  const double rms = sim::Rms(x.data() + begin, kFrame);
  return rms * rms;
}

double Dbfs(double mean_square) { return sim::PowerDb(mean_square / (32768.0 * 32768.0)); }

// Mean power (dBFS) of the talker's speech frames in [from_s, to_s).
double SpeechDbfs(const Signal& x, const Truth& truth, std::size_t lag, double from_s, double to_s) {
  double sum = 0.0;
  int count = 0;
  for (std::size_t f = static_cast<std::size_t>(from_s * kSampleRate / kFrame);
       f < static_cast<std::size_t>(to_s * kSampleRate / kFrame) && f < truth.speech.size(); ++f) {
    if (!truth.speech[f]) continue;
    sum += FramePower(x, f + lag);
    ++count;
  }
  return count ? Dbfs(sum / count) : NAN;
}

// Output power over input power (dB) across the frames `pick` selects.
double LiftDb(const Pair& p, const std::function<bool(std::size_t)>& pick, std::size_t frames) {
  double with = 0.0, without = 0.0;
  for (std::size_t f = 0; f < frames; ++f) {
    if (!pick(f)) continue;
    with += FramePower(p.with_gain, f + p.lag);
    without += FramePower(p.without_gain, f + p.lag);
  }
  return sim::PowerDb((with + 1.0) / (without + 1.0));
}

// A speech-like talker over [1 s, 12 s) of a 12 s scene, shaped by `gain`
// (a function of the time into the scene) and scaled by the renderer to
// `level_dbfs` over its active samples; `active` is its syllable mask on the
// scene's time line.
struct ShapedScene {
  Scene scene;
  std::vector<std::uint8_t> active;
};

// Renders it with the talker's own syllables as the speech labels, as the
// generated talkers of the sweep have (the renderer judges a given signal by
// its energy, which counts the quiet ends of syllables too).
bool RenderShaped(const ShapedScene& shaped, RenderedScene* r, std::string* error) {
  if (!RenderScene(shaped.scene, r, error)) return false;
  std::vector<std::uint8_t> heard(shaped.active.size(), 0);
  const std::size_t delay = r->truth.talker_delay;
  for (std::size_t t = delay; t < heard.size(); ++t) heard[t] = shaped.active[t - delay];
  r->truth.speech = sim::FrameLabels(heard);
  return true;
}

ShapedScene ShapedTalker(std::uint32_t seed, double level_dbfs, const std::function<double(double)>& gain) {
  Scene scene;
  scene.room.rt60_s = 0.3;
  scene.seed = seed;
  scene.far_begin_s = scene.far_end_s = 0.0;
  scene.talker_begin_s = 1.0;
  scene.talker_end_s = 12.0;
  scene.azimuth_deg = 137.0;
  scene.talker_level_dbfs = level_dbfs;
  scene.noises.push_back({NoiseKind::kDiffuse, NoiseColour::kPink, 30.0});
  const std::size_t n = static_cast<std::size_t>(11.0 * kSampleRate);
  sim::SpeechLikeOptions voice;
  voice.f0_hz = 130.0;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, seed, voice);
  scene.talker = talker.samples;
  ShapedScene shaped{scene, std::vector<std::uint8_t>(static_cast<std::size_t>(scene.duration_s * kSampleRate), 0)};
  const std::size_t begin = static_cast<std::size_t>(scene.talker_begin_s * kSampleRate);
  for (std::size_t t = 0; t < n; ++t) {
    const double g = gain(scene.talker_begin_s + static_cast<double>(t) / kSampleRate);
    shaped.scene.talker[t] = static_cast<float>(talker.samples[t] * g);
    if (begin + t < shaped.active.size()) shaped.active[begin + t] = g > 0.0 && talker.active[t];
  }
  return shaped;
}

std::string Verdict(bool pass) { return pass ? "met" : "**not met**"; }

}  // namespace

bool WriteLevelReport(const std::filesystem::path& dir, std::string* error) {
  const std::vector<System> systems = Systems();
  std::string header, rule = "|---|";
  for (const System& s : systems) {
    header.append(" ").append(s.name).append(" |");
    rule += "---|";
  }
  std::vector<int> clipped(systems.size(), 0);

  // The sweep, with its lead-in before the talker.
  std::string sweep_rows;
  std::vector<std::vector<double>> levels(systems.size());
  std::vector<double> lead_in_lift(systems.size(), 0.0);
  const std::vector<GridScene> sweep = LevelSweep();
  for (const GridScene& cell : sweep) {
    RenderedScene r;
    if (!RenderScene(cell.scene, &r, error)) return false;
    std::string row = "| " + Fixed(cell.scene.talker_level_dbfs, 0) + " dBFS |";
    for (std::size_t i = 0; i < systems.size(); ++i) {
      Pair p;
      if (!RunPair(systems[i], r, &p, error)) return false;
      const double level = ActiveLevelDbfs(p.with_gain, r.truth.speech, p.lag);
      levels[i].push_back(level);
      AddCell(row, Fixed(level));
      clipped[i] += p.clipped;
      const auto lead_in = [](std::size_t f) {
        const double t = static_cast<double>(f * kFrame) / kSampleRate;
        return t >= kLeadInFromS && t < kLeadInToS;
      };
      lead_in_lift[i] += LiftDb(p, lead_in, r.truth.speech.size()) / static_cast<double>(sweep.size());
    }
    sweep_rows += row + "\n";
  }
  std::string md = "## A level that holds\n\n";
  md += "Generated by `vorn_bench_quality` (`--only level` runs this section alone). Each gain control at the "
        "end of its own chain on microphone 0 (Vorn: echo canceller, suppressor, VAD mode 2, `agc_flag` 2; "
        "SpeexDSP: echo canceller and preprocessor, its AGC level set to 6600, where its output lands near "
        "-26 dBFS in this bench). Classic is the designed compressor, which has no level target. Diffuse pink "
        "noise 30 dB below the talker, "
        "RT60 0.3 s.\n\n";
  md += "### Talker sweep\n\nActive speech level of the output (dBFS) as the talker goes from -50 to -10 dBFS "
        "at microphone 0.\n\n";
  md += "| talker |" + header + "\n" + rule + "\n" + sweep_rows;
  std::string spread_row = "| spread |";
  for (std::size_t i = 0; i < systems.size(); ++i) AddCell(spread_row, Fixed(LevelSpreadDb(levels[i])) + " dB");
  md += spread_row + "\n\nAcceptance (enhanced): spread at most 3 dB — " +
        Verdict(LevelSpreadDb(levels[1]) <= 3.0) + ".\n\n";

  // The jumps.
  md += "### A talker whose level jumps 20 dB mid-sentence\n\nThe talker speaks from 1 s to 12 s and jumps by "
        "20 dB at 6 s (between -42 and -22 dBFS). Output speech level (dBFS) over the first two seconds after "
        "the jump, over the two after those, and over the last two (the talker's own level swings by about "
        "3 dB from one second to the next).\n\n";
  md += "| jump |" + header + "\n" + rule + "\n";
  double enhanced_worst = 0.0;
  std::uint32_t seed = 310;
  for (double step : {20.0, -20.0}) {
    const ShapedScene scene = ShapedTalker(seed++, -25.0, [step](double t) {
      const double quiet = std::pow(10.0, -20.0 / 20.0);
      return (t < kJumpAtS) == (step > 0) ? quiet : 1.0;
    });
    RenderedScene r;
    if (!RenderShaped(scene, &r, error)) return false;
    std::string row = std::string("| ") + (step > 0 ? "up" : "down") + " |";
    for (std::size_t i = 0; i < systems.size(); ++i) {
      Pair p;
      if (!RunPair(systems[i], r, &p, error)) return false;
      clipped[i] += p.clipped;
      const double settled = SpeechDbfs(p.with_gain, r.truth, p.lag, kJumpAtS + 2.0, kJumpAtS + 4.0);
      AddCell(row, Fixed(SpeechDbfs(p.with_gain, r.truth, p.lag, kJumpAtS, kJumpAtS + 2.0)) + ", " +
                       Fixed(settled) + ", " + Fixed(SpeechDbfs(p.with_gain, r.truth, p.lag, 10.0, 12.0)));
      if (i == 1) enhanced_worst = std::max(enhanced_worst, std::abs(settled - kTargetDbfs));
    }
    md += row + "\n";
  }
  md += "\nAcceptance (enhanced): within 3 dB of the target 2 s after the jump (the middle figure) — " +
        Verdict(enhanced_worst <= 3.0) + ".\n\n";

  // The pause, and echo alone.
  md += "### Pauses, echo and clipping\n\nHow far each gain control lifts what its own chain left when nobody "
        "talks (output with the gain control over output without it, dB): in a 3.5 s pause of a quiet talker "
        "(-40 dBFS, who earns about 14 dB of gain; measured from 0.5 s into the pause to 0.5 s before its "
        "end), in the sweep before its talker starts, and in far-end single talk on the three echo scenes "
        "of the main report (syllables only). Then the samples that hit the 16-bit rails over all scenes of "
        "this section.\n\n";
  md += "| figure |" + header + "\n" + rule + "\n";
  const ShapedScene pause_scene = ShapedTalker(320, -40.0, [](double t) { return t >= 4.5 && t < 8.0 ? 0.0 : 1.0; });
  RenderedScene pause;
  if (!RenderShaped(pause_scene, &pause, error)) return false;
  std::string pause_row = "| floor in a pause after speech |";
  double enhanced_pause = 0.0;
  for (std::size_t i = 0; i < systems.size(); ++i) {
    Pair p;
    if (!RunPair(systems[i], pause, &p, error)) return false;
    clipped[i] += p.clipped;
    const double lift = LiftDb(
        p,
        [](std::size_t f) {
          const double t = static_cast<double>(f * kFrame) / kSampleRate;
          return t >= kPauseFromS && t < kPauseToS;
        },
        pause.truth.speech.size());
    AddCell(pause_row, Fixed(lift) + " dB");
    if (i == 1) enhanced_pause = lift;
  }
  md += pause_row + "\n";
  std::string lead_row = "| floor before the talker (sweep mean) |";
  for (double lift : lead_in_lift) AddCell(lead_row, Fixed(lift) + " dB");
  md += lead_row + "\n";
  std::string echo_row = "| echo residue, far single talk |";
  std::vector<double> echo_lift(systems.size(), 0.0);
  const std::vector<GridScene> echo = EchoScenes();
  for (const GridScene& cell : echo) {
    RenderedScene r;
    if (!RenderScene(cell.scene, &r, error)) return false;
    std::vector<std::uint8_t> far_alone(r.truth.far_end.size(), 0);
    for (const Span& span : r.truth.far_single_talk)
      for (std::size_t f = span.begin; f < span.end && f < far_alone.size(); ++f) far_alone[f] = r.truth.far_end[f];
    for (std::size_t i = 0; i < systems.size(); ++i) {
      Pair p;
      if (!RunPair(systems[i], r, &p, error)) return false;
      clipped[i] += p.clipped;
      echo_lift[i] += LiftDb(p, [&](std::size_t f) { return far_alone[f] != 0; }, far_alone.size()) /
                      static_cast<double>(echo.size());
    }
  }
  for (double lift : echo_lift) AddCell(echo_row, Fixed(lift) + " dB");
  md += echo_row + "\n";
  std::string clip_row = "| samples clipped |";
  for (int c : clipped) AddCell(clip_row, std::to_string(c));
  md += clip_row + "\n\nAcceptance (enhanced): the floor in pauses no more than 3 dB above the suppressor's "
                   "output — " +
        Verdict(enhanced_pause <= 3.0) + "; no sample clipped — " + Verdict(clipped[1] == 0) + ".\n\n";
  md += "Cost per frame: `BM_LevelProc` against `BM_DigitalAgcProcess` in the speed section of the main "
        "report.\n";
  return WriteSection(dir / "level.md", md, error);
}

}  // namespace vorn::bench
