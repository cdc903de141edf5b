// URLs in their simple form are read here; every other URL goes to libcurl's URL API.
//
// The simple form is what this system builds and what settings hold in practice:
// scheme://host[:port][/path][?query][#fragment] with a letter-led scheme, a host name or a
// dotted-quad address, and only characters that need no encoding. For such URLs the results
// below are libcurl's to the byte (tests compare the two on generated URLs), so a command that
// sends nothing never has to load libcurl just to print a URL. Whatever is outside the form
// (user info, IPv6 literals, numeric hosts libcurl rewrites, dot segments, percent-encoded
// hosts, odd characters) is handed to libcurl, which stays the one authority on it.
#include "lumora/platform/Url.h"

#include <memory>

#include "lumora/platform/CurlLibrary.h"
#include "lumora/platform/PercentEncoding.h"

namespace lumora {
namespace {

// ---- the simple form ------------------------------------------------------------------------

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Characters a path segment may hold as they are (RFC 3986 pchar, plus "/" between segments
// and "%" so that text already encoded stays as it is).
bool isPathChar(unsigned char c) {
  if (isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c))) return true;
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

bool isUnreserved(char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

template <typename Pred>
bool all(std::string_view s, Pred pred) {
  for (char c : s)
    if (!pred(static_cast<unsigned char>(c))) return false;
  return true;
}

// True when some segment of `path` is "." or "..", which libcurl would remove.
bool hasDotSegment(std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    const std::string_view segment = path.substr(start, end - start);
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

// A decimal number of at most `digits` digits, written without leading zeros, up to `max`.
bool isPlainNumber(std::string_view s, size_t digits, int max) {
  if (s.empty() || s.size() > digits || !all(s, [](unsigned char c) { return isDigit(c); }))
    return false;
  if (s.size() > 1 && s[0] == '0') return false;
  int value = 0;
  for (char c : s) value = value * 10 + (c - '0');
  return value <= max;
}

// A host libcurl keeps as written: a name (some label not led by a digit), or an IPv4 address
// already in its dotted-quad form. Hosts of digits in other forms ("127.1", "0x7f.1", "010.0.0.1")
// are addresses libcurl rewrites, so they are not simple.
bool isSimpleHost(std::string_view host) {
  if (host.empty() || host.back() == '.') return false;
  if (!all(host, [](unsigned char c) {
        return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_';
      }))
    return false;
  size_t labels = 0;
  bool name = false, quad = true;
  size_t start = 0;
  while (start <= host.size()) {
    size_t end = host.find('.', start);
    if (end == std::string_view::npos) end = host.size();
    const std::string_view label = host.substr(start, end - start);
    if (label.empty()) return false;
    name |= !isDigit(label[0]);
    quad &= isPlainNumber(label, 3, 255);
    ++labels;
    start = end + 1;
  }
  return name || (quad && labels == 4);
}

bool isQueryChar(unsigned char c) { return isPathChar(c) || c == '?'; }

// The pieces of a URL in the simple form, pointing into its text (the scheme aside).
struct Parts {
  std::string scheme;  // in lower case, as libcurl writes it
  std::string_view host;
  std::string_view port;      // digits, or empty for none
  std::string_view path;      // empty, or led by "/"
  std::string_view query;     // without its "?"; empty for none
  std::string_view fragment;  // without its "#"; empty for none

  std::string text() const { return withPath(path.empty() ? "/" : path); }
  std::string withPath(std::string_view newPath) const {
    std::string out;
    out.reserve(scheme.size() + host.size() + port.size() + newPath.size() + query.size() +
                fragment.size() + 6);
    out += scheme;
    out += "://";
    out += host;
    if (!port.empty()) out += ':', out += port;
    out += newPath;
    if (!query.empty()) out += '?', out += query;
    if (!fragment.empty()) out += '#', out += fragment;
    return out;
  }
};

// libcurl refuses schemes longer than this.
constexpr size_t kLongestScheme = 40;

std::optional<Parts> simpleParts(std::string_view text) {
  const size_t colon = text.find("://");
  if (colon == std::string_view::npos || colon == 0 || colon > kLongestScheme) return std::nullopt;
  const std::string_view scheme = text.substr(0, colon);
  if (!isAlpha(scheme[0]) || !all(scheme, [](unsigned char c) {
        return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
      }))
    return std::nullopt;
  Parts parts;
  parts.scheme.reserve(scheme.size());
  for (char c : scheme) parts.scheme += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;

  std::string_view rest = text.substr(colon + 3);
  const size_t hostEnd = std::min(rest.find_first_of("/?#"), rest.size());
  std::string_view authority = rest.substr(0, hostEnd);
  rest.remove_prefix(hostEnd);
  if (const size_t portColon = authority.find(':'); portColon != std::string_view::npos) {
    parts.port = authority.substr(portColon + 1);
    authority = authority.substr(0, portColon);
    // libcurl keeps a port as written when it has no leading zeros.
    if (!isPlainNumber(parts.port, 5, 65535)) return std::nullopt;
  }
  if (!isSimpleHost(authority)) return std::nullopt;
  parts.host = authority;

  const size_t hash = rest.find('#');
  if (hash != std::string_view::npos) {
    parts.fragment = rest.substr(hash + 1);
    rest = rest.substr(0, hash);
    if (!all(parts.fragment, isQueryChar)) return std::nullopt;
  }
  const size_t question = rest.find('?');
  if (question != std::string_view::npos) {
    parts.query = rest.substr(question + 1);
    rest = rest.substr(0, question);
    if (!all(parts.query, isQueryChar)) return std::nullopt;
  }
  if (!all(rest, isPathChar) || hasDotSegment(rest)) return std::nullopt;
  parts.path = rest;
  return parts;
}

std::string encodePath(std::string_view path) { return text::percentEncoded(path, isPathChar); }

// ---- everything else, through libcurl -------------------------------------------------------

struct UrlHandle {
  const curl::Api& lib;
  CURLU* handle;
  explicit UrlHandle(const curl::Api& l) : lib(l), handle(l.url()) {
    if (!handle) throw std::bad_alloc();
  }
  ~UrlHandle() { lib.url_cleanup(handle); }
  UrlHandle(const UrlHandle&) = delete;
  UrlHandle& operator=(const UrlHandle&) = delete;

  bool set(CURLUPart part, const char* content, unsigned flags) {
    return lib.url_set(handle, part, content, flags) == CURLUE_OK;
  }
  std::optional<std::string> get(CURLUPart part, unsigned flags = 0) const {
    char* out = nullptr;
    if (lib.url_get(handle, part, &out, flags) != CURLUE_OK) return std::nullopt;
    std::string value(out);
    lib.free(out);
    return value;
  }
};

// A handle holding `text`, or nullptr when libcurl refuses it.
std::unique_ptr<UrlHandle> handleFor(const std::string& text) {
  auto h = std::make_unique<UrlHandle>(curl::api());
  if (!h->set(CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME)) return nullptr;
  return h;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
  if (const auto parts = simpleParts(text)) return Url(parts->text());
  const auto h = handleFor(std::string(text));
  if (!h) return std::nullopt;
  auto host = h->get(CURLUPART_HOST);
  if (!host || host->empty()) return std::nullopt;
  auto full = h->get(CURLUPART_URL);
  if (!full) return std::nullopt;
  return Url(std::move(*full));
}

std::string Url::part(int which) const {
  const auto h = handleFor(text_);
  if (!h) return {};
  return h->get(static_cast<CURLUPart>(which)).value_or("");
}

std::string Url::host() const {
  if (const auto parts = simpleParts(text_)) return std::string(parts->host);
  return part(CURLUPART_HOST);
}

std::string Url::user() const {
  const auto h = handleFor(text_);
  return h ? h->get(CURLUPART_USER, CURLU_URLDECODE).value_or("") : "";
}

std::string Url::password() const {
  const auto h = handleFor(text_);
  return h ? h->get(CURLUPART_PASSWORD, CURLU_URLDECODE).value_or("") : "";
}

std::string Url::path() const {
  if (const auto parts = simpleParts(text_))
    return parts->path.empty() ? "/" : std::string(parts->path);
  return part(CURLUPART_PATH);
}

std::optional<int> Url::port() const {
  if (const auto parts = simpleParts(text_)) {
    if (parts->port.empty()) return std::nullopt;
    int value = 0;
    for (char c : parts->port) value = value * 10 + (c - '0');
    return value;
  }
  const auto h = handleFor(text_);
  if (!h) return std::nullopt;
  auto port = h->get(CURLUPART_PORT);
  if (!port) return std::nullopt;
  return std::stoi(*port);
}

Url Url::appendingPath(std::string_view path) const {
  const auto parts = simpleParts(text_);
  std::string base = parts ? std::string(parts->path) : part(CURLUPART_PATH);
  while (!base.empty() && base.back() == '/') base.pop_back();
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  const std::string joined = base + "/" + encodePath(path);
  if (parts && !hasDotSegment(joined)) return Url(parts->withPath(joined));
  const auto h = handleFor(text_);
  if (!h) return *this;
  h->set(CURLUPART_PATH, joined.c_str(), 0);
  return Url(h->get(CURLUPART_URL).value_or(text_));
}

std::optional<Url> Url::resolving(std::string_view relative) const {
  // A plain relative path replaces the base's last segment and drops its query. (With a
  // fragment, libcurl cuts at the fragment's last "/" instead, so that case stays its own.)
  if (const auto parts = simpleParts(text_);
      parts && parts->fragment.empty() && !relative.empty() && relative.front() != '/' &&
      all(relative, [](unsigned char c) { return isPathChar(c) && c != ':' && c != '%'; })) {
    const std::string_view dir = parts->path.substr(0, parts->path.rfind('/') + 1);
    std::string path = dir.empty() ? "/" : std::string(dir);
    path += relative;
    if (!hasDotSegment(path)) {
      Parts resolved = *parts;
      resolved.query = {};
      return Url(resolved.withPath(path));
    }
  }
  const auto h = handleFor(text_);
  if (!h) return std::nullopt;
  const std::string rel(relative);
  if (!h->set(CURLUPART_URL, rel.c_str(), CURLU_NON_SUPPORT_SCHEME)) return std::nullopt;
  auto full = h->get(CURLUPART_URL);
  if (!full) return std::nullopt;
  return parse(*full);
}

Url Url::withQueryItem(std::string_view name, std::string_view value) const {
  // Names and values that form-encoding leaves as they are.
  if (auto parts = simpleParts(text_);
      parts && all(name, isUnreserved) && all(value, isUnreserved)) {
    std::string item;
    item.reserve(name.size() + value.size() + 1);
    item += name;
    item += '=';
    item += value;
    parts->query = item;
    return Url(parts->text());
  }
  const auto h = handleFor(text_);
  if (!h) return *this;
  const std::string item = std::string(name) + "=" + std::string(value);
  h->set(CURLUPART_QUERY, nullptr, 0);
  h->set(CURLUPART_QUERY, item.c_str(), CURLU_APPENDQUERY | CURLU_URLENCODE);
  return Url(h->get(CURLUPART_URL).value_or(text_));
}

}  // namespace lumora
