// `lumora route` and `lumora models` against real settings files.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>

#include "support/LumoraHome.h"
#include "support/ScriptedServer.h"

namespace lumora {
namespace {

class RouteCommandTest : public ::testing::Test {
 protected:
  testing::ProcessResult lumora(std::vector<std::string> args) { return home_.run(std::move(args)); }
  void set(const std::string& key, const std::string& value) {
    ASSERT_EQ(lumora({"settings", "set", key, value}).status, 0);
  }
  testing::LumoraHome home_;
};

TEST_F(RouteCommandTest, SaysWhichServiceAnswersAndWhy) {
  EXPECT_EQ(lumora({"route", "gpt-4o"}).out,
            "openai\nNo service is set up: the request would go to OpenAI without a key, and be "
            "refused.\n");
  set("apiKey", "sk-route-test-0001");
  set("openRouterApiKey", "router-route-0002");
  set("cloudToken", "cloud-route-0003");
  set("ollamaURL", "http://localhost:11434");
  struct Case {
    std::string model;
    std::string out;
  };
  const Case cases[] = {
      {"claude-3-opus-20240229",
       "openRouter\nclaude-3-opus-20240229 is a Claude model: it goes to Claude, OpenRouter or "
       "the hosted cloud, whichever comes first in your services.\n"},
      {"qwen-plus", "cloud\nqwen-plus is offered only by the hosted cloud.\n"},
      {"gpt-4o", "openai\nopenai is the first of your services that offers gpt-4o.\n"},
      {"llama3:8b", "ollama\nllama3:8b is not in the catalogue, so it goes to your Ollama server.\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model);
    const auto r = lumora({"route", c.model});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, c.out);
  }
  EXPECT_EQ(lumora({"route"}).status, 2);
}

TEST_F(RouteCommandTest, ListsTheCatalogueWithTheAnsweringService) {
  set("cloudToken", "cloud-route-0003");
  const auto r = lumora({"models"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 49);
  EXPECT_NE(r.out.find("gpt-4-turbo-preview\tGPT4 Turbo Preview\tcloud\tdeprecated\t-\n"),
            std::string::npos);
  EXPECT_NE(r.out.find("ERNIE-Bot-4\tERNIE-Bot-4\tcloud\t-\tcloud-only\n"), std::string::npos);
  EXPECT_EQ(r.out.find("cloud-route"), std::string::npos) << "no credential in the output";
}

TEST_F(RouteCommandTest, TeamsFromTheStoreComeFirstAndADamagedStoreCostsOnlyThem) {
  set("apiKey", "sk-route-test-0001");
  ASSERT_EQ(lumora({"route", "gpt-4o"}).out.substr(0, 7), "openai\n");  // creates the store
  const auto store = home_.dataDirectory() / "group.tech.zorvel.openai" / "Lumora.sqlite";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "INSERT INTO Team (name, domain, token, createdAt) VALUES "
                         "('old', 'old.example', 'team-token-0001', 1),"
                         "('new', ' new.example ', 'team-token-0002', 2),"
                         "('half', 'half.example', '  ', 3)",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  // The newest usable team takes every gpt name; the one without a token is skipped.
  EXPECT_EQ(lumora({"route", "gpt-4o"}).out,
            "new.example\nnew.example is the first of your services that offers gpt-4o.\n");
  const auto debug = lumora({"reply", "--dry-run", "--debug", "-"});
  EXPECT_EQ(debug.err.find("team-token-0002"), std::string::npos) << "tokens are masked";

  std::filesystem::remove(store.string() + "-wal");
  std::filesystem::remove(store.string() + "-shm");
  std::ofstream(store, std::ios::binary | std::ios::trunc) << "not a database";
  const auto damaged = lumora({"route", "gpt-4o"});
  EXPECT_EQ(damaged.status, 0);
  EXPECT_EQ(damaged.out.substr(0, 7), "openai\n");
  std::ifstream in(store, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not a database");
}

TEST_F(RouteCommandTest, VoicesListsTheSpeechServicesVoices) {
  testing::ScriptedServer server;
  server.enqueue(testing::Response::json(
      200, R"([{"LocalName":"Jenny","ShortName":"en-US-JennyNeural","Gender":"Female",)"
           R"("Locale":"en-US"}])"));
  const auto r = home_.run({"voices", "--region", "westeurope"},
                           {{"LUMORA_AZURE_SPEECH_BASE_URL", server.baseUrl()},
                            {"LUMORA_AZURE_SPEECH_KEY", "speech-key-0001"}});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "en-US-JennyNeural\tJenny\tFemale\ten-US\n");
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].target, "/cognitiveservices/voices/list");
  EXPECT_EQ(server.requests()[0].header("Ocp-Apim-Subscription-Key"), "speech-key-0001");
  EXPECT_EQ(lumora({"voices", "--region", "westeurope"}).status, 2) << "no key";
}

}  // namespace
}  // namespace lumora
