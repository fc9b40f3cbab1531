// The beam section: scenes, systems and scoring.
//
// Every chain here is the recognition chain (echo canceller, single-channel
// suppressor, VAD mode 2, AGC off) without per-frame direction tracking, so
// that the beam is the only thing that differs: microphone 0 alone ("1-mic")
// or a beam aimed by bf_azimuth at the talker (nearest 5 degrees, as a
// device aims a fixed beam). The peer has no beamformer; it runs its own
// chain on microphone 0.
#include "quality/beam_grid.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "quality/beam_oracle.h"
#include "quality/grid.h"
#include "quality/markdown.h"
#include "quality/scoring.h"
#include "quality/systems.h"
#include "sim/metrics.h"
#ifdef VORN_WITH_SPEEXDSP
#include "quality/speex_peer.h"
#endif

namespace vorn::bench {
namespace {

using namespace vorn::sim;

constexpr std::size_t kMaxLag = 4096;
constexpr double kSnrs[] = {0.0, 10.0, 20.0};
constexpr double kFaultStartS = 1.0;

struct Figures {
  double dsnr = NAN, si_sdr = NAN, level_dbfs = NAN;
};

Figures Score(const RenderedScene& r, const SystemRun& run) {
  Signal target = r.target;
  target.resize(run.output.size(), 0.0f);
  const Enhancement e = ScoreEnhancement(Channel(r.mics, 0), run.output, target, kMaxLag);
  return {e.SnrImprovementDb(), e.si_sdr_out_db, ActiveLevelDbfs(run.output, r.truth.speech, FrameLag(e.latency))};
}

VornConfig Chain(const char* name, int profile, int bf_flag) {
  VornConfig c{name, {.agc = 0, .bf = bf_flag, .doa = 0, .aec = 1, .ns = 1, .azimuth = 0, .vad_mode = 2},
               bf_flag != 0};
  c.profile = profile;
  return c;
}

using Runner = std::function<bool(const Scene&, const RenderedScene&, SystemRun*, std::string*)>;

Runner Vorn(const VornConfig& config) {
  return [config](const Scene& scene, const RenderedScene& r, SystemRun* run, std::string* error) {
    return RunVorn(config, scene, r, run, error);
  };
}

struct System {
  std::string name;
  Runner run;
};

// Runs every system on every scene: figures[scene][system].
bool RunAll(const std::vector<Scene>& scenes, const std::vector<System>& systems,
            const std::function<void(std::size_t, RenderedScene&)>& alter,
            std::vector<std::vector<Figures>>* figures, std::vector<std::vector<SystemRun>>* runs,
            std::string* error) {
  for (std::size_t s = 0; s < scenes.size(); ++s) {
    RenderedScene r;
    if (!RenderScene(scenes[s], &r, error)) return false;
    if (alter) alter(s, r);
    figures->emplace_back();
    if (runs) runs->emplace_back();
    for (const System& system : systems) {
      SystemRun run;
      if (!system.run(scenes[s], r, &run, error)) {
        *error = system.name + ": " + *error;
        return false;
      }
      figures->back().push_back(Score(r, run));
      if (runs) runs->back().push_back(std::move(run));
    }
  }
  return true;
}

// Mean of a figure over the scenes of one input SNR.
double MeanAtSnr(const std::vector<Scene>& scenes, const std::vector<std::vector<Figures>>& figures, std::size_t sys,
                 double snr, double Figures::*field) {
  double sum = 0.0;
  int count = 0;
  for (std::size_t s = 0; s < scenes.size(); ++s) {
    if (scenes[s].noises[0].snr_db != snr) continue;
    sum += figures[s][sys].*field;
    ++count;
  }
  return count ? sum / count : NAN;
}

std::string Verdict(bool pass) { return pass ? "met" : "**not met**"; }

std::string SnrHeader(const char* figure) {
  std::string header = "| system |", rule = "|---|";
  for (double snr : kSnrs) {
    header.append(" ").append(figure).append(" at ").append(Fixed(snr, 0)).append(" dB |");
    rule += "---|";
  }
  return header + "\n" + rule + "\n";
}

std::string SnrRow(const std::string& name, const std::vector<Scene>& scenes,
                   const std::vector<std::vector<Figures>>& figures, std::size_t sys, double Figures::*a,
                   double Figures::*b) {
  std::string row = "| " + name + " |";
  for (double snr : kSnrs)
    AddCell(row, Cell(MeanAtSnr(scenes, figures, sys, snr, a)) + " / " + Cell(MeanAtSnr(scenes, figures, sys, snr, b)));
  return row + "\n";
}

// ---- the talker in and out of the look direction --------------------------

std::vector<System> LookSystems(double offset_deg) {
  VornConfig classic = Chain("classic", 0, 2), enhanced = Chain("enhanced", 1, 2);
  classic.steer_offset_deg = enhanced.steer_offset_deg = offset_deg;
  std::vector<System> systems = {{"classic 1-mic", Vorn(Chain("classic 1-mic", 0, 0))},
                                 {"classic MVDR", Vorn(classic)},
                                 {"enhanced 1-mic", Vorn(Chain("enhanced 1-mic", 1, 0))},
                                 {"enhanced MVDR", Vorn(enhanced)}};
#ifdef VORN_WITH_SPEEXDSP
  static const SpeexConfig kSpeex{"SpeexDSP", true, true, false, 256, 768};
  systems.push_back({"SpeexDSP (1 mic)", [](const Scene&, const RenderedScene& r, SystemRun* run, std::string* e) {
                       return RunSpeex(kSpeex, r, run, e);
                     }});
#endif
  return systems;
}

// An offline filter with the enhanced single-microphone chain behind it: the
// filter's output takes microphone 0's place in the capture, so the
// suppressor, its speech presence and its noise estimate all hear it.
Runner BehindSuppressor(Runner filter) {
  return [filter](const Scene& scene, const RenderedScene& r, SystemRun* run, std::string* error) {
    SystemRun filtered;
    if (!filter(scene, r, &filtered, error)) return false;
    RenderedScene fed = r;
    for (std::size_t i = 0; i < fed.mics.size() / kMics; ++i) {
      const double y = i < filtered.output.size() ? std::round(filtered.output[i]) : 0.0;
      fed.mics[i * kMics] = static_cast<std::int16_t>(std::clamp(y, -32768.0, 32767.0));
    }
    return RunVorn(Chain("", 1, 0), scene, fed, run, error);
  };
}

Runner OracleBeam(double loading) {
  return [loading](const Scene& scene, const RenderedScene& r, SystemRun* run, std::string* e) {
    return RunOracleBeam(scene, r, loading, run, e);
  };
}

Runner OracleWiener(double mu, bool microphone_0_only) {
  return [mu, microphone_0_only](const Scene& scene, const RenderedScene& r, SystemRun* run, std::string* e) {
    return RunOracleWiener(scene, r, mu, microphone_0_only, run, e);
  };
}

// What the array itself allows: the beams with nothing behind them, against
// the offline filters that know each scene's statistics.
bool BeamsAloneSection(std::string& md, const std::vector<Scene>& scenes, std::string* error) {
  VornConfig beam = Chain("", 1, 2);
  beam.switches.ns = 0;
  const std::vector<System> systems = {
      {"microphone 0", [](const Scene&, const RenderedScene& r, SystemRun* run, std::string*) {
         *run = RunUnprocessed(r);
         return true;
       }},
      {"enhanced MVDR, no suppressor", Vorn(beam)},
      {"offline MVDR, loaded 0.5", OracleBeam(0.5)},
      {"offline MVDR, loaded 0.1", OracleBeam(0.1)},
      {"offline MVDR, loaded 1e-6", OracleBeam(1e-6)},
      {"offline multi-channel Wiener, mu 1", OracleWiener(1.0, false)},
      {"offline Wiener on microphone 0 alone, mu 1", OracleWiener(1.0, true)}};
  std::vector<std::vector<Figures>> figures;
  if (!RunAll(scenes, systems, nullptr, &figures, nullptr, error)) return false;
  md += "\n#### The beams alone\n\n";
  md += "The same scenes with no suppressor behind the beam, against an MVDR beam designed offline from each "
        "scene's own statistics (the noise covariance of the whole recording and the talker's transfer "
        "function to microphone 0, both from separate renderings of the talker and the noise; diagonal "
        "loading relative to the noise's mean power; the run-time beam loads by 0.5). It is about the most "
        "an MVDR beam on this array could take from these rooms and noise, and what the talker pays for it: "
        "the lighter the loading, the more noise it removes and the more of the talker's reverberant image "
        "(which the score holds it to) it reshapes. The multi-channel Wiener filter, from the same "
        "renderings, estimates that image itself rather than keeping one transfer function undistorted: "
        "w = (Rs + mu Rn)^-1 Rs e0 per bin, with the talker's full covariance Rs, room sound and all. It is "
        "a fixed filter per bin, so much of what it takes is the noise's spectrum, which a single "
        "microphone's filter takes as well: the last row is the same filter on microphone 0 alone, "
        "Rs00 / (Rs00 + mu Rn00), and the difference between the two rows is what the array adds. "
        "ΔSNR / SI-SDR (dB).\n\n";
  md += SnrHeader("ΔSNR / SI-SDR");
  for (std::size_t i = 0; i < systems.size(); ++i)
    md += SnrRow(systems[i].name, scenes, figures, i, &Figures::dsnr, &Figures::si_sdr);
  return true;
}

// The offline Wiener filters with the suppressor behind them, against the
// enhanced 1-mic chain (`mono`: its figures, scene by scene).
bool WienerBehindSuppressorSection(std::string& md, const std::vector<Scene>& scenes,
                                   const std::vector<Figures>& mono, std::string* error) {
  const std::vector<System> systems = {
      {"offline multi-channel Wiener, mu 0.3, + suppressor", BehindSuppressor(OracleWiener(0.3, false))},
      {"offline multi-channel Wiener, mu 1, + suppressor", BehindSuppressor(OracleWiener(1.0, false))},
      {"offline Wiener on microphone 0 alone, mu 0.3, + suppressor", BehindSuppressor(OracleWiener(0.3, true))}};
  std::vector<std::vector<Figures>> figures;
  if (!RunAll(scenes, systems, nullptr, &figures, nullptr, error)) return false;
  for (std::size_t s = 0; s < scenes.size(); ++s)
    for (Figures& f : figures[s]) {
      f.dsnr -= mono[s].dsnr;
      f.si_sdr -= mono[s].si_sdr;
    }
  md += "\n#### The offline Wiener filters behind the suppressor\n\n";
  md += "The filters' output in microphone 0's place, then the enhanced single-microphone chain (the "
        "suppressor's presence is judged on the filtered signal here, not on microphone 0 as behind the "
        "run-time beam; the single-microphone filter's row carries the same handicap). SNR gain / SI-SDR "
        "over the enhanced 1-mic chain (dB); the acceptance line asks for +3 / +1.\n\n";
  md += SnrHeader("ΔSNR / SI-SDR over 1-mic");
  for (std::size_t i = 0; i < systems.size(); ++i)
    md += SnrRow(systems[i].name, scenes, figures, i, &Figures::dsnr, &Figures::si_sdr);
  return true;
}

bool LookSection(std::string& md, std::string* error) {
  std::vector<Scene> scenes;
  for (const GridScene& cell : DirectionGrid()) scenes.push_back(cell.scene);
  const std::vector<System> in_look = LookSystems(0.0);
  std::vector<std::vector<Figures>> in_figures, off_figures;
  if (!RunAll(scenes, in_look, nullptr, &in_figures, nullptr, error)) return false;
  const std::vector<System> off_look = LookSystems(90.0);
  const std::vector<System> off_only = {off_look[1], off_look[3]};
  if (!RunAll(scenes, off_only, nullptr, &off_figures, nullptr, error)) return false;

  md += "### Talker in the look direction\n\n";
  md += "The noise grid of the main report (RT60 0.2/0.4/0.7 s by diffuse pink noise at 0/10/20 dB SNR, "
        "talker at a different azimuth in each cell, 10 degrees above the array plane); MVDR beam "
        "(`bf_flag` 2) aimed at the talker, then the recognition chain with the suppressor. Each cell: "
        "SNR gain over microphone 0 / output SI-SDR (dB), mean of the three rooms.\n\n";
  md += SnrHeader("ΔSNR / SI-SDR");
  for (std::size_t i = 0; i < in_look.size(); ++i)
    md += SnrRow(in_look[i].name, scenes, in_figures, i, &Figures::dsnr, &Figures::si_sdr);
  md += "\nAcceptance: behind the MVDR beam, SI-SDR at least 1 dB and SNR gain at least 3 dB above the "
        "single-microphone enhanced chain at every input SNR.\n\n";
  md += "| input SNR | SI-SDR, beam − 1-mic (dB) | | SNR gain, beam − 1-mic (dB) | |\n|---|---|---|---|---|\n";
  for (double snr : kSnrs) {
    const double dsi = MeanAtSnr(scenes, in_figures, 3, snr, &Figures::si_sdr) -
                       MeanAtSnr(scenes, in_figures, 2, snr, &Figures::si_sdr);
    const double dsnr = MeanAtSnr(scenes, in_figures, 3, snr, &Figures::dsnr) -
                        MeanAtSnr(scenes, in_figures, 2, snr, &Figures::dsnr);
    const double csi = MeanAtSnr(scenes, in_figures, 1, snr, &Figures::si_sdr) -
                       MeanAtSnr(scenes, in_figures, 0, snr, &Figures::si_sdr);
    const double csnr = MeanAtSnr(scenes, in_figures, 1, snr, &Figures::dsnr) -
                        MeanAtSnr(scenes, in_figures, 0, snr, &Figures::dsnr);
    md += "| " + Fixed(snr, 0) + " dB | enhanced " + Fixed(dsi) + " (classic " + Fixed(csi) + ") | " +
          Verdict(dsi >= 1.0) + " | enhanced " + Fixed(dsnr) + " (classic " + Fixed(csnr) + ") | " +
          Verdict(dsnr >= 3.0) + " |\n";
  }

  if (!BeamsAloneSection(md, scenes, error)) return false;
  std::vector<Figures> enhanced_mono;
  for (const std::vector<Figures>& f : in_figures) enhanced_mono.push_back(f[2]);
  if (!WienerBehindSuppressorSection(md, scenes, enhanced_mono, error)) return false;

  md += "\n### Talker out of the look direction\n\n";
  md += "The same scenes with the beam aimed 90 degrees away from the talker. Talker level change against "
        "the same profile's 1-mic chain (dB; negative: the beam takes the talker down) / output SI-SDR (dB).\n\n";
  md += SnrHeader("level change / SI-SDR");
  for (std::size_t i = 0; i < off_only.size(); ++i) {
    const std::size_t mono = i == 0 ? 0 : 2;
    std::vector<std::vector<Figures>> change = off_figures;
    for (std::size_t s = 0; s < scenes.size(); ++s) change[s][i].level_dbfs -= in_figures[s][mono].level_dbfs;
    md += SnrRow(off_only[i].name + ", 90° off", scenes, change, i, &Figures::level_dbfs, &Figures::si_sdr);
  }
  md += "\n";
  return true;
}

// ---- the adaptive beam against a competing talker ------------------------

bool AdaptiveSection(std::string& md, std::string* error) {
  std::vector<Scene> scenes;
  std::uint32_t seed = 400;
  for (double snr : kSnrs) {
    Scene scene;
    scene.room.rt60_s = 0.4;
    scene.seed = seed++;
    scene.far_begin_s = scene.far_end_s = 0.0;
    scene.talker_begin_s = 2.0;
    scene.talker_end_s = 12.0;
    scene.azimuth_deg = 60.0;
    scene.noises.push_back({NoiseKind::kDiffuse, NoiseColour::kPink, snr});
    NoiseSource other{NoiseKind::kInterferer, NoiseColour::kSpeech, 10.0};
    other.azimuth_deg = 200.0;
    scene.noises.push_back(other);
    scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 40.0});
    scenes.push_back(scene);
  }
  const std::vector<System> systems = {{"enhanced 1-mic", Vorn(Chain("", 1, 0))},
                                       {"classic fixed MVDR", Vorn(Chain("", 0, 2))},
                                       {"classic adaptive", Vorn(Chain("", 0, 4))},
                                       {"enhanced fixed MVDR", Vorn(Chain("", 1, 2))},
                                       {"enhanced adaptive", Vorn(Chain("", 1, 4))}};
  std::vector<std::vector<Figures>> figures;
  if (!RunAll(scenes, systems, nullptr, &figures, nullptr, error)) return false;
  md += "### Adaptive beam and a competing talker\n\n";
  md += "Talker at 60 degrees (a direction the adaptive beam types accept), a second speech-like talker at "
        "200 degrees 10 dB below it throughout, diffuse pink noise at the SNR given, RT60 0.4 s; adaptive "
        "beam `bf_flag` 4 (GSC on the MVDR beam) against the fixed MVDR beam and one microphone. Talker "
        "level change against the enhanced 1-mic chain (dB) / output SI-SDR (dB). A canceller that adapts "
        "on the talker takes the talker down.\n\n";
  md += SnrHeader("level change / SI-SDR");
  std::vector<std::vector<Figures>> change = figures;
  for (std::size_t s = 0; s < scenes.size(); ++s)
    for (std::size_t i = 0; i < systems.size(); ++i) change[s][i].level_dbfs -= figures[s][0].level_dbfs;
  for (std::size_t i = 0; i < systems.size(); ++i)
    md += SnrRow(systems[i].name, scenes, change, i, &Figures::level_dbfs, &Figures::si_sdr);
  md += "\n";
  return true;
}

// ---- one microphone dead or clipped ---------------------------------------

struct Fault {
  const char* name;
  int mic;
  bool dead;  // else clipped: 24 dB too hot into the converter's rails
};

bool FaultSection(std::string& md, std::string* error) {
  std::vector<Scene> scenes;
  for (const GridScene& cell : DirectionGrid())
    if (cell.scene.room.rt60_s == 0.4) scenes.push_back(cell.scene);
  const Fault faults[] = {{"microphone 0 dead", 0, true}, {"microphone 1 dead", 1, true},
                          {"microphone 2 clipped", 2, false}};
  md += "### One microphone dead or clipped\n\n";
  md += "The RT60 0.4 s cells of the noise grid; from 1 s on one microphone gives zeros (dead) or runs 24 dB "
        "too hot into the 16-bit rails (clipped). SI-SDR (dB) of the enhanced MVDR chain, and of the same "
        "chain told from the start which microphone to leave out (the two-microphone optimum); the classic "
        "chain for comparison. Detection: time from the fault to the warning `VornGetWarnings` reports "
        "(the `vorn` tool prints it).\n\n";
  md += "| fault | input SNR | enhanced | two-mic optimum | enhanced − optimum | | classic | warning, after |\n";
  md += "|---|---|---|---|---|---|---|---|\n";
  for (const Fault& fault : faults) {
    VornConfig optimum = Chain("", 1, 2);
    optimum.exclude_mics = 1u << fault.mic;
    const std::vector<System> systems = {
        {"enhanced", Vorn(Chain("", 1, 2))}, {"optimum", Vorn(optimum)}, {"classic", Vorn(Chain("", 0, 2))}};
    const auto alter = [&fault](std::size_t, RenderedScene& r) {
      for (std::size_t i = static_cast<std::size_t>(kFaultStartS * kSampleRate); i < r.mics.size() / kMics; ++i) {
        std::int16_t& x = r.mics[i * kMics + static_cast<std::size_t>(fault.mic)];
        x = fault.dead ? 0 : static_cast<std::int16_t>(std::clamp(static_cast<int>(x) * 16, -32768, 32767));
      }
    };
    std::vector<std::vector<Figures>> figures;
    std::vector<std::vector<SystemRun>> runs;
    if (!RunAll(scenes, systems, alter, &figures, &runs, error)) return false;
    const std::uint32_t want = fault.dead ? VORN_WARN_MIC_DEAD(fault.mic) : VORN_WARN_MIC_CLIPPED(fault.mic);
    for (std::size_t s = 0; s < scenes.size(); ++s) {
      const std::vector<std::uint32_t>& warnings = runs[s][0].warnings;
      const auto first =
          std::find_if(warnings.begin(), warnings.end(), [want](std::uint32_t w) { return (w & want) != 0; });
      std::string detected = "never";
      if (first != warnings.end()) {
        const double at_s = static_cast<double>(first - warnings.begin() + 1) * kFrame / kSampleRate;
        detected = Fixed(1000.0 * (at_s - kFaultStartS), 0) + " ms";
      }
      const double gap = figures[s][0].si_sdr - figures[s][1].si_sdr;
      md += "| " + std::string(fault.name) + " | " + Fixed(scenes[s].noises[0].snr_db, 0) + " dB | " +
            Fixed(figures[s][0].si_sdr) + " | " + Fixed(figures[s][1].si_sdr) + " | " + Fixed(gap) + " | " +
            Verdict(gap >= -2.0) + " | " + Fixed(figures[s][2].si_sdr) + " | " + detected + " |\n";
    }
  }
  md += "\nAcceptance: within 2 dB of the two-microphone optimum, and a warning.\n\n";
  return true;
}

}  // namespace

bool WriteBeamReport(const std::filesystem::path& dir, const std::string& only, std::string* error) {
  std::string md = "## Beams that keep the talker\n\n";
  md += "Generated by `vorn_bench_quality` (`--only beam` runs this section alone). Classic is the front end "
        "as designed; enhanced is the profile's run-time beam (in phase with microphone 0, blended towards "
        "microphone 0 where the talker dominates, faulty microphones left out). These chains run the echo "
        "canceller behind the beam; their loudspeaker is silent, so the MVDR beam learns the room as it "
        "would without the canceller. SpeexDSP has no beamformer and is shown on microphone 0.\n\n";
  const auto wanted = [&only](const char* part) { return only.empty() || only == part; };
  if ((wanted("look") && !LookSection(md, error)) || (wanted("adaptive") && !AdaptiveSection(md, error)) ||
      (wanted("fault") && !FaultSection(md, error)))
    return false;
  md += "Cost per hop: `BM_EnhancedBeamHop/bf:N/learn:L` (L 1: the MVDR beam learning and redesigned as it "
        "goes) against `BM_BfProcHop/bf:N/doa:0/mbf:0` in the speed section of the main report.\n";
  return WriteSection(dir / "beam.md", md, error);
}

}  // namespace vorn::bench
