#include "lumora/platform/Localization.h"

namespace lumora {

// Only the English texts ship so far, and they are their own keys.
std::string localized(std::string_view english) { return std::string(english); }

}  // namespace lumora
