#include "lumora/chat/RepeatedRecord.h"

#include <cstdint>
#include <cstring>
#include <optional>

#include "lumora/platform/Text.h"

namespace lumora::wire::repeat {

// The records of one stream are the same bytes from record to record but for a few string
// values: the text, and values the record does not keep, such as a server's random padding;
// the id, the model, the keys and all the rest stay. Once a line has been read whole, found of
// the plain shape, with one choice whose delta has one "content" string, a next line that has
// the same bytes around those string values is the same record with other values, provided each
// of them is the well-formed body of a JSON string: each string then ends at its first quote not
// escaped, every other token is one already read, and the line is well-formed JSON that reads to
// the record before with the new text. So only those values are read, by the rules simdjson
// reads a string with; a line that differs anywhere else, or whose values are not well-formed
// string bodies, is read whole as before.

namespace {

// The value of four hex digits at `p`, or false when one is not a hex digit.
bool hex4(const unsigned char* p, uint32_t& value) {
  value = 0;
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = p[i];
    uint32_t digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
      digit = (c | 0x20) - 'a' + 10;
    } else {
      return false;
    }
    value = value << 4 | digit;
  }
  return true;
}

// Writes `cp` (at most U+10FFFF, not a surrogate) as UTF-8 at `out`; returns the byte after.
char* utf8(uint32_t cp, char* out) {
  if (cp < 0x80) {
    *out++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out++ = static_cast<char>(0xC0 | cp >> 6);
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out++ = static_cast<char>(0xE0 | cp >> 12);
    *out++ = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out++ = static_cast<char>(0xF0 | cp >> 18);
    *out++ = static_cast<char>(0x80 | (cp >> 12 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
    *out++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
  return out;
}

// The JSON string whose body begins at line[from] (just after its opening quote), unescaped
// into `out` (resized as it needs), its length into `length`: returns the index of its closing
// quote, or nullopt where simdjson refuses the string: no closing quote, a control character
// unescaped, an escape it does not know, a \u escape without four hex digits, a surrogate that
// is not half of a pair, or bytes that are not UTF-8. One pass, no recursion.
std::optional<size_t> stringBody(std::string_view line, size_t from, std::string& out,
                                 size_t& length) {
  if (out.size() < line.size() - from) out.resize(line.size() - from);  // escapes only shorten
  const auto* const begin = reinterpret_cast<const unsigned char*>(line.data()) + from;
  const auto* const end = reinterpret_cast<const unsigned char*>(line.data()) + line.size();
  const auto* p = begin;
  char* const start = out.data();
  char* w = start;
  bool ascii = true;
  while (true) {
    if (p == end) return std::nullopt;
    const unsigned char c = *p;
    if (c == '"') break;
    if (c != '\\') {
      if (c < 0x20) return std::nullopt;
      ascii &= c < 0x80;
      *w++ = static_cast<char>(c);
      ++p;
      continue;
    }
    if (end - p < 2) return std::nullopt;
    switch (p[1]) {
      case '"':
      case '\\':
      case '/':
        *w++ = static_cast<char>(p[1]);
        break;
      case 'b':
        *w++ = '\b';
        break;
      case 'f':
        *w++ = '\f';
        break;
      case 'n':
        *w++ = '\n';
        break;
      case 'r':
        *w++ = '\r';
        break;
      case 't':
        *w++ = '\t';
        break;
      case 'u': {
        uint32_t cp;
        if (end - p < 6 || !hex4(p + 2, cp)) return std::nullopt;
        if (cp >= 0xD800 && cp < 0xDC00) {
          // A high surrogate is read only with the low one escaped right after it.
          uint32_t low;
          if (end - p < 12 || p[6] != '\\' || p[7] != 'u' || !hex4(p + 8, low) || low < 0xDC00 ||
              low > 0xDFFF)
            return std::nullopt;
          cp = ((cp - 0xD800) << 10 | (low - 0xDC00)) + 0x10000;
          p += 6;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
          return std::nullopt;
        }
        w = utf8(cp, w);
        p += 6;
        continue;
      }
      default:
        return std::nullopt;
    }
    p += 2;
  }
  // simdjson checks the UTF-8 of the line as written, before any escape is read.
  const auto* const chars = reinterpret_cast<const char*>(begin);
  if (!ascii && !text::isValidUtf8(std::string_view(chars, static_cast<size_t>(p - begin))))
    return std::nullopt;
  length = static_cast<size_t>(w - start);
  return from + static_cast<size_t>(p - begin);
}

}  // namespace

// After `json` (copied at `padded`) was read into `record` without a tree, with `strings` the
// values it may change: keeps the line for reading the next as its repeat when the record has
// one choice whose delta has one "content" field, a string. Anything else (no text, several,
// one in a choice that a later one replaced) is not kept.
void remember(RepeatedRecord& repeat, std::string_view json, const char* padded,
              const ChatDelta& record, const ChangingStrings& strings) {
  if (strings.texts != 1 || record.choices.size() != 1 || !record.choices.front().delta ||
      !record.choices.front().delta->content)
    return;
  repeat.spans.clear();
  for (const ChangingStrings::Token& t : strings.tokens) {
    // A token runs from the opening quote to the next structural character: the closing quote
    // is its last byte but for white space.
    std::string_view token = t.raw;
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t' ||
                              token.back() == '\n' || token.back() == '\r'))
      token.remove_suffix(1);
    if (token.size() < 2 || token.front() != '"' || token.back() != '"') return;
    const size_t start = static_cast<size_t>(token.data() - padded) + 1;
    repeat.spans.push_back({start, start + token.size() - 2, t.text});
  }
  repeat.line.assign(json);
  repeat.usable = true;
}

// `json` read as a repeat of the kept line into `record`, the record of that line: false,
// leaving `record` as it was, when it is none.
bool read(RepeatedRecord& repeat, std::string_view json, ChatDelta& record) {
  const std::string_view kept = repeat.line;
  size_t i = 0;  // in the kept line
  size_t j = 0;  // in `json`
  std::optional<std::string_view> text;
  for (const RepeatedRecord::Span& span : repeat.spans) {
    const size_t same = span.start - i;
    if (json.size() - j < same || std::memcmp(json.data() + j, kept.data() + i, same) != 0)
      return false;
    j += same;
    std::string& out = span.text ? repeat.text : repeat.scratch;
    size_t length = 0;
    const auto quote = stringBody(json, j, out, length);
    if (!quote) return false;
    if (span.text) text = std::string_view(out.data(), length);
    i = span.end;
    j = *quote;
  }
  const size_t rest = kept.size() - i;
  if (json.size() - j != rest || std::memcmp(json.data() + j, kept.data() + i, rest) != 0)
    return false;
  record.choices.front().delta->content = text;
  return true;
}

}  // namespace lumora::wire::repeat
