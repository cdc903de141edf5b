// A second MIME parse, written as literally as possible and with none of the parser's
// machinery: each multipart is searched for its delimiters in its whole text and each part is
// parsed again by recursion. Quadratic and recursive, so for small messages only; the tests
// and the fuzzer compare the parser with it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/mime/Mime.h"

namespace lumora::testing {

struct MimePicture {
  std::string shape;                // as shapeOf draws it
  std::vector<std::string> bodies;  // every leaf's raw body, in order
  bool operator==(const MimePicture&) const = default;
};

MimePicture pictureOf(const Mime& mime);

// The picture of `message` by the literal parse; throws what the parser would throw.
MimePicture referencePicture(std::string_view message);

}  // namespace lumora::testing
