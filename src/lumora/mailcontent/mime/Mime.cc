#include "lumora/mailcontent/mime/Mime.h"

#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>

#include "lumora/platform/Localization.h"

namespace lumora {

// ---- the tree --------------------------------------------------------------------------------

MimeContent::MimeContent(Kind kind, std::optional<MimeBody> body, std::vector<Mime> parts)
    : kind_(kind), body_(std::move(body)), parts_(std::move(parts)) {}
MimeContent::MimeContent(MimeContent&&) noexcept = default;
MimeContent& MimeContent::operator=(MimeContent&&) noexcept = default;
MimeContent::~MimeContent() = default;

MimeContent MimeContent::makeBody(MimeBody body) { return {Kind::body, std::move(body), {}}; }
MimeContent MimeContent::makeMixed(std::vector<Mime> parts) {
  return {Kind::mixed, std::nullopt, std::move(parts)};
}
MimeContent MimeContent::makeAlternative(std::vector<Mime> parts) {
  return {Kind::alternative, std::nullopt, std::move(parts)};
}

Mime::Mime(MimeHeader header, MimeContent content)
    : header_(std::move(header)), content_(std::move(content)) {}
Mime::Mime(Mime&&) noexcept = default;

Mime& Mime::operator=(Mime&& other) noexcept {
  if (this != &other) {
    releaseParts();
    header_ = std::move(other.header_);
    content_ = std::move(other.content_);
  }
  return *this;
}

Mime::~Mime() { releaseParts(); }

void Mime::releaseParts() {
  if (content_.parts_.empty()) return;
  std::vector<Mime> pending = std::move(content_.parts_);
  content_.parts_.clear();
  while (!pending.empty()) {
    Mime last = std::move(pending.back());
    pending.pop_back();
    for (Mime& child : last.content_.parts_) pending.push_back(std::move(child));
    last.content_.parts_.clear();  // moved-from children: nothing below them any more
  }
}

MimeParserError::MimeParserError()
    : Error(localized("The message could not be read: a part of it has no header and body to "
                      "tell apart.")) {}

// ---- header and body ---------------------------------------------------------------------------

namespace {

using Range = MimePartsSplitter::Range;
using Parts = MimePartsSplitter::Parts;

// The search for the empty line that ends a header, fed one line feed at a time, so that the
// parse can run it alongside the search for delimiters before it knows where its part ends.
class HeaderEndSearch {
 public:
  explicit HeaderEndSearch(size_t start = 0) : start_(start), searchPosition_(start) {}

  // Takes the next line feed, at `lf`. True when its line end is the empty line: the header
  // is then [start, headerEnd()) and the body begins behind `lf`.
  bool lineFeed(std::string_view text, size_t lf) {
    // A line end is a line feed with an optional carriage return before it.
    const size_t lineEndBegin = lf > searchPosition_ && text[lf - 1] == '\r' ? lf - 1 : lf;
    if (lineEndBegin == searchPosition_) {
      headerEnd_ = lineEndBegin;
      return true;
    }
    lastLineEnd_ = Range{lineEndBegin, lf + 1};
    searchPosition_ = lf + 1;
    return false;
  }
  size_t headerEnd() const { return headerEnd_; }

  // The split when the text ends at `end` with no empty line fed: all header if the text ends
  // in the last line end, else none.
  std::optional<Parts> endingAt(size_t end) const {
    if (!lastLineEnd_ || lastLineEnd_->end != end) return std::nullopt;
    return Parts{{start_, lastLineEnd_->begin}, {end, end}};
  }

 private:
  size_t start_;
  size_t searchPosition_;
  size_t headerEnd_ = 0;
  std::optional<Range> lastLineEnd_;
};

size_t nextLineFeed(std::string_view text, size_t from) {
  if (from >= text.size()) return std::string_view::npos;
  const void* hit = std::memchr(text.data() + from, '\n', text.size() - from);
  return hit ? static_cast<size_t>(static_cast<const char*>(hit) - text.data())
             : std::string_view::npos;
}

}  // namespace

std::optional<Parts> MimePartsSplitter::split(std::string_view text) {
  HeaderEndSearch search;
  for (size_t lf = nextLineFeed(text, 0); lf != std::string_view::npos;
       lf = nextLineFeed(text, lf + 1)) {
    if (search.lineFeed(text, lf)) return Parts{{0, search.headerEnd()}, {lf + 1, text.size()}};
  }
  return search.endingAt(text.size());
}

// ---- the parse ---------------------------------------------------------------------------------
//
// Each multipart is cut at the delimiters of its boundary found in its whole text, header
// included, and each part's text is parsed again the same way. Done literally that costs the
// length of a part once for each multipart around it: quadratic for deep nesting. So the parse
// makes one pass over the message instead, with the open multiparts on a stack, innermost last.
// At each line feed followed by "--", the open boundaries that the line continues with are
// looked up in a trie; of those, the outermost multipart has the delimiter, since the parts of
// the inner ones end where the outer one's part ends. A part's header is read as the pass goes;
// when it turns out to open a multipart, the pass goes back to the part's start, because the
// part's own delimiters may stand in its header. Every part's failure waits until a delimiter of
// its own multipart closes it, and then passes to the part around that multipart, until the
// message's own multipart has it: a part that no delimiter closes is dropped unread, failure and
// all, as is everything inside it.

namespace {

struct Multipart {
  std::string boundary;
  bool alternative = false;
};

std::optional<Multipart> multipartOf(const MimeHeader& header) {
  if (!header.contentType) return std::nullopt;
  MimeType type = header.contentType->mimeType();
  if (type.kind != MimeType::Kind::multipart) return std::nullopt;
  return Multipart{std::move(type.boundary), type.subtype == MultipartSubtype::alternative};
}

std::optional<Multipart> multipartOf(const MimeStructure& header) {
  if (!header.multipart) return std::nullopt;
  return Multipart{header.boundary, header.alternative};
}

MimeContent contentOf(bool alternative, std::vector<Mime> parts) {
  return alternative ? MimeContent::makeAlternative(std::move(parts))
                     : MimeContent::makeMixed(std::move(parts));
}

// A leaf whose body is the `size` bytes at `offset` of `message`.
Mime leaf(MimeHeader header, std::string_view message, size_t offset, size_t size) {
  auto encoding = header.contentTransferEncoding;
  return Mime(std::move(header), MimeContent::makeBody(MimeBody(
                                     std::string(message.substr(offset, size)), encoding, offset)));
}

// What the parse makes of what it finds. The parse itself (below) finds the parts, their
// headers and their failures; a sink keeps what its reader wants of them, in `Data` beside each
// open multipart.

// The whole tree, every header and a copy of every body.
struct TreeSink {
  using Header = MimeHeader;
  struct Data {
    MimeHeader header;
    std::vector<Mime> parts;
    std::unique_ptr<MimeHeader> partHeader;  // held apart: most frames never have one
  };
  std::string_view text;

  void open(Data& frame, MimeHeader header) { frame.header = std::move(header); }
  void leafHeader(Data& frame, MimeHeader header) {
    frame.partHeader = std::make_unique<MimeHeader>(std::move(header));
  }
  // A leaf of the frame at `depth` ends; its header is the one kept, or `header`.
  void leaf(Data& frame, uint32_t, MimeHeader* header, size_t offset, size_t size) {
    frame.parts.push_back(
        ::lumora::leaf(std::move(header ? *header : *frame.partHeader), text, offset, size));
  }
  // A multipart ends: it becomes a part of the one around it.
  void close(Data& inner, bool alternative, Data& outer) {
    outer.parts.push_back(
        Mime(std::move(inner.header), contentOf(alternative, std::move(inner.parts))));
  }
};

// The first quoted-printable leaf among the message's own parts, and nothing else: what the
// quoted reading needs. No part is kept, so its memory follows how deep the multiparts are open
// at once, not how many parts there are.
struct TopLeafSink {
  using Header = MimeStructure;
  struct Data {
    bool quotedPrintable = false;  // the leaf being read
  };
  std::optional<MimeParser::Leaf> found;

  void open(Data&, const MimeStructure&) {}
  void leafHeader(Data& frame, const MimeStructure& header) {
    frame.quotedPrintable = isQuotedPrintable(header);
  }
  void leaf(Data& frame, uint32_t depth, const MimeStructure* header, size_t offset,
            size_t size) {
    const bool quotedPrintable = header ? isQuotedPrintable(*header) : frame.quotedPrintable;
    if (depth == 0 && quotedPrintable && !found) found = MimeParser::Leaf{offset, size};
  }
  void close(Data&, bool, Data&) {}

  static bool isQuotedPrintable(const MimeStructure& header) {
    return header.encoding == ContentTransferEncoding::Kind::quotedPrintable;
  }
};

// The boundaries of the open multiparts, as a trie in one array: each node has its children in
// a list, and counts the open multiparts whose boundary ends there. Multiparts open and close
// in stack order, so a node's shallowest multipart is the first that arrived while it still has
// any. Walking a line costs at most one step per character of the line, each step a scan of at
// most 256 siblings; nodes stay in the order they were made, so the boundaries of the
// multiparts opened last, the ones most often met, lie close together.
class BoundaryTrie {
 public:
  uint32_t add(std::string_view boundary, uint32_t depth) {
    uint32_t node = 0;
    for (const char c : boundary) {
      uint32_t child = childOf(node, c);
      if (child == kNone) {
        child = static_cast<uint32_t>(nodes_.size());
        nodes_.push_back(Node{c, kNone, nodes_[node].firstChild, 0, 0});
        nodes_[node].firstChild = child;
      }
      node = child;
    }
    Node& end = nodes_[node];
    if (end.count++ == 0) end.shallowest = depth;
    return node;
  }
  void remove(uint32_t node) { --nodes_[node].count; }

  // The smallest depth under `limit` whose boundary `text` begins with.
  std::optional<uint32_t> shallowestBeginning(std::string_view text, uint32_t limit) const {
    uint32_t best = limit;
    uint32_t node = 0;
    for (size_t i = 0;; ++i) {
      const Node& here = nodes_[node];
      if (here.count > 0 && here.shallowest < best) best = here.shallowest;
      if (i == text.size() || best == 0) break;
      node = childOf(node, text[i]);
      if (node == kNone) break;
    }
    if (best < limit) return best;
    return std::nullopt;
  }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Node {
    char c;
    uint32_t firstChild;
    uint32_t nextSibling;
    uint32_t count;       // open multiparts with the boundary that ends here
    uint32_t shallowest;  // the depth of the first of them, while count > 0
  };
  uint32_t childOf(uint32_t node, char c) const {
    uint32_t child = nodes_[node].firstChild;
    while (child != kNone && nodes_[child].c != c) child = nodes_[child].nextSibling;
    return child;
  }
  std::vector<Node> nodes_{Node{'\0', kNone, kNone, 0, 0}};
};

// One open multipart.
template <typename Data>
struct Frame {
  bool alternative = false;
  size_t boundaryLength = 0;
  uint32_t trieNode = 0;
  size_t resume = 0;  // where its next delimiter may begin: behind its last one

  // The part behind the last delimiter.
  enum class Part : uint8_t {
    none,            // no delimiter yet: the text is dropped
    awaitingHeader,  // its empty line not found yet
    leaf,            // header read; a body
    nested,          // header read; a multipart, the next frame
    failed,          // header could not be read
  };
  Part part = Part::none;
  size_t partStart = 0;
  HeaderEndSearch search;
  size_t bodyBegin = 0;
  std::exception_ptr failure;
  Data data;
};

template <typename Sink>
class StreamingParse {
 public:
  using Header = typename Sink::Header;
  using Frame = lumora::Frame<typename Sink::Data>;

  StreamingParse(std::string_view text, Sink& sink) : text_(text), sink_(sink) {}

  // Runs over the message, whose own header opens `multipart`; returns the message's frame.
  Frame run(Header header, const Multipart& multipart) {
    open(std::move(header), multipart, 0);
    size_t cursor = 0;
    for (size_t lf = nextLineFeed(text_, cursor); lf != std::string_view::npos;
         lf = nextLineFeed(text_, cursor)) {
      cursor = step(lf);
    }
    // The end of the text is no delimiter: what follows the last one of each multipart is
    // dropped, and with it every multipart still open inside the message's last part.
    while (frames_.size() > 1) discard();
    return std::move(frames_.front());
  }

 private:
  // Handles the line feed at `lf`; returns where to go on.
  size_t step(size_t lf) {
    if (auto depth = delimiterDepthAt(lf, static_cast<uint32_t>(frames_.size())))
      return delimiter(*depth, lf);
    Frame& inner = frames_.back();
    if (inner.part == Frame::Part::awaitingHeader && inner.search.lineFeed(text_, lf))
      return headerFound(lf);
    return lf + 1;
  }

  // The outermost multipart above `limit` whose delimiter begins with the line feed at `lf`.
  std::optional<uint32_t> delimiterDepthAt(size_t lf, uint32_t limit) const {
    if (lf + 2 >= text_.size() || text_[lf + 1] != '-' || text_[lf + 2] != '-')
      return std::nullopt;
    return trie_.shallowestBeginning(text_.substr(lf + 3), limit);
  }

  size_t delimiter(uint32_t depth, size_t lf) {
    const size_t size = text_.size();
    const Frame& frame = frames_[depth];
    const size_t start = lf > frame.resume && text_[lf - 1] == '\r' ? lf - 1 : lf;
    size_t end = lf + 3 + frame.boundaryLength;
    if (end + 2 <= size && text_[end] == '-' && text_[end + 1] == '-') end += 2;
    if (end < size && text_[end] == '\r') ++end;
    if (end < size && text_[end] == '\n') {
      // An outer multipart's delimiter on that line feed ends this part's text before it.
      if (delimiterDepthAt(end, depth))
        end = text_[end - 1] == '\r' ? end - 1 : end;
      else
        ++end;
    }
    const Closing closing = closePart(depth, start);
    if (closing.rewindTo) return *closing.rewindTo;
    if (closing.failed) return end;  // the frame is gone with its failed part
    Frame& opened = frames_[depth];
    opened.part = Frame::Part::awaitingHeader;
    opened.partStart = end;
    opened.search = HeaderEndSearch(end);
    opened.resume = end;
    return end;
  }

  struct Closing {
    std::optional<size_t> rewindTo;  // the part is a multipart whose text must be read again
    bool failed = false;             // the part failed; its frame is closed
  };

  // Ends the part of frame `depth` at `partEnd` and adds it to the frame's parts.
  Closing closePart(uint32_t depth, size_t partEnd) {
    // Multiparts inside the part that are still open end without a delimiter: their last
    // parts are dropped.
    while (frames_.size() > depth + 2) discard();
    if (frames_.size() == depth + 2) {
      close();
      return {};
    }
    Frame& frame = frames_[depth];
    switch (frame.part) {
      case Frame::Part::none:
        return {};  // the text before the first delimiter
      case Frame::Part::failed:
        fail(depth, frame.failure);
        return {std::nullopt, true};
      case Frame::Part::leaf:
        sink_.leaf(frame.data, depth, nullptr, frame.bodyBegin, partEnd - frame.bodyBegin);
        return {};
      case Frame::Part::awaitingHeader:
        try {
          // No empty line before the part's end: all header, or no header and body at all.
          const auto parts = frame.search.endingAt(partEnd);
          if (!parts) throw MimeParserError();
          Header header = Header::parse(slice(parts->header));
          if (auto multipart = multipartOf(header)) {
            const size_t start = frame.partStart;
            frame.part = Frame::Part::nested;
            open(std::move(header), *multipart, start);
            return {start, false};
          }
          sink_.leaf(frame.data, depth, &header, partEnd, 0);
          return {};
        } catch (const Error&) {
          fail(depth, std::current_exception());
          return {std::nullopt, true};
        }
      case Frame::Part::nested:
        break;  // handled above: the part's frame is open
    }
    return {};
  }

  // A closed part of frame `depth` failed. The message fails with it if that frame is the
  // message's own; otherwise the part around the frame fails, and waits in its turn for a
  // delimiter to close it.
  void fail(uint32_t depth, std::exception_ptr failure) {
    if (depth == 0) std::rethrow_exception(failure);
    while (frames_.size() > depth) discard();
    Frame& outer = frames_.back();
    outer.part = Frame::Part::failed;
    outer.failure = std::move(failure);
  }

  size_t headerFound(size_t lf) {
    Frame& frame = frames_.back();
    frame.bodyBegin = lf + 1;
    Header header;
    try {
      header = Header::parse(slice({frame.partStart, frame.search.headerEnd()}));
    } catch (const Error&) {
      frame.part = Frame::Part::failed;
      frame.failure = std::current_exception();
      return lf + 1;
    }
    if (auto multipart = multipartOf(header)) {
      const size_t start = frame.partStart;
      frame.part = Frame::Part::nested;
      open(std::move(header), *multipart, start);
      return start;  // its own delimiters may stand in its header
    }
    frame.part = Frame::Part::leaf;
    sink_.leafHeader(frame.data, std::move(header));
    return lf + 1;
  }

  void open(Header header, const Multipart& multipart, size_t start) {
    const auto depth = static_cast<uint32_t>(frames_.size());
    Frame& frame = frames_.emplace_back();
    sink_.open(frame.data, std::move(header));
    frame.alternative = multipart.alternative;
    frame.boundaryLength = multipart.boundary.size();
    frame.trieNode = trie_.add(multipart.boundary, depth);
    frame.resume = start;
  }

  // The innermost multipart is complete: it becomes a part of the one around it.
  void close() {
    Frame& inner = frames_.back();
    sink_.close(inner.data, inner.alternative, frames_[frames_.size() - 2].data);
    discard();
  }

  void discard() {
    trie_.remove(frames_.back().trieNode);
    frames_.pop_back();
  }

  std::string_view slice(Range range) const {
    return text_.substr(range.begin, range.end - range.begin);
  }

  std::string_view text_;
  Sink& sink_;
  std::deque<Frame> frames_;  // grows without moving the frames it holds
  BoundaryTrie trie_;
};

}  // namespace

MimeParser::Top MimeParser::top(std::string_view message) {
  const auto parts = MimePartsSplitter::split(message);
  if (!parts) throw MimeParserError();
  MimeHeader header =
      MimeHeader::parse(message.substr(parts->header.begin, parts->header.end - parts->header.begin));
  const bool multipart = multipartOf(header).has_value();
  return {std::move(header), parts->body.begin, multipart};
}

Mime MimeParser::parse(std::string_view message) {
  Top top = MimeParser::top(message);
  if (auto multipart = multipartOf(top.header)) {
    TreeSink sink{message};
    auto root = StreamingParse<TreeSink>(message, sink).run(std::move(top.header), *multipart);
    return Mime(std::move(root.data.header),
                contentOf(root.alternative, std::move(root.data.parts)));
  }
  return leaf(std::move(top.header), message, top.bodyOffset, std::string_view::npos);
}

MimeParser::TopLeaf MimeParser::firstQuotedPrintableLeaf(std::string_view message) {
  const auto parts = MimePartsSplitter::split(message);
  if (!parts) throw MimeParserError();
  MimeStructure header = MimeStructure::parse(
      message.substr(parts->header.begin, parts->header.end - parts->header.begin));
  TopLeaf result;
  if (!header.multipart) {
    result.kind = MimeContent::Kind::body;
    if (TopLeafSink::isQuotedPrintable(header))
      result.leaf = Leaf{parts->body.begin, message.size() - parts->body.begin};
    return result;
  }
  result.kind = header.alternative ? MimeContent::Kind::alternative : MimeContent::Kind::mixed;
  const Multipart multipart{header.boundary, header.alternative};
  TopLeafSink sink;
  StreamingParse<TopLeafSink>(message, sink).run(std::move(header), multipart);
  result.leaf = sink.found;
  return result;
}

}  // namespace lumora
