// The route: which configured service answers a model name, step by step, with the service
// list in the order the settings give it.
#include <gtest/gtest.h>

#include "lumora/chat/LLMClients.h"
#include "lumora/models/ModelService.h"
#include "lumora/platform/Debug.h"

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

TEST(Route, EveryStepInItsOrder) {
  struct Case {
    const char* why;
    std::string model;
    std::vector<Service> services;
    std::string id;  // the chosen service's id
  };
  const std::vector<Service> all = {kAzure, kOpenAI, kClaude, kGemini, kGroq, kRouter,
                                    kCloud, kOllama, kMoonshot, kMistral, kCompatible, kReka};
  const Case cases[] = {
      {"1: speech goes to cloud or openai, list order deciding", "tts-1", all, "openai"},
      {"1: ... the cloud when openai is missing", "whisper-1", {kClaude, kCloud}, "cloud"},
      {"2: a cloud-only catalogue model goes to the cloud", "ERNIE-Bot-4", all, "cloud"},
      {"2: region but not cloud-only: no step of its own, the cloud supports it at 9", "glm-4",
       {kOpenAI, kCloud}, "cloud"},
      {"3: claude to its own key first", "claude-3-opus-20240229", all, "claude"},
      {"3: then OpenRouter", "claude-3-haiku-20240307", {kOpenAI, kRouter, kCloud}, "openRouter"},
      {"3: then the cloud", "claude-2", {kOpenAI, kCloud}, "cloud"},
      {"4: gemini likewise", "gemini-pro", {kOpenAI, kRouter, kCloud}, "openRouter"},
      {"5: moonshot", "moonshot-v1-8k", all, "moonshot"},
      {"6: reka", "reka-core", all, "reka"},
      {"7: mistral by its prefixes", "open_mixtral-8x22b", all, "mistral"},
      {"7: mistral is never chosen at step 9", "mixtral-8x7b", {kOpenAI, kMistral}, "openai"},
      {"8: a Groq model", "llama3-70b-8192", all, "groq"},
      {"9: azure supports nothing until its deployments are read; openai takes gpt", "gpt-4o",
       all, "openai"},
      {"9: a custom domain stands where openai would", "gpt-4o", {kAzure, kCustom, kCloud},
       "api.example.org"},
      {"9: an OpenAI-compatible server with its model list", "local-7b", all,
       "openAICompatible"},
      {"10: a name outside the catalogue goes to ollama", "llama3:70b", all,
       "ollama"},
      {"10: a catalogue name skips ollama, and 14 takes the first", "gpt-4o", {kOllama},
       "ollama"},
      {"12: no services at all: openai without a key", "gpt-4o", {}, "openai"},
      {"13: the cloud or openai when nothing else answers", "some-model", {kMistral, kCloud},
       "cloud"},
      {"14: the first service of the list", "some-model", {kMistral, kReka}, "mistral"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    EXPECT_EQ(LLMClients::service(c.model, c.services).id(), c.id);
  }
}

TEST(Route, TheModelServiceAnswersAfterTheNameRules) {
  ModelService& models = ModelService::shared();
  std::vector<std::string> lines;
  debug::setSink([&](std::string_view line) { lines.emplace_back(line); });
  // Empty: nothing found, no error.
  EXPECT_FALSE(models.hasModel("x", "house-model"));
  EXPECT_EQ(LLMClients::service("house-model", {kMistral}).id(), "mistral");

  models.setServiceModels("listedOnly", {{"house-model", "house", false}});
  models.setServiceModels("second", {{"house-model", "house", false}});
  models.setServiceModels("first", {{"house-model", "house", false}});
  models.setServiceConfig("second", kMoonshot);
  models.setServiceConfig("first", kReka);
  // The walk goes over the configured services in their order: a key with models but no
  // service is never found, and "second" was configured first.
  EXPECT_EQ(LLMClients::service("house-model", {kMistral}).id(), "moonshot");
  EXPECT_FALSE(models.hasModel("second", "HOUSE-MODEL"));
  // Ollama, asked at step 10, comes first for a name outside the catalogue.
  EXPECT_EQ(LLMClients::service("house-model", {kOllama}).id(), "ollama");
  models.clear();
  debug::setSink(debug::stdoutSink());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "[debug] model service returned house-model moonshot"),
            lines.end());
}

}  // namespace
}  // namespace lumora
