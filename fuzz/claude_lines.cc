// Fuzzes the Claude client's stream reader over arbitrary response bodies. The reader passes
// over what it cannot read, so the only failure it may raise is an error record (OpenAIError),
// besides an over-long line (TransportError). Anything else is a bug: a crash, a sanitizer
// report, another exception, a reply that shrinks or a finish reason.
#include "BodyLines.h"
#include "lumora/chat/Errors.h"
#include "lumora/providers/ClaudeClient.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto reader = lumora::ClaudeClient::lineReader("claude-fuzz");
  size_t lastSize = 0;
  try {
    lumora::fuzz::readBody(data, size, *reader, [&](const lumora::StreamChunk& chunk) {
      if (chunk.completed.size() < lastSize || chunk.finishReason) __builtin_trap();
      lastSize = chunk.completed.size();
    });
  } catch (const lumora::OpenAIError&) {
  } catch (const lumora::TransportError&) {
  }
  return 0;
}
