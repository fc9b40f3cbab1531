// A scene for the front end: a talker, noise and a loudspeaker playing the
// far end in a shoebox room around the three-microphone array, rendered to
// what the device would record together with the ground truth a run is
// scored against. Deterministic for a given description and seed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/geometry.h"
#include "sim/room_impulse_response.h"

namespace vorn::sim {

enum class NoiseKind {
  kSensor,      // independent on each microphone (the microphones' own noise)
  kDiffuse,     // many uncorrelated far sources spread over the sphere
  kBabble,      // several speech-like talkers around the array, through the room
  kInterferer,  // one point source through the room
};

// kSpeech: a speech-like talker (syllables on and off); kSpeechShaped: a
// steady noise with speech's long-term spectrum.
enum class NoiseColour { kWhite, kPink, kSpeech, kSpeechShaped };

struct NoiseSource {
  NoiseKind kind = NoiseKind::kSensor;
  NoiseColour colour = NoiseColour::kWhite;  // babble is always speech-like
  // The talker's active level at microphone 0 over this noise's mean level
  // there across the whole recording.
  double snr_db = 20.0;
  double azimuth_deg = 200.0, elevation_deg = 0.0, distance_m = 2.0;  // interferer
  int talkers = 6;                                                      // babble
};

struct Scene {
  Room room;
  Point array_centre{2.1, 1.8, 0.9};
  double duration_s = 12.0;
  std::uint32_t seed = 1;

  // Talker, seen from the array centre. Its level is the active speech level
  // of the clean target at microphone 0. It talks inside [begin, end).
  double azimuth_deg = 60.0, elevation_deg = 10.0, distance_m = 1.5;
  double talker_level_dbfs = -30.0;
  double talker_begin_s = 4.0, talker_end_s = 12.0;
  Signal talker;  // empty: a speech-like talker from the seed
  // Speech-like voices (the talker, babble, the far end) with the
  // long-term spectrum of real speech rather than the plain darker one.
  bool speech_spectrum_voices = false;

  std::vector<NoiseSource> noises;

  // Loudspeaker near the array playing the far end inside [begin, end); an
  // empty window means no far end. The reference is the far end at
  // far_level_dbfs (active level); the loudspeaker clips at clip_fraction of
  // the reference's peak (1 = clean) and its echo reaches microphone 0 at
  // echo_level_dbfs (active level), echo_delay_ms later than the acoustics
  // alone would bring it (playback buffering).
  Point loudspeaker_offset{0.0, 0.0, -0.06};  // from the array centre
  double far_begin_s = 0.0, far_end_s = 8.0;
  double far_level_dbfs = -20.0;
  double echo_level_dbfs = -25.0;
  double clip_fraction = 1.0;
  double echo_delay_ms = 0.0;
  Signal far_end;  // empty: a speech-like far-end talker from the seed
};

struct Span {
  std::size_t begin = 0, end = 0;  // frames [begin, end)
};

struct Truth {
  double azimuth_deg = 0.0, elevation_deg = 0.0, distance_m = 0.0;
  std::size_t talker_delay = 0;  // samples from the talker to microphone 0 (direct path)
  // Per 256-sample frame, on the microphones' time line.
  std::vector<std::uint8_t> speech;   // the talker is in a syllable
  std::vector<std::uint8_t> far_end;  // the far end is in a syllable
  // Stretches of the talk windows (a talker's window is extended by the
  // room's RT60, while its reverberation still sounds).
  std::vector<Span> far_single_talk, near_single_talk, double_talk;
};

struct RenderedScene {
  std::vector<std::int16_t> mics;       // interleaved m0 m1 m2, the device's capture
  std::vector<std::int16_t> reference;  // what the loudspeaker was asked to play
  Signal target;                        // the talker as microphone 0 receives it, same scale as mics
  Truth truth;
};

// Renders the scene; false with a message when it cannot be built (a source
// outside the room, windows outside the recording, a bad room).
bool RenderScene(const Scene& scene, RenderedScene* out, std::string* error);

// Per-sample activity of a recorded source, for a user's WAV: samples of the
// 16 ms frames that stand 15 dB above the recording's quiet floor (its 10th
// percentile frame) and no more than 50 dB below its loudest frame.
std::vector<std::uint8_t> EnergyActivity(const Signal& x);

}  // namespace vorn::sim
