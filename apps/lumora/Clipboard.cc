#include "Clipboard.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "lumora/platform/Localization.h"
#include "lumora/platform/SystemPasteboard.h"
#include "lumora/store/UserSettings.h"

namespace lumora::cli {
namespace {

// True when this process runs under aerc: its terminal emulator shows an OSC 52 sequence as
// text. aerc passes no variable of its own to what it runs, so the processes above this one
// are asked (a few levels: the shell aerc started, perhaps a script).
bool underAerc() {
  pid_t pid = getppid();
  for (int level = 0; level < 6 && pid > 1; ++level) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    // "PID (COMM) STATE PPID ...": the name may hold blanks and parentheses itself.
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return false;
    if (line.substr(open + 1, close - open - 1) == "aerc") return true;
    std::istringstream rest(line.substr(close + 1));
    std::string state;
    rest >> state >> pid;
  }
  return false;
}

}  // namespace

PanelPasteboard makePasteboard(std::mutex& terminalLock) {
  SystemPasteboard::Options options;
  options.terminalLock = &terminalLock;
  options.configuredCommand = [] { return UserSettings::shared().clipboardCommand.get(); };
  options.terminalTakesOsc52 = !underAerc();
  auto pasteboard = std::make_unique<SystemPasteboard>(std::move(options));
  // A copy that reaches no clipboard fails with its reason, which the panel shows on its error
  // line. One that bounces was taken by a program, or sent to the terminal, which never says
  // whether it took it: the note says which.
  SystemPasteboard* system = pasteboard.get();
  return {std::move(pasteboard), [system] {
            return localized(system->lastDelivery() == SystemPasteboard::Delivery::terminal
                                 ? "Sent to the terminal's clipboard (OSC 52)"
                                 : "Copied");
          }};
}

}  // namespace lumora::cli
