// The names that tie the Thunderbird add-on to its native host. The add-on's manifest and
// background script (extensions/thunderbird/) spell the same; a test holds them equal.
#pragma once

#include <string_view>

namespace lumora::frontend {

// The add-on's id in Thunderbird.
inline constexpr std::string_view kAddOnId = "lumora@zorvel.tech";
// The native messaging host's name: the add-on connects to it by this name, and its manifest is
// the file of this name with ".json".
inline constexpr std::string_view kNativeHostName = "tech.zorvel.lumora";
// The host program, installed beside `lumora`.
inline constexpr std::string_view kNativeHostProgram = "lumora-native-host";

}  // namespace lumora::frontend
