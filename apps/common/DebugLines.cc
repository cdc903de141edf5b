#include "DebugLines.h"

#include <cstdlib>
#include <string_view>

#include "lumora/platform/Debug.h"

namespace lumora::frontend {

void routeDebugLines() {
  const char* asked = std::getenv("LUMORA_DEBUG");
  if (asked && std::string_view(asked) == "1")
    sendDebugLinesToStandardError();
  else
    debug::setSink(debug::Sink());
}

void sendDebugLinesToStandardError() { debug::setSink(debug::stderrSink()); }

}  // namespace lumora::frontend
