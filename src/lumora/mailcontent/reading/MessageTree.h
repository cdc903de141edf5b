// The MIME structure of a message as a reader needs it: which parts there are, how they nest,
// and where each part's header and body stand in the message. Lenient where mail is sloppy: a
// header without its empty line ends at the first line that is no field, a multipart without
// its closing delimiter ends with its last part kept, a part with a malformed field is read as
// far as it goes. Nothing here fails.
//
// One pass over the message, line by line; nothing recurses. Multiparts and attached messages
// nest at most kMaxDepth deep: a part deeper than that is one leaf, so every line is compared
// with a bounded number of open boundaries and the parse is linear in the message's length.
// A message has at most kMaxParts parts: a delimiter that would begin one more ends its
// multipart instead, and what follows is passed over as that multipart's epilogue, so that a
// message of a million parts of a few bytes each, whose records and lines would take ten times
// the message, takes a few MB.
#pragma once

#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

namespace lumora::reading {

inline constexpr uint32_t kNoEntity = UINT32_MAX;

// One part: a leaf, a multipart, or an attached message (message/rfc822), whose one child is
// the attached message itself, header and all.
// 48 bytes: a message of a million bare parts holds a million of them.
struct Entity {
  enum class Kind : uint8_t { leaf, multipart, message };
  Kind kind = Kind::leaf;
  uint32_t parent = kNoEntity;
  uint32_t firstChild = kNoEntity;
  uint32_t nextSibling = kNoEntity;  // the last child of a part is only known while parsing
  size_t headerBegin = 0;
  size_t headerEnd = 0;  // without the empty line
  size_t bodyBegin = 0;
  size_t bodyEnd = 0;  // without the line end before the delimiter that ends it
};
static_assert(sizeof(Entity) == 48);

class MessageTree {
 public:
  static constexpr uint32_t kMaxDepth = 64;
  static constexpr uint32_t kMaxParts = 100'000;

  // Reads the structure of `message`, which must outlive the tree.
  explicit MessageTree(std::string_view message);

  // The message is entities()[0]; a parent always comes before its children. A deque, so that
  // a million parts grow it without a copy of all of them.
  const std::deque<Entity>& entities() const { return entities_; }
  std::string_view header(const Entity& e) const {
    return message_.substr(e.headerBegin, e.headerEnd - e.headerBegin);
  }
  std::string_view body(const Entity& e) const {
    return message_.substr(e.bodyBegin, e.bodyEnd - e.bodyBegin);
  }

 private:
  std::string_view message_;
  std::deque<Entity> entities_;
};

// Where the message's own header begins: behind an mbox "From " line, if one leads.
size_t headerStart(std::string_view message);

// True when `line` (without its line end) is a header field: a name of printable characters,
// perhaps blanks, then ":".
bool isFieldLine(std::string_view line);

// True when the text begins with a header block: its first line is a field, and the block holds
// a field that messages have ("From", "Subject", "X-..."), which tells it from a text whose first
// line merely holds a colon.
bool hasHeaderBlock(std::string_view raw);

// Where the body begins: behind the header block's empty line, or at the first line that is no
// field; 0 for a text without a header block.
size_t bodyStart(std::string_view raw);

}  // namespace lumora::reading
