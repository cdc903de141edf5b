// Compiled as part of the chat layer: the settings table sits below it, so this include is
// found. Proves that the probe of climbs.cc fails for the climb and nothing else.
#include "lumora/store/SettingsKeys.h"
