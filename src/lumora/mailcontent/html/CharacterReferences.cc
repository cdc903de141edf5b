// The tokenizer's character references: "&amp;", "&#38;" and "&#x26;", named ones matched
// against the table of names, numeric ones mapped as browsers map them.
#include <algorithm>
#include <cstdint>
#include <iterator>

#include "lumora/mailcontent/html/TokenizerImpl.h"

namespace lumora::html {
namespace {

using namespace tokenizing;

struct NamedCharacterReference {
  std::string_view name;   // as written after '&', with its ';' if it has one
  std::string_view value;  // UTF-8
};

#include "lumora/mailcontent/html/CharacterReferences.inc"

template <typename Out>
void appendUtf8(Out& out, uint32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// What a numeric character reference stands for. Zero, surrogates and numbers beyond Unicode
// become U+FFFD; 0x80 to 0x9F are read as the windows-1252 characters that pages mean by
// them (the five bytes windows-1252 leaves undefined stay C1 controls). Noncharacters and
// other controls are kept.
uint32_t numericReferenceValue(uint32_t code) {
  static constexpr uint16_t kWindows1252[32] = {
      0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
      0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
      0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
  };
  if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0xFFFD;
  if (code >= 0x80 && code <= 0x9F) return kWindows1252[code - 0x80];
  return code;
}

struct NamedMatch {
  size_t length = 0;  // 0: no name matches
  std::string_view value;
};

// The longest name in the table that is a prefix of `rest`. The range of names sharing the
// first k characters of `rest` narrows by two binary searches per character, so the cost is
// bounded by the longest name whatever follows.
NamedMatch longestNamedReference(std::string_view rest) {
  const NamedCharacterReference* first = std::begin(kNamedCharacterReferences);
  const NamedCharacterReference* last = std::end(kNamedCharacterReferences);
  NamedMatch best;
  const size_t limit = std::min(rest.size(), kLongestCharacterReferenceName);
  for (size_t k = 0; k < limit; ++k) {
    const auto c = static_cast<unsigned char>(rest[k]);
    // Within the range every name shares the first k characters; a name of exactly k
    // characters sorts first and counts as below any character.
    first = std::lower_bound(
        first, last, c, [k](const NamedCharacterReference& entry, unsigned char ch) {
          return entry.name.size() <= k || static_cast<unsigned char>(entry.name[k]) < ch;
        });
    last = std::upper_bound(first, last, c,
                            [k](unsigned char ch, const NamedCharacterReference& entry) {
                              return ch < static_cast<unsigned char>(entry.name[k]);
                            });
    if (first == last) break;
    if (first->name.size() == k + 1) best = {k + 1, first->value};
  }
  return best;
}

}  // namespace

using namespace tokenizing;

template <typename Out>
void Tokenizer::Impl::characterReference(Out& out, bool inAttribute) {
  const int c = peek();
  if (isAlphanumeric(c)) {
    const NamedMatch match = longestNamedReference(in.substr(pos));
    if (match.length == 0) {
      // Not a name: the ampersand and what follows are text.
      out += '&';
      return;
    }
    const size_t end = pos + match.length;
    const bool terminated = in[end - 1] == ';';
    const int after = end < in.size() ? static_cast<unsigned char>(in[end]) : kEndOfInput;
    if (!terminated && inAttribute && (after == '=' || isAlphanumeric(after))) {
      // "?a=1&copy=2" in a link is a query string, not a copyright sign.
      out += '&';
      out.append(in.data() + pos, match.length);
    } else {
      out += match.value;
    }
    pos = end;
    return;
  }
  if (c != '#') {
    out += '&';
    return;
  }
  size_t p = pos + 1;
  const bool hex = p < in.size() && (in[p] == 'x' || in[p] == 'X');
  if (hex) ++p;
  const size_t digitsStart = p;
  uint32_t code = 0;
  for (; p < in.size(); ++p) {
    const auto d = static_cast<unsigned char>(in[p]);
    uint32_t digit;
    if (isDigit(d)) {
      digit = d - '0';
    } else if (hex && (d | 0x20) >= 'a' && (d | 0x20) <= 'f') {
      digit = (d | 0x20) - 'a' + 10;
    } else {
      break;
    }
    // Saturate: anything past U+10FFFF is out of range however long it goes on.
    code = std::min<uint32_t>(code * (hex ? 16 : 10) + digit, 0x110000);
  }
  if (p == digitsStart) {
    // "&#" or "&#x" without digits is text.
    out += '&';
    out.append(in.data() + pos, p - pos);
    pos = p;
    return;
  }
  if (p < in.size() && in[p] == ';') ++p;
  pos = p;
  appendUtf8(out, numericReferenceValue(code));
}

template void Tokenizer::Impl::characterReference(TextRun& out, bool inAttribute);
template void Tokenizer::Impl::characterReference(std::string& out, bool inAttribute);

}  // namespace lumora::html
