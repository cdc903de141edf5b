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
  // what the services' own clients read when they are asked in turn (Azure's deployments).
  static Service service(std::string_view model, const std::vector<Service>& services,
                         const ChatEnvironment& environment);

  // Why a service was chosen: the rules in the order they are tried. The first six name
  // families that a provider claims outright; `supportedByService` asks each configured
  // service in turn; the rest are fallbacks.
  enum class RouteReason {
    speechModel,        // OpenAI's speech: the hosted cloud or OpenAI
    cloudOnlyModel,     // a catalogue model only the hosted cloud offers
    claudeModel,        // Claude, OpenRouter or the hosted cloud
    geminiModel,        // Gemini, OpenRouter or the hosted cloud
    moonshotModel,
    rekaModel,
    mistralModel,
    groqModel,
    supportedByService,  // the first service whose client takes the name
    ollamaForUnlisted,   // a name outside the catalogue, to the local server
    modelService,        // the model service lists it under a service
    noServices,          // nothing configured: OpenAI without a key
    cloudOrOpenAI,       // nothing took it: the hosted cloud or OpenAI
    firstService,        // nothing took it: the first configured service
  };
  struct RouteDecision {
    Service service;
    RouteReason reason;
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
