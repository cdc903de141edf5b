// Text in a named character set to UTF-8, through the C library's iconv. The one place that
// knows iconv.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora::charset {

enum class Outcome {
  converted,
  unknownCharset,  // no character set goes by that name here
  invalidBytes,    // the bytes are not text in that character set
};

struct Conversion {
  Outcome outcome = Outcome::unknownCharset;
  std::string text;  // UTF-8, when converted
};

// Converts `bytes`, text in the character set with the IANA name `name` (any letter case), to
// UTF-8. Strict: a byte sequence that is not valid in the character set fails the whole
// conversion, nothing is replaced or skipped.
Conversion toUtf8(std::string_view bytes, std::string_view name);

// The same conversion for a reader that takes what it can: a byte sequence that is not valid
// in the character set becomes U+FFFD, and the conversion goes on behind it. nullopt only when
// no character set goes by that name here.
std::optional<std::string> toUtf8Replacing(std::string_view bytes, std::string_view name);

}  // namespace lumora::charset
