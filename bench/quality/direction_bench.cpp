// Direction section of the quality bench.
//
// Vorn runs as a device would run it for direction finding: per-frame
// tracking (`doa_flag` 1) on the recognition chain with one microphone's
// beam (`bf_flag` 0, so nothing tells it where the talker is), the update
// flag set on every frame, then the utterance search (`VornDoa`, `doa_flag`
// 2) over the talker's whole window and over its first half second (a
// keyword). The baselines see the same capture and answer the same
// questions. Per-frame figures count the speech frames after the first
// second of speech; pause figures the non-speech frames inside the talk
// window after that second.
#include "quality/direction_bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quality/direction_baselines.h"
#include "quality/direction_grid.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#include "sim/front_end_param.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn::bench {
namespace {

using sim::AzimuthErrorDeg;
using sim::kFrame;
using sim::kMics;
using sim::kSampleRate;

constexpr std::size_t kSettleFrames = 62;  // one second of speech
constexpr double kKeywordS = 0.5;
constexpr std::size_t kMaxLagFrames = 125;  // 2 s
constexpr double kFrameS = static_cast<double>(kFrame) / kSampleRate;

const char* const kClassic = "Vorn classic";
const char* const kEnhanced = "Vorn enhanced";
// The enhanced tracker's evidence pooled over the whole run (VornDoa with
// doa_flag 1 after the frames), the answer the vorn tool reports.
const char* const kEnhancedPooled = "Vorn enhanced, pooled per-frame evidence";

struct Answers {
  std::vector<double> azimuth_deg;  // per frame
  std::vector<double> confidence;   // per frame; empty when the system gives none
  double sentence_deg = 0.0, keyword_deg = 0.0;
  double pooled_deg = -1.0;  // negative when the system has no such answer
  double stretch_confidence[2] = {-1.0, -1.0};  // 10 s, 0.5 s; negative when the system gives none
};

FrameRange Frames(double begin_s, double end_s, std::size_t frames) {
  const auto at = [frames](double s) { return std::min(frames, static_cast<std::size_t>(std::llround(s / kFrameS))); };
  return {at(begin_s), at(end_s)};
}

bool RunVornDirection(int profile, const DirectionRender& r, const FrameRange& sentence, const FrameRange& keyword,
                      Answers* out, std::string* error) {
  std::vector<unsigned char> state(kVornMinBuffSize);
  const sim::Switches switches{.agc = 0, .bf = 0, .doa = 1, .aec = 0, .ns = 1, .azimuth = 0, .vad_mode = 2};
  T_VornParam pm = sim::ParamKeeping(state.data(), switches, 1);
  if (const int code = VornInit(&pm, nullptr); code != 0) {
    *error = "VornInit returned " + std::to_string(code);
    return false;
  }
  if (const int code = VornSetProfile(&pm, profile); code != 0) {
    *error = "VornSetProfile returned " + std::to_string(code);
    return false;
  }
  const std::size_t frames = WholeFrames(r.rendered);
  std::vector<short> mics(r.rendered.mics.begin(), r.rendered.mics.end());
  std::vector<short> reference(r.rendered.reference.begin(), r.rendered.reference.end());
  short order[3] = {0, 1, 2};
  short audio[kFrame];
  for (std::size_t f = 0; f < frames; ++f) {
    const int code = VornProc(&pm, &mics[f * kMics * kFrame], &reference[f * kFrame], audio, order);
    if (code >= 1 && code <= 10) {
      *error = "VornProc returned " + std::to_string(code);
      return false;
    }
    out->azimuth_deg.push_back(pm.azimuth);
    float confidence = 0.0f;
    if (profile == VORN_PROFILE_ENHANCED && VornGetDoaConfidence(&pm, &confidence) == 0)
      out->confidence.push_back(confidence);
  }
  if (profile == VORN_PROFILE_ENHANCED) {
    pm.doa_flag = 1;
    if (const int code = VornDoa(&pm, mics.data(), order, 0); code != 0) {
      *error = "VornDoa (doa_flag 1) returned " + std::to_string(code);
      return false;
    }
    out->pooled_deg = pm.azimuth;
  }
  pm.doa_flag = 2;
  for (int s = 0; s < 2; ++s) {
    const FrameRange range = s == 0 ? sentence : keyword;
    const int samples = static_cast<int>((range.end - range.begin) * kFrame);
    if (const int code = VornDoa(&pm, &mics[range.begin * kFrame * kMics], order, samples); code != 0) {
      *error = "VornDoa returned " + std::to_string(code);
      return false;
    }
    (s == 0 ? out->sentence_deg : out->keyword_deg) = pm.azimuth;
    float confidence = 0.0f;
    if (profile == VORN_PROFILE_ENHANCED && VornGetDoaConfidence(&pm, &confidence) == 0)
      out->stretch_confidence[s] = confidence;
  }
  return true;
}

// ---- scoring ----------------------------------------------------------------

struct Score {
  std::vector<double> speech_errors;  // speech frames after the first second of speech
  std::vector<double> pause_errors;   // non-speech frames in the talk window after it
  std::vector<std::pair<double, double>> confidence_errors;
  double sentence_error = 0.0, keyword_error = 0.0, pooled_error = -1.0;
  // Walking talkers only.
  double lag_s = 0.0, walk_error = 0.0, catch_up_s = 0.0;
};

Score ScoreAnswers(const DirectionScene& cell, const DirectionRender& r, const Answers& a) {
  Score s;
  const std::vector<std::uint8_t>& speech = r.rendered.truth.speech;
  const std::size_t frames = std::min(speech.size(), a.azimuth_deg.size());
  const FrameRange talk = Frames(cell.scene.talker_begin_s, cell.scene.talker_end_s, frames);
  std::size_t spoken = 0;
  for (std::size_t f = 0; f < frames; ++f) {
    if (speech[f] != 0 && spoken++ < kSettleFrames) continue;
    if (spoken < kSettleFrames) continue;
    const double error = AzimuthErrorDeg(a.azimuth_deg[f], r.azimuth_deg[f]);
    if (speech[f] != 0) {
      s.speech_errors.push_back(error);
      if (!a.confidence.empty()) s.confidence_errors.emplace_back(a.confidence[f], error);
    } else if (f >= talk.begin && f < talk.end) {
      s.pause_errors.push_back(error);
    }
  }
  const double talker_az = r.azimuth_deg[talk.begin];
  s.sentence_error = AzimuthErrorDeg(a.sentence_deg, talker_az);
  s.keyword_error = AzimuthErrorDeg(a.keyword_deg, talker_az);
  if (a.pooled_deg >= 0.0) s.pooled_error = AzimuthErrorDeg(a.pooled_deg, talker_az);
  if (cell.walk_deg == 0.0) return s;

  // Lag: the delay of the truth that best explains the estimates over the
  // walk and the second after it.
  const FrameRange walk = Frames(cell.walk_begin_s, cell.walk_end_s + 1.0, frames);
  const TrackLag lag = FindTrackLag(a.azimuth_deg, r.azimuth_deg, speech, walk.begin, walk.end, kMaxLagFrames);
  s.lag_s = static_cast<double>(lag.frames) * kFrameS;
  s.walk_error = lag.error_undelayed_deg;
  // Catch-up: from the end of the walk to the first speech frame from which
  // every later speech frame of the talk is within 10 degrees.
  const FrameRange after = Frames(cell.walk_end_s, cell.scene.talker_end_s, frames);
  std::size_t settled = after.end;
  for (std::size_t f = after.end; f-- > after.begin;) {
    if (speech[f] == 0) continue;
    if (AzimuthErrorDeg(a.azimuth_deg[f], r.azimuth_deg[f]) > 10.0) break;
    settled = f;
  }
  s.catch_up_s = static_cast<double>(settled - after.begin) * kFrameS;
  return s;
}

// ---- the markdown -----------------------------------------------------------

struct Column {
  std::string name;
  std::function<bool(const DirectionScene&)> holds;
};

std::vector<Column> Columns() {
  std::vector<Column> columns;
  for (double snr : {0.0, 5.0, 10.0, 20.0})
    columns.push_back(
        {"SNR " + std::to_string(static_cast<int>(snr)), [snr](const DirectionScene& c) { return c.snr_db == snr; }});
  for (DirectionNoise noise : {DirectionNoise::kDiffuse, DirectionNoise::kBabble, DirectionNoise::kInterferer})
    columns.push_back({NoiseName(noise), [noise](const DirectionScene& c) { return c.noise == noise; }});
  for (double rt60 : {0.2, 0.4, 0.6, 0.8}) {
    char name[32];
    std::snprintf(name, sizeof name, "RT60 %.1f", rt60);
    columns.push_back({name, [rt60](const DirectionScene& c) { return std::abs(c.scene.room.rt60_s - rt60) < 1e-9; }});
  }
  columns.push_back({"el < 0", [](const DirectionScene& c) { return c.scene.elevation_deg < 0.0; }});
  columns.push_back({"el 0-10", [](const DirectionScene& c) {
                       return c.scene.elevation_deg >= 0.0 && c.scene.elevation_deg <= 10.0;
                     }});
  columns.push_back({"el 20-40", [](const DirectionScene& c) { return c.scene.elevation_deg >= 20.0; }});
  columns.push_back({"all", [](const DirectionScene&) { return true; }});
  return columns;
}

std::string Fixed(double value, int decimals = 1) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

struct Figure {
  double mean = 0.0, within = 0.0;  // degrees; share 0..1
  std::size_t count = 0;
};

Figure Summarise(const std::vector<double>& errors) {
  Figure f;
  f.count = errors.size();
  if (errors.empty()) return f;
  for (double e : errors) f.mean += e, f.within += e <= 10.0 ? 1.0 : 0.0;
  f.mean /= static_cast<double>(errors.size());
  f.within /= static_cast<double>(errors.size());
  return f;
}

std::string Cell(const Figure& f) {
  if (f.count == 0) return "–";
  return Fixed(f.mean) + "° · " + Fixed(100.0 * f.within, 0) + " %";
}

using Results = std::map<std::string, std::map<std::string, Score>>;  // system -> scene -> score

const std::vector<std::string>& SystemNames() {
  static const std::vector<std::string> names = {kClassic, kEnhanced, BaselineName(Baseline::kSrpPhat),
                                                 BaselineName(Baseline::kSrpPhatSnr), BaselineName(Baseline::kMusic)};
  return names;
}

// Errors of one kind pooled over the still scenes a column holds.
std::vector<double> Pool(const Results& results, const std::string& system, const std::vector<DirectionScene>& cells,
                         const Column& column, const std::function<void(const Score&, std::vector<double>&)>& take) {
  std::vector<double> pooled;
  const auto& by_scene = results.at(system);
  for (const DirectionScene& c : cells)
    if (c.walk_deg == 0.0 && column.holds(c)) take(by_scene.at(c.name), pooled);
  return pooled;
}

void Table(std::string& md, const Results& results, const std::vector<DirectionScene>& cells,
           const std::function<void(const Score&, std::vector<double>&)>& take,
           const std::vector<std::string>& systems = SystemNames()) {
  const std::vector<Column> columns = Columns();
  std::string header = "| system |", rule = "|---|";
  for (const Column& c : columns) {
    header.append(" ").append(c.name).append(" |");
    rule.append("---|");
  }
  md += header + "\n" + rule + "\n";
  for (const std::string& system : systems) {
    std::string row = "| " + system + " |";
    for (const Column& c : columns)
      row.append(" ").append(Cell(Summarise(Pool(results, system, cells, c, take)))).append(" |");
    md += row + "\n";
  }
  md += "\n";
}

const auto kSentence = [](const Score& s, std::vector<double>& out) { out.push_back(s.sentence_error); };
const auto kKeyword = [](const Score& s, std::vector<double>& out) { out.push_back(s.keyword_error); };
const auto kSpeech = [](const Score& s, std::vector<double>& out) {
  out.insert(out.end(), s.speech_errors.begin(), s.speech_errors.end());
};
const auto kPause = [](const Score& s, std::vector<double>& out) {
  out.insert(out.end(), s.pause_errors.begin(), s.pause_errors.end());
};

// The acceptance figures of the enhanced profile, computed from the results.
std::string Acceptance(const Results& results, const std::vector<DirectionScene>& cells) {
  const Column loud{"", [](const DirectionScene& c) { return c.snr_db >= 5.0; }};
  const Column quiet{"", [](const DirectionScene& c) { return c.snr_db < 5.0; }};
  const Figure utt_loud = Summarise(Pool(results, kEnhanced, cells, loud, kSentence));
  const Figure utt_quiet = Summarise(Pool(results, kEnhanced, cells, quiet, kSentence));
  const Figure track_loud = Summarise(Pool(results, kEnhanced, cells, loud, kSpeech));
  const Figure pause_loud = Summarise(Pool(results, kEnhanced, cells, loud, kPause));
  std::string md;
  md += "- Utterance search (10 s), SNR ≥ 5 dB: " + Fixed(100.0 * utt_loud.within, 0) + " % of " +
        std::to_string(utt_loud.count) + " scenes within 10°, mean error " + Fixed(utt_loud.mean) +
        "° (wanted ≥ 90 %, ≤ 6°); at 0 dB: " + Fixed(100.0 * utt_quiet.within, 0) + " % of " +
        std::to_string(utt_quiet.count) + " (wanted ≥ 75 %).\n";
  md +=
      "- Per-frame tracker, speech frames after the first second, SNR ≥ 5 dB: " + Fixed(100.0 * track_loud.within, 0) +
      " % within 10° (wanted ≥ 85 %); pause frames: " + Fixed(100.0 * pause_loud.within, 0) +
      " % within 10°, mean error " + Fixed(pause_loud.mean) + "°.\n";
  for (bool snr20 : {true, false}) {
    double worst_lag = 0.0, worst_catch = 0.0;
    for (const DirectionScene& c : cells) {
      if (c.walk_deg == 0.0 || (c.snr_db >= 20.0) != snr20) continue;
      const Score& s = results.at(kEnhanced).at(c.name);
      worst_lag = std::max(worst_lag, s.lag_s);
      worst_catch = std::max(worst_catch, s.catch_up_s);
    }
    md += std::string("- Walking talker (90° in 3 s) at ") + (snr20 ? "20" : "5") + " dB SNR: largest tracking lag " +
          Fixed(worst_lag, 2) + " s (2 s: not followed), largest catch-up after the walk " + Fixed(worst_catch, 2) +
          " s (wanted within 1 s).\n";
  }
  std::vector<double> high, low;
  for (const DirectionScene& c : cells)
    for (const auto& [confidence, error] : results.at(kEnhanced).at(c.name).confidence_errors)
      (confidence > 0.5 ? high : low).push_back(error);
  const Figure above = Summarise(high), below = Summarise(low);
  md += "- Confidence: speech frames above 0.5 are within 10° " + Fixed(100.0 * above.within, 0) + " % of the time (" +
        std::to_string(above.count) + " frames), those at or below 0.5 " + Fixed(100.0 * below.within, 0) + " % (" +
        std::to_string(below.count) + " frames).\n";
  return md;
}

// Classic | enhanced | the best baseline, for the report's headline.
std::string Headline(const Results& results, const std::vector<DirectionScene>& cells) {
  const Column all{"", [](const DirectionScene&) { return true; }};
  auto figure = [&](const std::string& system, const auto& take) {
    return Summarise(Pool(results, system, cells, all, take));
  };
  auto walk_lag = [&](const std::string& system, bool loud) {
    double worst = 0.0;
    for (const DirectionScene& c : cells)
      if (c.walk_deg != 0.0 && (c.snr_db >= 20.0) == loud) worst = std::max(worst, results.at(system).at(c.name).lag_s);
    return worst;
  };
  std::string md =
      "| direction figure (all scenes) | Vorn classic | Vorn enhanced | best baseline |\n|---|---|---|---|\n";
  const std::vector<std::string> baselines = {BaselineName(Baseline::kSrpPhat), BaselineName(Baseline::kSrpPhatSnr),
                                              BaselineName(Baseline::kMusic)};
  const std::pair<const char*, std::function<void(const Score&, std::vector<double>&)>> rows[] = {
      {"utterance search over 10 s: mean error, within 10°", kSentence},
      {"utterance search over a 0.5 s keyword", kKeyword},
      {"per-frame direction on speech after the first second", kSpeech},
      {"per-frame direction in pauses", kPause}};
  for (const auto& [name, take] : rows) {
    std::string best_name;
    Figure best;
    for (const std::string& b : baselines) {
      const Figure f = figure(b, take);
      if (best_name.empty() || f.within > best.within) best = f, best_name = b;
    }
    md += std::string("| ") + name + " | " + Cell(figure(kClassic, take)) + " | " + Cell(figure(kEnhanced, take)) +
          " | " + Cell(best) + " (" + best_name + ") |\n";
  }
  for (bool loud : {true, false}) {
    std::string best_name;
    double best_lag = 1e9;
    for (const std::string& b : baselines)
      if (walk_lag(b, loud) < best_lag) best_lag = walk_lag(b, loud), best_name = b;
    md += std::string("| walking talker at ") + (loud ? "20" : "5") +
          " dB SNR: largest tracking lag (2 s: not followed) | " + Fixed(walk_lag(kClassic, loud), 2) + " s | " +
          Fixed(walk_lag(kEnhanced, loud), 2) + " s | " + Fixed(best_lag, 2) + " s (" + best_name + ") |\n";
  }
  return md;
}

std::string Markdown(const Results& results, const std::vector<DirectionScene>& cells, DirectionDraw draw,
                     const DirectionDrawRecipe& recipe) {
  const bool fresh = draw == DirectionDraw::kFresh;
  std::string md;
  if (draw == DirectionDraw::kGiven) {
    char given[160];
    std::snprintf(given, sizeof given, "%u,%u,%g,%g,%d,%g", recipe.still_seed, recipe.walk_seed, recipe.first_deg,
                  recipe.step_deg, recipe.first_height, recipe.walk_first_deg);
    md += "## Direction finding on a draw of the grid given on the command line\n\n";
    md += std::string("Generated by `vorn_bench_quality --only direction --draw ") + given +
          "`. The same cells as direction.md with the seeds, azimuths and heights given there.\n\n";
  } else {
    md += fresh ? "## Direction finding on a fresh draw of the grid\n\n" : "## Direction finding\n\n";
    md += fresh ? "Generated by `vorn_bench_quality --only direction --fresh`; do not edit by hand.\n\n"
                : "Generated by `vorn_bench_quality --only direction`; do not edit by hand.\n\n";
  }
  if (fresh)
    md +=
        "The same cells as direction.md (rooms, noises, SNRs, walks) with other voices, noise, azimuths and "
        "heights. The direction finder was tuned on direction.md's scenes and never on these, so the gap between "
        "the two pages is how much of its figures belongs to the scenes it was tuned on.\n\n";
  md +=
      "Scenes: a 5 × 4 × 3 m room, RT60 0.2-0.8 s; the talker 1.5 m from the array at elevations -30° to +40° and "
      "azimuths that step round the array from cell to cell, speaking 2-12 s with a speech-like voice whose "
      "long-term spectrum is speech's (octaves above 500 Hz 7-22 dB below the 250-500 Hz one); one noise per "
      "scene (diffuse pink noise, babble of six such talkers "
      "through the room, or one pink point source 1.6 m away and 100-160° from the talker) at 0, 5, 10 or 20 dB "
      "SNR, over sensor noise 40 dB down; " +
      std::to_string(
          std::count_if(cells.begin(), cells.end(), [](const DirectionScene& c) { return c.walk_deg == 0.0; })) +
      " still scenes and " +
      std::to_string(
          std::count_if(cells.begin(), cells.end(), [](const DirectionScene& c) { return c.walk_deg != 0.0; })) +
      " with a talker who walks 90° round the array in 3 s (5-8 s).\n\n";
  md +=
      "Vorn runs the recognition chain on one microphone (`bf_flag` 0, `ns_flag` 1, `vad_mode` 2) with per-frame "
      "tracking (`doa_flag` 1, `doa_update_flag` 1 on every frame) and then `VornDoa` (`doa_flag` 2) over the "
      "talker's window (10 s) and over its first 0.5 s (a keyword). The baselines are written in the bench from "
      "their textbook definitions (`bench/quality/direction_baselines.cpp`): SRP-PHAT, SRP-PHAT with each bin "
      "weighted by its SNR, and MUSIC with the pseudo-spectrum normalised per frequency; per frame they pool "
      "their statistics with a 0.5 s forgetting time, per stretch over the stretch, and they search elevation "
      "as well as azimuth. Cells give the mean azimuth error and the share within 10°.\n\n";
  md += "### Acceptance (enhanced profile)\n\n" + Acceptance(results, cells) + "\n";
  md += "### Utterance search over the talker's 10 s\n\n";
  md +=
      "The last row is the enhanced tracker's own evidence over the whole run, asked for with `VornDoa` and "
      "`doa_flag` 1 after the frames (what the `vorn` tool reports as the recording's direction); it has no "
      "stretch of its own, so it is scored against the same truth.\n\n";
  std::vector<std::string> with_pooled = SystemNames();
  with_pooled.push_back(kEnhancedPooled);
  Table(md, results, cells, kSentence, with_pooled);
  md += "### Utterance search over a 0.5 s keyword (the talk's first half second)\n\n";
  Table(md, results, cells, kKeyword);
  md += "### Per-frame direction, speech frames after the first second of speech\n\n";
  Table(md, results, cells, kSpeech);
  md += "### Per-frame direction in pauses (non-speech frames of the talk after its first second)\n\n";
  Table(md, results, cells, kPause);

  md += "### Walking talker\n\n";
  md +=
      "Lag: the delay of the true track that best explains the per-frame azimuths over the walk and the second "
      "after it. Error: mean error over the speech frames of that span, without delay. Catch-up: from the end "
      "of the walk until every later speech frame is within 10°.\n\n";
  std::string header = "| system |", rule = "|---|";
  for (const DirectionScene& c : cells)
    if (c.walk_deg != 0.0) {
      header.append(" ").append(c.name).append(" |");
      rule.append("---|");
    }
  md += header + "\n" + rule + "\n";
  for (const std::string& system : SystemNames()) {
    std::string row = "| " + system + " |";
    for (const DirectionScene& c : cells) {
      if (c.walk_deg == 0.0) continue;
      const Score& s = results.at(system).at(c.name);
      row += " lag " + Fixed(s.lag_s, 2) + " s, error " + Fixed(s.walk_error) + "°, catch-up " +
             Fixed(s.catch_up_s, 2) + " s |";
    }
    md += row + "\n";
  }
  md += "\n";

  md += "### Confidence (enhanced)\n\n";
  md += "Speech frames after the first second, all still scenes, split by the reported confidence.\n\n";
  md += "| confidence | frames | within 10° | mean error |\n|---|---|---|---|\n";
  const double edges[] = {0.0, 0.25, 0.5, 0.75, 1.0001};
  for (int b = 0; b < 4; ++b) {
    std::vector<double> errors;
    for (const DirectionScene& c : cells)
      if (c.walk_deg == 0.0)
        for (const auto& [confidence, error] : results.at(kEnhanced).at(c.name).confidence_errors)
          if (confidence >= edges[b] && confidence < edges[b + 1]) errors.push_back(error);
    const Figure f = Summarise(errors);
    md += "| " + Fixed(edges[b], 2) + "-" + Fixed(std::min(edges[b + 1], 1.0), 2) + " | " + std::to_string(f.count) +
          " | " + (f.count ? Fixed(100.0 * f.within, 0) + " %" : std::string("–")) + " | " +
          (f.count ? Fixed(f.mean) + "°" : std::string("–")) + " |\n";
  }
  md += "\n";
  return md;
}

}  // namespace

TrackLag FindTrackLag(const std::vector<double>& estimates_deg, const std::vector<double>& truth_deg,
                      const std::vector<std::uint8_t>& speech, std::size_t begin, std::size_t end,
                      std::size_t max_lag) {
  TrackLag found;
  double best = 1e300;
  for (std::size_t lag = 0; lag <= max_lag; ++lag) {
    double sum = 0.0;
    int n = 0;
    for (std::size_t f = std::max(begin, lag); f < end && f < estimates_deg.size() && f < speech.size(); ++f)
      if (speech[f] != 0) sum += AzimuthErrorDeg(estimates_deg[f], truth_deg[f - lag]), ++n;
    const double mean = n ? sum / n : 0.0;
    if (lag == 0) found.error_undelayed_deg = mean;
    if (mean < best) best = mean, found.frames = lag, found.error_at_lag_deg = mean;
  }
  return found;
}

int RunDirectionBench(const std::filesystem::path& out_dir, const std::string& match, DirectionDraw draw,
                      const DirectionDrawRecipe& recipe) {
  std::vector<DirectionScene> cells = DirectionScenes(recipe);
  std::erase_if(cells, [&match](const DirectionScene& c) { return c.name.find(match) == std::string::npos; });
  Results results;
  for (const DirectionScene& cell : cells) {
    DirectionRender r;
    std::string error;
    if (!RenderDirectionScene(cell, &r, &error)) {
      std::fprintf(stderr, "%s: %s\n", cell.name.c_str(), error.c_str());
      return 1;
    }
    const std::size_t frames = WholeFrames(r.rendered);
    const FrameRange sentence = Frames(cell.scene.talker_begin_s, cell.scene.talker_end_s, frames);
    const FrameRange keyword = Frames(cell.scene.talker_begin_s, cell.scene.talker_begin_s + kKeywordS, frames);
    Answers enhanced;
    for (auto [name, profile] :
         {std::pair{kClassic, VORN_PROFILE_CLASSIC}, std::pair{kEnhanced, VORN_PROFILE_ENHANCED}}) {
      Answers answers;
      if (!RunVornDirection(profile, r, sentence, keyword, &answers, &error)) {
        std::fprintf(stderr, "%s on %s: %s\n", name, cell.name.c_str(), error.c_str());
        return 1;
      }
      results[name][cell.name] = ScoreAnswers(cell, r, answers);
      if (profile == VORN_PROFILE_ENHANCED) enhanced = answers;
      if (answers.pooled_deg >= 0.0) {
        Score pooled;
        pooled.sentence_error = results[name][cell.name].pooled_error;
        results[kEnhancedPooled][cell.name] = pooled;
      }
    }
    for (Baseline b : {Baseline::kSrpPhat, Baseline::kSrpPhatSnr, Baseline::kMusic}) {
      const BaselineAnswers got = RunBaseline(b, r.rendered.mics, {sentence, keyword});
      Answers answers;
      answers.azimuth_deg = got.per_frame_deg;
      answers.sentence_deg = got.stretch_deg[0];
      answers.keyword_deg = got.stretch_deg[1];
      results[BaselineName(b)][cell.name] = ScoreAnswers(cell, r, answers);
    }
    // Per scene, for a quick look while developing: the enhanced answers'
    // errors (the 10 s and 0.5 s answers with their confidence) and the
    // per-frame share within 10 degrees.
    const Score& e = results[kEnhanced][cell.name];
    const Figure track = Summarise(e.speech_errors);
    std::fprintf(stderr,
                 "scored %s: enhanced 10 s %.1f (%.0f, confidence %.2f), 0.5 s %.1f (%.0f, confidence %.2f), pooled "
                 "%.1f, track %.0f %%%s\n",
                 cell.name.c_str(), e.sentence_error, enhanced.sentence_deg, enhanced.stretch_confidence[0],
                 e.keyword_error, enhanced.keyword_deg, enhanced.stretch_confidence[1], e.pooled_error,
                 100.0 * track.within,
                 cell.walk_deg != 0.0 ? (", catch-up " + Fixed(e.catch_up_s, 2) + " s").c_str() : "");
  }
  const std::string md = Markdown(results, cells, draw, recipe);
  const std::string stem = draw == DirectionDraw::kFresh   ? "direction_fresh"
                           : draw == DirectionDraw::kGiven ? "direction_draw"
                                                           : "direction";
  std::FILE* file = std::fopen((out_dir / (stem + ".md")).c_str(), "w");
  if (file == nullptr) {
    std::fprintf(stderr, "cannot write %s\n", (out_dir / (stem + ".md")).c_str());
    return 1;
  }
  std::fputs(md.c_str(), file);
  std::fclose(file);
  if (std::FILE* headline = std::fopen((out_dir / (stem + "_headline.md")).c_str(), "w")) {
    std::fputs(Headline(results, cells).c_str(), headline);
    std::fclose(headline);
  }
  return 0;
}

}  // namespace vorn::bench
