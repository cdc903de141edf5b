// From the raw message being answered to the texts the model is given: the text of each
// blockquote element of the message's HTML, in document order. Header fields, text outside a
// quotation and attachments never leave here.
#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

class MailParser {
 public:
  // Passages gathered within a budget of bytes: their texts and the line ends that join them
  // for the model. A quotation's text holds the texts of the quotations inside it, so a message
  // of nested quotations has passages far larger than itself; gathering stops as soon as the
  // next passage would pass the budget, and that passage is never kept.
  struct Passages {
    std::vector<std::string> texts;
    bool complete = true;  // false: stopped at the budget, `texts` holds those before
    size_t bytes = 0;      // the texts and their joining line ends
  };
  static constexpr size_t kNoBudget = std::numeric_limits<size_t>::max();

  // The quoted passages as below, gathered within `budget` bytes.
  static Passages quotedTexts(std::string_view rawMessage, size_t budget);

  // The quoted passages of `rawMessage` (valid UTF-8, header and body), in document order;
  // empty when the message has none. Throws the MIME parse's errors and the body decoders'.
  // An undecoded source (see htmlSource) is read where it stands in `rawMessage`, not copied.
  static std::vector<std::string> quotedTexts(std::string_view rawMessage);

  // The HTML source to read the quotations from: the first quoted-printable body at the top or
  // among the top level's direct children. Deliberately narrow: only the transfer encoding
  // decides, and the source is decoded only when it comes from a multipart/alternative; in the
  // other cases it keeps its soft line breaks and =XX escapes, which the HTML parse then reads
  // as they stand.
  static std::optional<std::string> htmlSource(std::string_view rawMessage);

  // The text of every blockquote element of `html`, outer ones before those inside them.
  static std::vector<std::string> blockquoteTexts(std::string html);
  static Passages blockquoteTexts(std::string html, size_t budget);
};

}  // namespace lumora
