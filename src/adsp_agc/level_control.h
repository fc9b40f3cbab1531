// The enhanced profile's level control: steers the near talker's active
// speech level to a target, holds the noise floor in pauses where it is, and
// limits peaks so that no sample clips.
#pragma once

#include <cstdint>

#include "vorn_proc.h"

namespace vorn {

constexpr float kLevelTargetDefaultDbfs = VORN_AGC_TARGET_DEFAULT_DBFS;
constexpr float kLevelTargetMinDbfs = VORN_AGC_TARGET_MIN_DBFS;
constexpr float kLevelTargetMaxDbfs = VORN_AGC_TARGET_MAX_DBFS;
// Frames of near speech whose power makes up the level estimate (0.64 s).
constexpr int kLevelWindowFrames = 40;
// The noise floor is the quietest frame of the last kFloorBlocks blocks of
// kFloorBlockFrames frames (1.5 s).
constexpr int kFloorBlocks = 8;
constexpr int kFloorBlockFrames = 12;

struct EnhancedLevelState {
  float target_dbfs;
  float frame_power[kLevelWindowFrames];  // the last frames of active speech, mean square
  int32_t window_fill;                    // how many of them are set
  int32_t window_next;                    // where the next one goes
  int32_t quiet_run;     // near-speech frames in a row well below the level
  float block_min[kFloorBlocks];  // quietest frame level of each block, dBFS
  int32_t block_frames;  // frames in the current block
  int32_t block_next;    // the current block
  float gain_db;         // gain in force at the end of the last frame
  float limiter;         // peak limiter's gain at the end of the last frame (<= 1)
  int32_t hold_frames;   // frames the speech gain is still held after near speech
  int32_t talk_frames;   // frames the talker is still taken to speak after the presence last said so
  int32_t warmup_frames; // frames seen, up to the warm-up
  int32_t echo_frames;   // frames the loudspeaker's echo may still sound
};

// Frame facts the level control is steered by.
struct LevelCues {
  float presence;    // 0..1: the near talker speaks in this frame
  bool far_end;      // the loudspeaker plays in this frame
  bool double_talk;  // ... and the near talker speaks over it
};

void LevelInit(EnhancedLevelState* st);
// A target within kLevelTargetMinDbfs..kLevelTargetMaxDbfs (not a NaN).
bool LevelTargetInRange(float target_dbfs);
// Returns false (and changes nothing) for a target out of range.
bool LevelSetTarget(EnhancedLevelState* st, float target_dbfs);

// One 256-sample frame from `in` to `out` (they may be the same).
void LevelProc(EnhancedLevelState* st, const LevelCues& cues, const short* in, short* out);

// The active speech level the control has measured, dBFS (-200 before any).
float LevelSpeechDbfs(const EnhancedLevelState* st);

}  // namespace vorn
