// Where a front-end's debug lines go. Standard output carries each front-end's result (a
// command's output, the native host's port), so debug lines go to standard error, and only
// when asked for.
#pragma once

namespace lumora::frontend {

// Debug lines to standard error when the environment asks for them (LUMORA_DEBUG=1), else
// nowhere. The one place that reads LUMORA_DEBUG.
void routeDebugLines();

// Debug lines to standard error whatever the environment says: a command's --debug.
void sendDebugLinesToStandardError();

}  // namespace lumora::frontend
