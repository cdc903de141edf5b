#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/platform/Text.h"

namespace lumora::html {
namespace {

// How deep the open elements may nest. Past it a new element goes in as a sibling of the
// current one, so nothing is dropped, and every scan of the stack stays bounded.
constexpr size_t kMaxOpenElements = 512;
// How many formatting elements may wait for reconstruction behind the last marker. Past it the
// earliest is forgotten, so that reopening them after each closing is bounded too.
constexpr size_t kMaxFormattingElements = 64;

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

using T = TagId;

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
  const std::string& name() const { return token->name; }
};

template <typename... Ids>
bool oneOf(TagId id, Ids... ids) {
  return ((id == ids) || ...);
}

bool isWhitespace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r'; }

// Doctypes that put a document in quirks mode, where a table does not close an open p.
bool isQuirksDoctype(const Token& t) {
  if (t.forceQuirks || t.name != "html") return true;
  static constexpr std::string_view kExact[] = {"-//W3O//DTD W3 HTML Strict 3.0//EN//",
                                                "-/W3C/DTD HTML 4.0 Transitional/EN", "HTML"};
  static constexpr std::string_view kPrefixes[] = {
      "+//Silmaril//dtd html Pro v0r11 19970101//",
      "-//AS//DTD HTML 3.0 asWedit + extensions//",
      "-//AdvaSoft Ltd//DTD HTML 3.0 asWedit + extensions//",
      "-//IETF//DTD HTML 2.0 Level 1//",
      "-//IETF//DTD HTML 2.0 Level 2//",
      "-//IETF//DTD HTML 2.0 Strict Level 1//",
      "-//IETF//DTD HTML 2.0 Strict Level 2//",
      "-//IETF//DTD HTML 2.0 Strict//",
      "-//IETF//DTD HTML 2.0//",
      "-//IETF//DTD HTML 2.1E//",
      "-//IETF//DTD HTML 3.0//",
      "-//IETF//DTD HTML 3.2 Final//",
      "-//IETF//DTD HTML 3.2//",
      "-//IETF//DTD HTML 3//",
      "-//IETF//DTD HTML Level 0//",
      "-//IETF//DTD HTML Level 1//",
      "-//IETF//DTD HTML Level 2//",
      "-//IETF//DTD HTML Level 3//",
      "-//IETF//DTD HTML Strict Level 0//",
      "-//IETF//DTD HTML Strict Level 1//",
      "-//IETF//DTD HTML Strict Level 2//",
      "-//IETF//DTD HTML Strict Level 3//",
      "-//IETF//DTD HTML Strict//",
      "-//IETF//DTD HTML//",
      "-//Metrius//DTD Metrius Presentational//",
      "-//Microsoft//DTD Internet Explorer 2.0 HTML Strict//",
      "-//Microsoft//DTD Internet Explorer 2.0 HTML//",
      "-//Microsoft//DTD Internet Explorer 2.0 Tables//",
      "-//Microsoft//DTD Internet Explorer 3.0 HTML Strict//",
      "-//Microsoft//DTD Internet Explorer 3.0 HTML//",
      "-//Microsoft//DTD Internet Explorer 3.0 Tables//",
      "-//Netscape Comm. Corp.//DTD HTML//",
      "-//Netscape Comm. Corp.//DTD Strict HTML//",
      "-//O'Reilly and Associates//DTD HTML 2.0//",
      "-//O'Reilly and Associates//DTD HTML Extended 1.0//",
      "-//O'Reilly and Associates//DTD HTML Extended Relaxed 1.0//",
      "-//SQ//DTD HTML 2.0 HoTMetaL + extensions//",
      "-//SoftQuad Software//DTD HoTMetaL PRO 6.0::19990601::extensions to HTML 4.0//",
      "-//SoftQuad//DTD HoTMetaL PRO 4.0::19971010::extensions to HTML 4.0//",
      "-//Spyglass//DTD HTML 2.0 Extended//",
      "-//Sun Microsystems Corp.//DTD HotJava HTML//",
      "-//Sun Microsystems Corp.//DTD HotJava Strict HTML//",
      "-//W3C//DTD HTML 3 1995-03-24//",
      "-//W3C//DTD HTML 3.2 Draft//",
      "-//W3C//DTD HTML 3.2 Final//",
      "-//W3C//DTD HTML 3.2//",
      "-//W3C//DTD HTML 3.2S Draft//",
      "-//W3C//DTD HTML 4.0 Frameset//",
      "-//W3C//DTD HTML 4.0 Transitional//",
      "-//W3C//DTD HTML Experimental 19960712//",
      "-//W3C//DTD HTML Experimental 970421//",
      "-//W3C//DTD W3 HTML//",
      "-//W3O//DTD W3 HTML 3.0//",
      "-//WebTechs//DTD Mozilla HTML 2.0//",
      "-//WebTechs//DTD Mozilla HTML//",
  };
  std::string_view publicId;
  if (t.hasPublicIdentifier) publicId = t.publicIdentifier;
  for (const auto exact : kExact)
    if (t.hasPublicIdentifier && text::equalsIgnoringCase(publicId, exact)) return true;
  if (t.hasSystemIdentifier &&
      text::equalsIgnoringCase(t.systemIdentifier,
                                 "http://www.ibm.com/data/dtd/v11/ibmxhtml1-transitional.dtd"))
    return true;
  if (!t.hasPublicIdentifier) return false;
  for (const auto prefix : kPrefixes)
    if (text::startsWithIgnoringCase(publicId, prefix)) return true;
  if (!t.hasSystemIdentifier &&
      (text::startsWithIgnoringCase(publicId, "-//W3C//DTD HTML 4.01 Frameset//") ||
       text::startsWithIgnoringCase(publicId, "-//W3C//DTD HTML 4.01 Transitional//")))
    return true;
  return false;
}

class TreeBuilder {
 public:
  TreeBuilder(Document& document, std::string_view html)
      : doc_(document), root_(document.root().id()), tokenizer_(html) {}

  void parseDocument() { run(); }

  void parseFragment(std::string_view context) {
    contextId_ = tagIdOf(context);
    hasContext_ = true;
    switch (contextId_) {
      case T::title:
      case T::textarea:
        tokenizer_.switchTo(TokenizerState::rcdata);
        break;
      case T::style:
      case T::xmp:
      case T::iframe:
      case T::noembed:
      case T::noframes:
        tokenizer_.switchTo(TokenizerState::rawtext);
        break;
      case T::script:
        tokenizer_.switchTo(TokenizerState::scriptData);
        break;
      case T::plaintext:
        tokenizer_.switchTo(TokenizerState::plaintext);
        break;
      default:
        break;
    }
    const NodeId html = doc_.makeElement(T::html, {}, {});
    doc_.appendChild(root_, html);
    push(html);
    resetInsertionMode();
    run();
  }

 private:
  // ---- the driver ------------------------------------------------------------------------

  void run() {
    while (true) {
      const Token& token = tokenizer_.next();
      switch (token.type) {
        case Token::Type::characters:
          feedCharacters(token.characters);
          break;
        case Token::Type::doctype:
          feed({Input::Kind::doctype, &token});
          break;
        case Token::Type::startTag:
          feed({Input::Kind::startTag, &token, tagIdOf(token.name)});
          break;
        case Token::Type::endTag:
          feed({Input::Kind::endTag, &token, tagIdOf(token.name)});
          break;
        case Token::Type::comment:
          feed({Input::Kind::comment, &token});
          break;
        case Token::Type::endOfFile:
          feed({Input::Kind::endOfFile});
          return;
      }
      if (stopped_) return;
    }
  }

  void feedCharacters(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && !stopped_) {
      const size_t start = i;
      if (text[i] == '\0') {
        feed({Input::Kind::null, nullptr, T::unknown, text.substr(i, 1)});
        ++i;
        continue;
      }
      const bool space = isWhitespace(text[i]);
      while (i < text.size() && text[i] != '\0' && isWhitespace(text[i]) == space) ++i;
      feed({space ? Input::Kind::whitespace : Input::Kind::characters, nullptr, T::unknown,
            text.substr(start, i - start)});
    }
  }

  void feed(const Input& in) {
    while (process(mode_, in) == Action::reprocess) {
    }
  }

  Action process(InsertionMode mode, const Input& in) {
    switch (mode) {
      case InsertionMode::initial:
        return initial(in);
      case InsertionMode::beforeHtml:
        return beforeHtml(in);
      case InsertionMode::beforeHead:
        return beforeHead(in);
      case InsertionMode::inHead:
        return inHead(in);
      case InsertionMode::inHeadNoscript:
        return inHeadNoscript(in);
      case InsertionMode::afterHead:
        return afterHead(in);
      case InsertionMode::inBody:
        return inBody(in);
      case InsertionMode::text:
        return textMode(in);
      case InsertionMode::inTable:
        return inTable(in);
      case InsertionMode::inTableText:
        return inTableText(in);
      case InsertionMode::inCaption:
        return inCaption(in);
      case InsertionMode::inColumnGroup:
        return inColumnGroup(in);
      case InsertionMode::inTableBody:
        return inTableBody(in);
      case InsertionMode::inRow:
        return inRow(in);
      case InsertionMode::inCell:
        return inCell(in);
      case InsertionMode::inSelect:
        return inSelect(in);
      case InsertionMode::inSelectInTable:
        return inSelectInTable(in);
      case InsertionMode::afterBody:
        return afterBody(in);
      case InsertionMode::inFrameset:
        return inFrameset(in);
      case InsertionMode::afterFrameset:
        return afterFrameset(in);
      case InsertionMode::afterAfterBody:
        return afterAfterBody(in);
      case InsertionMode::afterAfterFrameset:
        return afterAfterFrameset(in);
    }
    return Action::done;
  }

  // Feeds a token made up here, as if the tokenizer had produced it.
  void feedMade(Token::Type type, TagId id, std::vector<Attribute> attributes = {}) {
    Token token;
    token.type = type;
    token.name = std::string(tagNameOf(id));
    token.attributes = std::move(attributes);
    feed({type == Token::Type::startTag ? Input::Kind::startTag : Input::Kind::endTag, &token,
          id});
  }

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
  void popUntilElement(NodeId e) {
    if (!isOpen(e)) return;
    while (true) {
      const bool found = open_.back() == e;
      pop();
      if (found) return;
    }
  }
  bool isOpen(NodeId e) const { return doc_.parserOpen(e); }
  void removeFromStack(NodeId e) {
    if (!doc_.parserOpen(e)) return;
    const auto it = std::find(open_.begin(), open_.end(), e);
    closed(e);
    open_.erase(it);
  }

  enum class Scope { normal, listItem, button, table, select };

  static bool endsScope(TagId id, Scope scope) {
    switch (scope) {
      case Scope::normal:
        return oneOf(id, T::applet, T::caption, T::html, T::table, T::td, T::th, T::marquee,
                     T::object, T::template_);
      case Scope::listItem:
        return endsScope(id, Scope::normal) || oneOf(id, T::ol, T::ul);
      case Scope::button:
        return endsScope(id, Scope::normal) || id == T::button;
      case Scope::table:
        return oneOf(id, T::html, T::table, T::template_);
      case Scope::select:
        return !oneOf(id, T::optgroup, T::option);
    }
    return true;
  }

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
  bool elementInScope(NodeId target) const {
    for (auto it = open_.rbegin(); it != open_.rend(); ++it) {
      if (*it == target) return true;
      if (endsScope(doc_.tagOf(*it), Scope::normal)) return false;
    }
    return false;
  }

  void generateImpliedEndTags(TagId except = T::unknown) {
    while (!open_.empty()) {
      const TagId id = doc_.tagOf(open_.back());
      if (id == except ||
          !oneOf(id, T::dd, T::dt, T::li, T::optgroup, T::option, T::p, T::rb, T::rp, T::rt,
                 T::rtc))
        return;
      pop();
    }
  }

  void closeP() {
    generateImpliedEndTags(T::p);
    popUntil(T::p);
  }
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

  void resetInsertionMode() {
    for (size_t i = open_.size(); i-- > 0;) {
      const bool last = i == 0;
      TagId id = doc_.tagOf(open_[i]);
      if (last && hasContext_) id = contextId_;
      switch (id) {
        case T::select:
          if (!last) {
            for (size_t j = i; j-- > 0;) {
              if (doc_.tagOf(open_[j]) == T::template_) break;
              if (doc_.tagOf(open_[j]) == T::table) {
                mode_ = InsertionMode::inSelectInTable;
                return;
              }
            }
          }
          mode_ = InsertionMode::inSelect;
          return;
        case T::td:
        case T::th:
          if (!last) {
            mode_ = InsertionMode::inCell;
            return;
          }
          break;
        case T::tr:
          mode_ = InsertionMode::inRow;
          return;
        case T::tbody:
        case T::thead:
        case T::tfoot:
          mode_ = InsertionMode::inTableBody;
          return;
        case T::caption:
          mode_ = InsertionMode::inCaption;
          return;
        case T::colgroup:
          mode_ = InsertionMode::inColumnGroup;
          return;
        case T::table:
          mode_ = InsertionMode::inTable;
          return;
        case T::head:
          if (!last) {
            mode_ = InsertionMode::inHead;
            return;
          }
          break;
        case T::body:
          mode_ = InsertionMode::inBody;
          return;
        case T::frameset:
          mode_ = InsertionMode::inFrameset;
          return;
        case T::html:
          mode_ = head_ != kNoNode ? InsertionMode::afterHead : InsertionMode::beforeHead;
          return;
        default:
          break;
      }
      if (last) {
        mode_ = InsertionMode::inBody;
        return;
      }
    }
    mode_ = InsertionMode::inBody;
  }

  // ---- inserting -------------------------------------------------------------------------

  struct Place {
    NodeId parent;
    NodeId before;  // kNoNode: at the end
  };

  Place appropriatePlace(NodeId target = kNoNode) const {
    if (target == kNoNode) target = current();
    if (fosterParenting_ && oneOf(doc_.tagOf(target), T::table, T::tbody, T::tfoot, T::thead, T::tr)) {
      for (size_t i = open_.size(); i-- > 0;) {
        if (doc_.tagOf(open_[i]) != T::table) continue;
        const NodeId table = open_[i];
        if (const NodeId parent = doc_.parentOf(table); parent != kNoNode) return {parent, table};
        return {open_[i - 1], kNoNode};
      }
      return {open_.front(), kNoNode};
    }
    return {target, kNoNode};
  }

  NodeId createElement(const Input& in) {
    return doc_.makeElement(in.id, in.token->name, in.token->attributes);
  }

  // Inserts an element for the start tag and makes it the current node.
  NodeId insertElement(const Input& in) { return insertElement(createElement(in)); }
  NodeId insertElement(NodeId element) {
    if (open_.size() >= kMaxOpenElements) pop();  // nest no deeper: go in as a sibling
    const Place place = appropriatePlace();
    doc_.insertChild(place.parent, element, place.before);
    push(element);
    return element;
  }
  NodeId insertMade(TagId id) { return insertElement(doc_.makeElement(id, {}, {})); }

  void insertVoid(const Input& in) {
    insertElement(in);
    pop();
  }

  void insertCharacters(std::string_view text) {
    const Place place = appropriatePlace();
    const NodeId previous = place.before != kNoNode ? doc_.previousSiblingOf(place.before)
                                                    : doc_.lastChildOf(place.parent);
    const NodeKind kind =
        oneOf(doc_.tagOf(current()), T::script, T::style) ? NodeKind::data : NodeKind::text;
    if (previous != kNoNode && doc_.kindOf(previous) == kind) {
      doc_.appendCharacters(previous, text);
      return;
    }
    doc_.insertChild(place.parent, doc_.makeCharacters(kind, text), place.before);
  }

  void insertComment(const Input& in, NodeId parent = kNoNode) {
    const NodeId comment = doc_.makeCharacters(NodeKind::comment, in.token->data);
    if (parent != kNoNode) {
      doc_.appendChild(parent, comment);
      return;
    }
    const Place place = appropriatePlace();
    doc_.insertChild(place.parent, comment, place.before);
  }

  void genericText(const Input& in, TokenizerState state) {
    insertElement(in);
    tokenizer_.switchTo(state);
    originalMode_ = mode_;
    mode_ = InsertionMode::text;
  }

  // ---- the list of active formatting elements ---------------------------------------------
  // A kNoNode entry is a marker.

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

  bool sameAttributes(NodeId a, NodeId b) const {
    const std::span<const Attribute> mine = doc_.attributesOf(a), others = doc_.attributesOf(b);
    if (mine.size() != others.size()) return false;
    for (const Attribute& attribute : mine) {
      const auto it = std::find_if(others.begin(), others.end(),
                                   [&](const Attribute& o) { return o.name == attribute.name; });
      if (it == others.end() || it->value != attribute.value) return false;
    }
    return true;
  }

  size_t afterLastMarker() const {
    for (size_t i = formatting_.size(); i-- > 0;)
      if (formatting_[i] == kNoNode) return i + 1;
    return 0;
  }

  void pushFormatting(NodeId element) {
    const size_t start = afterLastMarker();
    size_t same = 0;
    size_t earliest = formatting_.size();
    for (size_t i = formatting_.size(); i-- > start;) {
      const NodeId e = formatting_[i];
      if (sameName(e, element) && sameAttributes(e, element)) {
        ++same;
        earliest = i;
      }
    }
    if (same >= 3) formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(earliest));
    if (formatting_.size() - start >= kMaxFormattingElements)
      formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(start));
    formatting_.push_back(element);
  }

  void insertMarker() { formatting_.push_back(kNoNode); }

  void clearFormattingToLastMarker() {
    while (!formatting_.empty()) {
      const bool marker = formatting_.back() == kNoNode;
      formatting_.pop_back();
      if (marker) return;
    }
  }

  size_t formattingIndexOf(NodeId e) const {
    for (size_t i = formatting_.size(); i-- > 0;)
      if (formatting_[i] == e) return i;
    return SIZE_MAX;
  }

  void reconstructFormatting() {
    if (formatting_.empty()) return;
    size_t i = formatting_.size() - 1;
    if (formatting_[i] == kNoNode || isOpen(formatting_[i])) return;
    while (i > 0) {
      --i;
      if (formatting_[i] == kNoNode || isOpen(formatting_[i])) {
        ++i;
        break;
      }
    }
    for (; i < formatting_.size(); ++i) {
      const NodeId copy = doc_.makeCopy(formatting_[i]);
      insertElement(copy);
      formatting_[i] = copy;
    }
  }

  // Returns false when the end tag is to be handled as "any other end tag".
  bool adoptionAgency(const Input& in) {
    const NodeId cur = current();
    if (hasName(cur, in) && formattingIndexOf(cur) == SIZE_MAX) {
      pop();
      return true;
    }
    for (int outer = 0; outer < 8; ++outer) {
      NodeId formattingElement = kNoNode;
      size_t formattingIndex = 0;
      for (size_t i = formatting_.size(); i-- > 0;) {
        if (formatting_[i] == kNoNode) break;
        if (hasName(formatting_[i], in)) {
          formattingElement = formatting_[i];
          formattingIndex = i;
          break;
        }
      }
      if (formattingElement == kNoNode) return false;
      if (!doc_.parserOpen(formattingElement)) {
        formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(formattingIndex));
        return true;
      }
      if (!elementInScope(formattingElement)) return true;
      const size_t stackIndex = static_cast<size_t>(
          std::find(open_.begin(), open_.end(), formattingElement) - open_.begin());
      NodeId furthestBlock = kNoNode;
      size_t furthestIndex = 0;
      for (size_t i = stackIndex + 1; i < open_.size(); ++i) {
        if (isSpecial(doc_.tagOf(open_[i]))) {
          furthestBlock = open_[i];
          furthestIndex = i;
          break;
        }
      }
      if (furthestBlock == kNoNode) {
        popUntilElement(formattingElement);
        formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(formattingIndex));
        return true;
      }
      NodeId commonAncestor = open_[stackIndex - 1];
      size_t bookmark = formattingIndex;
      NodeId node = furthestBlock;
      NodeId lastNode = furthestBlock;
      size_t nodeIndex = furthestIndex;
      for (int inner = 1;; ++inner) {
        --nodeIndex;
        node = open_[nodeIndex];
        if (node == formattingElement) break;
        size_t nodeEntry = formattingIndexOf(node);
        if (inner > 3 && nodeEntry != SIZE_MAX) {
          formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(nodeEntry));
          if (nodeEntry < bookmark) --bookmark;
          nodeEntry = SIZE_MAX;
        }
        if (nodeEntry == SIZE_MAX) {
          closed(node);
          open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(nodeIndex));
          continue;
        }
        const NodeId copy = doc_.makeCopy(node);
        formatting_[nodeEntry] = copy;
        closed(node);
        opened(copy);
        open_[nodeIndex] = copy;
        node = copy;
        if (lastNode == furthestBlock) bookmark = nodeEntry + 1;
        doc_.detach(lastNode);
        doc_.appendChild(node, lastNode);
        lastNode = node;
      }
      doc_.detach(lastNode);
      const Place place = appropriatePlace(commonAncestor);
      doc_.insertChild(place.parent, lastNode, place.before);

      const NodeId copy = doc_.makeCopy(formattingElement);
      for (NodeId child; (child = doc_.firstChildOf(furthestBlock)) != kNoNode;) {
        doc_.detach(child);
        doc_.appendChild(copy, child);
      }
      doc_.appendChild(furthestBlock, copy);

      const size_t oldEntry = formattingIndexOf(formattingElement);
      formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(oldEntry));
      if (oldEntry < bookmark) --bookmark;
      formatting_.insert(formatting_.begin() + static_cast<std::ptrdiff_t>(bookmark), copy);

      removeFromStack(formattingElement);
      const auto fb = std::find(open_.begin(), open_.end(), furthestBlock);
      open_.insert(fb + 1, copy);
      opened(copy);
    }
    return true;
  }

  // ---- the insertion modes ----------------------------------------------------------------

  using K = Input::Kind;

  Action initial(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        return Action::done;
      case K::comment:
        insertComment(in, root_);
        return Action::done;
      case K::doctype: {
        const Token& t = *in.token;
        doc_.appendChild(root_,
                         doc_.makeDocumentType(t.name, t.publicIdentifier, t.systemIdentifier));
        quirks_ = isQuirksDoctype(t);
        mode_ = InsertionMode::beforeHtml;
        return Action::done;
      }
      default:
        quirks_ = true;
        mode_ = InsertionMode::beforeHtml;
        return Action::reprocess;
    }
  }

  Action beforeHtml(const Input& in) {
    switch (in.kind) {
      case K::doctype:
      case K::whitespace:
        return Action::done;
      case K::comment:
        insertComment(in, root_);
        return Action::done;
      case K::startTag:
        if (in.id == T::html) {
          const NodeId html = createElement(in);
          doc_.appendChild(root_, html);
          push(html);
          mode_ = InsertionMode::beforeHead;
          return Action::done;
        }
        break;
      case K::endTag:
        if (!oneOf(in.id, T::head, T::body, T::html, T::br)) return Action::done;
        break;
      default:
        break;
    }
    const NodeId html = doc_.makeElement(T::html, {}, {});
    doc_.appendChild(root_, html);
    push(html);
    mode_ = InsertionMode::beforeHead;
    return Action::reprocess;
  }

  Action beforeHead(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
      case K::doctype:
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (in.id == T::head) {
          head_ = insertElement(in);
          mode_ = InsertionMode::inHead;
          return Action::done;
        }
        break;
      case K::endTag:
        if (!oneOf(in.id, T::head, T::body, T::html, T::br)) return Action::done;
        break;
      default:
        break;
    }
    head_ = insertMade(T::head);
    mode_ = InsertionMode::inHead;
    return Action::reprocess;
  }

  Action inHead(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::startTag:
        switch (in.id) {
          case T::html:
            return inBody(in);
          case T::base:
          case T::basefont:
          case T::bgsound:
          case T::link:
          case T::meta:
            insertVoid(in);
            return Action::done;
          case T::title:
            genericText(in, TokenizerState::rcdata);
            return Action::done;
          case T::noframes:
          case T::style:
            genericText(in, TokenizerState::rawtext);
            return Action::done;
          case T::noscript:  // scripting is off: its content is markup
            insertElement(in);
            mode_ = InsertionMode::inHeadNoscript;
            return Action::done;
          case T::script:
            genericText(in, TokenizerState::scriptData);
            return Action::done;
          case T::head:
            return Action::done;
          default:
            break;
        }
        break;
      case K::endTag:
        if (in.id == T::head) {
          pop();
          mode_ = InsertionMode::afterHead;
          return Action::done;
        }
        if (!oneOf(in.id, T::body, T::html, T::br)) return Action::done;
        break;
      default:
        break;
    }
    pop();
    mode_ = InsertionMode::afterHead;
    return Action::reprocess;
  }

  Action inHeadNoscript(const Input& in) {
    switch (in.kind) {
      case K::doctype:
        return Action::done;
      case K::whitespace:
      case K::comment:
        return inHead(in);
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (oneOf(in.id, T::basefont, T::bgsound, T::link, T::meta, T::noframes, T::style))
          return inHead(in);
        if (oneOf(in.id, T::head, T::noscript)) return Action::done;
        break;
      case K::endTag:
        if (in.id == T::noscript) {
          pop();
          mode_ = InsertionMode::inHead;
          return Action::done;
        }
        if (in.id != T::br) return Action::done;
        break;
      default:
        break;
    }
    pop();
    mode_ = InsertionMode::inHead;
    return Action::reprocess;
  }

  Action afterHead(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::startTag:
        switch (in.id) {
          case T::html:
            return inBody(in);
          case T::body:
            insertElement(in);
            framesetOk_ = false;
            mode_ = InsertionMode::inBody;
            return Action::done;
          case T::frameset:
            insertElement(in);
            mode_ = InsertionMode::inFrameset;
            return Action::done;
          case T::base:
          case T::basefont:
          case T::bgsound:
          case T::link:
          case T::meta:
          case T::noframes:
          case T::script:
          case T::style:
          case T::title: {
            push(head_);
            const Action action = inHead(in);
            removeFromStack(head_);
            return action;
          }
          case T::head:
            return Action::done;
          default:
            break;
        }
        break;
      case K::endTag:
        if (!oneOf(in.id, T::body, T::html, T::br)) return Action::done;
        break;
      default:
        break;
    }
    insertMade(T::body);
    mode_ = InsertionMode::inBody;
    return Action::reprocess;
  }

  // Adds the attributes of `in` that `element` does not have yet.
  void mergeAttributes(NodeId element, const Input& in) {
    doc_.addMissingAttributes(element, in.token->attributes);
  }

  Action inBody(const Input& in) {
    switch (in.kind) {
      case K::null:
        return Action::done;
      case K::whitespace:
        reconstructFormatting();
        insertCharacters(in.text);
        return Action::done;
      case K::characters:
        reconstructFormatting();
        insertCharacters(in.text);
        framesetOk_ = false;
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      case K::startTag:
        return inBodyStartTag(in);
      case K::endTag:
        return inBodyEndTag(in);
    }
    return Action::done;
  }

  Action inBodyStartTag(const Input& in) {
    switch (in.id) {
      case T::html:
        if (!open_.empty()) mergeAttributes(open_.front(), in);
        return Action::done;
      case T::base:
      case T::basefont:
      case T::bgsound:
      case T::link:
      case T::meta:
      case T::noframes:
      case T::script:
      case T::style:
      case T::title:
        return inHead(in);
      case T::body:
        if (open_.size() < 2 || doc_.tagOf(open_[1]) != T::body) return Action::done;
        framesetOk_ = false;
        mergeAttributes(open_[1], in);
        return Action::done;
      case T::frameset:
        if (open_.size() < 2 || doc_.tagOf(open_[1]) != T::body || !framesetOk_) return Action::done;
        doc_.detach(open_[1]);
        while (open_.size() > 1) pop();
        insertElement(in);
        mode_ = InsertionMode::inFrameset;
        return Action::done;
      case T::address:
      case T::article:
      case T::aside:
      case T::blockquote:
      case T::center:
      case T::details:
      case T::dialog:
      case T::dir:
      case T::div:
      case T::dl:
      case T::fieldset:
      case T::figcaption:
      case T::figure:
      case T::footer:
      case T::header:
      case T::hgroup:
      case T::main:
      case T::menu:
      case T::nav:
      case T::ol:
      case T::p:
      case T::search:
      case T::section:
      case T::summary:
      case T::ul:
        closePInButtonScope();
        insertElement(in);
        return Action::done;
      case T::h1:
      case T::h2:
      case T::h3:
      case T::h4:
      case T::h5:
      case T::h6:
        closePInButtonScope();
        if (oneOf(doc_.tagOf(current()), T::h1, T::h2, T::h3, T::h4, T::h5, T::h6)) pop();
        insertElement(in);
        return Action::done;
      case T::pre:
      case T::listing:
        // The line feed right behind the start tag stays in the text.
        closePInButtonScope();
        insertElement(in);
        framesetOk_ = false;
        return Action::done;
      case T::form:
        if (form_ != kNoNode) return Action::done;
        closePInButtonScope();
        form_ = insertElement(in);
        return Action::done;
      case T::li:
      case T::dd:
      case T::dt: {
        framesetOk_ = false;
        for (size_t i = open_.size(); i-- > 0;) {
          const TagId id = doc_.tagOf(open_[i]);
          const bool match = in.id == T::li ? id == T::li : oneOf(id, T::dd, T::dt);
          if (match) {
            generateImpliedEndTags(id);
            popUntil(id);
            break;
          }
          if (isSpecial(id) && !oneOf(id, T::address, T::div, T::p)) break;
        }
        closePInButtonScope();
        insertElement(in);
        return Action::done;
      }
      case T::plaintext:
        closePInButtonScope();
        insertElement(in);
        tokenizer_.switchTo(TokenizerState::plaintext);
        return Action::done;
      case T::button:
        if (inScope(Scope::normal, T::button)) {
          generateImpliedEndTags();
          popUntil(T::button);
        }
        reconstructFormatting();
        insertElement(in);
        framesetOk_ = false;
        return Action::done;
      case T::a:
        for (size_t i = formatting_.size(); i-- > 0;) {
          NodeId e = formatting_[i];
          if (e == kNoNode) break;
          if (doc_.tagOf(e) != T::a) continue;
          adopt(in);
          const size_t entry = formattingIndexOf(e);
          if (entry != SIZE_MAX)
            formatting_.erase(formatting_.begin() + static_cast<std::ptrdiff_t>(entry));
          removeFromStack(e);
          break;
        }
        reconstructFormatting();
        pushFormatting(insertElement(in));
        return Action::done;
      case T::b:
      case T::big:
      case T::code:
      case T::em:
      case T::font:
      case T::i:
      case T::s:
      case T::small:
      case T::strike:
      case T::strong:
      case T::tt:
      case T::u:
        reconstructFormatting();
        pushFormatting(insertElement(in));
        return Action::done;
      case T::nobr:
        reconstructFormatting();
        if (inScope(Scope::normal, T::nobr)) {
          adopt(in);
          reconstructFormatting();
        }
        pushFormatting(insertElement(in));
        return Action::done;
      case T::applet:
      case T::marquee:
      case T::object:
        reconstructFormatting();
        insertElement(in);
        insertMarker();
        framesetOk_ = false;
        return Action::done;
      case T::table:
        if (!quirks_) closePInButtonScope();
        insertElement(in);
        framesetOk_ = false;
        mode_ = InsertionMode::inTable;
        return Action::done;
      case T::area:
      case T::br:
      case T::embed:
      case T::img:
      case T::keygen:
      case T::wbr:
        reconstructFormatting();
        insertVoid(in);
        framesetOk_ = false;
        return Action::done;
      case T::input: {
        reconstructFormatting();
        insertVoid(in);
        const std::string* type = in.token->attribute("type");
        if (!type || !text::equalsIgnoringCase(*type, "hidden")) framesetOk_ = false;
        return Action::done;
      }
      case T::param:
      case T::source:
      case T::track:
        insertVoid(in);
        return Action::done;
      case T::hr:
        closePInButtonScope();
        insertVoid(in);
        framesetOk_ = false;
        return Action::done;
      case T::image: {
        Token renamed = *in.token;
        renamed.name = "img";
        return inBody({K::startTag, &renamed, T::img});
      }
      case T::isindex:
        isindex(in);
        return Action::done;
      case T::textarea:
        // The line feed right behind the start tag stays in the text.
        insertElement(in);
        tokenizer_.switchTo(TokenizerState::rcdata);
        originalMode_ = mode_;
        framesetOk_ = false;
        mode_ = InsertionMode::text;
        return Action::done;
      case T::xmp:
        closePInButtonScope();
        reconstructFormatting();
        framesetOk_ = false;
        genericText(in, TokenizerState::rawtext);
        return Action::done;
      case T::iframe:
        framesetOk_ = false;
        genericText(in, TokenizerState::rawtext);
        return Action::done;
      case T::noembed:
        genericText(in, TokenizerState::rawtext);
        return Action::done;
      case T::select:
        reconstructFormatting();
        insertElement(in);
        framesetOk_ = false;
        mode_ = modeIsOneOf(mode_, {InsertionMode::inTable, InsertionMode::inCaption,
                                    InsertionMode::inTableBody, InsertionMode::inRow,
                                    InsertionMode::inCell})
                    ? InsertionMode::inSelectInTable
                    : InsertionMode::inSelect;
        return Action::done;
      case T::optgroup:
      case T::option:
        if (currentIs(T::option)) pop();
        reconstructFormatting();
        insertElement(in);
        return Action::done;
      case T::rb:
      case T::rtc:
        if (inScope(Scope::normal, T::ruby)) generateImpliedEndTags();
        insertElement(in);
        return Action::done;
      case T::rp:
      case T::rt:
        if (inScope(Scope::normal, T::ruby)) generateImpliedEndTags(T::rtc);
        insertElement(in);
        return Action::done;
      case T::caption:
      case T::col:
      case T::colgroup:
      case T::frame:
      case T::head:
      case T::tbody:
      case T::td:
      case T::tfoot:
      case T::th:
      case T::thead:
      case T::tr:
        return Action::done;
      default:
        reconstructFormatting();
        insertElement(in);
        return Action::done;
    }
  }

  static bool modeIsOneOf(InsertionMode mode, std::initializer_list<InsertionMode> modes) {
    return std::find(modes.begin(), modes.end(), mode) != modes.end();
  }

  // The old replacement of isindex: a small search form whose prompt is text of the page.
  void isindex(const Input& in) {
    if (form_ != kNoNode) return;
    const Token& tag = *in.token;
    std::vector<Attribute> formAttributes;
    if (const std::string* action = tag.attribute("action"))
      formAttributes.push_back({"action", *action});
    feedMade(Token::Type::startTag, T::form, std::move(formAttributes));
    feedMade(Token::Type::startTag, T::hr);
    feedMade(Token::Type::startTag, T::label);
    const std::string* prompt = tag.attribute("prompt");
    feedCharacters(prompt ? *prompt : "self is a searchable index. Enter search keywords: ");
    std::vector<Attribute> inputAttributes;
    for (const Attribute& a : tag.attributes)
      if (a.name != "name" && a.name != "action" && a.name != "prompt") inputAttributes.push_back(a);
    inputAttributes.push_back({"name", "isindex"});
    feedMade(Token::Type::startTag, T::input, std::move(inputAttributes));
    feedMade(Token::Type::endTag, T::label);
    feedMade(Token::Type::startTag, T::hr);
    feedMade(Token::Type::endTag, T::form);
  }

  Action inBodyEndTag(const Input& in) {
    switch (in.id) {
      case T::body:
        if (!inScope(Scope::normal, T::body)) return Action::done;
        mode_ = InsertionMode::afterBody;
        return Action::done;
      case T::html:
        if (!inScope(Scope::normal, T::body)) return Action::done;
        mode_ = InsertionMode::afterBody;
        return Action::reprocess;
      case T::address:
      case T::article:
      case T::aside:
      case T::blockquote:
      case T::button:
      case T::center:
      case T::details:
      case T::dialog:
      case T::dir:
      case T::div:
      case T::dl:
      case T::fieldset:
      case T::figcaption:
      case T::figure:
      case T::footer:
      case T::header:
      case T::hgroup:
      case T::listing:
      case T::main:
      case T::menu:
      case T::nav:
      case T::ol:
      case T::pre:
      case T::search:
      case T::section:
      case T::summary:
      case T::ul:
        if (!inScope(Scope::normal, in.id)) return Action::done;
        generateImpliedEndTags();
        popUntil(in.id);
        return Action::done;
      case T::form: {
        NodeId node = form_;
        form_ = kNoNode;
        if (node == kNoNode || !elementInScope(node)) return Action::done;
        generateImpliedEndTags();
        removeFromStack(node);
        return Action::done;
      }
      case T::p:
        if (!inScope(Scope::button, T::p)) insertMade(T::p);
        closeP();
        return Action::done;
      case T::li:
        if (!inScope(Scope::listItem, T::li)) return Action::done;
        generateImpliedEndTags(T::li);
        popUntil(T::li);
        return Action::done;
      case T::dd:
      case T::dt:
        if (!inScope(Scope::normal, in.id)) return Action::done;
        generateImpliedEndTags(in.id);
        popUntil(in.id);
        return Action::done;
      case T::h1:
      case T::h2:
      case T::h3:
      case T::h4:
      case T::h5:
      case T::h6:
        if (!inScope(Scope::normal, T::h1, T::h2, T::h3, T::h4, T::h5, T::h6))
          return Action::done;
        generateImpliedEndTags();
        popUntilOneOf(T::h1, T::h2, T::h3, T::h4, T::h5, T::h6);
        return Action::done;
      case T::a:
      case T::b:
      case T::big:
      case T::code:
      case T::em:
      case T::font:
      case T::i:
      case T::nobr:
      case T::s:
      case T::small:
      case T::strike:
      case T::strong:
      case T::tt:
      case T::u:
        adopt(in);
        return Action::done;
      case T::applet:
      case T::marquee:
      case T::object:
        if (!inScope(Scope::normal, in.id)) return Action::done;
        generateImpliedEndTags();
        popUntil(in.id);
        clearFormattingToLastMarker();
        return Action::done;
      case T::br: {
        Token br;
        br.type = Token::Type::startTag;
        br.name = "br";
        return inBodyStartTag({K::startTag, &br, T::br});
      }
      default:
        break;
    }
    anyOtherEndTag(in);
    return Action::done;
  }

  // Closes the nearest open element named `name`, unless a special element stands in between.
  void anyOtherEndTag(const Input& in) {
    for (size_t i = open_.size(); i-- > 0;) {
      const NodeId node = open_[i];
      if (hasName(node, in)) {
        generateImpliedEndTags(doc_.tagOf(node));
        popUntilElement(node);
        return;
      }
      if (isSpecial(doc_.tagOf(node))) return;
    }
  }

  // The adoption agency, and when it finds nothing to adopt, the end tag's ordinary handling.
  void adopt(const Input& in) {
    if (!adoptionAgency(in)) anyOtherEndTag(in);
  }

  Action textMode(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
      case K::characters:
      case K::null:
        insertCharacters(in.text);
        return Action::done;
      case K::endOfFile:
        pop();
        mode_ = originalMode_;
        return Action::reprocess;
      case K::endTag:
        pop();
        mode_ = originalMode_;
        return Action::done;
      default:
        return Action::done;
    }
  }

  Action inTable(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
      case K::characters:
      case K::null:
        if (oneOf(doc_.tagOf(current()), T::table, T::tbody, T::template_, T::tfoot, T::thead, T::tr)) {
          pendingTableText_.clear();
          pendingHasNonWhitespace_ = false;
          originalMode_ = mode_;
          mode_ = InsertionMode::inTableText;
          return Action::reprocess;
        }
        break;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::startTag:
        switch (in.id) {
          case T::caption:
            clearToTableContext();
            insertMarker();
            insertElement(in);
            mode_ = InsertionMode::inCaption;
            return Action::done;
          case T::colgroup:
            clearToTableContext();
            insertElement(in);
            mode_ = InsertionMode::inColumnGroup;
            return Action::done;
          case T::col:
            clearToTableContext();
            insertMade(T::colgroup);
            mode_ = InsertionMode::inColumnGroup;
            return Action::reprocess;
          case T::tbody:
          case T::tfoot:
          case T::thead:
            clearToTableContext();
            insertElement(in);
            mode_ = InsertionMode::inTableBody;
            return Action::done;
          case T::td:
          case T::th:
          case T::tr:
            clearToTableContext();
            insertMade(T::tbody);
            mode_ = InsertionMode::inTableBody;
            return Action::reprocess;
          case T::table:
            if (!inScope(Scope::table, T::table)) return Action::done;
            popUntil(T::table);
            resetInsertionMode();
            return Action::reprocess;
          case T::style:
          case T::script:
            return inHead(in);
          case T::input: {
            const std::string* type = in.token->attribute("type");
            if (!type || !text::equalsIgnoringCase(*type, "hidden")) break;
            insertVoid(in);
            return Action::done;
          }
          case T::form:
            if (form_ != kNoNode) return Action::done;
            form_ = insertElement(in);
            pop();
            return Action::done;
          default:
            break;
        }
        break;
      case K::endTag:
        switch (in.id) {
          case T::table:
            if (!inScope(Scope::table, T::table)) return Action::done;
            popUntil(T::table);
            resetInsertionMode();
            return Action::done;
          case T::body:
          case T::caption:
          case T::col:
          case T::colgroup:
          case T::html:
          case T::tbody:
          case T::td:
          case T::tfoot:
          case T::th:
          case T::thead:
          case T::tr:
            return Action::done;
          default:
            break;
        }
        break;
      case K::endOfFile:
        return inBody(in);
    }
    fosterParenting_ = true;
    const Action action = inBody(in);
    fosterParenting_ = false;
    return action;
  }

  Action inTableText(const Input& in) {
    switch (in.kind) {
      case K::null:
        return Action::done;
      case K::whitespace:
        pendingTableText_.append(in.text);
        return Action::done;
      case K::characters:
        pendingTableText_.append(in.text);
        pendingHasNonWhitespace_ = true;
        return Action::done;
      default:
        break;
    }
    if (pendingHasNonWhitespace_) {
      // Text that does not belong in a table goes before it, as the body would place it.
      fosterParenting_ = true;
      reconstructFormatting();
      insertCharacters(pendingTableText_);
      framesetOk_ = false;
      fosterParenting_ = false;
    } else if (!pendingTableText_.empty()) {
      insertCharacters(pendingTableText_);
    }
    pendingTableText_.clear();
    mode_ = originalMode_;
    return Action::reprocess;
  }

  bool closeCaption() {
    if (!inScope(Scope::table, T::caption)) return false;
    generateImpliedEndTags();
    popUntil(T::caption);
    clearFormattingToLastMarker();
    mode_ = InsertionMode::inTable;
    return true;
  }

  Action inCaption(const Input& in) {
    if (in.isEnd(T::caption)) {
      closeCaption();
      return Action::done;
    }
    if ((in.kind == K::startTag && oneOf(in.id, T::caption, T::col, T::colgroup, T::tbody, T::td,
                                         T::tfoot, T::th, T::thead, T::tr)) ||
        in.isEnd(T::table))
      return closeCaption() ? Action::reprocess : Action::done;
    if (in.kind == K::endTag && oneOf(in.id, T::body, T::col, T::colgroup, T::html, T::tbody,
                                      T::td, T::tfoot, T::th, T::thead, T::tr))
      return Action::done;
    return inBody(in);
  }

  Action inColumnGroup(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (in.id == T::col) {
          insertVoid(in);
          return Action::done;
        }
        break;
      case K::endTag:
        if (in.id == T::colgroup) {
          if (currentIs(T::colgroup)) {
            pop();
            mode_ = InsertionMode::inTable;
          }
          return Action::done;
        }
        if (in.id == T::col) return Action::done;
        break;
      case K::endOfFile:
        return inBody(in);
      default:
        break;
    }
    if (!currentIs(T::colgroup)) return Action::done;
    pop();
    mode_ = InsertionMode::inTable;
    return Action::reprocess;
  }

  Action inTableBody(const Input& in) {
    if (in.isStart(T::tr)) {
      clearToTableBodyContext();
      insertElement(in);
      mode_ = InsertionMode::inRow;
      return Action::done;
    }
    if (in.kind == K::startTag && oneOf(in.id, T::th, T::td)) {
      clearToTableBodyContext();
      insertMade(T::tr);
      mode_ = InsertionMode::inRow;
      return Action::reprocess;
    }
    if (in.kind == K::endTag && oneOf(in.id, T::tbody, T::tfoot, T::thead)) {
      if (!inScope(Scope::table, in.id)) return Action::done;
      clearToTableBodyContext();
      pop();
      mode_ = InsertionMode::inTable;
      return Action::done;
    }
    if ((in.kind == K::startTag &&
         oneOf(in.id, T::caption, T::col, T::colgroup, T::tbody, T::tfoot, T::thead)) ||
        in.isEnd(T::table)) {
      if (!inScope(Scope::table, T::tbody, T::thead, T::tfoot)) return Action::done;
      clearToTableBodyContext();
      pop();
      mode_ = InsertionMode::inTable;
      return Action::reprocess;
    }
    if (in.kind == K::endTag &&
        oneOf(in.id, T::body, T::caption, T::col, T::colgroup, T::html, T::td, T::th, T::tr))
      return Action::done;
    return inTable(in);
  }

  Action inRow(const Input& in) {
    if (in.kind == K::startTag && oneOf(in.id, T::th, T::td)) {
      clearToTableRowContext();
      insertElement(in);
      mode_ = InsertionMode::inCell;
      insertMarker();
      return Action::done;
    }
    if (in.isEnd(T::tr)) {
      if (!inScope(Scope::table, T::tr)) return Action::done;
      clearToTableRowContext();
      pop();
      mode_ = InsertionMode::inTableBody;
      return Action::done;
    }
    if ((in.kind == K::startTag &&
         oneOf(in.id, T::caption, T::col, T::colgroup, T::tbody, T::tfoot, T::thead, T::tr)) ||
        in.isEnd(T::table)) {
      if (!inScope(Scope::table, T::tr)) return Action::done;
      clearToTableRowContext();
      pop();
      mode_ = InsertionMode::inTableBody;
      return Action::reprocess;
    }
    if (in.kind == K::endTag && oneOf(in.id, T::tbody, T::tfoot, T::thead)) {
      if (!inScope(Scope::table, in.id) || !inScope(Scope::table, T::tr)) return Action::done;
      clearToTableRowContext();
      pop();
      mode_ = InsertionMode::inTableBody;
      return Action::reprocess;
    }
    if (in.kind == K::endTag &&
        oneOf(in.id, T::body, T::caption, T::col, T::colgroup, T::html, T::td, T::th))
      return Action::done;
    return inTable(in);
  }

  void closeCell() {
    generateImpliedEndTags();
    popUntilOneOf(T::td, T::th);
    clearFormattingToLastMarker();
    mode_ = InsertionMode::inRow;
  }

  Action inCell(const Input& in) {
    if (in.kind == K::endTag && oneOf(in.id, T::td, T::th)) {
      if (!inScope(Scope::table, in.id)) return Action::done;
      generateImpliedEndTags();
      popUntil(in.id);
      clearFormattingToLastMarker();
      mode_ = InsertionMode::inRow;
      return Action::done;
    }
    if (in.kind == K::startTag && oneOf(in.id, T::caption, T::col, T::colgroup, T::tbody, T::td,
                                        T::tfoot, T::th, T::thead, T::tr)) {
      if (!inScope(Scope::table, T::td, T::th)) return Action::done;
      closeCell();
      return Action::reprocess;
    }
    if (in.kind == K::endTag && oneOf(in.id, T::body, T::caption, T::col, T::colgroup, T::html))
      return Action::done;
    if (in.kind == K::endTag && oneOf(in.id, T::table, T::tbody, T::tfoot, T::thead, T::tr)) {
      if (!inScope(Scope::table, in.id)) return Action::done;
      closeCell();
      return Action::reprocess;
    }
    return inBody(in);
  }

  Action inSelect(const Input& in) {
    switch (in.kind) {
      case K::null:
        return Action::done;
      case K::whitespace:
      case K::characters:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::endOfFile:
        return inBody(in);
      case K::startTag:
        switch (in.id) {
          case T::html:
            return inBody(in);
          case T::option:
            if (currentIs(T::option)) pop();
            insertElement(in);
            return Action::done;
          case T::optgroup:
            if (currentIs(T::option)) pop();
            if (currentIs(T::optgroup)) pop();
            insertElement(in);
            return Action::done;
          case T::hr:
            if (currentIs(T::option)) pop();
            if (currentIs(T::optgroup)) pop();
            insertVoid(in);
            return Action::done;
          case T::select:
            if (!inScope(Scope::select, T::select)) return Action::done;
            popUntil(T::select);
            resetInsertionMode();
            return Action::done;
          case T::input:
          case T::keygen:
          case T::textarea:
            if (!inScope(Scope::select, T::select)) return Action::done;
            popUntil(T::select);
            resetInsertionMode();
            return Action::reprocess;
          case T::script:
            return inHead(in);
          default:
            return Action::done;
        }
      case K::endTag:
        switch (in.id) {
          case T::optgroup:
            if (currentIs(T::option) && open_.size() > 1 &&
                doc_.tagOf(open_[open_.size() - 2]) == T::optgroup)
              pop();
            if (currentIs(T::optgroup)) pop();
            return Action::done;
          case T::option:
            if (currentIs(T::option)) pop();
            return Action::done;
          case T::select:
            if (!inScope(Scope::select, T::select)) return Action::done;
            popUntil(T::select);
            resetInsertionMode();
            return Action::done;
          default:
            return Action::done;
        }
    }
    return Action::done;
  }

  Action inSelectInTable(const Input& in) {
    const bool tableTag = oneOf(in.id, T::caption, T::table, T::tbody, T::tfoot, T::thead, T::tr,
                                T::td, T::th);
    if (in.kind == K::startTag && tableTag) {
      popUntil(T::select);
      resetInsertionMode();
      return Action::reprocess;
    }
    if (in.kind == K::endTag && tableTag) {
      if (!inScope(Scope::table, in.id)) return Action::done;
      popUntil(T::select);
      resetInsertionMode();
      return Action::reprocess;
    }
    return inSelect(in);
  }

  Action afterBody(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        return inBody(in);
      case K::comment:
        insertComment(in, open_.front());
        return Action::done;
      case K::doctype:
        return Action::done;
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        break;
      case K::endTag:
        if (in.id == T::html) {
          if (!hasContext_) mode_ = InsertionMode::afterAfterBody;
          return Action::done;
        }
        break;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      default:
        break;
    }
    mode_ = InsertionMode::inBody;
    return Action::reprocess;
  }

  Action inFrameset(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (in.id == T::frameset) {
          insertElement(in);
          return Action::done;
        }
        if (in.id == T::frame) {
          insertVoid(in);
          return Action::done;
        }
        if (in.id == T::noframes) return inHead(in);
        return Action::done;
      case K::endTag:
        if (in.id == T::frameset && open_.size() > 1) {
          pop();
          if (!hasContext_ && !currentIs(T::frameset)) mode_ = InsertionMode::afterFrameset;
        }
        return Action::done;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      default:
        return Action::done;
    }
  }

  Action afterFrameset(const Input& in) {
    switch (in.kind) {
      case K::whitespace:
        insertCharacters(in.text);
        return Action::done;
      case K::comment:
        insertComment(in);
        return Action::done;
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (in.id == T::noframes) return inHead(in);
        return Action::done;
      case K::endTag:
        if (in.id == T::html) mode_ = InsertionMode::afterAfterFrameset;
        return Action::done;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      default:
        return Action::done;
    }
  }

  Action afterAfterBody(const Input& in) {
    switch (in.kind) {
      case K::comment:
        insertComment(in, root_);
        return Action::done;
      case K::doctype:
      case K::whitespace:
        return inBody(in);
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        break;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      default:
        break;
    }
    mode_ = InsertionMode::inBody;
    return Action::reprocess;
  }

  Action afterAfterFrameset(const Input& in) {
    switch (in.kind) {
      case K::comment:
        insertComment(in, root_);
        return Action::done;
      case K::doctype:
      case K::whitespace:
        return inBody(in);
      case K::startTag:
        if (in.id == T::html) return inBody(in);
        if (in.id == T::noframes) return inHead(in);
        return Action::done;
      case K::endOfFile:
        stopped_ = true;
        return Action::done;
      default:
        return Action::done;
    }
  }

  Document& doc_;
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

}  // namespace

std::unique_ptr<Document> Document::parse(std::string html, Attributes kept) {
  std::unique_ptr<Document> document(new Document(std::move(html), {}, kept));
  TreeBuilder(*document, document->source()).parseDocument();
  return document;
}

std::unique_ptr<Document> Document::parseUnowned(std::string_view html, Attributes kept) {
  // A view of no characters names the owned source; an empty one of its own is the same.
  std::unique_ptr<Document> document(new Document({}, html, kept));
  TreeBuilder(*document, document->source()).parseDocument();
  return document;
}

std::unique_ptr<Document> Document::parseFragment(std::string html, std::string_view context) {
  std::unique_ptr<Document> document(new Document(std::move(html), {}));
  TreeBuilder(*document, document->source()).parseFragment(context);
  return document;
}

}  // namespace lumora::html
