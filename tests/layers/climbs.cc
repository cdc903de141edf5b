// Compiled as part of the chat layer: the router sits above it, so this include must not be
// found. The test that builds this file passes only when the compiler says so.
#include "lumora/routing/LLMClients.h"
