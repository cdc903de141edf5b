// What the provider clients with wire formats of their own share once their request is built:
// sending it and judging the response head, and reading each stream line as text.
#pragma once

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/ChunkStream.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Http.h"

namespace lumora::json {
class Parser;
}

namespace lumora::providers {

// Prints "[debug] request model:" with `model`, "temperature", `temperature` limited to 0...2
// and the URL; sends `request` and waits for the head. Status 200 gives the stream of the body's
// lines through `reader`. Any other status reads the whole body, joins its lines with nothing
// between them, prints `errorTag` with that text and throws what checkErrorBody makes of it.
// Network failures throw TransportError; a stop before the head throws CancellationError.
ChunkStream streamResponse(const ChatEnvironment& environment, const HttpRequest& request,
                           std::string_view model, double temperature, std::string_view errorTag,
                           std::unique_ptr<LineReader> reader, std::stop_token stop);

// `line` as the server meant it as text: bytes that are not UTF-8 become U+FFFD, the way a
// line reader that decodes text hands them over. Returns `line` itself when it is well-formed,
// else a view of `storage`.
std::string_view asText(std::string_view line, std::string& storage);

// After `parser` has read `text`: the error body it holds, if it is one (a top-level "error"
// object with a string "message", read without key conversion).
std::optional<OpenAIErrorResponse> errorRecord(const json::Parser& parser, std::string_view text);

// Throws DecodingError quoting the start of `line`, which is no JSON: the line says more to
// the user than the parser's diagnosis.
[[noreturn]] void failNotJSON(std::string_view line);

}  // namespace lumora::providers
