// What a client needs from the world: the shared settings and the HTTP transport.
#pragma once

#include <chrono>
#include <functional>

#include "lumora/platform/Http.h"

namespace lumora {

class DefaultsStore;
class StoreContext;

struct ChatEnvironment {
  DefaultsStore& sharedDefaults;  // read at the moment of use; never cached
  HttpTransport& transport;
  // No byte for this long fails a request. Tests shorten it.
  std::chrono::milliseconds idleTimeout{60'000};
  // The conversation store, opened on first call; throws when it cannot be. Empty: no store,
  // so no teams.
  std::function<StoreContext*()> store;
};

}  // namespace lumora
