// The body of one leaf of a message, kept as written, and its decoding: first the transfer
// encoding, then the character set.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lumora/mailcontent/mime/MimeHeader.h"
#include "lumora/platform/Errors.h"

namespace lumora {

class MimeBody {
 public:
  // An absent encoding is 7bit, as for a part without a Content-Transfer-Encoding field.
  // `offset` is where `raw` begins in the message it was read from, if it was.
  MimeBody(std::string raw, std::optional<ContentTransferEncoding> encoding,
           std::optional<size_t> offset = std::nullopt);

  // The body exactly as it stands in the message, line ends included.
  const std::string& raw() const { return raw_; }
  // Where raw() begins in the message MimeParser::parse read: a reader that still holds the
  // message can read a large body there instead of holding this copy too. None for a body
  // made otherwise.
  std::optional<size_t> offset() const { return offset_; }
  const ContentTransferEncoding& encoding() const { return encoding_; }

  // The bytes with the transfer encoding undone. Throws MimeContentDecoderError or
  // QuotedPrintableDecoderError.
  std::string decodedContentData() const;

  // The text of the body, read in the character set with the IANA name `charsetName`, or as
  // UTF-8 when there is none; no other character set is tried. Throws what
  // decodedContentData() throws, and MimeBodyError.
  std::string decodedContentString(std::optional<std::string_view> charsetName) const;

 private:
  std::string raw_;
  ContentTransferEncoding encoding_;
  std::optional<size_t> offset_;
};

class MimeContentDecoderError : public Error {
 public:
  enum class Code {
    decodingFailed,       // 7bit/8bit/binary with a byte outside ASCII, or invalid Base64
    unsupportedEncoding,  // a transfer encoding other than the five known ones
  };
  MimeContentDecoderError(Code code, std::string_view encodingName);
  Code code() const { return code_; }

 private:
  Code code_;
};

class QuotedPrintableDecoderError : public Error {
 public:
  enum class Code { invalidQuotedPrintableString };
  QuotedPrintableDecoderError();
  Code code() const { return Code::invalidQuotedPrintableString; }
};

class MimeBodyError : public Error {
 public:
  enum class Code { invalidCharset };
  // `charsetName` is the name asked for (none for UTF-8 by default); `known` tells an unknown
  // name from bytes that are not valid in a known character set.
  MimeBodyError(std::optional<std::string_view> charsetName, bool known);
  Code code() const { return Code::invalidCharset; }
};

// Undoes quoted-printable on the bytes of `text`: "=XX" becomes that byte, "=" before a line
// feed is a soft line break, and everything else stands. Deliberately lenient where mail
// programs are sloppy (bytes outside printable ASCII, a trailing "=" or "=X" at the very end)
// and strict where the text is plainly broken: "=" followed by two characters that are not
// hexadecimal digits throws QuotedPrintableDecoderError.
std::string quotedPrintableDecoded(std::string_view text);

}  // namespace lumora
