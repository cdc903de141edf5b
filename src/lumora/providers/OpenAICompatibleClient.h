// Any server that speaks the OpenAI chat protocol at an address, path and header of the
// user's choosing (a local llama.cpp, vLLM or GPUStack server, DeepSeek, Ollama's /v1, ...).
#pragma once

#include "lumora/providers/OpenAICompatibleProtocol.h"

namespace lumora {

class OpenAICompatibleClient final : public OpenAICompatibleProtocol {
 public:
  // An empty `path` is the usual chat path and an empty `headerKey` is "Authorization".
  OpenAICompatibleClient(std::string endpoint, std::string path, std::string apiKey,
                         std::string headerKey, std::vector<std::string> models,
                         const ChatEnvironment& environment);

  // With no model list every "gpt" name; with one, exactly the names it holds.
  bool supportsModel(std::string_view model) const override;
  // The endpoint as written, then the path; the model plays no part.
  Url requestURL(std::optional<std::string_view> model) const override;
  // Nothing without a key; "Authorization: Bearer KEY"; or the bare key under another header.
  HttpHeaders requestHeaders() const override;

  const std::string& path() const { return path_; }
  const std::string& headerKey() const { return headerKey_; }

 private:
  std::string endpoint_;
  std::string path_;
  std::string apiKey_;
  std::string headerKey_;
  std::vector<std::string> models_;
};

}  // namespace lumora
