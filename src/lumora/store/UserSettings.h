// The user's preferences as typed fields, one per key of the registry (SettingsKeys.h).
//
// A field is a thin handle on its store: every get() asks the store at that moment and gives the
// field's default when the key is absent or its value does not fit the type, every set() writes
// to the store at once. Nothing is cached here, so a value saved by another process is seen at
// the next read without any notice or refresh. Defaults are never written: a key never set stays
// absent for readers that read the store directly.
//
// Thread-safe as the stores are: any thread may read and write. get() throws FileError when the
// store's file exists but is not a settings file (see DefaultsStore); set() and unset() throw
// FileError for that and for failures of the file system.
#pragma once

#include <cstdint>
#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora {

// Which store a field lives in and the default it reads as, fixed when the field is made.
struct SettingBinding {
  const SettingKey* entry;
  DefaultsStore* store;
  bool inChina;
};

namespace detail {
template <typename T>
constexpr SettingType settingTypeOf() {
  if constexpr (std::is_same_v<T, std::string>) {
    return SettingType::string;
  } else if constexpr (std::is_same_v<T, bool>) {
    return SettingType::boolean;
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return SettingType::integer;
  } else if constexpr (std::is_same_v<T, double>) {
    return SettingType::number;
  } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
    return SettingType::stringList;
  } else {
    static_assert(std::is_same_v<T, std::map<std::string, std::string>>, "not a setting type");
    return SettingType::dictionary;
  }
}

// Records a credential that has been read, or the credentials inside a URL that has been read,
// so that they are scrubbed from every output.
void noteRead(const SettingKey& entry, const nlohmann::json& value);
}  // namespace detail

// One typed key. T is std::string, bool, int64_t, double, std::vector<std::string> (stored as
// JSON text) or std::map<std::string, std::string>, and must match the key's registered type.
template <typename T>
class Setting {
 public:
  // std::logic_error when T does not match the key's type: a programming error.
  Setting(SettingBinding binding)  // NOLINT(google-explicit-constructor): fields are bound inline
      : entry_(binding.entry),
        store_(binding.store),
        default_(settingDefault(*entry_, binding.inChina)) {
    if (entry_->type != detail::settingTypeOf<T>()) {
      throw std::logic_error("setting \"" + std::string(entry_->key) + "\" has another type");
    }
  }

  std::string_view key() const { return entry_->key; }
  const SettingKey& entry() const { return *entry_; }
  DefaultsStore& store() const { return *store_; }
  T defaultValue() const { return default_.get<T>(); }

  T get() const {
    const auto stored = store_->value(entry_->key);
    if (stored) {
      if (auto value = decodeSetting(*entry_, *stored)) {
        detail::noteRead(*entry_, *value);
        return value->template get<T>();
      }
    }
    return defaultValue();
  }

  // A list that cannot be encoded (text not in UTF-8) is stored as "[]"; other text not in UTF-8
  // throws DecodingError and writes nothing.
  void set(const T& value) {
    store_->set(entry_->key, storedSetting(*entry_, nlohmann::json(value)));
  }

  // Removes the key: readers see the default again.
  void unset() { store_->remove(entry_->key); }

 private:
  const SettingKey* entry_;
  DefaultsStore* store_;
  nlohmann::json default_;
};

using StringSetting = Setting<std::string>;
using BoolSetting = Setting<bool>;
using IntegerSetting = Setting<int64_t>;
using DoubleSetting = Setting<double>;

namespace detail {
// Holds what the fields of UserSettings are bound to. A base class, so that it is initialised
// before the fields that name it in their initialisers.
class SettingBinder {
 protected:
  SettingBinder(DefaultsStore& shared, DefaultsStore& own, bool inChina)
      : shared_(shared), own_(own), inChina_(inChina) {}
  SettingBinding bind(SettingName name) const;

 private:
  DefaultsStore& shared_;
  DefaultsStore& own_;
  bool inChina_;
};
}  // namespace detail

class UserSettings : private detail::SettingBinder {
 public:
  // Fields over `shared` and `own`, which must outlive this object. `inChina` chooses the
  // default of defaultModel, once: later changes of the region flag do not move it.
  UserSettings(DefaultsStore& shared, DefaultsStore& own, bool inChina)
      : SettingBinder(shared, own, inChina) {}
  UserSettings(const UserSettings&) = delete;
  UserSettings& operator=(const UserSettings&) = delete;

  // The process's instance over sharedDefaults() and ownDefaults(), with inChina as
  // Features::shared() says when it is made. Made on first use (thread-safe), never destroyed
  // before exit.
  static UserSettings& shared();

  // Where a field's name differs from its key, the key is given: the key is what stored data
  // and the companion application know.
  IntegerSetting fontSize{bind(SettingName::fontSize)};
  StringSetting whisperLanguage{bind(SettingName::whisperLanguage)};
  StringSetting defaultModel{bind(SettingName::defaultModel)};  // "ERNIE-Bot" in China, else "gpt-3.5-turbo"
  StringSetting defaultSpeechVoice{bind(SettingName::defaultSpeechVoice)};
  IntegerSetting defaultContextMessages{bind(SettingName::defaultContextMessages)};
  BoolSetting renderMarkdown{bind(SettingName::renderMarkdown)};
  BoolSetting conversationAutoFocus{bind(SettingName::conversationAutoFocus)};
  BoolSetting useDoH{bind(SettingName::useDoH)};
  BoolSetting hapticFeedback{bind(SettingName::hapticFeedback)};
  StringSetting dohServer{bind(SettingName::dohServer)};
  StringSetting httpsProxy{bind(SettingName::httpsProxyUrl)};
  DoubleSetting defaultTemperature{bind(SettingName::temperature)};
  BoolSetting showDollar{bind(SettingName::showDollar)};
  StringSetting apiKey{bind(SettingName::apiKey)};
  StringSetting cloudToken{bind(SettingName::cloudToken)};
  StringSetting customApiDomain{bind(SettingName::customApiDomain)};
  BoolSetting insecureSendKey{bind(SettingName::customApiDomainSendKey)};
  StringSetting aiGateway{bind(SettingName::aiGateway)};
  StringSetting endPoint{bind(SettingName::azureEndPoint)};
  StringSetting azureApiKey{bind(SettingName::azureApiKey)};
  StringSetting claudeApikey{bind(SettingName::claudeApikey)};
  StringSetting geminiApiKey{bind(SettingName::geminiApiKey)};
  StringSetting groqApiKey{bind(SettingName::groqApiKey)};
  BoolSetting autoSwitchKeyboard{bind(SettingName::keyboardAutoSwitch)};
  BoolSetting keyboardSaveMessage{bind(SettingName::keyboardSaveMessage)};
  BoolSetting keyboardReplaceInputPrompt{bind(SettingName::keyboardReplaceInputPrompt)};
  BoolSetting keyboardClearPasteboard{bind(SettingName::keyboardClearPasteboard)};
  StringSetting shortcutKey{bind(SettingName::autoCompleteShortcutKey)};
  BoolSetting isAutoCompleteServiceEnabled{bind(SettingName::autoCompleteServiceEnabled)};
  BoolSetting saveMessagesInConversation{bind(SettingName::saveMessagesInConversation)};
  BoolSetting hideDockIconAfterLastScreen{bind(SettingName::hideDockIconAfterLastScreen)};
  StringSetting ollamaURL{bind(SettingName::ollamaURL)};
  StringSetting moonshotApiKey{bind(SettingName::moonshotApiKey)};
  StringSetting openRouterApiKey{bind(SettingName::openRouterApiKey)};
  StringSetting mistralApiKey{bind(SettingName::mistralApiKey)};
  StringSetting openAICompatibleEndpoint{bind(SettingName::openAICompatibleEndpoint)};
  StringSetting openAICompatiblePath{bind(SettingName::openAICompatiblePath)};
  StringSetting openAICompatibleHeader{bind(SettingName::openAICompatibleHeader)};
  StringSetting openAICompatibleApiKey{bind(SettingName::openAICompatibleApiKey)};
  Setting<std::vector<std::string>> openAICompatibleModels{bind(SettingName::openAICompatibleModels)};
  StringSetting rekaApiKey{bind(SettingName::rekaApiKey)};
  // Validity flags: the companion application keeps them after checking credentials.
  BoolSetting isOpenAiValid{bind(SettingName::isOpenAiValid)};
  BoolSetting isAzureValid{bind(SettingName::isAzureValid)};
  BoolSetting isClaudeValid{bind(SettingName::isClaudeValid)};
  BoolSetting isGeminiValid{bind(SettingName::isGeminiValid)};
  BoolSetting isGroqValid{bind(SettingName::isGroqValid)};
  BoolSetting isAzureTTSValid{bind(SettingName::isAzureTTSValid)};
  BoolSetting isOllamaValid{bind(SettingName::isOllamaValid)};
  BoolSetting isMoonshotValid{bind(SettingName::isMoonshotValid)};
  BoolSetting isOpenRouterValid{bind(SettingName::isOpenRouterValid)};
  BoolSetting isMistralValid{bind(SettingName::isMistralValid)};
  BoolSetting isOpenAICompatibleValid{bind(SettingName::isOpenAICompatibleValid)};
  BoolSetting isRekaValid{bind(SettingName::isRekaValid)};

  // Keys whose readers (the clients, the panel) read them without a field of the companion's
  // list; typed here so that their key, type and default are still written once.
  Setting<std::map<std::string, std::string>> azureModels{bind(SettingName::azureModels)};
  StringSetting mailDefaultPrompt{bind(SettingName::mailDefaultPrompt)};
  StringSetting mailSelectedModel{bind(SettingName::mailSelectedModel)};
  StringSetting mailSelectedConversationId{bind(SettingName::mailSelectedConversationId)};
  StringSetting clipboardCommand{bind(SettingName::clipboardCommand)};
  DoubleSetting maxMessageMiB{bind(SettingName::maxMessageMiB)};
  DoubleSetting maxReplyMiB{bind(SettingName::maxReplyMiB)};
  DoubleSetting maxRequestMiB{bind(SettingName::maxRequestMiB)};
  StringSetting mailReading{bind(SettingName::mailReading)};
  IntegerSetting mailReadingMaxCharacters{bind(SettingName::mailReadingMaxCharacters)};

  // The limits in bytes. A value that is not a positive number of at most 1 TiB, or a
  // settings file that cannot be read, gives the default.
  size_t maxMessageBytes() const { return bytesOf(maxMessageMiB); }
  size_t maxReplyBytes() const { return bytesOf(maxReplyMiB); }
  size_t maxRequestBytes() const { return bytesOf(maxRequestMiB); }

 private:
  static size_t bytesOf(const DoubleSetting& mebibytes);
};

}  // namespace lumora
