// The insertion modes around the body: before the html element, before and in the head, text
// (the content of script, style, title and the like), after the body, and the framesets.
#include "lumora/mailcontent/html/TreeBuilder.h"

namespace lumora::html {

TreeBuilder::Action TreeBuilder::initial(const Input& in) {
  if (in.kind == K::doctype) {
    const Token& t = *in.token;
    doc_.appendChild(root_, doc_.makeDocumentType(t.name, t.publicIdentifier, t.systemIdentifier));
    quirks_ = isQuirksDoctype(t);
    mode_ = InsertionMode::beforeHtml;
    return Action::done;
  }
  if (const auto handled = opening(in, {Ws::ignore, Co::onDocument, false})) return *handled;
  quirks_ = true;
  mode_ = InsertionMode::beforeHtml;
  return Action::reprocess;
}

TreeBuilder::Action TreeBuilder::beforeHtml(const Input& in) {
  if (const auto handled = opening(in, {Ws::ignore, Co::onDocument, false})) return *handled;
  const bool tag = in.isStart(T::html);
  if (!tag && in.kind == K::endTag && !oneOf(in.id, T::head, T::body, T::html, T::br))
    return Action::done;
  const NodeId html = tag ? createElement(in) : doc_.makeElement(T::html, {}, {});
  doc_.appendChild(root_, html);
  push(html);
  mode_ = InsertionMode::beforeHead;
  return tag ? Action::done : Action::reprocess;
}

TreeBuilder::Action TreeBuilder::beforeHead(const Input& in) {
  if (const auto handled = opening(in, {Ws::ignore, Co::atPlace, true})) return *handled;
  const bool tag = in.isStart(T::head);
  if (!tag && in.kind == K::endTag && !oneOf(in.id, T::head, T::body, T::html, T::br))
    return Action::done;
  head_ = tag ? insertElement(in) : insertMade(T::head);
  mode_ = InsertionMode::inHead;
  return tag ? Action::done : Action::reprocess;
}

TreeBuilder::Action TreeBuilder::inHead(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  if (in.kind == K::startTag) {
    switch (in.id) {
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
  }
  const bool headEnds = in.isEnd(T::head);
  if (!headEnds && in.kind == K::endTag && !oneOf(in.id, T::body, T::html, T::br))
    return Action::done;
  pop();
  mode_ = InsertionMode::afterHead;
  return headEnds ? Action::done : Action::reprocess;
}

TreeBuilder::Action TreeBuilder::inHeadNoscript(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  if (in.isStartOf({T::basefont, T::bgsound, T::link, T::meta, T::noframes, T::style}))
    return inHead(in);
  if (in.isStartOf({T::head, T::noscript})) return Action::done;
  const bool noscriptEnds = in.isEnd(T::noscript);
  if (!noscriptEnds && in.kind == K::endTag && in.id != T::br) return Action::done;
  pop();
  mode_ = InsertionMode::inHead;
  return noscriptEnds ? Action::done : Action::reprocess;
}

TreeBuilder::Action TreeBuilder::inHeadReopened(const Input& in) {
  push(head_);
  const Action action = inHead(in);
  removeFromStack(head_);
  return action;
}

TreeBuilder::Action TreeBuilder::afterHead(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  if (in.kind == K::startTag) {
    switch (in.id) {
      case T::body:
        insertElement(in);
        framesetOk_ = false;
        mode_ = InsertionMode::inBody;
        return Action::done;
      case T::frameset:
        insertElement(in);
        mode_ = InsertionMode::inFrameset;
        return Action::done;
      case T::head:
        return Action::done;
      default:
        if (isOneOf(in.id, {T::base, T::basefont, T::bgsound, T::link, T::meta, T::noframes,
                            T::script, T::style, T::title}))
          return inHeadReopened(in);
        break;
    }
  }
  if (in.kind == K::endTag && !oneOf(in.id, T::body, T::html, T::br)) return Action::done;
  insertMade(T::body);
  mode_ = InsertionMode::inBody;
  return Action::reprocess;
}

TreeBuilder::Action TreeBuilder::textMode(const Input& in) {
  switch (in.kind) {
    case K::whitespace:
    case K::characters:
    case K::null:
      insertCharacters(in.text);
      return Action::done;
    case K::endOfFile:
    case K::endTag:
      pop();
      mode_ = originalMode_;
      return in.kind == K::endOfFile ? Action::reprocess : Action::done;
    default:
      return Action::done;
  }
}

TreeBuilder::Action TreeBuilder::backToBody(const Input& in) {
  if (in.kind == K::endOfFile) {
    stopped_ = true;
    return Action::done;
  }
  mode_ = InsertionMode::inBody;
  return Action::reprocess;
}

TreeBuilder::Action TreeBuilder::afterBody(const Input& in) {
  if (const auto handled = opening(in, {Ws::asInBody, Co::onHtmlElement, true})) return *handled;
  if (in.isEnd(T::html)) {
    if (!hasContext_) mode_ = InsertionMode::afterAfterBody;
    return Action::done;
  }
  return backToBody(in);
}

TreeBuilder::Action TreeBuilder::inFrameset(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  switch (in.kind) {
    case K::startTag:
      if (in.id == T::frameset) {
        insertElement(in);
      } else if (in.id == T::frame) {
        insertVoid(in);
      } else if (in.id == T::noframes) {
        return inHead(in);
      }
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

TreeBuilder::Action TreeBuilder::afterFrameset(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  if (in.isStart(T::noframes)) return inHead(in);
  if (in.isEnd(T::html)) mode_ = InsertionMode::afterAfterFrameset;
  if (in.kind == K::endOfFile) stopped_ = true;
  return Action::done;
}

TreeBuilder::Action TreeBuilder::afterAfterBody(const Input& in) {
  if (const auto handled = opening(in, {Ws::asInBody, Co::onDocument, true})) return *handled;
  return backToBody(in);
}

TreeBuilder::Action TreeBuilder::afterAfterFrameset(const Input& in) {
  if (const auto handled = opening(in, {Ws::asInBody, Co::onDocument, true})) return *handled;
  if (in.isStart(T::noframes)) return inHead(in);
  if (in.kind == K::endOfFile) stopped_ = true;
  return Action::done;
}

}  // namespace lumora::html
