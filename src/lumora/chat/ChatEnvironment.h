// What a client needs from the world: the shared settings and the HTTP transport.
#pragma once

#include <chrono>

#include "lumora/platform/Http.h"

namespace lumora {

class DefaultsStore;

struct ChatEnvironment {
  DefaultsStore& sharedDefaults;  // read at the moment of use; never cached
  HttpTransport& transport;
  // No byte for this long fails a request. Tests shorten it.
  std::chrono::milliseconds idleTimeout{60'000};
};

}  // namespace lumora
