// What a client needs from the world: the shared settings and the HTTP transport.
#pragma once

#include <chrono>
#include <cstddef>
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
  // A reply longer than this is cut off there with an error, so that a server that never
  // stops cannot use up the memory of the process ("maxReplyMiB").
  size_t maxReplyBytes = size_t{16} << 20;
  // No request larger than this is sent, nor gathered ("maxRequestMiB"): a message whose quoted
  // passages would make a request of hundreds of MB fails the run before anything goes out.
  size_t maxRequestBytes = size_t{8} << 20;
};

}  // namespace lumora
