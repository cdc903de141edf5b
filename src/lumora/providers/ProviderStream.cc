#include "lumora/providers/ProviderStream.h"

#include "lumora/chat/JsonRecord.h"
#include "lumora/chat/Payloads.h"
#include "lumora/platform/Text.h"

namespace lumora::providers {

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

}  // namespace lumora::providers
