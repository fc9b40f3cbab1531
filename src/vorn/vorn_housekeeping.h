// What the front end keeps about an instance beside the module regions: where
// in the caller's buffer the state record lies, how the echo canceller was
// last prepared, and the warnings of the last configuration read.
//
// The state record sits at the first 64-byte boundary of the caller's buffer.
// A caller may copy the buffer to memory of another alignment between calls;
// the record then lies at the wrong distance from the buffer's start. A small
// anchor at a fixed distance from the start (past everything else, inside the
// bytes the parameter check demands) remembers where VornInit put the
// record, so the next call can move it to its new boundary. Nothing in the
// record points into itself (the modules keep offsets), so after the move the
// copy goes on exactly as the original would.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "conf_read/conf_read.h"
#include "vorn/vorn_state.h"

namespace vorn {

// Whether, and for which outputs, the canceller is ready: VornInit prepares
// it for the selected mode's outputs; a frame that needs others adjusts it,
// and one that needs it after it sat idle restarts it (its far-end history
// would be stale).
struct CancellerBook {
  int32_t outputs;  // the aec_flag it produces outputs for
  int32_t ran;      // it has processed a frame since it was prepared
  int32_t idle;     // it ran, then a frame skipped it
};

struct TVornHousekeeping {
  CancellerBook canceller;
  uint32_t warnings_magic;  // kWarningsMagic once a VornInit has stored warnings
  ConfWarnings warnings;
};

constexpr uint32_t kWarningsMagic = 0x4e525756u;  // "VWRN"

// The canceller's instance may run a few bytes past the record's end (see
// AecInstanceOf); the housekeeping starts beyond that.
constexpr std::size_t kHousekeepingOffset = (static_cast<std::size_t>(kVornStateSize) + 16 + 15) / 16 * 16;
// Bytes from the record's start that belong to the instance.
constexpr std::size_t kRecordExtent = kHousekeepingOffset + sizeof(TVornHousekeeping);

struct StateAnchor {
  uint32_t magic;
  uint32_t record_offset;  // from the buffer's start to the record
};
constexpr uint32_t kAnchorMagic = 0x4e524e41u;  // "ANRN"
constexpr std::size_t kAnchorOffset = static_cast<std::size_t>(kVornMinBuffSize) - sizeof(StateAnchor);
static_assert(kStateAlign - 1 + kRecordExtent <= kAnchorOffset, "housekeeping outgrew the buffer's slack");

inline TVornHousekeeping* HousekeepingOf(TVornState* st) {
  return reinterpret_cast<TVornHousekeeping*>(reinterpret_cast<unsigned char*>(st) + kHousekeepingOffset);
}

// Marks the buffer as prepared, with its record at `st` (VornInit, last).
void MarkPrepared(const T_VornParam* pm, const TVornState* st);

// The record of a buffer VornInit has prepared (moved to its boundary first
// if the buffer was copied to memory of another alignment), with the module
// call records pointed at their regions; null for a buffer VornInit has not
// prepared. The record's own fields must have passed VornCheckRecord.
TVornState* LocateState(const T_VornParam* pm);

// Read-only: where a prepared buffer's record lies now (possibly off its
// boundary, so read it with ReadRecord), or null.
const unsigned char* FindRecord(const unsigned char* p_data);

// The check every getter of a per-frame figure makes: 0 with *record set as
// FindRecord sets it; 1..3 as VornCheckRecord refuses the record; or
// VORN_ERR_NOT_INITIALISED for a buffer VornInit has not prepared. Reads
// only, so the caller's record may be const.
int32_t CheckPrepared(const T_VornParam* pm, const unsigned char** record);

// A value from a record found by FindRecord, `offset` bytes into it.
template <typename T>
T ReadRecord(const unsigned char* record, std::size_t offset) {
  T value;
  std::memcpy(&value, record + offset, sizeof value);
  return value;
}

}  // namespace vorn
