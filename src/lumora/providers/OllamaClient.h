// A local or self-hosted Ollama server: its own chat path, newline-delimited JSON records and
// no credentials.
#pragma once

#include <optional>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/chat/ReplyText.h"
#include "lumora/platform/Http.h"

namespace lumora {

class OllamaClient final : public LLMClient {
 public:
  // One record of the reply.
  struct Message {
    std::string role;
    std::string content;
  };
  struct Response {
    std::string model;
    std::string createdAt;
    Message message;
    bool done = false;
    std::optional<int64_t> totalDuration;
    std::optional<int64_t> loadDuration;
    std::optional<int64_t> promptEvalDuration;
    std::optional<int64_t> evalCount;
    std::optional<int64_t> evalDuration;
  };

  // The line rule of one stream, a new one per stream: each line is a Response whose content is appended.
  static std::unique_ptr<LineReader> makeLines();

  // `ollamaURL`: the server's base address; surrounding blanks are dropped.
  OllamaClient(std::string_view ollamaURL, const ChatEnvironment& environment);

  // The names a local server is asked for: any outside the catalogue. The route asks this
  // only after every service had its turn, so the client itself answers no name.
  static bool claims(std::string_view model);
  bool supportsModel(std::string_view) const override { return false; }
  // Throws AppError::apiError("Bad URL!") when the address and path make no URL.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

 private:
  std::string ollamaURL_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
