#include "Clipboard.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Support.h"
#include "lumora/platform/Localization.h"

namespace lumora::cli {
namespace {

constexpr const char* kCommandVariable = "LUMORA_CLIPBOARD_COMMAND";

// Hands each copy to a command of the user's, such as "wl-copy" or "xclip -selection
// clipboard".
class CommandPasteboard final : public Pasteboard {
 public:
  explicit CommandPasteboard(std::string command) : command_(std::move(command)) {}

  // Nothing reaches the command until there is text to give it.
  void clearContents() override {}
  void setString(const std::string& text) override {
    const int status = runWithInput("/bin/sh", {"-c", command_}, text, /*quiet=*/true);
    if (status == 0) {
      failure_.clear();
    } else if (status < 0) {
      failure_ = std::string("Copy failed: cannot run /bin/sh: ") + std::strerror(errno);
    } else {
      failure_ = "Copy failed: " + std::string(kCommandVariable) + " exited with status " +
                 std::to_string(status);
    }
  }
  const std::string& failure() const { return failure_; }

 private:
  std::string command_;
  std::string failure_;
};

}  // namespace

PanelPasteboard makePasteboard() {
  const char* command = std::getenv(kCommandVariable);
  if (command && *command) {
    auto pasteboard = std::make_unique<CommandPasteboard>(command);
    const CommandPasteboard* copies = pasteboard.get();
    return {std::move(pasteboard), [copies] {
              return copies->failure().empty() ? localized("Copied") : copies->failure();
            }};
  }
  return {std::make_unique<MemoryPasteboard>(),
          [] { return "Kept in memory: " + std::string(kCommandVariable) + " unset"; }};
}

}  // namespace lumora::cli
