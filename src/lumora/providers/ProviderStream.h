// What the provider clients with wire formats of their own share in reading stream lines: the
// line as text, and the error record among their own records.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lumora/chat/Errors.h"

namespace lumora::json {
class Parser;
}

namespace lumora::providers {

// `line` as the server meant it as text: bytes that are not UTF-8 become U+FFFD, the way a
// line reader that decodes text hands them over. Returns `line` itself when it is well-formed,
// else a view of `storage`.
std::string_view asText(std::string_view line, std::string& storage);

// After `parser` has read `text`: the error body it holds, if it is one (a top-level "error"
// object with a string "message", read without key conversion).
std::optional<OpenAIErrorResponse> errorRecord(const json::Parser& parser, std::string_view text);

}  // namespace lumora::providers
