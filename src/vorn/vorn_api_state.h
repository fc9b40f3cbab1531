// The modern interface's state: the designed parameter record, the settings
// the designed interface takes per call, and the designed state buffer, all
// in the caller's memory. The record's one pointer (p_data) is pointed at the
// buffer on every call, so a copied state works where it lands.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn.h"
#include "vorn_proc.h"

struct VornState {
  uint32_t magic;  // kApiMagic once vorn_init has succeeded
  int16_t mic_order[3];
  T_VornParam pm;
  unsigned char buffer[VORN_MIN_BUFF_SIZE];
};

namespace vorn {

constexpr uint32_t kApiMagic = 0x4e525641u;  // "AVRN"
static_assert(sizeof(VornState) <= VORN_STATE_SIZE_MAX);
static_assert(alignof(VornState) <= VORN_STATE_ALIGN);

// The record, pointed at this state's buffer.
inline T_VornParam* RecordOf(VornState* st) {
  st->pm.p_data = st->buffer;
  return &st->pm;
}

// A copy of the record for a read-only call.
inline T_VornParam RecordCopyOf(const VornState* st) {
  T_VornParam pm = st->pm;
  pm.p_data = const_cast<unsigned char*>(st->buffer);
  return pm;
}

// VORN_OK when `st` is there, aligned and initialised.
int CheckReady(const VornState* st);
// VORN_OK when `st` is there and aligned (nothing of it is read before).
int CheckMemory(const VornState* st);

// A designed-interface code as this interface's. `pm` tells which of the
// two switches code 6 is about.
int FromDesignedCode(int32_t code, const T_VornParam& pm);

// A mode's switches as the designed record holds them, and back.
VornSwitches SwitchesOf(const T_VornKey& key);
void StoreSwitches(const VornSwitches& switches, T_VornKey* key);

// VORN_OK, or the code of the first switch out of range.
int CheckSwitches(const VornSwitches& switches);

}  // namespace vorn
