#include "lumora/platform/Url.h"

#include <curl/curl.h>

#include <memory>

namespace lumora {
namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* h) const { curl_url_cleanup(h); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

struct CurlStringDeleter {
  void operator()(char* s) const { curl_free(s); }
};
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

UrlHandle handleFor(const std::string& text) {
  UrlHandle h(curl_url());
  if (!h) throw std::bad_alloc();
  if (curl_url_set(h.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return nullptr;
  return h;
}

std::optional<std::string> get(CURLU* h, CURLUPart part, unsigned flags = 0) {
  char* out = nullptr;
  if (curl_url_get(h, part, &out, flags) != CURLUE_OK) return std::nullopt;
  CurlString holder(out);
  return std::string(out);
}

// Characters a path segment may hold as they are (RFC 3986 pchar, plus "/" between segments
// and "%" so that text already encoded stays as it is).
bool isPathChar(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-':
    case '.':
    case '_':
    case '~':
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case ';':
    case '=':
    case ':':
    case '@':
    case '/':
    case '%':
      return true;
    default:
      return false;
  }
}

std::string encodePath(std::string_view path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(path.size());
  for (unsigned char c : path) {
    if (isPathChar(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
  UrlHandle h = handleFor(std::string(text));
  if (!h) return std::nullopt;
  auto host = get(h.get(), CURLUPART_HOST);
  if (!host || host->empty()) return std::nullopt;
  auto full = get(h.get(), CURLUPART_URL);
  if (!full) return std::nullopt;
  return Url(std::move(*full));
}

std::string Url::part(int which) const {
  UrlHandle h = handleFor(text_);
  if (!h) return {};
  return get(h.get(), static_cast<CURLUPart>(which)).value_or("");
}

std::string Url::host() const { return part(CURLUPART_HOST); }
std::string Url::path() const { return part(CURLUPART_PATH); }

std::optional<int> Url::port() const {
  UrlHandle h = handleFor(text_);
  if (!h) return std::nullopt;
  auto port = get(h.get(), CURLUPART_PORT);
  if (!port) return std::nullopt;
  return std::stoi(*port);
}

Url Url::appendingPath(std::string_view path) const {
  UrlHandle h = handleFor(text_);
  std::string base = get(h.get(), CURLUPART_PATH).value_or("/");
  while (!base.empty() && base.back() == '/') base.pop_back();
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  const std::string joined = base + "/" + encodePath(path);
  curl_url_set(h.get(), CURLUPART_PATH, joined.c_str(), 0);
  return Url(get(h.get(), CURLUPART_URL).value_or(text_));
}

std::optional<Url> Url::resolving(std::string_view relative) const {
  UrlHandle h = handleFor(text_);
  const std::string rel(relative);
  if (curl_url_set(h.get(), CURLUPART_URL, rel.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  auto full = get(h.get(), CURLUPART_URL);
  if (!full) return std::nullopt;
  return parse(*full);
}

Url Url::withQueryItem(std::string_view name, std::string_view value) const {
  UrlHandle h = handleFor(text_);
  const std::string item = std::string(name) + "=" + std::string(value);
  curl_url_set(h.get(), CURLUPART_QUERY, nullptr, 0);
  curl_url_set(h.get(), CURLUPART_QUERY, item.c_str(), CURLU_APPENDQUERY | CURLU_URLENCODE);
  return Url(get(h.get(), CURLUPART_URL).value_or(text_));
}

}  // namespace lumora
