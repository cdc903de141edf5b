// Fuzzes the reading of a generative-language answer: arbitrary bytes as the body of a 200
// stream, split at a point the input chooses, through the line splitter and the response line
// reader, and the same bytes as the body of an error status. GenerateContentError (every failure
// of a stream after its conversion), DecodingError (an error body that is no error object) and
// TransportError (a line beyond the limit) are the expected outcomes of bad input; anything else
// (a crash, a sanitizer report, another exception) is a bug.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/platform/Debug.h"
#include "lumora/platform/LineSplitter.h"
#include "lumora/providers/generativelanguage/GenerativeModel.h"

namespace gl = lumora::generativelanguage;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (lumora::debug::setSink({}), true);
  (void)quiet;
  if (size == 0) return 0;
  const size_t split = data[0] % (size + 1);
  const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);

  gl::ResponseLineReader reader;
  lumora::LineSplitter splitter(4096);
  auto onLine = [&](std::string_view line) {
    const auto response = reader.line(line);
    if (!response) return;
    // What passes the check is neither blocked nor stopped early.
    if (response->promptFeedback && response->promptFeedback->blockReason) __builtin_trap();
    if (!response->candidates.empty()) {
      const auto reason = response->candidates.front().finishReason;
      if (reason && *reason != gl::FinishReason::stop) __builtin_trap();
    }
    (void)response->text();
  };
  try {
    const size_t at = std::min(split, body.size());
    splitter.feed(body.substr(0, at), onLine);
    splitter.feed(body.substr(at), onLine);
    splitter.finish(onLine);
    reader.end();
  } catch (const gl::GenerateContentError& e) {
    // Every conversion is stable.
    if (gl::contentError(std::make_exception_ptr(e)).kind() != e.kind()) __builtin_trap();
  } catch (const lumora::TransportError&) {
  }

  try {
    const gl::RPCError error = gl::decodeRPCError(body);
    (void)gl::contentError(std::make_exception_ptr(error));
  } catch (const lumora::DecodingError&) {
  }
  return 0;
}
