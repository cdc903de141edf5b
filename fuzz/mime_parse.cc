// Fuzzes the whole parse of a message, and every leaf's decoding. Small inputs are also parsed
// by the literal, recursive parse, and the two must agree: same tree, same bodies, same
// failure.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/mime/Mime.h"
#include "support/MimeReference.h"

namespace {

enum class Outcome { parsed, structure, header };

void decodeLeaves(const lumora::Mime& mime) {
  std::vector<const lumora::Mime*> stack{&mime};
  while (!stack.empty()) {
    const lumora::Mime* node = stack.back();
    stack.pop_back();
    if (const lumora::MimeBody* body = node->content().body()) {
      try {
        std::optional<std::string_view> charset;
        if (node->header().contentType) {
          const auto& parameters = node->header().contentType->parameters;
          if (auto it = parameters.find("charset"); it != parameters.end()) charset = it->second;
        }
        (void)body->decodedContentString(charset);
      } catch (const lumora::Error&) {
      }
    }
    for (const lumora::Mime& part : node->content().parts()) stack.push_back(&part);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Outcome outcome = Outcome::parsed;
  lumora::testing::MimePicture picture;
  try {
    const lumora::Mime mime = lumora::MimeParser::parse(text);
    picture = lumora::testing::pictureOf(mime);
    decodeLeaves(mime);
  } catch (const lumora::MimeParserError&) {
    outcome = Outcome::structure;
  } catch (const lumora::MimeHeaderError&) {
    outcome = Outcome::header;
  }
  if (size > 4096) return 0;  // the literal parse is quadratic and recursive
  Outcome expected = Outcome::parsed;
  lumora::testing::MimePicture reference;
  try {
    reference = lumora::testing::referencePicture(text);
  } catch (const lumora::MimeParserError&) {
    expected = Outcome::structure;
  } catch (const lumora::MimeHeaderError&) {
    expected = Outcome::header;
  }
  if (outcome != expected || (outcome == Outcome::parsed && !(picture == reference))) abort();
  return 0;
}
