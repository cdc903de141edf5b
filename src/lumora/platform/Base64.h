// Standard Base64 (RFC 4648, with padding, no line breaks).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora::base64 {

std::string encode(std::string_view bytes);

// Decodes padded Base64 strictly: every character counts, so a blank, a line break or a
// missing "=" makes the whole text invalid (nullopt). Bits left over in the last character are
// not checked.
std::optional<std::string> decode(std::string_view text);

}  // namespace lumora::base64
