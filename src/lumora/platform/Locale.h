// The region of the user's locale, as POSIX locale variables name it.
//
// The region is what decides which model list a user is served before anything else is known,
// so it is read from the environment the way the C library would choose the message locale:
// LC_ALL, then LC_MESSAGES, then LANG, the first non-empty one winning even if it names no
// region. Pure functions of their input; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora {

// The region of the current process's locale: localeRegion(LC_ALL, LC_MESSAGES, LANG) over the
// environment as it is now.
std::optional<std::string> localeRegion();

// The region named by the first non-empty of the three values, exactly as written there
// ("zh_CN.UTF-8@stroke" -> "CN", "es_419" -> "419"). A region is two letters or three digits
// after the language, separated by '_' or '-'; script subtags ("sr_Latn_RS") are skipped.
// nullopt when all three are empty, for "C" and "POSIX", and when the locale has no region.
std::optional<std::string> localeRegion(std::string_view lcAll, std::string_view lcMessages,
                                        std::string_view lang);

}  // namespace lumora
