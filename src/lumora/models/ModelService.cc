#include "lumora/models/ModelService.h"

#include <nlohmann/json.hpp>

#include "lumora/platform/Errors.h"

namespace lumora {

LLMModel LLMModel::of(ConversationModel model) {
  return {std::string(model.rawValue()), model.family(), model.isDeprecated()};
}

LLMModel LLMModel::fromJSON(std::string_view text) {
  try {
    const auto json = nlohmann::json::parse(text);
    return {json.at("model").get<std::string>(), json.at("family").get<std::string>(),
            json.at("isDeprecated").get<bool>()};
  } catch (const nlohmann::json::exception& e) {
    throw DecodingError(std::string("A model record could not be read: ") + e.what());
  }
}

std::string LLMModel::toJSON() const {
  return nlohmann::json{{"model", model}, {"family", family}, {"isDeprecated", isDeprecated}}
      .dump();
}

ModelService& ModelService::shared() {
  static ModelService instance;  // made on first use, safely against two first uses at once
  return instance;
}

bool ModelService::hasModel(std::string_view serviceKey, std::string_view model) const {
  std::lock_guard lock(mutex_);
  for (const auto& [key, models] : serviceModels_) {
    if (key != serviceKey) continue;
    for (const LLMModel& m : models)
      if (m.model == model) return true;
    return false;
  }
  return false;
}

std::optional<Service> ModelService::serviceOffering(std::string_view model) const {
  std::vector<std::pair<std::string, Service>> config;
  {
    std::lock_guard lock(mutex_);
    config = serviceConfig_;
  }
  for (const auto& [key, service] : config)
    if (hasModel(key, model)) return service;
  return std::nullopt;
}

void ModelService::setServiceModels(const std::string& serviceKey, std::vector<LLMModel> models) {
  std::lock_guard lock(mutex_);
  for (auto& [key, list] : serviceModels_) {
    if (key == serviceKey) {
      list = std::move(models);
      return;
    }
  }
  serviceModels_.emplace_back(serviceKey, std::move(models));
}

void ModelService::setServiceConfig(const std::string& serviceKey, Service service) {
  std::lock_guard lock(mutex_);
  for (auto& [key, existing] : serviceConfig_) {
    if (key == serviceKey) {
      existing = std::move(service);
      return;
    }
  }
  serviceConfig_.emplace_back(serviceKey, std::move(service));
}

void ModelService::clear() {
  std::lock_guard lock(mutex_);
  allModels_.clear();
  models_.clear();
  serviceModels_.clear();
  serviceConfig_.clear();
}

}  // namespace lumora
