#include "lumora/mailcontent/MailParser.h"

#include <stdexcept>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

const MimeBody* quotedPrintableBody(const Mime& mime) {
  const MimeBody* body = mime.content().body();
  if (body && body->encoding().kind == ContentTransferEncoding::Kind::quotedPrintable)
    return body;
  return nullptr;
}

}  // namespace

std::vector<std::string> MailParser::quotedTexts(std::string_view rawMessage) {
  std::optional<std::string> html = htmlSource(rawMessage);
  if (!html) return {};
  debug::line({"[debug] html", *html});
  return blockquoteTexts(std::move(*html));
}

std::optional<std::string> MailParser::htmlSource(std::string_view rawMessage) {
  const Mime mime = MimeParser::parse(rawMessage);
  switch (mime.content().kind()) {
    case MimeContent::Kind::body:
      if (const MimeBody* body = quotedPrintableBody(mime)) return body->raw();
      return std::nullopt;
    case MimeContent::Kind::mixed:
      for (const Mime& part : mime.content().parts())
        if (const MimeBody* body = quotedPrintableBody(part)) return body->raw();
      return std::nullopt;
    case MimeContent::Kind::alternative:
      for (const Mime& part : mime.content().parts())
        if (const MimeBody* body = quotedPrintableBody(part))
          return body->decodedContentString(std::nullopt);
      return std::nullopt;
  }
  return std::nullopt;
}

std::vector<std::string> MailParser::blockquoteTexts(std::string html) {
  const auto document = html::Document::parse(std::move(html));
  std::vector<std::string> texts;
  html::Elements quotes;
  try {
    quotes = document->root().select("blockquote");
  } catch (const std::invalid_argument&) {
    return {};  // a query that does not parse selects nothing
  }
  texts.reserve(quotes.size());
  for (size_t i = 0; i < quotes.size(); ++i) texts.push_back(quotes.get(i).text(true));
  return texts;
}

}  // namespace lumora
