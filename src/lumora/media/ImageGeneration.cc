#include "lumora/media/ImageGeneration.h"

#include <nlohmann/json.hpp>

#include "lumora/chat/JsonRecord.h"

namespace lumora {

std::string CreateImagePayload::toJSON() const {
  const nlohmann::ordered_json body{{"prompt", prompt},   {"n", n},
                                    {"model", model},     {"size", size},
                                    {"quality", quality}, {"style", style},
                                    {"response_format", responseFormat}};
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

CreateImageResponse CreateImageResponse::decode(std::string_view text) {
  json::Parser parser;
  if (!parser.parse(text)) json::failNotJson(text);
  const json::Record record(parser.root(), json::Keys::asWritten, "the answer");
  CreateImageResponse response;
  for (simdjson::dom::element item : record.array("data")) {
    const json::Record image(item, json::Keys::asWritten, "an image");
    response.data.push_back({std::string(image.string("b64_json"))});
  }
  return response;
}

}  // namespace lumora
