// The body of a line-rule fuzz target: arbitrary bytes as a response body, split at a point
// the input chooses, through the line splitter and one client's line reader. Typed failures
// are the expected outcome of a bad stream; anything else (a crash, a sanitizer report,
// another exception) is a bug.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/LineSplitter.h"

namespace lumora::fuzzing {

// `growing`: the reader's text only ever grows (false for a reader whose records replace it).
inline void feedLines(const uint8_t* data, size_t size,
                      const std::function<std::unique_ptr<LineReader>()>& make,
                      bool growing = true) {
  static const bool quiet = (debug::setSink({}), true);
  (void)quiet;
  if (size == 0) return;
  const size_t split = data[0] % (size + 1);
  const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::unique_ptr<LineReader> reader = make();
  LineSplitter splitter(4096);
  size_t lastSize = 0;
  auto onLine = [&](std::string_view line) {
    if (auto chunk = reader->line(line)) {
      if (growing && chunk->completed.size() < lastSize) __builtin_trap();
      lastSize = chunk->completed.size();
    }
  };
  try {
    const size_t at = std::min(split, body.size());
    splitter.feed(body.substr(0, at), onLine);
    splitter.feed(body.substr(at), onLine);
    splitter.finish(onLine);
    reader->end();
  } catch (const OpenAIError&) {
  } catch (const AppError&) {
  } catch (const DecodingError&) {
  } catch (const TransportError&) {
  }
}

}  // namespace lumora::fuzzing
