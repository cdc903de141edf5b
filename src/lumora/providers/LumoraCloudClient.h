// The hosted cloud service: every catalogue model under one bearer token, with wire records of
// its own (the reply arrives as deltas; errors as {"code", "error"} or an OpenAI-style object).
#pragma once

#include <optional>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Http.h"

namespace lumora {

class LumoraCloudClient final : public LLMClient {
 public:
  // The service's error answer.
  struct ErrorResponse {
    std::optional<int64_t> code;
    std::string error;
  };
  // Its OpenAI-style error answer, which carries the quota code.
  struct OpenAIErrorResponse {
    struct Message {
      std::optional<std::string> code;
      std::string message;
    };
    Message error;
  };

  // The line rule of one stream, a new one per stream: deltas appended, an error record fails the stream, and a line
  // of any other shape fails it too.
  static std::unique_ptr<LineReader> makeLines();

  // Without a token the request goes out without authentication.
  LumoraCloudClient(std::optional<std::string> token, const ChatEnvironment& environment);

  // Any catalogue model, by its exact id.
  bool supportsModel(std::string_view model) const override;
  // The catalogue models that only the hosted cloud offers: no other service is asked for them.
  static bool claimsAlone(std::string_view model);
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

  // The error a non-200 answer with `body` gives.
  static std::exception_ptr errorFromBody(std::string_view body, int status);

 private:
  std::optional<std::string> token_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
