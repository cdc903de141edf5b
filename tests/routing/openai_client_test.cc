// The OpenAI client's URLs, headers, request body and error texts, and the session's proxy.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "lumora/chat/Endpoints.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/HttpSession.h"
#include "lumora/routing/OpenAIClient.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/Fixtures.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using testing::FakeAnswer;
using testing::FakeTransport;

class OpenAIClientTest : public ::testing::Test {
 protected:
  OpenAIClientTest() : shared_(dir_ / "shared.json") { unsetenv("LUMORA_OPENAI_BASE_URL"); }

  std::string url(const Service& service, std::optional<std::string_view> model = "gpt-4o",
                  std::string_view path = kChatPath) {
    try {
      return OpenAIClient(service, env_).serviceURL(path, model).text();
    } catch (const std::exception& e) {
      return "error: " + describeFailure(e);
    }
  }

  testing::TempDir dir_;
  DefaultsStore shared_;
  FakeTransport transport_;
  ChatEnvironment env_{shared_, transport_};
};

TEST_F(OpenAIClientTest, ServiceURLs) {
  struct Case {
    const char* name;
    Service service;
    std::string gateway;
    std::string expected;
  };
  const Case cases[] = {
      {"openai", OpenAiService{"k"}, "", "https://api.openai.com/v1/chat/completions"},
      {"custom domain without scheme", CustomDomain{"llm.example.org", "k", true}, "",
       "https://llm.example.org/v1/chat/completions"},
      {"custom domain keeps plain http", CustomDomain{"http://10.1.2.3:8080", "k", true}, "",
       "http://10.1.2.3:8080/v1/chat/completions"},
      {"custom domain with a path of its own",
       CustomDomain{"https://llm.example.org/api/", {}, false}, "",
       "https://llm.example.org/api/v1/chat/completions"},
      {"a scheme in capitals is not recognised", CustomDomain{"HTTPS://llm.example.org", {}, false},
       "", "https://HTTPS//llm.example.org/v1/chat/completions"},
      {"team with a path of its own", Team{"team.example.org/llm", "t"}, "",
       "https://team.example.org/llm/v1/chat/completions"},
      {"a domain that is no URL", Team{"bad host name", "t"}, "", "error: Invalid domain"},
      {"openai through the gateway", OpenAiService{"k"}, "https://gateway.example.net/v1/acct/gw",
       "https://gateway.example.net/v1/acct/gw/openai/chat/completions"},
      {"gateway without scheme", OpenAiService{"k"}, "gateway.example.net/acct",
       "https://gateway.example.net/acct/openai/chat/completions"},
      {"a gateway of spaces counts as absent", OpenAiService{"k"}, "   ",
       "https://api.openai.com/v1/chat/completions"},
      {"other services use the OpenAI endpoint", Groq{"k"}, "",
       "https://api.openai.com/v1/chat/completions"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.gateway.empty()) {
      shared_.remove("aiGateway");
    } else {
      shared_.set("aiGateway", c.gateway);
    }
    EXPECT_EQ(url(c.service), c.expected);
  }
}

TEST_F(OpenAIClientTest, BaseURLOverrideFromTheEnvironment) {
  setenv("LUMORA_OPENAI_BASE_URL", "http://127.0.0.1:9/prefix", 1);
  EXPECT_EQ(url(OpenAiService{"k"}), "http://127.0.0.1:9/prefix/v1/chat/completions");
  unsetenv("LUMORA_OPENAI_BASE_URL");
}

TEST_F(OpenAIClientTest, AzureDeploymentRules) {
  const Service azure = Azure{"https://res.openai.azure.com", "k"};
  struct Case {
    const char* name;
    nlohmann::json deployments;
    std::optional<std::string> model;
    std::string path;
    std::string expected;
  };
  const std::string chat(kChatPath);
  const auto deployment = [](const std::string& name) {
    return "https://res.openai.azure.com/openai/deployments/" + name +
           "/chat/completions?api-version=2023-05-15";
  };
  const auto transcriptions = [](const std::string& name) {
    return "https://res.openai.azure.com/openai/deployments/" + name +
           "/audio/transcriptions?api-version=2023-09-01-preview";
  };
  const Case cases[] = {
      {"no deployments: the model without dots", nlohmann::json::object(), "gpt-3.5-turbo", chat,
       deployment("gpt-35-turbo")},
      {"a deployment value equal to the dotless model", {{"anything", "gpt-35-turbo"}},
       "gpt-3.5-turbo", chat, deployment("gpt-35-turbo")},
      {"the value stored under the dotless model", {{"gpt-4", "my-gpt4"}}, "gpt-4", chat,
       deployment("my-gpt4")},
      {"the key is the dotless model, not the model", {{"gpt-3.5-turbo", "mine"}}, "gpt-3.5-turbo",
       chat, deployment("gpt-35-turbo")},
      {"an empty value falls back to the model", {{"gpt-4", ""}}, "gpt-4", chat,
       deployment("gpt-4")},
      {"whisper", {{"whisper", "my-whisper"}}, "whisper", chat, transcriptions("my-whisper")},
      {"whisper without its own deployment", nlohmann::json::object(), "whisper", "/v1/other",
       transcriptions("whisper")},
      {"another path is appended as text", nlohmann::json::object(), "gpt-4", "/v1/models",
       "https://res.openai.azure.com/v1/models"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    shared_.set("azureModels", c.deployments);
    EXPECT_EQ(url(azure, c.model, c.path), c.expected);
  }
}

TEST_F(OpenAIClientTest, AuthenticationHeaders) {
  struct Case {
    Service service;
    HttpHeaders expected;
  };
  const Case cases[] = {
      {OpenAiService{"sk-a"}, {{"Authorization", "Bearer sk-a"}}},
      {Cloud{"tok"}, {{"Authorization", "Bearer tok"}}},
      {Team{"d", "tok"}, {{"Authorization", "Bearer tok"}}},
      {CustomDomain{"d", "sk-a", true}, {{"Authorization", "Bearer sk-a"}}},
      {CustomDomain{"d", "sk-a", false}, {}},
      {CustomDomain{"d", std::nullopt, true}, {}},
      {Azure{"https://e", "az"}, {{"api-key", "az"}}},
      {Claude{"c"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.service.description());
    EXPECT_EQ(OpenAIClient(c.service, env_).authHeaders(), c.expected);
  }
}

TEST_F(OpenAIClientTest, TemperatureIsClampedAndMaxTokensOnlyForTheVisionPreview) {
  struct Case {
    std::string model;
    double temperature;
    double sent;
    std::optional<int> maxTokens;
  };
  const Case cases[] = {
      {"gpt-4o", 2.5, 2.0, std::nullopt},
      {"gpt-4o", -1, 0.0, std::nullopt},
      {"gpt-4o", std::nan(""), 0.0, std::nullopt},
      {"gpt-4o", 1.3, 1.3, std::nullopt},
      {"gpt-4-vision-preview", 1, 1.0, 4096},
      {"gpt-4-vision-preview-2", 1, 1.0, std::nullopt},
  };
  const OpenAIClient client(OpenAiService{"k"}, env_);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.model + " " + std::to_string(c.temperature));
    const auto body = nlohmann::json::parse(client.chatRequest(c.model, {}, c.temperature).body);
    EXPECT_EQ(body["temperature"].get<double>(), c.sent);
    EXPECT_EQ(body["stream"], true);
    if (c.maxTokens) {
      EXPECT_EQ(body["max_tokens"], *c.maxTokens);
    } else {
      EXPECT_FALSE(body.contains("max_tokens"));
    }
  }
}

TEST_F(OpenAIClientTest, ImagesSwitchEveryMessageToTheImageForm) {
  ChatRequestPayload payload;
  payload.model = "gpt-4o";
  payload.messages = {{"system", "s", std::nullopt},
                      {"user", "", std::vector<std::string>{}},
                      {"user", "look", std::vector<std::string>{"\xff\xd8\xff", "ab"}}};
  const auto body = nlohmann::json::parse(payload.toJSON());
  EXPECT_EQ(body["messages"][0]["content"],
            nlohmann::json::parse(R"([{"type":"text","text":"s"}])"));
  EXPECT_EQ(body["messages"][1]["content"],
            nlohmann::json::parse(R"([{"type":"text","text":""}])"));
  EXPECT_EQ(body["messages"][2]["content"], nlohmann::json::parse(R"([
      {"type":"text","text":"look"},
      {"type":"image_url","image_url":{"url":"data:image/jpeg;base64,/9j/"}},
      {"type":"image_url","image_url":{"url":"data:image/jpeg;base64,YWI="}}])"));

  payload.messages = {{"user", "", std::vector<std::string>{}}};
  EXPECT_EQ(nlohmann::json::parse(payload.toJSON())["messages"][0]["content"], "");
}

// Error bodies of real servers, sent with a status other than 200, give these exact texts.
TEST_F(OpenAIClientTest, ErrorBodiesGiveTheUsersText) {
  struct Case {
    std::string body;  // a fixture file under providers/, or the body itself
    int status;
    std::string text;
  };
  const Case cases[] = {
      {"openai/error-401-invalid-api-key.json", 401,
       "Error invalid_api_key: Incorrect API key provided: invalid-key. You can find your API "
       "key at https://platform.openai.com/account/api-keys."},
      {"openai/error-400-unsupported-parameter.json", 400,
       "Error unsupported_parameter: Unsupported parameter: 'max_tokens' is not supported with "
       "this model. Use 'max_completion_tokens' instead."},
      {"openai-compatible/ollama-cloud-error-400.json", 400,
       "Error : prompt too long; exceeded max context length by 1119046 tokens (ref: "
       "96164522-08b2-4cbf-886e-e5a38961a688)"},
      {"<html><body>502 Bad Gateway</body></html>", 502, "Unexpected http code 502"},
      {R"({"error":{"message":"m","code":42}})", 400, "Unexpected http code 400"},
      {R"({"error":{"code":"x"}})", 403, "Unexpected http code 403"},
      {R"({"error":{"message":"Quota"}})", 201, "Error : Quota"},
      {"", 204, "Unexpected http code 204"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const bool isFile = c.body.ends_with(".json");
    const std::string body =
        isFile ? testing::readFile(testing::fixturesDir() / "providers" / c.body) : c.body;
    transport_.enqueue(FakeAnswer{.status = c.status, .pieces = {body}});
    OpenAIClient client(OpenAiService{"k"}, env_);
    try {
      client.streamChat("gpt-4o", {{"user", "hi", std::nullopt}}, 1.0, {});
      ADD_FAILURE() << "no failure";
    } catch (const std::exception& e) {
      EXPECT_EQ(describeFailure(e), c.text);
    }
  }
}

// A service with a client of its own is handed to it; the others go the OpenAI way, whatever
// the model is called.
TEST_F(OpenAIClientTest, ServicesWithClientsOfTheirOwnAreHandedOver) {
  struct Case {
    Service service;
    std::string model;
    std::string url;
  };
  const std::string openai = endpointBase(FixedEndpoint::openai) + "/v1/chat/completions";
  const Case cases[] = {
      {Ollama{"http://localhost:11434"}, "llama3", "http://localhost:11434/api/chat"},
      {Cloud{"cloud-token-0001"}, "gpt-4o", endpointBase(FixedEndpoint::cloud) + "/1/chat"},
      {Claude{"claude-key-0001"}, "gpt-4o", openai},
      {Claude{"claude-key-0001"}, "claude-3-haiku", endpointBase(FixedEndpoint::claude) + "/v1/messages"},
      {Cloud{"cloud-token-0001"}, "claude-3-haiku", endpointBase(FixedEndpoint::claude) + "/v1/messages"},
      {Gemini{"gemini-key-0001"}, "gpt-4o", openai},
      {Gemini{"gemini-key-0001"}, "gemini-pro",
       endpointBase(FixedEndpoint::gemini) +
           "/v1/models/gemini-pro:streamGenerateContent?alt=sse"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.service.description());
    transport_.enqueue(FakeAnswer{});
    OpenAIClient(c.service, env_).streamChat(c.model, {{"user", "hi", std::nullopt}}, 1.0, {});
    EXPECT_EQ(transport_.requests().back().url, c.url);
  }
}

TEST_F(OpenAIClientTest, SupportedModelNames) {
  const OpenAIClient client(Claude{"c"}, env_);
  for (const char* yes : {"gpt-4o", "gpt", "tts-1", "whisper-1"})
    EXPECT_TRUE(client.supportsModel(yes));
  for (const char* no : {"GPT-4", "claude-3", "o1-mini", " gpt"})
    EXPECT_FALSE(client.supportsModel(no));
}

TEST_F(OpenAIClientTest, TheProxySettingGivesAnHttpsProxyOnlyWithHostAndPort) {
  struct Case {
    std::optional<std::string> setting;
    std::optional<std::pair<std::string, int>> proxy;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt},
      {"", std::nullopt},
      {"http://proxy.example.net:3128", std::pair<std::string, int>{"proxy.example.net", 3128}},
      {"  socks5://user:pw@proxy.example.net:1080/path \n",
       std::pair<std::string, int>{"proxy.example.net", 1080}},
      {"http://proxy.example.net", std::nullopt},  // no port, even where the scheme implies one
      {"proxy.example.net:3128", std::nullopt},    // no scheme: not a URL
      {"http://[::1]:8888", std::pair<std::string, int>{"[::1]", 8888}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.setting.value_or("(absent)"));
    if (c.setting) {
      shared_.set("httpsProxyUrl", *c.setting);
    } else {
      shared_.remove("httpsProxyUrl");
    }
    const SessionConfiguration session = makeSession(env_);
    if (c.proxy) {
      ASSERT_TRUE(session.httpsProxy.has_value());
      EXPECT_EQ(session.httpsProxy->host, c.proxy->first);
      EXPECT_EQ(session.httpsProxy->port, c.proxy->second);
    } else {
      EXPECT_FALSE(session.httpsProxy.has_value());
    }
    EXPECT_EQ(session.idleTimeout, std::chrono::milliseconds(60'000));
  }
}

}  // namespace
}  // namespace lumora

namespace lumora {
namespace {

TEST(Endpoints, EveryFixedEndpointHasItsOverride) {
  const std::pair<FixedEndpoint, const char*> names[] = {
      {FixedEndpoint::openai, "OPENAI"},         {FixedEndpoint::claude, "CLAUDE"},
      {FixedEndpoint::gemini, "GEMINI"},         {FixedEndpoint::groq, "GROQ"},
      {FixedEndpoint::mistral, "MISTRAL"},       {FixedEndpoint::moonshot, "MOONSHOT"},
      {FixedEndpoint::openRouter, "OPENROUTER"}, {FixedEndpoint::reka, "REKA"},
      {FixedEndpoint::cloud, "CLOUD"},           {FixedEndpoint::azureSpeech, "AZURE_SPEECH"},
  };
  for (auto [endpoint, name] : names) {
    SCOPED_TRACE(name);
    const std::string variable = std::string("LUMORA_") + name + "_BASE_URL";
    unsetenv(variable.c_str());
    const std::string builtIn = endpointBase(endpoint);
    EXPECT_TRUE(builtIn.starts_with("https://"));
    setenv(variable.c_str(), " http://127.0.0.1:9/x ", 1);
    EXPECT_EQ(endpointBase(endpoint), "http://127.0.0.1:9/x");
    setenv(variable.c_str(), "  ", 1);
    EXPECT_EQ(endpointBase(endpoint), builtIn);
    unsetenv(variable.c_str());
  }
}

}  // namespace
}  // namespace lumora
