// The services of the OpenAI family at a fixed host with a bearer key: Mistral, Moonshot and
// OpenRouter. Each sends to its host's chat path; OpenRouter also names models by provider.
#pragma once

#include "lumora/chat/Endpoints.h"
#include "lumora/providers/OpenAICompatibleProtocol.h"

namespace lumora {

// What the three have in common: a key sent as a bearer token to one fixed endpoint.
class BearerServiceClient : public OpenAICompatibleProtocol {
 public:
  Url requestURL(std::optional<std::string_view> model) const override;
  HttpHeaders requestHeaders() const override { return {{"Authorization", "Bearer " + apiKey_}}; }

 protected:
  BearerServiceClient(FixedEndpoint endpoint, std::string apiKey,
                      const ChatEnvironment& environment);

 private:
  FixedEndpoint endpoint_;
  std::string apiKey_;
};

class MistralClient final : public BearerServiceClient {
 public:
  MistralClient(std::string apiKey, const ChatEnvironment& environment)
      : BearerServiceClient(FixedEndpoint::mistral, std::move(apiKey), environment) {}
  // Never chosen by name: only the route's Mistral step reaches it.
  bool supportsModel(std::string_view) const override { return false; }
};

class MoonshotClient final : public BearerServiceClient {
 public:
  MoonshotClient(std::string apiKey, const ChatEnvironment& environment)
      : BearerServiceClient(FixedEndpoint::moonshot, std::move(apiKey), environment) {}
  bool supportsModel(std::string_view model) const override {
    return model.starts_with("moonshot");
  }
};

class OpenRouterClient final : public BearerServiceClient {
 public:
  OpenRouterClient(std::string apiKey, const ChatEnvironment& environment)
      : BearerServiceClient(FixedEndpoint::openRouter, std::move(apiKey), environment) {}
  bool supportsModel(std::string_view model) const override;
  // OpenRouter names models by their provider: "openai/gpt-4o", "anthropic/claude-2".
  std::string sentModel(std::string_view model) const override;
};

}  // namespace lumora
