// The record of one model as a service offers it, and the process-wide holder of such records
// by service: the route's last question, which configured service offers a model that no name
// rule has placed. A store and a lookup only: nothing fills it yet, so it stays empty.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumora/chat/Service.h"
#include "lumora/models/ConversationModel.h"

namespace lumora {

struct LLMModel {
  std::string model;  // the id, and the record's identity
  std::string family;
  bool isDeprecated = false;

  const std::string& id() const { return model; }
  bool operator==(const LLMModel&) const = default;

  // The record of a catalogue model.
  static LLMModel of(ConversationModel model);
  // The JSON form {"model", "family", "isDeprecated"}; every key required with its type.
  // Throws DecodingError otherwise.
  static LLMModel fromJSON(std::string_view json);
  std::string toJSON() const;
};

class ModelService {
 public:
  static ModelService& shared();

  // True when the service `serviceKey` lists a record whose model is exactly `model`.
  bool hasModel(std::string_view serviceKey, std::string_view model) const;
  // The first service, in `serviceConfig` order, that lists `model`.
  std::optional<Service> serviceOffering(std::string_view model) const;

  // For whatever fills the service one day, and for tests. Keys keep their first position.
  void setServiceModels(const std::string& serviceKey, std::vector<LLMModel> models);
  void setServiceConfig(const std::string& serviceKey, Service service);
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<LLMModel> allModels_;
  std::vector<LLMModel> models_;
  std::vector<std::pair<std::string, std::vector<LLMModel>>> serviceModels_;
  std::vector<std::pair<std::string, Service>> serviceConfig_;
};

}  // namespace lumora
