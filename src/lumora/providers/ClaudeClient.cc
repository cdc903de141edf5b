#include "lumora/providers/ClaudeClient.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "lumora/chat/Endpoints.h"
#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/ReplyText.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/KeyCase.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/providers/ProviderStream.h"

namespace lumora {
namespace {

using nlohmann::ordered_json;

constexpr std::string_view kDataPrefix = "data:";
// What a data line loses before its JSON: the prefix and the blank servers put behind it.
constexpr size_t kDataPrefixCharacters = 6;

ordered_json wireBlock(const ClaudeClient::ClaudeContentType& block) {
  if (const auto* text = std::get_if<ClaudeClient::ClaudeTextContent>(&block))
    return {{"type", "text"}, {"text", text->text}};
  const auto& source = std::get<ClaudeClient::ClaudeImageContent>(block).source;
  return {{"type", "image"},
          {"source",
           {{"type", source.type},
            {keycase::toSnakeCase("mediaType"), source.mediaType},
            {"data", source.data}}}};
}

ClaudeClient::ClaudeContentType imageBlock(const std::string& bytes) {
  ClaudeClient::ClaudeImageContent image;
  image.source.data = base64::encode(bytes);
  return image;
}

// The record if `root` is one that carries text; nullopt for every other shape.
std::optional<ClaudeClient::ResultChunk> readResultChunk(simdjson::dom::element root) {
  try {
    const json::Record record(root, json::Keys::fromSnakeCase);
    const json::Record delta = record.object("delta");
    ClaudeClient::ResultChunk chunk;
    chunk.type = record.string("type");
    chunk.index = record.integer("index");
    chunk.delta.type = delta.string("type");
    chunk.delta.text = delta.string("text");
    return chunk;
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

// The lines of one stream. Lines that are not data, or whose data is neither a text record nor
// an error record, are passed over: the stream interleaves many kinds of record and only the
// text deltas matter to a reply.
class ClaudeLines final : public LineReader {
 public:
  explicit ClaudeLines(std::string model)
      : model_(std::move(model)), text_(std::make_shared<ReplyBuffer>()) {}

  std::optional<StreamChunk> line(std::string_view raw) override {
    std::string storage;
    std::string_view line = text::trimmed(providers::asText(raw, storage));
    if (!line.starts_with(kDataPrefix)) return std::nullopt;
    // Six characters go whatever the sixth is: "data:{...}" loses its brace and is passed
    // over, and "data:" alone leaves nothing.
    size_t cut = 0;
    for (size_t i = 0; i < kDataPrefixCharacters && cut < line.size(); ++i)
      cut += text::characterLengthAt(line, cut);
    line.remove_prefix(std::min(cut, line.size()));
    if (line == "{}") return std::nullopt;
    if (debug::enabled()) debug::line({"delta", line});

    if (!parser_.parse(line)) return std::nullopt;
    if (auto chunk = readResultChunk(parser_.root())) {
      text_->append(chunk->delta.text);
      return StreamChunk{ModelName(model_), ReplyText(text_, text_->size()), std::nullopt};
    }
    if (auto error = providers::errorRecord(parser_, line))
      throw OpenAIError::apiError(std::move(*error));
    return std::nullopt;
  }

 private:
  std::string model_;
  std::shared_ptr<ReplyBuffer> text_;
  json::Parser parser_;
};

}  // namespace

std::string ClaudeClient::ClaudeMessagesRequestPayload::toJSON() const {
  if (!std::isfinite(temperature))
    throw Error("The request could not be written: the temperature is not a finite number.");
  ordered_json wireMessages = ordered_json::array();
  for (const ClaudeMessage& message : messages) {
    ordered_json blocks = ordered_json::array();
    for (const ClaudeContentType& block : message.content) blocks.push_back(wireBlock(block));
    wireMessages.push_back({{"role", message.role}, {"content", std::move(blocks)}});
  }
  ordered_json body;
  body["model"] = model;
  body["messages"] = std::move(wireMessages);
  if (system) body["system"] = *system;
  body[keycase::toSnakeCase("maxTokens")] = maxTokens;
  body["stream"] = stream;
  body["temperature"] = temperature;
  // Invalid UTF-8 in a message is sent as U+FFFD rather than failing the request.
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

ClaudeClient::ClaudeClient(std::string apikey, bool useCloud, const ChatEnvironment& environment)
    : apikey_(std::move(apikey)), useCloud_(useCloud), environment_(environment) {
  redact::registerSecret(apikey_);
}

std::string ClaudeClient::messagesURL() {
  return endpointBase(FixedEndpoint::claude) + std::string(kMessagesPath);
}

std::vector<ChatMessage> ClaudeClient::normalized(const std::vector<ChatMessage>& messages) {
  std::vector<ChatMessage> out;
  for (const ChatMessage& message : messages) {
    if (text::trimmed(message.content).empty()) continue;
    if (out.empty() || out.back().role != message.role) {
      out.push_back(message);
      continue;
    }
    ChatMessage& earlier = out.back();
    earlier.content += "\n\n";
    earlier.content += message.content;
    if (!message.images) continue;
    if (!earlier.images) {
      earlier.images = message.images;
    } else {
      earlier.images->insert(earlier.images->end(), message.images->begin(), message.images->end());
    }
  }
  return out;
}

ClaudeClient::ClaudeMessagesRequestPayload ClaudeClient::payload(
    const std::string& model, const std::vector<ChatMessage>& messages, double temperature) {
  ClaudeMessagesRequestPayload payload;
  payload.model = model;
  payload.temperature = temperature;
  for (const ChatMessage& message : messages) {
    if (message.role == "system") {
      payload.system = message.content;
      break;
    }
  }
  for (const ChatMessage& message : normalized(messages)) {
    if (message.role == "system") continue;
    ClaudeMessage wire{message.role, {}};
    const std::vector<std::string> none;
    const std::vector<std::string>& images = message.images ? *message.images : none;
    if (images.size() == 1) {
      wire.content.push_back(imageBlock(images.front()));
    } else {
      // Several images are told apart by a label before each, counted from 0.
      for (size_t i = 0; i < images.size(); ++i) {
        wire.content.push_back(ClaudeTextContent{"Image " + std::to_string(i) + ":"});
        wire.content.push_back(imageBlock(images[i]));
      }
    }
    wire.content.push_back(ClaudeTextContent{message.content});
    payload.messages.push_back(std::move(wire));
  }
  return payload;
}

HttpRequest ClaudeClient::chatRequest(const std::string& model,
                                      const std::vector<ChatMessage>& messages,
                                      double temperature) const {
  HttpRequest request;
  request.method = "POST";
  request.url = messagesURL();
  request.headers = {{"x-api-key", apikey_},
                     {"anthropic-version", std::string(kAnthropicVersion)},
                     {"content-type", "application/json"}};
  request.body = payload(model, messages, temperature).toJSON();
  return request;
}

ChunkStream ClaudeClient::streamChat(const std::string& model,
                                     const std::vector<ChatMessage>& messages, double temperature,
                                     std::stop_token stop) {
  const HttpRequest request = chatRequest(model, messages, temperature);
  return sendChatRequest(environment_, request, model, temperature, lineReader(model), stop, "result");
}

std::unique_ptr<LineReader> ClaudeClient::lineReader(std::string model) {
  return std::make_unique<ClaudeLines>(std::move(model));
}

}  // namespace lumora
