// Service: one configured model provider with its credentials.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace lumora {

struct OpenAiService {
  std::string apiKey;
  bool operator==(const OpenAiService&) const = default;
};
struct CustomDomain {
  std::string domain;
  std::optional<std::string> apiKey;
  bool sendKey = false;
  bool operator==(const CustomDomain&) const = default;
};
struct Team {
  std::string domain;
  std::string token;
  bool operator==(const Team&) const = default;
};
struct Cloud {
  std::string token;
  bool operator==(const Cloud&) const = default;
};
struct Azure {
  std::string endpoint;
  std::string apiKey;
  bool operator==(const Azure&) const = default;
};
struct Claude {
  std::string apiKey;
  bool operator==(const Claude&) const = default;
};
struct Gemini {
  std::string apiKey;
  bool operator==(const Gemini&) const = default;
};
struct Ollama {
  std::string url;
  bool operator==(const Ollama&) const = default;
};
struct Groq {
  std::string apiKey;
  bool operator==(const Groq&) const = default;
};
struct Moonshot {
  std::string apiKey;
  bool operator==(const Moonshot&) const = default;
};
struct OpenRouter {
  std::string apiKey;
  bool operator==(const OpenRouter&) const = default;
};
struct Mistral {
  std::string apiKey;
  bool operator==(const Mistral&) const = default;
};
struct OpenAICompatible {
  std::string endpoint;
  std::string path;
  std::string apiKey;
  std::string headerKey;
  std::vector<std::string> models;
  bool operator==(const OpenAICompatible&) const = default;
};
struct Reka {
  std::string apiKey;
  bool operator==(const Reka&) const = default;
};

// An Azure deployment: the model it serves (a key of the setting "azureModels") and its name.
struct AzureDeployment {
  std::string model;
  std::string deploymentId;
  bool operator==(const AzureDeployment&) const = default;
};

// The cases stand in this order; the index of the variant is the case.
class Service {
 public:
  using Value = std::variant<OpenAiService, CustomDomain, Team, Cloud, Azure, Claude, Gemini,
                             Ollama, Groq, Moonshot, OpenRouter, Mistral, OpenAICompatible, Reka>;

  template <typename T>
  Service(T record) : value_(std::move(record)) {}  // NOLINT: a record is a service

  const Value& value() const { return value_; }
  template <typename T>
  const T* as() const {
    return std::get_if<T>(&value_);
  }

  // What the route compares: "openai", "cloud", ... for the fixed services; the domain of a
  // custom domain or team, the endpoint of Azure.
  std::string id() const;

  // The case's name and fields, with every credential masked, for debug lines.
  std::string description() const;

  // The credentials this service carries (for masking in every output).
  std::vector<std::string> credentials() const;

  bool operator==(const Service&) const = default;

 private:
  Value value_;
};

}  // namespace lumora
