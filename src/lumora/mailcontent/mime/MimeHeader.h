// The header of a message, or of one part of a multipart message: its fields, and the three
// MIME fields parsed.
//
// Deliberately narrow: the three MIME fields are tokenised and parsed; every other field is
// carried as name and body exactly as written. RFC 2047 encoded words are not decoded, RFC 2231
// continuations are not joined, comments are not skipped and quoted pairs are not unescaped.
// Linear in the header's length; nothing recurses.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/Errors.h"

namespace lumora {

struct RFC822HeaderField {
  std::string name;  // as written, not trimmed
  std::string body;  // as written
  bool operator==(const RFC822HeaderField&) const = default;
};

struct ContentTransferEncoding {
  enum class Kind { sevenBit, eightBit, binary, quotedPrintable, base64, other };
  Kind kind = Kind::sevenBit;
  std::string other;  // the token as written, for Kind::other
  // The usual name: "7bit", "quoted-printable", ...; `other` for Kind::other.
  std::string name() const;
  bool operator==(const ContentTransferEncoding&) const = default;
};

enum class MultipartSubtype { mixed, alternative, other };

struct MimeType {
  enum class Kind { text, image, audio, video, application, message, multipart, other };
  Kind kind = Kind::other;
  MultipartSubtype subtype = MultipartSubtype::other;  // multipart only
  std::string subtypeText;  // multipart with MultipartSubtype::other: the subtype as written
  std::string boundary;     // multipart only
  std::string other;        // Kind::other: the type as written
  bool operator==(const MimeType&) const = default;
};

// Parameters keep the case in which their names were written.
using HeaderParameters = std::map<std::string, std::string>;

struct ContentType {
  std::string type;
  std::string subtype;
  HeaderParameters parameters;
  MimeType mimeType() const;
  bool operator==(const ContentType&) const = default;
};

struct ContentDisposition {
  std::string type;
  HeaderParameters parameters;
  bool operator==(const ContentDisposition&) const = default;
};

struct MimeHeader {
  std::optional<ContentTransferEncoding> contentTransferEncoding;
  std::optional<ContentType> contentType;
  std::optional<ContentDisposition> contentDisposition;
  // Every field in its order, less the entries the three fields above were parsed from.
  std::vector<RFC822HeaderField> other;

  // Parses header text. Throws MimeHeaderError when one of the three MIME fields is malformed:
  // a bad field fails the whole header.
  static MimeHeader parse(std::string_view text);
};

// What the structure of a message needs of a header, without the rest: the three MIME fields
// are chosen and checked as MimeHeader::parse does (the same failures, in the same order), and
// only the transfer encoding and a multipart's boundary are kept. No other field and no
// parameter is held, so a header of a million fields or parameters costs one unfolded copy of
// its text while it is read, and a few bytes after.
struct MimeStructure {
  ContentTransferEncoding::Kind encoding = ContentTransferEncoding::Kind::sevenBit;
  bool multipart = false;    // a multipart type with a boundary, as MimeType says
  bool alternative = false;  // multipart/alternative
  std::string boundary;

  // Throws MimeHeaderError as MimeHeader::parse does.
  static MimeStructure parse(std::string_view text);
};

// Why a MIME field of a header could not be read.
class MimeHeaderError : public Error {
 public:
  enum class Code {
    invalidFieldStructure,  // the header's fields could not be told apart
    noMoreTokens,           // a field ended too early ("Content-Type: text")
    invalidSpecial,         // a token where ";", "/" or "=" must stand
    invalidToken,           // a special or quoted string where a token must stand
    invalidParameterValue,  // a parameter with neither quoted string nor token for value
  };
  MimeHeaderError(Code code, std::string_view field);
  Code code() const { return code_; }

 private:
  Code code_;
};

// The fields of header text, as found: unfolded, then every "name: body" in order.
std::vector<RFC822HeaderField> headerFields(std::string_view text);

}  // namespace lumora
