#include "lumora/chat/ChatRequest.h"

#include <charconv>
#include <cmath>

#include "lumora/chat/Errors.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

constexpr std::string_view kDoneMarker = "[DONE]";
constexpr std::string_view kOpenRouterKeepAlive = ": OPENROUTER PROCESSING";
constexpr std::string_view kDataPrefix = "data:";

}  // namespace

Url requestUrl(std::string_view text) {
  auto url = Url::parse(text);
  if (!url) throw OpenAIError::urlError();
  return *url;
}

double clampTemperature(double temperature) {
  if (std::isnan(temperature) || temperature <= 0) return 0;
  if (temperature > 2) return 2;
  return temperature;
}

std::string formatDouble(double value) {
  char buffer[64];
  auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, end);
  if (text.find_first_of(".eni") == std::string::npos) text += ".0";
  return text;
}

std::optional<int> visionMaxTokens(std::string_view model) {
  if (model == "gpt-4-vision-preview") return 4096;
  return std::nullopt;
}

HttpRequest makeChatRequest(const std::string& url, const HttpHeaders& authHeaders,
                            const std::string& model, const std::vector<ChatMessage>& messages,
                            double temperature, std::optional<int> maxTokens) {
  HttpRequest request;
  request.url = url;
  request.headers = authHeaders;
  request.method = std::string(kChatMethod);
  request.headers.emplace_back("Content-Type", "application/json");
  request.headers.emplace_back("Accept", "text/event-stream");

  ChatRequestPayload payload;
  payload.model = model;
  payload.messages = messages;
  payload.stream = true;
  payload.temperature = clampTemperature(temperature);
  payload.maxTokens = maxTokens;
  request.body = payload.toJSON();
  return request;
}

ChunkStream sendChatRequest(const ChatEnvironment& environment, const HttpRequest& request,
                            std::string_view model, double temperature,
                            std::unique_ptr<LineReader> reader, std::stop_token stop,
                            std::string_view errorTag) {
  debug::line({"[debug] request model:", model, "temperature",
               formatDouble(clampTemperature(temperature)), request.url});
  std::unique_ptr<HttpResponse> response = sendRequest(environment, request, stop);
  if (response->status() != 200) {
    const std::string joined = readJoinedLines(*response, stop);
    debug::line({errorTag, joined});
    checkErrorBody(joined, response->status());
    throw OpenAIError::httpError(response->status());  // not reached: the status is not 200
  }
  return readChunks(std::move(response), std::move(reader), environment.maxReplyBytes);
}

LineProcessor::LineProcessor(LineRule rule, std::shared_ptr<ReplyBuffer> text)
    : rule_(rule), text_(std::move(text)) {}

std::optional<StreamChunk> LineProcessor::line(std::string_view raw) {
  const ChatDelta* record = take(raw);
  if (!record) return std::nullopt;
  std::optional<StreamChunk> chunk(std::in_place);
  write(*record, *chunk);
  return chunk;
}

bool LineProcessor::update(std::string_view raw, StreamChunk& chunk, size_t maxReply) {
  const ChatDelta* record = take(raw);
  if (!record) return false;
  if (text_->size() > maxReply) failReplyTooLong(maxReply);
  write(*record, chunk);
  return true;
}

void LineProcessor::write(const ChatDelta& record, StreamChunk& chunk) const {
  if (!(chunk.model == record.model)) chunk.model = ModelName(record.model);
  chunk.completed.assign(text_, text_->size());
  const ChatDelta::Choice* first = record.choices.empty() ? nullptr : &record.choices.front();
  if (first && first->finishReason) {
    chunk.finishReason.emplace(*first->finishReason);
  } else {
    chunk.finishReason.reset();
  }
}

const ChatDelta* LineProcessor::take(std::string_view raw) {
  // Servers that send bytes that are not UTF-8 get them shown as U+FFFD, not a failed reply.
  // The JSON parser checks UTF-8 anyway, so a line is only looked at again when it fails
  // there (or when it is about to be shown in a debug line).
  std::string repaired;
  const bool debugging = debug::enabled();
  if (debugging && !text::isValidUtf8(raw)) {
    repaired = text::repairedUtf8(raw);
    raw = repaired;
  }
  std::string_view line = text::trimmed(raw);
  if (debugging) debug::line({"[debug] process line", line});

  if (line.ends_with(kDoneMarker)) return nullptr;
  if (rule_ == LineRule::openAICompatible && line.ends_with(kOpenRouterKeepAlive)) return nullptr;
  if (line.starts_with(kDataPrefix)) line.remove_prefix(kDataPrefix.size());

  const ChatDelta* record = decoder_.streamLine(line);
  if (!record && repaired.empty() && !text::isValidUtf8(line)) {
    repaired = text::repairedUtf8(line);
    line = repaired;
    record = decoder_.streamLine(line);
  }
  if (!record) json::failNotJson(line);
  if (!record->choices.empty()) {
    const ChatDelta::Choice& first = record->choices.front();
    if (first.delta && first.delta->content) text_->append(*first.delta->content);
  }
  return record;
}

void checkErrorBody(std::string_view body, int status) {
  if (auto error = decodeOpenAIErrorResponse(body)) throw OpenAIError::apiError(std::move(*error));
  if (status == 200) return;
  throw OpenAIError::httpError(status);
}

}  // namespace lumora
