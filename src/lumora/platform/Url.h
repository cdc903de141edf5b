// An absolute URL, parsed and rebuilt as libcurl's URL API does it: URLs of the usual simple
// form are read without libcurl, any other goes to libcurl itself (see Url.cc).
//
// Only absolute URLs with a scheme and a host are values of this type; everything that builds a
// request URL goes through it, so that a malformed domain from the settings is caught before any
// connection is made. Values are immutable; operations return new values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumora {

class Url {
 public:
  // Parses `text` as an absolute URL. nullopt when it is not one (no scheme, no host, bad port,
  // characters libcurl refuses). Throws TransportError when the URL needs libcurl and libcurl
  // cannot be loaded.
  static std::optional<Url> parse(std::string_view text);

  // `path` appended as path components: the base's own path is kept, the two are joined by
  // exactly one "/", and characters that a path may not hold are percent-encoded. The query and
  // fragment of the base are kept.
  Url appendingPath(std::string_view path) const;

  // `relative` resolved against this URL as a browser would (RFC 3986).
  std::optional<Url> resolving(std::string_view relative) const;

  // This URL with its query replaced by `name`=`value` (both form-encoded).
  Url withQueryItem(std::string_view name, std::string_view value) const;

  const std::string& text() const { return text_; }
  std::string host() const;         // percent-encoded form, IPv6 literals in brackets
  std::optional<int> port() const;  // the explicit port only
  std::string user() const;         // percent-decoded; empty when there is none
  std::string password() const;     // percent-decoded; empty when there is none
  std::string path() const;

  bool operator==(const Url& other) const { return text_ == other.text_; }

 private:
  explicit Url(std::string text) : text_(std::move(text)) {}
  std::string part(int which) const;

  std::string text_;
};

}  // namespace lumora
