// Scene rendering. Every source is placed in its window of the recording,
// taken through the room's impulse responses to the three microphones (or,
// for the diffuse field and sensor noise, through plane-wave delays or none)
// and scaled at microphone 0: the talker to its active level, the echo to its
// active level, each noise to its SNR against the talker's nominal level.
// Labels follow the sources' syllable activity, moved to the microphones'
// time line by the direct-path delay to microphone 0.
#include "sim/scene.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

#include "sim/signal_ops.h"

namespace vorn::sim {
namespace {

constexpr double kWallMarginM = 0.05;   // closest a source may come to a wall
constexpr int kDiffuseDirections = 32;  // enough for the array's 7.8 cm aperture
constexpr double kMaxRt60S = 2.0;
constexpr double kMaxDurationS = 600.0;

// Independent streams from one scene seed (a Knuth multiplicative hash keeps
// neighbouring seeds apart).
std::uint32_t SubSeed(std::uint32_t seed, std::uint32_t stream) { return seed * 2654435761u + stream * 40503u + 1u; }

double DbfsToMeanSquare(double dbfs) {
  const double amplitude = 32768.0 * std::pow(10.0, dbfs / 20.0);
  return amplitude * amplitude;
}

std::size_t Samples(double seconds) { return static_cast<std::size_t>(std::llround(seconds * kSampleRate)); }

void Scale(Signal& x, double gain) {
  for (float& v : x) v = static_cast<float>(v * gain);
}
void Scale(ThreeMics& x, double gain) {
  for (Signal& s : x) Scale(s, gain);
}
void AddInto(ThreeMics& sum, const ThreeMics& x) {
  for (int m = 0; m < kMics; ++m) sum[m] = Mix(sum[m], x[m]);
}

struct PlacedSource {
  Signal samples;
  std::vector<std::uint8_t> active;
};

// The given source (or a speech-like one) laid into [begin, end) of an
// n-sample recording; a given source longer than its window is cut.
PlacedSource Place(const Signal& given, std::size_t n, std::size_t begin, std::size_t end, std::uint32_t seed,
                   const SpeechLikeOptions& voice) {
  PlacedSource placed{Signal(n, 0.0f), std::vector<std::uint8_t>(n, 0)};
  if (end <= begin) return placed;
  SpeechLike source;
  if (given.empty()) {
    source = MakeSpeechLike(end - begin, seed, voice);
  } else {
    source.samples = given;
    source.active = EnergyActivity(given);
  }
  for (std::size_t i = 0; i < end - begin && i < source.samples.size(); ++i) {
    placed.samples[begin + i] = source.samples[i];
    placed.active[begin + i] = source.active[i];
  }
  return placed;
}

std::vector<std::uint8_t> Delayed(const std::vector<std::uint8_t>& active, std::size_t delay) {
  std::vector<std::uint8_t> out(active.size(), 0);
  for (std::size_t i = delay; i < active.size(); ++i) out[i] = active[i - delay];
  return out;
}

ThreeMics ThroughRoom(const Scene& scene, const Point& source, const Signal& x) {
  std::vector<std::vector<double>> responses;
  for (int m = 0; m < kMics; ++m)
    responses.push_back(RoomImpulseResponse(scene.room, source, MicPosition(scene.array_centre, m)));
  std::vector<Signal> at_mics = ConvolveEach(x, responses);
  return {std::move(at_mics[0]), std::move(at_mics[1]), std::move(at_mics[2])};
}

// Steady noise shaped like speech's long-term spectrum: white noise, rolled
// off below 100 Hz and falling 6 dB per octave above 500 Hz (one-pole
// filters). Unlike a crowd of speech-like talkers, it has no syllable rhythm.
Signal SpeechShaped(std::size_t n, std::uint32_t seed) {
  Signal x = WhiteNoise(n, 1.0, seed);
  const double high = std::exp(-2.0 * std::numbers::pi * 100.0 / kSampleRate);
  const double low = std::exp(-2.0 * std::numbers::pi * 500.0 / kSampleRate);
  double prev_in = 0.0, hp = 0.0, lp = 0.0;
  for (float& v : x) {
    hp = high * (hp + v - prev_in);
    prev_in = v;
    lp = (1.0 - low) * hp + low * lp;
    v = static_cast<float>(lp);
  }
  return x;
}

Signal Coloured(NoiseColour colour, std::size_t n, std::uint32_t seed) {
  switch (colour) {
    case NoiseColour::kWhite: return WhiteNoise(n, 1.0, seed);
    case NoiseColour::kPink: return PinkNoise(n, 1.0, seed);
    case NoiseColour::kSpeech: return MakeSpeechLike(n, seed).samples;
    case NoiseColour::kSpeechShaped: return SpeechShaped(n, seed);
  }
  return Signal(n, 0.0f);
}

// Far sources on a Fibonacci sphere, each with its own noise: their sum has
// close to the sinc-shaped inter-microphone coherence of a diffuse field.
ThreeMics DiffuseField(NoiseColour colour, std::size_t n, std::uint32_t seed) {
  const double radius_samples = kArrayRadiusM * kSampleRate / kSpeedOfSound;
  const double common_delay = kInterpHalfWidth + std::ceil(radius_samples);
  const double golden_angle = std::numbers::pi * (3.0 - std::sqrt(5.0));
  ThreeMics out{Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)};
  for (int d = 0; d < kDiffuseDirections; ++d) {
    const double elevation = std::asin(1.0 - 2.0 * (d + 0.5) / kDiffuseDirections);
    const double azimuth = d * golden_angle;
    const Signal source = Coloured(colour, n, SubSeed(seed, static_cast<std::uint32_t>(d)));
    for (int m = 0; m < kMics; ++m) {
      const double advance =
          radius_samples * std::cos(elevation) * std::cos(azimuth - MicAzimuthDeg(m) * std::numbers::pi / 180.0);
      std::vector<double> kernel(static_cast<std::size_t>(2 * common_delay) + 2, 0.0);
      AddFractionalImpulse(common_delay - advance, 1.0, kernel);
      out[m] = Mix(out[m], Convolve(source, kernel));
    }
  }
  return out;
}

// Talkers spread round the array at 1.5-2.5 m, pulled in where a wall is closer.
ThreeMics Babble(const Scene& scene, int talkers, std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  ThreeMics out{Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)};
  for (int k = 0; k < talkers; ++k) {
    const double azimuth = 360.0 * k / talkers + 40.0 * unit(rng);
    const double elevation = 20.0 * unit(rng);
    double distance = 1.5 + unit(rng);
    Point where = PointToward(scene.array_centre, azimuth, elevation, distance);
    while (!InsideRoom(scene.room.size, where, kWallMarginM) && distance > 0.1) {
      distance *= 0.9;
      where = PointToward(scene.array_centre, azimuth, elevation, distance);
    }
    SpeechLikeOptions voice;
    voice.f0_hz = 100.0 + 120.0 * unit(rng);
    voice.syllable_hz = 3.0 + 2.0 * unit(rng);
    voice.lead_silence_s = 0.4 * unit(rng);
    voice.speech_spectrum = scene.speech_spectrum_voices;
    const Signal talker = MakeSpeechLike(n, SubSeed(seed, 100u + static_cast<std::uint32_t>(k)), voice).samples;
    AddInto(out, ThroughRoom(scene, where, talker));
  }
  return out;
}

ThreeMics RenderNoise(const Scene& scene, const NoiseSource& noise, std::size_t n, std::uint32_t seed) {
  switch (noise.kind) {
    case NoiseKind::kSensor:
      return {Coloured(noise.colour, n, SubSeed(seed, 0)), Coloured(noise.colour, n, SubSeed(seed, 1)),
              Coloured(noise.colour, n, SubSeed(seed, 2))};
    case NoiseKind::kDiffuse: return DiffuseField(noise.colour, n, seed);
    case NoiseKind::kBabble: return Babble(scene, noise.talkers, n, seed);
    case NoiseKind::kInterferer:
      return ThroughRoom(scene,
                         PointToward(scene.array_centre, noise.azimuth_deg, noise.elevation_deg, noise.distance_m),
                         Coloured(noise.colour, n, seed));
  }
  return {};
}

std::size_t DirectDelay(const Point& source, const Point& mic) {
  return static_cast<std::size_t>(std::llround(Distance(source, mic) * kSampleRate / kSpeedOfSound)) +
         kInterpHalfWidth;
}

// Frames that overlap [first active sample, last active sample + tail).
std::vector<std::uint8_t> Presence(const std::vector<std::uint8_t>& active, std::size_t tail, std::size_t frames) {
  std::vector<std::uint8_t> present(frames, 0);
  const auto first = std::find(active.begin(), active.end(), 1);
  if (first == active.end()) return present;
  const std::size_t begin = static_cast<std::size_t>(first - active.begin());
  const std::size_t end = active.size() - static_cast<std::size_t>(std::find(active.rbegin(), active.rend(), 1) -
                                                                   active.rbegin()) + tail;
  for (std::size_t f = 0; f < frames; ++f) present[f] = f * kFrame < end && (f + 1) * kFrame > begin;
  return present;
}

std::vector<Span> Runs(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b, bool want_a,
                       bool want_b) {
  std::vector<Span> spans;
  for (std::size_t f = 0; f < a.size(); ++f) {
    if ((a[f] != 0) != want_a || (b[f] != 0) != want_b) continue;
    if (!spans.empty() && spans.back().end == f)
      spans.back().end = f + 1;
    else
      spans.push_back({f, f + 1});
  }
  return spans;
}

std::string Check(const Scene& s) {
  const Point& size = s.room.size;
  if (size.x < 1.0 || size.y < 1.0 || size.z < 1.0) return "room smaller than 1 m along a side";
  if (s.room.rt60_s < 0.0 || s.room.rt60_s > kMaxRt60S) return "RT60 outside 0..2 s";
  if (s.duration_s <= 0.0 || s.duration_s > kMaxDurationS) return "duration outside 0..600 s";
  if (!InsideRoom(size, s.array_centre, kArrayRadiusM + kWallMarginM)) return "array too close to a wall";
  if (!InsideRoom(size, PointToward(s.array_centre, s.azimuth_deg, s.elevation_deg, s.distance_m), kWallMarginM))
    return "talker outside the room";
  const Point& offset = s.loudspeaker_offset;
  if (!InsideRoom(size, {s.array_centre.x + offset.x, s.array_centre.y + offset.y, s.array_centre.z + offset.z},
                  kWallMarginM))
    return "loudspeaker outside the room";
  const auto window_ok = [&](double begin, double end) { return begin >= 0.0 && end <= s.duration_s; };
  if (!window_ok(s.talker_begin_s, s.talker_end_s) || !window_ok(s.far_begin_s, s.far_end_s))
    return "talk window outside the recording";
  if (!(s.clip_fraction > 0.0 && s.clip_fraction <= 1.0)) return "clip fraction outside (0, 1]";
  if (s.echo_delay_ms < 0.0) return "negative echo delay";
  for (const NoiseSource& noise : s.noises) {
    if (noise.kind == NoiseKind::kBabble && noise.talkers < 1) return "babble without talkers";
    if (noise.kind == NoiseKind::kInterferer &&
        !InsideRoom(size, PointToward(s.array_centre, noise.azimuth_deg, noise.elevation_deg, noise.distance_m),
                    kWallMarginM))
      return "interferer outside the room";
  }
  return {};
}

}  // namespace

std::vector<std::uint8_t> EnergyActivity(const Signal& x) {
  const std::size_t frames = (x.size() + kFrame - 1) / kFrame;
  std::vector<double> power(frames);
  for (std::size_t f = 0; f < frames; ++f) {
    const std::size_t begin = f * kFrame, count = std::min(kFrame, x.size() - begin);
    power[f] = Rms(x.data() + begin, count);
    power[f] *= power[f];
  }
  std::vector<std::uint8_t> active(x.size(), 0);
  if (frames == 0) return active;
  std::vector<double> sorted = power;
  std::sort(sorted.begin(), sorted.end());
  const double floor = sorted[frames / 10], loudest = sorted.back();
  const double threshold = std::max(floor * std::pow(10.0, 1.5), loudest * 1e-5);
  for (std::size_t f = 0; f < frames; ++f) {
    if (power[f] <= threshold) continue;
    std::fill(active.begin() + static_cast<long>(f * kFrame),
              active.begin() + static_cast<long>(std::min(x.size(), (f + 1) * kFrame)), 1);
  }
  return active;
}

bool RenderScene(const Scene& scene, RenderedScene* out, std::string* error) {
  if (const std::string problem = Check(scene); !problem.empty()) {
    if (error) *error = problem;
    return false;
  }
  const std::size_t n = Samples(scene.duration_s);
  const std::size_t frames = n / kFrame;
  const Point mic0 = MicPosition(scene.array_centre, 0);
  const double talker_mean_square = DbfsToMeanSquare(scene.talker_level_dbfs);
  const std::size_t reverb_tail = Samples(scene.room.rt60_s);

  // Talker.
  SpeechLikeOptions near_voice;
  near_voice.f0_hz = 130.0;
  near_voice.speech_spectrum = scene.speech_spectrum_voices;
  const PlacedSource talker = Place(scene.talker, n, Samples(scene.talker_begin_s), Samples(scene.talker_end_s),
                                    SubSeed(scene.seed, 1), near_voice);
  const Point talker_at = PointToward(scene.array_centre, scene.azimuth_deg, scene.elevation_deg, scene.distance_m);
  const std::size_t talker_delay = DirectDelay(talker_at, mic0);
  const std::vector<std::uint8_t> talker_active = Delayed(talker.active, talker_delay);
  ThreeMics capture = ThroughRoom(scene, talker_at, talker.samples);
  if (const double ms = MaskedMeanSquare(capture[0], talker_active, 1); ms > 0.0)
    Scale(capture, std::sqrt(talker_mean_square / ms));
  out->target = capture[0];

  // Far end: the reference as asked, the loudspeaker's (maybe clipped,
  // delayed) rendition of it through the room.
  SpeechLikeOptions far_voice;
  far_voice.f0_hz = 210.0;
  far_voice.syllable_hz = 4.5;
  far_voice.speech_spectrum = scene.speech_spectrum_voices;
  const PlacedSource far = Place(scene.far_end, n, Samples(scene.far_begin_s), Samples(scene.far_end_s),
                                 SubSeed(scene.seed, 2), far_voice);
  Signal drive = far.samples;
  // Levels are set over the far end's syllables; a far end that never
  // pauses (music) has none the detector finds, and is levelled over its
  // whole window instead, or it would play at whatever level it came with.
  std::vector<std::uint8_t> far_level_mask = far.active;
  if (std::find(far_level_mask.begin(), far_level_mask.end(), 1) == far_level_mask.end())
    std::fill(far_level_mask.begin() + static_cast<long>(std::min(n, Samples(scene.far_begin_s))),
              far_level_mask.begin() + static_cast<long>(std::min(n, Samples(scene.far_end_s))), 1);
  if (const double ms = MaskedMeanSquare(drive, far_level_mask, 1); ms > 0.0)
    Scale(drive, std::sqrt(DbfsToMeanSquare(scene.far_level_dbfs) / ms));
  out->reference = ToPcm(drive);
  double peak = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    drive[i] = out->reference[i];
    peak = std::max(peak, std::abs(static_cast<double>(drive[i])));
  }
  const float clip = static_cast<float>(scene.clip_fraction * peak);
  for (float& v : drive) v = std::clamp(v, -clip, clip);
  const std::size_t echo_delay = Samples(scene.echo_delay_ms / 1000.0);
  std::vector<double> playback_delay(echo_delay + 1, 0.0);
  playback_delay[echo_delay] = 1.0;
  drive = Convolve(drive, playback_delay);
  const Point& offset = scene.loudspeaker_offset;
  const Point loudspeaker_at{scene.array_centre.x + offset.x, scene.array_centre.y + offset.y,
                             scene.array_centre.z + offset.z};
  const std::vector<std::uint8_t> far_active = Delayed(far.active, DirectDelay(loudspeaker_at, mic0) + echo_delay);
  ThreeMics echo = ThroughRoom(scene, loudspeaker_at, drive);
  if (const double ms =
          MaskedMeanSquare(echo[0], Delayed(far_level_mask, DirectDelay(loudspeaker_at, mic0) + echo_delay), 1);
      ms > 0.0)
    Scale(echo, std::sqrt(DbfsToMeanSquare(scene.echo_level_dbfs) / ms));
  AddInto(capture, echo);

  for (std::size_t k = 0; k < scene.noises.size(); ++k) {
    const NoiseSource& noise_source = scene.noises[k];
    ThreeMics noise = RenderNoise(scene, noise_source, n, SubSeed(scene.seed, 10u + static_cast<std::uint32_t>(k)));
    const double ms = Rms(noise[0]) * Rms(noise[0]);
    if (ms > 0.0) Scale(noise, std::sqrt(talker_mean_square / std::pow(10.0, noise_source.snr_db / 10.0) / ms));
    AddInto(capture, noise);
  }
  out->mics = Interleave(capture);

  Truth& truth = out->truth;
  truth.azimuth_deg = scene.azimuth_deg;
  truth.elevation_deg = scene.elevation_deg;
  truth.distance_m = scene.distance_m;
  truth.talker_delay = talker_delay;
  truth.speech = FrameLabels(talker_active);
  truth.far_end = FrameLabels(far_active);
  const std::vector<std::uint8_t> near_present = Presence(talker_active, reverb_tail, frames);
  const std::vector<std::uint8_t> far_present = Presence(far_active, reverb_tail, frames);
  truth.far_single_talk = Runs(far_present, near_present, true, false);
  truth.near_single_talk = Runs(far_present, near_present, false, true);
  truth.double_talk = Runs(far_present, near_present, true, true);
  return true;
}

}  // namespace vorn::sim
