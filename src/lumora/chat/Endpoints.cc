#include "lumora/chat/Endpoints.h"

#include <cstdlib>

#include "lumora/platform/Text.h"

namespace lumora {
namespace {

struct Entry {
  std::string_view name;
  std::string_view base;
};

// The services' public API hosts. The hosted cloud has its own.
constexpr Entry kEntries[] = {
    {"OPENAI", "https://api.openai.com"},
    {"CLAUDE", "https://api.anthropic.com"},
    {"GEMINI", "https://generativelanguage.googleapis.com"},
    {"GROQ", "https://api.groq.com"},
    {"MISTRAL", "https://api.mistral.ai"},
    {"MOONSHOT", "https://api.moonshot.cn"},
    {"OPENROUTER", "https://openrouter.ai/api"},
    {"REKA", "https://api.reka.ai"},
    {"CLOUD", "https://api.lumora.zorvel.tech"},
    {"AZURE_SPEECH", "https://tts.speech.microsoft.com"},
};

const Entry& entry(FixedEndpoint endpoint) { return kEntries[static_cast<size_t>(endpoint)]; }

std::string_view overrideOf(const Entry& e) {
  const std::string variable = "LUMORA_" + std::string(e.name) + "_BASE_URL";
  const char* value = std::getenv(variable.c_str());
  return value ? text::trimmed(value) : std::string_view();
}

}  // namespace

std::string endpointBase(FixedEndpoint endpoint) {
  const Entry& e = entry(endpoint);
  const std::string_view overridden = overrideOf(e);
  return std::string(overridden.empty() ? e.base : overridden);
}

bool endpointOverridden(FixedEndpoint endpoint) { return !overrideOf(entry(endpoint)).empty(); }

}  // namespace lumora
