#include "lumora/chat/Service.h"

#include "lumora/platform/Redact.h"

namespace lumora {
namespace {

template <class... Ts>
struct Overloaded : Ts... {
  using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;  // clang 14 does not deduce aggregates by itself

std::string q(const std::string& s) { return "\"" + s + "\""; }
std::string secret(const std::string& s) { return q(redact::masked(s)); }

}  // namespace

std::string Service::id() const {
  return std::visit(Overloaded{
                        [](const OpenAiService&) -> std::string { return "openai"; },
                        [](const CustomDomain& s) -> std::string { return s.domain; },
                        [](const Team& s) -> std::string { return s.domain; },
                        [](const Cloud&) -> std::string { return "cloud"; },
                        [](const Azure& s) -> std::string { return s.endpoint; },
                        [](const Claude&) -> std::string { return "claude"; },
                        [](const Gemini&) -> std::string { return "gemini"; },
                        [](const Ollama&) -> std::string { return "ollama"; },
                        [](const Groq&) -> std::string { return "groq"; },
                        [](const Moonshot&) -> std::string { return "moonshot"; },
                        [](const OpenRouter&) -> std::string { return "openRouter"; },
                        [](const Mistral&) -> std::string { return "mistral"; },
                        [](const OpenAICompatible&) -> std::string { return "openAICompatible"; },
                        [](const Reka&) -> std::string { return "reka"; },
                    },
                    value_);
}

std::string Service::description() const {
  return std::visit(
      Overloaded{
          [](const OpenAiService& s) { return "openai(apiKey: " + secret(s.apiKey) + ")"; },
          [](const CustomDomain& s) {
            return "customDomain(domain: " + q(s.domain) +
                   ", apiKey: " + (s.apiKey ? secret(*s.apiKey) : std::string("nil")) +
                   ", sendKey: " + (s.sendKey ? "true" : "false") + ")";
          },
          [](const Team& s) {
            return "team(domain: " + q(s.domain) + ", token: " + secret(s.token) + ")";
          },
          [](const Cloud& s) { return "cloud(token: " + secret(s.token) + ")"; },
          [](const Azure& s) {
            return "azure(endpoint: " + q(s.endpoint) + ", apiKey: " + secret(s.apiKey) + ")";
          },
          [](const Claude& s) { return "claude(apiKey: " + secret(s.apiKey) + ")"; },
          [](const Gemini& s) { return "gemini(apiKey: " + secret(s.apiKey) + ")"; },
          [](const Ollama& s) { return "ollama(url: " + q(s.url) + ")"; },
          [](const Groq& s) { return "groq(apiKey: " + secret(s.apiKey) + ")"; },
          [](const Moonshot& s) { return "moonshot(apiKey: " + secret(s.apiKey) + ")"; },
          [](const OpenRouter& s) { return "openRouter(apiKey: " + secret(s.apiKey) + ")"; },
          [](const Mistral& s) { return "mistral(apiKey: " + secret(s.apiKey) + ")"; },
          [](const OpenAICompatible& s) {
            std::string models;
            for (const std::string& m : s.models) models += (models.empty() ? "" : ", ") + q(m);
            return "openAICompatible(endpoint: " + q(s.endpoint) + ", path: " + q(s.path) +
                   ", apiKey: " + secret(s.apiKey) + ", headerKey: " + q(s.headerKey) +
                   ", models: [" + models + "])";
          },
          [](const Reka& s) { return "reka(apiKey: " + secret(s.apiKey) + ")"; },
      },
      value_);
}

std::vector<std::string> Service::credentials() const {
  // A key, and whatever a URL of the service carries in its user information or query.
  const auto with = [](std::vector<std::string> keys, const std::string& url) {
    for (std::string& secret : redact::urlSecrets(url)) keys.push_back(std::move(secret));
    return keys;
  };
  return std::visit(Overloaded{
                        [&](const CustomDomain& s) {
                          return with(s.apiKey ? std::vector{*s.apiKey} : std::vector<std::string>{},
                                      s.domain);
                        },
                        [&](const Team& s) { return with({s.token}, s.domain); },
                        [](const Cloud& s) { return std::vector{s.token}; },
                        [&](const Azure& s) { return with({s.apiKey}, s.endpoint); },
                        [&](const Ollama& s) { return with({}, s.url); },
                        [&](const OpenAICompatible& s) {
                          return with(with({s.apiKey}, s.endpoint), s.path);
                        },
                        [](const auto& s) { return std::vector{s.apiKey}; },
                    },
                    value_);
}

}  // namespace lumora
