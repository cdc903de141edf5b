#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "lumora/platform/Errors.h"
#include "lumora/platform/Executor.h"
#include "lumora/platform/Redact.h"
#include "lumora/store/Features.h"
#include "lumora/store/SettingsKeys.h"
#include "lumora/store/UserSettings.h"
#include "store/MemoryTempDir.h"

namespace lumora {
namespace {

using nlohmann::json;
using storetest::MemoryTempDir;

class UserSettingsTest : public ::testing::Test {
 protected:
  MemoryTempDir dir;
  DefaultsStore shared{dir / "group.tech.zorvel.openai.json"};
  DefaultsStore own{dir / "tech.zorvel.lumora.json"};
  UserSettings settings{shared, own, false};
};

// One field seen through its type-erased reads, with what the stored data expects of it.
struct FieldRow {
  std::string_view key;
  SettingStore store;
  json expectedDefault;
  json sample;  // a stored value of the key's form, other than the default
  std::function<std::string_view()> fieldKey;
  std::function<json()> get;
  std::function<void()> unset;
};

template <typename T>
FieldRow row(Setting<T>& field, std::string_view key, SettingStore store, json expectedDefault,
             json sample) {
  return {key,
          store,
          std::move(expectedDefault),
          std::move(sample),
          [&field] { return field.key(); },
          [&field] { return json(field.get()); },
          [&field] { field.unset(); }};
}

constexpr SettingStore S = SettingStore::shared;
constexpr SettingStore O = SettingStore::own;

// A field of each type and store, and those whose name is not their key.
std::vector<FieldRow> someFields(UserSettings& s) {
  return {
      row(s.fontSize, "fontSize", O, 14, 18),
      row(s.defaultModel, "defaultModel", S, "gpt-3.5-turbo", "gpt-4"),
      row(s.renderMarkdown, "renderMarkdown", O, true, false),
      row(s.httpsProxy, "httpsProxyUrl", S, "", "http://proxy:3128"),
      row(s.defaultTemperature, "temperature", O, 1.0, 0.25),
      row(s.insecureSendKey, "customApiDomainSendKey", S, false, true),
      row(s.autoSwitchKeyboard, "keyboardAutoSwitch", S, true, false),
      row(s.apiKey, "apiKey", S, "", "sk-openai-0000"),
      row(s.openAICompatibleModels, "openAICompatibleModels", S, json::array(), "[\"llama3\"]"),
      row(s.azureModels, "azureModels", S, json::object(), json({{"gpt-4", "deploy"}})),
      row(s.clipboardCommand, "clipboardCommand", O, "", "xclip -selection clipboard"),
      row(s.maxMessageMiB, "maxMessageMiB", O, 64.0, 200.0),
      row(s.maxReplyMiB, "maxReplyMiB", O, 16.0, 0.5),
      row(s.maxRequestMiB, "maxRequestMiB", O, 8.0, 2.0),
  };
}

TEST_F(UserSettingsTest, FieldsReadTheirKeyInTheirStoreOrTheDefault) {
  for (const FieldRow& r : someFields(settings)) {
    SCOPED_TRACE(r.key);
    EXPECT_EQ(r.fieldKey(), r.key);
    EXPECT_EQ(r.get(), r.expectedDefault);

    DefaultsStore& home = r.store == S ? shared : own;
    DefaultsStore& other = r.store == S ? own : shared;
    other.set(r.key, r.sample);
    EXPECT_EQ(r.get(), r.expectedDefault) << "read from the wrong store";
    home.set(r.key, r.sample);
    const json read = r.get();
    EXPECT_NE(read, r.expectedDefault) << "the stored value was not read";
    if (r.key == "openAICompatibleModels") {
      EXPECT_EQ(read, json::array({"llama3"}));
    } else {
      EXPECT_EQ(read, r.sample);
    }
    r.unset();
    EXPECT_EQ(home.value(r.key), std::nullopt);
    EXPECT_EQ(r.get(), r.expectedDefault);
  }
}

TEST_F(UserSettingsTest, ReadingDefaultsWritesNothing) {
  for (const FieldRow& r : someFields(settings)) r.get();
  EXPECT_EQ(shared.all(), json::object());
  EXPECT_FALSE(std::filesystem::exists(shared.path()));
  EXPECT_FALSE(std::filesystem::exists(own.path()));
}

TEST(SettingsKeysTest, CredentialsAreExactlyTheKeysAndTokens) {
  std::set<std::string_view> credentials;
  for (const SettingKey& entry : settingKeys()) {
    if (entry.credential) credentials.insert(entry.key);
  }
  EXPECT_EQ(credentials, (std::set<std::string_view>{
                             "apiKey", "cloudToken", "azureApiKey", "claudeApikey", "geminiApiKey",
                             "groqApiKey", "moonshotApiKey", "openRouterApiKey", "mistralApiKey",
                             "openAICompatibleApiKey", "rekaApiKey"}));
}

TEST_F(UserSettingsTest, StringListReadsTheDefaultForAnythingButAListOfStringsText) {
  const std::pair<json, json> cases[] = {
      {"[]", json::array()},
      {"[\"a\", \"b\"]", json::array({"a", "b"})},
      {"not json", json::array()},
      {"[1]", json::array()},
      {"{}", json::array()},
      {json::array({"a"}), json::array()},  // a list itself is not the stored form
      {42, json::array()},
  };
  EXPECT_TRUE(settings.openAICompatibleModels.get().empty());  // absent
  for (const auto& [stored, expected] : cases) {
    SCOPED_TRACE(stored.dump());
    shared.set("openAICompatibleModels", stored);
    EXPECT_EQ(json(settings.openAICompatibleModels.get()), expected);
  }
  settings.openAICompatibleModels.set({"x", "y"});
  EXPECT_EQ(shared.value("openAICompatibleModels"), json("[\"x\",\"y\"]"));
  settings.openAICompatibleModels.set({"ok", "\xff"});
  EXPECT_EQ(shared.value("openAICompatibleModels"), json("[]"));
}

TEST_F(UserSettingsTest, FieldsReadNearFormsLenientlyAndMisfitsAsTheDefault) {
  own.set("fontSize", "16");
  own.set("renderMarkdown", "NO");
  own.set("temperature", 1);
  shared.set("defaultModel", 4);
  shared.set("keyboardAutoSwitch", json::array());
  shared.set("azureModels", json({{"gpt-4", "a"}, {"gpt-4o", 1}}));
  EXPECT_EQ(settings.fontSize.get(), 16);
  EXPECT_FALSE(settings.renderMarkdown.get());
  EXPECT_EQ(settings.defaultTemperature.get(), 1.0);
  EXPECT_EQ(settings.defaultModel.get(), "4");
  EXPECT_TRUE(settings.autoSwitchKeyboard.get());
  EXPECT_TRUE(settings.azureModels.get().empty());
}

TEST_F(UserSettingsTest, CredentialsReadAreScrubbedFromOutput) {
  redact::clearSecrets();
  shared.set("apiKey", "sk-proj-abcdefgh1234");
  EXPECT_EQ(settings.apiKey.get(), "sk-proj-abcdefgh1234");
  EXPECT_EQ(redact::scrub("key sk-proj-abcdefgh1234"), "key …1234");
  redact::clearSecrets();
}

TEST(UserSettingsRegionTest, DefaultModelIsFixedByTheRegionAtConstruction) {
  MemoryTempDir dir;
  DefaultsStore shared(dir / "shared.json");
  DefaultsStore own(dir / "own.json");
  struct Case {
    std::optional<std::string> region;
    const char* model;
  };
  for (const Case& c : {Case{"CN", "ERNIE-Bot"}, Case{"cn", "ERNIE-Bot"},
                        Case{"US", "gpt-3.5-turbo"}, Case{std::nullopt, "gpt-3.5-turbo"}}) {
    SCOPED_TRACE(c.region.value_or("none"));
    MainExecutor executor;
    Features features(&executor, c.region, {"lumora"});
    UserSettings settings(shared, own, features.inChina());
    EXPECT_EQ(settings.defaultModel.get(), c.model);
    executor.drain();  // the region test answers false on this platform
    EXPECT_FALSE(features.inChina());
    EXPECT_EQ(settings.defaultModel.get(), c.model);
  }
  UserSettings china(shared, own, true);
  shared.set("defaultModel", "claude-3");
  EXPECT_EQ(china.defaultModel.get(), "claude-3");
}

TEST(SettingsKeysTest, TextIsParsedByTheKeysType) {
  struct Row {
    std::string_view key;
    std::string text;
    std::optional<json> stored;  // nullopt: refused
  };
  const Row rows[] = {
      {"fontSize", "14", 14},
      {"fontSize", "-3", std::nullopt},  // out of range
      {"defaultContextMessages", "-1", -1},
      {"fontSize", "1.5", std::nullopt},
      {"fontSize", "", std::nullopt},
      {"fontSize", "99999999999999999999", std::nullopt},
      {"temperature", "0.7", 0.7},
      {"temperature", "1e-3", 0.001},
      {"temperature", "nan", std::nullopt},
      {"temperature", "warm", std::nullopt},
      {"temperature", "0", 0.0},
      {"temperature", "2", 2.0},
      {"temperature", "2.01", std::nullopt},
      {"temperature", "-0.1", std::nullopt},
      {"maxMessageMiB", "0.5", 0.5},
      {"maxMessageMiB", "0", std::nullopt},
      {"maxReplyMiB", "-5", std::nullopt},
      {"renderMarkdown", "true", true},
      {"renderMarkdown", "false", false},
      {"renderMarkdown", "TRUE", std::nullopt},
      {"azureModels", R"({"gpt-4": "d1"})", json({{"gpt-4", "d1"}})},
      {"azureModels", R"({"gpt-4": 1})", std::nullopt},
      {"azureModels", "[]", std::nullopt},
      {"azureModels", "{", std::nullopt},
      {"openAICompatibleModels", R"([ "a",  "b" ])", R"([ "a",  "b" ])"},  // kept as typed
      {"openAICompatibleModels", "[1]", std::nullopt},
      {"openAICompatibleModels", "a,b", std::nullopt},
      {"apiKey", "sk-x y", "sk-x y"},
      {"apiKey", "sk-\xff", std::nullopt},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.key) + " " + r.text);
    const SettingKey* entry = findSettingKey(r.key);
    ASSERT_NE(entry, nullptr);
    if (r.stored) {
      EXPECT_EQ(parseSettingText(*entry, r.text), *r.stored);
      continue;
    }
    try {
      parseSettingText(*entry, r.text);
      ADD_FAILURE() << "accepted";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.what(), "The setting \"" + std::string(r.key) + "\" takes " +
                              describeSetting(*entry) + ".");
    }
  }
  EXPECT_EQ(findSettingKey("FontSize"), nullptr);
  EXPECT_EQ(findSettingKey("httpsProxy"), nullptr);  // the field's name is not a key
}

}  // namespace
}  // namespace lumora
