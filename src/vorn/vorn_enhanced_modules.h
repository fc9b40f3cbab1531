// The enhanced profile's module records, in the order they sit in the
// enhanced region. Each module owns its record's type in its own header;
// this list only places them.
#pragma once

#include "adsp_ns/ns_enhanced.h"
#include "adsp_bf/doa_tracker_enhanced.h"

namespace vorn {

struct EnhancedModules {
  // Enhanced modules add their records here.
  EnhancedSpeechRecords speech;  // speech presence, suppressor, speech flag
  TDoaTrackerEnhanced doa_tracker;
};

}  // namespace vorn
