// The session every streaming request goes through, so that the user's HTTPS proxy setting
// holds for all services alike.
#pragma once

#include <functional>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/platform/Http.h"

namespace lumora {

// A session configuration from the settings as they are now. "httpsProxyUrl", trimmed, gives
// the HTTPS proxy when it parses as a URL with a host and an explicit port; otherwise it is
// ignored without a message (scheme, path and user name play no part).
SessionConfiguration makeSession(const ChatEnvironment& environment);

// Upload progress of a request body, for an upload that wants to show it. Observers subscribe
// to `subject`; `progress` holds the last value.
class APIRequestDelegate {
 public:
  void didSendBodyData(int64_t totalBytesSent, int64_t totalBytesExpectedToSend);
  double progress() const { return progress_; }
  void subscribe(std::function<void(double)> observer) {
    observers_.push_back(std::move(observer));
  }

 private:
  double progress_ = 0;
  std::vector<std::function<void(double)>> observers_;
};

}  // namespace lumora
