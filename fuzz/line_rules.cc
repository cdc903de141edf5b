// Fuzzes the OpenAI family's line rules, the OpenAI service's and the compatible servers'.
#include "lumora/chat/ChatRequest.h"
#include "BodyLines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (lumora::LineRule rule : {lumora::LineRule::openAI, lumora::LineRule::openAICompatible})
    lumora::fuzz::feedLines(data, size,
                               [rule] { return std::make_unique<lumora::LineProcessor>(rule); });
  return 0;
}
