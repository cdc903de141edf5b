// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>

namespace lumora {
class StoreContext;
}

namespace lumora::cli {

// The conversation store of this process, opened on first use; throws StoreError when it
// cannot be opened.
StoreContext* sharedStoreContext();

// Writes "lumora: MESSAGE" and the command's usage to standard error; returns kExitUsage.
int usageError(const std::string& message, const char* help);

// The bytes of a message file, or of standard input for "-". On failure writes the reason to
// standard error and returns nullopt.
std::optional<std::string> readMessage(const std::string& path);

}  // namespace lumora::cli
