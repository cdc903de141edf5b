#include "lumora/providers/GroqClient.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Endpoints.h"
#include "lumora/platform/Redact.h"

namespace lumora {

std::string_view GroqClient::rawValue(Model model) {
  switch (model) {
    case Model::mixtralv8x7b:
      return "mixtral-8x7b-32768";
    case Model::gemma7b:
      return "gemma-7b-it";
    case Model::llma3v8b:
      return "llama3-8b-8192";
    case Model::llma3v70b:
      return "llama3-70b-8192";
  }
  return {};
}

bool GroqClient::claims(std::string_view model) {
  for (Model m : kModels)
    if (rawValue(m) == model) return true;
  return false;
}

int GroqClient::maxTokens(std::string_view model) {
  if (model == rawValue(Model::mixtralv8x7b)) return 32768;
  if (claims(model)) return 8192;
  return 4096;
}

GroqClient::GroqClient(std::string apikey, const ChatEnvironment& environment)
    : apikey_(std::move(apikey)), environment_(environment) {
  redact::registerSecret(apikey_);
}

HttpRequest GroqClient::chatRequest(const std::string& model,
                                    const std::vector<ChatMessage>& messages,
                                    double temperature) const {
  const std::string url =
      requestUrl(endpointBase(FixedEndpoint::groq)).appendingPath("/openai/v1/chat/completions").text();
  return makeChatRequest(url, {{"Authorization", "Bearer " + apikey_}}, model, messages,
                         temperature, maxTokens(model));
}

ChunkStream GroqClient::streamChat(const std::string& model,
                                   const std::vector<ChatMessage>& messages, double temperature,
                                   std::stop_token stop) {
  return sendChatRequest(environment_, chatRequest(model, messages, temperature), model,
                         temperature, std::make_unique<LineProcessor>(LineRule::openAI, result_),
                         stop);
}

}  // namespace lumora
