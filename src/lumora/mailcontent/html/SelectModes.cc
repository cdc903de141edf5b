// The select insertion modes: in select, and in select in table, where table tags close the
// select first.
#include "lumora/mailcontent/html/TreeBuilder.h"

namespace lumora::html {

TreeBuilder::Action TreeBuilder::inSelect(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  switch (in.kind) {
    case K::characters:
      insertCharacters(in.text);
      return Action::done;
    case K::endOfFile:
      return inBody(in);
    case K::startTag:
      switch (in.id) {
        case T::option:
        case T::optgroup:
        case T::hr:
          if (currentIs(T::option)) pop();
          if (in.id != T::option && currentIs(T::optgroup)) pop();
          if (in.id == T::hr)
            insertVoid(in);
          else
            insertElement(in);
          return Action::done;
        case T::select:
        case T::input:
        case T::keygen:
        case T::textarea:
          if (!inScope(Scope::select, T::select)) return Action::done;
          popUntilAndReset(T::select);
          return in.id == T::select ? Action::done : Action::reprocess;
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
          if (inScope(Scope::select, T::select)) popUntilAndReset(T::select);
          return Action::done;
        default:
          return Action::done;
      }
    default:  // U+0000 is dropped; the rest is in the opening
      return Action::done;
  }
}

TreeBuilder::Action TreeBuilder::inSelectInTable(const Input& in) {
  const bool tableTag =
      oneOf(in.id, T::caption, T::table, T::tbody, T::tfoot, T::thead, T::tr, T::td, T::th);
  if (tableTag &&
      (in.kind == K::startTag || (in.kind == K::endTag && inScope(Scope::table, in.id)))) {
    popUntilAndReset(T::select);
    return Action::reprocess;
  }
  if (in.kind == K::endTag && tableTag) return Action::done;
  return inSelect(in);
}

}  // namespace lumora::html
