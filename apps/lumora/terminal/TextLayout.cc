#include "terminal/TextLayout.h"

#include <locale.h>
#include <wchar.h>

#include <algorithm>

#include "lumora/platform/Text.h"

namespace lumora::terminal {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;

bool isControl(char32_t cp) { return cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp < 0xA0); }

// wcwidth under C.UTF-8, so that widths do not depend on the locale this process runs in.
class Widths {
 public:
  Widths() : utf8_(newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0))) {}
  // -1 for a code point that has no width of its own to show (unassigned, non-printing).
  int operator()(char32_t cp) const {
    if (cp >= 0x20 && cp < 0x7F) return 1;
    if (!utf8_) return cp < 0x80 ? 1 : -1;
    const locale_t previous = uselocale(utf8_);
    const int width = wcwidth(static_cast<wchar_t>(cp));
    uselocale(previous);
    return width;
  }

 private:
  locale_t utf8_;
};

int codePointWidth(char32_t cp) {
  static const Widths widths;
  return widths(cp);
}

// Calls `each(cp)` for the code points of the character [i, i + length).
template <typename F>
void forEachCodePoint(std::string_view text, size_t i, size_t length, F each) {
  for (size_t end = i + length; i < end;) {
    char32_t cp;
    i += text::codePointAt(text, i, cp);
    each(cp);
  }
}

int columnsBetween(std::string_view text, size_t from, size_t to) {
  int column = 0;
  for (size_t i = from; i < to;) {
    const Character c = characterAt(text, i, column);
    column += c.width;
    i += c.length;
  }
  return column;
}

}  // namespace

Character characterAt(std::string_view text, size_t i, int column) {
  Character c;
  const auto byte = static_cast<unsigned char>(text[i]);
  // Plain ASCII is most of any text: one byte, one column.
  if (byte >= 0x20 && byte < 0x7F &&
      (i + 1 >= text.size() || static_cast<unsigned char>(text[i + 1]) < 0x80)) {
    c.length = 1;
    c.width = 1;
    c.space = byte == ' ';
    return c;
  }
  char32_t cp;
  const size_t first = text::codePointAt(text, i, cp);
  if (cp == '\n' || cp == '\r') {
    c.lineEnd = true;
    c.length = cp == '\r' && i + 1 < text.size() && text[i + 1] == '\n' ? 2 : 1;
    return c;
  }
  if (cp == '\t') {
    c.length = 1;
    c.width = kTabWidth - column % kTabWidth;
    c.space = c.tab = true;
    return c;
  }
  if (isControl(cp)) {
    c.length = first;
    c.width = 1;
    return c;
  }
  // The character with its marks and joined code points, but never across a control: a line
  // feed after a joiner still ends the line.
  size_t length = first;
  const size_t whole = text::characterLengthAt(text, i);
  while (length < whole) {
    char32_t next;
    const size_t n = text::codePointAt(text, i + length, next);
    if (isControl(next)) break;
    length += n;
  }
  c.length = length;
  c.space = cp == ' ' && length == 1;  // a blank with a mark on it is something to see
  bool leading = true;
  forEachCodePoint(text, i, length, [&](char32_t each) {
    const int w = codePointWidth(each);
    // A mark with nothing to sit on gets a blank of its own (see cells()).
    c.width += w < 0 ? 1 : (leading && w == 0 ? 1 : w);
    leading = false;
  });
  return c;
}

int displayWidth(std::string_view text) { return columnsBetween(text, 0, text.size()); }

std::vector<LineSpan> wrapLines(std::string_view text, int width) {
  width = std::max(width, 2);
  constexpr size_t kNone = std::string_view::npos;
  std::vector<LineSpan> lines;
  size_t begin = 0;
  size_t i = 0;
  int column = 0;
  // Where the line may end at the latest: the next line would start there.
  size_t breakAt = kNone;
  const auto endLine = [&](size_t contentEnd, size_t end) {
    lines.push_back({begin, contentEnd, end});
    begin = i = end;
    column = 0;
    breakAt = kNone;
  };
  while (i < text.size()) {
    const Character c = characterAt(text, i, column);
    if (c.lineEnd) {
      endLine(i, i + c.length);
      continue;
    }
    if (c.space) {
      // A blank that does not fit ends the line and is not drawn.
      if (column + c.width > width) {
        endLine(i, i + c.length);
        continue;
      }
      column += c.width;
      i += c.length;
      breakAt = i;
      continue;
    }
    if (c.width >= 2 && i > begin) breakAt = i;
    if (column > 0 && column + c.width > width) {
      // Back to the last place to break, or here when the word fills the line alone; what
      // lies after the break moves down and is measured again from the line's start.
      const size_t at = breakAt == kNone || breakAt == begin ? i : breakAt;
      const size_t resume = i;
      endLine(at, at);
      column = columnsBetween(text, at, resume);
      i = resume;
      continue;
    }
    column += c.width;
    i += c.length;
    if (c.width >= 2) breakAt = i;
  }
  lines.push_back({begin, text.size(), text.size()});
  return lines;
}

void extendLines(std::vector<LineSpan>& lines, std::string_view text, int width) {
  // Added text can change where earlier lines break (a wide character completed at the end
  // moves the break before it), but never across a line feed: wrapping starts again from
  // the last line that follows one.
  size_t keep = lines.empty() ? 0 : lines.size() - 1;
  while (keep > 0 && text[lines[keep].begin - 1] != '\n') --keep;
  const size_t from = keep == 0 ? 0 : lines[keep].begin;
  lines.resize(keep);
  for (LineSpan line : wrapLines(text.substr(from), width)) {
    line.begin += from;
    line.contentEnd += from;
    line.end += from;
    lines.push_back(line);
  }
}

std::wstring cells(std::string_view text, int maxColumns, int* columns) {
  std::wstring out;
  int column = 0;
  for (size_t i = 0; i < text.size();) {
    const Character c = characterAt(text, i, column);
    if (c.lineEnd || column + c.width > maxColumns) break;
    if (c.tab) {
      out.append(static_cast<size_t>(c.width), L' ');
    } else {
      bool leading = true;
      forEachCodePoint(text, i, c.length, [&](char32_t cp) {
        const int w = isControl(cp) ? -1 : codePointWidth(cp);
        if (leading && w == 0) out += L' ';
        out += w < 0 ? kReplacement : static_cast<wchar_t>(cp);
        leading = false;
      });
    }
    column += c.width;
    i += c.length;
  }
  if (columns) *columns = column;
  return out;
}

std::string truncated(std::string_view text, int maxColumns) {
  if (maxColumns <= 0) return {};
  if (displayWidth(text) <= maxColumns) return std::string(text);
  int column = 0;
  size_t i = 0;
  while (i < text.size()) {
    const Character c = characterAt(text, i, column);
    if (c.lineEnd || column + c.width > maxColumns - 1) break;
    column += c.width;
    i += c.length;
  }
  return std::string(text.substr(0, i)) + "…";
}

}  // namespace lumora::terminal
