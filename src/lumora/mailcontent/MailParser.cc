#include "lumora/mailcontent/MailParser.h"

#include <stdexcept>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

bool isQuotedPrintable(const ContentTransferEncoding& encoding) {
  return encoding.kind == ContentTransferEncoding::Kind::quotedPrintable;
}

const MimeBody* quotedPrintableBody(const Mime& mime) {
  const MimeBody* body = mime.content().body();
  return body && isQuotedPrintable(body->encoding()) ? body : nullptr;
}

// The HTML to read: a part of the message as it stands there, or the decoded text of one.
struct Html {
  std::string_view inMessage;
  std::optional<std::string> decoded;
};

std::optional<Html> findHtml(std::string_view rawMessage) {
  // An undecoded body is read where it stands in the message, which the caller holds anyway.
  // A single-part message is not parsed further than its header, so its body, nearly the
  // whole message, is never copied. Beside the copy's own memory: glibc's allocator, once a
  // block that large is freed, serves every later block up to that size from its heaps and
  // keeps it when freed, and the request's JSON that follows would stay in memory piece by
  // piece.
  const MimeParser::Top top = MimeParser::top(rawMessage);
  if (!top.multipart) {
    if (!isQuotedPrintable(top.header.contentTransferEncoding.value_or(ContentTransferEncoding{})))
      return std::nullopt;
    return Html{rawMessage.substr(top.bodyOffset), std::nullopt};
  }
  // The parts of a multipart are copies the parse makes and drops before the tree is built.
  const Mime mime = MimeParser::parse(rawMessage);
  const auto undecoded = [&](const MimeBody& body) {
    const std::optional<size_t> at = body.offset();
    if (!at) return Html{{}, body.raw()};
    return Html{rawMessage.substr(*at, body.raw().size()), std::nullopt};
  };
  switch (mime.content().kind()) {
    case MimeContent::Kind::body:
      if (const MimeBody* body = quotedPrintableBody(mime)) return undecoded(*body);
      return std::nullopt;
    case MimeContent::Kind::mixed:
      for (const Mime& part : mime.content().parts())
        if (const MimeBody* body = quotedPrintableBody(part)) return undecoded(*body);
      return std::nullopt;
    case MimeContent::Kind::alternative:
      for (const Mime& part : mime.content().parts())
        if (const MimeBody* body = quotedPrintableBody(part))
          return Html{{}, body->decodedContentString(std::nullopt)};
      return std::nullopt;
  }
  return std::nullopt;
}

std::vector<std::string> blockquoteTextsOf(const html::Document& document) {
  std::vector<std::string> texts;
  html::Elements quotes;
  try {
    quotes = document.root().select("blockquote");
  } catch (const std::invalid_argument&) {
    return {};  // a query that does not parse selects nothing
  }
  texts.reserve(quotes.size());
  for (size_t i = 0; i < quotes.size(); ++i) {
    std::string text = quotes.get(i).text(true);
    // A long thread has a passage for every message: none keeps the room its text grew into.
    if (text.capacity() > text.size() + text.size() / 8) text.shrink_to_fit();
    texts.push_back(std::move(text));
  }
  return texts;
}

}  // namespace

std::vector<std::string> MailParser::quotedTexts(std::string_view rawMessage) {
  std::optional<Html> html = findHtml(rawMessage);
  if (!html) return {};
  if (html->decoded) {
    debug::line({"[debug] html", *html->decoded});
    return blockquoteTexts(std::move(*html->decoded));
  }
  debug::line({"[debug] html", html->inMessage});
  return blockquoteTextsOf(*html::Document::parseUnowned(html->inMessage));
}

std::optional<std::string> MailParser::htmlSource(std::string_view rawMessage) {
  std::optional<Html> html = findHtml(rawMessage);
  if (!html) return std::nullopt;
  if (html->decoded) return std::move(html->decoded);
  return std::string(html->inMessage);
}

std::vector<std::string> MailParser::blockquoteTexts(std::string html) {
  return blockquoteTextsOf(*html::Document::parse(std::move(html)));
}

}  // namespace lumora
