// The "in body" insertion mode: where nearly all of a mail's markup is read.
#include "lumora/mailcontent/html/TreeBuilder.h"
#include "lumora/platform/Text.h"

namespace lumora::html {
namespace {

using T = TagId;

// How the body treats a start tag: one kind a rule, the tags of each kind as data.
enum class BodyStart : uint8_t {
  anyOther,
  ignored,  // table parts and head, out of place in the body
  html,
  headContent,  // as in the head
  body,
  frameset,
  block,  // closes an open p, then opens
  heading,
  preformatted,
  form,
  listItem,
  plaintext,
  button,
  anchor,
  formatting,
  nobr,
  objectLike,  // opens with a marker on the formatting list
  table,
  voidInline,  // void, and ends the chance of a frameset
  input,
  voidQuiet,  // void, and leaves that chance
  hr,
  image,
  isindex,
  textarea,
  xmp,
  iframe,
  noembed,
  select,
  option,
  rubyBase,
  rubyText,
};

constexpr TagMap<BodyStart> kBodyStart = mapTags<BodyStart>({
    {BodyStart::ignored,
     {T::caption, T::col, T::colgroup, T::frame, T::head, T::tbody, T::td, T::tfoot, T::th,
      T::thead, T::tr}},
    {BodyStart::html, {T::html}},
    {BodyStart::headContent,
     {T::base, T::basefont, T::bgsound, T::link, T::meta, T::noframes, T::script, T::style,
      T::title}},
    {BodyStart::body, {T::body}},
    {BodyStart::frameset, {T::frameset}},
    {BodyStart::block,
     {T::address, T::article, T::aside,   T::blockquote, T::center,     T::details, T::dialog,
      T::dir,     T::div,     T::dl,      T::fieldset,   T::figcaption, T::figure,  T::footer,
      T::header,  T::hgroup,  T::main,    T::menu,       T::nav,        T::ol,      T::p,
      T::search,  T::section, T::summary, T::ul}},
    {BodyStart::heading, {T::h1, T::h2, T::h3, T::h4, T::h5, T::h6}},
    {BodyStart::preformatted, {T::pre, T::listing}},
    {BodyStart::form, {T::form}},
    {BodyStart::listItem, {T::li, T::dd, T::dt}},
    {BodyStart::plaintext, {T::plaintext}},
    {BodyStart::button, {T::button}},
    {BodyStart::anchor, {T::a}},
    {BodyStart::formatting,
     {T::b, T::big, T::code, T::em, T::font, T::i, T::s, T::small, T::strike, T::strong, T::tt,
      T::u}},
    {BodyStart::nobr, {T::nobr}},
    {BodyStart::objectLike, {T::applet, T::marquee, T::object}},
    {BodyStart::table, {T::table}},
    {BodyStart::voidInline, {T::area, T::br, T::embed, T::img, T::keygen, T::wbr}},
    {BodyStart::input, {T::input}},
    {BodyStart::voidQuiet, {T::param, T::source, T::track}},
    {BodyStart::hr, {T::hr}},
    {BodyStart::image, {T::image}},
    {BodyStart::isindex, {T::isindex}},
    {BodyStart::textarea, {T::textarea}},
    {BodyStart::xmp, {T::xmp}},
    {BodyStart::iframe, {T::iframe}},
    {BodyStart::noembed, {T::noembed}},
    {BodyStart::select, {T::select}},
    {BodyStart::option, {T::optgroup, T::option}},
    {BodyStart::rubyBase, {T::rb, T::rtc}},
    {BodyStart::rubyText, {T::rp, T::rt}},
});

// How the body treats an end tag, likewise.
enum class BodyEnd : uint8_t {
  anyOther,
  body,
  html,
  block,  // closes the element when it is in scope
  form,
  p,
  li,
  listItem,  // dd and dt
  heading,
  formatting,  // through the adoption agency
  objectLike,
  br,
};

constexpr TagMap<BodyEnd> kBodyEnd = mapTags<BodyEnd>({
    {BodyEnd::body, {T::body}},
    {BodyEnd::html, {T::html}},
    {BodyEnd::block,
     {T::address, T::article, T::aside,  T::blockquote, T::button,   T::center,     T::details,
      T::dialog,  T::dir,     T::div,    T::dl,         T::fieldset, T::figcaption, T::figure,
      T::footer,  T::header,  T::hgroup, T::listing,    T::main,     T::menu,       T::nav,
      T::ol,      T::pre,     T::search, T::section,    T::summary,  T::ul}},
    {BodyEnd::form, {T::form}},
    {BodyEnd::p, {T::p}},
    {BodyEnd::li, {T::li}},
    {BodyEnd::listItem, {T::dd, T::dt}},
    {BodyEnd::heading, {T::h1, T::h2, T::h3, T::h4, T::h5, T::h6}},
    {BodyEnd::formatting,
     {T::a, T::b, T::big, T::code, T::em, T::font, T::i, T::nobr, T::s, T::small, T::strike,
      T::strong, T::tt, T::u}},
    {BodyEnd::objectLike, {T::applet, T::marquee, T::object}},
    {BodyEnd::br, {T::br}},
});

BodyStart bodyStartOf(TagId id) { return kBodyStart[static_cast<size_t>(id)]; }

}  // namespace

TreeBuilder::Action TreeBuilder::inBody(const Input& in) {
  if (const auto handled = opening(in, {Ws::own, Co::atPlace, false})) return *handled;
  switch (in.kind) {
    case K::null:
      return Action::done;
    case K::whitespace:
    case K::characters:
      reconstructFormatting();
      insertCharacters(in.text);
      if (in.kind == K::characters) framesetOk_ = false;
      return Action::done;
    case K::endOfFile:
      stopped_ = true;
      return Action::done;
    case K::startTag:
      return inBodyStartTag(in);
    case K::endTag:
      return inBodyEndTag(in);
    case K::comment:
    case K::doctype:
      break;  // in the opening
  }
  return Action::done;
}

// The start tags of the document's frame, the head and the blocks; the rest in
// inBodyInlineStart.
TreeBuilder::Action TreeBuilder::inBodyStartTag(const Input& in) {
  switch (bodyStartOf(in.id)) {
    case BodyStart::anyOther:
      reconstructFormatting();
      insertElement(in);
      return Action::done;
    case BodyStart::ignored:
      return Action::done;
    case BodyStart::html:
      if (!open_.empty()) doc_.addMissingAttributes(open_.front(), in.token->attributes);
      return Action::done;
    case BodyStart::headContent:
      return inHead(in);
    case BodyStart::body:
      if (open_.size() < 2 || doc_.tagOf(open_[1]) != T::body) return Action::done;
      framesetOk_ = false;
      doc_.addMissingAttributes(open_[1], in.token->attributes);
      return Action::done;
    case BodyStart::frameset:
      if (open_.size() < 2 || doc_.tagOf(open_[1]) != T::body || !framesetOk_) return Action::done;
      doc_.detach(open_[1]);
      while (open_.size() > 1) pop();
      insertElement(in);
      mode_ = InsertionMode::inFrameset;
      return Action::done;
    case BodyStart::block:
      closePInButtonScope();
      insertElement(in);
      return Action::done;
    case BodyStart::heading:
      closePInButtonScope();
      if (bodyStartOf(doc_.tagOf(current())) == BodyStart::heading) pop();
      insertElement(in);
      return Action::done;
    case BodyStart::preformatted:
      // The line feed right behind the start tag stays in the text.
      closePInButtonScope();
      insertElement(in);
      framesetOk_ = false;
      return Action::done;
    case BodyStart::form:
      if (form_ != kNoNode) return Action::done;
      closePInButtonScope();
      form_ = insertElement(in);
      return Action::done;
    case BodyStart::listItem:
      startListItem(in);
      return Action::done;
    case BodyStart::plaintext:
      closePInButtonScope();
      insertElement(in);
      tokenizer_.switchTo(TokenizerState::plaintext);
      return Action::done;
    case BodyStart::button:
      if (inScope(Scope::normal, T::button)) {
        generateImpliedEndTags();
        popUntil(T::button);
      }
      reconstructFormatting();
      insertElement(in);
      framesetOk_ = false;
      return Action::done;
    case BodyStart::table:
      if (!quirks_) closePInButtonScope();
      insertElement(in);
      framesetOk_ = false;
      mode_ = InsertionMode::inTable;
      return Action::done;
    default:
      return inBodyInlineStart(in);
  }
}

// The start tags of formatting, void and raw-text elements, selects and ruby.
TreeBuilder::Action TreeBuilder::inBodyInlineStart(const Input& in) {
  switch (bodyStartOf(in.id)) {
    case BodyStart::anchor:
      startAnchor(in);
      return Action::done;
    case BodyStart::formatting:
      reconstructFormatting();
      pushFormatting(insertElement(in));
      return Action::done;
    case BodyStart::nobr:
      reconstructFormatting();
      if (inScope(Scope::normal, T::nobr)) {
        adopt(in);
        reconstructFormatting();
      }
      pushFormatting(insertElement(in));
      return Action::done;
    case BodyStart::objectLike:
      reconstructFormatting();
      insertElement(in);
      insertMarker();
      framesetOk_ = false;
      return Action::done;
    case BodyStart::voidInline:
      reconstructFormatting();
      insertVoid(in);
      framesetOk_ = false;
      return Action::done;
    case BodyStart::input: {
      reconstructFormatting();
      insertVoid(in);
      const std::string* type = in.token->attribute("type");
      if (!type || !text::equalsIgnoringCase(*type, "hidden")) framesetOk_ = false;
      return Action::done;
    }
    case BodyStart::voidQuiet:
      insertVoid(in);
      return Action::done;
    case BodyStart::hr:
      closePInButtonScope();
      insertVoid(in);
      framesetOk_ = false;
      return Action::done;
    case BodyStart::image: {
      Token renamed = *in.token;
      renamed.name = "img";
      return inBody({K::startTag, &renamed, T::img});
    }
    case BodyStart::isindex:
      isindex(in);
      return Action::done;
    case BodyStart::textarea:
      // The line feed right behind the start tag stays in the text.
      framesetOk_ = false;
      genericText(in, TokenizerState::rcdata);
      return Action::done;
    case BodyStart::xmp:
      closePInButtonScope();
      reconstructFormatting();
      framesetOk_ = false;
      genericText(in, TokenizerState::rawtext);
      return Action::done;
    case BodyStart::iframe:
      framesetOk_ = false;
      genericText(in, TokenizerState::rawtext);
      return Action::done;
    case BodyStart::noembed:
      genericText(in, TokenizerState::rawtext);
      return Action::done;
    case BodyStart::select:
      startSelect(in);
      return Action::done;
    case BodyStart::option:
      if (currentIs(T::option)) pop();
      reconstructFormatting();
      insertElement(in);
      return Action::done;
    case BodyStart::rubyBase:
    case BodyStart::rubyText:
      if (inScope(Scope::normal, T::ruby))
        generateImpliedEndTags(bodyStartOf(in.id) == BodyStart::rubyText ? T::rtc : T::unknown);
      insertElement(in);
      return Action::done;
    default:  // in inBodyStartTag
      return Action::done;
  }
}

void TreeBuilder::startListItem(const Input& in) {
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
}

void TreeBuilder::startAnchor(const Input& in) {
  for (size_t i = formatting_.size(); i-- > 0;) {
    NodeId e = formatting_[i];
    if (e == kNoNode) break;
    if (doc_.tagOf(e) != T::a) continue;
    adopt(in);
    const size_t entry = formattingIndexOf(e);
    if (entry != SIZE_MAX) eraseFormatting(entry);
    removeFromStack(e);
    break;
  }
  reconstructFormatting();
  pushFormatting(insertElement(in));
}

void TreeBuilder::startSelect(const Input& in) {
  using M = InsertionMode;
  reconstructFormatting();
  insertElement(in);
  framesetOk_ = false;
  const bool inTablePart = mode_ == M::inTable || mode_ == M::inCaption ||
                           mode_ == M::inTableBody || mode_ == M::inRow || mode_ == M::inCell;
  mode_ = inTablePart ? M::inSelectInTable : M::inSelect;
}

// The old replacement of isindex: a small search form whose prompt is text of the page.
void TreeBuilder::isindex(const Input& in) {
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

TreeBuilder::Action TreeBuilder::inBodyEndTag(const Input& in) {
  switch (kBodyEnd[static_cast<size_t>(in.id)]) {
    case BodyEnd::anyOther:
      anyOtherEndTag(in);
      return Action::done;
    case BodyEnd::body:
    case BodyEnd::html:
      if (!inScope(Scope::normal, T::body)) return Action::done;
      mode_ = InsertionMode::afterBody;
      return in.id == T::html ? Action::reprocess : Action::done;
    case BodyEnd::block:
      if (!inScope(Scope::normal, in.id)) return Action::done;
      generateImpliedEndTags();
      popUntil(in.id);
      return Action::done;
    case BodyEnd::form: {
      NodeId node = form_;
      form_ = kNoNode;
      if (node == kNoNode || !elementInScope(node)) return Action::done;
      generateImpliedEndTags();
      removeFromStack(node);
      return Action::done;
    }
    case BodyEnd::p:
      if (!inScope(Scope::button, T::p)) insertMade(T::p);
      closeP();
      return Action::done;
    case BodyEnd::li:
      if (!inScope(Scope::listItem, T::li)) return Action::done;
      generateImpliedEndTags(T::li);
      popUntil(T::li);
      return Action::done;
    case BodyEnd::listItem:
      if (!inScope(Scope::normal, in.id)) return Action::done;
      generateImpliedEndTags(in.id);
      popUntil(in.id);
      return Action::done;
    case BodyEnd::heading:
      if (!inScope(Scope::normal, T::h1, T::h2, T::h3, T::h4, T::h5, T::h6)) return Action::done;
      generateImpliedEndTags();
      popUntilOneOf(T::h1, T::h2, T::h3, T::h4, T::h5, T::h6);
      return Action::done;
    case BodyEnd::formatting:
      adopt(in);
      return Action::done;
    case BodyEnd::objectLike:
      if (!inScope(Scope::normal, in.id)) return Action::done;
      generateImpliedEndTags();
      popUntil(in.id);
      clearFormattingToLastMarker();
      return Action::done;
    case BodyEnd::br: {
      Token br;
      br.type = Token::Type::startTag;
      br.name = "br";
      return inBodyStartTag({K::startTag, &br, T::br});
    }
  }
  return Action::done;
}

void TreeBuilder::anyOtherEndTag(const Input& in) {
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

}  // namespace lumora::html
