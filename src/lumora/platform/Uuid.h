// UUIDs in their text form.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora::uuid {

// The canonical upper-case form ("8-4-4-4-12" hex digits) of `text` when it is a well-formed
// UUID in either letter case; nullopt otherwise.
std::optional<std::string> canonical(std::string_view text);

// A new random (version 4) UUID in canonical upper-case form.
std::string random();

}  // namespace lumora::uuid
