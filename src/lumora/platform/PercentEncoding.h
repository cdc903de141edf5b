// Percent-encoding, as URLs write the bytes that may not stand in them as they are.
#pragma once

#include <string>
#include <string_view>

namespace lumora::text {

inline constexpr std::string_view kUpperHexDigits = "0123456789ABCDEF";
inline constexpr std::string_view kLowerHexDigits = "0123456789abcdef";

// `s` with every byte that `keep` refuses written as "%" and two digits of `digits`. Servers
// and people write either case, so the digits are the caller's choice.
template <typename Keep>
std::string percentEncoded(std::string_view s, Keep keep,
                           std::string_view digits = kUpperHexDigits) {
  std::string out;
  out.reserve(s.size());
  for (unsigned char c : s) {
    if (keep(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += digits[c >> 4];
      out += digits[c & 15];
    }
  }
  return out;
}

}  // namespace lumora::text
