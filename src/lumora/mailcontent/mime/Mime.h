// A whole message as a tree: each multipart holds its parts, each leaf its body still encoded.
// Decoding a body is a separate step (MimeBody).
//
// The parse works on text, not bytes, and is lax in its own ways: every delimiter line is
// handled alike (the closing one ends a part like any other), a delimiter needs no line end
// behind it nor anything after the boundary to end there, and the text before the first and
// behind the last delimiter is dropped, so a multipart without a closing delimiter loses its
// last part.
//
// Mail is untrusted: the parse and the tree's destruction never recurse, and the parse is
// linear in the length of the message, however deep the nesting and however many the parts.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/mime/MimeBody.h"
#include "lumora/mailcontent/mime/MimeHeader.h"
#include "lumora/platform/Errors.h"

namespace lumora {

class Mime;

class MimeContent {
 public:
  enum class Kind {
    body,         // a leaf
    mixed,        // a multipart of any subtype but alternative
    alternative,  // a multipart/alternative
  };
  static MimeContent makeBody(MimeBody body);
  static MimeContent makeMixed(std::vector<Mime> parts);
  static MimeContent makeAlternative(std::vector<Mime> parts);

  MimeContent(MimeContent&&) noexcept;
  MimeContent& operator=(MimeContent&&) noexcept;
  ~MimeContent();

  Kind kind() const { return kind_; }
  // The leaf's body; null for a multipart.
  const MimeBody* body() const { return body_ ? &*body_ : nullptr; }
  // The parts of a multipart, in their order in the message; empty for a leaf.
  const std::vector<Mime>& parts() const { return parts_; }

 private:
  friend class Mime;
  MimeContent(Kind kind, std::optional<MimeBody> body, std::vector<Mime> parts);
  Kind kind_;
  std::optional<MimeBody> body_;
  std::vector<Mime> parts_;
};

class Mime {
 public:
  Mime(MimeHeader header, MimeContent content);
  Mime(Mime&&) noexcept;
  Mime& operator=(Mime&&) noexcept;
  Mime(const Mime&) = delete;
  Mime& operator=(const Mime&) = delete;
  // Takes the subtree apart with a work list: a deep tree must not recurse.
  ~Mime();

  const MimeHeader& header() const { return header_; }
  const MimeContent& content() const { return content_; }

 private:
  void releaseParts();
  MimeHeader header_;
  MimeContent content_;
};

class MimeParserError : public Error {
 public:
  enum class Code { invalidMessageStructure };
  MimeParserError();
  Code code() const { return Code::invalidMessageStructure; }
};

// Where the header of a text ends and its body begins: at the first empty line.
struct MimePartsSplitter {
  struct Range {
    size_t begin = 0;
    size_t end = 0;
    bool operator==(const Range&) const = default;
  };
  struct Parts {
    Range header;  // holds the line end of the last field, not the empty line
    Range body;
    bool operator==(const Parts&) const = default;
  };
  // Absent when the text has no line end, or ends in a line without one and has no empty line
  // before it. A text that ends in a line end with no empty line is all header.
  static std::optional<Parts> split(std::string_view text);
};

class MimeParser {
 public:
  // Parses a whole raw message. Throws MimeParserError when the message or one of its parts
  // has no header and body to tell apart, and MimeHeaderError for a malformed MIME field in
  // any header. A failure anywhere fails the whole parse.
  static Mime parse(std::string_view message);

  // The header of a whole raw message and where its body begins, the body itself not looked
  // at: for a reader that takes the body of a single-part message where it stands instead of
  // as the copy parse makes. Throws as parse does for the message's own header.
  struct Top {
    MimeHeader header;
    size_t bodyOffset = 0;
    bool multipart = false;  // then only parse reads the body
  };
  static Top top(std::string_view message);

  // The first quoted-printable leaf of the message's own parts (or the message itself, when it
  // is no multipart), found by the same parse as parse() with the same failures, without the
  // tree: no part, header or body is kept, so the memory taken follows how deep the multiparts
  // nest, not how many parts the message has. The leaf is where its body stands in `message`.
  struct Leaf {
    size_t offset = 0;
    size_t size = 0;
  };
  struct TopLeaf {
    MimeContent::Kind kind = MimeContent::Kind::body;  // of the message
    std::optional<Leaf> leaf;
  };
  static TopLeaf firstQuotedPrintableLeaf(std::string_view message);
};

}  // namespace lumora
