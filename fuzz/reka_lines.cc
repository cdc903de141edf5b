// Fuzzes the Reka client's stream reader over arbitrary response bodies. Typed failures are the
// expected outcome of a bad stream; anything else (a crash, a sanitizer report, another
// exception) is a bug.
#include "BodyLines.h"
#include "lumora/chat/Errors.h"
#include "lumora/providers/RekaClient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto reader = lumora::RekaClient::lineReader("reka-fuzz");
  try {
    // Each chunk's text is whole and can be read.
    lumora::fuzz::readBody(data, size, *reader,
                           [](const lumora::StreamChunk& chunk) { (void)chunk.completed.str(); });
  } catch (const lumora::OpenAIError&) {
  } catch (const lumora::DecodingError&) {
  } catch (const lumora::TransportError&) {
  }
  return 0;
}
