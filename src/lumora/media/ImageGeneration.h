// The wire shapes of image generation: the request body and the answer. Lumora generates no
// images itself; these stand ready for a front-end that will, and the Azure client already
// knows the deployment URL of "dall-e-3".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora {

struct CreateImagePayload {
  std::string prompt;
  int n = 1;
  std::string model;
  std::string size;
  std::string quality;
  std::string style;
  std::string responseFormat;  // "response_format" on the wire

  // The JSON text, keys in field order.
  std::string toJSON() const;
};

struct ImageData {
  std::string b64Json;  // "b64_json": the image in Base64
};

struct CreateImageResponse {
  std::vector<ImageData> data;
  // Throws DecodingError when `json` is not an answer with its images.
  static CreateImageResponse decode(std::string_view json);
};

}  // namespace lumora
