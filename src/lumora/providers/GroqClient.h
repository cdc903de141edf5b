// Groq's OpenAI-style chat API: four models, each with the token limit that is sent for it.
// It reads the OpenAI service's line rule (a keep-alive comment fails the stream) and keeps
// the running text on the client, so one client serves one stream.
#pragma once

#include <memory>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/ReplyText.h"
#include "lumora/platform/Http.h"

namespace lumora {

class GroqClient final : public LLMClient {
 public:
  enum class Model { mixtralv8x7b, gemma7b, llma3v8b, llma3v70b };
  static constexpr Model kModels[] = {Model::mixtralv8x7b, Model::gemma7b, Model::llma3v8b,
                                      Model::llma3v70b};
  static std::string_view rawValue(Model model);
  // The limit sent for `model`: its own for the four, 4096 for any other name.
  static int maxTokens(std::string_view model);
  // The names Groq answers: its four models, exactly.
  static bool claims(std::string_view model);

  GroqClient(std::string apikey, const ChatEnvironment& environment);

  bool supportsModel(std::string_view model) const override { return claims(model); }
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

 private:
  std::string apikey_;
  std::shared_ptr<ReplyBuffer> result_ = std::make_shared<ReplyBuffer>();
  const ChatEnvironment& environment_;
};

}  // namespace lumora
