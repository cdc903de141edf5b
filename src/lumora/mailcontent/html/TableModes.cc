// The table insertion modes: in table, in table text, in caption, in column group, in table
// body, in row and in cell.
#include "lumora/mailcontent/html/TreeBuilder.h"
#include "lumora/platform/Text.h"

namespace lumora::html {

TreeBuilder::Action TreeBuilder::inTable(const Input& in) {
  if (const auto handled = opening(in, {Ws::own, Co::atPlace, false})) return *handled;
  switch (in.kind) {
    case K::whitespace:
    case K::characters:
    case K::null:
      if (oneOf(doc_.tagOf(current()), T::table, T::tbody, T::template_, T::tfoot, T::thead,
                T::tr)) {
        pendingTableText_.clear();
        pendingHasNonWhitespace_ = false;
        originalMode_ = mode_;
        mode_ = InsertionMode::inTableText;
        return Action::reprocess;
      }
      break;
    case K::startTag:
      if (const auto handled = inTableStartTag(in)) return *handled;
      break;
    case K::endTag:
      if (in.id == T::table) {
        if (!inScope(Scope::table, T::table)) return Action::done;
        popUntilAndReset(T::table);
        return Action::done;
      }
      if (isOneOf(in.id, {T::body, T::caption, T::col, T::colgroup, T::html, T::tbody, T::td,
                          T::tfoot, T::th, T::thead, T::tr}))
        return Action::done;
      break;
    case K::endOfFile:
      return inBody(in);
    case K::comment:
    case K::doctype:
      break;  // in the opening
  }
  // Anything else goes where the body would put it, before the table when it would go inside.
  fosterParenting_ = true;
  const Action action = inBody(in);
  fosterParenting_ = false;
  return action;
}

std::optional<TreeBuilder::Action> TreeBuilder::inTableStartTag(const Input& in) {
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
      popUntilAndReset(T::table);
      return Action::reprocess;
    case T::style:
    case T::script:
      return inHead(in);
    case T::input: {
      const std::string* type = in.token->attribute("type");
      if (!type || !text::equalsIgnoringCase(*type, "hidden")) return std::nullopt;
      insertVoid(in);
      return Action::done;
    }
    case T::form:
      if (form_ != kNoNode) return Action::done;
      form_ = insertElement(in);
      pop();
      return Action::done;
    default:
      return std::nullopt;
  }
}

TreeBuilder::Action TreeBuilder::inTableText(const Input& in) {
  switch (in.kind) {
    case K::null:
      return Action::done;
    case K::whitespace:
    case K::characters:
      pendingTableText_.append(in.text);
      if (in.kind == K::characters) pendingHasNonWhitespace_ = true;
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

bool TreeBuilder::closeCaption() {
  if (!inScope(Scope::table, T::caption)) return false;
  generateImpliedEndTags();
  popUntil(T::caption);
  clearFormattingToLastMarker();
  mode_ = InsertionMode::inTable;
  return true;
}

TreeBuilder::Action TreeBuilder::inCaption(const Input& in) {
  if (in.isEnd(T::caption)) {
    closeCaption();
    return Action::done;
  }
  if (in.isStartOf(
          {T::caption, T::col, T::colgroup, T::tbody, T::td, T::tfoot, T::th, T::thead, T::tr}) ||
      in.isEnd(T::table))
    return closeCaption() ? Action::reprocess : Action::done;
  if (in.isEndOf({T::body, T::col, T::colgroup, T::html, T::tbody, T::td, T::tfoot, T::th, T::thead,
                  T::tr}))
    return Action::done;
  return inBody(in);
}

TreeBuilder::Action TreeBuilder::inColumnGroup(const Input& in) {
  if (const auto handled = opening(in, {Ws::insert, Co::atPlace, true})) return *handled;
  if (in.isStart(T::col)) {
    insertVoid(in);
    return Action::done;
  }
  if (in.isEnd(T::colgroup)) {
    if (currentIs(T::colgroup)) {
      pop();
      mode_ = InsertionMode::inTable;
    }
    return Action::done;
  }
  if (in.isEnd(T::col)) return Action::done;
  if (in.kind == K::endOfFile) return inBody(in);
  if (!currentIs(T::colgroup)) return Action::done;
  pop();
  mode_ = InsertionMode::inTable;
  return Action::reprocess;
}

TreeBuilder::Action TreeBuilder::closeTablePart(TagId part, bool inScope, Action then) {
  if (!inScope) return Action::done;
  if (part == T::tr)
    clearToTableRowContext();
  else
    clearToTableBodyContext();
  pop();
  mode_ = part == T::tr ? InsertionMode::inTableBody : InsertionMode::inTable;
  return then;
}

TreeBuilder::Action TreeBuilder::inTableBody(const Input& in) {
  if (in.isStart(T::tr)) {
    clearToTableBodyContext();
    insertElement(in);
    mode_ = InsertionMode::inRow;
    return Action::done;
  }
  if (in.isStartOf({T::th, T::td})) {
    clearToTableBodyContext();
    insertMade(T::tr);
    mode_ = InsertionMode::inRow;
    return Action::reprocess;
  }
  if (in.isEndOf({T::tbody, T::tfoot, T::thead}))
    return closeTablePart(T::tbody, inScope(Scope::table, in.id), Action::done);
  if (in.isStartOf({T::caption, T::col, T::colgroup, T::tbody, T::tfoot, T::thead}) ||
      in.isEnd(T::table))
    return closeTablePart(T::tbody, inScope(Scope::table, T::tbody, T::thead, T::tfoot),
                          Action::reprocess);
  if (in.isEndOf({T::body, T::caption, T::col, T::colgroup, T::html, T::td, T::th, T::tr}))
    return Action::done;
  return inTable(in);
}

TreeBuilder::Action TreeBuilder::inRow(const Input& in) {
  if (in.isStartOf({T::th, T::td})) {
    clearToTableRowContext();
    insertElement(in);
    mode_ = InsertionMode::inCell;
    insertMarker();
    return Action::done;
  }
  if (in.isEnd(T::tr)) return closeTablePart(T::tr, inScope(Scope::table, T::tr), Action::done);
  if (in.isStartOf({T::caption, T::col, T::colgroup, T::tbody, T::tfoot, T::thead, T::tr}) ||
      in.isEnd(T::table))
    return closeTablePart(T::tr, inScope(Scope::table, T::tr), Action::reprocess);
  if (in.isEndOf({T::tbody, T::tfoot, T::thead}))
    return closeTablePart(T::tr, inScope(Scope::table, in.id) && inScope(Scope::table, T::tr),
                          Action::reprocess);
  if (in.isEndOf({T::body, T::caption, T::col, T::colgroup, T::html, T::td, T::th}))
    return Action::done;
  return inTable(in);
}

void TreeBuilder::closeCell() {
  generateImpliedEndTags();
  popUntilOneOf(T::td, T::th);
  clearFormattingToLastMarker();
  mode_ = InsertionMode::inRow;
}

TreeBuilder::Action TreeBuilder::inCell(const Input& in) {
  if (in.isEndOf({T::td, T::th})) {
    if (!inScope(Scope::table, in.id)) return Action::done;
    generateImpliedEndTags();
    popUntil(in.id);
    clearFormattingToLastMarker();
    mode_ = InsertionMode::inRow;
    return Action::done;
  }
  if (in.isStartOf(
          {T::caption, T::col, T::colgroup, T::tbody, T::td, T::tfoot, T::th, T::thead, T::tr})) {
    if (!inScope(Scope::table, T::td, T::th)) return Action::done;
    closeCell();
    return Action::reprocess;
  }
  if (in.isEndOf({T::body, T::caption, T::col, T::colgroup, T::html})) return Action::done;
  if (in.isEndOf({T::table, T::tbody, T::tfoot, T::thead, T::tr})) {
    if (!inScope(Scope::table, in.id)) return Action::done;
    closeCell();
    return Action::reprocess;
  }
  return inBody(in);
}

}  // namespace lumora::html
