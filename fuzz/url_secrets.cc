// Fuzzes the finding of credentials inside URLs and their masking: the URL comes from settings
// files that other programs write, the text from servers.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lumora/platform/Redact.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t cut = input.find('\n');
  const std::string_view url = input.substr(0, cut);
  const std::string_view text = cut == std::string_view::npos ? url : input.substr(cut + 1);
  const auto secrets = lumora::redact::urlSecrets(url);
  for (const std::string& secret : secrets) {
    // Only credentials worth masking, and only what the URL holds (as written or decoded).
    if (secret.size() < 4 || secret.size() > url.size()) __builtin_trap();
  }
  lumora::redact::registerUrlSecrets(url);
  const std::string scrubbed = lumora::redact::scrub(text);
  // A URL's own credentials never survive its masking whole, unless a mask's last characters
  // and the text after it happen to spell one again.
  const std::string own = lumora::redact::scrub(url);
  for (const std::string& secret : secrets) {
    if (secret.size() >= 8 && own.find(secret) != std::string::npos &&
        own.find("…") == std::string::npos)
      __builtin_trap();
  }
  lumora::redact::clearSecrets();
  return 0;
}
