// The subcommands of `lumora`. Each is a short function over library calls that picks an exit
// status; main.cc only dispatches, by the declarations in CommandLine.h.
#pragma once

#include "Options.h"

namespace lumora::cli {

// Exit statuses of the public contract.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130;

int replyCommand(const Args& args);
int panelCommand(const Args& args);
int composeCommand(const Args& args);
int settingsCommand(const Args& args);
int modelsCommand(const Args& args);
int routeCommand(const Args& args);
int conversationsCommand(const Args& args);
int teamsCommand(const Args& args);
int voicesCommand(const Args& args);
int checkRecipientsCommand(const Args& args);
int headersCommand(const Args& args);
int colourCommand(const Args& args);
int sendmailCommand(const Args& args);
int integrateCommand(const Args& args);

}  // namespace lumora::cli
