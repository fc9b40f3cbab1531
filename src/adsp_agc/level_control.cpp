// Level control of the enhanced profile.
//
// The talker speaks from a frame the speech presence gives to the near
// talker until 192 ms after it last did, with the loudspeaker not playing
// alone (nor for 320 ms after it last played, while its echo still rings in
// the room and in the canceller's residue). Near speech is a frame within
// that stretch that stands 10 dB above the noise floor (the quietest frame
// of the last 1.5 s): a presence estimate that also fires on the
// suppressor's residual noise then cannot lift that noise. The stretch,
// rather than the presence of each frame, decides because the presence is
// least sure of itself on the loudest frames of a talker it has only just
// begun to hear, and surest on the rising edges of syllables: judged frame
// by frame, the first seconds of a loud talker would be measured on their
// quiet edges alone. The first quarter second, while the chain before the
// level control settles, is not judged.
//
// The talker's active speech level is the mean power of the most recent near
// speech frames, counting only those within 10 dB of that mean (the quiet
// edges of syllables and words stay out, as they do from an active-level
// measurement): a fixed window of them, so that a level change is fully
// measured after one window however large it is, while a steady talker gives
// a steady figure. A frame more than 16 dB below the level stays out of the
// window until a run of them shows the talker has dropped; then the window
// starts again. The speech gain brings the level to the target and follows
// it with a smoothing of about 160 ms; differences of more than 6 dB (a new
// talker, a jump) are closed within a few frames.
//
// The speech gain applies while the talker speaks and for a short hold after
// the last near speech frame, which bridges the gaps between syllables and
// words. In pauses, and while only the loudspeaker's echo is there, the gain
// returns to at most unity within a fifth of a second: the noise floor and
// any echo residue stay where the suppressor and the canceller left them
// instead of being lifted by the talker's gain.
//
// A peak limiter runs on sub-blocks of 16 samples with the whole frame in
// view: its gain at each sub-block boundary is no more than both neighbouring
// sub-blocks allow, and the gain is interpolated linearly in between, so no
// sample exceeds -1 dBFS; it releases at 100 dB/s.
#include "adsp_agc/level_control.h"

#include <cmath>

#include "common/pcm_round.h"

namespace vorn {
namespace {

constexpr int kFrame = 256;
constexpr int kSub = 16;
constexpr int kSubBlocks = kFrame / kSub;
constexpr float kFullScalePower = 32768.0f * 32768.0f;
constexpr float kCeiling = 29205.0f;          // -1 dBFS
constexpr float kLimiterRelease = 1.0115795f;  // 0.1 dB per sub-block
constexpr float kNearSpeech = 0.5f;
constexpr float kAboveFloorDb = 10.0f;
constexpr float kBelowLevelDb = 16.0f;  // a frame this far below the level waits to be let in
constexpr float kActiveMargin = 0.1f;    // -10 dB (power): the active level counts frames above it
constexpr int kWarmupFrames = 16;  // the chain before the level control settles in 0.25 s
constexpr int kLevelChangeFrames = 20;  // near-speech frames below the margin that restart the level
constexpr int kMinLevelFrames = 8;      // frames of speech before the level is trusted
constexpr float kMaxGainDb = 35.0f;
constexpr float kMinGainDb = -20.0f;
constexpr int kHoldFrames = 12;           // 192 ms
constexpr float kFollow = 0.1f;           // per frame, towards the speech gain
constexpr float kCatchUp = 0.5f;          // ... when more than kCatchUpDb away
constexpr float kCatchUpDb = 6.0f;
constexpr float kReleaseDbPerFrame = 2.0f;  // to the pause gain
constexpr float kSilentDbfs = -200.0f;
constexpr int kEchoHoldFrames = 20;  // 320 ms

float PowerDbfs(float mean_square) { return 10.0f * std::log10(mean_square / kFullScalePower + 1e-20f); }

float FramePower(const short* x) {
  float sum = 0.0f;
  for (int n = 0; n < kFrame; ++n) sum += static_cast<float>(x[n]) * static_cast<float>(x[n]);
  return sum / kFrame;
}

// The window's active level: the mean power of its frames, then again of
// those that lie within 10 dB of that mean, so that the quiet edges of
// syllables (and a talker's first frames, taken in before the level was
// known) do not pull it down.
float WindowDbfs(const EnhancedLevelState* st) {
  if (st->window_fill == 0) return kSilentDbfs;
  float sum = 0.0f;
  for (int i = 0; i < st->window_fill; ++i) sum += st->frame_power[i];
  const float threshold = sum / static_cast<float>(st->window_fill) * kActiveMargin;
  float active = 0.0f;
  int count = 0;
  for (int i = 0; i < st->window_fill; ++i) {
    if (st->frame_power[i] < threshold) continue;
    active += st->frame_power[i];
    ++count;
  }
  return PowerDbfs(active / static_cast<float>(count));
}

float Clamp(float x, float lo, float hi) { return x < lo ? lo : x > hi ? hi : x; }

// The quietest frame of the last kFloorBlocks blocks, this frame included.
float FloorUpdate(EnhancedLevelState* st, float level) {
  if (st->block_frames == kFloorBlockFrames) {
    st->block_next = (st->block_next + 1) % kFloorBlocks;
    st->block_frames = 0;
  }
  float& current = st->block_min[st->block_next];
  current = st->block_frames == 0 || level < current ? level : current;
  ++st->block_frames;
  float floor = current;
  for (float m : st->block_min) floor = m < floor ? m : floor;
  return floor;
}

void MeasureLevel(EnhancedLevelState* st, float power, float level) {
  if (st->window_fill > 0 && level < WindowDbfs(st) - kBelowLevelDb) {
    if (++st->quiet_run < kLevelChangeFrames) return;
    st->window_fill = 0;  // the talker has dropped: measure afresh
    st->window_next = 0;
  }
  st->quiet_run = 0;
  st->frame_power[st->window_next] = power;
  st->window_next = (st->window_next + 1) % kLevelWindowFrames;
  if (st->window_fill < kLevelWindowFrames) ++st->window_fill;
}

// The gain in force at the end of this frame, in dB.
float NextGainDb(EnhancedLevelState* st) {
  float speech_gain = 0.0f;
  if (st->window_fill >= kMinLevelFrames)
    speech_gain = Clamp(st->target_dbfs - WindowDbfs(st), kMinGainDb, kMaxGainDb);
  const bool speaking = st->hold_frames > 0;

  float gain = st->gain_db;
  if (speaking) {
    const float apart = speech_gain - gain;
    gain += (std::fabs(apart) > kCatchUpDb ? kCatchUp : kFollow) * apart;
  } else {
    const float pause_gain = speech_gain < 0.0f ? speech_gain : 0.0f;
    if (gain > pause_gain) {
      gain = gain - kReleaseDbPerFrame > pause_gain ? gain - kReleaseDbPerFrame : pause_gain;
    } else {
      gain += kFollow * (pause_gain - gain);
    }
  }
  return gain;
}

// Applies the gain ramp from `from` to `to` (linear factors) with the peak
// limiter on top.
void ApplyLimited(EnhancedLevelState* st, const short* in, short* out, float from, float to) {
  float need[kSubBlocks];
  for (int b = 0; b < kSubBlocks; ++b) {
    int peak = 0;
    for (int n = b * kSub; n < (b + 1) * kSub; ++n) {
      const int a = in[n] < 0 ? -in[n] : in[n];
      peak = a > peak ? a : peak;
    }
    const float g_start = from + (to - from) * static_cast<float>(b * kSub) / kFrame;
    const float g_end = from + (to - from) * static_cast<float>((b + 1) * kSub) / kFrame;
    const float loudest = static_cast<float>(peak) * (g_start > g_end ? g_start : g_end);
    need[b] = loudest > kCeiling ? kCeiling / loudest : 1.0f;
  }
  float limit[kSubBlocks + 1];
  limit[0] = st->limiter < need[0] ? st->limiter : need[0];
  for (int b = 0; b < kSubBlocks; ++b) {
    float next = limit[b] * kLimiterRelease;
    next = next > 1.0f ? 1.0f : next;
    next = next < need[b] ? next : need[b];
    if (b + 1 < kSubBlocks && need[b + 1] < next) next = need[b + 1];
    limit[b + 1] = next;
  }
  float scaled[kFrame];
  for (int n = 0; n < kFrame; ++n) {
    const int b = n / kSub;
    const float within = static_cast<float>(n - b * kSub) / kSub;
    const float agc = from + (to - from) * static_cast<float>(n) / kFrame;
    const float lim = limit[b] + (limit[b + 1] - limit[b]) * within;
    scaled[n] = static_cast<float>(in[n]) * agc * lim;
  }
  RoundToPcm(scaled, out, kFrame);
  st->limiter = limit[kSubBlocks];
}

}  // namespace

void LevelInit(EnhancedLevelState* st) {
  *st = EnhancedLevelState{};
  st->target_dbfs = kLevelTargetDefaultDbfs;
  st->limiter = 1.0f;
}

bool LevelTargetInRange(float target_dbfs) {
  return target_dbfs >= kLevelTargetMinDbfs && target_dbfs <= kLevelTargetMaxDbfs;
}

bool LevelSetTarget(EnhancedLevelState* st, float target_dbfs) {
  if (!LevelTargetInRange(target_dbfs)) return false;
  st->target_dbfs = target_dbfs;
  return true;
}

void LevelProc(EnhancedLevelState* st, const LevelCues& cues, const short* in, short* out) {
  const float power = FramePower(in);
  const float level = PowerDbfs(power);
  if (cues.far_end) {
    st->echo_frames = kEchoHoldFrames;
  } else if (st->echo_frames > 0) {
    --st->echo_frames;
  }
  const bool echo_only = st->echo_frames > 0 && !cues.double_talk;
  bool near_speech = false;
  if (st->warmup_frames < kWarmupFrames) {
    ++st->warmup_frames;
  } else {
    const float floor = FloorUpdate(st, level);
    const bool clear = !echo_only && level >= floor + kAboveFloorDb;
    if (clear && cues.presence >= kNearSpeech) {
      st->talk_frames = kHoldFrames;
    } else if (st->talk_frames > 0) {
      --st->talk_frames;
    }
    near_speech = clear && st->talk_frames > 0;
  }
  if (near_speech) {
    st->hold_frames = kHoldFrames;
  } else if (st->hold_frames > 0) {
    --st->hold_frames;
  }
  if (near_speech) MeasureLevel(st, power, level);
  const float from_db = st->gain_db;
  st->gain_db = NextGainDb(st);
  ApplyLimited(st, in, out, std::pow(10.0f, from_db / 20.0f), std::pow(10.0f, st->gain_db / 20.0f));
}

float LevelSpeechDbfs(const EnhancedLevelState* st) { return WindowDbfs(st); }

}  // namespace vorn
