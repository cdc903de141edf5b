// The document tree of an HTML source, and the two things the mail reading asks of it: the
// elements of a tag name, and the text of an element.
//
// Every node is owned by its Document and freed with it in one sweep, so a deep tree never
// recurses on teardown; nodes link to parent and siblings, so moving one is constant time.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/mailcontent/html/Tags.h"
#include "lumora/mailcontent/html/Tokenizer.h"

namespace lumora::html {

enum class NodeKind { element, text, data, comment, doctype };

class Element;

class Node {
 public:
  explicit Node(NodeKind kind) : kind_(kind) {}
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  NodeKind kind() const { return kind_; }
  Element* parent() const { return parent_; }
  Node* firstChild() const { return firstChild_; }
  Node* lastChild() const { return lastChild_; }
  Node* nextSibling() const { return next_; }
  Node* previousSibling() const { return previous_; }

  // Linking, for the tree builder. `before` null appends.
  void insertChild(Node* child, Node* before);
  void appendChild(Node* child) { insertChild(child, nullptr); }
  void removeChild(Node* child);

 private:
  NodeKind kind_;
  Element* parent_ = nullptr;
  Node* firstChild_ = nullptr;
  Node* lastChild_ = nullptr;
  Node* next_ = nullptr;
  Node* previous_ = nullptr;
};

// An element's tag: its name in lower case and the flags the text rules use.
class Tag {
 public:
  Tag(TagId id, std::string name) : id_(id), name_(std::move(name)) {}
  TagId id() const { return id_; }
  const std::string& tagName() const { return name_; }
  bool isBlock() const { return isBlockTag(id_); }
  bool preserveWhitespace() const { return preservesWhitespace(id_); }

 private:
  TagId id_;
  std::string name_;
};

class Elements;

class Element : public Node {
 public:
  Element(Tag tag, std::vector<Attribute> attributes)
      : Node(NodeKind::element), tag_(std::move(tag)), attributes_(std::move(attributes)) {}
  const Tag& tag() const { return tag_; }
  TagId id() const { return tag_.id(); }
  const std::vector<Attribute>& attributes() const { return attributes_; }
  std::vector<Attribute>& attributes() { return attributes_; }

  // This element and every element below it whose tag name is `query`, in document order.
  // The query is a bare tag name; anything else fails with std::invalid_argument.
  Elements select(std::string_view query) const;

  // The text of this element and everything below it; with the flag on, whitespace collapsed
  // as prose would show it and the ends trimmed.
  std::string text(bool trimAndNormaliseWhitespace) const;

  // Whether the parser holds the element open while it builds the tree; no meaning after.
  bool parserOpen = false;

 private:
  Tag tag_;
  std::vector<Attribute> attributes_;
};

class TextNode : public Node {
 public:
  explicit TextNode(std::string text) : Node(NodeKind::text), text_(std::move(text)) {}
  const std::string& text() const { return text_; }
  std::string& text() { return text_; }

 private:
  std::string text_;
};

// The content of a script or style element.
class DataNode : public Node {
 public:
  explicit DataNode(std::string data) : Node(NodeKind::data), data_(std::move(data)) {}
  const std::string& data() const { return data_; }
  std::string& data() { return data_; }

 private:
  std::string data_;
};

class Comment : public Node {
 public:
  explicit Comment(std::string data) : Node(NodeKind::comment), data_(std::move(data)) {}
  const std::string& data() const { return data_; }

 private:
  std::string data_;
};

class DocumentType : public Node {
 public:
  DocumentType(std::string name, std::string publicId, std::string systemId)
      : Node(NodeKind::doctype),
        name_(std::move(name)),
        publicId_(std::move(publicId)),
        systemId_(std::move(systemId)) {}
  const std::string& name() const { return name_; }
  const std::string& publicId() const { return publicId_; }
  const std::string& systemId() const { return systemId_; }

 private:
  std::string name_, publicId_, systemId_;
};

class Elements {
 public:
  size_t size() const { return elements_.size(); }
  const Element& get(size_t index) const { return *elements_.at(index); }
  void add(const Element* element) { elements_.push_back(element); }

 private:
  std::vector<const Element*> elements_;
};

// The root: an element named "#root" that owns every node of the tree.
class Document : public Element {
 public:
  Document();
  ~Document();

  // Parses any text into a document; nothing is an error. `baseUri` is kept for links, which
  // nothing here resolves.
  static std::unique_ptr<Document> parse(std::string_view html, std::string_view baseUri);

  // As the children of a `context` element (a lower-case tag name), for fragments.
  static std::unique_ptr<Document> parseFragment(std::string_view html, std::string_view context);

  Element* makeElement(TagId id, std::string name, std::vector<Attribute> attributes);
  TextNode* makeText(std::string text);
  DataNode* makeData(std::string data);
  Comment* makeComment(std::string data);
  DocumentType* makeDocumentType(std::string name, std::string publicId, std::string systemId);

 private:
  std::deque<Element> elements_;
  std::deque<TextNode> texts_;
  std::deque<DataNode> data_;
  std::deque<Comment> comments_;
  std::deque<DocumentType> doctypes_;
};

}  // namespace lumora::html
