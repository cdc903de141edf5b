// Fuzzes the stream's line rules: arbitrary bytes as a response body, split at a point the
// input chooses, through the line splitter and both line rules. Typed failures are the
// expected outcome of a bad stream; anything else (a crash, a sanitizer report, another
// exception) is a bug.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Errors.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/LineSplitter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (lumora::debug::setSink({}), true);
  (void)quiet;
  if (size == 0) return 0;
  const size_t split = data[0] % (size + 1);
  const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (lumora::LineRule rule : {lumora::LineRule::openAI, lumora::LineRule::openAICompatible}) {
    lumora::LineProcessor processor(rule);
    lumora::LineSplitter splitter(4096);
    size_t lastSize = 0;
    auto onLine = [&](std::string_view line) {
      if (auto chunk = processor.line(line)) {
        // The reply only ever grows.
        if (chunk->completed.size() < lastSize) __builtin_trap();
        lastSize = chunk->completed.size();
      }
    };
    try {
      const size_t at = std::min(split, body.size());
      splitter.feed(body.substr(0, at), onLine);
      splitter.feed(body.substr(at), onLine);
      splitter.finish(onLine);
    } catch (const lumora::OpenAIError&) {
    } catch (const lumora::DecodingError&) {
    } catch (const lumora::TransportError&) {
    }
  }
  return 0;
}
