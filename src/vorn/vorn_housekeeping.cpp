// Finding an instance's state record in the caller's buffer. See
// vorn_housekeeping.h for why a copied buffer may need its record moved.
#include "vorn/vorn_housekeeping.h"

#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_param.h"

namespace vorn {
namespace {

bool ReadAnchor(const unsigned char* p_data, StateAnchor* anchor) {
  std::memcpy(anchor, p_data + kAnchorOffset, sizeof *anchor);
  return anchor->magic == kAnchorMagic && anchor->record_offset < kStateAlign;
}

// The call records hold the only pointers of the record; they follow it.
void RebaseCallRecords(TVornState* st) {
  for (int i = 0; i < 3; ++i) st->ns_pm[i].p_data = st->ns_buff[i];
  st->ns_vad_pm.p_data = st->ns_vad_buff;
  st->bf_pm.p_data = st->bf_buff;
}

}  // namespace

void MarkPrepared(const T_VornParam* pm, const TVornState* st) {
  const StateAnchor anchor{kAnchorMagic,
                           static_cast<uint32_t>(reinterpret_cast<const unsigned char*>(st) - pm->p_data)};
  std::memcpy(pm->p_data + kAnchorOffset, &anchor, sizeof anchor);
}

TVornState* LocateState(const T_VornParam* pm) {
  StateAnchor anchor;
  if (!ReadAnchor(pm->p_data, &anchor)) return nullptr;
  TVornState* st = VornStateOf(pm);
  const auto now = static_cast<uint32_t>(reinterpret_cast<unsigned char*>(st) - pm->p_data);
  if (now != anchor.record_offset) {
    std::memmove(st, pm->p_data + anchor.record_offset, kRecordExtent);
    MarkPrepared(pm, st);
  }
  if (EnhancedStateOf(st)->magic != kEnhancedMagic) return nullptr;
  RebaseCallRecords(st);
  return st;
}

const unsigned char* FindRecord(const unsigned char* p_data) {
  StateAnchor anchor;
  if (!ReadAnchor(p_data, &anchor)) return nullptr;
  const unsigned char* record = p_data + anchor.record_offset;
  if (ReadRecord<uint32_t>(record, kEnhancedRegionOffset + offsetof(TVornEnhancedState, magic)) != kEnhancedMagic)
    return nullptr;
  return record;
}

int32_t CheckPrepared(const T_VornParam* pm, const unsigned char** record) {
  const int32_t rc = VornCheckRecord(pm);
  if (rc != VORN_OK) return rc;
  *record = FindRecord(pm->p_data);
  return *record != nullptr ? VORN_OK : VORN_ERR_NOT_INITIALISED;
}

}  // namespace vorn
