#include "lumora/providers/RekaClient.h"

#include <nlohmann/json.hpp>

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Endpoints.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/Payloads.h"
#include "lumora/chat/ReplyText.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/KeyCase.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/providers/ProviderStream.h"

namespace lumora {
namespace {

using nlohmann::ordered_json;

constexpr std::string_view kDataPrefix = "data:";

RekaClient::RekaResponse readResponse(simdjson::dom::element root) {
  const json::Record record(root, json::Keys::asWritten);
  return {record.string("type"), record.optionalString("text"),
          record.optionalString("finish_reason")};
}

// The lines of one stream. Every line must be a record, an error record, or one of the two
// markers the server sends between records; anything else fails the stream.
class RekaLines final : public LineReader {
 public:
  explicit RekaLines(std::string model) : model_(std::move(model)) {}

  std::optional<StreamChunk> line(std::string_view raw) override {
    std::string storage;
    std::string_view line = text::trimmed(providers::asText(raw, storage));
    if (debug::enabled()) debug::line({"[debug] process line", line});
    if (line.ends_with("[DONE]") || line.ends_with("event: message")) return std::nullopt;
    if (line.starts_with(kDataPrefix)) line.remove_prefix(kDataPrefix.size());

    if (!parser_.parse(line)) json::failNotJson(line);
    if (auto error = providers::errorRecord(parser_, line))
      throw OpenAIError::apiError(std::move(*error));
    const RekaClient::RekaResponse record = readResponse(parser_.root());
    // Each record holds the whole reply so far: it replaces the text, nothing is appended.
    if (record.text) text_ = ReplyText(*record.text);
    std::optional<std::string> finishReason;
    if (record.finishReason) finishReason = std::string(*record.finishReason);
    return StreamChunk{ModelName(model_), text_, std::move(finishReason)};
  }

 private:
  std::string model_;
  ReplyText text_;
  json::Parser parser_;
};

}  // namespace

std::string RekaClient::RekaChatRequestPayload::toJSON() const {
  bool imageForm = false;
  for (const ChatMessage& m : conversationHistory) imageForm |= m.images && !m.images->empty();

  ordered_json history = ordered_json::array();
  if (imageForm) {
    // The OpenAI image form, written by the OpenAI body itself so that the two cannot drift
    // apart; its roles stay "user" and "assistant".
    ChatRequestPayload openAI;
    openAI.messages = conversationHistory;
    history = ordered_json::parse(openAI.toJSON())["messages"];
  } else {
    for (const ChatMessage& m : conversationHistory) {
      const RekaTextMessage plain{m.role == "user" ? "human" : "model", m.content};
      history.push_back({{"type", plain.type}, {"text", plain.text}});
    }
  }
  ordered_json body;
  body[keycase::toSnakeCase("modelName")] = modelName;
  body[keycase::toSnakeCase("conversationHistory")] = std::move(history);
  body["stream"] = stream;
  body["temperature"] = temperature;
  if (requestOutputLen) body[keycase::toSnakeCase("requestOutputLen")] = *requestOutputLen;
  // Invalid UTF-8 in a message is sent as U+FFFD rather than failing the request.
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

RekaClient::RekaClient(std::string apiKey, const ChatEnvironment& environment)
    : apiKey_(std::move(apiKey)), environment_(environment) {
  redact::registerSecret(apiKey_);
}

std::string RekaClient::chatURL() { return endpointBase(FixedEndpoint::reka) + std::string(kPath); }

std::vector<ChatMessage> RekaClient::conversationHistory(const std::vector<ChatMessage>& messages) {
  std::vector<ChatMessage> history;
  std::string_view expected = "user";
  for (const ChatMessage& message : messages) {
    if (message.role != expected) continue;
    history.push_back(message);
    expected = expected == "user" ? "assistant" : "user";
  }
  if (!history.empty() && history.back().role != "user") history.pop_back();
  return history;
}

HttpRequest RekaClient::chatRequest(const std::string& model,
                                    const std::vector<ChatMessage>& messages,
                                    double temperature) const {
  RekaChatRequestPayload payload;
  payload.modelName = model;
  payload.conversationHistory = conversationHistory(messages);
  if (payload.conversationHistory.empty())
    throw AppError::unknown(
        "There is no message of yours in this conversation for Reka to answer.");
  payload.temperature = clampTemperature(temperature);

  HttpRequest request;
  request.url = chatURL();
  request.headers = {{"Authorization", "Bearer " + apiKey_}};
  request.method = "POST";
  request.headers.emplace_back("Content-Type", "application/json");
  request.headers.emplace_back("Accept", "text/event-stream");
  request.body = payload.toJSON();
  return request;
}

ChunkStream RekaClient::streamChat(const std::string& model,
                                   const std::vector<ChatMessage>& messages, double temperature,
                                   std::stop_token stop) {
  const HttpRequest request = chatRequest(model, messages, temperature);
  return sendChatRequest(environment_, request, model, temperature, lineReader(model), stop);
}

std::unique_ptr<LineReader> RekaClient::lineReader(std::string model) {
  return std::make_unique<RekaLines>(std::move(model));
}

}  // namespace lumora
