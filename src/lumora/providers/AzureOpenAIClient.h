// Azure OpenAI: the OpenAI protocol under a deployment of the user's Azure resource.
#pragma once

#include "lumora/chat/Service.h"
#include "lumora/providers/OpenAICompatibleProtocol.h"

namespace lumora {

class AzureOpenAIClient final : public OpenAICompatibleProtocol {
 public:
  static constexpr std::string_view kApiVersion = "2024-02-01";

  AzureOpenAIClient(std::string apiKey, std::string endpoint,
                    std::vector<AzureDeployment> deployments, const ChatEnvironment& environment);

  // A catalogue model whose name without dots is a deployment's name or model.
  bool supportsModel(std::string_view model) const override;

  // The endpoint, then "/openai/deployments/" + the deployment + the operation ("whisper" and
  // "dall-e-3" have their own), with the api-version query.
  Url requestURL(std::optional<std::string_view> model) const override;
  HttpHeaders requestHeaders() const override { return {{"api-key", apiKey_}}; }

  // The deployment that serves `model`: its name without "." and ",", matched against the
  // deployments' names first, then their models; the name itself when none matches.
  std::string deployment(std::string_view model) const;

 private:
  std::string apiKey_;
  std::string endpoint_;
  std::vector<AzureDeployment> deployments_;
};

}  // namespace lumora
