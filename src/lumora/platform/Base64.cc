#include "lumora/platform/Base64.h"

#include <array>
#include <cstdint>

namespace lumora::base64 {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of each alphabet character; 64 for every other byte.
constexpr std::array<uint8_t, 256> kValues = [] {
  std::array<uint8_t, 256> values{};
  values.fill(64);
  for (uint8_t i = 0; i < 64; ++i) values[static_cast<uint8_t>(kAlphabet[i])] = i;
  return values;
}();

}  // namespace

std::string encode(std::string_view bytes) {
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

std::optional<std::string> decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  const size_t full = text.size() - (padding ? 4 : 0);  // quads without padding
  for (size_t i = 0; i < full; i += 4) {
    const uint8_t a = kValues[uint8_t(text[i])], b = kValues[uint8_t(text[i + 1])],
                  c = kValues[uint8_t(text[i + 2])], d = kValues[uint8_t(text[i + 3])];
    if ((a | b | c | d) & 64) return std::nullopt;
    const uint32_t n = (a << 18) | (b << 12) | (c << 6) | d;
    out += char(n >> 16);
    out += char((n >> 8) & 0xFF);
    out += char(n & 0xFF);
  }
  if (padding) {
    const size_t i = full;
    const uint8_t a = kValues[uint8_t(text[i])], b = kValues[uint8_t(text[i + 1])];
    const uint8_t c = padding == 1 ? kValues[uint8_t(text[i + 2])] : 0;
    if ((a | b | c) & 64) return std::nullopt;
    const uint32_t n = (a << 18) | (b << 12) | (c << 6);
    out += char(n >> 16);
    if (padding == 1) out += char((n >> 8) & 0xFF);
  }
  return out;
}

}  // namespace lumora::base64
