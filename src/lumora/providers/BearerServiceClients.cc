#include "lumora/providers/BearerServiceClients.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/platform/Redact.h"
#include "lumora/providers/ClaudeClient.h"
#include "lumora/providers/GeminiClient.h"

namespace lumora {

BearerServiceClient::BearerServiceClient(FixedEndpoint endpoint, std::string apiKey,
                                         const ChatEnvironment& environment)
    : OpenAICompatibleProtocol(environment), endpoint_(endpoint), apiKey_(std::move(apiKey)) {
  redact::registerSecret(apiKey_);
}

Url BearerServiceClient::requestURL(std::optional<std::string_view>) const {
  return requestUrl(endpointBase(endpoint_)).appendingPath(kChatPath);
}

bool MistralClient::claims(std::string_view model) {
  return model.starts_with("mistral") || model.starts_with("open_mistral") ||
         model.starts_with("open_mixtral");
}

bool OpenRouterClient::claims(std::string_view model) {
  return model.starts_with("gpt") || GeminiClient::claims(model) || ClaudeClient::claims(model);
}

std::string OpenRouterClient::sentModel(std::string_view model) const {
  if (model.starts_with("gpt")) return "openai/" + std::string(model);
  if (GeminiClient::claims(model)) return "google/" + std::string(model);
  if (ClaudeClient::claims(model)) {
    // OpenRouter lists this one model without its date, with a dot.
    if (model == "claude-3-5-sonnet-20240620") return "anthropic/claude-3.5-sonnet";
    return "anthropic/" + std::string(model);
  }
  return std::string(model);
}

}  // namespace lumora
