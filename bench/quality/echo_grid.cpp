// Scenes of the echo bench. Every scene starts with the far end alone (the
// canceller converges as it would after a device starts playing), has room
// noise 30 dB and microphone hiss 40 dB below the talker, and ends with the
// talker so that every system's latency can be measured against it.
#include "quality/echo_grid.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <numbers>
#include <random>

#include "sim/signals.h"

namespace vorn::bench {
namespace {

using sim::kFrame;
using sim::kSampleRate;
using sim::Scene;
using sim::Signal;
using sim::Span;
using sim::Truth;
using sim::RenderedScene;
using sim::NoiseKind;
using sim::NoiseColour;
using sim::kMics;

constexpr double kTalkerDbfs = -30.0;

std::string Name(const char* format, double value) {
  char text[48];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

Scene Base(std::uint32_t seed, double duration_s, double far_end_s, double talker_begin_s) {
  Scene scene;
  scene.seed = seed;
  scene.duration_s = duration_s;
  scene.room.rt60_s = 0.35;
  scene.azimuth_deg = 73.0;
  scene.talker_level_dbfs = kTalkerDbfs;
  scene.talker_begin_s = talker_begin_s;
  scene.talker_end_s = duration_s;
  scene.far_begin_s = 0.0;
  scene.far_end_s = far_end_s;
  scene.echo_level_dbfs = -25.0;
  scene.noises.push_back({NoiseKind::kDiffuse, NoiseColour::kPink, 30.0});
  scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 40.0});
  return scene;
}

// The reference from `at` on moved `shift` samples earlier (a link that
// drops samples: the reference then leads its echo by `shift` more), or
// later for a negative shift (a link that pads with silence: it leads by
// less).
void JumpLead(std::vector<std::int16_t>& reference, std::size_t at, std::ptrdiff_t shift) {
  const auto size = static_cast<std::ptrdiff_t>(reference.size());
  const auto begin = static_cast<std::ptrdiff_t>(at);
  if (shift >= 0) {
    for (std::ptrdiff_t i = begin; i < size; ++i) reference[i] = i + shift < size ? reference[i + shift] : 0;
  } else {
    for (std::ptrdiff_t i = size - 1; i >= begin; --i) reference[i] = i + shift >= begin ? reference[i + shift] : 0;
  }
}

// Spans of the frames where `want_far` and `want_near` hold.
std::vector<Span> Runs(const std::vector<std::uint8_t>& far, const std::vector<std::uint8_t>& near, bool want_far,
                       bool want_near) {
  std::vector<Span> spans;
  for (std::size_t f = 0; f < far.size(); ++f) {
    if ((far[f] != 0) != want_far || (near[f] != 0) != want_near) continue;
    if (!spans.empty() && spans.back().end == f)
      spans.back().end = f + 1;
    else
      spans.push_back({f, f + 1});
  }
  return spans;
}

// Music never pauses, so the simulator's syllable detector (which looks for
// frames well above the recording's quiet floor) finds none: the far end
// plays in every frame of its window, and the talk spans follow from that.
void LabelContinuousFarEnd(const Scene& scene, Truth* truth) {
  const std::size_t frames = truth->speech.size();
  const std::size_t tail = static_cast<std::size_t>(scene.room.rt60_s * kSampleRate / kFrame);
  std::vector<std::uint8_t> far(frames, 0), near(frames, 0);
  const std::size_t far_begin = static_cast<std::size_t>(scene.far_begin_s * kSampleRate / kFrame);
  const std::size_t far_end = static_cast<std::size_t>(scene.far_end_s * kSampleRate / kFrame);
  for (std::size_t f = far_begin; f < far_end && f < frames; ++f) truth->far_end[f] = 1;
  for (std::size_t f = far_begin; f < std::min(frames, far_end + tail); ++f) far[f] = 1;
  std::size_t first = frames, last = 0;
  for (std::size_t f = 0; f < frames; ++f)
    if (truth->speech[f]) {
      first = std::min(first, f);
      last = f;
    }
  for (std::size_t f = first; f < frames && f <= last + tail; ++f) near[f] = 1;
  truth->far_single_talk = Runs(far, near, true, false);
  truth->near_single_talk = Runs(far, near, false, true);
  truth->double_talk = Runs(far, near, true, true);
}

}  // namespace

Signal MakeMusicLike(std::size_t n, double rms, std::uint32_t seed) {
  constexpr double kPi = std::numbers::pi;
  constexpr double kBeat = 0.5;  // seconds
  // I - V - vi - IV in C, one chord per bar of four beats (MIDI note numbers).
  constexpr int kChords[4][3] = {{60, 64, 67}, {55, 59, 62}, {57, 60, 64}, {53, 57, 60}};
  constexpr int kScale[7] = {72, 74, 76, 77, 79, 81, 83};
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(0, 6);
  std::normal_distribution<double> hiss(0.0, 1.0);
  const auto hz = [](int note) { return 440.0 * std::pow(2.0, (note - 69) / 12.0); };
  // Harmonic tone of `partials` partials falling as 1/h, under an exponential decay.
  const auto note = [&](Signal& x, std::size_t at, double seconds, double f0, double level, double decay_s,
                        int partials) {
    const std::size_t len = static_cast<std::size_t>(seconds * kSampleRate);
    for (std::size_t i = 0; i < len && at + i < n; ++i) {
      const double t = static_cast<double>(i) / kSampleRate;
      const double attack = std::min(1.0, t / 0.005);
      const double env = attack * std::exp(-t / decay_s) * std::min(1.0, (seconds - t) / 0.01);
      double v = 0.0;
      for (int h = 1; h <= partials && h * f0 < 7500.0; ++h) v += std::sin(2.0 * kPi * h * f0 * t) / h;
      x[at + i] += static_cast<float>(level * env * v);
    }
  };
  Signal x(n, 0.0f);
  const std::size_t beat = static_cast<std::size_t>(kBeat * kSampleRate);
  for (std::size_t b = 0; b * beat < n; ++b) {
    const std::size_t at = b * beat;
    const auto& chord = kChords[(b / 4) % 4];
    for (int tone : chord) note(x, at, kBeat, hz(tone), 0.25, 0.6, 8);
    note(x, at, kBeat, hz(chord[0] - 24), 0.5, 0.4, 5);
    for (int half = 0; half < 2; ++half) note(x, at + half * beat / 2, kBeat / 2, hz(kScale[pick(rng)]), 0.3, 0.2, 6);
    // Kick: a falling sine; hi-hat: a burst of high-passed noise off the beat.
    for (std::size_t i = 0; i < beat / 3 && at + i < n; ++i) {
      const double t = static_cast<double>(i) / kSampleRate;
      x[at + i] += static_cast<float>(0.8 * std::exp(-t / 0.05) * std::sin(2.0 * kPi * (50.0 + 60.0 * std::exp(-t / 0.02)) * t));
    }
    double previous = 0.0;
    for (std::size_t i = 0; i < beat / 8 && at + beat / 2 + i < n; ++i) {
      const double white = hiss(rng);
      const double t = static_cast<double>(i) / kSampleRate;
      x[at + beat / 2 + i] += static_cast<float>(0.15 * std::exp(-t / 0.015) * (white - previous));
      previous = white;
    }
  }
  const double now = sim::Rms(x);
  if (now > 0.0)
    for (float& v : x) v = static_cast<float>(v * rms / now);
  return x;
}

std::vector<EchoScene> EchoGrid() {
  std::vector<EchoScene> grid;
  std::uint32_t seed = 400;
  for (double ser : {-10.0, -5.0, 0.0, 5.0}) {
    EchoScene s{Name("dt_ser%+.0f", ser), EchoKind::kDoubleTalk, Base(seed++, 12.0, 12.0, 5.0)};
    s.ser_db = ser;
    s.scene.echo_level_dbfs = kTalkerDbfs - ser;
    s.converged_from_s = 2.5;
    grid.push_back(s);
  }
  for (double lead : {0.0, 40.0, 80.0, 120.0, 250.0}) {
    EchoScene s{Name("lead_%.0fms", lead), EchoKind::kLead, Base(seed++, 14.0, 12.0, 12.0)};
    s.scene.echo_delay_ms = lead;
    s.converged_from_s = 5.0;
    grid.push_back(s);
  }
  // A large jump, and small ones down and up that stay within or near the
  // filters' window (a few blocks, and less than one), over the same far end.
  const std::uint32_t jump_seed = seed++;
  for (double to_ms : {117.0, 22.0, 43.0}) {
    EchoScene s{Name("lead_jump_40_%.0fms", to_ms), EchoKind::kJump, Base(jump_seed, 16.0, 14.0, 14.0)};
    s.scene.echo_delay_ms = 40.0;
    s.change_s = 7.0;
    s.jump_to_ms = to_ms;
    s.converged_from_s = 5.0;
    grid.push_back(s);
  }
  {
    EchoScene s{"path_change", EchoKind::kPathChange, Base(seed++, 16.0, 14.0, 14.0)};
    s.change_s = 7.0;
    s.converged_from_s = 5.0;
    grid.push_back(s);
  }
  {
    EchoScene s{"music_ser+0", EchoKind::kMusic, Base(seed++, 12.0, 12.0, 5.0)};
    s.scene.far_end = MakeMusicLike(static_cast<std::size_t>(12.0 * kSampleRate), 3000.0, seed);
    s.ser_db = 0.0;
    s.scene.echo_level_dbfs = kTalkerDbfs;
    s.converged_from_s = 2.5;
    grid.push_back(s);
  }
  {
    // The loudspeaker clips at 30 % of the reference's peak and its echo
    // stands 5 dB above the talker.
    EchoScene s{"distorted_ser-5", EchoKind::kDistortion, Base(seed++, 12.0, 12.0, 5.0)};
    s.scene.clip_fraction = 0.3;
    s.ser_db = -5.0;
    s.scene.echo_level_dbfs = kTalkerDbfs + 5.0;
    s.converged_from_s = 2.5;
    grid.push_back(s);
  }
  return grid;
}

bool RenderEchoScene(const EchoScene& echo, RenderedScene* out, std::string* error) {
  if (!RenderScene(echo.scene, out, error)) return false;
  if (echo.kind == EchoKind::kMusic) LabelContinuousFarEnd(echo.scene, &out->truth);
  const std::size_t at = static_cast<std::size_t>(echo.change_s * kSampleRate);
  if (echo.kind == EchoKind::kJump) {
    // The reference stream skips ahead where the echo of its old lead
    // reaches the change.
    const double extra_ms = echo.jump_to_ms - echo.scene.echo_delay_ms;
    const std::size_t lead = static_cast<std::size_t>(echo.scene.echo_delay_ms * kSampleRate / 1000.0);
    JumpLead(out->reference, at > lead ? at - lead : 0,
             static_cast<std::ptrdiff_t>(std::lround(extra_ms * kSampleRate / 1000.0)));
  } else if (echo.kind == EchoKind::kPathChange) {
    // Someone stands next to the loudspeaker: the same scene with the
    // loudspeaker's surroundings moved, spliced in with a 10 ms cross-fade.
    Scene moved = echo.scene;
    moved.loudspeaker_offset = {0.12, 0.05, -0.04};
    RenderedScene after;
    if (!RenderScene(moved, &after, error)) return false;
    const std::size_t fade = kSampleRate / 100;
    for (std::size_t i = at * kMics; i < out->mics.size(); ++i) {
      const double w = std::min(1.0, static_cast<double>(i / kMics - at) / static_cast<double>(fade));
      out->mics[i] = static_cast<std::int16_t>(std::lround((1.0 - w) * out->mics[i] + w * after.mics[i]));
    }
  }
  return true;
}

}  // namespace vorn::bench
