#include "support/MimeShape.h"

#include <utility>
#include <vector>

#include "lumora/platform/Text.h"

namespace lumora::testing {

std::string shapeOf(const Mime& mime) {
  std::string out;
  // (node, index of the next part to write); a node is written when first met.
  std::vector<std::pair<const Mime*, size_t>> stack{{&mime, 0}};
  bool first = true;
  while (!stack.empty()) {
    auto& [node, next] = stack.back();
    const MimeContent& content = node->content();
    if (next == 0) {
      if (!first && out.back() != '[') out += ',';
      first = false;
      if (content.kind() == MimeContent::Kind::body) {
        const auto& type = node->header().contentType;
        if (type) {
          out += text::asciiLowercased(type->type);
          out += '/';
          out += text::asciiLowercased(type->subtype);
        } else {
          out += '-';
        }
        out += ':';
        out += content.body()->encoding().name();
        stack.pop_back();
        continue;
      }
      out += text::asciiLowercased(node->header().contentType->subtype);
      out += '[';
    }
    if (next < content.parts().size()) {
      const Mime* child = &content.parts()[next++];
      stack.emplace_back(child, 0);
    } else {
      out += ']';
      stack.pop_back();
    }
  }
  return out;
}

size_t depthOf(const Mime& mime) {
  size_t deepest = 0;
  std::vector<std::pair<const Mime*, size_t>> stack{{&mime, 0}};
  while (!stack.empty()) {
    const auto [node, depth] = stack.back();
    stack.pop_back();
    if (depth > deepest) deepest = depth;
    for (const Mime& part : node->content().parts()) stack.emplace_back(&part, depth + 1);
  }
  return deepest;
}

}  // namespace lumora::testing
