#include "lumora/providers/OllamaClient.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/Payloads.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Text.h"
#include "lumora/platform/Url.h"

namespace lumora {

namespace {

class Lines final : public json::RecordLines {
 public:
  std::optional<StreamChunk> line(std::string_view raw) override;
};

}  // namespace

std::unique_ptr<LineReader> OllamaClient::makeLines() { return std::make_unique<Lines>(); }

std::optional<StreamChunk> Lines::line(std::string_view raw) {
  const std::string_view line = text::trimmed(raw);
  if (debug::enabled()) debug::line({"[debug] process line", line});
  if (!parser_.parse(line)) json::failNotJson(line);
  // Every required key is checked, though only the model, the text and the end mark are used:
  // a record that lacks one (an error line, say) is not a reply.
  const json::Record record(parser_.root(), json::Keys::fromSnakeCase);
  const std::string_view model = record.string("model");
  record.string("createdAt");
  const json::Record message = record.object("message");
  message.string("role");
  const std::string_view content = message.string("content");
  const bool done = record.boolean("done");
  for (std::string_view optional :
       {"totalDuration", "loadDuration", "promptEvalDuration", "evalCount", "evalDuration"})
    record.optionalInteger(optional);

  text_->append(content);
  return chunk(model, done ? std::optional<std::string_view>("Finished") : std::nullopt);
}

bool OllamaClient::claims(std::string_view model) { return !isCatalogueModel(model); }

OllamaClient::OllamaClient(std::string_view ollamaURL, const ChatEnvironment& environment)
    : ollamaURL_(text::trimmed(ollamaURL)), environment_(environment) {}

HttpRequest OllamaClient::chatRequest(const std::string& model,
                                      const std::vector<ChatMessage>& messages,
                                      double temperature) const {
  // Joined as text: an address that ends in "/" gives "//api/chat", as the user wrote it.
  const std::string url = ollamaURL_ + "/api/chat";
  if (!Url::parse(url)) throw AppError::apiError("Bad URL!");
  HttpRequest request;
  request.url = url;
  request.method = "POST";
  request.headers = {{"Content-Type", "application/json"}};
  ChatRequestPayload payload;
  payload.model = model;
  payload.messages = messages;
  payload.stream = true;
  payload.temperature = temperature;  // the server's own range applies
  request.body = payload.toJSON();
  return request;
}

ChunkStream OllamaClient::streamChat(const std::string& model,
                                     const std::vector<ChatMessage>& messages, double temperature,
                                     std::stop_token stop) {
  HttpRequest request = chatRequest(model, messages, temperature);
  debug::line({"[debug] request model:", model, "temperature", formatDouble(temperature),
               request.url});
  std::unique_ptr<HttpResponse> response = sendRequest(environment_, request, stop);
  if (response->status() != 200) {
    // The body is not read for a message: the status is all the user is told.
    debug::line({"[debug][api error]", readJoinedLines(*response, stop)});
    throw AppError::httpError(response->status());
  }
  return readChunks(std::move(response), makeLines(), environment_.maxReplyBytes);
}

}  // namespace lumora
