// The catalogue of the user's texts: which language a locale asks for, the table itself, and
// how a sentence's placeholders are filled.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "lumora/platform/Localization.h"

namespace lumora {
namespace {

TEST(Localization, TheLocaleDecidesTheLanguage) {
  const std::pair<const char*, Language> cases[] = {
      {"zh_CN.UTF-8", Language::simplifiedChinese}, {"zh", Language::simplifiedChinese},
      {"zh_SG", Language::simplifiedChinese},       {"zh-Hans", Language::simplifiedChinese},
      {"zh_TW.UTF-8", Language::english},           {"zh_HK", Language::english},
      {"zh-Hant", Language::english},               {"en_US.UTF-8", Language::english},
      {"C", Language::english},                     {"", Language::english},
  };
  for (const auto& [locale, language] : cases) EXPECT_EQ(languageOf(locale), language) << locale;
  EXPECT_EQ(localized("Stop", Language::simplifiedChinese), "停止");
  EXPECT_EQ(localized("Not in the table", Language::simplifiedChinese), "Not in the table");
  EXPECT_EQ(localized("Stop", Language::english), "Stop");
}

// The "{name}" placeholders of a text, sorted, each as often as it occurs; `wellFormed` turns
// false at a brace that opens nothing, closes nothing or nests.
std::vector<std::string> placeholders(std::string_view text, bool& wellFormed) {
  std::vector<std::string> names;
  wellFormed = true;
  size_t open = std::string_view::npos;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '{') {
      if (open != std::string_view::npos) wellFormed = false;
      open = i;
    } else if (text[i] == '}') {
      if (open == std::string_view::npos || i == open + 1) {
        wellFormed = false;
      } else {
        names.emplace_back(text.substr(open + 1, i - open - 1));
      }
      open = std::string_view::npos;
    }
  }
  if (open != std::string_view::npos) wellFormed = false;
  std::sort(names.begin(), names.end());
  return names;
}

// Every entry is a whole text whose translation fills the same values: a placeholder lost in
// translation would drop a name or a number from the sentence, one added would show as
// "{name}" to the user.
TEST(Localization, EveryTranslationKeepsItsPlaceholders) {
  const auto table = translations(Language::simplifiedChinese);
  ASSERT_FALSE(table.empty());
  EXPECT_TRUE(translations(Language::english).empty());
  std::set<std::string_view> keys;
  for (const auto& [english, translated] : table) {
    SCOPED_TRACE(english);
    EXPECT_TRUE(keys.insert(english).second) << "a second entry for the same key is never read";
    EXPECT_FALSE(translated.empty());
    // A fragment to be glued to a name starts or ends with a blank.
    ASSERT_FALSE(english.empty());
    EXPECT_NE(english.front(), ' ');
    EXPECT_NE(english.back(), ' ');
    bool keyWellFormed = false, translationWellFormed = false;
    const auto inKey = placeholders(english, keyWellFormed);
    const auto inTranslation = placeholders(translated, translationWellFormed);
    EXPECT_TRUE(keyWellFormed);
    EXPECT_TRUE(translationWellFormed) << translated;
    EXPECT_EQ(inKey, inTranslation) << translated;
    EXPECT_EQ(localized(english, Language::simplifiedChinese), translated);
  }
}

TEST(Localization, ValuesFillTheirPlaceholdersAndNothingElse) {
  struct Case {
    std::string_view text;
    std::string expected;
  };
  // A value is put in as it is: braces inside it (a file name, a server's message) are never
  // read as placeholders of their own.
  const Case cases[] = {
      {"The store could not be used: {detail}.", "The store could not be used: no table {x}."},
      {"{model} under {service}, {model} again", "gpt-4o under Ollama, gpt-4o again"},
      {"{unknown} stays as it is", "{unknown} stays as it is"},
      {"an open { without its end", "an open { without its end"},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(withValues(c.text, {{"detail", "no table {x}"},
                                  {"model", "gpt-4o"},
                                  {"service", "Ollama"},
                                  {"x", "never"}}),
              c.expected)
        << c.text;
  }
}

}  // namespace
}  // namespace lumora
