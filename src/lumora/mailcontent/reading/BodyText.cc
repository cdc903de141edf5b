#include "lumora/mailcontent/reading/BodyText.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>

#include "lumora/platform/Charset.h"
#include "lumora/platform/Text.h"

namespace lumora::reading {
namespace {


std::string quotedPrintableDecoded(std::string_view body) {
  std::string out;
  out.reserve(body.size());
  const size_t n = body.size();
  size_t i = 0;
  while (i < n) {
    // Everything up to the next "=" is itself.
    const void* hit = std::memchr(body.data() + i, '=', n - i);
    const size_t eq = hit ? static_cast<size_t>(static_cast<const char*>(hit) - body.data()) : n;
    out.append(body.substr(i, eq - i));
    if (eq == n) break;
    i = eq;
    const int high = i + 1 < n ? text::hexDigitValue(body[i + 1]) : -1;
    const int low = i + 2 < n ? text::hexDigitValue(body[i + 2]) : -1;
    if (high >= 0 && low >= 0) {
      out.push_back(static_cast<char>(high * 16 + low));
      i += 3;
      continue;
    }
    // A soft line break: "=", perhaps blanks a sender left behind it, then the line end.
    size_t j = i + 1;
    while (j < n && (body[j] == ' ' || body[j] == '\t')) ++j;
    if (j == n) break;
    if (body[j] == '\n') {
      i = j + 1;
    } else if (body[j] == '\r' && j + 1 < n && body[j + 1] == '\n') {
      i = j + 2;
    } else {
      out.push_back('=');  // no escape: the character stands for itself
      ++i;
    }
  }
  return out;
}

constexpr std::array<int8_t, 256> kBase64Values = [] {
  std::array<int8_t, 256> values{};
  values.fill(-1);
  const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) values[static_cast<uint8_t>(alphabet[i])] = static_cast<int8_t>(i);
  return values;
}();

std::string base64Decoded(std::string_view body) {
  std::string out;
  out.reserve(body.size() / 4 * 3 + 3);
  uint32_t bits = 0;
  int count = 0;
  for (const char c : body) {
    const int8_t value = kBase64Values[static_cast<uint8_t>(c)];
    if (value < 0) continue;  // line ends, blanks, padding and stray characters
    bits = (bits << 6) | static_cast<uint32_t>(value);
    if (++count == 4) {
      out.push_back(static_cast<char>(bits >> 16));
      out.push_back(static_cast<char>((bits >> 8) & 0xFF));
      out.push_back(static_cast<char>(bits & 0xFF));
      bits = 0;
      count = 0;
    }
  }
  // A last group cut short still holds whole bytes: two characters one, three two.
  if (count == 2) {
    out.push_back(static_cast<char>(bits >> 4));
  } else if (count == 3) {
    out.push_back(static_cast<char>(bits >> 10));
    out.push_back(static_cast<char>((bits >> 2) & 0xFF));
  }
  return out;
}

bool isAscii(std::string_view bytes) {
  size_t i = 0;
  for (; i + 8 <= bytes.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, bytes.data() + i, 8);
    if (word & 0x8080808080808080ull) return false;
  }
  for (; i < bytes.size(); ++i)
    if (static_cast<unsigned char>(bytes[i]) >= 0x80) return false;
  return true;
}

// Character sets whose text in ASCII bytes is not that ASCII text: escape sequences switch
// them, or their units are wider than a byte.
bool asciiMayDiffer(std::string_view lower) {
  return lower.starts_with("iso-2022") || lower.starts_with("utf-7") ||
         lower.starts_with("utf-16") || lower.starts_with("utf-32") || lower.starts_with("ucs") ||
         lower.starts_with("hz") || lower.starts_with("csiso2022") || lower == "unicode";
}

// Text with no character set that can be trusted, and not UTF-8: windows-1252.
std::string latinText(std::string_view bytes) {
  if (auto text = charset::toUtf8Replacing(bytes, "WINDOWS-1252")) return std::move(*text);
  return text::repairedUtf8(bytes);
}

bool namesNoCharset(std::string_view lower) {
  return lower.empty() || lower == "us-ascii" || lower == "ascii" || lower == "unknown-8bit" ||
         lower == "x-unknown" || lower == "default";
}

bool namesLatin1(std::string_view lower) {
  return lower == "iso-8859-1" || lower == "iso8859-1" || lower == "latin1" || lower == "l1" ||
         lower == "iso_8859-1" || lower == "cp819" || lower == "ibm819";
}

}  // namespace

TransferEncoding transferEncodingOf(std::string_view value) {
  const std::string_view word = text::trimmed(value);
  if (text::equalsIgnoringCase(word, "quoted-printable")) return TransferEncoding::quotedPrintable;
  if (text::equalsIgnoringCase(word, "base64")) return TransferEncoding::base64;
  return TransferEncoding::identity;
}

std::string transferDecoded(std::string_view body, TransferEncoding encoding) {
  switch (encoding) {
    case TransferEncoding::identity:
      return std::string(body);
    case TransferEncoding::quotedPrintable:
      return quotedPrintableDecoded(body);
    case TransferEncoding::base64:
      return base64Decoded(body);
  }
  return std::string(body);
}

std::optional<std::string> convertedText(std::string_view bytes, std::string_view charset) {
  const std::string lower = text::asciiLowercased(text::trimmed(charset));
  if (!asciiMayDiffer(lower) && isAscii(bytes)) return std::nullopt;
  if (namesNoCharset(lower)) {
    if (text::isValidUtf8(bytes)) return std::nullopt;
    return latinText(bytes);
  }
  // The labels of Latin-1 name windows-1252 in practice: its characters 0x80 to 0x9F (curly
  // quotes, the euro sign) are what such mail holds there, never control characters.
  if (namesLatin1(lower)) return latinText(bytes);
  if (lower == "utf-8" || lower == "utf8") {
    if (text::isValidUtf8(bytes)) return std::nullopt;
    return text::repairedUtf8(bytes);
  }
  if (auto text = charset::toUtf8Replacing(bytes, lower)) return text;
  // A name no converter here goes by.
  if (text::isValidUtf8(bytes)) return std::nullopt;
  return latinText(bytes);
}

std::string decodedText(std::string_view bytes, std::string_view charset) {
  std::optional<std::string> converted = convertedText(bytes, charset);
  return converted ? std::move(*converted) : std::string(bytes);
}

namespace {

// The quotation depth of a line and where its text begins: each ">" counts, a blank between
// two of them is passed over, and one blank behind the last is taken off.
size_t quotePrefix(std::string_view line, uint32_t& depth) {
  depth = 0;
  size_t i = 0;
  while (i < line.size() && line[i] == '>') {
    ++depth;
    ++i;
    if (i + 1 < line.size() && line[i] == ' ' && line[i + 1] == '>') ++i;
  }
  if (depth > 0 && i < line.size() && line[i] == ' ') ++i;
  return i;
}

}  // namespace

void addPlainLines(std::string_view text, bool flowed, bool delSp, TextLines& out) {
  // A flowed paragraph being joined: its depth, while one is open.
  bool open = false;
  uint32_t openDepth = 0;
  size_t start = 0;
  while (start <= text.size()) {
    const void* hit = std::memchr(text.data() + start, '\n', text.size() - start);
    const size_t lf = hit ? static_cast<size_t>(static_cast<const char*>(hit) - text.data())
                          : text.size();
    std::string_view line = text.substr(start, lf - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const bool last = lf == text.size();
    start = lf + 1;
    if (last && line.empty()) break;  // the text's final line end opens no line

    uint32_t depth = 0;
    std::string_view body = line.substr(quotePrefix(line, depth));
    if (!flowed) {
      out.add(body, depth);
      continue;
    }
    // The line is stuffed when it began with a blank (the quotation marks' own blank, if
    // any, is taken off above).
    if (depth == 0 && !body.empty() && body.front() == ' ') body.remove_prefix(1);
    const bool signatureMark = body == "-- ";
    const bool soft = !signatureMark && !body.empty() && body.back() == ' ';
    // A paragraph ends where the depth changes, and before a signature's mark, which a
    // sender's program may have left a soft break in front of.
    if (open && (openDepth != depth || signatureMark)) {
      out.endLine(openDepth);
      open = false;
    }
    if (soft && delSp) body.remove_suffix(1);
    out.append(body);
    open = true;
    openDepth = depth;
    if (!soft) {
      out.endLine(depth);
      open = false;
    }
  }
  if (open) out.endLine(openDepth);
}

}  // namespace lumora::reading
