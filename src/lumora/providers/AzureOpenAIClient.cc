#include "lumora/providers/AzureOpenAIClient.h"

#include "lumora/chat/ChatRequest.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/platform/Redact.h"

namespace lumora {
namespace {

std::string without(std::string_view text, std::string_view characters) {
  std::string out;
  for (char c : text)
    if (characters.find(c) == std::string_view::npos) out += c;
  return out;
}

}  // namespace

AzureOpenAIClient::AzureOpenAIClient(std::string apiKey, std::string endpoint,
                                     std::vector<AzureDeployment> deployments,
                                     const ChatEnvironment& environment)
    : OpenAICompatibleProtocol(environment),
      apiKey_(std::move(apiKey)),
      endpoint_(std::move(endpoint)),
      deployments_(std::move(deployments)) {
  redact::registerSecret(apiKey_);
}

bool AzureOpenAIClient::supportsModel(std::string_view model) const {
  if (!isCatalogueModel(model)) return false;
  const std::string undotted = without(model, ".");
  for (const AzureDeployment& d : deployments_)
    if (d.deploymentId == undotted || d.model == undotted) return true;
  return false;
}

std::string AzureOpenAIClient::deployment(std::string_view model) const {
  const std::string m = without(model, ".,");
  for (const AzureDeployment& d : deployments_)
    if (d.deploymentId == m) return d.deploymentId;
  for (const AzureDeployment& d : deployments_)
    if (d.model == m) return d.deploymentId;
  return m;
}

Url AzureOpenAIClient::requestURL(std::optional<std::string_view> model) const {
  const std::string_view name = model.value_or("");
  std::string_view tail = "/chat/completions";
  if (name == "whisper") tail = "/audio/transcriptions";
  if (name == "dall-e-3") tail = "/images/generations";
  return requestUrl(endpoint_)
      .appendingPath("/openai/deployments/" + deployment(name) + std::string(tail))
      .withQueryItem("api-version", kApiVersion);
}

}  // namespace lumora
