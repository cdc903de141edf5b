// Fuzzes the charset step: the input's first line names the character set, the rest is the
// body's bytes (carried as Base64, so that every byte reaches the charset step). Any name, any
// bytes: a converted text must be valid UTF-8, and the one failure is a MimeBodyError.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lumora/mailcontent/mime/MimeBody.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t lf = input.find('\n');
  if (lf == std::string_view::npos) return 0;
  const lumora::MimeBody body(
      lumora::base64::encode(input.substr(lf + 1)),
      lumora::ContentTransferEncoding{lumora::ContentTransferEncoding::Kind::base64, {}});
  try {
    if (!lumora::text::isValidUtf8(body.decodedContentString(input.substr(0, lf)))) abort();
  } catch (const lumora::MimeBodyError&) {
  }
  return 0;
}
