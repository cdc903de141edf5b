// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PanelSetup.h"

namespace lumora::cli {

using frontend::panelDependencies;
using frontend::sharedStoreContext;

// Writes "lumora: MESSAGE" and the command's usage to standard error; returns kExitUsage.
int usageError(const std::string& message, const char* help);

// True when a shell command would run lumora itself (an EDITOR that is `lumora compose`): its
// first word names a program called lumora. An empty command counts too: it runs nothing.
bool runsLumora(std::string_view command);

// The bytes of a message file, or of standard input for "-". On failure writes the reason to
// standard error and returns nullopt; a message larger than the setting "maxMessageMiB" is such
// a failure, found before more than the limit is read.
std::optional<std::string> readMessage(const std::string& path);

}  // namespace lumora::cli
