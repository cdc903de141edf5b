#include "lumora/mailcontent/html/Document.h"

#include <stdexcept>

#include "lumora/platform/Text.h"

namespace lumora::html {

void Node::insertChild(Node* child, Node* before) {
  child->parent_ = static_cast<Element*>(this);
  child->next_ = before;
  child->previous_ = before ? before->previous_ : lastChild_;
  if (child->previous_)
    child->previous_->next_ = child;
  else
    firstChild_ = child;
  if (before)
    before->previous_ = child;
  else
    lastChild_ = child;
}

void Node::removeChild(Node* child) {
  if (child->previous_)
    child->previous_->next_ = child->next_;
  else
    firstChild_ = child->next_;
  if (child->next_)
    child->next_->previous_ = child->previous_;
  else
    lastChild_ = child->previous_;
  child->parent_ = nullptr;
  child->next_ = child->previous_ = nullptr;
}

Document::Document() : Element(Tag(TagId::unknown, "#root"), {}) {}
Document::~Document() = default;

Element* Document::makeElement(TagId id, std::string name, std::vector<Attribute> attributes) {
  return &elements_.emplace_back(Tag(id, std::move(name)), std::move(attributes));
}
TextNode* Document::makeText(std::string text) { return &texts_.emplace_back(std::move(text)); }
DataNode* Document::makeData(std::string data) { return &data_.emplace_back(std::move(data)); }
Comment* Document::makeComment(std::string data) {
  return &comments_.emplace_back(std::move(data));
}
DocumentType* Document::makeDocumentType(std::string name, std::string publicId,
                                         std::string systemId) {
  return &doctypes_.emplace_back(std::move(name), std::move(publicId), std::move(systemId));
}

namespace {

// Calls `visit` on `root` and every node below it, parents before children, without
// recursion.
template <typename Visit>
void walk(const Node* root, Visit visit) {
  const Node* node = root;
  while (node) {
    visit(node);
    if (node->firstChild()) {
      node = node->firstChild();
      continue;
    }
    while (node != root && !node->nextSibling()) node = node->parent();
    if (node == root) break;
    node = node->nextSibling();
  }
}

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

void appendNormalised(std::string& out, const std::string& text) {
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

bool preservedBy(const Element* element) {
  return element && element->tag().preserveWhitespace();
}

// The final trim, only when the text begins or ends in HTML whitespace: then every kind of
// white space and line separator goes from both ends, a no-break space too.
std::string trimmed(std::string text) {
  if (text.empty() || (!isHtmlWhitespace(text.front()) && !isHtmlWhitespace(text.back())))
    return text;
  return std::string(text::trimmed(text));
}

}  // namespace

Elements Element::select(std::string_view query) const {
  if (!isBareTagName(query)) throw std::invalid_argument("unsupported query");
  Elements result;
  walk(this, [&](const Node* node) {
    if (node->kind() != NodeKind::element) return;
    const auto* element = static_cast<const Element*>(node);
    if (element->tag().tagName() == query) result.add(element);
  });
  return result;
}

std::string Element::text(bool trimAndNormaliseWhitespace) const {
  std::string out;
  walk(this, [&](const Node* node) {
    switch (node->kind()) {
      case NodeKind::text: {
        const auto& text = static_cast<const TextNode*>(node)->text();
        const Element* parent = node->parent();
        if (!trimAndNormaliseWhitespace || preservedBy(parent) ||
            (parent && preservedBy(parent->parent())))
          out += text;
        else
          appendNormalised(out, text);
        break;
      }
      case NodeKind::element: {
        const Tag& tag = static_cast<const Element*>(node)->tag();
        if (trimAndNormaliseWhitespace && !out.empty() &&
            (tag.isBlock() || tag.tagName() == "br") && !endsInSpace(out))
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
