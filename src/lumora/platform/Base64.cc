#include "lumora/platform/Base64.h"

#include <cstdint>

namespace lumora::base64 {

std::string encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n =
        (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (const size_t rest = bytes.size() - i; rest > 0) {
    uint32_t n = uint8_t(bytes[i]) << 16;
    if (rest == 2) n |= uint8_t(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

}  // namespace lumora::base64
