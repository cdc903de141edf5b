// The document tree of an HTML source, and the two things the mail reading asks of it: the
// elements of a tag name, and the text of an element.
//
// A 10 MB message makes a tree of half a million nodes, so a node is a small record rather
// than an object: 16 bytes in a store owned by the Document, named by its 32-bit index. The
// records link to parent, first child and siblings (the last child is the first child's
// previous sibling), so moving a node is constant time, teardown frees a few large blocks, and
// the walks below never recurse. Text is not copied where it stands in the source as it is:
// a text node is a span of the source the Document keeps, and only text that differs from its
// source (character references, replaced NULs, text joined from separate places) is written to
// an arena of the Document's own. A short span is held in the text node's record itself.
//
// Thread safety: a Document is built by one thread; once parse returns, reading it from several
// threads is safe.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "lumora/mailcontent/html/Tags.h"
#include "lumora/mailcontent/html/Tokenizer.h"

namespace lumora::html {

enum class NodeKind : uint8_t { element, text, data, comment, doctype };

using NodeId = uint32_t;
inline constexpr NodeId kNoNode = UINT32_MAX;

class Document;
class Elements;

// A node to read: a document and the index of one of its nodes. Cheap to copy; valid as long as
// its document. A Node that names no node (the parent of the root, the child of a leaf) is
// false, and only bool, id and == may be asked of it.
class Node {
 public:
  Node() = default;
  Node(const Document* document, NodeId id) : document_(document), id_(id) {}

  explicit operator bool() const { return id_ != kNoNode; }
  NodeId id() const { return id_; }
  bool operator==(const Node& other) const { return id_ == other.id_; }

  NodeKind kind() const;
  Node parent() const;
  Node firstChild() const;
  Node lastChild() const;
  Node nextSibling() const;
  Node previousSibling() const;

  // An element's tag; the root's name is "#root", its id `unknown`. Other nodes have the id
  // `unknown`, no name and no attributes.
  TagId tagId() const;
  std::string_view tagName() const;  // lower case
  std::span<const Attribute> attributes() const;

  // The characters of a text node, of a data node (the content of a script or style element)
  // or of a comment; empty for other nodes.
  std::string_view content() const;

  // A doctype's three parts, empty where the doctype had none.
  std::string_view doctypeName() const;
  std::string_view publicId() const;
  std::string_view systemId() const;

  // This element and every element below it whose tag name is `query`, in document order.
  // The query is a bare tag name; anything else fails with std::invalid_argument.
  Elements select(std::string_view query) const;
  // The same elements handed to `visit` one by one, without a list of them, until it returns
  // false: a reader that may stop early never holds the ids of a million quotations.
  void forEachSelected(std::string_view query, const std::function<bool(Node)>& visit) const;

  // The text of this element and everything below it; with the flag on, whitespace collapsed
  // as prose would show it and the ends trimmed.
  std::string text(bool trimAndNormaliseWhitespace) const;

 private:
  const Document* document_ = nullptr;
  NodeId id_ = kNoNode;
};

class Elements {
 public:
  Elements() = default;
  explicit Elements(const Document* document) : document_(document) {}
  size_t size() const { return ids_.size(); }
  Node get(size_t index) const { return {document_, ids_.at(index)}; }

 private:
  friend class Node;  // which fills the list
  void add(NodeId id) { ids_.push_back(id); }

  const Document* document_ = nullptr;
  std::vector<NodeId> ids_;
};

class Document {
 public:
  // Which attributes the tree keeps. A reader of the text alone needs only class and id (which
  // tell the parts of a mail apart); inline styles, which fill much mail, are then not stored.
  // The tree's elements and text are the same either way; only the list of active formatting
  // elements, which compares attributes, may count more elements alike.
  enum class Attributes { all, classAndId };

  // Parses any text into a document; nothing is an error but a source or a text too large for
  // 32-bit offsets (4 GiB), or a tree of more than kMaxNodes nodes, which throw
  // std::length_error. The document keeps
  // `html`, moved in: the text that stands in it verbatim is read from there.
  static std::unique_ptr<Document> parse(std::string html, Attributes kept = Attributes::all);
  // The same without taking the source: `html` must stay alive, unchanged, as long as the
  // document does. For callers that hold the source anyway, so that it is not held twice.
  static std::unique_ptr<Document> parseUnowned(std::string_view html,
                                                Attributes kept = Attributes::all);
  // As the children of a `context` element (a lower-case tag name), for fragments.
  static std::unique_ptr<Document> parseFragment(std::string html, std::string_view context);

  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;
  ~Document();

  // The most nodes a tree holds: a node's links are 28 bits wide. Some 268 million nodes take
  // at least 800 MB of markup.
  static constexpr NodeId kMaxNodes = (NodeId{1} << 28) - 2;

  // The root: an element named "#root", parent of the html element, the doctype and the
  // comments around them.
  Node root() const { return {this, kRoot}; }
  // The source the document was parsed from.
  std::string_view source() const { return source_; }
  // The bytes of text the document holds besides its source, for tests and measurements.
  size_t arenaBytes() const { return arena_.size(); }

  // ---- reading by index: what Node asks, and the readers that walk the tree themselves -----

  NodeKind kindOf(NodeId id) const { return at(id).kind(); }
  NodeId parentOf(NodeId id) const { return at(id).parent(); }
  NodeId firstChildOf(NodeId id) const {
    const Record& r = at(id);
    return r.kind() == NodeKind::element ? r.down() : kNoNode;
  }
  NodeId lastChildOf(NodeId id) const {
    const NodeId first = firstChildOf(id);
    return first == kNoNode ? kNoNode : at(first).previous();
  }
  NodeId nextSiblingOf(NodeId id) const { return at(id).next(); }
  NodeId previousSiblingOf(NodeId id) const {
    const Record& r = at(id);
    return r.parent() == kNoNode || at(r.parent()).down() == id ? kNoNode : r.previous();
  }
  TagId tagOf(NodeId id) const { return at(id).tagOrUnknown(); }
  std::string_view nameOf(NodeId id) const;
  std::span<const Attribute> attributesOf(NodeId id) const;
  std::string_view contentOf(NodeId id) const;

 private:
  friend class Node;
  // The tree builder's side of the document, the only one that changes it.
  friend class DocumentBuilder;

  // The tag of a node known to be an element, as the tree builder asks it of its open and
  // formatting elements on every token.
  TagId elementTagOf(NodeId element) const { return at(element).tag(); }

  // ---- building ------------------------------------------------------------------------

  // `name` is read only for the `unknown` id, whose elements keep their own spelling.
  NodeId makeElement(TagId id, std::string_view name, const std::vector<Attribute>& attributes);
  // A new element of the same name and attributes as `element`. The two share one record of
  // name and attributes, so only elements whose attributes never change afterwards may be
  // copied: the tree builder copies formatting elements only and adds attributes only to the
  // html and body elements.
  NodeId makeCopy(NodeId element);
  // A text, data or comment node of these characters.
  NodeId makeCharacters(NodeKind kind, std::string_view characters);
  void appendCharacters(NodeId node, std::string_view characters);
  NodeId makeDocumentType(std::string_view name, std::string_view publicId,
                          std::string_view systemId);
  // Adds to the element's attributes those of `attributes` whose names it does not have yet.
  void addMissingAttributes(NodeId element, const std::vector<Attribute>& attributes);

  // `before` kNoNode appends. The child must have no parent.
  void insertChild(NodeId parent, NodeId child, NodeId before);
  void appendChild(NodeId parent, NodeId child) { insertChild(parent, child, kNoNode); }
  // Takes the node out of its parent's children; nothing for a node without a parent.
  void detach(NodeId child);

  // Whether the parser holds the element open while it builds the tree; no meaning after.
  bool parserOpen(NodeId id) const { return at(id).flags() & kParserOpen; }
  void setParserOpen(NodeId id, bool open) {
    Record& r = at(id);
    r.setFlags(static_cast<uint8_t>(open ? r.flags() | kParserOpen : r.flags() & ~kParserOpen));
  }

  // One node, 16 bytes: four links of 28 bits (parent; down; next sibling; previous sibling,
  // which for a first child is the last child of its parent), and in the 4 bits above each
  // link a quarter of the node's kind (3 bits), flags (3 bits) and a 10-bit payload: an
  // element's tag, a short span's length. An element's `down` is its first child, and its name
  // and attributes, when it has any, are found through `extraOf_`. A text, data or comment
  // node's characters are bytes at an offset of the source, or of the arena with kInArena:
  // with kInlineSpan its `down` is that offset and its payload the length, else its `down`
  // indexes the span in `spans_`. A doctype's `down` indexes doctypes_.
  // 16 bytes rather than the 24 of a plain struct: an element never closed is 5 bytes of
  // markup, and its node must stay within the few bytes per byte that a reading may take. The
  // span inline for the same reason: a quotation of one word is 13 bytes of markup.
  class Record {
   public:
    void init(NodeKind kind, TagId tag, uint32_t down) {
      init(kind, 0, static_cast<unsigned>(tag), down);
    }
    void init(NodeKind kind, uint8_t flags, uint32_t payload, uint32_t down) {
      words_[0] = words_[1] = words_[2] = words_[3] = kLinkMask;
      setDown(down);
      setMeta(static_cast<uint16_t>(static_cast<unsigned>(kind) | ((flags & 7u) << 3) |
                                    (payload << 6)));
    }
    NodeId parent() const { return link(0); }
    NodeId down() const { return link(1); }
    NodeId next() const { return link(2); }
    NodeId previous() const { return link(3); }
    void setParent(NodeId id) { setLink(0, id); }
    void setDown(NodeId id) { setLink(1, id); }
    void setNext(NodeId id) { setLink(2, id); }
    void setPrevious(NodeId id) { setLink(3, id); }
    NodeKind kind() const { return static_cast<NodeKind>(meta() & 7); }
    uint8_t flags() const { return static_cast<uint8_t>((meta() >> 3) & 7); }
    // An element's tag; for other nodes the payload is no tag (see tagOrUnknown()).
    TagId tag() const { return static_cast<TagId>(meta() >> 6); }
    TagId tagOrUnknown() const {
      const uint16_t m = meta();
      return (m & 7) == static_cast<unsigned>(NodeKind::element) ? static_cast<TagId>(m >> 6)
                                                                 : TagId::unknown;
    }
    uint32_t payload() const { return meta() >> 6; }
    void setFlags(uint8_t flags) {
      setMeta(static_cast<uint16_t>((meta() & ~(7u << 3)) | ((flags & 7u) << 3)));
    }
    void setPayload(uint32_t payload) {
      setMeta(static_cast<uint16_t>((meta() & 63u) | (payload << 6)));
    }

    static constexpr uint32_t kLinkMask = (uint32_t{1} << 28) - 1;  // also: no node
    static constexpr uint32_t kMostPayload = (uint32_t{1} << 10) - 1;

   private:
    NodeId link(int i) const {
      const uint32_t v = words_[i] & kLinkMask;
      return v == kLinkMask ? kNoNode : v;
    }
    void setLink(int i, NodeId id) {
      words_[i] = (words_[i] & ~kLinkMask) | (id == kNoNode ? kLinkMask : id);
    }
    uint16_t meta() const {
      return static_cast<uint16_t>((words_[0] >> 28) | (words_[1] >> 28) << 4 |
                                   (words_[2] >> 28) << 8 | (words_[3] >> 28) << 12);
    }
    void setMeta(uint16_t meta) {
      for (int i = 0; i < 4; ++i)
        words_[i] = (words_[i] & kLinkMask) | (uint32_t{(meta >> (4 * i)) & 15u} << 28);
    }
    uint32_t words_[4];
  };
  static_assert(sizeof(Record) == 16);
  static_assert(static_cast<unsigned>(TagId::unknown) <= Record::kMostPayload);
  static constexpr uint8_t kParserOpen = 1;  // element
  static constexpr uint8_t kInlineSpan = 1;  // text: its span is in its record
  static constexpr uint8_t kInArena = 2;     // text: its span is in the arena
  static constexpr uint8_t kHasExtra = 2;    // element: it has a name or attributes of its own
  // The arena span has room behind it up to the next power of two of its length.
  static constexpr uint8_t kHasRoom = 4;
  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr NodeId kRoot = 0;

  // Items in blocks of 256 KiB that never move: growing the store copies nothing, and its
  // peak is the items themselves, not the items and the copy of them a doubling array would
  // make. A store's first block comes from the allocator, which keeps it at hand for the next
  // small tree; every further block is mapped from the system and unmapped when the tree goes,
  // whatever the allocator would do with a request of its size: glibc's maps one of 256 KiB
  // only until a larger block has been freed, and serves it from its heap after that. A large
  // freed tree in the heap stays there, as a hole that what comes next rarely fits (the text
  // made from the tree, or the reply's request, built on another thread than the parse). The
  // pages of a block are only taken as they are written.
  static void* mapBlock(size_t bytes);
  static void unmapBlock(void* block, size_t bytes);
  template <typename T>
  class Blocks {
   public:
    Blocks() = default;
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    ~Blocks() {
      for (size_t b = 0; b < blocks_.size(); ++b) release(blocks_[b], b);
    }
    uint32_t size() const { return size_; }
    T& operator[](uint32_t i) { return blocks_[i >> kBits][i & kMask]; }
    const T& operator[](uint32_t i) const { return blocks_[i >> kBits][i & kMask]; }
    uint32_t push(const T& item) {
      if ((size_ & kMask) == 0) {
        const size_t b = blocks_.size();
        T* block = static_cast<T*>(b == 0 ? ::operator new(kBlockBytes) : mapBlock(kBlockBytes));
        try {
          blocks_.push_back(block);
        } catch (...) {
          release(block, b);
          throw;
        }
      }
      (*this)[size_] = item;
      return size_++;
    }

   private:
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
    static constexpr size_t kBlockBytes = size_t{256} << 10;
    static constexpr unsigned kBits = std::countr_zero(kBlockBytes / sizeof(T));
    static constexpr uint32_t kMask = (uint32_t{1} << kBits) - 1;
    static_assert(sizeof(T) << kBits == kBlockBytes);
    static void release(T* block, size_t b) {
      if (b == 0)
        ::operator delete(block);
      else
        unmapBlock(block, kBlockBytes);
    }
    std::vector<T*> blocks_;
    uint32_t size_ = 0;
  };

  // The characters of a text, data or comment node.
  struct Span {
    uint32_t offset;
    uint32_t length;
  };
  // An element that has an entry of extras_, by the element's id.
  struct ExtraOf {
    NodeId element;
    uint32_t extra;
  };

  struct Extra {
    std::string name;  // for the `unknown` tag only
    std::vector<Attribute> attributes;
  };
  struct Doctype {
    std::string name, publicId, systemId;
  };

  Document(std::string owned, std::string_view unowned, Attributes kept = Attributes::all);
  // `attributes`, or the ones of them this document keeps.
  std::vector<Attribute> keptOf(const std::vector<Attribute>& attributes) const;

  // Calls visit(id, record) on `root` and every node below it, parents before children,
  // without recursion.
  template <typename Visit>
  void walk(NodeId root, Visit visit) const;

  Record& at(NodeId id) { return records_[id]; }
  const Record& at(NodeId id) const { return records_[id]; }
  NodeId add(NodeKind kind, TagId tag, uint32_t down);
  NodeId add(const Record& r);
  NodeId addElement(TagId tag, uint32_t extra);
  // The entry of extras_ of an element; kNone when it has none.
  uint32_t extraOf(NodeId element) const;
  Span spanOf(const Record& r) const {
    return r.flags() & kInlineSpan ? Span{r.down(), r.payload()} : spans_[r.down()];
  }
  // Sets the span of a text, data or comment node: inline while it fits there, else in
  // spans_, where it then stays.
  void setSpan(Record& r, Span span) {
    if ((r.flags() & kInlineSpan) && span.offset < Record::kLinkMask &&
        span.length <= Record::kMostPayload) {
      r.setDown(span.offset);
      r.setPayload(span.length);
      return;
    }
    setSpanBeside(r, span);
  }
  void setSpanBeside(Record& r, Span span);
  bool inSource(std::string_view characters) const;
  std::string_view contentOf(const Record& r) const;

  std::string ownedSource_;
  std::string_view source_;
  std::string arena_;
  Blocks<Record> records_;
  Blocks<Span> spans_;
  // In the order of the elements' ids, which is the order they were made in; the html and body
  // elements, which may be given attributes after later elements were made, in lateExtras_.
  Blocks<ExtraOf> extraOf_;
  std::vector<ExtraOf> lateExtras_;
  std::vector<Extra> extras_;
  Attributes kept_ = Attributes::all;
  std::vector<Doctype> doctypes_;
};

}  // namespace lumora::html
