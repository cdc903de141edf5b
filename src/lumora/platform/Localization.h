// The user's texts are keys into a table of translations; the English text is both the key and
// the fallback.
#pragma once

#include <string>
#include <string_view>

namespace lumora {

// The text for `english` in the user's language; `english` itself when there is no
// translation.
std::string localized(std::string_view english);

}  // namespace lumora
