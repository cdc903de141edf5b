// The fixed endpoints of the hosted services, each with an environment override
// LUMORA_<NAME>_BASE_URL that replaces the built-in base (for regional hosts, proxies and
// tests). An operation's path is appended to the base as it is.
#pragma once

#include <string>
#include <string_view>

namespace lumora {

enum class FixedEndpoint {
  openai,
  claude,
  gemini,
  groq,
  mistral,
  moonshot,
  openRouter,
  reka,
  cloud,
  azureSpeech,
};

// The base URL in force: the override when its variable is set and not blank, else the
// built-in one.
std::string endpointBase(FixedEndpoint endpoint);

// True when the endpoint's override variable is in force.
bool endpointOverridden(FixedEndpoint endpoint);

}  // namespace lumora
