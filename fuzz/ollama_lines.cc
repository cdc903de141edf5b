// Fuzzes Ollama's newline-delimited records.
#include "lumora/providers/OllamaClient.h"
#include "BodyLines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lumora::fuzz::feedLines(data, size, lumora::OllamaClient::makeLines);
  return 0;
}
