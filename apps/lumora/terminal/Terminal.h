// The controlling terminal as a Canvas and a source of keys, through ncursesw.
//
// The screen and the keyboard are both /dev/tty, never standard input or output, so that a
// mail client can pipe the message in while the user types. A terminal type that terminfo does
// not know, "dumb" or none at all is driven as a vt100: plain ANSI sequences.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "terminal/Canvas.h"

namespace lumora::terminal {

class Terminal final : public Canvas {
 public:
  // Takes over /dev/tty (full screen, raw keys). Throws std::runtime_error with the reason
  // when there is no terminal to take. The process's LC_CTYPE must be UTF-8 by then.
  static std::unique_ptr<Terminal> open(bool mouse);
  // Gives the terminal back as it was.
  ~Terminal() override;
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // The descriptor to poll for keys.
  int inputDescriptor() const;
  // The next key or event, without waiting; nullopt when none is waiting.
  std::optional<Key> readKey();

  // A frame: begin() clears what is drawn, finish() shows the result at once.
  void begin();
  void finish();

  int rows() const override;
  int columns() const override;
  int write(int row, int column, std::string_view text, unsigned style,
            int maxColumns) override;
  void placeCursor(int row, int column) override;

 private:
  struct State;
  explicit Terminal(std::unique_ptr<State> state);
  bool skipUnknownSequence();
  std::unique_ptr<State> state_;
};

}  // namespace lumora::terminal
