#include "lumora/providers/BearerServiceClients.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/platform/Redact.h"

namespace lumora {

BearerServiceClient::BearerServiceClient(FixedEndpoint endpoint, std::string apiKey,
                                         const ChatEnvironment& environment)
    : OpenAICompatibleProtocol(environment), endpoint_(endpoint), apiKey_(std::move(apiKey)) {
  redact::registerSecret(apiKey_);
}

Url BearerServiceClient::requestURL(std::optional<std::string_view>) const {
  return requestUrl(endpointBase(endpoint_)).appendingPath(kChatPath);
}

bool OpenRouterClient::supportsModel(std::string_view model) const {
  return model.starts_with("gpt") || model.starts_with("gemini") || model.starts_with("claude");
}

std::string OpenRouterClient::sentModel(std::string_view model) const {
  if (model.starts_with("gpt")) return "openai/" + std::string(model);
  if (model.starts_with("gemini")) return "google/" + std::string(model);
  if (model.starts_with("claude")) {
    // OpenRouter lists this one model without its date, with a dot.
    if (model == "claude-3-5-sonnet-20240620") return "anthropic/claude-3.5-sonnet";
    return "anthropic/" + std::string(model);
  }
  return std::string(model);
}

}  // namespace lumora
