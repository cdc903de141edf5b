// `lumora settings`, run as the real binary over a private configuration directory.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/store/SettingsKeys.h"
#include "store/MemoryTempDir.h"
#include "support/Fixtures.h"
#include "support/Process.h"

namespace lumora {
namespace {

using nlohmann::json;
using storetest::MemoryTempDir;
using storetest::writeFile;
using testing::ProcessResult;
using testing::readFile;

constexpr const char* kSecret = "sk-live-S3CRET-abcdefghijklmnop-WXYZ";

class SettingsCommandTest : public ::testing::Test {
 protected:
  ProcessResult settings(const std::vector<std::string>& args,
                         const std::string& lang = "en_US.UTF-8") {
    std::vector<std::string> argv = {LUMORA_BINARY, "settings"};
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {.setEnv = {{"XDG_CONFIG_HOME", config.string()},
                                                 {"HOME", dir.path().string()},
                                                 {"LANG", lang}},
                                      .unsetEnv = {"LC_ALL", "LC_MESSAGES", "LUMORA_DEBUG"}});
  }
  std::filesystem::path sharedFile() const {
    return config / "lumora/group.tech.zorvel.openai.json";
  }
  std::filesystem::path ownFile() const { return config / "lumora/tech.zorvel.lumora.json"; }

  MemoryTempDir dir;
  std::filesystem::path config = dir / "config";
};

TEST_F(SettingsCommandTest, PathNamesTheTwoFiles) {
  const ProcessResult r = settings({"path"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, sharedFile().string() + "\n" + ownFile().string() + "\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(SettingsCommandTest, GetPrintsWhatTheSystemReads) {
  const std::pair<const char*, const char*> unset[] = {
      {"fontSize", "14\n"},
      {"temperature", "1.0\n"},
      {"renderMarkdown", "true\n"},
      {"whisperLanguage", "\n"},
      {"openAICompatibleModels", "[]\n"},
      {"azureModels", "{}\n"},
      {"defaultModel", "gpt-3.5-turbo\n"},
      {"mailReading", "quoted\n"},
      {"mailReadingMaxCharacters", "60000\n"},
  };
  for (const auto& [key, shown] : unset) {
    const ProcessResult r = settings({"get", key});
    EXPECT_EQ(r.status, 0) << key;
    EXPECT_EQ(r.out, shown) << key;
  }
  EXPECT_EQ(settings({"get", "defaultModel"}, "zh_CN.UTF-8").out, "ERNIE-Bot\n");
  EXPECT_FALSE(std::filesystem::exists(config)) << "reads created files";
}

TEST_F(SettingsCommandTest, SetStoresTheValueFormOfTheKeysTypeInItsStore) {
  const std::vector<std::vector<std::string>> sets = {
      {"set", "defaultContextMessages", "-1"},  // a negative number is not an option
      {"set", "temperature", "0.5"},
      {"set", "customApiDomainSendKey", "true"},
      {"set", "openAICompatibleModels", R"(["a", "b"])"},
      {"set", "azureModels", R"({"gpt-4": "prod"})"},
      {"set", "whisperLanguage", "--", "--fr"},
      {"set", "mailSelectedModel", "gpt-4"},
      {"set", "mailReading", "message"},
      {"set", "mailReadingMaxCharacters", "20000"},
  };
  for (const auto& args : sets) {
    const ProcessResult r = settings(args);
    EXPECT_EQ(r.status, 0) << args[1] << r.err;
    EXPECT_EQ(r.out + r.err, "");
  }
  EXPECT_EQ(json::parse(readFile(ownFile())),
            json({{"defaultContextMessages", -1},
                  {"temperature", 0.5},
                  {"mailSelectedModel", "gpt-4"},
                  {"mailReading", "message"},
                  {"mailReadingMaxCharacters", 20000}}));
  EXPECT_EQ(json::parse(readFile(sharedFile())), json({{"customApiDomainSendKey", true},
                                                       {"openAICompatibleModels", R"(["a", "b"])"},
                                                       {"azureModels", {{"gpt-4", "prod"}}},
                                                       {"whisperLanguage", "--fr"}}));
  EXPECT_EQ(settings({"get", "openAICompatibleModels"}).out, "[\"a\",\"b\"]\n");
  EXPECT_EQ(settings({"get", "temperature"}).out, "0.5\n");

  EXPECT_EQ(settings({"unset", "fontSize"}).status, 0);
  EXPECT_EQ(settings({"get", "fontSize"}).out, "14\n");
  EXPECT_FALSE(json::parse(readFile(ownFile())).contains("fontSize"));
}

TEST_F(SettingsCommandTest, ListShowsEveryKeyAsJsonWithCredentialsMasked) {
  ASSERT_EQ(settings({"set", "apiKey", kSecret}).status, 0);
  ASSERT_EQ(settings({"set", "dohServer", "a \"b\"\nc"}).status, 0);
  const ProcessResult r = settings({"list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  std::vector<std::string> lines;
  for (size_t start = 0, end; (end = r.out.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(r.out.substr(start, end - start));
  }
  ASSERT_EQ(lines.size(), settingKeys().size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string prefix = std::string(settingKeys()[i].key) + " = ";
    ASSERT_TRUE(lines[i].starts_with(prefix)) << lines[i];
    EXPECT_FALSE(json::parse(lines[i].substr(prefix.size()), nullptr, false).is_discarded())
        << lines[i];
  }
  EXPECT_EQ(lines[0], "fontSize = 14");
  EXPECT_EQ(lines[9], "dohServer = \"a \\\"b\\\"\\nc\"");
  EXPECT_EQ(lines[13], "apiKey = \"…WXYZ\"");
  EXPECT_EQ(lines[14], "cloudToken = \"\"");
}

TEST_F(SettingsCommandTest, ACredentialNeverAppearsInClear) {
  const std::vector<std::vector<std::string>> runs = {
      {"set", "apiKey", kSecret},
      {"get", "apiKey"},
      {"list"},
      {"set", "fontSize", kSecret},
      {"set", "apiKey"},
      {"get", "apiKey", kSecret},
      {"path"},
  };
  for (const auto& args : runs) {
    const ProcessResult r = settings(args);
    EXPECT_EQ((r.out + r.err).find("S3CRET"), std::string::npos)
        << args[0] << ": " << r.out << r.err;
  }
  EXPECT_EQ(settings({"get", "apiKey"}).out, "…WXYZ\n");
  EXPECT_EQ(json::parse(readFile(sharedFile()))["apiKey"], kSecret);
}

TEST_F(SettingsCommandTest, UsageErrorsChangeNothing) {
  struct Row {
    std::vector<std::string> args;
    std::string firstLine;
  };
  const Row rows[] = {
      {{}, "lumora: missing command"},
      {{"show"}, "lumora: unknown command 'show'"},
      {{"get"}, "lumora: 'get' takes one KEY"},
      {{"list", "x"}, "lumora: 'list' takes no arguments"},
      {{"set", "fontSize"},
       "lumora: 'set fontSize' without a VALUE asks on the terminal, and standard input is not "
       "one; give '-' to read the value from standard input"},
      {{"set", "fontSize", "1", "2"}, "lumora: 'set' takes a KEY and a VALUE"},
      {{"--verbose", "list"}, "lumora: unknown option '--verbose'"},
      {{"get", "httpsProxy"},
       "lumora: unknown setting \"httpsProxy\"; did you mean \"httpsProxyUrl\"? 'lumora settings "
       "list' shows every key"},
      {{"set", "claudeApiKey", "-"},
       "lumora: unknown setting \"claudeApiKey\"; did you mean \"claudeApikey\"? 'lumora settings "
       "list' shows every key"},
      {{"set", "nope", "1"},
       "lumora: unknown setting \"nope\"; 'lumora settings list' shows every key"},
      {{"set", "renderMarkdown", "yes"},
       "lumora: The setting \"renderMarkdown\" takes true or false."},
      {{"set", "fontSize", "large"}, "lumora: The setting \"fontSize\" takes a whole number of at least 1."},
      {{"set", "fontSize", "0"}, "lumora: The setting \"fontSize\" takes a whole number of at least 1."},
      {{"set", "temperature", "nan"}, "lumora: The setting \"temperature\" takes a number from 0 to 2."},
      {{"set", "temperature", "2.5"}, "lumora: The setting \"temperature\" takes a number from 0 to 2."},
      {{"set", "maxMessageMiB", "0"},
       "lumora: The setting \"maxMessageMiB\" takes a number greater than 0."},
      {{"set", "maxReplyMiB", "-5"}, "lumora: The setting \"maxReplyMiB\" takes a number greater than 0."},
      {{"set", "azureModels", "[]"},
       "lumora: The setting \"azureModels\" takes a JSON object of strings, such as {\"gpt-4\": "
       "\"my-deployment\"}."},
      {{"set", "openAICompatibleModels", "a,b"},
       "lumora: The setting \"openAICompatibleModels\" takes a JSON list of strings, such as "
       "[\"llama3\", \"mixtral\"]."},
      {{"set", "mailReading", "whole"},
       "lumora: The setting \"mailReading\" takes quoted or message."},
      {{"set", "mailReadingMaxCharacters", "999"},
       "lumora: The setting \"mailReadingMaxCharacters\" takes a whole number of at least 1000."},
  };
  for (const Row& row : rows) {
    const ProcessResult r = settings(row.args);
    EXPECT_EQ(r.status, 2) << row.firstLine;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')), row.firstLine);
  }
  EXPECT_FALSE(std::filesystem::exists(config));

  const ProcessResult help = settings({"get", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.out.starts_with("Usage: lumora settings list | get KEY")) << help.out;
}

TEST_F(SettingsCommandTest, AnUnparsableFileFailsAndIsLeftAsItWas) {
  const std::string broken = "{\"apiKey\": \"" + std::string(kSecret) + "\",,}";
  writeFile(sharedFile(), broken);
  const std::string reason = "lumora: The settings file " + sharedFile().string() +
                             " is not valid JSON (line 1, column 51).";
  struct Row {
    std::vector<std::string> args;
    std::string err;
  };
  const Row rows[] = {
      {{"get", "apiKey"}, reason + "\n"},
      {{"list"}, reason + "\n"},
      {{"set", "apiKey", "sk-new"}, reason + " It was left unchanged.\n"},
      {{"unset", "apiKey"}, reason + " It was left unchanged.\n"},
  };
  for (const Row& row : rows) {
    const ProcessResult r = settings(row.args);
    EXPECT_EQ(r.status, 1) << row.args[0];
    EXPECT_EQ(r.out, "") << row.args[0];
    EXPECT_EQ(r.err, row.err);
  }
  EXPECT_EQ(readFile(sharedFile()), broken);
  // The other file is unaffected.
  EXPECT_EQ(settings({"set", "fontSize", "12"}).status, 0);
  EXPECT_EQ(settings({"get", "fontSize"}).out, "12\n");
}

}  // namespace
}  // namespace lumora
