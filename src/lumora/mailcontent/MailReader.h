// The whole message being answered, as the model reads it with the whole-message reading: who
// wrote it and when, the sender's new text, and the earlier thread apart from it. Beside
// MailParser, which gives only the quoted passages.
//
// The new text comes from every text part of the message at any MIME depth (text/plain
// preferred over HTML among alternatives, HTML turned into readable lines), with every transfer
// encoding and character set undone and format=flowed joined. Attached messages (message/rfc822)
// belong to the thread. Signatures are left out; attachments are named, never read.
//
// A text without a header block is a draft as a mail client hands it to an editor: it is read
// as a plain-text body, so the message quoted in it is the thread. So is a header block without
// any of the fields a sent or received message has (Date, Message-ID, Received), as neomutt's
// edit_headers writes, or one whose caller says it holds a draft: it gives only the draft's
// "To" and "Subject", since its "From" is the user.
//
// Untrusted input: nothing here fails on any bytes, nothing recurses, and the time and memory
// taken are linear in the message's length.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

struct MailAttachment {
  std::string name;  // the file name, decoded; empty when the part has none
  std::string type;  // the media type, such as "application/pdf"
};

struct MailReading {
  bool draft = false;
  // The sender; empty where the message has none, and for a draft.
  std::string senderName;
  std::string senderAddress;
  std::string recipient;  // a draft's "To"
  std::string subject;
  std::string date;
  std::string newText;
  std::string thread;          // the earlier messages, the oldest last
  size_t earlierMessages = 0;  // how many earlier messages the thread appears to hold
  std::vector<MailAttachment> attachments;

  // The text for the model: the header lines, the new text, the attachments' names, then the
  // earlier thread under a line that marks it; at most the budget's characters, the oldest part
  // of the thread cut first, then the end of the new text, each cut said in the text.
  std::string text;
  size_t characters = 0;  // code points in `text`
  bool shortened = false;
};

class MailReader {
 public:
  static constexpr size_t kDefaultMaxCharacters = 60'000;
  // Below this, even the header lines and the marks of a cut may not fit.
  static constexpr size_t kLeastMaxCharacters = 1'000;

  // Reads `raw`, the message's bytes in any encoding, or a draft. `maxCharacters` is the
  // budget of `text`, raised to kLeastMaxCharacters if below it.
  static MailReading read(std::string_view raw, size_t maxCharacters = kDefaultMaxCharacters,
                          bool draft = false);
};

}  // namespace lumora
