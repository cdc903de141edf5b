// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>

namespace lumora::cli {

// Writes "lumora: MESSAGE" and the command's usage to standard error; returns kExitUsage.
int usageError(const std::string& message, const char* help);

// The bytes of a message file, or of standard input for "-". On failure writes the reason to
// standard error and returns nullopt.
std::optional<std::string> readMessage(const std::string& path);

}  // namespace lumora::cli
