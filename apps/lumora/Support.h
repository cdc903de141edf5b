// Helpers shared by the subcommands.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lumora/panel/MailExtensionView.h"

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
// standard error and returns nullopt; a message larger than the setting "maxMessageMiB" is such
// a failure, found before more than the limit is read.
std::optional<std::string> readMessage(const std::string& path);


// The dependencies of a panel in this process: the settings files, the stored conversations,
// the default model from the settings and the mail parser's quoted passages. The caller owns
// the executor, the session, the transport and the pasteboard, and may set overrides and
// onServiceChosen on the result.
MailExtensionView::Dependencies panelDependencies(MainExecutor& executor,
                                                  const ComposeSession& session,
                                                  HttpTransport& transport,
                                                  Pasteboard& pasteboard);

}  // namespace lumora::cli
