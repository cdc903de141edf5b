#include "support/MimeReference.h"

#include <optional>

#include "lumora/platform/Text.h"
#include "support/MimeShape.h"

namespace lumora::testing {
namespace {

struct Match {
  size_t start, end;
};

// Every leftmost match of "\r?\n--" boundary "(--)?\r?\n?", in order, without overlap.
std::vector<Match> delimiters(std::string_view text, std::string_view boundary) {
  std::vector<Match> matches;
  const std::string core = "--" + std::string(boundary);
  size_t i = 0;
  while (i < text.size()) {
    size_t lf = std::string_view::npos;
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') lf = i + 1;
    if (text[i] == '\n') lf = i;
    if (lf == std::string_view::npos || text.substr(lf + 1, core.size()) != core) {
      ++i;
      continue;
    }
    size_t end = lf + 1 + core.size();
    if (text.substr(end, 2) == "--") end += 2;
    if (end < text.size() && text[end] == '\r') ++end;
    if (end < text.size() && text[end] == '\n') ++end;
    matches.push_back({i, end});
    i = end;
  }
  return matches;
}

void parseInto(std::string_view text, MimePicture& picture) {
  const auto parts = MimePartsSplitter::split(text);
  if (!parts) throw MimeParserError();
  const MimeHeader header =
      MimeHeader::parse(text.substr(parts->header.begin, parts->header.end - parts->header.begin));
  std::optional<MimeType> type;
  if (header.contentType) type = header.contentType->mimeType();
  if (!type || type->kind != MimeType::Kind::multipart) {
    const MimeBody body(std::string(text.substr(parts->body.begin)),
                        header.contentTransferEncoding);
    picture.shape += shapeOf(Mime(MimeHeader(header), MimeContent::makeBody(body)));
    picture.bodies.push_back(body.raw());
    return;
  }
  picture.shape += text::asciiLowercased(header.contentType->subtype) + "[";
  const auto matches = delimiters(text, type->boundary);
  for (size_t k = 1; k < matches.size(); ++k) {
    if (k > 1) picture.shape += ',';
    parseInto(text.substr(matches[k - 1].end, matches[k].start - matches[k - 1].end), picture);
  }
  picture.shape += ']';
}

}  // namespace

MimePicture pictureOf(const Mime& mime) {
  MimePicture picture{shapeOf(mime), {}};
  std::vector<const Mime*> stack{&mime};
  while (!stack.empty()) {
    const Mime* node = stack.back();
    stack.pop_back();
    if (const MimeBody* body = node->content().body()) picture.bodies.push_back(body->raw());
    const auto& parts = node->content().parts();
    for (auto it = parts.rbegin(); it != parts.rend(); ++it) stack.push_back(&*it);
  }
  return picture;
}

MimePicture referencePicture(std::string_view message) {
  MimePicture picture;
  parseInto(message, picture);
  return picture;
}

}  // namespace lumora::testing
