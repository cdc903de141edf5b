// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "PanelSetup.h"

namespace lumora::cli {

using frontend::panelDependencies;
using frontend::sharedStoreContext;

// Writes "lumora: MESSAGE" and the command's usage to standard error; returns kExitUsage.
int usageError(const std::string& message, const char* help);

// The bytes of a message file, or of standard input for "-". On failure writes the reason to
// standard error and returns nullopt; a message larger than the setting "maxMessageMiB" is such
// a failure, found before more than the limit is read.
std::optional<std::string> readMessage(const std::string& path);

}  // namespace lumora::cli
