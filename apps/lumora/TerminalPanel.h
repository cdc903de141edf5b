// The terminal panel as `lumora panel` and `lumora compose` run it.
#pragma once

#include <optional>
#include <string>

#include "lumora/panel/ComposeSession.h"

namespace lumora::cli {

struct TerminalPanelRun {
  // The message being answered, or with `draft` the draft being written; none: a new mail.
  std::optional<std::string> message;
  bool draft = false;
  // "quoted" or "message" for this run; none: the setting.
  std::optional<std::string> reading;
  bool mouse = true;
  // Where Insert writes the reply; with one, the panel closes once the reply is in.
  DraftInserter* inserter = nullptr;
};

// Runs the panel on this terminal until the user leaves it (or the reply is inserted); the exit
// status of the contract: 0 left, 1 failed (said on standard error), 130 interrupted.
int runTerminalPanel(TerminalPanelRun run);

}  // namespace lumora::cli
