#include "lumora/mailcontent/html/Document.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <stdexcept>

#include "lumora/platform/Text.h"

namespace lumora::html {

// ---- the store ---------------------------------------------------------------------------

void* Document::mapBlock(size_t bytes) {
  void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (block == MAP_FAILED) throw std::bad_alloc();
  return block;
}

void Document::unmapBlock(void* block, size_t bytes) { munmap(block, bytes); }

Document::Document(std::string owned, std::string_view unowned, Attributes kept)
    : ownedSource_(std::move(owned)), kept_(kept) {
  // The view is taken here, once the string has its place: a short string's characters live
  // inside the string object itself.
  source_ = unowned.data() ? unowned : std::string_view(ownedSource_);
  if (source_.size() >= kNone) throw std::length_error("HTML source over 4 GiB");
  extras_.push_back({"#root", {}});
  addElement(TagId::unknown, 0);
}

Document::~Document() = default;

NodeId Document::add(NodeKind kind, TagId tag, uint32_t down) {
  Record r;
  r.init(kind, tag, down);
  return add(r);
}

NodeId Document::add(const Record& r) {
  if (records_.size() >= kMaxNodes) throw std::length_error("HTML tree of too many nodes");
  return records_.push(r);
}

NodeId Document::addElement(TagId tag, uint32_t extra) {
  const NodeId id = add(NodeKind::element, tag, kNoNode);
  if (extra != kNone) {
    extraOf_.push({id, extra});
    at(id).setFlags(kHasExtra);
  }
  return id;
}

uint32_t Document::extraOf(NodeId element) const {
  if (!(at(element).flags() & kHasExtra)) return kNone;
  // Ids were added in increasing order.
  uint32_t low = 0, high = extraOf_.size();
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (extraOf_[middle].element < element)
      low = middle + 1;
    else
      high = middle;
  }
  if (low < extraOf_.size() && extraOf_[low].element == element) return extraOf_[low].extra;
  for (const ExtraOf& late : lateExtras_)
    if (late.element == element) return late.extra;
  return kNone;
}

bool Document::inSource(std::string_view characters) const {
  // Compared as integers: the characters may come from any buffer, and pointers into
  // different objects have no order of their own.
  const auto at = reinterpret_cast<uintptr_t>(characters.data());
  const auto start = reinterpret_cast<uintptr_t>(source_.data());
  return characters.size() <= source_.size() && at >= start &&
         at - start <= source_.size() - characters.size();
}

std::string_view Document::nameOf(NodeId id) const {
  const Record& r = at(id);
  if (r.kind() != NodeKind::element) return {};
  if (r.tag() != TagId::unknown) return tagNameOf(r.tag());
  const uint32_t extra = extraOf(id);
  return extra == kNone ? std::string_view() : std::string_view(extras_[extra].name);
}

std::span<const Attribute> Document::attributesOf(NodeId id) const {
  if (at(id).kind() != NodeKind::element) return {};
  const uint32_t extra = extraOf(id);
  if (extra == kNone) return {};
  return extras_[extra].attributes;
}

std::string_view Document::contentOf(NodeId id) const { return contentOf(at(id)); }

std::string_view Document::contentOf(const Record& r) const {
  switch (r.kind()) {
    case NodeKind::text:
    case NodeKind::data:
    case NodeKind::comment: {
      const Span span = spanOf(r);
      return r.flags() & kInArena ? std::string_view(arena_).substr(span.offset, span.length)
                                  : source_.substr(span.offset, span.length);
    }
    case NodeKind::element:
    case NodeKind::doctype:
      break;
  }
  return {};
}

std::vector<Attribute> Document::keptOf(const std::vector<Attribute>& attributes) const {
  if (kept_ == Attributes::all) return attributes;
  std::vector<Attribute> kept;
  for (const Attribute& a : attributes)
    if (a.name == "class" || a.name == "id") kept.push_back(a);
  return kept;
}

NodeId Document::makeElement(TagId id, std::string_view name,
                             const std::vector<Attribute>& attributes) {
  uint32_t extra = kNone;
  if (kept_ == Attributes::all) {
    if (id == TagId::unknown || !attributes.empty()) {
      extra = static_cast<uint32_t>(extras_.size());
      extras_.push_back({id == TagId::unknown ? std::string(name) : std::string(), attributes});
    }
  } else {
    std::vector<Attribute> kept = keptOf(attributes);
    if (id == TagId::unknown || !kept.empty()) {
      extra = static_cast<uint32_t>(extras_.size());
      extras_.push_back({id == TagId::unknown ? std::string(name) : std::string(), std::move(kept)});
    }
  }
  return addElement(id, extra);
}

NodeId Document::makeCopy(NodeId element) { return addElement(at(element).tag(), extraOf(element)); }

void Document::addMissingAttributes(NodeId element, const std::vector<Attribute>& offered) {
  const std::vector<Attribute> attributes = keptOf(offered);
  uint32_t extra = extraOf(element);
  for (const Attribute& attribute : attributes) {
    if (extra == kNone) {
      extra = static_cast<uint32_t>(extras_.size());
      extras_.emplace_back();
      lateExtras_.push_back({element, extra});
      at(element).setFlags(at(element).flags() | kHasExtra);
    }
    auto& mine = extras_[extra].attributes;
    const bool has = std::any_of(mine.begin(), mine.end(),
                                 [&](const Attribute& a) { return a.name == attribute.name; });
    if (!has) mine.push_back(attribute);
  }
}

NodeId Document::makeDocumentType(std::string_view name, std::string_view publicId,
                                  std::string_view systemId) {
  doctypes_.push_back({std::string(name), std::string(publicId), std::string(systemId)});
  return add(NodeKind::doctype, TagId::unknown, static_cast<uint32_t>(doctypes_.size() - 1));
}

// ---- text --------------------------------------------------------------------------------
//
// A span of the source stays one as long as what is appended to it follows it there. Other
// text goes to the end of the arena exactly as long as it is, since most of it is never
// appended to. A span that is appended to and cannot grow where it lies moves to the end of
// the arena with room up to the next power of two of its length: two nodes appended to in
// turn then move a logarithmic number of times, not once per append, and the copying stays
// linear in the text.

void Document::setSpanBeside(Record& r, Span span) {
  if (r.flags() & kInlineSpan) {
    r.setFlags(r.flags() & ~kInlineSpan);
    r.setDown(spans_.push(span));
    return;
  }
  spans_[r.down()] = span;
}

NodeId Document::makeCharacters(NodeKind kind, std::string_view characters) {
  // The span is made first: a node whose span failed must not be left behind.
  const bool inArena = !inSource(characters);
  Span span{0, static_cast<uint32_t>(characters.size())};
  if (inArena) {
    const size_t start = arena_.size();
    if (characters.size() >= kNone - start) throw std::length_error("HTML text over 4 GiB");
    arena_.append(characters);
    span.offset = static_cast<uint32_t>(start);
  } else {
    span.offset = static_cast<uint32_t>(characters.data() - source_.data());
  }
  const uint8_t flags = inArena ? kInArena : 0;
  Record r;
  if (span.offset < Record::kLinkMask && span.length <= Record::kMostPayload) {
    r.init(kind, static_cast<uint8_t>(flags | kInlineSpan), span.length, span.offset);
    return add(r);
  }
  r.init(kind, flags, static_cast<unsigned>(TagId::unknown), spans_.size());
  const NodeId id = add(r);
  spans_.push(span);
  return id;
}

void Document::appendCharacters(NodeId id, std::string_view more) {
  if (more.empty()) return;
  Record& r = at(id);
  Span span = spanOf(r);
  const bool inArena = r.flags() & kInArena;
  if (!inArena && inSource(more) && more.data() == source_.data() + span.offset + span.length) {
    span.length += static_cast<uint32_t>(more.size());
    setSpan(r, span);
    return;
  }
  const size_t length = size_t{span.length} + more.size();
  if (length >= kNone) throw std::length_error("HTML text over 4 GiB");
  const size_t capacity = r.flags() & kHasRoom ? std::bit_ceil(size_t{span.length}) : span.length;
  if (inArena && length <= capacity) {
    std::memcpy(arena_.data() + span.offset + span.length, more.data(), more.size());
    span.length = static_cast<uint32_t>(length);
    setSpan(r, span);
    return;
  }
  const size_t room = std::bit_ceil(length);
  if (inArena && span.offset + capacity == arena_.size()) {
    // The last span of the arena grows where it is.
    if (room >= kNone - span.offset) throw std::length_error("HTML text over 4 GiB");
    arena_.resize(span.offset + room);
  } else {
    const size_t start = arena_.size();
    if (room >= kNone - start) throw std::length_error("HTML text over 4 GiB");
    arena_.resize(start + room);
    // Read the old text only now: growing the arena may have moved it.
    const char* old = (inArena ? arena_.data() : source_.data()) + span.offset;
    std::memcpy(arena_.data() + start, old, span.length);
    span.offset = static_cast<uint32_t>(start);
  }
  std::memcpy(arena_.data() + span.offset + span.length, more.data(), more.size());
  span.length = static_cast<uint32_t>(length);
  r.setFlags(r.flags() | kInArena | kHasRoom);
  setSpan(r, span);
}

// ---- links -------------------------------------------------------------------------------

void Document::insertChild(NodeId parent, NodeId child, NodeId before) {
  Record& p = at(parent);
  Record& c = at(child);
  c.setParent(parent);
  c.setNext(before);
  if (p.down() == kNoNode) {
    p.setDown(child);
    c.setPrevious(child);
    return;
  }
  Record& first = at(p.down());
  if (before == kNoNode) {
    c.setPrevious(first.previous());
    at(first.previous()).setNext(child);
    first.setPrevious(child);
    return;
  }
  Record& b = at(before);
  c.setPrevious(b.previous());
  if (p.down() == before)
    p.setDown(child);
  else
    at(b.previous()).setNext(child);
  b.setPrevious(child);
}

void Document::detach(NodeId child) {
  Record& c = at(child);
  if (c.parent() == kNoNode) return;
  Record& p = at(c.parent());
  Record& first = at(p.down());
  if (p.down() == child) {
    p.setDown(c.next());
    if (c.next() != kNoNode) at(c.next()).setPrevious(c.previous());
  } else {
    at(c.previous()).setNext(c.next());
    // The last child is the first child's previous: a new last child is written there.
    (c.next() != kNoNode ? at(c.next()) : first).setPrevious(c.previous());
  }
  c.setParent(kNoNode);
  c.setNext(kNoNode);
  c.setPrevious(kNoNode);
}

// ---- reading -----------------------------------------------------------------------------

NodeKind Node::kind() const { return document_->kindOf(id_); }
Node Node::parent() const { return {document_, document_->parentOf(id_)}; }
Node Node::firstChild() const { return {document_, document_->firstChildOf(id_)}; }
Node Node::lastChild() const { return {document_, document_->lastChildOf(id_)}; }
Node Node::nextSibling() const { return {document_, document_->nextSiblingOf(id_)}; }
Node Node::previousSibling() const { return {document_, document_->previousSiblingOf(id_)}; }
TagId Node::tagId() const { return document_->tagOf(id_); }
std::string_view Node::tagName() const { return document_->nameOf(id_); }
std::span<const Attribute> Node::attributes() const { return document_->attributesOf(id_); }
std::string_view Node::content() const { return document_->contentOf(id_); }

std::string_view Node::doctypeName() const {
  return kind() == NodeKind::doctype ? document_->doctypes_[document_->at(id_).down()].name
                                     : std::string_view();
}
std::string_view Node::publicId() const {
  return kind() == NodeKind::doctype ? document_->doctypes_[document_->at(id_).down()].publicId
                                     : std::string_view();
}
std::string_view Node::systemId() const {
  return kind() == NodeKind::doctype ? document_->doctypes_[document_->at(id_).down()].systemId
                                     : std::string_view();
}

// Reads each record once per visit: a quotation's text walks every node below it, and nested
// quotations walk the same nodes again for each level.
template <typename Visit>
void Document::walk(NodeId root, Visit visit) const {
  NodeId id = root;
  while (true) {
    const Record* r = &at(id);
    visit(id, *r);
    if (r->kind() == NodeKind::element && r->down() != kNoNode) {
      id = r->down();
      continue;
    }
    while (id != root && r->next() == kNoNode) {
      id = r->parent();
      r = &at(id);
    }
    if (id == root) return;
    id = r->next();
  }
}

namespace {

bool isBareTagName(std::string_view query) {
  if (query.empty()) return false;
  for (const char c : query) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '_' || c == ':';
    if (!ok) return false;
  }
  return true;
}

// The five whitespace characters of HTML text; CR LF counts as one run anyway.
bool isHtmlWhitespace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

bool endsInSpace(const std::string& s) { return !s.empty() && s.back() == ' '; }

void appendNormalised(std::string& out, std::string_view text) {
  size_t i = 0;
  if (endsInSpace(out)) {
    while (i < text.size() && isHtmlWhitespace(text[i])) ++i;
  }
  while (i < text.size()) {
    if (isHtmlWhitespace(text[i])) {
      while (i < text.size() && isHtmlWhitespace(text[i])) ++i;
      out += ' ';
    } else {
      // Copy the run up to the next whitespace at once.
      const size_t start = i;
      while (i < text.size() && !isHtmlWhitespace(text[i])) ++i;
      out.append(text, start, i - start);
    }
  }
}

// The final trim, only when the text begins or ends in HTML whitespace: then every kind of
// white space and line separator goes from both ends, a no-break space too.
std::string trimmed(std::string text) {
  if (text.empty() || (!isHtmlWhitespace(text.front()) && !isHtmlWhitespace(text.back())))
    return text;
  return std::string(text::trimmed(text));
}

}  // namespace

void Node::forEachSelected(std::string_view query, const std::function<bool(Node)>& visit) const {
  if (!isBareTagName(query)) throw std::invalid_argument("unsupported query");
  const Document& document = *document_;
  // Known names are compared by id; only elements of unknown tags keep a name to compare.
  const TagId wanted = tagIdOf(query);
  bool going = true;
  document.walk(id_, [&](NodeId node, const Document::Record& r) {
    if (!going || r.kind() != NodeKind::element || r.tag() != wanted) return;
    if (wanted == TagId::unknown && document.nameOf(node) != query) return;
    going = visit(Node(document_, node));
  });
}

Elements Node::select(std::string_view query) const {
  Elements result(document_);
  forEachSelected(query, [&](Node node) {
    result.add(node.id());
    return true;
  });
  return result;
}

std::string Node::text(bool trimAndNormaliseWhitespace) const {
  const Document& document = *document_;
  std::string out;
  // Whitespace is kept inside an element that preserves it and one level below.
  const auto preserved = [&](const Document::Record& r) {
    if (r.parent() == kNoNode) return false;
    const Document::Record& parent = document.at(r.parent());
    return preservesWhitespace(parent.tag()) ||
           (parent.parent() != kNoNode && preservesWhitespace(document.at(parent.parent()).tag()));
  };
  document.walk(id_, [&](NodeId, const Document::Record& r) {
    switch (r.kind()) {
      case NodeKind::text: {
        const std::string_view text = document.contentOf(r);
        if (!trimAndNormaliseWhitespace || preserved(r))
          out += text;
        else
          appendNormalised(out, text);
        break;
      }
      case NodeKind::element: {
        if (trimAndNormaliseWhitespace && !out.empty() && (isBlockTag(r.tag()) || r.tag() == TagId::br) &&
            !endsInSpace(out))
          out += ' ';
        break;
      }
      case NodeKind::data:
      case NodeKind::comment:
      case NodeKind::doctype:
        break;
    }
  });
  return trimAndNormaliseWhitespace ? trimmed(std::move(out)) : out;
}

}  // namespace lumora::html
