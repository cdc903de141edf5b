// What the stream readers' targets share: arbitrary bytes as a response body, cut in two at a
// point the input's first byte chooses, and read as lines the way a stream is read.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/LineSplitter.h"

namespace lumora::fuzz {

// Hands every line of the body in `data` to `reader`, then tells it the body ended, and
// `onChunk` every chunk. Failures propagate. A small line limit keeps inputs that are one long
// line fast.
template <typename OnChunk>
void readBody(const uint8_t* data, size_t size, LineReader& reader, OnChunk&& onChunk) {
  static const bool quiet = (debug::setSink({}), true);
  (void)quiet;
  if (size == 0) return;
  const size_t split = data[0] % (size + 1);
  const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
  LineSplitter splitter(4096);
  auto onLine = [&](std::string_view line) {
    if (auto chunk = reader.line(line)) onChunk(*chunk);
  };
  const size_t at = std::min(split, body.size());
  splitter.feed(body.substr(0, at), onLine);
  splitter.feed(body.substr(at), onLine);
  splitter.finish(onLine);
  reader.end();
}

// readBody over a new reader from `make`, for a reader whose failures are all typed: a failure
// of the stream is the expected outcome of a bad body; anything else (a crash, a sanitizer
// report, another exception, a reply that shrinks) is a bug. `growing`: the reply only ever
// grows (false for a reader whose records replace it).
inline void feedLines(const uint8_t* data, size_t size,
                      const std::function<std::unique_ptr<LineReader>()>& make,
                      bool growing = true) {
  const std::unique_ptr<LineReader> reader = make();
  size_t lastSize = 0;
  try {
    readBody(data, size, *reader, [&](const StreamChunk& chunk) {
      if (growing && chunk.completed.size() < lastSize) __builtin_trap();
      lastSize = chunk.completed.size();
    });
  } catch (const OpenAIError&) {
  } catch (const AppError&) {
  } catch (const DecodingError&) {
  } catch (const TransportError&) {
  }
}

}  // namespace lumora::fuzz
