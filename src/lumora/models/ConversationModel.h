// The model ids the system knows by name: the picker's list, the test of whether a name is a
// catalogue name at all, and the settings' default. Ids only: what a client does for one
// special id stands in that client.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace lumora {

// case, raw value, deprecated
#define LUMORA_CONVERSATION_MODELS(X)                                   \
  X(gpt35Turbo, "gpt-3.5-turbo", false)                                 \
  X(gpt35Turbo0613, "gpt-3.5-turbo-0613", true)                         \
  X(gpt35Turbo1106, "gpt-3.5-turbo-1106", true)                         \
  X(gpt35Turbo0125, "gpt-3.5-turbo-0125", true)                         \
  X(gpt35Turbo16k, "gpt-3.5-turbo-16k", true)                           \
  X(gpt35Turbo16k0613, "gpt-3.5-turbo-16k-0613", true)                  \
  X(gpt4o, "gpt-4o", false)                                             \
  X(gpt4oMini, "gpt-4o-mini", false)                                    \
  X(gpt4Turbo, "gpt-4-turbo", false)                                    \
  X(gpt4VisionPreview, "gpt-4-vision-preview", true)                    \
  X(gpt4TurboPreview, "gpt-4-turbo-preview", true)                      \
  X(gpt4TurboPreview0125, "gpt-4-0125-preview", true)                   \
  X(gpt4TurboPreview1106, "gpt-4-1106-preview", true)                   \
  X(gpt4, "gpt-4", true)                                                \
  X(gpt4_0613, "gpt-4-0613", true)                                      \
  X(gpt4_32k, "gpt-4-32k", true)                                        \
  X(claude35Sonnet, "claude-3-5-sonnet-20240620", false)                \
  X(claude3Haiku, "claude-3-haiku-20240307", false)                     \
  X(claude3Sonnet, "claude-3-sonnet-20240229", false)                   \
  X(claude3Opus, "claude-3-opus-20240229", false)                       \
  X(claude20, "claude-2.0", true)                                       \
  X(claude21, "claude-2.1", true)                                       \
  X(claudeInstant12, "claude-instant-1.2", true)                        \
  X(claude1, "claude-v1", true)                                         \
  X(claude100k, "claude-v1-100k", true)                                 \
  X(claudeInstant1, "claude-instant-v1", true)                          \
  X(claudeInstant100k1, "claude-instant-v1-100k", true)                 \
  X(claude2, "claude-2", true)                                          \
  X(ernieBot, "ERNIE-Bot", false)                                       \
  X(ernieBotTurbo, "ERNIE-Bot-turbo", false)                            \
  X(ernieBot4, "ERNIE-Bot-4", false)                                    \
  X(gemini, "gemini-pro", false)                                        \
  X(gemini15, "gemini-1.5-pro-latest", false)                           \
  X(geminiProVision, "gemini-pro-vision", false)                        \
  X(gemini15Flash, "gemini-1.5-flash-latest", false)                    \
  X(sparkDesk1_5, "SparkDesk-V1.5", false)                              \
  X(sparkDesk2, "SparkDesk-V2.0", false)                                \
  X(sparkDesk3, "SparkDesk-V3.0", false)                                \
  X(qwenTurbo, "qwen-turbo", false)                                     \
  X(qwenPlus, "qwen-plus", false)                                       \
  X(glm3Turbo, "glm-3-turbo", false)                                    \
  X(glm4, "glm-4", false)                                               \
  X(glm4v, "glm-4v", false)                                             \
  X(moonshot_v1_8k, "moonshot-v1-8k", false)                            \
  X(moonshot_v1_32k, "moonshot-v1-32k", false)                          \
  X(moonshot_v1_128k, "moonshot-v1-128k", false)                        \
  X(reka_edge, "reka-edge", false)                                      \
  X(reka_flash, "reka-flash", false)                                    \
  X(reka_core, "reka-core", false)

class ConversationModel {
 public:
  enum class Case {
#define LUMORA_CONVERSATION_MODEL_CASE(name, raw, deprecated) name,
    LUMORA_CONVERSATION_MODELS(LUMORA_CONVERSATION_MODEL_CASE)
#undef LUMORA_CONVERSATION_MODEL_CASE
  };

  constexpr ConversationModel(Case c) : case_(c) {}  // NOLINT: a case is a model

  // The case with exactly this id (case-sensitive), or none.
  static std::optional<ConversationModel> fromRawValue(std::string_view raw);
  // All 49 cases, in the catalogue's order.
  static std::span<const ConversationModel> allCases();
  // The models offered where the regional services are used, in their order.
  static std::span<const ConversationModel> regionModels();
  // The catalogue the picker offers: the region models in China, else all.
  static std::span<const ConversationModel> pickerModels(bool inChina);

  Case value() const { return case_; }
  // The id sent on the wire and stored in settings.
  std::string_view rawValue() const;
  // The text shown for the model in the picker.
  std::string displayName() const;
  bool isDeprecated() const;
  // Served only by the hosted cloud: ids beginning "ernie", "spark" or "qwen" in any case.
  bool isCloudOnlyModel() const;
  // The text of the id before its first hyphen: "claude", "ERNIE", "glm".
  std::string family() const;

  bool operator==(const ConversationModel&) const = default;

 private:
  Case case_;
};

// True when `name` is the id of a catalogue model.
bool isCatalogueModel(std::string_view name);

}  // namespace lumora
