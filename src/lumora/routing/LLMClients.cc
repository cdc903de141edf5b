#include "lumora/routing/LLMClients.h"

#include <array>
#include <initializer_list>
#include <optional>
#include <nlohmann/json.hpp>

#include "lumora/routing/OpenAIClient.h"
#include "lumora/models/ModelService.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/providers/AzureOpenAIClient.h"
#include "lumora/providers/BearerServiceClients.h"
#include "lumora/providers/ClaudeClient.h"
#include "lumora/providers/GeminiClient.h"
#include "lumora/providers/GroqClient.h"
#include "lumora/providers/LumoraCloudClient.h"
#include "lumora/providers/OllamaClient.h"
#include "lumora/providers/OpenAICompatibleClient.h"
#include "lumora/providers/RekaClient.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora {
namespace {

// A string setting trimmed, with blank counting as absent.
std::optional<std::string> present(DefaultsStore& store, SettingName name) {
  const std::optional<std::string> value = store.string(keyOf(name));
  if (!value) return std::nullopt;
  const std::string_view trimmed = text::trimmed(*value);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

std::vector<std::string> compatibleModels(DefaultsStore& store) {
  const std::optional<std::string> text = store.string(keyOf(SettingName::openAICompatibleModels));
  if (!text) return {};
  const auto json = nlohmann::json::parse(*text, nullptr, false);
  if (!json.is_array()) return {};
  std::vector<std::string> models;
  for (const auto& item : json) {
    if (!item.is_string()) return {};
    models.push_back(item.get<std::string>());
  }
  return models;
}

// The first service, in list order, whose id is one of `ids` (an empty id matches none).
template <typename Ids>
const Service* scan(const std::vector<Service>& services, const Ids& ids) {
  for (const Service& service : services) {
    const std::string id = service.id();
    for (std::string_view wanted : ids)
      if (!wanted.empty() && id == wanted) return &service;
  }
  return nullptr;
}

const Service* scan(const std::vector<Service>& services,
                    std::initializer_list<std::string_view> ids) {
  return scan<std::initializer_list<std::string_view>>(services, ids);
}

// Each service with the client of its provider.
struct ClientMaker {
  const Service& service;
  const ChatEnvironment& e;
  std::unique_ptr<LLMClient> operator()(const Cloud& s) const {
    return std::make_unique<LumoraCloudClient>(s.token, e);
  }
  std::unique_ptr<LLMClient> operator()(const Azure& s) const {
    return std::make_unique<AzureOpenAIClient>(s.apiKey, s.endpoint,
                                               LLMClients::azureDeployments(e.sharedDefaults), e);
  }
  std::unique_ptr<LLMClient> operator()(const Claude& s) const {
    return std::make_unique<ClaudeClient>(s.apiKey, false, e);
  }
  std::unique_ptr<LLMClient> operator()(const Reka& s) const {
    return std::make_unique<RekaClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const Gemini& s) const {
    return std::make_unique<GeminiClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const Ollama& s) const {
    return std::make_unique<OllamaClient>(s.url, e);
  }
  std::unique_ptr<LLMClient> operator()(const Groq& s) const {
    return std::make_unique<GroqClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const Moonshot& s) const {
    return std::make_unique<MoonshotClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const OpenRouter& s) const {
    return std::make_unique<OpenRouterClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const Mistral& s) const {
    return std::make_unique<MistralClient>(s.apiKey, e);
  }
  std::unique_ptr<LLMClient> operator()(const OpenAICompatible& s) const {
    return std::make_unique<OpenAICompatibleClient>(s.endpoint, s.path, s.apiKey, s.headerKey,
                                                    s.models, e);
  }
  // The OpenAI API, a custom domain and a team server speak the OpenAI protocol under their
  // own settings.
  std::unique_ptr<LLMClient> operator()(const auto&) const {
    return std::make_unique<OpenAIClient>(service, e);
  }
};

}  // namespace

std::vector<Service> LLMClients::fetchServices(const ChatEnvironment& environment) {
  if (!environment.store) return loadServices(environment);
  std::vector<CDTeam> teams;
  try {
    teams = environment.store()->fetchTeams();
  } catch (const std::exception& e) {
    debug::line({"Fetch Failed:", e.what()});
    teams.clear();
  }
  return loadServices(environment, teams);
}

std::vector<Service> LLMClients::loadServices(const ChatEnvironment& environment,
                                              const std::vector<CDTeam>& teams) {
  DefaultsStore& d = environment.sharedDefaults;
  std::vector<Service> services;
  for (const CDTeam& team : teams) {
    if (!team.domain || !team.token) continue;
    const std::string_view domain = text::trimmed(*team.domain);
    const std::string_view token = text::trimmed(*team.token);
    if (domain.empty() || token.empty()) continue;
    services.push_back(Team{std::string(domain), std::string(token)});
  }

  auto endpoint = present(d, SettingName::azureEndPoint);
  auto azureKey = present(d, SettingName::azureApiKey);
  if (endpoint && azureKey) services.push_back(Azure{*endpoint, *azureKey});

  auto apiKey = present(d, SettingName::apiKey);
  if (auto domain = present(d, SettingName::customApiDomain)) {
    services.push_back(CustomDomain{*domain, apiKey, d.boolean(keyOf(SettingName::customApiDomainSendKey))});
  } else if (apiKey) {
    services.push_back(OpenAiService{*apiKey});
  }
  if (auto key = present(d, SettingName::claudeApikey)) services.push_back(Claude{*key});
  if (auto key = present(d, SettingName::geminiApiKey)) services.push_back(Gemini{*key});
  if (auto key = present(d, SettingName::groqApiKey)) services.push_back(Groq{*key});
  if (auto key = present(d, SettingName::openRouterApiKey)) services.push_back(OpenRouter{*key});
  if (auto token = present(d, SettingName::cloudToken)) services.push_back(Cloud{*token});
  if (auto url = present(d, SettingName::ollamaURL)) services.push_back(Ollama{*url});
  if (auto key = present(d, SettingName::moonshotApiKey)) services.push_back(Moonshot{*key});
  if (auto key = present(d, SettingName::mistralApiKey)) services.push_back(Mistral{*key});
  if (auto endpointURL = present(d, SettingName::openAICompatibleEndpoint)) {
    services.push_back(OpenAICompatible{*endpointURL, d.string(keyOf(SettingName::openAICompatiblePath)).value_or(""),
                                        d.string(keyOf(SettingName::openAICompatibleApiKey)).value_or(""),
                                        d.string(keyOf(SettingName::openAICompatibleHeader)).value_or(""),
                                        compatibleModels(d)});
  }
  if (auto key = present(d, SettingName::rekaApiKey)) services.push_back(Reka{*key});

  std::string list;
  for (const Service& s : services) {
    for (const std::string& secret : s.credentials()) redact::registerSecret(secret);
    list += (list.empty() ? "" : ", ") + s.description();
  }
  debug::line({"services", "[" + list + "]"});
  return services;
}

std::vector<AzureDeployment> LLMClients::azureDeployments(DefaultsStore& settings) {
  std::vector<AzureDeployment> out;
  const std::optional<nlohmann::json> value = settings.value(keyOf(SettingName::azureModels));
  if (!value || !value->is_object()) return out;
  for (auto it = value->begin(); it != value->end(); ++it) {
    if (!it.value().is_string()) return {};
    out.push_back({it.key(), it.value().get<std::string>()});
  }
  return out;
}

bool LLMClients::supportsModel(const Service& service, std::string_view model,
                               const ChatEnvironment& environment) {
  // Made for the question and dropped at once: constructors only store their fields.
  return client(service, environment)->supportsModel(model);
}

LLMClients::RouteDecision LLMClients::route(std::string_view model,
                                            const std::vector<Service>& services,
                                            const ChatEnvironment& environment) {
  using enum RouteReason;
  // A family claimed outright goes to the first configured service among those that serve
  // it; none configured, the later rules decide.
  struct Claim {
    bool (*claims)(std::string_view);
    RouteReason reason;
    std::array<std::string_view, 3> servedBy;
  };
  static constexpr Claim kClaims[] = {
      {OpenAIClient::claimsSpeech, speechModel, {"cloud", "openai"}},
      {LumoraCloudClient::claimsAlone, cloudOnlyModel, {"cloud"}},
      {ClaudeClient::claims, claudeModel, {"claude", "openRouter", "cloud"}},
      {GeminiClient::claims, geminiModel, {"gemini", "openRouter", "cloud"}},
      {MoonshotClient::claims, moonshotModel, {"moonshot"}},
      {RekaClient::claims, rekaModel, {"reka"}},
      {MistralClient::claims, mistralModel, {"mistral"}},
      {GroqClient::claims, groqModel, {"groq"}},
  };
  for (const Claim& claim : kClaims) {
    if (!claim.claims(model)) continue;
    if (const Service* s = scan(services, claim.servedBy)) return {*s, claim.reason};
  }
  for (const Service& s : services)
    if (supportsModel(s, model, environment)) return {s, supportedByService};
  if (OllamaClient::claims(model))
    if (const Service* s = scan(services, {"ollama"})) return {*s, ollamaForUnlisted};
  if (auto offered = ModelService::shared().serviceOffering(model)) {
    debug::line({"[debug] model service returned", model, offered->id()});
    return {*offered, modelService};
  }
  if (services.empty()) return {OpenAiService{""}, noServices};
  if (const Service* s = scan(services, {"cloud", "openai"})) return {*s, cloudOrOpenAI};
  return {services.front(), firstService};
}

Service LLMClients::service(std::string_view model, const std::vector<Service>& services,
                            const ChatEnvironment& environment) {
  return route(model, services, environment).service;
}

std::unique_ptr<LLMClient> LLMClients::client(const Service& service,
                                              const ChatEnvironment& environment) {
  return std::visit(ClientMaker{service, environment}, service.value());
}

}  // namespace lumora
