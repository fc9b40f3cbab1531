// vorn_soak: hours of simulated audio through the front end, watching for the
// faults that only show after a long run.
//
//   vorn_soak [--seconds N] [--config NAME,...] [--scan-every FRAMES] [--report FILE]
//
// NAME is one of heaviest (beam type 4, DOA tracking, both canceller outputs,
// post filter, AGC), wkp, asr, com (the three operating modes with their
// built-in switches); the default runs all four, each for N seconds of audio
// (default 3600). Every configuration hears the same scene, generated one
// minute at a time from a ten-minute script that cycles: a talker with pauses
// in noise, double talk and far-end single talk with the reference fed, long
// digital silence, a loud and a quiet talker, near-silence of a bit or two
// (where denormal numbers breed in recursive averages), a talker moving
// around the array among other voices, loud echo, and silence broken by a
// sudden burst. Content is fresh every minute (new seeds), levels follow the
// script, so minute m and minute m + 10 are alike in kind.
//
// Watched, per configuration and minute:
// - every float of the module states (the suppressor instances, beamformer,
//   canceller and AGC), scanned every --scan-every frames: no NaN or
//   infinity may appear, and subnormal values are counted;
// - the output level (RMS and peak) and the speech-flag share;
// - the CPU time of each VornProc call (this thread's clock, so other load
//   on the machine does not count): mean, 99th percentile and maximum.
// Drift is judged against the same kind of minute in the second cycle (the
// first, when the run is shorter than two): the first starts from a fresh
// state and serves as warm-up. The run fails (status 1) on a non-finite
// value, an output RMS above -3 dBFS, a last cycle more than 1.25 times as
// costly as the reference cycle, or a same-kind output level off by more
// than 12 dB. The slowest single minute against its twin is reported but not
// judged: on a shared machine one busy minute moves it by half.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;
using sim::Signal;

constexpr int kFrame = 256;
constexpr std::size_t kMinute = 60 * sim::kSampleRate;
constexpr std::size_t kFramesPerMinute = kMinute / kFrame;  // 3750
constexpr int kKinds = 10;

// ---------------------------------------------------------------- the scene

const char* const kKindNames[kKinds] = {
    "talker, pink noise",      "double talk",         "far end alone",   "digital silence",
    "loud talker",             "quiet talker, noise", "near silence",    "moving talker, voices",
    "loud echo, talker",       "silence, then burst",
};

// Phrases of 1.5-5 s separated by pauses of 0.4-3 s, with 20 ms ramps.
Signal PhraseGate(std::size_t n, std::mt19937& rng) {
  std::uniform_real_distribution<double> phrase(1.5, 5.0), pause(0.4, 3.0);
  Signal gate(n, 0.0f);
  const double ramp = 0.02 * sim::kSampleRate;
  std::size_t at = static_cast<std::size_t>(pause(rng) * sim::kSampleRate);
  while (at < n) {
    const std::size_t len = static_cast<std::size_t>(phrase(rng) * sim::kSampleRate);
    for (std::size_t i = 0; i < len && at + i < n; ++i) {
      const double edge = std::min({1.0, i / ramp, (len - i) / ramp});
      gate[at + i] = static_cast<float>(edge);
    }
    at += len + static_cast<std::size_t>(pause(rng) * sim::kSampleRate);
  }
  return gate;
}

Signal Talker(std::size_t n, std::uint32_t seed, double rms, double f0, std::mt19937& rng) {
  sim::SpeechLikeOptions opt;
  opt.rms = rms;
  opt.f0_hz = f0;
  Signal s = sim::MakeSpeechLike(n, seed, opt).samples;
  const Signal gate = PhraseGate(n, rng);
  for (std::size_t i = 0; i < n; ++i) s[i] *= gate[i];
  return s;
}

// The loudspeaker sits just below the array: its sound reaches the
// microphones almost together, followed by a few room reflections.
sim::ThreeMics Echo(const Signal& far, double gain) {
  struct Tap {
    std::size_t delay;
    float gain;
  };
  const Tap taps[] = {{40, 1.0f}, {75, 0.5f}, {130, -0.35f}, {210, 0.25f}, {340, -0.15f}, {520, 0.1f}, {800, 0.05f}};
  Signal room(far.size(), 0.0f);
  for (const Tap& t : taps)
    for (std::size_t i = t.delay; i < far.size(); ++i) room[i] += static_cast<float>(gain) * t.gain * far[i - t.delay];
  return sim::PlaneWave(room, 0.0, -75.0);
}

struct MinuteAudio {
  std::vector<short> mics;  // interleaved
  std::vector<short> ref;
};

MinuteAudio MakeMinute(int minute) {
  const int kind = minute % kKinds;
  const auto seed = static_cast<std::uint32_t>(1000 + 7919 * minute);
  std::mt19937 rng(seed);
  const std::size_t n = kMinute;
  sim::ThreeMics mics{Signal(n, 0.0f), Signal(n, 0.0f), Signal(n, 0.0f)};
  Signal far(n, 0.0f);
  const auto add = [&mics](const sim::ThreeMics& x, double g) { mics = sim::Mix(mics, x, g); };
  const auto pink = [&](double rms) {
    sim::ThreeMics noise;
    for (int m = 0; m < 3; ++m) noise[static_cast<std::size_t>(m)] = sim::PinkNoise(n, rms, seed + 10 + m);
    return noise;
  };
  switch (kind) {
    case 0:
      add(sim::PlaneWave(Talker(n, seed, 2000, 130, rng), 60), 1.0);
      add(pink(120), 1.0);
      break;
    case 1:
      far = Talker(n, seed + 1, 3000, 210, rng);
      add(sim::PlaneWave(Talker(n, seed, 1500, 120, rng), 150, 20), 1.0);
      add(Echo(far, 0.5), 1.0);
      add(sim::IndependentNoise(n, 40, seed + 2), 1.0);
      break;
    case 2:
      far = Talker(n, seed + 1, 4000, 180, rng);
      add(Echo(far, 0.6), 1.0);
      add(sim::IndependentNoise(n, 30, seed + 2), 1.0);
      break;
    case 3:
      break;  // digital silence on every channel
    case 4:
      add(sim::PlaneWave(Talker(n, seed, 9000, 110, rng), 200), 1.0);  // peaks clip
      add(sim::IndependentNoise(n, 200, seed + 2), 1.0);
      break;
    case 5:
      add(sim::PlaneWave(Talker(n, seed, 150, 200, rng), 300), 1.0);
      add(pink(100), 1.0);
      break;
    case 6:
      add(sim::IndependentNoise(n, 0.7, seed + 2), 1.0);  // rounds to -1, 0, +1
      break;
    case 7: {
      // Six 10 s stretches from six directions, two voices around.
      const std::size_t stretch = n / 6;
      for (int k = 0; k < 6; ++k) {
        const Signal part = Talker(stretch, seed + 20 + k, 2500, 140, rng);
        const sim::ThreeMics at = sim::PlaneWave(part, 60.0 * k + 15);
        for (int m = 0; m < 3; ++m)
          for (std::size_t i = 0; i < stretch; ++i) mics[m][k * stretch + i] += at[m][i];
      }
      add(sim::PlaneWave(Talker(n, seed + 3, 500, 170, rng), 100), 1.0);
      add(sim::PlaneWave(Talker(n, seed + 4, 400, 230, rng), 250), 1.0);
      break;
    }
    case 8:
      far = Talker(n, seed + 1, 8000, 190, rng);
      add(Echo(far, 0.8), 1.0);
      add(sim::PlaneWave(Talker(n, seed, 2000, 125, rng), 30), 1.0);
      add(sim::IndependentNoise(n, 60, seed + 2), 1.0);
      break;
    case 9: {
      // 45 s of nothing, then a talker whose level steps every 5 s.
      const std::size_t quiet = 45 * sim::kSampleRate;
      const sim::ThreeMics burst = sim::PlaneWave(Talker(n - quiet, seed, 6000, 150, rng), 90);
      const float steps[3] = {2.0f, 0.25f, 1.0f};
      for (int m = 0; m < 3; ++m)
        for (std::size_t i = 0; i < n - quiet; ++i)
          mics[m][quiet + i] = burst[m][i] * steps[std::min<std::size_t>(2, i / (5 * sim::kSampleRate))];
      break;
    }
    default:
      break;
  }
  MinuteAudio audio;
  audio.mics = sim::Interleave(mics);
  audio.ref = sim::ToPcm(far);
  return audio;
}

// ------------------------------------------------------- the state scanner

enum Module { kSuppressors, kBeamformer, kCanceller, kAgc, kModules };
const char* const kModuleNames[kModules] = {"suppressors", "beamformer", "canceller", "AGC"};

struct FloatSpan {
  const float* first;
  std::size_t count;
  Module module = kSuppressors;
  const void* record = nullptr;  // the module record the span lies in
  const char* record_name = "";
};

// Every float of one record, from `first` to the end of `last`, where the
// members between them are all floats.
template <class A, class B>
FloatSpan Floats(const A& first, const B& last) {
  const auto* begin = reinterpret_cast<const unsigned char*>(&first);
  const auto* end = reinterpret_cast<const unsigned char*>(&last) + sizeof(last);
  return {reinterpret_cast<const float*>(begin), static_cast<std::size_t>(end - begin) / sizeof(float), kSuppressors};
}

void AddSuppressor(std::vector<FloatSpan>* spans, const T_AdspNsState& s) {
  spans->push_back(Floats(s.eta_min, s.swt));
  spans->push_back(Floats(s.long_eta, s.f_sir));
  spans->push_back(Floats(s.speech_interference_eng, s.long_eta_high));
}

void AddBeamformer(std::vector<FloatSpan>* spans, const T_AudioDspState& s) {
  spans->push_back(Floats(s.noise, s.au));
  spans->push_back(Floats(s.ns_psd, s.long_fbf_en));
  spans->push_back(Floats(s.frame_bf_en, s.speech_noise_weight));
}

void AddCanceller(std::vector<FloatSpan>* spans, const Aec& a) {
  const AecCore& c = a.core;
  spans->push_back(Floats(a.skew, a.skew));
  spans->push_back(Floats(a.far_pre_buf_data, a.far_pre_buf_data));
  spans->push_back(Floats(c.nearFrBuf_data, c.dBufH));
  spans->push_back(Floats(c.xPow, c.dInitMinPow));
  spans->push_back(Floats(c.xfBuf, c.wf_main_u));
  spans->push_back(Floats(c.double_filter.delta_e_power_sum, c.double_filter.delta_e_power_mean));
  spans->push_back(Floats(c.sde, c.xfwBuf));
  spans->push_back(Floats(c.sx, c.hNlXdAvgMin));
  spans->push_back(Floats(c.overDrive, c.overDriveSm));
  spans->push_back(Floats(c.outBuf, c.outBuf));
  spans->push_back(Floats(c.hNlXdAvg, c.hNlXdAvg));
  spans->push_back(Floats(c.far_buf_data, c.far_buf_windowed_data));
  spans->push_back(Floats(c.normal_mu, c.normal_error_threshold));
  for (const PowerLevel* p : {&c.farlevel, &c.nearlevel, &c.linoutlevel, &c.nlpoutlevel}) {
    spans->push_back(Floats(p->sfrsum, p->sfrsum));
    spans->push_back(Floats(p->framelevel, p->frsum));
    spans->push_back(Floats(p->minlevel, p->averagelevel));
  }
  for (const Stats* s : {&c.erl, &c.erle, &c.aNlp, &c.rerl}) spans->push_back(Floats(s->instant, s->himean));
  spans->push_back(Floats(c.cn_scale_Hband, c.cn_scale_Hband));
  spans->push_back(Floats(c.delay_quality_threshold, c.delay_quality_threshold));
}

void AddAgc(std::vector<FloatSpan>* spans, const Agc_t& agc) {
  const DigitalAgc_t& d = agc.digitalAgc;
  spans->push_back(Floats(d.noiseAmpNrgSmooth, d.noiseAmpNrgSmooth));
  spans->push_back(Floats(d.dMinNoiseAmpNrg, d.dInitMinNoiseAmpNrg));
}

std::vector<FloatSpan> StateFloats(T_VornParam* pm) {
  TVornState* st = VornStateOf(pm);
  std::vector<FloatSpan> spans;
  std::size_t from = 0;
  const auto tag = [&spans, &from](Module m, const void* record, const char* name) {
    for (std::size_t i = from; i < spans.size(); ++i) {
      spans[i].module = m;
      spans[i].record = record;
      spans[i].record_name = name;
    }
    from = spans.size();
  };
  const char* const ns_names[3] = {"suppressor 0 (T_AdspNsState)", "suppressor 1 (T_AdspNsState)",
                                   "suppressor 2 (T_AdspNsState)"};
  for (int i = 0; i < 3; ++i) {
    AddSuppressor(&spans, *reinterpret_cast<const T_AdspNsState*>(st->ns_buff[i]));
    tag(kSuppressors, st->ns_buff[i], ns_names[i]);
  }
  AddSuppressor(&spans, *reinterpret_cast<const T_AdspNsState*>(st->ns_vad_buff));
  tag(kSuppressors, st->ns_vad_buff, "VAD suppressor (T_AdspNsState)");
  AddBeamformer(&spans, *reinterpret_cast<const T_AudioDspState*>(st->bf_buff));
  tag(kBeamformer, st->bf_buff, "beamformer (T_AudioDspState)");
  AddCanceller(&spans, *static_cast<const Aec*>(AecInstanceOf(st)));
  tag(kCanceller, AecInstanceOf(st), "canceller (Aec)");
  AddAgc(&spans, *reinterpret_cast<const Agc_t*>(st->agc_buff));
  tag(kAgc, st->agc_buff, "AGC (Agc_t)");
  return spans;
}

struct ScanCount {
  std::size_t non_finite = 0, subnormal = 0;
  std::size_t subnormal_in[kModules] = {};
  std::string first_non_finite;  // where the first one sits: record, byte offset, value
};

ScanCount Scan(const std::vector<FloatSpan>& spans) {
  ScanCount c;
  for (const FloatSpan& s : spans)
    for (std::size_t i = 0; i < s.count; ++i) {
      float v;
      std::memcpy(&v, s.first + i, sizeof v);
      const int kind = std::fpclassify(v);
      const bool bad = kind == FP_NAN || kind == FP_INFINITE;
      if (bad && c.non_finite == 0) {
        char where[160];
        std::snprintf(where, sizeof where, "%s, byte %td: %g", s.record_name,
                      reinterpret_cast<const unsigned char*>(s.first + i) - static_cast<const unsigned char*>(s.record),
                      static_cast<double>(v));
        c.first_non_finite = where;
      }
      c.non_finite += bad;
      c.subnormal_in[s.module] += (kind == FP_SUBNORMAL);
    }
  for (std::size_t n : c.subnormal_in) c.subnormal += n;
  return c;
}

std::size_t Count(const std::vector<FloatSpan>& spans) {
  std::size_t n = 0;
  for (const FloatSpan& s : spans) n += s.count;
  return n;
}

// ------------------------------------------------------------- the runner

struct Config {
  const char* name;
  const char* description;
  int vorn_mode;  // -1: the switches below
  sim::Switches switches;
};

const Config kConfigs[] = {
    {"heaviest", "agc 1, bf 4, doa 1, aec 3, ns 2, azimuth 60", -1, {1, 4, 1, 3, 2, 60, 1}},
    {"wkp", "mode 0 (wake-up), built-in switches", 0, {}},
    {"asr", "mode 1 (recognition), built-in switches", 1, {}},
    {"com", "mode 2 (communication), built-in switches", 2, {}},
};

struct MinuteStats {
  int kind = 0;
  double in_dbfs = 0, out_dbfs = 0, out_peak = 0, vad_share = 0;
  double us_mean = 0, us_p99 = 0, us_max = 0;
  std::size_t non_finite = 0, subnormal_max = 0;
  std::size_t subnormal_max_in[kModules] = {};
};

double Dbfs(double mean_square) { return 10.0 * std::log10(std::max(mean_square, 1e-12) / (32768.0 * 32768.0)); }

double ThreadMicros() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e6 + t.tv_nsec * 1e-3;
}

class Soak {
 public:
  explicit Soak(const Config& c) : config_(c), buffer_(kVornMinBuffSize) {
    pm_ = sim::ParamKeeping(buffer_.data(), c.switches, 1);
    pm_.vorn_mode = c.vorn_mode;
    init_rc_ = VornInit(&pm_, nullptr);
    spans_ = StateFloats(&pm_);
  }
  int init_rc() const { return init_rc_; }
  std::size_t floats_watched() const { return Count(spans_); }

  // Runs one minute; returns false on a library error.
  bool RunMinute(int minute, MinuteAudio& audio, int scan_every) {
    MinuteStats m;
    m.kind = minute % kKinds;
    short order[3] = {0, 1, 2};
    short out[kFrame];
    std::vector<double> us(kFramesPerMinute);
    double in_sq = 0, out_sq = 0, peak = 0;
    std::size_t speech = 0;
    for (std::size_t f = 0; f < kFramesPerMinute; ++f) {
      short* mics = &audio.mics[3 * kFrame * f];
      const double t0 = ThreadMicros();
      const int rc = VornProc(&pm_, mics, &audio.ref[kFrame * f], out, order);
      us[f] = ThreadMicros() - t0;
      if (rc != 0) {
        std::fprintf(stderr, "%s: VornProc returned %d in minute %d frame %zu\n", config_.name, rc, minute, f);
        return false;
      }
      for (int i = 0; i < kFrame; ++i) {
        in_sq += static_cast<double>(mics[3 * i]) * mics[3 * i];
        out_sq += static_cast<double>(out[i]) * out[i];
        peak = std::max(peak, std::fabs(static_cast<double>(out[i])));
      }
      speech += pm_.vad_flag != 0;
      if ((frames_ + f) % static_cast<std::size_t>(scan_every) == 0) {
        const ScanCount c = Scan(spans_);
        if (c.non_finite != 0 && first_non_finite_.empty())
          first_non_finite_ = "minute " + std::to_string(minute) + ", frame " + std::to_string(f) + ", " +
                              std::to_string(c.non_finite) + " value(s), the first in the " + c.first_non_finite;
        m.non_finite += c.non_finite;
        m.subnormal_max = std::max(m.subnormal_max, c.subnormal);
        for (int k = 0; k < kModules; ++k) m.subnormal_max_in[k] = std::max(m.subnormal_max_in[k], c.subnormal_in[k]);
      }
    }
    frames_ += kFramesPerMinute;
    const double samples = static_cast<double>(kMinute);
    m.in_dbfs = Dbfs(in_sq / samples);
    m.out_dbfs = Dbfs(out_sq / samples);
    m.out_peak = peak;
    m.vad_share = static_cast<double>(speech) / kFramesPerMinute;
    double sum = 0;
    for (double u : us) sum += u;
    m.us_mean = sum / static_cast<double>(us.size());
    std::sort(us.begin(), us.end());
    m.us_p99 = us[us.size() * 99 / 100];
    m.us_max = us.back();
    minutes_.push_back(m);
    return true;
  }

  const Config& config() const { return config_; }
  const std::vector<MinuteStats>& minutes() const { return minutes_; }
  const std::string& first_non_finite() const { return first_non_finite_; }

 private:
  Config config_;
  std::vector<unsigned char> buffer_;
  T_VornParam pm_{};
  int init_rc_ = 0;
  std::vector<FloatSpan> spans_;
  std::vector<MinuteStats> minutes_;
  std::size_t frames_ = 0;
  std::string first_non_finite_;
};

struct Verdict {
  std::size_t non_finite = 0;
  std::size_t subnormal_max = 0;
  std::size_t subnormal_max_in[kModules] = {};
  double out_dbfs_max = -200, out_peak_max = 0;
  double us_mean = 0;
  int reference_cycle = 0;    // the cycle later ones are held against
  double cpu_drift_max = 0;   // slowest minute over its twin in the reference cycle
  double cpu_last_over_first = 0;
  double level_drift_db = 0;  // largest same-kind output level change
  bool pass = true;
};

// The first cycle starts from a fresh state (an AGC gain that no loud
// passage has pulled down yet, say), so when there is a second one, later
// cycles are held against it.
Verdict Judge(const std::vector<MinuteStats>& ms) {
  Verdict v;
  v.reference_cycle = ms.size() >= 2 * kKinds ? 1 : 0;
  const std::size_t ref_begin = static_cast<std::size_t>(v.reference_cycle) * kKinds;
  double first = 0, last = 0;
  std::size_t n_first = 0, n_last = 0;
  for (std::size_t i = 0; i < ms.size(); ++i) {
    const MinuteStats& m = ms[i];
    v.non_finite += m.non_finite;
    v.subnormal_max = std::max(v.subnormal_max, m.subnormal_max);
    for (int k = 0; k < kModules; ++k) v.subnormal_max_in[k] = std::max(v.subnormal_max_in[k], m.subnormal_max_in[k]);
    v.out_dbfs_max = std::max(v.out_dbfs_max, m.out_dbfs);
    v.out_peak_max = std::max(v.out_peak_max, m.out_peak);
    v.us_mean += m.us_mean / static_cast<double>(ms.size());
    if (i >= ref_begin + kKinds) {
      const MinuteStats& twin = ms[ref_begin + i % kKinds];
      v.cpu_drift_max = std::max(v.cpu_drift_max, m.us_mean / twin.us_mean);
      if (m.out_dbfs > -90 && twin.out_dbfs > -90)
        v.level_drift_db = std::max(v.level_drift_db, std::fabs(m.out_dbfs - twin.out_dbfs));
    }
    if (i >= ref_begin && i < ref_begin + kKinds) first += m.us_mean, ++n_first;
    if (i + kKinds >= ms.size()) last += m.us_mean, ++n_last;
  }
  v.cpu_last_over_first = (last / static_cast<double>(n_last)) / (first / static_cast<double>(n_first));
  v.pass = v.non_finite == 0 && v.out_dbfs_max <= -3.0 && v.cpu_last_over_first <= 1.25 && v.level_drift_db <= 12.0;
  return v;
}

void Report(FILE* f, const Soak& s, double seconds, const Verdict& v) {
  const Config& c = s.config();
  std::fprintf(f, "\n## %s: %s\n\n", c.name, c.description);
  std::fprintf(f, "%.0f s of audio, %zu frames; %zu state floats scanned.\n\n", seconds,
               s.minutes().size() * kFramesPerMinute, s.floats_watched());
  std::fprintf(f, "| min | scene | mic0 dBFS | out dBFS | out peak | speech %% | us/frame mean | p99 | max | "
                  "subnormal | non-finite |\n");
  std::fprintf(f, "|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (std::size_t i = 0; i < s.minutes().size(); ++i) {
    const MinuteStats& m = s.minutes()[i];
    std::fprintf(f, "| %zu | %s | %.1f | %.1f | %.0f | %.0f | %.1f | %.1f | %.0f | %zu | %zu |\n", i, kKindNames[m.kind],
                 m.in_dbfs, m.out_dbfs, m.out_peak, 100 * m.vad_share, m.us_mean, m.us_p99, m.us_max, m.subnormal_max,
                 m.non_finite);
  }
  std::fprintf(f,
               "\nSummary: non-finite values %zu; most subnormal floats in one scan %zu; loudest minute %.1f dBFS, "
               "highest peak %.0f; mean %.1f us per frame (%.0fx real time); against cycle %d: slowest minute / its "
               "twin %.2f, last-cycle / reference-cycle cost %.2f, largest same-kind level change %.1f dB. %s\n",
               v.non_finite, v.subnormal_max, v.out_dbfs_max, v.out_peak_max, v.us_mean, 16000.0 / v.us_mean,
               v.reference_cycle, v.cpu_drift_max, v.cpu_last_over_first, v.level_drift_db, v.pass ? "PASS" : "FAIL");
  if (!s.first_non_finite().empty()) std::fprintf(f, "First non-finite value: %s.\n", s.first_non_finite().c_str());
  std::fprintf(f, "Most subnormal floats in one scan, by module:");
  for (int k = 0; k < kModules; ++k)
    std::fprintf(f, "%s %s %zu", k == 0 ? "" : ",", kModuleNames[k], v.subnormal_max_in[k]);
  std::fprintf(f, ".\n");
}

int Usage() {
  std::fprintf(stderr,
               "usage: vorn_soak [--seconds N] [--config heaviest,wkp,asr,com] [--scan-every FRAMES] "
               "[--report FILE]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 3600;
  int scan_every = 16;  // four times a second
  std::string names = "heaviest,wkp,asr,com";
  std::string report_path;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return Usage();
    if (arg == "--seconds") seconds = std::atof(argv[++i]);
    else if (arg == "--config") names = argv[++i];
    else if (arg == "--scan-every") scan_every = std::max(1, std::atoi(argv[++i]));
    else if (arg == "--report") report_path = argv[++i];
    else return Usage();
  }
  const int minutes = std::max(1, static_cast<int>(std::lround(seconds / 60.0)));

  std::vector<std::unique_ptr<Soak>> soaks;
  std::size_t at = 0;
  while (at <= names.size()) {
    const std::size_t comma = std::min(names.find(',', at), names.size());
    const std::string name = names.substr(at, comma - at);
    const Config* c = std::find_if(std::begin(kConfigs), std::end(kConfigs),
                                   [&name](const Config& k) { return name == k.name; });
    if (c == std::end(kConfigs)) return Usage();
    soaks.push_back(std::make_unique<Soak>(*c));
    at = comma + 1;
  }
  if (soaks.empty()) return Usage();
  for (const auto& s : soaks)
    if (s->init_rc() != 0) {
      std::fprintf(stderr, "%s: VornInit returned %d\n", s->config().name, s->init_rc());
      return 1;
    }

  // One scene for every configuration; each gets its own copy of the minute
  // (the library takes non-const buffers).
  for (int minute = 0; minute < minutes; ++minute) {
    const MinuteAudio audio = MakeMinute(minute);
    for (const auto& s : soaks) {
      MinuteAudio copy = audio;
      if (!s->RunMinute(minute, copy, scan_every)) return 1;
      const MinuteStats& m = s->minutes().back();
      std::printf("%-8s min %3d %-22s out %6.1f dBFS peak %5.0f  %6.1f us/frame (max %5.0f)  subnormal %zu  "
                  "non-finite %zu\n",
                  s->config().name, minute, kKindNames[m.kind], m.out_dbfs, m.out_peak, m.us_mean, m.us_max,
                  m.subnormal_max, m.non_finite);
      std::fflush(stdout);
    }
  }

  FILE* report = report_path.empty() ? stdout : std::fopen(report_path.c_str(), "w");
  if (report == nullptr) {
    std::fprintf(stderr, "cannot write %s\n", report_path.c_str());
    return 1;
  }
  std::fprintf(report, "# Soak run\n\n%d minute(s) of the scene per configuration; scan every %d frames.\n", minutes,
               scan_every);
  bool pass = true;
  for (const auto& s : soaks) {
    const Verdict v = Judge(s->minutes());
    Report(report, *s, minutes * 60.0, v);
    pass = pass && v.pass;
  }
  if (report != stdout && std::fclose(report) != 0) return 1;
  return pass ? 0 : 1;
}
