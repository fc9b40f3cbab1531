// How the getters of per-frame results read the caller's record. They only
// read, from wherever the record lies in the caller's buffer (a copied
// buffer's record moves to its boundary on the next processing call, not
// here), so the caller's record may be const.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vorn/vorn_enhanced_state.h"
#include "vorn/vorn_housekeeping.h"

namespace vorn {

// The check every getter makes: as CheckPrepared (with *record set), then
// VORN_ERR_NULL for a null destination.
inline int32_t CheckGetter(const T_VornParam* pm, const void* destination, const unsigned char** record) {
  const int32_t rc = CheckPrepared(pm, record);
  if (rc != VORN_OK) return rc;
  return destination == nullptr ? VORN_ERR_NULL : VORN_OK;
}

// A field of the enhanced state, `offset` (offsetof TVornEnhancedState) bytes
// into it.
template <typename T>
T ReadEnhanced(const unsigned char* record, std::size_t offset) {
  return ReadRecord<T>(record, kEnhancedRegionOffset + offset);
}

// Whether the record's frames run the enhanced profile.
inline bool RunsEnhanced(const unsigned char* record) {
  return ReadEnhanced<int32_t>(record, offsetof(TVornEnhancedState, profile)) == kProfileEnhanced;
}

}  // namespace vorn
