// Fuzzes the hosted cloud's stream records and its error bodies.
#include "lumora/providers/LumoraCloudClient.h"
#include "BodyLines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lumora::fuzz::feedLines(data, size, lumora::LumoraCloudClient::makeLines);
  if (size > 0) {
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::exception_ptr error = lumora::LumoraCloudClient::errorFromBody(body, data[0]);
    if (!error) __builtin_trap();
  }
  return 0;
}
