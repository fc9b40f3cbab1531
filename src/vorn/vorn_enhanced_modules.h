// The enhanced profile's module records, in the order they sit in the
// enhanced region. Each module owns its record's type in its own header;
// this list only places them.
#pragma once

#include "adsp_agc/level_control.h"
#include "adsp_bf/beam_enhanced.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "adsp_ns/ns_enhanced.h"
#include "vorn/vorn_echo_stage.h"

namespace vorn {

struct EnhancedModules {
  // Enhanced modules add their records here.
  EnhancedSpeechRecords speech;  // speech presence, suppressor, speech flag
  TDoaTrackerEnhanced doa_tracker;
  EnhancedBeamState beam;
  EnhancedLevelState level;
  EchoStageState echo;  // echo control, at most 40 KB
};

// Beam and level control share a budget of 24 KB.
static_assert(sizeof(EnhancedBeamState) + sizeof(EnhancedLevelState) <= 24 * 1024,
              "beam and level outgrew their budget");
static_assert(sizeof(EchoStageState) <= 40 * 1024, "the echo stage outgrew its share of the enhanced region");

}  // namespace vorn
