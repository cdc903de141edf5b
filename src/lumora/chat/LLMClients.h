// From the settings to the client that answers: the ordered list of configured services, the
// decision by model name, and the client of the chosen service.
//
// Stateless: the settings are read afresh on every call, so a key saved by the companion
// application counts at the next generation.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/Service.h"
#include "lumora/store/ConversationStore.h"

namespace lumora {

class LLMClients {
 public:
  // The configured services, in route order: the teams as given (newest first), then the
  // services of the shared settings. Strings are trimmed and a blank one counts as absent; a
  // team without domain or token is skipped. Prints "services" and the list.
  static std::vector<Service> loadServices(const ChatEnvironment& environment,
                                           const std::vector<CDTeam>& teams = {});

  // loadServices with the teams of the environment's store. A store that cannot be read costs
  // the teams and nothing else: "Fetch Failed: " and the reason are printed.
  static std::vector<Service> fetchServices(const ChatEnvironment& environment);

  // The service that answers `model`. Never fails: with no service at all it is OpenAI with
  // an empty key, and the server's rejection tells the user. The environment's settings are
  // what the clients weighed at step 9 read (Azure's deployments).
  static Service service(std::string_view model, const std::vector<Service>& services,
                         const ChatEnvironment& environment);

  // The same decision with the step that made it: 1 speech, 2 cloud-only model, 3 Claude,
  // 4 Gemini, 5 Moonshot, 6 Reka, 7 Mistral, 8 Groq, 9 the first service that supports the
  // model, 10 Ollama for a name outside the catalogue, 11 the model service, 12 no services,
  // 13 the cloud or OpenAI by default, 14 the first service.
  struct RouteDecision {
    Service service;
    int step;
  };
  static RouteDecision route(std::string_view model, const std::vector<Service>& services,
                             const ChatEnvironment& environment);

  // The client for `service`.
  static std::unique_ptr<LLMClient> client(const Service& service,
                                           const ChatEnvironment& environment);

  // Whether the client of `service` answers for `model`.
  static bool supportsModel(const Service& service, std::string_view model,
                            const ChatEnvironment& environment);

  // The deployments of the setting "azureModels" (model name to deployment name), in key
  // order. A value that is not an object of strings throughout gives none.
  static std::vector<AzureDeployment> azureDeployments(DefaultsStore& settings);
};

}  // namespace lumora
