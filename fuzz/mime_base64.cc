// Fuzzes the Base64 body decoding: line ends taken out, then strict decoding. What decodes must
// encode back to the same text without its line ends.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lumora/mailcontent/mime/MimeBody.h"
#include "lumora/platform/Base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const lumora::MimeBody body(raw, lumora::ContentTransferEncoding{
                                       lumora::ContentTransferEncoding::Kind::base64, {}});
  try {
    const std::string bytes = body.decodedContentData();
    std::string joined;
    for (size_t i = 0; i < raw.size(); ++i) {
      if (raw[i] == '\n') continue;
      if (raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n') continue;
      joined += raw[i];
    }
    // Bits left over in the last character are not checked, so compare what they carry.
    const std::string again = lumora::base64::encode(bytes);
    if (again.size() != joined.size()) abort();
    const size_t checked = joined.size() >= 4 ? joined.size() - 4 : 0;
    if (again.compare(0, checked, joined, 0, checked) != 0) abort();
  } catch (const lumora::MimeContentDecoderError&) {
  }
  return 0;
}
