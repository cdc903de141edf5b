#include "lumora/platform/Text.h"

#include <cstdint>

namespace lumora::text {
namespace {

// Decodes one code point at `s[i]`; returns its length, or 0 if ill-formed there.
size_t decode(std::string_view s, size_t i, char32_t& cp) {
  const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const size_t n = s.size() - i;
  const unsigned char c = b(i);
  if (c < 0x80) {
    cp = c;
    return 1;
  }
  auto cont = [&](size_t k) { return k < s.size() && (b(k) & 0xC0) == 0x80; };
  if (c >= 0xC2 && c <= 0xDF) {
    if (n < 2 || !cont(i + 1)) return 0;
    cp = ((c & 0x1F) << 6) | (b(i + 1) & 0x3F);
    return 2;
  }
  if (c >= 0xE0 && c <= 0xEF) {
    if (n < 3 || !cont(i + 1) || !cont(i + 2)) return 0;
    cp = ((c & 0x0F) << 12) | ((b(i + 1) & 0x3F) << 6) | (b(i + 2) & 0x3F);
    if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (n < 4 || !cont(i + 1) || !cont(i + 2) || !cont(i + 3)) return 0;
    cp = ((c & 0x07) << 18) | ((b(i + 1) & 0x3F) << 12) | ((b(i + 2) & 0x3F) << 6) |
         (b(i + 3) & 0x3F);
    if (cp < 0x10000 || cp > 0x10FFFF) return 0;
    return 4;
  }
  return 0;
}

bool isWhiteSpace(char32_t c) {
  switch (c) {
    case 0x09:
    case 0x0A:
    case 0x0B:
    case 0x0C:
    case 0x0D:
    case 0x20:
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return c >= 0x2000 && c <= 0x200A;
  }
}

}  // namespace

bool isValidUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    // Runs of ASCII are the common case: skip them eight bytes at a time.
    while (i + 8 <= s.size()) {
      uint64_t word;
      __builtin_memcpy(&word, s.data() + i, 8);
      if (word & 0x8080808080808080ULL) break;
      i += 8;
    }
    if (i >= s.size()) break;
    char32_t cp;
    const size_t len = decode(s, i, cp);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

std::string repairedUtf8(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 8);
  size_t i = 0;
  while (i < s.size()) {
    char32_t cp;
    const size_t len = decode(s, i, cp);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(s.substr(i, len));
      i += len;
    }
  }
  return out;
}

std::string_view trimmed(std::string_view s) {
  // Most texts begin and end with a visible ASCII character: nothing to decode then.
  const auto visibleAscii = [](char c) { return c > ' ' && c < 0x7F; };
  if (s.empty() || (visibleAscii(s.front()) && visibleAscii(s.back()))) return s;
  size_t begin = 0;
  while (begin < s.size()) {
    char32_t cp;
    const size_t len = decode(s, begin, cp);
    if (len == 0 || !isWhiteSpace(cp)) break;
    begin += len;
  }
  size_t end = s.size();
  while (end > begin) {
    // Step back to the start of the last code point.
    size_t start = end - 1;
    while (start > begin && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80 &&
           end - start < 4)
      --start;
    char32_t cp;
    const size_t len = decode(s, start, cp);
    if (len != end - start || !isWhiteSpace(cp)) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

size_t codePointAt(std::string_view s, size_t i, char32_t& cp) {
  const size_t len = decode(s, i, cp);
  if (len == 0) {
    cp = 0xFFFD;
    return 1;
  }
  return len;
}

namespace {

bool extendsCharacter(char32_t c) {
  return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
         (c >= 0x1DC0 && c <= 0x1DFF) || (c >= 0x20D0 && c <= 0x20FF) ||
         (c >= 0xFE20 && c <= 0xFE2F) || (c >= 0xFE00 && c <= 0xFE0F) ||
         (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0100 && c <= 0xE01EF) || c == 0x200D;
}

}  // namespace

size_t characterLengthAt(std::string_view s, size_t i) {
  // Two ASCII characters in a row are always two characters, except CR LF.
  const auto c = static_cast<unsigned char>(s[i]);
  if (c < 0x80 && c != '\r' && (i + 1 >= s.size() || static_cast<unsigned char>(s[i + 1]) < 0x80))
    return 1;
  char32_t cp;
  size_t end = i + codePointAt(s, i, cp);
  if (cp == '\r' && end < s.size() && s[end] == '\n') return end + 1 - i;
  bool joined = false;
  while (end < s.size()) {
    char32_t next;
    const size_t len = codePointAt(s, end, next);
    if (extendsCharacter(next) || joined) {
      joined = next == 0x200D;
      end += len;
      continue;
    }
    break;
  }
  return end - i;
}

bool startsWithIgnoringCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && equalsIgnoringCase(s.substr(0, prefix.size()), prefix);
}

std::string asciiLowercased(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x += 32;
    if (y >= 'A' && y <= 'Z') y += 32;
    if (x != y) return false;
  }
  return true;
}

std::string sizeText(size_t bytes) {
  constexpr size_t kMiB = size_t{1} << 20;
  if (bytes != 0 && bytes % kMiB == 0) return std::to_string(bytes / kMiB) + " MiB";
  return std::to_string(bytes) + " bytes";
}

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

size_t codePointCount(std::string_view s) {
  size_t n = 0;
  for (const char c : s) n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return n;
}

std::string groupedCount(size_t n) {
  const std::string digits = std::to_string(n);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

}  // namespace lumora::text
