// Standard Base64 (RFC 4648, with padding, no line breaks).
#pragma once

#include <string>
#include <string_view>

namespace lumora::base64 {

std::string encode(std::string_view bytes);

}  // namespace lumora::base64
