// The contract every model client fulfils.
#pragma once

#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatMessage.h"
#include "lumora/chat/ChunkStream.h"

namespace lumora {

class LLMClient {
 public:
  virtual ~LLMClient() = default;

  // Whether this client answers for `model`: plain, case-sensitive tests on the name.
  virtual bool supportsModel(std::string_view model) const = 0;

  // Sends the chat and returns its chunks. Fails before returning for everything up to the
  // response head (bad URL, network, status other than 200); the stream fails later for what
  // goes wrong in the body. A stop before the head throws CancellationError. The temperature
  // is the caller's; each client applies its own limits.
  virtual ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                                 double temperature, std::stop_token stop) = 0;
};

}  // namespace lumora
