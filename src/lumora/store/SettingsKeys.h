// The registry of every settings key: its store, its type, its default and whether its value is
// a credential. The keys and value forms are a contract with data that other programs write,
// so this table is the only place where they are spelled: code names a key by its
// `SettingName`, and UserSettings, the route and the `settings` command all work from here.
//
// Values come in three forms:
//  - text: what a user types on the command line ("true", "14", "0.7", "{...}", plain text);
//  - stored: the JSON value in the suite's file (a list of strings is stored as its JSON text);
//  - read: what a reader gets, one JSON shape per type (see SettingType).
// Pure functions over constant data; thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lumora/store/DefaultsStore.h"

namespace lumora {

enum class SettingStore {
  shared,  // the suite shared with the companion application
  own,     // the command's own domain
};

// The type of a key, with the JSON shape of its read form.
enum class SettingType {
  string,      // string
  boolean,     // bool
  integer,     // integer
  number,      // double
  dictionary,  // object whose values are all strings
  stringList,  // array of strings; stored as the JSON text of that array
};

// Every key by the name code uses for it, in the order of the table, which spells each key
// once (SettingsKeys.cc). A misspelt name does not compile, where a misspelt text would read
// the default for ever.
enum class SettingName : uint8_t {
  fontSize, whisperLanguage, defaultModel, defaultSpeechVoice, defaultContextMessages,
  renderMarkdown, conversationAutoFocus, useDoH, hapticFeedback, dohServer, httpsProxyUrl,
  temperature, showDollar, apiKey, cloudToken, customApiDomain, customApiDomainSendKey,
  aiGateway, azureEndPoint, azureApiKey, claudeApikey, geminiApiKey, groqApiKey,
  keyboardAutoSwitch, keyboardSaveMessage, keyboardReplaceInputPrompt, keyboardClearPasteboard,
  autoCompleteShortcutKey, autoCompleteServiceEnabled, saveMessagesInConversation,
  hideDockIconAfterLastScreen, ollamaURL, moonshotApiKey, openRouterApiKey, mistralApiKey,
  openAICompatibleEndpoint, openAICompatiblePath, openAICompatibleHeader,
  openAICompatibleApiKey, openAICompatibleModels, rekaApiKey, isOpenAiValid, isAzureValid,
  isClaudeValid, isGeminiValid, isGroqValid, isAzureTTSValid, isOllamaValid, isMoonshotValid,
  isOpenRouterValid, isMistralValid, isOpenAICompatibleValid, isRekaValid, azureModels,
  mailDefaultPrompt, mailSelectedModel, mailSelectedConversationId, clipboardCommand,
  maxMessageMiB, maxReplyMiB, maxRequestMiB, mailReading, mailReadingMaxCharacters,
};
inline constexpr size_t kSettingNameCount =
    static_cast<size_t>(SettingName::mailReadingMaxCharacters) + 1;

struct SettingKey {
  SettingName name;
  std::string_view key;
  SettingStore store;
  SettingType type;
  std::string_view defaultText;       // the default in text form
  std::string_view chinaDefaultText;  // the default for users in China; empty: defaultText
  bool credential = false;            // shown masked, never in clear
  // A string key that takes only these words, separated by "|"; empty: any text.
  std::string_view choices = {};
  // An integer key's least value.
  int64_t least = INT64_MIN;
  // A number key's range: above `above` (a size of 0 MiB or less is none), at most `most`.
  double above = -std::numeric_limits<double>::infinity();
  double most = std::numeric_limits<double>::infinity();
};

// Every key: the fields of UserSettings in their order, then the keys that their readers read
// directly ("azureModels", the panel's three "mail..." keys, Copy's "clipboardCommand" and the
// size limits "maxMessageMiB", "maxReplyMiB" and "maxRequestMiB").
std::span<const SettingKey> settingKeys();

// The entry of `name`.
const SettingKey& settingKey(SettingName name);
// The key of `name` as stored data spells it.
inline std::string_view keyOf(SettingName name) { return settingKey(name).key; }

// The entry of `key` (exact, case-sensitive), or null.
const SettingKey* findSettingKey(std::string_view key);

inline DefaultsStore& storeOf(const SettingKey& entry, DefaultsStore& shared, DefaultsStore& own) {
  return entry.store == SettingStore::shared ? shared : own;
}

// The read form of the default. `inChina` picks chinaDefaultText where there is one.
nlohmann::json settingDefault(const SettingKey& entry, bool inChina);

// The read form of `stored`: coerced to the key's type as DefaultsStore's lenient reads do;
// nullopt when it does not fit (a dictionary with a non-string value, list text that is not a
// JSON list of strings, an array where a string is wanted).
std::optional<nlohmann::json> decodeSetting(const SettingKey& entry, const nlohmann::json& stored);

// What a reader gets for `stored` (nullopt: the key is absent): decodeSetting(stored), or the
// default when the key is absent or its value does not fit.
nlohmann::json readSetting(const SettingKey& entry, const std::optional<nlohmann::json>& stored,
                           bool inChina);

// The stored form of `value`, a value in read form. A list is encoded as JSON text, "[]" when it
// cannot be encoded (text that is not UTF-8).
nlohmann::json storedSetting(const SettingKey& entry, const nlohmann::json& value);

// The stored form of `text` typed for `entry`: bools "true" or "false"; integers in decimal;
// numbers in decimal or exponent form, finite; a dictionary as a JSON object of strings; a list
// as the JSON text of a list of strings, stored exactly as given; strings as they are, in UTF-8.
// DecodingError saying what the key takes when `text` is not such a value; the text itself is
// not repeated in the error, since it may be a credential.
nlohmann::json parseSettingText(const SettingKey& entry, std::string_view text);

// "true or false", "a whole number", ...: what a key of `type` takes, for messages and help.
std::string_view describeSettingType(SettingType type);

// What `entry` takes, its choices or its least value included: "quoted or message".
std::string describeSetting(const SettingKey& entry);

}  // namespace lumora
