// The configuration's warnings, as the last VornInit stored them beside the
// state record: in the record of a prepared buffer (wherever a copy moved
// it), else where the record will be (a first VornInit that failed).
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_param.h"

using namespace vorn;

extern "C" int32_t VornGetConfigWarnings(const T_VornParam* pm, int32_t* count, const char** text) {
  const int32_t rc = VornCheckRecord(pm);
  if (rc != VORN_OK) return rc;
  if (count == nullptr) return VORN_ERR_NULL;
  const unsigned char* record = FindRecord(pm->p_data);
  if (record == nullptr) record = reinterpret_cast<const unsigned char*>(VornStateOf(pm));
  const std::size_t at = kHousekeepingOffset + offsetof(TVornHousekeeping, warnings);
  if (ReadRecord<uint32_t>(record, kHousekeepingOffset + offsetof(TVornHousekeeping, warnings_magic)) !=
      kWarningsMagic)
    return VORN_ERR_NOT_INITIALISED;
  *count = ReadRecord<int32_t>(record, at + offsetof(ConfWarnings, count));
  if (text != nullptr) *text = reinterpret_cast<const char*>(record + at + offsetof(ConfWarnings, text));
  return VORN_OK;
}
