// The tree construction: tokens in, the Document's tree out, insertion mode by insertion mode.
// There is no foreign content and no template insertion mode: svg, math and template are
// ordinary elements.
//
// This header holds the driver, which TreeBuilder.cc defines: the stack of open elements, the
// list of active formatting elements, the insertion mode, its dispatch and reprocessing, and
// the ways nodes are inserted. The insertion modes are defined by family: the body in
// InBody.cc, the table modes in TableModes.cc, the select modes in SelectModes.cc, and the
// modes around the body (before and in the head, text, after the body, framesets) in
// OuterModes.cc.
//
// Every scan of the stacks is bounded by their limits below, and nothing recurses on the
// input: a mode hands a token to another mode at most a fixed few times.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/html/Tags.h"
#include "lumora/mailcontent/html/Tokenizer.h"

namespace lumora::html {

// The Document's mutating side, which only the tree builder uses, together with the reading
// calls the builder makes while it builds.
class DocumentBuilder {
 public:
  explicit DocumentBuilder(Document& document) : document_(document) {}

  NodeId root() const { return document_.root().id(); }
  NodeKind kindOf(NodeId id) const { return document_.kindOf(id); }
  NodeId parentOf(NodeId id) const { return document_.parentOf(id); }
  NodeId firstChildOf(NodeId id) const { return document_.firstChildOf(id); }
  NodeId lastChildOf(NodeId id) const { return document_.lastChildOf(id); }
  NodeId previousSiblingOf(NodeId id) const { return document_.previousSiblingOf(id); }
  // Asked of elements only.
  TagId tagOf(NodeId element) const { return document_.elementTagOf(element); }
  std::string_view nameOf(NodeId id) const { return document_.nameOf(id); }
  std::span<const Attribute> attributesOf(NodeId id) const { return document_.attributesOf(id); }

  NodeId makeElement(TagId id, std::string_view name, const std::vector<Attribute>& attributes) {
    return document_.makeElement(id, name, attributes);
  }
  NodeId makeCopy(NodeId element) { return document_.makeCopy(element); }
  NodeId makeCharacters(NodeKind kind, std::string_view characters) {
    return document_.makeCharacters(kind, characters);
  }
  void appendCharacters(NodeId node, std::string_view characters) {
    document_.appendCharacters(node, characters);
  }
  NodeId makeDocumentType(std::string_view name, std::string_view publicId,
                          std::string_view systemId) {
    return document_.makeDocumentType(name, publicId, systemId);
  }
  void addMissingAttributes(NodeId element, const std::vector<Attribute>& attributes) {
    document_.addMissingAttributes(element, attributes);
  }
  void insertChild(NodeId parent, NodeId child, NodeId before) {
    document_.insertChild(parent, child, before);
  }
  void appendChild(NodeId parent, NodeId child) { document_.appendChild(parent, child); }
  void detach(NodeId child) { document_.detach(child); }
  bool parserOpen(NodeId id) const { return document_.parserOpen(id); }
  void setParserOpen(NodeId id, bool open) { document_.setParserOpen(id, open); }

 private:
  Document& document_;
};

// Something for each tag id: the tags a rule is written for, kept as data.
template <typename Value>
using TagMap = std::array<Value, static_cast<size_t>(TagId::unknown) + 1>;

template <typename Value>
struct TagGroup {
  Value value;
  std::initializer_list<TagId> tags;
};

// Every tag of a group maps to the group's value; the rest to Value{}.
template <typename Value>
constexpr TagMap<Value> mapTags(std::initializer_list<TagGroup<Value>> groups) {
  TagMap<Value> map{};
  for (const TagGroup<Value>& group : groups)
    for (const TagId id : group.tags) map[static_cast<size_t>(id)] = group.value;
  return map;
}

// Whether a DOCTYPE puts the document in quirks mode, where a table does not close an open p.
bool isQuirksDoctype(const Token& doctype);

class TreeBuilder {
 public:
  TreeBuilder(Document& document, std::string_view html);

  void parseDocument();
  // As the children of `context`, a lower-case tag name.
  void parseFragment(std::string_view context);

 private:
  using T = TagId;

  enum class InsertionMode {
    initial,
    beforeHtml,
    beforeHead,
    inHead,
    inHeadNoscript,
    afterHead,
    inBody,
    text,
    inTable,
    inTableText,
    inCaption,
    inColumnGroup,
    inTableBody,
    inRow,
    inCell,
    inSelect,
    inSelectInTable,
    afterBody,
    inFrameset,
    afterFrameset,
    afterAfterBody,
    afterAfterFrameset,
  };

  // What an insertion mode asks of the driver after a token.
  enum class Action { done, reprocess };

  // A token as the insertion modes see it: characters come split into runs of whitespace, runs
  // of other characters, and single U+0000 characters.
  struct Input {
    enum class Kind { doctype, startTag, endTag, comment, whitespace, characters, null, endOfFile };
    Input(Kind kind, const Token* token = nullptr, TagId id = TagId::unknown,
          std::string_view text = {})
        : kind(kind), token(token), id(id), text(text) {}
    Kind kind;
    const Token* token = nullptr;  // for doctype, tags and comments
    TagId id = TagId::unknown;     // for tags
    std::string_view text;         // for characters
    bool isStart(TagId t) const { return kind == Kind::startTag && id == t; }
    bool isEnd(TagId t) const { return kind == Kind::endTag && id == t; }
    bool isStartOf(std::initializer_list<TagId> ids) const {
      return kind == Kind::startTag && isOneOf(id, ids);
    }
    bool isEndOf(std::initializer_list<TagId> ids) const {
      return kind == Kind::endTag && isOneOf(id, ids);
    }
    const std::string& name() const { return token->name; }
  };
  using K = Input::Kind;

  // What a mode does with the tokens that most modes open with, before anything of its own:
  // whitespace, comments, a DOCTYPE (which all of them ignore) and an html start tag.
  struct Opening {
    enum class Whitespace : uint8_t { own, ignore, insert, asInBody };
    enum class Comment : uint8_t { atPlace, onDocument, onHtmlElement };
    Whitespace whitespace;
    Comment comment;
    bool htmlStartAsInBody;
  };
  using Ws = Opening::Whitespace;
  using Co = Opening::Comment;

  enum class Scope { normal, listItem, button, table, select };

  struct Place {
    NodeId parent;
    NodeId before;  // kNoNode: at the end
  };

  template <typename... Ids>
  static bool oneOf(TagId id, Ids... ids) {
    return ((id == ids) || ...);
  }
  static bool isOneOf(TagId id, std::initializer_list<TagId> ids) {
    for (const TagId candidate : ids)
      if (id == candidate) return true;
    return false;
  }

  // ---- the driver (TreeBuilder.cc) ---------------------------------------------------------

  void run();
  void feedCharacters(std::string_view text);
  void feed(const Input& in) {
    while (process(mode_, in) == Action::reprocess) {
    }
  }
  Action process(InsertionMode mode, const Input& in);
  // Feeds a token made up here, as if the tokenizer had produced it.
  void feedMade(Token::Type type, TagId id, std::vector<Attribute> attributes = {});
  // The token handled as `how` says, or nullopt when it is the mode's own to handle.
  std::optional<Action> opening(const Input& in, Opening how);

  // ---- the stack of open elements ---------------------------------------------------------

  NodeId current() const { return open_.empty() ? kNoNode : open_.back(); }
  bool currentIs(TagId id) const { return !open_.empty() && doc_.tagOf(open_.back()) == id; }

  void push(NodeId e) {
    open_.push_back(e);
    opened(e);
  }
  void pop() {
    closed(open_.back());
    open_.pop_back();
  }
  // Every change to the stack goes through these two, which keep the per-tag counts and each
  // element's own mark.
  void opened(NodeId e) {
    ++count_[static_cast<size_t>(doc_.tagOf(e))];
    doc_.setParserOpen(e, true);
  }
  void closed(NodeId e) {
    --count_[static_cast<size_t>(doc_.tagOf(e))];
    doc_.setParserOpen(e, false);
  }
  // These pop up to and including the nearest open element asked for. When none is open they
  // leave the stack alone: the nesting limit can close an element that its insertion mode still
  // counts on (a cell, say), and emptying the stack down to the root would leave no current node.
  template <typename... Ids>
  void popUntilOneOf(Ids... ids) {
    if ((count_[static_cast<size_t>(ids)] + ...) == 0) return;
    while (true) {
      const bool found = oneOf(doc_.tagOf(open_.back()), ids...);
      pop();
      if (found) return;
    }
  }
  void popUntil(TagId id) { popUntilOneOf(id); }
  void popUntilElement(NodeId e);
  bool isOpen(NodeId e) const { return doc_.parserOpen(e); }
  void removeFromStack(NodeId e);

  static bool endsScope(TagId id, Scope scope);
  template <typename... Ids>
  bool inScope(Scope scope, Ids... targets) const {
    if ((count_[static_cast<size_t>(targets)] + ...) == 0) return false;
    for (auto it = open_.rbegin(); it != open_.rend(); ++it) {
      const TagId id = doc_.tagOf(*it);
      if (oneOf(id, targets...)) return true;
      if (endsScope(id, scope)) return false;
    }
    return false;
  }
  bool elementInScope(NodeId target) const;

  void generateImpliedEndTags(TagId except = T::unknown);
  void closeP();
  void closePInButtonScope() {
    if (inScope(Scope::button, T::p)) closeP();
  }
  template <typename... Ids>
  void clearBackTo(Ids... ids) {
    while (!open_.empty() && !oneOf(doc_.tagOf(open_.back()), ids...)) pop();
  }
  void clearToTableContext() { clearBackTo(T::table, T::template_, T::html); }
  void clearToTableBodyContext() {
    clearBackTo(T::tbody, T::tfoot, T::thead, T::template_, T::html);
  }
  void clearToTableRowContext() { clearBackTo(T::tr, T::template_, T::html); }
  // Pops up to the nearest `id` and sets the mode the stack then calls for.
  void popUntilAndReset(TagId id) {
    popUntil(id);
    resetInsertionMode();
  }
  void resetInsertionMode();

  // ---- inserting --------------------------------------------------------------------------

  Place appropriatePlace(NodeId target = kNoNode) const;
  NodeId createElement(const Input& in) {
    return doc_.makeElement(in.id, in.token->name, in.token->attributes);
  }
  // Inserts an element for the start tag and makes it the current node.
  NodeId insertElement(const Input& in) { return insertElement(createElement(in)); }
  NodeId insertElement(NodeId element);
  NodeId insertMade(TagId id) { return insertElement(doc_.makeElement(id, {}, {})); }
  void insertVoid(const Input& in) {
    insertElement(in);
    pop();
  }
  void insertCharacters(std::string_view text);
  void insertComment(const Input& in, NodeId parent = kNoNode);
  void genericText(const Input& in, TokenizerState state);

  // ---- the list of active formatting elements (a kNoNode entry is a marker) ----------------

  // Whether two elements have one name: known tags by their id, others by their spelling.
  bool sameName(NodeId a, NodeId b) const {
    const TagId id = doc_.tagOf(a);
    return id == doc_.tagOf(b) && (id != T::unknown || doc_.nameOf(a) == doc_.nameOf(b));
  }
  // Whether an element has the name of the tag `in`.
  bool hasName(NodeId element, const Input& in) const {
    const TagId id = doc_.tagOf(element);
    return id == in.id && (id != T::unknown || doc_.nameOf(element) == in.name());
  }
  bool sameAttributes(NodeId a, NodeId b) const;
  size_t afterLastMarker() const;
  void pushFormatting(NodeId element);
  void insertMarker() { formatting_.push_back(kNoNode); }
  void clearFormattingToLastMarker();
  size_t formattingIndexOf(NodeId e) const;
  void eraseFormatting(size_t index) {
    formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(index));
  }
  void reconstructFormatting();
  // Returns false when the end tag is to be handled as "any other end tag".
  bool adoptionAgency(const Input& in);
  // One round of it: moves what stands below the furthest block out from under the formatting
  // element.
  void adoptFurthestBlock(NodeId formattingElement, size_t formattingIndex, size_t stackIndex,
                          size_t furthestIndex);

  // ---- the modes around the body (OuterModes.cc) ------------------------------------------

  Action initial(const Input& in);
  Action beforeHtml(const Input& in);
  Action beforeHead(const Input& in);
  Action inHead(const Input& in);
  Action inHeadNoscript(const Input& in);
  Action afterHead(const Input& in);
  // The start tag's inHead handling from a mode after the head, with the head open meanwhile.
  Action inHeadReopened(const Input& in);
  Action textMode(const Input& in);
  // What follows the body: the end of the input stops, anything else is body content again.
  Action backToBody(const Input& in);
  Action afterBody(const Input& in);
  Action inFrameset(const Input& in);
  Action afterFrameset(const Input& in);
  Action afterAfterBody(const Input& in);
  Action afterAfterFrameset(const Input& in);

  // ---- the body (InBody.cc) ----------------------------------------------------------------

  Action inBody(const Input& in);
  Action inBodyStartTag(const Input& in);
  Action inBodyEndTag(const Input& in);
  Action inBodyInlineStart(const Input& in);
  void startListItem(const Input& in);
  void startAnchor(const Input& in);
  void startSelect(const Input& in);
  void isindex(const Input& in);
  // Closes the nearest open element named like the tag, unless a special element is nearer.
  void anyOtherEndTag(const Input& in);
  // The adoption agency, and when it finds nothing to adopt, the end tag's ordinary handling.
  void adopt(const Input& in) {
    if (!adoptionAgency(in)) anyOtherEndTag(in);
  }

  // ---- the tables (TableModes.cc) ----------------------------------------------------------

  Action inTable(const Input& in);
  // The start tags the table handles itself; nullopt for those it hands on to the body.
  std::optional<Action> inTableStartTag(const Input& in);
  Action inTableText(const Input& in);
  Action inCaption(const Input& in);
  Action inColumnGroup(const Input& in);
  Action inTableBody(const Input& in);
  Action inRow(const Input& in);
  Action inCell(const Input& in);
  bool closeCaption();
  void closeCell();
  // Closes the open table body (`part` tbody) or row (tr) when `inScope`, back to the mode
  // around it; the token then goes on as `then` says. When not in scope it is ignored.
  Action closeTablePart(TagId part, bool inScope, Action then);

  // ---- the select element (SelectModes.cc) -------------------------------------------------

  Action inSelect(const Input& in);
  Action inSelectInTable(const Input& in);

  DocumentBuilder doc_;
  const NodeId root_;
  Tokenizer tokenizer_;
  InsertionMode mode_ = InsertionMode::initial;
  InsertionMode originalMode_ = InsertionMode::initial;
  std::vector<NodeId> open_;
  std::array<uint32_t, static_cast<size_t>(TagId::unknown) + 1> count_{};
  std::vector<NodeId> formatting_;
  NodeId head_ = kNoNode;
  NodeId form_ = kNoNode;
  bool framesetOk_ = true;
  bool fosterParenting_ = false;
  bool quirks_ = false;
  bool stopped_ = false;
  std::string pendingTableText_;
  bool pendingHasNonWhitespace_ = false;
  bool hasContext_ = false;
  TagId contextId_ = TagId::unknown;
};

// Inline, so that each mode has its `how` folded in: most tokens pass here.
inline std::optional<TreeBuilder::Action> TreeBuilder::opening(const Input& in, Opening how) {
  switch (in.kind) {
    case K::whitespace:
      switch (how.whitespace) {
        case Ws::own:
          return std::nullopt;
        case Ws::ignore:
          return Action::done;
        case Ws::insert:
          insertCharacters(in.text);
          return Action::done;
        case Ws::asInBody:
          return inBody(in);
      }
      return std::nullopt;
    case K::comment:
      switch (how.comment) {
        case Co::atPlace:
          insertComment(in);
          break;
        case Co::onDocument:
          insertComment(in, root_);
          break;
        case Co::onHtmlElement:
          insertComment(in, open_.front());
          break;
      }
      return Action::done;
    case K::doctype:
      return Action::done;
    case K::startTag:
      if (how.htmlStartAsInBody && in.id == T::html) return inBody(in);
      return std::nullopt;
    default:
      return std::nullopt;
  }
}

}  // namespace lumora::html
