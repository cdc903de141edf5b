#include "lumora/mailcontent/html/TreeBuilder.h"

#include <algorithm>

namespace lumora::html {
namespace {

// How deep the open elements may nest. Past it a new element goes in as a sibling of the
// current one, so nothing is dropped, and every scan of the stack stays bounded.
constexpr size_t kMaxOpenElements = 512;
// How many formatting elements may wait for reconstruction behind the last marker. Past it the
// earliest is forgotten, so that reopening them after each closing is bounded too.
constexpr size_t kMaxFormattingElements = 64;

bool isWhitespace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r'; }

// The tokenizer state in which a fragment's context element reads its content.
std::optional<TokenizerState> contentStateOf(TagId context) {
  switch (context) {
    case TagId::title:
    case TagId::textarea:
      return TokenizerState::rcdata;
    case TagId::style:
    case TagId::xmp:
    case TagId::iframe:
    case TagId::noembed:
    case TagId::noframes:
      return TokenizerState::rawtext;
    case TagId::script:
      return TokenizerState::scriptData;
    case TagId::plaintext:
      return TokenizerState::plaintext;
    default:
      return std::nullopt;
  }
}

}  // namespace

TreeBuilder::TreeBuilder(Document& document, std::string_view html)
    : doc_(document), root_(doc_.root()), tokenizer_(html) {}

void TreeBuilder::parseDocument() { run(); }

void TreeBuilder::parseFragment(std::string_view context) {
  contextId_ = tagIdOf(context);
  hasContext_ = true;
  if (const auto state = contentStateOf(contextId_)) tokenizer_.switchTo(*state);
  const NodeId html = doc_.makeElement(T::html, {}, {});
  doc_.appendChild(root_, html);
  push(html);
  resetInsertionMode();
  run();
}

// ---- the driver --------------------------------------------------------------------------

void TreeBuilder::run() {
  while (true) {
    const Token& token = tokenizer_.next();
    switch (token.type) {
      case Token::Type::characters:
        feedCharacters(token.characters);
        break;
      case Token::Type::doctype:
        feed({K::doctype, &token});
        break;
      case Token::Type::startTag:
        feed({K::startTag, &token, tagIdOf(token.name)});
        break;
      case Token::Type::endTag:
        feed({K::endTag, &token, tagIdOf(token.name)});
        break;
      case Token::Type::comment:
        feed({K::comment, &token});
        break;
      case Token::Type::endOfFile:
        feed({K::endOfFile});
        return;
    }
    if (stopped_) return;
  }
}

void TreeBuilder::feedCharacters(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && !stopped_) {
    const size_t start = i;
    if (text[i] == '\0') {
      feed({K::null, nullptr, T::unknown, text.substr(i, 1)});
      ++i;
      continue;
    }
    const bool space = isWhitespace(text[i]);
    while (i < text.size() && text[i] != '\0' && isWhitespace(text[i]) == space) ++i;
    feed({space ? K::whitespace : K::characters, nullptr, T::unknown,
          text.substr(start, i - start)});
  }
}

TreeBuilder::Action TreeBuilder::process(InsertionMode mode, const Input& in) {
  using M = InsertionMode;
  switch (mode) {
    case M::initial:
      return initial(in);
    case M::beforeHtml:
      return beforeHtml(in);
    case M::beforeHead:
      return beforeHead(in);
    case M::inHead:
      return inHead(in);
    case M::inHeadNoscript:
      return inHeadNoscript(in);
    case M::afterHead:
      return afterHead(in);
    case M::inBody:
      return inBody(in);
    case M::text:
      return textMode(in);
    case M::inTable:
      return inTable(in);
    case M::inTableText:
      return inTableText(in);
    case M::inCaption:
      return inCaption(in);
    case M::inColumnGroup:
      return inColumnGroup(in);
    case M::inTableBody:
      return inTableBody(in);
    case M::inRow:
      return inRow(in);
    case M::inCell:
      return inCell(in);
    case M::inSelect:
      return inSelect(in);
    case M::inSelectInTable:
      return inSelectInTable(in);
    case M::afterBody:
      return afterBody(in);
    case M::inFrameset:
      return inFrameset(in);
    case M::afterFrameset:
      return afterFrameset(in);
    case M::afterAfterBody:
      return afterAfterBody(in);
    case M::afterAfterFrameset:
      return afterAfterFrameset(in);
  }
  return Action::done;
}

void TreeBuilder::feedMade(Token::Type type, TagId id, std::vector<Attribute> attributes) {
  Token token;
  token.type = type;
  token.name = std::string(tagNameOf(id));
  token.attributes = std::move(attributes);
  feed({type == Token::Type::startTag ? K::startTag : K::endTag, &token, id});
}

// ---- the stack of open elements ------------------------------------------------------------

void TreeBuilder::popUntilElement(NodeId e) {
  if (!isOpen(e)) return;
  while (true) {
    const bool found = open_.back() == e;
    pop();
    if (found) return;
  }
}

void TreeBuilder::removeFromStack(NodeId e) {
  if (!doc_.parserOpen(e)) return;
  const auto it = std::find(open_.begin(), open_.end(), e);
  closed(e);
  open_.erase(it);
}

bool TreeBuilder::endsScope(TagId id, Scope scope) {
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

bool TreeBuilder::elementInScope(NodeId target) const {
  for (auto it = open_.rbegin(); it != open_.rend(); ++it) {
    if (*it == target) return true;
    if (endsScope(doc_.tagOf(*it), Scope::normal)) return false;
  }
  return false;
}

void TreeBuilder::generateImpliedEndTags(TagId except) {
  while (!open_.empty()) {
    const TagId id = doc_.tagOf(open_.back());
    if (id == except ||
        !oneOf(id, T::dd, T::dt, T::li, T::optgroup, T::option, T::p, T::rb, T::rp, T::rt, T::rtc))
      return;
    pop();
  }
}

void TreeBuilder::closeP() {
  generateImpliedEndTags(T::p);
  popUntil(T::p);
}

void TreeBuilder::resetInsertionMode() {
  using M = InsertionMode;
  // The mode an open element calls for when the stack is read from the top down; `initial`
  // for the elements that call for none, where the search goes on.
  static constexpr TagMap<M> kModeFor = mapTags<M>({
      {M::inSelect, {T::select}},
      {M::inCell, {T::td, T::th}},
      {M::inRow, {T::tr}},
      {M::inTableBody, {T::tbody, T::thead, T::tfoot}},
      {M::inCaption, {T::caption}},
      {M::inColumnGroup, {T::colgroup}},
      {M::inTable, {T::table}},
      {M::inHead, {T::head}},
      {M::inBody, {T::body}},
      {M::inFrameset, {T::frameset}},
      {M::beforeHead, {T::html}},
  });
  for (size_t i = open_.size(); i-- > 0;) {
    const bool last = i == 0;
    const TagId id = last && hasContext_ ? contextId_ : doc_.tagOf(open_[i]);
    const M mode = kModeFor[static_cast<size_t>(id)];
    // At the bottom of the stack, where a fragment's context stands, a cell or a head is body
    // content.
    if (mode == M::initial || (last && (mode == M::inCell || mode == M::inHead))) continue;
    mode_ = mode;
    if (mode == M::beforeHead && head_ != kNoNode) mode_ = M::afterHead;
    if (mode == M::inSelect && !last) {
      for (size_t j = i; j-- > 0;) {
        const TagId below = doc_.tagOf(open_[j]);
        if (below == T::template_) break;
        if (below == T::table) {
          mode_ = M::inSelectInTable;
          break;
        }
      }
    }
    return;
  }
  mode_ = M::inBody;
}

// ---- inserting -----------------------------------------------------------------------------

TreeBuilder::Place TreeBuilder::appropriatePlace(NodeId target) const {
  if (target == kNoNode) target = current();
  if (fosterParenting_ &&
      oneOf(doc_.tagOf(target), T::table, T::tbody, T::tfoot, T::thead, T::tr)) {
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

NodeId TreeBuilder::insertElement(NodeId element) {
  if (open_.size() >= kMaxOpenElements) pop();  // nest no deeper: go in as a sibling
  const Place place = appropriatePlace();
  doc_.insertChild(place.parent, element, place.before);
  push(element);
  return element;
}

void TreeBuilder::insertCharacters(std::string_view text) {
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

void TreeBuilder::insertComment(const Input& in, NodeId parent) {
  const NodeId comment = doc_.makeCharacters(NodeKind::comment, in.token->data);
  if (parent != kNoNode) {
    doc_.appendChild(parent, comment);
    return;
  }
  const Place place = appropriatePlace();
  doc_.insertChild(place.parent, comment, place.before);
}

void TreeBuilder::genericText(const Input& in, TokenizerState state) {
  insertElement(in);
  tokenizer_.switchTo(state);
  originalMode_ = mode_;
  mode_ = InsertionMode::text;
}

// ---- the list of active formatting elements ------------------------------------------------

bool TreeBuilder::sameAttributes(NodeId a, NodeId b) const {
  const std::span<const Attribute> mine = doc_.attributesOf(a), others = doc_.attributesOf(b);
  if (mine.size() != others.size()) return false;
  for (const Attribute& attribute : mine) {
    const auto it = std::find_if(others.begin(), others.end(),
                                 [&](const Attribute& o) { return o.name == attribute.name; });
    if (it == others.end() || it->value != attribute.value) return false;
  }
  return true;
}

size_t TreeBuilder::afterLastMarker() const {
  for (size_t i = formatting_.size(); i-- > 0;)
    if (formatting_[i] == kNoNode) return i + 1;
  return 0;
}

void TreeBuilder::pushFormatting(NodeId element) {
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
  if (same >= 3) eraseFormatting(earliest);
  if (formatting_.size() - start >= kMaxFormattingElements) eraseFormatting(start);
  formatting_.push_back(element);
}

void TreeBuilder::clearFormattingToLastMarker() {
  while (!formatting_.empty()) {
    const bool marker = formatting_.back() == kNoNode;
    formatting_.pop_back();
    if (marker) return;
  }
}

size_t TreeBuilder::formattingIndexOf(NodeId e) const {
  for (size_t i = formatting_.size(); i-- > 0;)
    if (formatting_[i] == e) return i;
  return SIZE_MAX;
}

void TreeBuilder::reconstructFormatting() {
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

bool TreeBuilder::adoptionAgency(const Input& in) {
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
      eraseFormatting(formattingIndex);
      return true;
    }
    if (!elementInScope(formattingElement)) return true;
    const size_t stackIndex = static_cast<size_t>(
        std::find(open_.begin(), open_.end(), formattingElement) - open_.begin());
    size_t furthestIndex = stackIndex + 1;
    while (furthestIndex < open_.size() && !isSpecial(doc_.tagOf(open_[furthestIndex])))
      ++furthestIndex;
    if (furthestIndex == open_.size()) {
      popUntilElement(formattingElement);
      eraseFormatting(formattingIndex);
      return true;
    }
    adoptFurthestBlock(formattingElement, formattingIndex, stackIndex, furthestIndex);
  }
  return true;
}

void TreeBuilder::adoptFurthestBlock(NodeId formattingElement, size_t formattingIndex,
                                     size_t stackIndex, size_t furthestIndex) {
  const NodeId furthestBlock = open_[furthestIndex];
  const NodeId commonAncestor = open_[stackIndex - 1];
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
      eraseFormatting(nodeEntry);
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
  eraseFormatting(oldEntry);
  if (oldEntry < bookmark) --bookmark;
  formatting_.insert(formatting_.begin() + static_cast<std::ptrdiff_t>(bookmark), copy);

  removeFromStack(formattingElement);
  const auto fb = std::find(open_.begin(), open_.end(), furthestBlock);
  open_.insert(fb + 1, copy);
  opened(copy);
}

// ---- parsing -------------------------------------------------------------------------------

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
