#include "lumora/models/ConversationModel.h"

#include <array>

#include "lumora/platform/Localization.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

using C = ConversationModel::Case;

struct Row {
  std::string_view raw;
  bool deprecated;
};

constexpr std::array kRows = {
#define LUMORA_CONVERSATION_MODEL_ROW(name, raw, deprecated) Row{raw, deprecated},
    LUMORA_CONVERSATION_MODELS(LUMORA_CONVERSATION_MODEL_ROW)
#undef LUMORA_CONVERSATION_MODEL_ROW
};

constexpr std::array kAll = {
#define LUMORA_CONVERSATION_MODEL_VALUE(name, raw, deprecated) ConversationModel(C::name),
    LUMORA_CONVERSATION_MODELS(LUMORA_CONVERSATION_MODEL_VALUE)
#undef LUMORA_CONVERSATION_MODEL_VALUE
};

constexpr std::array kRegion = {
    ConversationModel(C::ernieBot),     ConversationModel(C::ernieBotTurbo),
    ConversationModel(C::ernieBot4),    ConversationModel(C::sparkDesk1_5),
    ConversationModel(C::sparkDesk2),   ConversationModel(C::sparkDesk3),
    ConversationModel(C::qwenTurbo),    ConversationModel(C::qwenPlus),
    ConversationModel(C::glm3Turbo),    ConversationModel(C::glm4),
    ConversationModel(C::glm4v),
};

}  // namespace

std::optional<ConversationModel> ConversationModel::fromRawValue(std::string_view raw) {
  for (size_t i = 0; i < kRows.size(); ++i)
    if (kRows[i].raw == raw) return kAll[i];
  return std::nullopt;
}

std::span<const ConversationModel> ConversationModel::allCases() { return kAll; }
std::span<const ConversationModel> ConversationModel::regionModels() { return kRegion; }
std::span<const ConversationModel> ConversationModel::pickerModels(bool inChina) {
  return inChina ? regionModels() : allCases();
}

std::string_view ConversationModel::rawValue() const {
  return kRows[static_cast<size_t>(case_)].raw;
}

std::string ConversationModel::displayName() const {
  // One model shows a name of its own; every other shows its id unless translated.
  if (case_ == C::gpt4TurboPreview) return localized("GPT4 Turbo Preview");
  return localized(rawValue());
}

bool ConversationModel::isDeprecated() const {
  return kRows[static_cast<size_t>(case_)].deprecated;
}

bool ConversationModel::isCloudOnlyModel() const {
  const std::string_view raw = rawValue();
  return text::startsWithIgnoringCase(raw, "ernie") || text::startsWithIgnoringCase(raw, "spark") ||
         text::startsWithIgnoringCase(raw, "qwen");
}

std::string ConversationModel::family() const {
  const std::string_view raw = rawValue();
  size_t start = 0;
  while (start < raw.size() && raw[start] == '-') ++start;  // empty pieces are dropped
  const size_t end = raw.find('-', start);
  return std::string(raw.substr(start, end == std::string_view::npos ? raw.npos : end - start));
}

bool isCatalogueModel(std::string_view name) {
  return ConversationModel::fromRawValue(name).has_value();
}

}  // namespace lumora
