// Fuzzes the whole mail reading: arbitrary bytes as a raw message, through the MIME parse, the
// choice of the HTML part, its decoding and the quotations' texts. The errors of the MIME
// parse and the decoders are expected; anything else is a bug.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/mailcontent/MailParser.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Errors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    lumora::debug::setSink({});
    return true;
  }();
  (void)quiet;
  const std::string_view message(reinterpret_cast<const char*>(data), size);
  try {
    (void)lumora::MailParser::quotedTexts(message);
  } catch (const lumora::Error&) {
  }
  return 0;
}
