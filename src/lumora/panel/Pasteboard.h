// The panel's pasteboard is the platform's; this name stays for the panel's includes.
#pragma once

#include "lumora/platform/Pasteboard.h"
