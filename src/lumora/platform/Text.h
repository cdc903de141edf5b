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

// ASCII-only case-insensitive comparison.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace lumora::text
