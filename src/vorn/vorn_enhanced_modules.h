// The enhanced profile's module records, in the order they sit in the
// enhanced region. Each module owns its record's type in its own header;
// this list only places them.
#pragma once

namespace vorn {

struct EnhancedModules {
  // Enhanced modules add their records here.
  int reserved;
};

}  // namespace vorn
