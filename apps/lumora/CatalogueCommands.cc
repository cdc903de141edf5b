// `lumora models`, `lumora route MODEL` and `lumora voices`: the model catalogue, which
// configured service would answer a model, with the reason in words, and the speech voices.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/Errors.h"
#include "lumora/routing/LLMClients.h"
#include "lumora/media/AzureTTSClient.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/platform/Http.h"
#include "lumora/platform/Localization.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora::cli {
namespace {

// Each reason as one whole sentence, so that it is translated whole; {model} and {service}
// are filled in afterwards.
std::string_view reasonSentence(LLMClients::RouteReason reason, bool catalogued) {
  using enum LLMClients::RouteReason;
  switch (reason) {
    case speechModel:
      return "{model} is a speech model: it goes to the hosted cloud or to OpenAI, whichever "
             "comes first in your services.";
    case cloudOnlyModel:
      return "{model} is offered only by the hosted cloud.";
    case claudeModel:
      return "{model} is a Claude model: it goes to Claude, OpenRouter or the hosted cloud, "
             "whichever comes first in your services.";
    case geminiModel:
      return "{model} is a Gemini model: it goes to Gemini, OpenRouter or the hosted cloud, "
             "whichever comes first in your services.";
    case moonshotModel:
      return "{model} is a Moonshot model.";
    case rekaModel:
      return "{model} is a Reka model.";
    case mistralModel:
      return "{model} is a Mistral model.";
    case groqModel:
      return "{model} is a Groq model.";
    case supportedByService:
      if (!catalogued)
        return "{model} is not in the catalogue. {service} is the first of your services that "
               "takes a model named like it, so the request goes there; whether the model "
               "exists is for that service to say.";
      return "{service} is the first of your services that offers {model}.";
    case ollamaForUnlisted:
      return "{model} is not in the catalogue, so it goes to your Ollama server.";
    case modelService:
      return "The model service lists {model} under {service}.";
    case noServices:
      return "No service is set up: the request would go to OpenAI without a key, and be "
             "refused.";
    case cloudOrOpenAI:
      return "None of your services offers {model} by name, so the hosted cloud or OpenAI "
             "answers it.";
    case firstService:
      return "None of your services offers {model} by name, so the first of your services "
             "answers it.";
  }
  return {};
}

std::string reason(const LLMClients::RouteDecision& route, const std::string& model) {
  const std::string service = route.service.id();
  return withValues(localized(reasonSentence(route.reason, isCatalogueModel(model))),
                    {{"model", model}, {"service", service}});
}

}  // namespace

const Command& modelsDeclaration() {
  static const Command command{
      .name = "models",
      .summary = "list the model catalogue",
      .usage = "lumora models\n",
      .help = {{.text = R"(
Lists the model catalogue, one model a line, its fields separated by tabs: the id, the
name shown for it, the id of the service that would answer it under the current
settings, "deprecated" or "-", and "cloud-only" or "-".
Exit status: 0 done, 1 the settings could not be read, 2 usage error.
)"}},
      .rules = operandsOnly({.most = 0, .tooMany = "models takes no arguments"}, HelpAt::first),
      .run = modelsCommand,
  };
  return command;
}

const Command& routeDeclaration() {
  static const Command command{
      .name = "route",
      .summary = "show which service would answer a model, and why",
      .usage = "lumora route MODEL\n",
      .help = {{.text = R"(
Prints the id of the service that would answer a reply with MODEL under the current
settings, then, on a second line, why.
Exit status: 0 done, 1 the settings could not be read, 2 usage error.
)"}},
      .rules = operandsOnly(exactlyOne("MODEL", "route takes one MODEL"), HelpAt::alone),
      .run = routeCommand,
  };
  return command;
}

const Command& voicesDeclaration() {
  static const Command command{
      .name = "voices",
      .summary = "list the voices of the Azure speech service",
      .usage = "lumora voices --region REGION [--cloud]\n",
      .help = {{.text = R"(
Lists the voices of the Azure speech service in REGION (such as westeurope), one a line,
its fields separated by tabs: the short name, the local name, the gender and the locale.
The subscription key comes from LUMORA_AZURE_SPEECH_KEY; with --cloud the list is asked
of the hosted cloud with the "cloudToken" setting instead.
Exit status: 0 done, 1 the list could not be read, 2 usage error.
)"}},
      .options = {{.name = "--region", .value = "REGION"}, {.name = "--cloud"}},
      .rules = {.operands = {.most = 0},
                .saying = [](const Mistake& m) { return "unknown argument " + m.word; }},
      .run = voicesCommand,
  };
  return command;
}

int modelsCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, modelsDeclaration(), parsed)) return *end;
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
  Parsed parsed;
  if (const auto end = readArguments(args, routeDeclaration(), parsed)) return *end;
  if (text::trimmed(args[0]).empty()) return usageError("MODEL is empty", routeDeclaration());
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
  const Command& command = voicesDeclaration();
  Parsed parsed;
  if (const auto end = readArguments(args, command, parsed)) return *end;
  const std::string region = parsed.value("--region").value_or("");
  const bool cloud = parsed.has("--cloud");
  if (region.empty()) return usageError("voices needs --region REGION", command);
  try {
    const ChatEnvironment environment{.sharedDefaults = sharedDefaults(),
                                      .transport = defaultTransport(),
                                      .store = {}};
    std::string token;
    if (cloud) {
      token = sharedDefaults().string(keyOf(SettingName::cloudToken)).value_or("");
    } else if (const char* key = std::getenv("LUMORA_AZURE_SPEECH_KEY")) {
      token = key;
    }
    if (token.empty())
      return usageError(
          cloud ? "the \"cloudToken\" setting is empty" : "LUMORA_AZURE_SPEECH_KEY is not set",
          command);
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
