// The family of clients whose servers speak the OpenAI chat protocol and differ only in where
// the request goes, how it authenticates and, for one, how the model is named: Azure OpenAI,
// any OpenAI-compatible server, Mistral, Moonshot and OpenRouter.
//
// The stream is written once here; a client supplies its URL, its headers and, if it renames
// models, the name it sends. The family passes over OpenRouter's keep-alive comment, which the
// OpenAI service's own rule does not.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/platform/Http.h"
#include "lumora/platform/Url.h"

namespace lumora {

class OpenAICompatibleProtocol : public LLMClient {
 public:
  // The URL of the request for `model`. Throws OpenAIError::urlError.
  virtual Url requestURL(std::optional<std::string_view> model) const = 0;
  // The authentication headers.
  virtual HttpHeaders requestHeaders() const = 0;
  // The model name that goes out for `model`.
  virtual std::string sentModel(std::string_view model) const { return std::string(model); }

  // The request as it would go out, without sending it.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;

  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) final;

 protected:
  explicit OpenAICompatibleProtocol(const ChatEnvironment& environment)
      : environment_(environment) {}
  const ChatEnvironment& environment_;
};

}  // namespace lumora
