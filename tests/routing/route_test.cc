// The route: which configured service answers a model name, rule by rule, and why, with the
// service list in the order the settings give it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/routing/LLMClients.h"
#include "lumora/models/ModelService.h"
#include "lumora/platform/Debug.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

// The services of a full configuration, in the order the settings produce them.
const Service kAzure = Azure{"https://corp.openai.azure.com", "az-key"};
const Service kOpenAI = OpenAiService{"sk-1"};
const Service kCustom = CustomDomain{"api.example.org", std::nullopt, false};
const Service kClaude = Claude{"claude-key"};
const Service kGemini = Gemini{"gemini-key"};
const Service kGroq = Groq{"groq-key"};
const Service kRouter = OpenRouter{"router-key"};
const Service kCloud = Cloud{"cloud-token"};
const Service kOllama = Ollama{"http://localhost:11434"};
const Service kMoonshot = Moonshot{"moon-key"};
const Service kMistral = Mistral{"mistral-key"};
const Service kCompatible = OpenAICompatible{"https://llm.example.org", "/v1/chat", "k", "", {"local-7b"}};
const Service kReka = Reka{"reka-key"};

class Route : public ::testing::Test {
 protected:
  Route() : settings_(dir_ / "shared.json") {}
  Service service(std::string_view model, const std::vector<Service>& services) {
    return LLMClients::service(model, services, environment_);
  }
  testing::TempDir dir_;
  DefaultsStore settings_;
  testing::FakeTransport transport_;
  ChatEnvironment environment_{.sharedDefaults = settings_, .transport = transport_};
};

TEST_F(Route, EveryStepInItsOrder) {
  using enum LLMClients::RouteReason;
  struct Case {
    const char* why;
    std::string model;
    std::vector<Service> services;
    std::string id;  // the chosen service's id
    LLMClients::RouteReason reason;
  };
  const std::vector<Service> all = {kAzure, kOpenAI, kClaude, kGemini, kGroq, kRouter,
                                    kCloud, kOllama, kMoonshot, kMistral, kCompatible, kReka};
  const Case cases[] = {
      {"speech goes to cloud or openai, list order deciding", "tts-1", all, "openai", speechModel},
      {"... the cloud when openai is missing", "whisper-1", {kClaude, kCloud}, "cloud", speechModel},
      {"a cloud-only catalogue model goes to the cloud", "ERNIE-Bot-4", all, "cloud", cloudOnlyModel},
      {"region but not cloud-only: no rule of its own, the cloud supports it when asked", "glm-4",
       {kOpenAI, kCloud}, "cloud", supportedByService},
      {"claude to its own key first", "claude-3-opus-20240229", all, "claude", claudeModel},
      {"then OpenRouter", "claude-3-haiku-20240307", {kOpenAI, kRouter, kCloud}, "openRouter", claudeModel},
      {"then the cloud", "claude-2", {kOpenAI, kCloud}, "cloud", claudeModel},
      {"gemini likewise", "gemini-pro", {kOpenAI, kRouter, kCloud}, "openRouter", geminiModel},
      {"moonshot", "moonshot-v1-8k", all, "moonshot", moonshotModel},
      {"reka", "reka-core", all, "reka", rekaModel},
      {"mistral by its prefixes", "open_mixtral-8x22b", all, "mistral", mistralModel},
      {"mistral is never chosen when services are asked", "mixtral-8x7b", {kOpenAI, kMistral}, "openai", cloudOrOpenAI},
      {"a Groq model", "llama3-70b-8192", all, "groq", groqModel},
      {"azure before openai, with a deployment named after the model", "gpt-4", all,
       "https://corp.openai.azure.com", supportedByService},
      {"... or serving it, its dots left out", "gpt-3.5-turbo", all,
       "https://corp.openai.azure.com", supportedByService},
      {"openai takes a gpt model that Azure has no deployment for", "gpt-4o", all, "openai", supportedByService},
      {"Azure serves catalogue models only", "gpt-4-house", all, "openai", supportedByService},
      {"a custom domain stands where openai would", "gpt-4o", {kAzure, kCustom, kCloud},
       "api.example.org", supportedByService},
      {"an OpenAI-compatible server with its model list", "local-7b", all,
       "openAICompatible", supportedByService},
      {"a name outside the catalogue goes to ollama", "llama3:70b", all,
       "ollama", ollamaForUnlisted},
      {"a catalogue name skips ollama, and the first service takes it", "gpt-4o", {kOllama},
       "ollama", firstService},
      {"no services at all: openai without a key", "gpt-4o", {}, "openai", noServices},
      {"the cloud or openai when nothing else answers", "some-model", {kMistral, kCloud},
       "cloud", cloudOrOpenAI},
      {"the first service of the list", "some-model", {kMistral, kReka}, "mistral", firstService},
  };
  settings_.set("azureModels", {{"gpt-35-turbo", "chat-prod"}, {"other", "gpt-4"}});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    const LLMClients::RouteDecision decision =
        LLMClients::route(c.model, c.services, environment_);
    EXPECT_EQ(decision.service.id(), c.id);
    EXPECT_EQ(decision.reason, c.reason);
  }
  // Deployments that are not all strings count as none.
  settings_.set("azureModels", {{"gpt-35-turbo", "chat-prod"}, {"other", 4}});
  EXPECT_EQ(service("gpt-3.5-turbo", all).id(), "openai");
}

TEST_F(Route, TheModelServiceAnswersAfterTheNameRules) {
  ModelService& models = ModelService::shared();
  std::vector<std::string> lines;
  debug::setSink([&](std::string_view line) { lines.emplace_back(line); });
  // Empty: nothing found, no error.
  EXPECT_FALSE(models.hasModel("x", "house-model"));
  EXPECT_EQ(service("house-model", {kMistral}).id(), "mistral");

  models.setServiceModels("listedOnly", {{"house-model", "house", false}});
  models.setServiceModels("second", {{"house-model", "house", false}});
  models.setServiceModels("first", {{"house-model", "house", false}});
  models.setServiceConfig("second", kMoonshot);
  models.setServiceConfig("first", kReka);
  // The walk goes over the configured services in their order: a key with models but no
  // service is never found, and "second" was configured first.
  EXPECT_EQ(service("house-model", {kMistral}).id(), "moonshot");
  EXPECT_FALSE(models.hasModel("second", "HOUSE-MODEL"));
  // Ollama, asked before the model service, comes first for a name outside the catalogue.
  EXPECT_EQ(service("house-model", {kOllama}).id(), "ollama");
  models.clear();
  debug::setSink(debug::stdoutSink());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "[debug] model service returned house-model moonshot"),
            lines.end());
}

// The list that the settings and the stored teams make: order, trimming, blank values.
TEST_F(Route, TheServiceListFromSettingsAndTeams) {
  struct Case {
    const char* why;
    nlohmann::json settings;
    std::vector<CDTeam> teams;
    std::vector<Service> expected;
  };
  const auto team = [](std::optional<std::string> domain, std::optional<std::string> token) {
    return CDTeam{.name = std::nullopt, .domain = domain, .token = token, .createdAt = 0};
  };
  const Case cases[] = {
      {"nothing set", nlohmann::json::object(), {}, {}},
      {"values are trimmed, and blank ones count as absent",
       {{"apiKey", " sk-1\n"}, {"claudeApikey", " \t "}, {"geminiApiKey", "g"}},
       {},
       {OpenAiService{"sk-1"}, Gemini{"g"}}},
      {"a custom domain takes the key and stands in OpenAI's place",
       {{"apiKey", "sk-1"}, {"customApiDomain", " llm.example.org "},
        {"customApiDomainSendKey", true}},
       {},
       {CustomDomain{"llm.example.org", "sk-1", true}}},
      {"a custom domain without a key", {{"customApiDomain", "llm.example.org"}}, {},
       {CustomDomain{"llm.example.org", std::nullopt, false}}},
      {"Azure needs both its values", {{"azureEndPoint", "https://a"}, {"azureApiKey", " "}}, {},
       {}},
      {"every service in its fixed order",
       {{"rekaApiKey", "r"}, {"openAICompatibleEndpoint", "https://c"}, {"mistralApiKey", "m"},
        {"moonshotApiKey", "mo"}, {"ollamaURL", "http://o"}, {"cloudToken", "t"},
        {"openRouterApiKey", "or"}, {"groqApiKey", "gq"}, {"geminiApiKey", "g"},
        {"claudeApikey", "c"}, {"apiKey", "k"}, {"azureEndPoint", "https://a"},
        {"azureApiKey", "ak"}},
       {},
       {Azure{"https://a", "ak"}, OpenAiService{"k"}, Claude{"c"}, Gemini{"g"}, Groq{"gq"},
        OpenRouter{"or"}, Cloud{"t"}, Ollama{"http://o"}, Moonshot{"mo"}, Mistral{"m"},
        OpenAICompatible{"https://c", "", "", "", {}}, Reka{"r"}}},
      {"a compatible server's other fields stay as written; its models are JSON",
       {{"openAICompatibleEndpoint", " https://c "}, {"openAICompatiblePath", " /v1/x "},
        {"openAICompatibleApiKey", " sk-compat-0001 "}, {"openAICompatibleHeader", "X-Key"},
        {"openAICompatibleModels", R"(["a", "b"])"}},
       {},
       {OpenAICompatible{"https://c", " /v1/x ", " sk-compat-0001 ", "X-Key", {"a", "b"}}}},
      {"models that are not a JSON list of strings give none",
       {{"openAICompatibleEndpoint", "https://c"}, {"openAICompatibleModels", R"(["a", 1])"}},
       {},
       {OpenAICompatible{"https://c", "", "", "", {}}}},
      {"teams come first, in the order given, trimmed; one without domain or token is skipped",
       {{"apiKey", "k"}},
       {team(" new.example.org ", "t1\n"), team("   ", "t2"), team("d", std::nullopt),
        team("old.example.org", "t3")},
       {Team{"new.example.org", "t1"}, Team{"old.example.org", "t3"}, OpenAiService{"k"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    const nlohmann::json previous = settings_.all();
    for (const auto& [key, value] : previous.items()) settings_.remove(key);
    for (const auto& [key, value] : c.settings.items()) settings_.set(key, value);
    EXPECT_EQ(LLMClients::loadServices(environment_, c.teams), c.expected);
  }
}

// The newest usable team takes every OpenAI-family name that no earlier rule took.
TEST_F(Route, TheNewestTeamTakesTheOpenAIFamily) {
  settings_.set("apiKey", "k");
  settings_.set("claudeApikey", "c");
  const auto services = LLMClients::loadServices(
      environment_, {{std::nullopt, "new.example.org", "t1", 2}, {std::nullopt, "old.example.org", "t2", 1}});
  EXPECT_EQ(service("gpt-4o", services).id(), "new.example.org");
  EXPECT_EQ(service("whisper-1", services).id(), "openai") << "speech has a rule of its own";
  EXPECT_EQ(service("claude-2", services).id(), "claude");
}

}  // namespace
}  // namespace lumora
