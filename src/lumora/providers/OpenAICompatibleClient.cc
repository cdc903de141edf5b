#include "lumora/providers/OpenAICompatibleClient.h"

#include <algorithm>

#include "lumora/chat/ChatRequest.h"
#include "lumora/platform/Redact.h"

namespace lumora {

OpenAICompatibleClient::OpenAICompatibleClient(std::string endpoint, std::string path,
                                               std::string apiKey, std::string headerKey,
                                               std::vector<std::string> models,
                                               const ChatEnvironment& environment)
    : OpenAICompatibleProtocol(environment),
      endpoint_(std::move(endpoint)),
      path_(path.empty() ? std::string(kChatPath) : std::move(path)),
      apiKey_(std::move(apiKey)),
      headerKey_(headerKey.empty() ? "Authorization" : std::move(headerKey)),
      models_(std::move(models)) {
  redact::registerSecret(apiKey_);
}

bool OpenAICompatibleClient::supportsModel(std::string_view model) const {
  if (models_.empty()) return model.starts_with("gpt");
  return std::find(models_.begin(), models_.end(), model) != models_.end();
}

Url OpenAICompatibleClient::requestURL(std::optional<std::string_view>) const {
  return requestUrl(endpoint_).appendingPath(path_);
}

HttpHeaders OpenAICompatibleClient::requestHeaders() const {
  if (apiKey_.empty()) return {};
  // Compared exactly: a header named in another letter case carries the bare key.
  if (headerKey_ == "Authorization") return {{"Authorization", "Bearer " + apiKey_}};
  return {{headerKey_, apiKey_}};
}

}  // namespace lumora
