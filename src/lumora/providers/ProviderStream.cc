#include "lumora/providers/ProviderStream.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/Payloads.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Text.h"

namespace lumora::providers {

ChunkStream streamResponse(const ChatEnvironment& environment, const HttpRequest& request,
                           std::string_view model, double temperature, std::string_view errorTag,
                           std::unique_ptr<LineReader> reader, std::stop_token stop) {
  debug::line({"[debug] request model:", model, "temperature",
               formatDouble(clampTemperature(temperature)), request.url});
  std::unique_ptr<HttpResponse> response = sendRequest(environment, request, stop);
  const int status = response->status();
  if (status != 200) {
    const std::string joined = readJoinedLines(*response, stop);
    debug::line({errorTag, joined});
    checkErrorBody(joined, status);
  }
  return readChunks(std::move(response), std::move(reader));
}

std::string_view asText(std::string_view line, std::string& storage) {
  if (text::isValidUtf8(line)) return line;
  storage = text::repairedUtf8(line);
  return storage;
}

std::optional<OpenAIErrorResponse> errorRecord(const json::Parser& parser, std::string_view text) {
  // Most records have no "error" key; only those that do are read again as an error body.
  simdjson::dom::object top;
  if (parser.root().get_object().get(top) || top.at_key("error").error()) return std::nullopt;
  return decodeOpenAIErrorResponse(text);
}

void failNotJSON(std::string_view line) {
  constexpr size_t kShown = 80;
  size_t shown = 0;
  char32_t ignored;
  while (shown < line.size() && shown < kShown) shown += text::codePointAt(line, shown, ignored);
  throw DecodingError("The server's reply could not be read: a line is not JSON: \"" +
                      std::string(line.substr(0, shown)) + (shown < line.size() ? "…" : "") +
                      "\".");
}

}  // namespace lumora::providers
