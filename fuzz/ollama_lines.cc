// Fuzzes Ollama's newline-delimited records.
#include "lumora/providers/OllamaClient.h"
#include "provider_lines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lumora::fuzzing::feedLines(data, size, lumora::OllamaClient::makeLines);
  return 0;
}
