// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Options.h"
#include "PanelSetup.h"

namespace lumora::cli {

using frontend::panelDependencies;
using frontend::sharedStoreContext;

// The MESSAGE of `reply` and `panel`: the message being answered, if one is named.
Operands optionalMessage();

// What --read takes: the names of the panel's readings ("quoted", "message").
std::vector<std::string_view> readingNames();

// True when a shell command would run lumora itself (an EDITOR that is `lumora compose`): its
// first word names a program called lumora. An empty command counts too: it runs nothing.
bool runsLumora(std::string_view command);

// The bytes of a message file, or of standard input for "-". On failure writes the reason to
// standard error and returns nullopt; a message larger than the setting "maxMessageMiB" is such
// a failure, found before more than the limit is read.
std::optional<std::string> readMessage(const std::string& path);

}  // namespace lumora::cli
