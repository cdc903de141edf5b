#include "lumora/mailcontent/reading/MessageTree.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "lumora/mailcontent/reading/BodyText.h"
#include "lumora/mailcontent/reading/HeaderText.h"
#include "lumora/platform/Text.h"

namespace lumora::reading {

size_t headerStart(std::string_view message) {
  if (!message.starts_with("From ")) return 0;
  const size_t lf = message.find('\n');
  return lf == std::string_view::npos ? message.size() : lf + 1;
}

bool isFieldLine(std::string_view line) {
  size_t i = 0;
  while (i < line.size() && line[i] > ' ' && line[i] < 127 && line[i] != ':') ++i;
  if (i == 0) return false;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  return i < line.size() && line[i] == ':';
}

namespace {

// The fields a header block of a message has, one of which tells it from a text's first line
// that merely holds a colon.
bool isMessageField(std::string_view name) {
  static constexpr std::array<std::string_view, 20> kNames{
      "from",        "to",          "cc",           "bcc",         "subject",
      "date",        "message-id",  "mime-version", "content-type", "content-transfer-encoding",
      "received",    "return-path", "reply-to",     "in-reply-to", "references",
      "sender",      "delivered-to", "user-agent",  "x-mailer",    "organization"};
  const std::string lower = text::asciiLowercased(name);
  return lower.starts_with("x-") || lower.starts_with("list-") ||
         std::find(kNames.begin(), kNames.end(), lower) != kNames.end();
}

}  // namespace

bool hasHeaderBlock(std::string_view raw) {
  size_t start = headerStart(raw);
  bool first = true;
  while (start < raw.size()) {
    size_t end = raw.find('\n', start);
    if (end == std::string_view::npos) end = raw.size();
    std::string_view line = raw.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) return false;
    const bool continuation = !first && (line[0] == ' ' || line[0] == '\t');
    if (!continuation) {
      if (!isFieldLine(line)) return false;
      const size_t colon = line.find(':');
      std::string_view name = text::trimmed(line.substr(0, colon));
      if (isMessageField(name)) return true;
    }
    first = false;
    start = end + 1;
  }
  return false;
}

size_t bodyStart(std::string_view raw) {
  if (!hasHeaderBlock(raw)) return 0;
  size_t start = headerStart(raw);
  bool first = true;
  while (start < raw.size()) {
    size_t end = raw.find('\n', start);
    const size_t next = end == std::string_view::npos ? raw.size() : end + 1;
    std::string_view line = raw.substr(start, (end == std::string_view::npos ? raw.size() : end) - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) return next;  // the empty line belongs to the header
    const bool continuation = !first && (line[0] == ' ' || line[0] == '\t');
    if (!continuation && !isFieldLine(line)) return start;
    first = false;
    start = next;
  }
  return raw.size();
}

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A line without its line end.
std::string_view content(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

class Parse {
 public:
  Parse(std::string_view message, std::deque<Entity>& entities)
      : message_(message), entities_(entities) {}

  void run() {
    size_t start = headerStart(message_);
    begin(kNoEntity, start, 0);
    while (start < message_.size()) {
      const void* hit = std::memchr(message_.data() + start, '\n', message_.size() - start);
      const size_t end = hit ? static_cast<size_t>(static_cast<const char*>(hit) - message_.data()) + 1
                             : message_.size();
      line(start, end);
      start = end;
    }
    // The end of the message ends every part still open.
    closeOpenBelow(kNoEntity, message_.size());
  }

 private:
  enum class Phase { header, body, between };

  struct Frame {
    uint32_t entity;
    std::string boundary;
    uint32_t lastChild = kNoEntity;  // the multipart's parts so far end here
  };

  void line(size_t start, size_t end) {
    const std::string_view text = message_.substr(start, end - start);
    if (!frames_.empty() && text.size() >= 2 && text[0] == '-' && text[1] == '-') {
      for (size_t f = frames_.size(); f-- > 0;) {
        bool closing = false;
        if (isDelimiter(text, frames_[f].boundary, closing)) {
          delimiter(f, closing, start, end);
          return;
        }
      }
    }
    // A header that ends opens a part whose own header may begin on this very line (an
    // attached message with no empty line); each such turn goes one level deeper.
    while (phase_ == Phase::header) {
      const std::string_view field = content(text);
      Entity& e = entities_[current_];
      if (field.empty()) {
        e.headerEnd = start;
        endHeader(end);
        return;
      }
      if (isFieldLine(field) || (start > e.headerBegin && (text[0] == ' ' || text[0] == '\t')))
        return;
      // Not a field: the header ended without its empty line, and this line is body.
      e.headerEnd = start;
      endHeader(start);
    }
  }

  // "--boundary", perhaps "--" behind it for the last, then nothing but blanks.
  static bool isDelimiter(std::string_view line, std::string_view boundary, bool& closing) {
    if (line.size() < 2 + boundary.size() || line.compare(2, boundary.size(), boundary) != 0)
      return false;
    std::string_view rest = line.substr(2 + boundary.size());
    closing = rest.starts_with("--");
    if (closing) rest.remove_prefix(2);
    for (const char c : rest)
      if (!isBlank(c)) return false;
    return true;
  }

  // A new part of `parent`, behind its part `*last` when it has one; `last` is null for a part
  // that can have only one (the message, an attached message's own).
  uint32_t begin(uint32_t parent, size_t at, uint32_t depth, uint32_t* last = nullptr) {
    const auto id = static_cast<uint32_t>(entities_.size());
    Entity& e = entities_.emplace_back();
    e.parent = parent;
    e.headerBegin = e.headerEnd = e.bodyBegin = e.bodyEnd = at;
    if (parent != kNoEntity) {
      if (last && *last != kNoEntity)
        entities_[*last].nextSibling = id;
      else
        entities_[parent].firstChild = id;
      if (last) *last = id;
    }
    depths_.push_back(depth);
    current_ = id;
    phase_ = Phase::header;
    return id;
  }

  // The header of the current part ended; its body begins at `bodyBegin`.
  void endHeader(size_t bodyBegin) {
    const uint32_t id = current_;
    entities_[id].bodyBegin = entities_[id].bodyEnd = bodyBegin;
    const uint32_t depth = depths_[id];
    const HeaderLookup fields(header(id), {"Content-Type", "Content-Transfer-Encoding"});
    std::string type;
    StructuredValue contentType;
    if (const HeaderField* field = fields.find("Content-Type")) {
      contentType = parseStructuredValue(field->body, {"boundary"});
      type = contentType.value;
    }
    if (depth < MessageTree::kMaxDepth && type.starts_with("multipart/")) {
      std::string boundary = contentType.parameter("boundary").value_or("");
      if (!boundary.empty()) {
        entities_[id].kind = Entity::Kind::multipart;
        frames_.push_back({id, std::move(boundary), kNoEntity});
        phase_ = Phase::between;  // the preamble
        return;
      }
    }
    if (depth < MessageTree::kMaxDepth && entities_.size() < MessageTree::kMaxParts &&
        (type == "message/rfc822" || type == "message/global")) {
      const HeaderField* encoding = fields.find("Content-Transfer-Encoding");
      if (!encoding || transferEncodingOf(unfolded(encoding->body)) == TransferEncoding::identity) {
        entities_[id].kind = Entity::Kind::message;
        begin(id, bodyBegin, depth + 1);
        return;
      }
    }
    phase_ = Phase::body;
  }

  std::string_view header(uint32_t id) const {
    const Entity& e = entities_[id];
    return message_.substr(e.headerBegin, e.headerEnd - e.headerBegin);
  }

  // Every part open inside `ancestor` (every part, for none) ends at `at`.
  void closeOpenBelow(uint32_t ancestor, size_t at) {
    for (uint32_t id = current_; id != kNoEntity && id != ancestor; id = entities_[id].parent) {
      Entity& e = entities_[id];
      if (id == current_ && phase_ == Phase::header)
        e.headerEnd = e.bodyBegin = std::max(e.headerBegin, at);
      e.bodyEnd = std::max(e.bodyBegin, at);
    }
  }

  void delimiter(size_t frame, bool closing, size_t start, size_t end) {
    const uint32_t owner = frames_[frame].entity;
    // No part past the last one a message may have: the multipart ends here.
    if (entities_.size() >= MessageTree::kMaxParts) closing = true;
    // The line end before a delimiter belongs to it.
    size_t partEnd = start;
    if (partEnd > 0 && message_[partEnd - 1] == '\n') --partEnd;
    if (partEnd > 0 && message_[partEnd - 1] == '\r') --partEnd;
    if (current_ != kNoEntity) closeOpenBelow(owner, partEnd);
    // Multiparts inside that never closed end here too.
    while (frames_.size() > frame + 1) {
      entities_[frames_.back().entity].bodyEnd = partEnd;
      frames_.pop_back();
    }
    if (closing) {
      entities_[owner].bodyEnd = end;
      frames_.pop_back();
      // The epilogue: nothing until a delimiter of a multipart around it, which ends the parts
      // this multipart stands in.
      current_ = entities_[owner].parent;
      phase_ = Phase::between;
      return;
    }
    begin(owner, end, depths_[owner] + 1, &frames_[frame].lastChild);
  }

  std::string_view message_;
  std::deque<Entity>& entities_;
  std::vector<uint32_t> depths_;  // beside the entities: only the parse needs them
  std::vector<Frame> frames_;     // the open multiparts, innermost last
  uint32_t current_ = kNoEntity;  // the part being read
  Phase phase_ = Phase::header;
};

}  // namespace

MessageTree::MessageTree(std::string_view message) : message_(message) {
  Parse(message_, entities_).run();
}

}  // namespace lumora::reading
