// The client of the OpenAI chat-completions protocol for the OpenAI API itself, a custom API
// domain and a self-hosted team server. It accepts any service and routes the others to their
// own clients.
//
// Made anew for each request; holds nothing but its service. Settings it depends on
// ("aiGateway", "azureModels") are read when the URL is built.
#pragma once

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/Service.h"
#include "lumora/platform/Url.h"

namespace lumora {

class OpenAIClient final : public LLMClient {
 public:
  // Registers the service's credentials for masking, so that no output of this client shows
  // them, however the service was made.
  OpenAIClient(Service service, const ChatEnvironment& environment);

  const Service& service() const { return service_; }

  // The names of OpenAI's family, whatever the service: chat models ("gpt…") and speech.
  static bool claims(std::string_view model);
  // OpenAI's speech models ("tts…", "whisper…"), which only OpenAI and the hosted cloud serve.
  static bool claimsSpeech(std::string_view model);
  bool supportsModel(std::string_view model) const override { return claims(model); }

  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

  // The URL of the operation at `path` for this client's service. Throws
  // OpenAIError::urlError when a domain, gateway or endpoint from the settings is no URL.
  Url serviceURL(std::string_view path, std::optional<std::string_view> model) const;

  // "https://" in front of a domain that starts with neither "https://" nor "http://" (tested
  // case-sensitively), then parsed. Throws OpenAIError::urlError.
  static Url baseURL(std::string_view domain);

  // The service's authentication header, if it has one.
  HttpHeaders authHeaders() const;

  // The chat request this client would send, without sending it.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;

 private:
  Url azureURL(const Azure& azure, std::string_view path,
               std::optional<std::string_view> model) const;
  Url openAIURL(std::string_view path) const;

  Service service_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
