// What every front-end of the panel in this process shares: the store and the panel's
// dependencies, read from the settings files.
#pragma once

#include "lumora/panel/MailExtensionView.h"

namespace lumora {
class StoreContext;
}

namespace lumora::frontend {

// The conversation store of this process, opened on first use; throws StoreError when it
// cannot be opened.
StoreContext* sharedStoreContext();

// The dependencies of a panel in this process: the settings files, the stored conversations,
// the default model from the settings and the mail parser's quoted passages. The caller owns
// the executor, the session, the transport and the pasteboard, and may set overrides and
// onServiceChosen on the result.
MailExtensionView::Dependencies panelDependencies(MainExecutor& executor,
                                                  const ComposeSession& session,
                                                  HttpTransport& transport, Pasteboard& pasteboard);

}  // namespace lumora::frontend
