#include "lumora/platform/Localization.h"

#include <cstdlib>
#include <utility>

#include "lumora/platform/Text.h"

namespace lumora {
namespace {

// English key, Simplified Chinese text.
constexpr std::pair<std::string_view, std::string_view> kSimplifiedChinese[] = {
    {"Lumora", "Lumora"},
    {"Writing...", "正在撰写..."},
    {"Prompt", "提示词"},
    {"New Chat", "新对话"},
    {"Generate", "生成"},
    {"Copy", "复制"},
    {"Stop", "停止"},
    {"Regenerate", "重新生成"},
    {"Back", "返回"},
    {"Insufficient Quota", "额度不足"},
    {"No service found", "未找到服务"},
    {"Model", "模型"},
    {"Conversation", "对话"},
    {"Instruction", "指令"},
    {"Copied", "已复制"},
    {"Copying…", "正在复制…"},
};

}  // namespace

Language languageOf(std::string_view locale) {
  const size_t end = locale.find_first_of("_-.@:");
  const std::string_view language = locale.substr(0, end);
  if (!text::equalsIgnoringCase(language, "zh")) return Language::english;
  const std::string rest = text::asciiLowercased(locale.substr(language.size()));
  for (std::string_view traditional : {"tw", "hk", "mo", "hant"})
    if (rest.find(traditional) != std::string::npos) return Language::english;
  return Language::simplifiedChinese;
}

Language userLanguage() {
  static const Language language = [] {
    // LANGUAGE lists preferences, the first one winning; the locale variables name one.
    if (const char* list = std::getenv("LANGUAGE"); list && *list) {
      std::string_view first(list);
      first = first.substr(0, first.find(':'));
      if (!first.empty()) return languageOf(first);
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      if (const char* value = std::getenv(name); value && *value) return languageOf(value);
    }
    return Language::english;
  }();
  return language;
}

std::string localized(std::string_view english, Language language) {
  if (language == Language::simplifiedChinese) {
    for (const auto& [key, text] : kSimplifiedChinese)
      if (key == english) return std::string(text);
  }
  return std::string(english);
}

std::string localized(std::string_view english) { return localized(english, userLanguage()); }

}  // namespace lumora
