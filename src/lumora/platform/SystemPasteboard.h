// The user's clipboard. Copy puts the reply there by the first way that works:
//  1. the user's own clipboard command (LUMORA_CLIPBOARD_COMMAND, else the setting
//     "clipboardCommand"), run by /bin/sh with the text on its standard input;
//  2. wl-copy, in a Wayland session (WAYLAND_DISPLAY set);
//  3. xclip, then xsel, in an X session (DISPLAY set);
//  4. under tmux, tmux itself (`tmux load-buffer -w -`): its paste buffer, and the clipboard
//     of the terminal tmux runs in where tmux's set-clipboard allows;
//  5. the terminal's OSC 52 sequence, written to the terminal (wrapped for tmux under tmux),
//     which reaches the user's own clipboard over SSH too, where the terminal takes it. Nothing
//     comes back to say so: the front-end tells the user it was sent, not that it arrived.
// A helper that is missing, fails or hangs past its time limit gives way to the next.
// Nothing is ever read from the clipboard.
#pragma once

#include <atomic>
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
    // False when the terminal is known to show an OSC 52 sequence as text instead of taking
    // it (a mail client's own terminal emulator): then none is written.
    bool terminalTakesOsc52 = true;
  };

  // How the last copy reached a clipboard.
  enum class Delivery {
    none,      // no copy has succeeded
    program,   // a clipboard program, or tmux, took the text and said so
    terminal,  // the OSC 52 sequence was written; the terminal does not answer
  };
  Delivery lastDelivery() const { return lastDelivery_.load(); }

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
  std::atomic<Delivery> lastDelivery_{Delivery::none};
};

}  // namespace lumora
