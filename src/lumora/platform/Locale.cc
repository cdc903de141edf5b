#include "lumora/platform/Locale.h"

#include <cstdlib>

namespace lumora {
namespace {

bool isAsciiAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

bool isRegionSubtag(std::string_view part) {
  if (part.size() == 2) return isAsciiAlpha(part[0]) && isAsciiAlpha(part[1]);
  if (part.size() == 3)
    return isAsciiDigit(part[0]) && isAsciiDigit(part[1]) && isAsciiDigit(part[2]);
  return false;
}

std::string_view envOrEmpty(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string_view(value) : std::string_view();
}

}  // namespace

std::optional<std::string> localeRegion(std::string_view lcAll, std::string_view lcMessages,
                                        std::string_view lang) {
  std::string_view name = !lcAll.empty() ? lcAll : !lcMessages.empty() ? lcMessages : lang;
  // language[_territory][.codeset][@modifier]: the codeset and modifier never hold the region.
  name = name.substr(0, name.find('@'));
  name = name.substr(0, name.find('.'));
  // The first subtag is the language; "C" and "POSIX" end here for want of a separator.
  size_t start = name.find_first_of("_-");
  while (start != std::string_view::npos) {
    const size_t end = name.find_first_of("_-", start + 1);
    const std::string_view part = name.substr(start + 1, end - start - 1);
    if (isRegionSubtag(part)) return std::string(part);
    start = end;
  }
  return std::nullopt;
}

std::optional<std::string> localeRegion() {
  return localeRegion(envOrEmpty("LC_ALL"), envOrEmpty("LC_MESSAGES"), envOrEmpty("LANG"));
}

}  // namespace lumora
