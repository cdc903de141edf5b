// Fuzzes the header parse: arbitrary bytes as a message header. A MimeHeaderError is the
// expected outcome of a bad header; anything else is a bug.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/mailcontent/mime/MimeHeader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const lumora::MimeHeader header = lumora::MimeHeader::parse(text);
    if (header.contentType) (void)header.contentType->mimeType();
  } catch (const lumora::MimeHeaderError&) {
  }
  return 0;
}
