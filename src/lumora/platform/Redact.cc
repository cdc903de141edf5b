#include "lumora/platform/Redact.h"

#include <algorithm>
#include <array>
#include <mutex>

#include "lumora/platform/PercentEncoding.h"

namespace lumora::redact {
namespace {

// A form of a secret as it may appear in a text, and what replaces it: the mask of the secret
// itself, whichever form was found.
struct Pattern {
  std::string text;
  std::string mask;
};

struct Registry {
  std::mutex mutex;
  std::vector<Pattern> patterns;  // longest first, so that a key containing another wins
};

Registry& registry() {
  static Registry r;
  return r;
}

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

// The escapes JSON writers put in a string: the solidus is escaped by some (PHP, .NET), the quote
// and the backslash by all.
std::string jsonEscaped(std::string_view s) {
  std::string out;
  for (char c : s) {
    if (c == '\\' || c == '"' || c == '/') out += '\\';
    out += c;
  }
  return out;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         c == '-' || c == '.' || c == '_' || c == '~';
}


int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = lower(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// %XX decoded, and "+" as a space as forms write it; a stray "%" stays as it is.
std::string percentDecoded(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2]));
      i += 2;
    } else {
      out += s[i] == '+' ? ' ' : s[i];
    }
  }
  return out;
}

// Query parameter names that hold a credential: the name, lower-cased and percent-decoded,
// contains one of these (Azure's "api-key" and SAS "sig", OAuth's "code" and "access_token",
// Google's "key", a proxy's "password").
constexpr std::array<std::string_view, 10> kCredentialNameParts = {
    "key", "token", "secret", "sig", "pass", "pwd", "auth", "code", "credential", "session"};

bool namesCredential(std::string_view name) {
  std::string lowered;
  for (char c : percentDecoded(name)) lowered += lower(c);
  return std::any_of(kCredentialNameParts.begin(), kCredentialNameParts.end(),
                     [&](std::string_view part) { return lowered.find(part) != std::string::npos; });
}

bool hasSpace(std::string_view s) {
  return std::any_of(s.begin(), s.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

// Whether `text` was new and is now among `patterns`.
bool addPattern(std::vector<Pattern>& patterns, std::string text, const std::string& mask) {
  if (text.size() < 4) return false;
  for (const Pattern& p : patterns)
    if (p.text == text) return false;
  patterns.push_back({std::move(text), mask});
  return true;
}

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
  const std::string mask = masked(secret);
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  bool added = false;
  for (std::string form : {std::string(secret), jsonEscaped(secret),
                           text::percentEncoded(secret, isUnreserved, text::kUpperHexDigits),
                           text::percentEncoded(secret, isUnreserved, text::kLowerHexDigits)}) {
    added |= addPattern(r.patterns, std::move(form), mask);
  }
  // Settings are read again and again; a secret seen before leaves the order as it is.
  if (!added) return;
  std::stable_sort(r.patterns.begin(), r.patterns.end(), [](const Pattern& a, const Pattern& b) {
    return a.text.size() > b.text.size();
  });
}

std::vector<std::string> urlSecrets(std::string_view url) {
  std::vector<std::string> out;
  // A URL is one word; a text with spaces (an instruction, a prompt) is not one.
  if (url.empty() || hasSpace(url)) return out;
  const size_t scheme = url.find("://");
  std::string_view rest = scheme == std::string_view::npos ? url : url.substr(scheme + 3);
  const size_t authorityEnd = std::min(rest.find_first_of("/?#"), rest.size());
  const std::string_view authority = rest.substr(0, authorityEnd);
  if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
    const std::string_view userinfo = authority.substr(0, at);
    out.emplace_back(userinfo);
    if (const size_t colon = userinfo.find(':'); colon != std::string_view::npos) {
      const std::string_view password = userinfo.substr(colon + 1);
      out.emplace_back(password);
      out.push_back(percentDecoded(password));
    } else {
      // A token given as the user name alone ("https://TOKEN@host").
      out.push_back(percentDecoded(userinfo));
    }
  }
  std::string_view query = rest.substr(authorityEnd);
  const size_t question = query.find('?');
  query = question == std::string_view::npos ? std::string_view() : query.substr(question + 1);
  query = query.substr(0, std::min(query.find('#'), query.size()));
  // A URL with more credentials than this is no URL anyone wrote: what it carries beyond them is
  // not looked for, so that masking stays cheap whatever a settings file holds.
  constexpr size_t kMostSecrets = 32;
  while (!query.empty() && out.size() < kMostSecrets) {
    const size_t end = std::min(query.find_first_of("&;"), query.size());
    const std::string_view item = query.substr(0, end);
    query.remove_prefix(std::min(end + 1, query.size()));
    const size_t equals = item.find('=');
    if (equals == std::string_view::npos || !namesCredential(item.substr(0, equals))) continue;
    const std::string_view value = item.substr(equals + 1);
    out.emplace_back(value);
    out.push_back(percentDecoded(value));
  }
  // Short values are no credentials worth masking (registerSecret would skip them), and a value
  // that percent-decodes to itself is there once.
  std::vector<std::string> kept;
  for (std::string& s : out) {
    if (s.size() >= 4 && std::find(kept.begin(), kept.end(), s) == kept.end()) kept.push_back(std::move(s));
  }
  return kept;
}

void registerUrlSecrets(std::string_view url) {
  for (const std::string& secret : urlSecrets(url)) registerSecret(secret);
}

std::string scrub(std::string_view text) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  std::string out(text);
  for (const Pattern& pattern : r.patterns) {
    size_t pos = out.find(pattern.text);
    if (pos == std::string::npos) continue;
    std::string next;
    next.reserve(out.size());
    size_t from = 0;
    for (; pos != std::string::npos; pos = out.find(pattern.text, from)) {
      next.append(out, from, pos - from);
      next += pattern.mask;
      from = pos + pattern.text.size();
    }
    next.append(out, from);
    out = std::move(next);
  }
  return out;
}

void clearSecrets() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  r.patterns.clear();
}

}  // namespace lumora::redact
