// Where the panel's Copy puts the reply in this process, and what the user is told after.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "lumora/platform/Pasteboard.h"

namespace lumora::cli {

struct PanelPasteboard {
  std::unique_ptr<Pasteboard> pasteboard;
  // The note after a copy that reached a clipboard.
  std::function<std::string()> note;
};

// The user's clipboard (SystemPasteboard): the clipboard command of LUMORA_CLIPBOARD_COMMAND or
// the "clipboardCommand" setting, wl-copy, xclip, xsel, then the terminal's OSC 52, written
// while `terminalLock` is held (the panel draws under it).
PanelPasteboard makePasteboard(std::mutex& terminalLock);

}  // namespace lumora::cli
