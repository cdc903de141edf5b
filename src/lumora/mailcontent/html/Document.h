// The document tree of an HTML source, and the two things the mail reading asks of it: the
// elements of a tag name, and the text of an element.
//
// A 10 MB message makes a tree of half a million nodes, so a node is a small record rather
// than an object: 24 bytes in a store owned by the Document, named by its 32-bit index. The
// records link to parent, first child and siblings (the last child is the first child's
// previous sibling), so moving a node is constant time, teardown frees a few large blocks, and
// the walks below never recurse. Text is not copied where it stands in the source as it is:
// a text node is a span of the source the Document keeps, and only text that differs from its
// source (character references, replaced NULs, text joined from separate places) is written to
// an arena of the Document's own.
//
// Thread safety: a Document is built by one thread; once parse returns, reading it from several
// threads is safe.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
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
  void add(NodeId id) { ids_.push_back(id); }

 private:
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

  // Parses any text into a document; nothing is an error but a source or a tree too large for
  // 32-bit offsets and indices (4 GiB), which throws std::length_error. The document keeps
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

  // The root: an element named "#root", parent of the html element, the doctype and the
  // comments around them.
  Node root() const { return {this, kRoot}; }
  // The source the document was parsed from.
  std::string_view source() const { return source_; }
  // The bytes of text the document holds besides its source, for tests and measurements.
  size_t arenaBytes() const { return arena_.size(); }

  // ---- reading by index: what Node asks, and the tree builder ----------------------------

  NodeKind kindOf(NodeId id) const { return static_cast<NodeKind>(at(id).kind); }
  NodeId parentOf(NodeId id) const { return at(id).parent; }
  NodeId firstChildOf(NodeId id) const {
    const Record& r = at(id);
    return r.kind == static_cast<uint8_t>(NodeKind::element) ? r.down : kNoNode;
  }
  NodeId lastChildOf(NodeId id) const {
    const NodeId first = firstChildOf(id);
    return first == kNoNode ? kNoNode : at(first).previous;
  }
  NodeId nextSiblingOf(NodeId id) const { return at(id).next; }
  NodeId previousSiblingOf(NodeId id) const {
    const Record& r = at(id);
    return r.parent == kNoNode || at(r.parent).down == id ? kNoNode : r.previous;
  }
  TagId tagOf(NodeId id) const { return at(id).tag; }
  std::string_view nameOf(NodeId id) const;
  std::span<const Attribute> attributesOf(NodeId id) const;
  std::string_view contentOf(NodeId id) const;

  // ---- building, for the tree builder -----------------------------------------------------

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
  bool parserOpen(NodeId id) const { return at(id).flags & kParserOpen; }
  void setParserOpen(NodeId id, bool open) {
    Record& r = at(id);
    r.flags = static_cast<uint8_t>(open ? r.flags | kParserOpen : r.flags & ~kParserOpen);
  }

 private:
  friend class Node;

  // One node, 24 bytes. Elements: `down` is the first child, `a` the index of their name and
  // attributes in extras_, or kNone when they have neither (a known tag without attributes).
  // Text, data and comments, which have no children: the span of `down` bytes at `a` in the
  // source, or in the arena with kInArena. Doctypes: `a` indexes doctypes_.
  struct Record {
    NodeId parent;
    uint32_t down;
    NodeId next;
    NodeId previous;  // for a first child: the last child of its parent
    uint8_t kind;
    TagId tag;
    uint8_t flags;
    uint32_t a;
  };
  static_assert(sizeof(Record) == 24);
  static constexpr uint8_t kParserOpen = 1;
  static constexpr uint8_t kInArena = 2;
  // The arena span has room behind it up to the next power of two of its length.
  static constexpr uint8_t kHasRoom = 4;
  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr NodeId kRoot = 0;
  // Records come in blocks of 8,192 (192 KiB) that never move: growing the store copies
  // nothing, and its peak is the tree itself, not the tree and the copy of it a doubling
  // array would make. A block is larger than the 128 KiB from which glibc's allocator maps a
  // request from the system and unmaps it when freed (its default, which only a larger block
  // freed earlier raises): a freed tree goes back to the system, where a block from the
  // allocator's heap would stay with the thread that parsed, and the reply's request is built
  // on another.
  static constexpr unsigned kBlockBits = 13;
  static constexpr NodeId kBlockMask = (NodeId{1} << kBlockBits) - 1;

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

  Record& at(NodeId id) { return blocks_[id >> kBlockBits][id & kBlockMask]; }
  const Record& at(NodeId id) const { return blocks_[id >> kBlockBits][id & kBlockMask]; }
  NodeId add(NodeKind kind, TagId tag, uint32_t a, uint32_t down);
  bool inSource(std::string_view characters) const;
  std::string_view contentOf(const Record& r) const;

  std::string ownedSource_;
  std::string_view source_;
  std::string arena_;
  std::vector<std::unique_ptr<Record[]>> blocks_;
  NodeId count_ = 0;
  std::vector<Extra> extras_;
  Attributes kept_ = Attributes::all;
  std::vector<Doctype> doctypes_;
};

}  // namespace lumora::html
