// One chat request to an OpenAI-style server, and what its answer becomes: a stream of chunks
// or an error.
#pragma once

#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/ChatMessage.h"
#include "lumora/chat/ChunkStream.h"
#include "lumora/chat/Payloads.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Http.h"
#include "lumora/platform/Url.h"

namespace lumora {

// Constants of the chat request.
inline constexpr std::string_view kChatPath = "/v1/chat/completions";
inline constexpr std::string_view kChatMethod = "POST";

// What a stream line that is neither data nor the end marker does: the OpenAI service's rule
// fails on it; the compatible servers' rule also passes over OpenRouter's keep-alive comment.
enum class LineRule { openAI, openAICompatible };

// `text` parsed as a request's URL, as written: no scheme is added. Throws
// OpenAIError::urlError ("Invalid domain").
Url requestUrl(std::string_view text);

// The temperature as sent: NaN and values not above 0 become 0, values above 2 become 2.
double clampTemperature(double temperature);

// The request as it goes out, built without touching the network: the URL, the authentication
// headers, then Content-Type and Accept, and the JSON body with the temperature clamped and
// `maxTokens` as given.
HttpRequest makeChatRequest(const std::string& url, const HttpHeaders& authHeaders,
                            const std::string& model, const std::vector<ChatMessage>& messages,
                            double temperature, std::optional<int> maxTokens);

// The token limit the OpenAI family sends: 4096 for "gpt-4-vision-preview", whose server
// default is too small for a reply, and none for every other model.
std::optional<int> visionMaxTokens(std::string_view model);

// Sends a chat request and waits for the response head, after the debug line with the model,
// the temperature as the OpenAI family clamps it, and the URL. Status 200 gives the stream of
// chunks, its lines read by `reader` (no byte of the body read yet). Anything else reads the
// body, prints `errorTag` with its lines joined, and throws the OpenAIError checkErrorBody
// makes of it. Network failures throw TransportError; a stop before the head throws
// CancellationError.
ChunkStream sendChatRequest(const ChatEnvironment& environment, const HttpRequest& request,
                            std::string_view model, double temperature,
                            std::unique_ptr<LineReader> reader, std::stop_token stop,
                            std::string_view errorTag = "[debug][api error]");

// Turns the lines of one stream into chunks. Holds the stream's decoder and the running text.
// Not thread-safe: one per stream, used by its reader.
class LineProcessor final : public LineReader {
 public:
  // `text` is where the reply accumulates: a new buffer per stream, unless the caller keeps
  // one across streams.
  explicit LineProcessor(LineRule rule,
                         std::shared_ptr<ReplyBuffer> text = std::make_shared<ReplyBuffer>());

  // The chunk for one line, or nullopt for a line that yields nothing. Throws OpenAIError for
  // an error record and DecodingError for a line that is no record.
  std::optional<StreamChunk> line(std::string_view line) override;
  // line() written over `chunk` in place: the model name only when it changed, the reply's
  // length, the finish reason. This is the stream's path for every record.
  bool update(std::string_view line, StreamChunk& chunk, size_t maxReply) override;

 private:
  // The record of one line, its text appended to the reply; nullptr for a line that yields
  // nothing. Throws as line() does.
  const ChatDelta* take(std::string_view line);
  // Makes `chunk` the chunk of `record`, the record take() returned last.
  void write(const ChatDelta& record, StreamChunk& chunk) const;

  LineRule rule_;
  WireDecoder decoder_;
  std::shared_ptr<ReplyBuffer> text_;
};

// Throws OpenAIError::apiError when `body` is an error body; returns when it is not one and
// the status is 200; throws OpenAIError::httpError(status) otherwise (0 for a response that
// is not HTTP).
void checkErrorBody(std::string_view body, int status);

// A double as the companion application prints it: shortest form, always with a fraction
// ("1.0", "0.7").
std::string formatDouble(double value);

}  // namespace lumora
