// The client of Google's Gemini models. It speaks through a GenerativeModel: it folds the chat
// into turns that alternate between the user and the model, picks the API version by model
// name, and turns the responses into chunks with the reply so far, and the service's failures
// into AppError texts.
//
// Made anew for each generation; holds nothing but the key. Unlike the OpenAI family it sends no
// generation settings at all (no temperature, no token limit), so the server's defaults hold,
// and it does not go through the user's HTTPS proxy.
//
// Failures: streamChat sends the request and waits for the head, like the other clients. What
// fails up to there (a status other than 200, no connection) is thrown from streamChat as the
// same AppError that the stream would fail with afterwards, so the user reads the same text
// either way; a stop before the head throws CancellationError, as for every client. Everything
// later fails the stream: every failure of a Gemini stream is an AppError::apiError.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/platform/Http.h"

namespace lumora {

class GeminiClient final : public LLMClient {
 public:
  // Registers the key for masking.
  GeminiClient(std::string apikey, const ChatEnvironment& environment);

  // The names Gemini's service answers: those starting "gemini".
  static bool claims(std::string_view model) { return model.starts_with("gemini"); }
  bool supportsModel(std::string_view model) const override { return claims(model); }

  // Chunks carry `model` as given, the reply so far, and never a finish reason. `temperature` is
  // not sent.
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

  // The request streamChat would send, without sending it.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;

  // "v1beta" for the two "-latest" 1.5 models that only that version serves; "v1" otherwise.
  static std::string_view apiVersion(std::string_view model);

 private:
  std::string apikey_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
