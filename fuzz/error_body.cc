// Fuzzes the reading of error bodies, whose bytes come from whatever answered the request.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Errors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  try {
    lumora::checkErrorBody(body, 401);
  } catch (const lumora::OpenAIError& e) {
    // Every error body gives a text for the user.
    if (lumora::describeFailure(e).empty()) __builtin_trap();
  }
  return 0;
}
