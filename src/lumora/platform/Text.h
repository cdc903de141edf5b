// Small text helpers over UTF-8 held in std::string.
#pragma once

#include <string>
#include <string_view>

namespace lumora::text {

// True when `s` is well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
bool isValidUtf8(std::string_view s);

// `s` with every ill-formed sequence replaced by U+FFFD, as decoders that repair do: a byte
// that cannot start or continue a sequence becomes one replacement character.
std::string repairedUtf8(std::string_view s);

// `s` without white space and line ends at either end. White space is Unicode's White_Space
// property (ASCII blanks, NEL, NBSP, the space separators, LS, PS, ...).
std::string_view trimmed(std::string_view s);

// The code point at byte `i` of `s` (i < s.size()) and its length in bytes. A byte that does
// not start a well-formed sequence counts as one code point of its own, U+FFFD.
size_t codePointAt(std::string_view s, size_t i, char32_t& cp);

// The length in bytes of the user-perceived character at byte `i`: a code point with the
// combining marks, variation selectors, emoji modifiers and joined code points that belong to
// it, and CR LF as one. An approximation of extended grapheme clusters that needs no tables.
size_t characterLengthAt(std::string_view s, size_t i);

// The value of a hexadecimal digit (either case), or -1 for any other character.
int hexDigitValue(char c);

// The number of code points in `s`, well-formed UTF-8.
size_t codePointCount(std::string_view s);

// "1,240": a count for the user, its thousands grouped with commas.
std::string groupedCount(size_t n);

// ASCII-only case-insensitive comparison.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
bool startsWithIgnoringCase(std::string_view s, std::string_view prefix);

// `s` with the ASCII letters in lower case; every other byte as it is.
std::string asciiLowercased(std::string_view s);

// A size for the user: "16 MiB" when it is a whole number of MiB, else "1000 bytes".
std::string sizeText(size_t bytes);

}  // namespace lumora::text
