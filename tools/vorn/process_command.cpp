// `vorn process`: reads the capture (and the reference), runs the front end
// frame by frame, writes the enhanced audio and the per-frame results.
//
// A capture that ends inside a frame is completed with silence for the
// library and cut back to its own length on output, so the output has
// exactly as many samples as the input. A reference that ends early is
// completed with silence too, and the user is told where. When a reference
// is there and the echo canceller is off in the mode and not set on the
// command line, it is switched on: giving a reference says what is wanted.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <unistd.h>

#include "audio_io/audio_input.h"
#include "audio_io/audio_output.h"
#include "commands.h"
#include "direction.h"
#include "front_end.h"
#include "progress.h"

namespace vorn::cli {
namespace {

constexpr int kRate = 16000;

// The loudspeaker's sound is not the talker: while the reference plays, and
// for as long again as a room's reverberation lasts, flagged frames are not
// used to choose the stretch for the classic direction search (the enhanced
// profile makes the same judgement inside the library). -60 dBFS is where a
// reference is silence rather than quiet speech.
constexpr double kReferenceSilentRms = 32.0;
constexpr int kEchoTailFrames = 16;  // 256 ms
// A frame belongs to the talker's utterance while a speech flag came at most
// this long ago: the enhanced flag marks syllables and leaves the short
// pauses between them unflagged.
constexpr int kUtteranceGapFrames = 20;  // 320 ms

bool ReferencePlays(const int16_t* ref, size_t count) {
  double energy = 0.0;
  for (size_t n = 0; n < count; ++n) energy += static_cast<double>(ref[n]) * ref[n];
  return count > 0 && energy > kReferenceSilentRms * kReferenceSilentRms * static_cast<double>(count);
}

std::string Seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", s);
  return text;
}

// What is wrong with a capture's format, or "" when it is usable.
std::string CaptureFormatProblem(const AudioFormat& f) {
  std::string problems;
  auto add = [&](const std::string& p) { problems += (problems.empty() ? "" : ", ") + p; };
  if (f.format_tag != 1) add("not PCM (format " + std::to_string(f.format_tag) + ")");
  if (f.bits != 16) add(std::to_string(f.bits) + "-bit");
  if (f.sample_rate != kRate) add(std::to_string(f.sample_rate) + " Hz");
  if (f.channels != 3 && f.channels != 4) add(std::to_string(f.channels) + " channels");
  if (problems.empty() && f.block_align != 2 * f.channels)
    add("block alignment " + std::to_string(f.block_align) + " for " + std::to_string(f.channels) + " channels");
  return problems;
}

std::string ReferenceFormatProblem(const AudioFormat& f) {
  if (f.sample_rate != kRate)
    return "sample rate " + std::to_string(f.sample_rate) +
           " Hz, but the capture is 16000 Hz; nothing was processed (resample the reference first)";
  std::string problems;
  auto add = [&](const std::string& p) { problems += (problems.empty() ? "" : ", ") + p; };
  if (f.format_tag != 1) add("not PCM (format " + std::to_string(f.format_tag) + ")");
  if (f.bits != 16) add(std::to_string(f.bits) + "-bit");
  if (f.channels != 1) add(std::to_string(f.channels) + " channels");
  if (problems.empty() && f.block_align != 2) add("block alignment " + std::to_string(f.block_align));
  if (problems.empty()) return "";
  return problems + "; the reference must be mono 16-bit PCM at 16000 Hz";
}

// What the library's microphone warnings that came or went mean for the user.
void ReportMicrophoneChanges(uint32_t before, uint32_t now, double at_s) {
  for (int m = 0; m < kMics; ++m) {
    const uint32_t dead = VORN_WARN_MIC_DEAD(m), clipped = VORN_WARN_MIC_CLIPPED(m);
    // Appended rather than "..." + to_string(m): g++ 12 on a 32-bit target
    // misreads that form as an overlapping copy (-Wrestrict).
    std::string mic = "microphone ";
    mic += std::to_string(m);
    if ((now & dead) && !(before & dead))
      ReportWarning("at " + Seconds(at_s) + ": " + mic + " is dead (no signal); the beam goes on without it");
    if ((now & clipped) && !(before & clipped))
      ReportWarning("at " + Seconds(at_s) + ": " + mic + " clips; the beam goes on without it");
    const uint32_t faults = dead | clipped;
    if ((before & faults) && !(now & faults)) ReportWarning("at " + Seconds(at_s) + ": " + mic + " works again");
  }
}

sim::Switches ApplyOverrides(sim::Switches s, const SwitchOverrides& o) {
  if (o.agc) s.agc = *o.agc;
  if (o.bf) s.bf = *o.bf;
  if (o.doa) s.doa = *o.doa;
  if (o.aec) s.aec = *o.aec;
  if (o.ns) s.ns = *o.ns;
  if (o.azimuth) s.azimuth = *o.azimuth;
  if (o.vad_mode) s.vad_mode = *o.vad_mode;
  return s;
}

}  // namespace

namespace {
thread_local MessageSink* message_sink = nullptr;
}  // namespace

void SetMessageSink(MessageSink* sink) { message_sink = sink; }

void ReportError(const std::string& message) {
  if (message_sink != nullptr)
    message_sink->errors.push_back(message);
  else
    std::fprintf(stderr, "vorn: %s\n", message.c_str());
}

void ReportWarning(const std::string& message) {
  if (message_sink != nullptr)
    message_sink->warnings.push_back(message);
  else
    std::fprintf(stderr, "vorn: warning: %s\n", message.c_str());
}

int ProcessRecording(const ProcessOptions& opt, Summary* summary, std::vector<int>* speech_flags) {
  std::string error;
  AudioInput input;
  if (!input.Open(opt.input, opt.channels.value_or(3), &error)) {
    ReportError(error);
    return kExitFailure;
  }
  const AudioFormat& format = input.format();
  if (input.is_wav() && opt.channels && *opt.channels != format.channels) {
    ReportError("conflicting options: --channels " + std::to_string(*opt.channels) + " but " + input.name() +
                " has " + std::to_string(format.channels) + " channels");
    return kExitUsage;
  }
  if (const std::string problem = CaptureFormatProblem(format); !problem.empty()) {
    ReportError(input.name() + ": " + problem +
                "; vorn needs 16 kHz 16-bit PCM with 3 microphone channels (4 with the reference last)");
    return kExitFailure;
  }
  if (!input.notice().empty()) ReportWarning(input.notice());
  const bool reference_in_input = format.channels == 4;
  if (reference_in_input && !opt.ref_path.empty()) {
    ReportError("conflicting options: " + input.name() + " already carries the reference as its fourth channel, and --ref " +
                opt.ref_path + " gives another");
    return kExitUsage;
  }
  AudioInput reference;
  if (!opt.ref_path.empty()) {
    if (!reference.Open(opt.ref_path, 1, &error)) {
      ReportError(error);
      return kExitFailure;
    }
    if (const std::string problem = ReferenceFormatProblem(reference.format()); !problem.empty()) {
      ReportError(reference.name() + ": " + problem);
      return kExitFailure;
    }
  }
  const bool have_reference = reference_in_input || !opt.ref_path.empty();

  FrontEnd front_end;
  const bool modes_loaded = front_end.LoadModes(opt.mode, opt.config_path, &error);
  for (const std::string& warning : front_end.config_warnings()) ReportWarning(opt.config_path + ": " + warning);
  if (!modes_loaded) {
    ReportError(error);
    return kExitFailure;
  }
  sim::Switches switches = ApplyOverrides(front_end.ModeSwitches(), opt.overrides);
  if (have_reference && !opt.overrides.aec && switches.aec == 0) switches.aec = opt.mode == 2 ? 2 : 1;
  if (!have_reference && switches.aec > 0) {
    if (opt.overrides.aec) {
      ReportError("conflicting options: --aec " + std::to_string(switches.aec) +
                  " needs a loudspeaker reference (a fourth input channel or --ref FILE)");
      return kExitUsage;
    }
    ReportWarning(std::string("mode ") + ModeName(opt.mode) +
                  " has the echo canceller on but there is no reference; it runs against silence");
  }
  if (!opt.track_path.empty() && !opt.overrides.doa) switches.doa = 1;
  // The utterance direction costs nothing in the output, so it is reported
  // unless direction finding was switched off on the command line. With the
  // classic profile a mode without per-frame direction finding gets the
  // search over samples; the enhanced profile tracks the talker instead,
  // whose pooled evidence leaves the loudspeaker's sound out.
  const bool enhanced = opt.profile == VORN_PROFILE_ENHANCED;
  const bool direction_wanted = !(opt.overrides.doa && *opt.overrides.doa == 0);
  if (enhanced && direction_wanted && switches.doa == 0) switches.doa = 1;
  const int search_flag = !direction_wanted ? 0 : switches.doa == 0 ? 2 : switches.doa;
  if (!front_end.Start(switches, opt.profile, &error)) {
    ReportError(error);
    return kExitFailure;
  }

  AudioOutput output;
  if (!output.Open(opt.output, 1, &error)) {
    ReportError(error);
    return kExitFailure;
  }

  const auto started = std::chrono::steady_clock::now();
  const std::optional<uint64_t> total_frames = input.total_frames();
  std::optional<double> total_s;
  if (total_frames) total_s = static_cast<double>(*total_frames) / kRate;
  ProgressBar progress(stderr, opt.progress ? total_s : std::optional<double>(0.0));
  DirectionFinder direction(enhanced ? 0 : search_flag);
  LibraryDirection library_direction(enhanced ? search_flag : 0);
  std::vector<int> azimuths;
  const int channels = format.channels;
  std::vector<int16_t> block(static_cast<size_t>(channels) * kFrameSamples);
  int16_t mics[kMics * kFrameSamples];
  int16_t ref[kFrameSamples];
  int16_t out[kFrameSamples];
  uint64_t samples = 0;
  std::optional<uint64_t> reference_ended_at;
  std::optional<uint64_t> reference_copies_mic_at;
  uint64_t frame_index = 0;
  int frames_since_reference = kEchoTailFrames;
  uint32_t warnings = 0;
  int frames_since_speech = kUtteranceGapFrames + 1;
  for (;;) {
    const size_t got = input.Read(block.data(), kFrameSamples);
    if (got == 0) break;
    std::memset(mics, 0, sizeof mics);
    std::memset(ref, 0, sizeof ref);
    for (size_t n = 0; n < got; ++n) {
      for (int m = 0; m < kMics; ++m) mics[kMics * n + m] = block[channels * n + m];
      if (reference_in_input) ref[n] = block[channels * n + 3];
    }
    if (!opt.ref_path.empty()) {
      const size_t ref_got = reference_ended_at ? 0 : reference.Read(ref, got);
      if (ref_got < got && !reference_ended_at) reference_ended_at = samples + ref_got;
    }
    const int code = front_end.Process(mics, have_reference ? ref : nullptr, out);
    if (code != 0) {
      progress.Finish();
      ReportError(input.name() + ": processing failed at " + Seconds(static_cast<double>(samples) / kRate) +
                  " (frame " + std::to_string(frame_index) + ", code " + std::to_string(code) + ")");
      return kExitFailure;
    }
    if (!output.Write(out, got, &error)) {
      progress.Finish();
      ReportError(error);
      return kExitFailure;
    }
    if (!reference_copies_mic_at && front_end.ReferenceIsMicrophone()) reference_copies_mic_at = samples;
    if (const uint32_t now = front_end.warnings(); now != warnings) {
      progress.Finish();
      ReportMicrophoneChanges(warnings, now, static_cast<double>(samples) / kRate);
      warnings = now;
    }
    speech_flags->push_back(front_end.vad_flag() != 0 ? 1 : 0);
    azimuths.push_back(front_end.azimuth());
    frames_since_reference = have_reference && ReferencePlays(ref, got) ? 0 : frames_since_reference + 1;
    const bool talker_alone = frames_since_reference > kEchoTailFrames;
    frames_since_speech = front_end.vad_flag() != 0 ? 0 : frames_since_speech + 1;
    direction.AddFrame(front_end, mics, frames_since_speech <= kUtteranceGapFrames && talker_alone);
    library_direction.AddFrame(mics);
    samples += got;
    ++frame_index;
    progress.Update(static_cast<double>(samples) / kRate);
    if (got < static_cast<size_t>(kFrameSamples)) break;
  }
  progress.Finish();
  for (const AudioInput* source : {&input, &reference}) {
    if (!source->read_error().empty()) {
      ReportError(source->read_error());
      return kExitFailure;
    }
  }
  if (enhanced) {
    double confidence = 0.0;
    summary->direction_deg = library_direction.Finish(front_end, &confidence);
    if (summary->direction_deg) summary->direction_confidence = confidence;
  } else {
    summary->direction_deg = direction.Finish(front_end);
  }
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (!output.Close(&error)) {
    ReportError(error);
    return kExitFailure;
  }
  if (input.trailing_bytes() > 0)
    ReportWarning(input.name() + ": ignored " + std::to_string(input.trailing_bytes()) +
                  " trailing bytes that do not make a whole sample frame");
  if (reference_ended_at)
    ReportWarning(reference.name() + ": the reference ends at " +
                  Seconds(static_cast<double>(*reference_ended_at) / kRate) + ", before the capture (" +
                  Seconds(static_cast<double>(samples) / kRate) +
                  "); the rest was processed against a silent reference");
  if (reference_copies_mic_at)
    ReportWarning("the reference carries a microphone's own signal (from " +
                  Seconds(static_cast<double>(*reference_copies_mic_at) / kRate) +
                  "): is the loudspeaker channel wired to a microphone? Echo was not cancelled while it did");
  if (!opt.vad_path.empty() && !WriteFrameCsv(opt.vad_path, "speech", *speech_flags, &error)) {
    ReportError(error);
    return kExitFailure;
  }
  if (!opt.track_path.empty() && !WriteFrameCsv(opt.track_path, "azimuth_deg", azimuths, &error)) {
    ReportError(error);
    return kExitFailure;
  }

  summary->input = input.name();
  summary->output = opt.output == "-" ? "standard output" : opt.output;
  summary->mode = ModeName(opt.mode);
  summary->profile = ProfileName(opt.profile);
  summary->reference = reference_in_input ? "channel 4" : opt.ref_path.empty() ? "none" : reference.name();
  summary->switches = switches;
  summary->duration_s = static_cast<double>(samples) / kRate;
  summary->frames = frame_index;
  summary->speech_frames = 0;
  for (int flag : *speech_flags) summary->speech_frames += static_cast<uint64_t>(flag);
  summary->realtime_factor = wall > 0 ? summary->duration_s / wall : 0.0;
  return kExitOk;
}

int RunProcess(const ProcessOptions& opt) {
  Summary summary;
  std::vector<int> speech_flags;
  const int status = ProcessRecording(opt, &summary, &speech_flags);
  if (status != kExitOk) return status;
  if (opt.json) {
    // The summary is the result a script waits for: losing it is a failure.
    if (std::fputs(SummaryJson(summary).c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
      ReportError(std::string("standard output: write failed: ") + std::strerror(errno));
      return kExitFailure;
    }
  } else if (isatty(fileno(stderr)) != 0) {
    // A person at a terminal gets the gist; scripts ask for --json.
    const double share = summary.frames > 0 ? 100.0 * static_cast<double>(summary.speech_frames) /
                                                  static_cast<double>(summary.frames)
                                            : 0.0;
    std::fprintf(stderr, "%s: %.2f s, speech in %.0f%% of frames, direction %s, %.0fx real time\n",
                 summary.output.c_str(), summary.duration_s, share,
                 summary.direction_deg ? (std::to_string(*summary.direction_deg) + " deg").c_str() : "unknown",
                 summary.realtime_factor);
  }
  return kExitOk;
}

}  // namespace vorn::cli
