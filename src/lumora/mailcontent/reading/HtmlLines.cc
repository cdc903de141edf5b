#include "lumora/mailcontent/reading/HtmlLines.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::reading {
namespace {

using html::NodeId;
using html::NodeKind;
using html::TagId;

// How an element shapes the text around it.
enum class Shape : uint8_t {
  inlined,    // its text runs on in the line
  skipped,    // nothing of it is shown
  lineBreak,  // br
  rule,       // hr
  block,      // on lines of its own
  paragraph,  // on lines of its own, a blank line around
  quotation,  // blockquote: a paragraph one quotation deeper
  list,       // ul, ol: a paragraph, or a block inside another list
  item,       // li
  cell,       // td, th: apart from the cell before it in the row
  preformatted,
};

Shape shapeOf(TagId tag) {
  switch (tag) {
    case TagId::head: case TagId::title: case TagId::script: case TagId::style:
    case TagId::template_: case TagId::noscript: case TagId::iframe: case TagId::object:
    case TagId::embed: case TagId::select: case TagId::svg: case TagId::math:
    case TagId::noembed: case TagId::noframes: case TagId::audio: case TagId::video:
    case TagId::canvas: case TagId::textarea: case TagId::button: case TagId::input:
    case TagId::meta: case TagId::link: case TagId::base: case TagId::param:
      return Shape::skipped;
    case TagId::br:
      return Shape::lineBreak;
    case TagId::hr:
      return Shape::rule;
    case TagId::blockquote:
      return Shape::quotation;
    case TagId::ul: case TagId::ol: case TagId::menu: case TagId::dir:
      return Shape::list;
    case TagId::li:
      return Shape::item;
    case TagId::td: case TagId::th:
      return Shape::cell;
    case TagId::pre: case TagId::listing: case TagId::xmp: case TagId::plaintext:
      return Shape::preformatted;
    case TagId::p: case TagId::h1: case TagId::h2: case TagId::h3: case TagId::h4:
    case TagId::h5: case TagId::h6: case TagId::table: case TagId::dl: case TagId::figure:
    case TagId::fieldset: case TagId::address:
      return Shape::paragraph;
    case TagId::div: case TagId::tr: case TagId::dt: case TagId::dd: case TagId::article:
    case TagId::aside: case TagId::center: case TagId::details: case TagId::dialog:
    case TagId::footer: case TagId::header: case TagId::hgroup: case TagId::main:
    case TagId::nav: case TagId::section: case TagId::summary: case TagId::caption:
    case TagId::figcaption: case TagId::form: case TagId::search: case TagId::body:
    case TagId::html: case TagId::frameset: case TagId::frame: case TagId::option:
    case TagId::optgroup:
      return Shape::block;
    default:
      return Shape::inlined;
  }
}

// What entering an element changed, undone when it is left.
enum Effect : uint8_t {
  kBlock = 1,
  kParagraph = 2,
  kQuotation = 4,
  kList = 8,
  kPreformatted = 16,
  kSignature = 32,
  kAttribution = 64,
};

bool hasToken(std::string_view list, std::string_view token) {
  size_t i = 0;
  while (i < list.size()) {
    while (i < list.size() && (list[i] == ' ' || list[i] == '\t' || list[i] == '\n')) ++i;
    size_t j = i;
    while (j < list.size() && list[j] != ' ' && list[j] != '\t' && list[j] != '\n') ++j;
    if (list.substr(i, j - i) == token) return true;
    i = j;
  }
  return false;
}

// The marks mail programs put on the parts of a reply, read off an element's class and id.
struct Marks {
  bool attribution = false;
  bool threadStart = false;
  bool signature = false;
};

Marks marksOf(const html::Document& document, NodeId element) {
  Marks marks;
  for (const html::Attribute& attribute : document.attributesOf(element)) {
    if (attribute.name == "class") {
      const std::string_view c = attribute.value;
      if (hasToken(c, "moz-cite-prefix") || hasToken(c, "gmail_attr")) marks.attribution = true;
      if (hasToken(c, "yahoo_quoted") || hasToken(c, "protonmail_quote")) marks.threadStart = true;
      if (hasToken(c, "moz-signature") || hasToken(c, "gmail_signature")) marks.signature = true;
    } else if (attribute.name == "id") {
      const std::string_view id = attribute.value;
      if (id == "divRplyFwdMsg" || id == "x_divRplyFwdMsg" || id == "appendonsend" ||
          id == "x_appendonsend" || id == "OLK_SRC_BODY_SECTION")
        marks.threadStart = true;
      if (id == "Signature" || id == "signature") marks.signature = true;
    }
  }
  return marks;
}

// The deepest list whose items are indented further than the one around it.
constexpr size_t kDeepestIndent = 8;

class Walk {
 public:
  Walk(const html::Document& document, TextLines& out) : document_(document), out_(out) {}

  void run() {
    const NodeId root = document_.root().id();
    NodeId node = document_.firstChildOf(root);
    while (node != html::kNoNode) {
      if (enter(node)) {
        const NodeId child = document_.firstChildOf(node);
        if (child != html::kNoNode) {
          node = child;
          continue;
        }
        leave();
      }
      while (node != html::kNoNode) {
        const NodeId next = document_.nextSiblingOf(node);
        if (next != html::kNoNode) {
          node = next;
          break;
        }
        node = document_.parentOf(node);
        if (node == root || node == html::kNoNode) {
          node = html::kNoNode;
          break;
        }
        leave();
      }
    }
    endLine();
  }

 private:
  // Whether the walk goes into the node's children.
  bool enter(NodeId node) {
    const NodeKind kind = document_.kindOf(node);
    if (kind == NodeKind::text) {
      text(document_.contentOf(node));
      return false;
    }
    if (kind != NodeKind::element) return false;
    const Shape shape = shapeOf(document_.tagOf(node));
    uint8_t effect = 0;
    switch (shape) {
      case Shape::skipped:
        return false;
      case Shape::lineBreak:
        lineBreak();
        return false;
      case Shape::rule:
        endLine();
        blankWanted_ = true;
        pendingFlags_ |= TextLines::ruleBefore;
        return false;
      case Shape::inlined:
        break;
      case Shape::block:
        endLine();
        effect = kBlock;
        break;
      case Shape::paragraph:
        endLine();
        blankWanted_ = true;
        effect = kParagraph;
        break;
      case Shape::quotation:
        endLine();
        blankWanted_ = true;
        ++depth_;
        effect = kParagraph | kQuotation;
        break;
      case Shape::list:
        endLine();
        if (lists_.empty()) blankWanted_ = true;
        effect = (lists_.empty() ? kParagraph : kBlock) | kList;
        lists_.push_back(document_.tagOf(node) == TagId::ol ? 1 : 0);
        break;
      case Shape::item:
        endLine();
        effect = kBlock;
        itemPending_ = true;
        break;
      case Shape::cell:
        if (lineOpen_) cellGap_ = true;
        break;
      case Shape::preformatted:
        endLine();
        blankWanted_ = true;
        ++preformatted_;
        effect = kParagraph | kPreformatted;
        break;
    }
    const Marks marks = marksOf(document_, node);
    if (marks.threadStart) pendingFlags_ |= TextLines::threadStart;
    if (marks.signature) {
      endLine();
      ++signature_;
      effect |= kSignature | kBlock;
    }
    if (marks.attribution) {
      endLine();
      ++attribution_;
      effect |= kAttribution | kBlock;
    }
    effects_.push_back(effect);
    return true;
  }

  void leave() {
    const uint8_t effect = effects_.back();
    effects_.pop_back();
    if (effect & (kBlock | kParagraph)) endLine();
    if (effect & kParagraph) blankWanted_ = true;
    if (effect & kQuotation) --depth_;
    if (effect & kList) lists_.pop_back();
    if (effect & kPreformatted) --preformatted_;
    if (effect & kSignature) --signature_;
    if (effect & kAttribution) --attribution_;
  }

  static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f'; }
  static bool isNoBreakSpace(std::string_view s, size_t i) {
    return s[i] == '\xC2' && i + 1 < s.size() && s[i + 1] == '\xA0';
  }

  void text(std::string_view s) {
    if (preformatted_ > 0) {
      preformattedText(s);
      return;
    }
    size_t i = 0;
    while (i < s.size()) {
      size_t j = i;
      while (j < s.size() && (isSpace(s[j]) || isNoBreakSpace(s, j))) j += isSpace(s[j]) ? 1 : 2;
      if (j > i) {
        spaceWanted_ = true;
        i = j;
        continue;
      }
      while (j < s.size() && !isSpace(s[j]) && !isNoBreakSpace(s, j)) ++j;
      word(s.substr(i, j - i));
      i = j;
    }
  }

  void preformattedText(std::string_view s) {
    size_t i = 0;
    while (i < s.size()) {
      size_t j = s.find('\n', i);
      if (j == std::string_view::npos) j = s.size();
      std::string_view piece = s.substr(i, j - i);
      if (!piece.empty() && piece.back() == '\r') piece.remove_suffix(1);
      if (!piece.empty()) {
        openLine();
        out_.append(piece);
        lineHasText_ = true;
      }
      if (j < s.size()) lineBreak();
      i = j + 1;
    }
  }

  void word(std::string_view w) {
    openLine();
    if (cellGap_ && lineHasText_) {
      out_.append(" | ");
    } else if (spaceWanted_ && lineHasText_) {
      out_.append(' ');
    }
    cellGap_ = false;
    spaceWanted_ = false;
    out_.append(w);
    lineHasText_ = true;
  }

  void openLine() {
    if (lineOpen_) return;
    if (blankWanted_ && haveLines_ && !lastBlank_) {
      out_.add("", depth_);
      lastBlank_ = true;
    }
    blankWanted_ = false;
    lineOpen_ = true;
    lineHasText_ = false;
    lineDepth_ = depth_;
    lineFlags_ = pendingFlags_;
    pendingFlags_ = 0;
    if (signature_ > 0) lineFlags_ |= TextLines::signature;
    if (attribution_ > 0) lineFlags_ |= TextLines::attribution;
    if (itemPending_) {
      itemPending_ = false;
      // Nested lists indent, up to a depth that no real list reaches, so that a thousand
      // nested lists cannot make every item a line of blanks.
      for (size_t i = 1; i < std::min(lists_.size(), kDeepestIndent); ++i) out_.append("  ");
      if (!lists_.empty() && lists_.back() > 0) {
        out_.append(std::to_string(lists_.back()++));
        out_.append(". ");
      } else {
        out_.append("- ");
      }
    }
  }

  void endLine() {
    if (!lineOpen_) return;
    lineOpen_ = false;
    if (!lineHasText_) {
      // Only a list marker, say: nothing to show, and the marks wait for the next line.
      out_.dropPending(out_.pending().size());
      pendingFlags_ |= lineFlags_ & (TextLines::threadStart | TextLines::ruleBefore);
      return;
    }
    out_.endLine(lineDepth_, lineFlags_);
    haveLines_ = true;
    lastBlank_ = false;
    cellGap_ = false;
    spaceWanted_ = false;
  }

  // br: ends the line, or makes an empty one.
  void lineBreak() {
    if (lineOpen_ && lineHasText_) {
      endLine();
      return;
    }
    if (lineOpen_) endLine();
    if (haveLines_ && !lastBlank_) {
      out_.add("", depth_);
      lastBlank_ = true;
    }
    blankWanted_ = false;
    spaceWanted_ = false;
  }

  const html::Document& document_;
  TextLines& out_;
  std::vector<uint8_t> effects_;  // of each element the walk is in
  std::vector<int> lists_;        // the next number of each open list; 0 for an unordered one
  uint32_t depth_ = 0;            // open blockquotes
  uint32_t preformatted_ = 0;
  uint32_t signature_ = 0;
  uint32_t attribution_ = 0;
  uint8_t pendingFlags_ = 0;  // for the next line that gets text
  bool lineOpen_ = false;
  bool lineHasText_ = false;
  uint32_t lineDepth_ = 0;
  uint8_t lineFlags_ = 0;
  bool blankWanted_ = false;
  bool spaceWanted_ = false;
  bool cellGap_ = false;
  bool itemPending_ = false;
  bool haveLines_ = false;
  bool lastBlank_ = false;
};

}  // namespace

void addHtmlLines(const html::Document& document, TextLines& out) { Walk(document, out).run(); }

}  // namespace lumora::reading
