// Key-case conversion between the camel-case names of our records and the snake-case keys of
// OpenAI-style wire formats, with the exact rules the companion application's JSON coders use.
#pragma once

#include <string>
#include <string_view>

namespace lumora::keycase {

// "maxTokens" -> "max_tokens", "imageUrl" -> "image_url". A run of capitals counts as one word
// whose last capital starts the next word ("URLValue" -> "url_value").
std::string toSnakeCase(std::string_view camel);

// "finish_reason" -> "finishReason". Leading and trailing underscores stay; a key without an
// inner underscore stays as it is; otherwise the first word is lower-cased and each later one
// capitalised ("FINISH_REASON" -> "finishReason").
std::string fromSnakeCase(std::string_view snake);
// The same, into `out` (replacing its contents; its capacity is reused).
void fromSnakeCase(std::string_view snake, std::string& out);

// True when the wire key `snake` converts to `camel`. Allocation-free for the common case of a
// key without underscores.
bool snakeKeyMatches(std::string_view snake, std::string_view camel);

}  // namespace lumora::keycase
