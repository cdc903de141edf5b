// The instruction editor's text and cursor: multi-line UTF-8, edited a whole character at a
// time (a letter with its accents, an emoji with its joined parts), shown soft-wrapped in a box
// of a given width. Knows nothing of the terminal.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "terminal/TextLayout.h"

namespace lumora::terminal {

class LineEditor {
 public:
  // The whole text, the cursor at its end.
  void setText(std::string text);
  const std::string& text() const { return text_; }
  // The cursor as a byte offset; always on a character boundary.
  size_t cursor() const { return cursor_; }

  void insert(std::string_view utf8);
  void backspace();
  void deleteForward();
  // Deletes back to the start of the word before the cursor (blanks first, then the word).
  void deleteWordBackward();
  // Deletes from the cursor to the end of its line, or the line end itself when already there.
  void deleteToLineEnd();
  void deleteToLineStart();

  void left();
  void right();
  void lineStart();
  void lineEnd();
  // Moves `lines` display lines down (negative: up) at the width the editor was last laid out
  // for, keeping the column the cursor had when vertical movement began.
  void moveLines(int lines);

  // Lays the text out `width` columns wide and `height` rows high: scrolls so that the cursor
  // is in view. Returns the cursor's row within the view and its column.
  struct View {
    std::vector<LineSpan> lines;  // every line of the text
    size_t top = 0;               // the first line shown
    int cursorRow = 0;            // within the view
    int cursorColumn = 0;
  };
  const View& layout(int width, int height);

 private:
  size_t previousBoundary(size_t at) const;
  size_t nextBoundary(size_t at) const;
  size_t lineStartOf(size_t at) const;
  size_t lineEndOf(size_t at) const;
  // The text's display lines at `width`, laid out again only after a change.
  const std::vector<LineSpan>& wrapped(int width);
  // The display line holding the cursor in `lines`.
  size_t lineOfCursor(const std::vector<LineSpan>& lines) const;
  void edited();

  std::string text_;
  size_t cursor_ = 0;
  int goalColumn_ = -1;  // while moving up and down
  int width_ = 0;
  View view_;
  bool stale_ = true;
};

}  // namespace lumora::terminal
