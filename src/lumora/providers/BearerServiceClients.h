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
  // The names sent to Mistral: its own and its open models'. The route sends them here before
  // any service is asked; asked service by service, the client answers no name.
  static bool claims(std::string_view model);
  bool supportsModel(std::string_view) const override { return false; }
};

class MoonshotClient final : public BearerServiceClient {
 public:
  MoonshotClient(std::string apiKey, const ChatEnvironment& environment)
      : BearerServiceClient(FixedEndpoint::moonshot, std::move(apiKey), environment) {}
  // The names Moonshot answers: those starting "moonshot".
  static bool claims(std::string_view model) { return model.starts_with("moonshot"); }
  bool supportsModel(std::string_view model) const override { return claims(model); }
};

class OpenRouterClient final : public BearerServiceClient {
 public:
  OpenRouterClient(std::string apiKey, const ChatEnvironment& environment)
      : BearerServiceClient(FixedEndpoint::openRouter, std::move(apiKey), environment) {}
  // The names OpenRouter forwards: OpenAI's chat models ("gpt…"), Gemini's and Claude's.
  static bool claims(std::string_view model);
  bool supportsModel(std::string_view model) const override { return claims(model); }
  // OpenRouter names models by their provider: "openai/gpt-4o", "anthropic/claude-2".
  std::string sentModel(std::string_view model) const override;
};

}  // namespace lumora
