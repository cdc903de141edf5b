#include "lumora/routing/OpenAIClient.h"

#include <nlohmann/json.hpp>

#include "lumora/chat/Endpoints.h"
#include "lumora/chat/Errors.h"
#include "lumora/routing/LLMClients.h"
#include "lumora/platform/Debug.h"
#include "lumora/providers/ClaudeClient.h"
#include "lumora/providers/GeminiClient.h"
#include "lumora/providers/LumoraCloudClient.h"
#include "lumora/providers/OllamaClient.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora {
namespace {

std::string withoutCharacter(std::string_view s, char drop) {
  std::string out;
  for (char c : s)
    if (c != drop) out += c;
  return out;
}

}  // namespace

OpenAIClient::OpenAIClient(Service service, const ChatEnvironment& environment)
    : service_(std::move(service)), environment_(environment) {
  for (const std::string& secret : service_.credentials()) redact::registerSecret(secret);
}

bool OpenAIClient::claimsSpeech(std::string_view model) {
  return model.starts_with("tts") || model.starts_with("whisper");
}

bool OpenAIClient::claims(std::string_view model) {
  return model.starts_with("gpt") || claimsSpeech(model);
}

Url OpenAIClient::baseURL(std::string_view domain) {
  if (domain.starts_with("https://") || domain.starts_with("http://")) return requestUrl(domain);
  return requestUrl("https://" + std::string(domain));
}

Url OpenAIClient::openAIURL(std::string_view path) const {
  const std::optional<std::string> stored = environment_.sharedDefaults.string(keyOf(SettingName::aiGateway));
  const std::string_view gateway = stored ? text::trimmed(*stored) : std::string_view();
  if (gateway.empty())
    return requestUrl(endpointBase(FixedEndpoint::openai)).appendingPath(path);
  // The gateway's own path, then "openai", then the operation's path without its "/v1/".
  const std::string_view shortened = path.size() > 4 ? path.substr(4) : std::string_view();
  const Url base = baseURL(std::string(gateway) + "/");
  const auto resolved = base.resolving("openai");
  if (!resolved) throw OpenAIError::urlError();
  return resolved->appendingPath(shortened);
}

Url OpenAIClient::azureURL(const Azure& azure, std::string_view path,
                           std::optional<std::string_view> model) const {
  const auto deployments = LLMClients::azureDeployments(environment_.sharedDefaults);
  if (model && *model == "whisper") {
    std::string deployment = "whisper";
    for (const AzureDeployment& d : deployments)
      if (d.model == "whisper" && !d.deploymentId.empty()) deployment = d.deploymentId;
    return requestUrl(azure.endpoint)
        .appendingPath("/openai/deployments/" + deployment + "/audio/transcriptions")
        .withQueryItem("api-version", "2023-09-01-preview");
  }
  if (path == kChatPath) {
    const std::string m = model ? withoutCharacter(*model, '.') : std::string();
    const std::string wanted = withoutCharacter(m, ',');
    std::optional<std::string> deployment;
    for (const AzureDeployment& d : deployments) {
      if (d.deploymentId == wanted) {
        deployment = d.deploymentId;
        break;
      }
    }
    if (!deployment) {
      for (const AzureDeployment& d : deployments)
        if (d.model == m && !d.deploymentId.empty()) deployment = d.deploymentId;
    }
    return requestUrl(azure.endpoint)
        .appendingPath("/openai/deployments/" + deployment.value_or(m) + "/chat/completions")
        .withQueryItem("api-version", "2023-05-15");
  }
  return requestUrl(azure.endpoint + std::string(path));
}

Url OpenAIClient::serviceURL(std::string_view path, std::optional<std::string_view> model) const {
  if (const auto* s = service_.as<CustomDomain>()) return baseURL(s->domain).appendingPath(path);
  if (const auto* s = service_.as<Team>()) return baseURL(s->domain).appendingPath(path);
  if (service_.as<Cloud>())
    return requestUrl(endpointBase(FixedEndpoint::cloud)).appendingPath(path);
  if (const auto* s = service_.as<Azure>()) return azureURL(*s, path, model);
  return openAIURL(path);
}

HttpHeaders OpenAIClient::authHeaders() const {
  if (const auto* s = service_.as<OpenAiService>())
    return {{"Authorization", "Bearer " + s->apiKey}};
  if (const auto* s = service_.as<Cloud>()) return {{"Authorization", "Bearer " + s->token}};
  if (const auto* s = service_.as<Team>()) return {{"Authorization", "Bearer " + s->token}};
  if (const auto* s = service_.as<CustomDomain>()) {
    if (s->sendKey && s->apiKey) return {{"Authorization", "Bearer " + *s->apiKey}};
    return {};
  }
  if (const auto* s = service_.as<Azure>()) return {{"api-key", s->apiKey}};
  return {};
}

HttpRequest OpenAIClient::chatRequest(const std::string& model,
                                      const std::vector<ChatMessage>& messages,
                                      double temperature) const {
  return makeChatRequest(serviceURL(kChatPath, model).text(), authHeaders(), model, messages,
                         temperature, visionMaxTokens(model));
}

ChunkStream OpenAIClient::streamChat(const std::string& model,
                                     const std::vector<ChatMessage>& messages, double temperature,
                                     std::stop_token stop) {
  debug::line({"[debug] streaming using", service_.description()});
  const bool claudeModel = ClaudeClient::claimsByApiName(model);
  if (const auto* s = service_.as<Gemini>(); s && GeminiClient::claims(model))
    return GeminiClient(s->apiKey, environment_).streamChat(model, messages, temperature, stop);
  if (const auto* s = service_.as<Claude>(); s && claudeModel)
    return ClaudeClient(s->apiKey, false, environment_).streamChat(model, messages, temperature, stop);
  // The hosted cloud's token goes to the Claude endpoint, as the cloud route for Claude models.
  if (const auto* s = service_.as<Cloud>(); s && claudeModel)
    return ClaudeClient(s->token, true, environment_).streamChat(model, messages, temperature, stop);
  if (const auto* s = service_.as<Ollama>())
    return OllamaClient(s->url, environment_).streamChat(model, messages, temperature, stop);
  if (const auto* s = service_.as<Cloud>())
    return LumoraCloudClient(s->token, environment_).streamChat(model, messages, temperature, stop);
  return sendChatRequest(environment_, chatRequest(model, messages, temperature), model,
                         temperature, std::make_unique<LineProcessor>(LineRule::openAI), stop);
}

}  // namespace lumora
