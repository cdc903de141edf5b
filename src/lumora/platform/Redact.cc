#include "lumora/platform/Redact.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace lumora::redact {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::string> secrets;  // longest first, so that a key containing another wins
};

Registry& registry() {
  static Registry r;
  return r;
}

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

}  // namespace

std::string masked(std::string_view secret) {
  size_t chars = 0;
  for (char c : secret) chars += !isContinuationByte(c);
  if (chars < 8) return "…";
  size_t start = secret.size();
  for (int seen = 0; seen < 4 && start > 0;) {
    --start;
    if (!isContinuationByte(secret[start])) ++seen;
  }
  return "…" + std::string(secret.substr(start));
}

void registerSecret(std::string_view secret) {
  if (secret.size() < 4) return;
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  if (std::find(r.secrets.begin(), r.secrets.end(), secret) != r.secrets.end()) return;
  r.secrets.emplace_back(secret);
  std::stable_sort(r.secrets.begin(), r.secrets.end(),
                   [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string scrub(std::string_view text) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::string out(text);
  for (const std::string& secret : r.secrets) {
    size_t pos = out.find(secret);
    if (pos == std::string::npos) continue;
    const std::string mask = masked(secret);
    std::string next;
    next.reserve(out.size());
    size_t from = 0;
    for (; pos != std::string::npos; pos = out.find(secret, from)) {
      next.append(out, from, pos - from);
      next += mask;
      from = pos + secret.size();
    }
    next.append(out, from);
    out = std::move(next);
  }
  return out;
}

void clearSecrets() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.secrets.clear();
}

}  // namespace lumora::redact
