// The user's clipboard. Copy puts the reply there by the first way that works:
//  1. the user's own clipboard command (LUMORA_CLIPBOARD_COMMAND, else the setting
//     "clipboardCommand"), run by /bin/sh with the text on its standard input;
//  2. wl-copy, in a Wayland session (WAYLAND_DISPLAY set);
//  3. xclip, then xsel, in an X session (DISPLAY set);
//  4. the terminal's OSC 52 sequence, written to the terminal (wrapped for tmux under tmux),
//     which reaches the user's own clipboard over SSH too.
// A helper that is missing, fails or hangs past its time limit gives way to the next.
// Nothing is ever read from the clipboard.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "lumora/platform/Pasteboard.h"

namespace lumora {

class SystemPasteboard final : public Pasteboard {
 public:
  static constexpr int kControllingTerminal = -1;
  static constexpr int kNoTerminal = -2;

  struct Options {
    // The value of an environment variable, nullopt when it is unset. Empty: this process's.
    // PATH, the session variables and LUMORA_CLIPBOARD_COMMAND are all read through it.
    std::function<std::optional<std::string>(const std::string& name)> environment;
    // The "clipboardCommand" setting, read at each copy. Empty: there is none.
    std::function<std::string()> configuredCommand;
    // Where the OSC 52 sequence goes: a descriptor that the front-end keeps open,
    // kControllingTerminal (/dev/tty, opened at each copy, when there is one) or kNoTerminal.
    int terminal = kControllingTerminal;
    // Held while the OSC 52 sequence is written, when the front-end draws on the same terminal
    // from another thread: the sequence must not land in the middle of a drawing.
    std::mutex* terminalLock = nullptr;
    // How long one helper (or the terminal) may take before the next way is tried.
    std::chrono::milliseconds timeLimit{5000};
  };

  SystemPasteboard() : SystemPasteboard(Options{}) {}
  explicit SystemPasteboard(Options options);

  // Nothing to do: setString replaces the whole clipboard with plain text alone.
  void clearContents() override {}
  // PasteboardError, saying what was tried and what to install or set, when no way worked.
  void setString(const std::string& text) override;

  // The bytes that put `text` on the terminal's clipboard; `tmux`: wrapped so that tmux passes
  // them on to the terminal it runs in.
  static std::string osc52(std::string_view text, bool tmux);

 private:
  std::optional<std::string> variable(const std::string& name) const;
  bool isSet(const std::string& name) const;

  Options options_;
};

}  // namespace lumora
