// Text on a character grid: how many columns a piece of UTF-8 takes, where a paragraph breaks
// into lines of a given width, and what a line turns into on the screen. No terminal here, so
// all of it can be checked without one.
//
// Untrusted text (a reply, a message, a stored instruction) reaches the screen only through
// cells(): control characters become U+FFFD, so no byte of it can act as a terminal command,
// and ill-formed UTF-8 becomes U+FFFD too.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::terminal {

// The columns of tab stops.
inline constexpr int kTabWidth = 4;

// The character at byte `i` of `text` (i < text.size()) as the screen sees it.
struct Character {
  size_t length = 0;    // bytes
  int width = 0;        // columns; 0 for a line end
  bool lineEnd = false; // LF, CR or CR LF
  bool space = false;   // a blank or a tab: a place to break a line
  bool tab = false;
};

// One user-perceived character (a code point with its combining marks and joined code points)
// at `column`: a control character stands alone and takes one column, as U+FFFD; a tab reaches
// the next tab stop. Widths are those of the C.UTF-8 locale, whatever this process's locale.
Character characterAt(std::string_view text, size_t i, int column = 0);

// The columns `text` takes on one line starting at column 0.
int displayWidth(std::string_view text);

// One line of a wrapped text: bytes [begin, contentEnd) are drawn; [contentEnd, end) is the
// break (the line feed, or blanks that did not fit). Lines follow each other without gaps:
// the next line begins at `end`, and the last line ends at the text's end.
struct LineSpan {
  size_t begin = 0;
  size_t contentEnd = 0;
  size_t end = 0;
};

// `text` broken into lines of at most `width` columns (at least 2): at line feeds, after
// blanks, before and after wide characters, and inside a word only when the word alone is
// wider than a line. Never empty: an empty text is one empty line, and a text ending in a line
// feed ends with an empty line.
std::vector<LineSpan> wrapLines(std::string_view text, int width);

// Brings `lines`, which wrapLines made for a prefix of `text` at `width`, up to the whole of
// `text`, with the result wrapLines(text, width) would give; only the last paragraph is
// wrapped again.
void extendLines(std::vector<LineSpan>& lines, std::string_view text, int width);

// The characters of `text` as they go on one line of the screen, in at most `maxColumns`
// columns: controls replaced, tabs expanded, anything from a line end on dropped, and a
// character that would not fit left out. `columns` receives the width used, if given.
std::wstring cells(std::string_view text, int maxColumns, int* columns = nullptr);

// `text` cut to at most `maxColumns` columns, with "…" as its last column when it was cut.
std::string truncated(std::string_view text, int maxColumns);

}  // namespace lumora::terminal
