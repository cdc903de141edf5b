// Where the panel's Copy puts the reply in this process, and what the user is told after.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "lumora/panel/Pasteboard.h"

namespace lumora::cli {

struct PanelPasteboard {
  std::unique_ptr<Pasteboard> pasteboard;
  // The note after a copy: "Copied", or where the text went instead and why.
  std::function<std::string()> note;
};

// With LUMORA_CLIPBOARD_COMMAND set, each copy runs it through /bin/sh -c with the text on
// its standard input (its output is discarded); without it, the text stays in this process's
// memory, and the note says so.
PanelPasteboard makePasteboard();

}  // namespace lumora::cli
