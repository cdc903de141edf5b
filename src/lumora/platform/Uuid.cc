#include "lumora/platform/Uuid.h"

namespace lumora::uuid {

std::optional<std::string> canonical(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    char& c = out[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return std::nullopt;
      continue;
    }
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 32);
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return std::nullopt;
  }
  return out;
}

}  // namespace lumora::uuid
