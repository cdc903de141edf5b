#include "lumora/mailcontent/MailParser.h"

#include <stdexcept>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

// The HTML to read: a part of the message as it stands there, or the decoded text of one.
struct Html {
  std::string_view inMessage;
  std::optional<std::string> decoded;
};

std::optional<Html> findHtml(std::string_view rawMessage) {
  // An undecoded body is read where it stands in the message, which the caller holds anyway;
  // the parse keeps no part of the message, only where that body is. Beside the copy's own
  // memory: glibc's allocator, once a block that large is freed, serves every later block up
  // to that size from its heaps and keeps it when freed, and the request's JSON that follows
  // would stay in memory piece by piece.
  const MimeParser::TopLeaf top = MimeParser::firstQuotedPrintableLeaf(rawMessage);
  if (!top.leaf) return std::nullopt;
  const std::string_view body = rawMessage.substr(top.leaf->offset, top.leaf->size);
  if (top.kind != MimeContent::Kind::alternative) return Html{body, std::nullopt};
  const MimeBody decoded(
      std::string(body),
      ContentTransferEncoding{ContentTransferEncoding::Kind::quotedPrintable, ""});
  return Html{{}, decoded.decodedContentString(std::nullopt)};
}

MailParser::Passages blockquoteTextsOf(const html::Document& document, size_t budget) {
  MailParser::Passages passages;
  try {
    // Room for every passage, as a long thread has a passage for every message and the
    // passages are kept while the request is built; but only when they are fewer than the
    // budget would hold at 64 bytes each: nested quotations may number a million, of which the
    // budget keeps a handful.
    size_t count = 0;
    document.root().forEachSelected("blockquote", [&](html::Node) { return ++count > 0; });
    if (count <= budget / 64) passages.texts.reserve(count);
    // The quotations one at a time, and no list of them is made.
    document.root().forEachSelected("blockquote", [&](html::Node quote) {
      std::string text = quote.text(true);
      const size_t joined = text.size() + (passages.texts.empty() ? 0 : 1);
      if (joined > budget - passages.bytes) {
        passages.complete = false;
        return false;
      }
      passages.bytes += joined;
      // A long thread has a passage for every message: none keeps the room its text grew into.
      if (text.capacity() > text.size() + text.size() / 8) text.shrink_to_fit();
      passages.texts.push_back(std::move(text));
      return true;
    });
  } catch (const std::invalid_argument&) {
    return {};  // a query that does not parse selects nothing
  }
  return passages;
}

}  // namespace

MailParser::Passages MailParser::quotedTexts(std::string_view rawMessage, size_t budget) {
  std::optional<Html> html = findHtml(rawMessage);
  if (!html) return {};
  if (html->decoded) {
    debug::line({"[debug] html", *html->decoded});
    return blockquoteTexts(std::move(*html->decoded), budget);
  }
  debug::line({"[debug] html", html->inMessage});
  return blockquoteTextsOf(*html::Document::parseUnowned(html->inMessage), budget);
}

std::vector<std::string> MailParser::quotedTexts(std::string_view rawMessage) {
  return quotedTexts(rawMessage, kNoBudget).texts;
}

std::optional<std::string> MailParser::htmlSource(std::string_view rawMessage) {
  std::optional<Html> html = findHtml(rawMessage);
  if (!html) return std::nullopt;
  if (html->decoded) return std::move(html->decoded);
  return std::string(html->inMessage);
}

std::vector<std::string> MailParser::blockquoteTexts(std::string html) {
  return blockquoteTexts(std::move(html), kNoBudget).texts;
}

MailParser::Passages MailParser::blockquoteTexts(std::string html, size_t budget) {
  return blockquoteTextsOf(*html::Document::parse(std::move(html)), budget);
}

}  // namespace lumora
