#include "Clipboard.h"

#include "lumora/platform/Localization.h"
#include "lumora/platform/SystemPasteboard.h"
#include "lumora/store/UserSettings.h"

namespace lumora::cli {

PanelPasteboard makePasteboard(std::mutex& terminalLock) {
  SystemPasteboard::Options options;
  options.terminalLock = &terminalLock;
  options.configuredCommand = [] { return UserSettings::shared().clipboardCommand.get(); };
  // A copy that reaches no clipboard fails with its reason, which the panel shows on its error
  // line; a copy that bounces has reached one.
  return {std::make_unique<SystemPasteboard>(std::move(options)), [] { return localized("Copied"); }};
}

}  // namespace lumora::cli
