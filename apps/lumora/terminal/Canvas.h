// What the panel's screen draws on and reads from: a grid of character cells and the keys
// typed. The terminal implements both; the screen itself never sees the terminal library.
#pragma once

#include <climits>
#include <string>
#include <string_view>

namespace lumora::terminal {

// Looks of text, combined as bits.
enum Style : unsigned {
  kPlain = 0,
  kBold = 1u << 0,
  kReverse = 1u << 1,
  kDim = 1u << 2,
  kUnderline = 1u << 3,
  kError = 1u << 4,   // red where the terminal has colours, bold where not
  kAccent = 1u << 5,  // the controls' colour where the terminal has colours
};

class Canvas {
 public:
  virtual ~Canvas() = default;
  virtual int rows() const = 0;
  virtual int columns() const = 0;
  // Writes `text` (UTF-8, sanitised as cells() does) at `row`, `column`, in at most
  // `maxColumns` columns and never past the right edge. Returns the columns written.
  virtual int write(int row, int column, std::string_view text, unsigned style = kPlain,
                    int maxColumns = INT_MAX) = 0;
  // Puts the visible cursor there; a negative row hides it.
  virtual void placeCursor(int row, int column) = 0;
};

// A key typed, or another event of the terminal.
struct Key {
  enum class Kind {
    text,       // `text` holds one character
    control,    // Ctrl and `letter` ('a' to 'z')
    enter,
    tab,
    backTab,
    escape,
    backspace,
    deleteForward,
    up,
    down,
    left,
    right,
    home,
    end,
    pageUp,
    pageDown,
    generate,   // F5
    resize,
    click,      // the main button pressed at `row`, `column`
    wheelUp,    // at `row`, `column`
    wheelDown,
  };
  Kind kind = Kind::text;
  std::string text;
  char letter = 0;
  int row = 0;
  int column = 0;
};

}  // namespace lumora::terminal
