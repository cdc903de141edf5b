#include "lumora/providers/OpenAICompatibleProtocol.h"

#include "lumora/chat/ChatRequest.h"

namespace lumora {

HttpRequest OpenAICompatibleProtocol::chatRequest(const std::string& model,
                                                  const std::vector<ChatMessage>& messages,
                                                  double temperature) const {
  const std::string sent = sentModel(model);
  return makeChatRequest(requestURL(sent).text(), requestHeaders(), sent, messages, temperature,
                         visionMaxTokens(sent));
}

ChunkStream OpenAICompatibleProtocol::streamChat(const std::string& model,
                                                 const std::vector<ChatMessage>& messages,
                                                 double temperature, std::stop_token stop) {
  const std::string sent = sentModel(model);
  return sendChatRequest(environment_, chatRequest(model, messages, temperature), sent,
                         temperature, std::make_unique<LineProcessor>(LineRule::openAICompatible),
                         stop);
}

}  // namespace lumora
