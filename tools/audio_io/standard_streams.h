// Standard streams of the command-line tools.
#pragma once

namespace vorn {

// A standard stream the caller closed would hand its descriptor to the next
// file opened, and a printed result or a message would land inside the
// output audio. Each closed one gets /dev/null opened the wrong way round:
// the number is taken, and any use of the stream fails and is reported.
// SIGPIPE is ignored, so a reader that goes away makes the next write fail
// with a message instead of killing the tool silently.
void GuardStandardStreams();

}  // namespace vorn
