// `lumora models`, `lumora route MODEL` and `lumora voices`: the model catalogue, which
// configured service would answer a model, with the reason in words, and the speech voices.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Commands.h"
#include "Support.h"
#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/LLMClients.h"
#include "lumora/media/AzureTTSClient.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/platform/Http.h"
#include "lumora/platform/Localization.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/store/DefaultsStore.h"

namespace lumora::cli {
namespace {

constexpr const char* kModelsHelp =
    "Usage: lumora models\n"
    "\n"
    "Lists the model catalogue, one model a line, its fields separated by tabs: the id, the\n"
    "name shown for it, the id of the service that would answer it under the current\n"
    "settings, \"deprecated\" or \"-\", and \"cloud-only\" or \"-\".\n"
    "Exit status: 0 done, 1 the settings could not be read, 2 usage error.\n";

constexpr const char* kRouteHelp =
    "Usage: lumora route MODEL\n"
    "\n"
    "Prints the id of the service that would answer a reply with MODEL under the current\n"
    "settings, then, on a second line, why.\n"
    "Exit status: 0 done, 1 the settings could not be read, 2 usage error.\n";

constexpr const char* kVoicesHelp =
    "Usage: lumora voices --region REGION [--cloud]\n"
    "\n"
    "Lists the voices of the Azure speech service in REGION (such as westeurope), one a line,\n"
    "its fields separated by tabs: the short name, the local name, the gender and the locale.\n"
    "The subscription key comes from LUMORA_AZURE_SPEECH_KEY; with --cloud the list is asked\n"
    "of the hosted cloud with the \"cloudToken\" setting instead.\n"
    "Exit status: 0 done, 1 the list could not be read, 2 usage error.\n";

std::string reason(const LLMClients::RouteDecision& route, const std::string& model) {
  const std::string service = route.service.id();
  switch (route.step) {
    case 1:
      return model + localized(" is a speech model: it goes to the hosted cloud or to OpenAI, "
                               "whichever comes first in your services.");
    case 2:
      return model + localized(" is offered only by the hosted cloud.");
    case 3:
      return model + localized(" is a Claude model: it goes to Claude, OpenRouter or the hosted "
                               "cloud, whichever comes first in your services.");
    case 4:
      return model + localized(" is a Gemini model: it goes to Gemini, OpenRouter or the hosted "
                               "cloud, whichever comes first in your services.");
    case 5:
      return model + localized(" is a Moonshot model.");
    case 6:
      return model + localized(" is a Reka model.");
    case 7:
      return model + localized(" is a Mistral model.");
    case 8:
      return model + localized(" is a Groq model.");
    case 9:
      if (!isCatalogueModel(model)) {
        return model + localized(" is not in the catalogue. ") + service +
               localized(" is the first of your services that takes a model named like it, so "
                         "the request goes there; whether the model exists is for that service "
                         "to say.");
      }
      return service + localized(" is the first of your services that offers ") + model + ".";
    case 10:
      return model + localized(" is not in the catalogue, so it goes to your Ollama server.");
    case 11:
      return localized("The model service lists ") + model + localized(" under ") + service + ".";
    case 12:
      return localized("No service is set up: the request would go to OpenAI without a key, "
                       "and be refused.");
    case 13:
      return localized("None of your services offers ") + model +
             localized(" by name, so the hosted cloud or OpenAI answers it.");
    default:
      return localized("None of your services offers ") + model +
             localized(" by name, so the first of your services answers it.");
  }
}

}  // namespace

int modelsCommand(const Args& args) {
  if (!args.empty()) {
    if (args[0] == "--help" || args[0] == "-h") {
      std::fputs(kModelsHelp, stdout);
      return kExitOk;
    }
    return usageError("models takes no arguments", kModelsHelp);
  }
  try {
    const ChatEnvironment environment{.sharedDefaults = sharedDefaults(),
                                      .transport = defaultTransport(),
                                      .store = sharedStoreContext};
    const auto services = LLMClients::fetchServices(environment);
    for (const ConversationModel model : ConversationModel::allCases()) {
      const std::string id(model.rawValue());
      // A service's id may be its URL, with whatever credential that carries masked.
      std::printf("%s\t%s\t%s\t%s\t%s\n", id.c_str(), model.displayName().c_str(),
                  redact::scrub(LLMClients::service(id, services, environment).id()).c_str(),
                  model.isDeprecated() ? "deprecated" : "-",
                  model.isCloudOnlyModel() ? "cloud-only" : "-");
    }
    return kExitOk;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

int routeCommand(const Args& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kRouteHelp, stdout);
    return kExitOk;
  }
  if (args.size() != 1) return usageError("route takes one MODEL", kRouteHelp);
  if (text::trimmed(args[0]).empty()) return usageError("MODEL is empty", kRouteHelp);
  try {
    const ChatEnvironment environment{.sharedDefaults = sharedDefaults(),
                                      .transport = defaultTransport(),
                                      .store = sharedStoreContext};
    const auto route = LLMClients::route(args[0], LLMClients::fetchServices(environment), environment);
    std::fputs(redact::scrub(route.service.id() + "\n" + reason(route, args[0]) + "\n").c_str(),
               stdout);
    return kExitOk;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

int voicesCommand(const Args& args) {
  std::string region;
  bool cloud = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--help" || args[i] == "-h") {
      std::fputs(kVoicesHelp, stdout);
      return kExitOk;
    } else if (args[i] == "--cloud") {
      cloud = true;
    } else if (args[i] == "--region" && i + 1 < args.size()) {
      region = args[++i];
    } else if (args[i].starts_with("--region=")) {
      region = args[i].substr(9);
    } else {
      return usageError("unknown argument " + args[i], kVoicesHelp);
    }
  }
  if (region.empty()) return usageError("voices needs --region REGION", kVoicesHelp);
  try {
    const ChatEnvironment environment{.sharedDefaults = sharedDefaults(),
                                      .transport = defaultTransport(),
                                      .store = {}};
    std::string token;
    if (cloud) {
      token = sharedDefaults().string("cloudToken").value_or("");
    } else if (const char* key = std::getenv("LUMORA_AZURE_SPEECH_KEY")) {
      token = key;
    }
    if (token.empty())
      return usageError(cloud ? "the \"cloudToken\" setting is empty"
                              : "LUMORA_AZURE_SPEECH_KEY is not set",
                        kVoicesHelp);
    for (const auto& voice : AzureTTSClient(region, token, cloud, environment).listVoices())
      std::printf("%s\t%s\t%s\t%s\n", voice.shortName.c_str(), voice.localName.c_str(),
                  voice.gender.c_str(), voice.locale.c_str());
    return kExitOk;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

}  // namespace lumora::cli
