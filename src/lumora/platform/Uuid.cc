#include "lumora/platform/Uuid.h"

#include <cstdint>
#include <random>

namespace lumora::uuid {

std::optional<std::string> canonical(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    char& c = out[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return std::nullopt;
      continue;
    }
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 32);
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return std::nullopt;
  }
  return out;
}

std::string random() {
  static thread_local std::random_device device;
  unsigned char bytes[16];
  for (size_t i = 0; i < 16; i += 4) {
    const uint32_t r = device();
    for (size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<unsigned char>(r >> (8 * j));
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 15];
  }
  return out;
}

}  // namespace lumora::uuid
