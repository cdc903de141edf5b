#include "terminal/LineEditor.h"

#include <algorithm>

namespace lumora::terminal {
namespace {

bool isLineEnd(char c) { return c == '\n' || c == '\r'; }
bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

void LineEditor::setText(std::string text) {
  text_ = std::move(text);
  cursor_ = text_.size();
  view_.top = 0;
  edited();
}

void LineEditor::edited() {
  stale_ = true;
  goalColumn_ = -1;
}

size_t LineEditor::lineStartOf(size_t at) const {
  while (at > 0 && !isLineEnd(text_[at - 1])) --at;
  return at;
}

size_t LineEditor::lineEndOf(size_t at) const {
  while (at < text_.size() && !isLineEnd(text_[at])) ++at;
  return at;
}

size_t LineEditor::nextBoundary(size_t at) const {
  return at >= text_.size() ? at : at + characterAt(text_, at).length;
}

size_t LineEditor::previousBoundary(size_t at) const {
  if (at == 0) return 0;
  const size_t start = lineStartOf(at);
  if (start == at) return at >= 2 && text_[at - 2] == '\r' && text_[at - 1] == '\n' ? at - 2 : at - 1;
  // Characters are only known going forwards: walk the line up to the cursor.
  size_t previous = start;
  for (size_t i = start; i < at; i = nextBoundary(i)) previous = i;
  return previous;
}

void LineEditor::insert(std::string_view utf8) {
  text_.insert(cursor_, utf8);
  cursor_ += utf8.size();
  // Text joined with what follows (a letter typed before a combining accent) must not leave
  // the cursor inside a character. Only a non-ASCII byte after the cursor can join.
  if (cursor_ < text_.size() && static_cast<unsigned char>(text_[cursor_]) >= 0x80) {
    size_t boundary = lineStartOf(cursor_);
    while (boundary < cursor_) boundary = nextBoundary(boundary);
    cursor_ = boundary;
  }
  edited();
}

void LineEditor::backspace() {
  const size_t from = previousBoundary(cursor_);
  text_.erase(from, cursor_ - from);
  cursor_ = from;
  edited();
}

void LineEditor::deleteForward() {
  text_.erase(cursor_, nextBoundary(cursor_) - cursor_);
  edited();
}

void LineEditor::deleteWordBackward() {
  size_t from = cursor_;
  while (from > 0 && isBlank(text_[from - 1])) --from;
  while (from > 0 && !isBlank(text_[from - 1]) && !isLineEnd(text_[from - 1]))
    from = previousBoundary(from);
  if (from == cursor_) from = previousBoundary(cursor_);  // at a line start: join the lines
  text_.erase(from, cursor_ - from);
  cursor_ = from;
  edited();
}

void LineEditor::deleteToLineEnd() {
  const size_t end = lineEndOf(cursor_);
  text_.erase(cursor_, (end == cursor_ ? nextBoundary(cursor_) : end) - cursor_);
  edited();
}

void LineEditor::deleteToLineStart() {
  const size_t start = lineStartOf(cursor_);
  text_.erase(start, cursor_ - start);
  cursor_ = start;
  edited();
}

void LineEditor::left() {
  cursor_ = previousBoundary(cursor_);
  goalColumn_ = -1;
}

void LineEditor::right() {
  cursor_ = nextBoundary(cursor_);
  goalColumn_ = -1;
}

void LineEditor::lineStart() {
  cursor_ = lineStartOf(cursor_);
  goalColumn_ = -1;
}

void LineEditor::lineEnd() {
  cursor_ = lineEndOf(cursor_);
  goalColumn_ = -1;
}

size_t LineEditor::lineOfCursor(const std::vector<LineSpan>& lines) const {
  // The last line that begins at or before the cursor: a cursor where a wrapped line ends
  // stands at the start of the next one.
  const auto after = std::upper_bound(lines.begin(), lines.end(), cursor_,
                                      [](size_t at, const LineSpan& l) { return at < l.begin; });
  return static_cast<size_t>(after - lines.begin()) - 1;
}

void LineEditor::moveLines(int count) {
  if (width_ <= 0) return;
  const std::vector<LineSpan>& lines = wrapped(width_);
  const size_t line = lineOfCursor(lines);
  if (goalColumn_ < 0) goalColumn_ = displayWidth(std::string_view(text_).substr(
                                         lines[line].begin, cursor_ - lines[line].begin));
  const long target = static_cast<long>(line) + count;
  if (target < 0) {
    cursor_ = 0;
    return;
  }
  if (target >= static_cast<long>(lines.size())) {
    cursor_ = text_.size();
    return;
  }
  const LineSpan& to = lines[static_cast<size_t>(target)];
  size_t at = to.begin;
  int column = 0;
  while (at < to.contentEnd) {
    const Character c = characterAt(text_, at, column);
    if (column + c.width > goalColumn_) break;
    column += c.width;
    at += c.length;
  }
  cursor_ = at;
}

const std::vector<LineSpan>& LineEditor::wrapped(int width) {
  if (stale_ || width != width_) {
    view_.lines = wrapLines(text_, width);
    width_ = width;
    stale_ = false;
  }
  return view_.lines;
}

const LineEditor::View& LineEditor::layout(int width, int height) {
  wrapped(width);
  const size_t line = lineOfCursor(view_.lines);
  const size_t rows = static_cast<size_t>(std::max(height, 1));
  if (line < view_.top) view_.top = line;
  if (line >= view_.top + rows) view_.top = line + 1 - rows;
  view_.top = std::min(view_.top, view_.lines.size() > rows ? view_.lines.size() - rows : 0);
  view_.cursorRow = static_cast<int>(line - view_.top);
  const LineSpan& span = view_.lines[line];
  view_.cursorColumn = std::min(
      width, displayWidth(std::string_view(text_).substr(span.begin, cursor_ - span.begin)));
  return view_;
}

}  // namespace lumora::terminal
