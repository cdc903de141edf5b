#include "lumora/store/SettingsKeys.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

#include "lumora/platform/Errors.h"

using nlohmann::json;

namespace lumora {
namespace {

constexpr SettingStore kShared = SettingStore::shared;
constexpr SettingStore kOwn = SettingStore::own;
constexpr SettingType kString = SettingType::string;
constexpr SettingType kBool = SettingType::boolean;
constexpr SettingType kInteger = SettingType::integer;
constexpr SettingType kNumber = SettingType::number;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
// A lower bound that takes 0 itself, for the "above" of a range that starts at 0.
constexpr double kBelowZero = -std::numeric_limits<double>::denorm_min();

// A bound as people write it: "2", "0.5".
std::string shortNumber(double value) {
  char buffer[32];
  const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return ec == std::errc() ? std::string(buffer, end) : std::to_string(value);
}

constexpr SettingKey plain(SettingName name, std::string_view key, SettingStore store,
                           SettingType type, std::string_view defaultText) {
  return {name, key, store, type, defaultText, {}, false};
}

// A credential or endpoint of the companion's service list: a string, empty by default.
constexpr SettingKey endpoint(SettingName name, std::string_view key) {
  return plain(name, key, kShared, kString, "");
}
constexpr SettingKey credential(SettingName name, std::string_view key) {
  return {name, key, kShared, kString, "", {}, true};
}
// A validity flag the companion keeps after checking a service's credentials.
constexpr SettingKey validity(SettingName name, std::string_view key) {
  return plain(name, key, kShared, kBool, "false");
}

using enum SettingName;

// Each row names its key twice, side by side: the name code uses and the text stored data
// knows. The check below keeps the rows in the names' order, so a name always finds its row.
constexpr SettingKey kKeys[] = {
    {fontSize, "fontSize", kOwn, kInteger, "14", {}, false, {}, 1},
    plain(whisperLanguage, "whisperLanguage", kShared, kString, ""),
    {defaultModel, "defaultModel", kShared, kString, "gpt-3.5-turbo", "ERNIE-Bot", false},
    plain(defaultSpeechVoice, "defaultSpeechVoice", kShared, kString, ""),
    plain(defaultContextMessages, "defaultContextMessages", kOwn, kInteger, "4"),
    plain(renderMarkdown, "renderMarkdown", kOwn, kBool, "true"),
    plain(conversationAutoFocus, "conversationAutoFocus", kOwn, kBool, "true"),
    plain(useDoH, "useDoH", kOwn, kBool, "true"),
    plain(hapticFeedback, "hapticFeedback", kOwn, kBool, "true"),
    plain(dohServer, "dohServer", kOwn, kString, "aliyun"),
    plain(httpsProxyUrl, "httpsProxyUrl", kShared, kString, ""),
    // The range every service takes.
    {temperature, "temperature", kOwn, kNumber, "1.0", {}, false, {}, INT64_MIN, kBelowZero, 2},
    plain(showDollar, "showDollar", kOwn, kBool, "true"),
    credential(apiKey, "apiKey"),
    credential(cloudToken, "cloudToken"),
    endpoint(customApiDomain, "customApiDomain"),
    plain(customApiDomainSendKey, "customApiDomainSendKey", kShared, kBool, "false"),
    plain(aiGateway, "aiGateway", kShared, kString, ""),
    endpoint(azureEndPoint, "azureEndPoint"),
    credential(azureApiKey, "azureApiKey"),
    credential(claudeApikey, "claudeApikey"),
    credential(geminiApiKey, "geminiApiKey"),
    credential(groqApiKey, "groqApiKey"),
    plain(keyboardAutoSwitch, "keyboardAutoSwitch", kShared, kBool, "true"),
    plain(keyboardSaveMessage, "keyboardSaveMessage", kShared, kBool, "true"),
    plain(keyboardReplaceInputPrompt, "keyboardReplaceInputPrompt", kShared, kBool, "false"),
    plain(keyboardClearPasteboard, "keyboardClearPasteboard", kShared, kBool, "false"),
    plain(autoCompleteShortcutKey, "autoCompleteShortcutKey", kShared, kString, "shiftEnter"),
    plain(autoCompleteServiceEnabled, "autoCompleteServiceEnabled", kShared, kBool, "false"),
    plain(saveMessagesInConversation, "saveMessagesInConversation", kShared, kBool, "false"),
    plain(hideDockIconAfterLastScreen, "hideDockIconAfterLastScreen", kShared, kBool, "false"),
    endpoint(ollamaURL, "ollamaURL"),
    credential(moonshotApiKey, "moonshotApiKey"),
    credential(openRouterApiKey, "openRouterApiKey"),
    credential(mistralApiKey, "mistralApiKey"),
    endpoint(openAICompatibleEndpoint, "openAICompatibleEndpoint"),
    endpoint(openAICompatiblePath, "openAICompatiblePath"),
    endpoint(openAICompatibleHeader, "openAICompatibleHeader"),
    credential(openAICompatibleApiKey, "openAICompatibleApiKey"),
    plain(openAICompatibleModels, "openAICompatibleModels", kShared, SettingType::stringList, "[]"),
    credential(rekaApiKey, "rekaApiKey"),
    validity(isOpenAiValid, "isOpenAiValid"),
    validity(isAzureValid, "isAzureValid"),
    validity(isClaudeValid, "isClaudeValid"),
    validity(isGeminiValid, "isGeminiValid"),
    validity(isGroqValid, "isGroqValid"),
    validity(isAzureTTSValid, "isAzureTTSValid"),
    validity(isOllamaValid, "isOllamaValid"),
    validity(isMoonshotValid, "isMoonshotValid"),
    validity(isOpenRouterValid, "isOpenRouterValid"),
    validity(isMistralValid, "isMistralValid"),
    validity(isOpenAICompatibleValid, "isOpenAICompatibleValid"),
    validity(isRekaValid, "isRekaValid"),
    // Read directly by their users rather than through a field of UserSettings.
    plain(azureModels, "azureModels", kShared, SettingType::dictionary, "{}"),
    plain(mailDefaultPrompt, "mailDefaultPrompt", kOwn, kString, "You're my assistant, please reply this email"),
    plain(mailSelectedModel, "mailSelectedModel", kOwn, kString, ""),
    plain(mailSelectedConversationId, "mailSelectedConversationId", kOwn, kString, ""),
    // Copy's own way to the clipboard: a shell command that takes the text on standard input.
    plain(clipboardCommand, "clipboardCommand", kOwn, kString, ""),
    // What one process takes in: the message answered, and the reply, in MiB; and what one
    // request may send.
    {maxMessageMiB, "maxMessageMiB", kOwn, kNumber, "64", {}, false, {}, INT64_MIN, 0},
    {maxReplyMiB, "maxReplyMiB", kOwn, kNumber, "16", {}, false, {}, INT64_MIN, 0},
    {maxRequestMiB, "maxRequestMiB", kOwn, kNumber, "8", {}, false, {}, INT64_MIN, 0},
    // What the model reads of the message answered, and the most characters of the whole
    // message it is given.
    {mailReading, "mailReading", kOwn, kString, "quoted", {}, false, "quoted|message"},
    {mailReadingMaxCharacters, "mailReadingMaxCharacters", kOwn, kInteger, "60000", {}, false, {}, 1000},
};

constexpr bool rowsFollowTheNames() {
  for (size_t i = 0; i < std::size(kKeys); ++i)
    if (static_cast<size_t>(kKeys[i].name) != i) return false;
  return std::size(kKeys) == kSettingNameCount;
}
static_assert(rowsFollowTheNames(), "the table's rows and SettingName must list the same keys in "
                                    "the same order");

std::optional<json> decodeSettingType(const SettingKey& entry, const json& stored);
json parseSettingTextType(const SettingKey& entry, std::string_view text);

// The choices of `entry` one by one.
std::vector<std::string_view> choicesOf(const SettingKey& entry) {
  std::vector<std::string_view> words;
  std::string_view rest = entry.choices;
  while (!rest.empty()) {
    const size_t bar = rest.find('|');
    words.push_back(rest.substr(0, bar));
    if (bar == std::string_view::npos) break;
    rest.remove_prefix(bar + 1);
  }
  return words;
}

// The value fits the key's choices and least value.
bool withinBounds(const SettingKey& entry, const json& value) {
  if (!entry.choices.empty() && value.is_string()) {
    const auto words = choicesOf(entry);
    return std::find(words.begin(), words.end(), value.get_ref<const std::string&>()) !=
           words.end();
  }
  if (value.is_number_integer() && entry.type == SettingType::integer)
    return value.get<int64_t>() >= entry.least;
  if (value.is_number() && entry.type == SettingType::number) {
    const double number = value.get<double>();
    return number > entry.above && number <= entry.most;
  }
  return true;
}

bool isStringList(const json& value) {
  return value.is_array() &&
         std::all_of(value.begin(), value.end(), [](const json& v) { return v.is_string(); });
}

bool isStringDictionary(const json& value) {
  return value.is_object() &&
         std::all_of(value.begin(), value.end(), [](const json& v) { return v.is_string(); });
}

}  // namespace

std::optional<json> decodeSetting(const SettingKey& entry, const json& stored) {
  std::optional<json> value = decodeSettingType(entry, stored);
  if (value && !withinBounds(entry, *value)) return std::nullopt;
  return value;
}

namespace {

std::optional<json> decodeSettingType(const SettingKey& entry, const json& stored) {
  switch (entry.type) {
    case SettingType::string:
      if (auto text = defaults::asString(stored)) return json(std::move(*text));
      return std::nullopt;
    case SettingType::boolean:
      if (auto flag = defaults::asBool(stored)) return json(*flag);
      return std::nullopt;
    case SettingType::integer:
      if (auto integer = defaults::asInteger(stored)) return json(*integer);
      return std::nullopt;
    case SettingType::number:
      if (auto number = defaults::asNumber(stored)) return json(*number);
      return std::nullopt;
    case SettingType::dictionary:
      if (isStringDictionary(stored)) return stored;
      return std::nullopt;
    case SettingType::stringList: {
      if (!stored.is_string()) return std::nullopt;
      json list = json::parse(stored.get_ref<const std::string&>(), nullptr, false);
      if (isStringList(list)) return list;
      return std::nullopt;
    }
  }
  return std::nullopt;
}

[[noreturn]] void refuse(const SettingKey& entry) {
  throw DecodingError("The setting \"" + std::string(entry.key) + "\" takes " +
                      describeSetting(entry) + ".");
}

bool isUtf8(std::string_view text) {
  try {
    (void)json(std::string(text)).dump();
    return true;
  } catch (const json::type_error&) {
    return false;
  }
}

}  // namespace

std::span<const SettingKey> settingKeys() { return kKeys; }

const SettingKey& settingKey(SettingName name) { return kKeys[static_cast<size_t>(name)]; }

const SettingKey* findSettingKey(std::string_view key) {
  for (const SettingKey& entry : kKeys) {
    if (entry.key == key) return &entry;
  }
  return nullptr;
}

std::string_view describeSettingType(SettingType type) {
  switch (type) {
    case SettingType::string:
      return "text in UTF-8";
    case SettingType::boolean:
      return "true or false";
    case SettingType::integer:
      return "a whole number, such as 14";
    case SettingType::number:
      return "a number, such as 0.7";
    case SettingType::dictionary:
      return "a JSON object of strings, such as {\"gpt-4\": \"my-deployment\"}";
    case SettingType::stringList:
      return "a JSON list of strings, such as [\"llama3\", \"mixtral\"]";
  }
  return "";
}

std::string describeSetting(const SettingKey& entry) {
  if (!entry.choices.empty()) {
    const auto words = choicesOf(entry);
    std::string out;
    for (size_t i = 0; i < words.size(); ++i) {
      if (i > 0) out += i + 1 == words.size() ? " or " : ", ";
      out += words[i];
    }
    return out;
  }
  if (entry.type == SettingType::integer && entry.least != INT64_MIN)
    return "a whole number of at least " + std::to_string(entry.least);
  if (entry.type == SettingType::number && entry.most != kInfinity)
    return "a number from " + shortNumber(std::max(entry.above, 0.0)) + " to " +
           shortNumber(entry.most);
  if (entry.type == SettingType::number && entry.above != -kInfinity)
    return "a number greater than " + shortNumber(entry.above);
  return std::string(describeSettingType(entry.type));
}

json parseSettingText(const SettingKey& entry, std::string_view text) {
  json value = parseSettingTextType(entry, text);
  if (!withinBounds(entry, value)) refuse(entry);
  return value;
}

namespace {

json parseSettingTextType(const SettingKey& entry, std::string_view text) {
  const char* first = text.data();
  const char* last = first + text.size();
  switch (entry.type) {
    case SettingType::string:
      if (!isUtf8(text)) refuse(entry);
      return json(std::string(text));
    case SettingType::boolean:
      if (text == "true") return json(true);
      if (text == "false") return json(false);
      refuse(entry);
    case SettingType::integer: {
      int64_t integer = 0;
      auto [end, error] = std::from_chars(first, last, integer);
      if (text.empty() || error != std::errc() || end != last) refuse(entry);
      return json(integer);
    }
    case SettingType::number: {
      double number = 0;
      auto [end, error] = std::from_chars(first, last, number);
      if (text.empty() || error != std::errc() || end != last || !std::isfinite(number)) {
        refuse(entry);
      }
      return json(number);
    }
    case SettingType::dictionary: {
      json object = json::parse(text, nullptr, false);
      if (!isStringDictionary(object)) refuse(entry);
      return object;
    }
    case SettingType::stringList:
      if (!isStringList(json::parse(text, nullptr, false))) refuse(entry);
      return json(std::string(text));
  }
  refuse(entry);
}

}  // namespace

json settingDefault(const SettingKey& entry, bool inChina) {
  const std::string_view text =
      inChina && !entry.chinaDefaultText.empty() ? entry.chinaDefaultText : entry.defaultText;
  // The table's own defaults always decode; the registry test holds every entry to that.
  return decodeSetting(entry, parseSettingText(entry, text)).value_or(json());
}

json readSetting(const SettingKey& entry, const std::optional<json>& stored, bool inChina) {
  if (stored) {
    if (auto value = decodeSetting(entry, *stored)) return std::move(*value);
  }
  return settingDefault(entry, inChina);
}

json storedSetting(const SettingKey& entry, const json& value) {
  if (entry.type != SettingType::stringList) return value;
  try {
    return json(value.dump());
  } catch (const json::type_error&) {
    return json("[]");
  }
}

}  // namespace lumora
