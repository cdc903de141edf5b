// Fuzzes the quoted-printable decoder. Its one failure is a QuotedPrintableDecoderError; the
// output is never longer than the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "lumora/mailcontent/mime/MimeBody.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    if (lumora::quotedPrintableDecoded(text).size() > size) abort();
  } catch (const lumora::QuotedPrintableDecoderError&) {
  }
  return 0;
}
