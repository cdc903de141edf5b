// The one place that includes the terminal library. Its function-like macros (erase, clear,
// move, timeout, ...) would clash with C++ names, so they are turned off.
#define NCURSES_NOMACROS
#include "terminal/Terminal.h"

#include <curses.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cwchar>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "terminal/TextLayout.h"

namespace lumora::terminal {
namespace {

// Colour pairs, when the terminal has colours.
constexpr short kErrorPair = 1;
constexpr short kAccentPair = 2;

// A typed character in UTF-8, the character type of the process by the time the terminal is
// open.
std::string utf8(wint_t c) {
  char buffer[MB_LEN_MAX];
  std::mbstate_t state{};
  const size_t length = std::wcrtomb(buffer, static_cast<wchar_t>(c), &state);
  return length == static_cast<size_t>(-1) ? std::string() : std::string(buffer, length);
}

// The terminal type to ask terminfo for first.
std::string wantedType() {
  const char* term = std::getenv("TERM");
  if (!term || !*term || std::strcmp(term, "dumb") == 0) return "vt100";
  return term;
}

}  // namespace

struct Terminal::State {
  FILE* tty = nullptr;
  SCREEN* screen = nullptr;
  bool colours = false;
  bool mouse = false;

  ~State() {
    if (screen) {
      // A terminal without a second screen to leave would keep the panel under the shell's
      // next prompt.
      const char* leave = tigetstr("rmcup");
      if (!leave || leave == reinterpret_cast<const char*>(-1)) {
        werase(stdscr);
        wrefresh(stdscr);
      }
      endwin();
      delscreen(screen);
    }
    if (tty) std::fclose(tty);
  }
};

std::unique_ptr<Terminal> Terminal::open(bool mouse) {
  auto state = std::make_unique<State>();
  // Close-on-exec: programs run for Copy must not inherit the terminal.
  state->tty = std::fopen("/dev/tty", "r+e");
  if (!state->tty) throw std::runtime_error("no terminal to draw on (/dev/tty: " +
                                            std::string(std::strerror(errno)) + ")");
  std::string type = wantedType();
  state->screen = newterm(type.c_str(), state->tty, state->tty);
  if (!state->screen && type != "vt100") state->screen = newterm("vt100", state->tty, state->tty);
  if (!state->screen) throw std::runtime_error("the terminal cannot be driven (" + type + ")");
  set_term(state->screen);
  raw();
  noecho();
  nonl();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(25);
  if (has_colors()) {
    start_color();
    use_default_colors();
    init_pair(kErrorPair, COLOR_RED, -1);
    init_pair(kAccentPair, COLOR_CYAN, -1);
    state->colours = true;
  }
  if (mouse) {
    mouseinterval(0);
    state->mouse = mousemask(BUTTON1_PRESSED | BUTTON4_PRESSED | BUTTON5_PRESSED, nullptr) != 0;
  }
  return std::unique_ptr<Terminal>(new Terminal(std::move(state)));
}

Terminal::Terminal(std::unique_ptr<State> state) : state_(std::move(state)) {}

Terminal::~Terminal() = default;

int Terminal::inputDescriptor() const { return fileno(state_->tty); }

std::optional<Key> Terminal::readKey() {
  while (true) {
    wint_t c = 0;
    const int kind = wget_wch(stdscr, &c);
    if (kind == ERR) return std::nullopt;
    Key key;
    if (kind == OK) {
      if (c == '\r' || c == '\n') {
        key.kind = Key::Kind::enter;
      } else if (c == '\t') {
        key.kind = Key::Kind::tab;
      } else if (c == 27) {
        if (skipUnknownSequence()) continue;
        key.kind = Key::Kind::escape;
      } else if (c == 127 || c == 8) {
        key.kind = Key::Kind::backspace;
      } else if (c >= 1 && c <= 26) {
        key.kind = Key::Kind::control;
        key.letter = static_cast<char>('a' + c - 1);
      } else if (c < 32 || (c >= 0x80 && c < 0xA0) || c > 0x10FFFF ||
                 (c >= 0xD800 && c < 0xE000)) {
        continue;  // nothing anyone types
      } else {
        key.kind = Key::Kind::text;
        key.text = utf8(c);
        if (key.text.empty()) continue;
      }
      return key;
    }
    switch (c) {
      case KEY_ENTER: key.kind = Key::Kind::enter; break;
      case KEY_BTAB: key.kind = Key::Kind::backTab; break;
      case KEY_BACKSPACE: key.kind = Key::Kind::backspace; break;
      case KEY_DC: key.kind = Key::Kind::deleteForward; break;
      case KEY_UP: key.kind = Key::Kind::up; break;
      case KEY_DOWN: key.kind = Key::Kind::down; break;
      case KEY_LEFT: key.kind = Key::Kind::left; break;
      case KEY_RIGHT: key.kind = Key::Kind::right; break;
      case KEY_HOME: key.kind = Key::Kind::home; break;
      case KEY_END: key.kind = Key::Kind::end; break;
      case KEY_PPAGE: key.kind = Key::Kind::pageUp; break;
      case KEY_NPAGE: key.kind = Key::Kind::pageDown; break;
      case KEY_F(5): key.kind = Key::Kind::generate; break;
      case KEY_RESIZE: key.kind = Key::Kind::resize; break;
      case KEY_MOUSE: {
        MEVENT event;
        if (getmouse(&event) != OK) continue;
        key.row = event.y;
        key.column = event.x;
        if (event.bstate & BUTTON1_PRESSED) {
          key.kind = Key::Kind::click;
        } else if (event.bstate & BUTTON4_PRESSED) {
          key.kind = Key::Kind::wheelUp;
        } else if (event.bstate & BUTTON5_PRESSED) {
          key.kind = Key::Kind::wheelDown;
        } else {
          continue;
        }
        break;
      }
      default: continue;  // a key this screen has no use for
    }
    return key;
  }
}

// A key whose sequence terminfo does not know for this terminal (an xterm's F5 on a vt100)
// comes as Escape and the rest of the sequence: the rest is read and dropped rather than typed.
// Anything else after Escape is put back to be read on its own.
bool Terminal::skipUnknownSequence() {
  wint_t next = 0;
  const int kind = wget_wch(stdscr, &next);
  if (kind == ERR) return false;
  if (kind == KEY_CODE_YES) {
    ungetch(static_cast<int>(next));
    return false;
  }
  if (next != '[' && next != 'O') {
    unget_wch(static_cast<wchar_t>(next));
    return false;
  }
  // Parameters and intermediates up to the final byte.
  wint_t part = 0;
  while (wget_wch(stdscr, &part) == OK && !(part >= 0x40 && part <= 0x7E)) {
  }
  return true;
}

void Terminal::begin() { werase(stdscr); }

void Terminal::finish() {
  wnoutrefresh(stdscr);
  doupdate();
}

int Terminal::rows() const { return getmaxy(stdscr); }
int Terminal::columns() const { return getmaxx(stdscr); }

int Terminal::write(int row, int column, std::string_view text, unsigned style,
                    int maxColumns) {
  if (row < 0 || row >= rows() || column < 0 || column >= columns()) return 0;
  int used = 0;
  const std::wstring shown = cells(text, std::min(maxColumns, columns() - column), &used);
  if (shown.empty()) return 0;
  attr_t attributes = A_NORMAL;
  short pair = 0;
  if (style & kBold) attributes |= A_BOLD;
  if (style & kReverse) attributes |= A_REVERSE;
  if (style & kDim) attributes |= A_DIM;
  if (style & kUnderline) attributes |= A_UNDERLINE;
  if (style & kError) {
    if (state_->colours) {
      pair = kErrorPair;
    } else {
      attributes |= A_BOLD;
    }
  }
  if ((style & kAccent) && state_->colours) pair = kAccentPair;
  wattr_set(stdscr, attributes, pair, nullptr);
  // The last cell of the screen is written too: waddnwstr may report the cursor's falling off
  // the edge, which changes nothing that was drawn.
  mvwaddnwstr(stdscr, row, column, shown.c_str(), static_cast<int>(shown.size()));
  wattr_set(stdscr, A_NORMAL, 0, nullptr);
  return used;
}

void Terminal::placeCursor(int row, int column) {
  if (row < 0) {
    curs_set(0);
    return;
  }
  curs_set(1);
  wmove(stdscr, row, column);
}

}  // namespace lumora::terminal
