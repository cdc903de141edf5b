// The user's texts are keys into a table of translations; the English text is both the key and
// the fallback. Lumora ships English and Simplified Chinese.
#pragma once

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace lumora {

// The translation languages Lumora has, by the locale that asks for them.
enum class Language { english, simplifiedChinese };

// The language of the process's locale: LANGUAGE's first entry, else LC_ALL, LC_MESSAGES,
// LANG. Chinese counts as Simplified unless it names Taiwan, Hong Kong, Macau or the
// traditional script. Read once.
Language userLanguage();

// The language a locale name asks for ("zh_CN.UTF-8" -> simplifiedChinese).
Language languageOf(std::string_view locale);

// The text for `english` in the user's language; `english` itself when there is no
// translation.
std::string localized(std::string_view english);
std::string localized(std::string_view english, Language language);

// The catalogue of `language`: each English key with its translation (none for English,
// whose texts are the keys). For checking the catalogue whole.
std::span<const std::pair<std::string_view, std::string_view>> translations(Language language);

// `text` with each "{name}" replaced by its value: the placeholders of a translated sentence,
// so that a sentence is translated whole and never glued from pieces.
std::string withValues(std::string_view text,
                       std::initializer_list<std::pair<std::string_view, std::string_view>> values);

}  // namespace lumora
