// Url reads the simple form of URLs itself and hands every other URL to libcurl: whatever the
// URL, each operation must give what libcurl's URL API gives. Checked here against libcurl
// called directly, on URLs built from pieces that cover both sides of the line between the two
// (numeric hosts libcurl rewrites, ports with leading zeros, dot segments, odd characters).
#include "lumora/platform/Url.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace lumora {
namespace {

// libcurl's own answers, as the URL API gives them.
class Curl {
 public:
  explicit Curl(const std::string& text) : h_(curl_url()) {
    ok_ =
        curl_url_set(h_.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  }
  bool ok() const { return ok_; }
  std::optional<std::string> get(CURLUPart part) const {
    char* out = nullptr;
    if (curl_url_get(h_.get(), part, &out, 0) != CURLUE_OK) return std::nullopt;
    std::string value(out);
    curl_free(out);
    return value;
  }
  bool set(CURLUPart part, const char* content, unsigned flags) {
    return curl_url_set(h_.get(), part, content, flags) == CURLUE_OK;
  }

  // What Url::parse should give: the URL as libcurl rebuilds it, when it has a host.
  static std::optional<std::string> parse(const std::string& text) {
    Curl c(text);
    if (!c.ok() || c.get(CURLUPART_HOST).value_or("").empty()) return std::nullopt;
    return c.get(CURLUPART_URL);
  }

 private:
  struct Cleanup {
    void operator()(CURLU* h) const { curl_url_cleanup(h); }
  };
  std::unique_ptr<CURLU, Cleanup> h_;
  bool ok_ = false;
};

std::string curlAppending(const std::string& url, std::string path) {
  Curl c(url);
  std::string base = c.get(CURLUPART_PATH).value_or("/");
  while (!base.empty() && base.back() == '/') base.pop_back();
  while (!path.empty() && path.front() == '/') path.erase(0, 1);
  // The characters Url encodes are never in these paths; the join is libcurl's to check.
  c.set(CURLUPART_PATH, (base + "/" + path).c_str(), 0);
  return c.get(CURLUPART_URL).value_or(url);
}

std::optional<std::string> curlResolving(const std::string& url, const std::string& relative) {
  Curl c(url);
  if (!c.set(CURLUPART_URL, relative.c_str(), CURLU_NON_SUPPORT_SCHEME)) return std::nullopt;
  auto full = c.get(CURLUPART_URL);
  return full ? Curl::parse(*full) : std::nullopt;
}

std::string curlWithQuery(const std::string& url, const std::string& item) {
  Curl c(url);
  c.set(CURLUPART_QUERY, nullptr, 0);
  c.set(CURLUPART_QUERY, item.c_str(), CURLU_APPENDQUERY | CURLU_URLENCODE);
  return c.get(CURLUPART_URL).value_or(url);
}

const std::vector<std::string> kSchemes = {"https", "HTTP", "Http", "x-y+z.1", "h2c", "1http"};
const std::vector<std::string> kHosts = {"h.example",
                                         "H.Example",
                                         "localhost",
                                         "127.0.0.1",
                                         "127.1",
                                         "1.2.3",
                                         "01.2.3.4",
                                         "1.2.3.256",
                                         "0",
                                         "0x7f.1",
                                         "1a.b",
                                         "h-1.2",
                                         "h_x.example",
                                         "h..example",
                                         ".h",
                                         "h.example.",
                                         "1.2.3.4.",
                                         "-h",
                                         "xn--d1acufc.xn--p1ai",
                                         "a1",
                                         "1e3",
                                         "1.2.3.4x",
                                         "255.255.255.255",
                                         "256.1.1.1",
                                         "00.1.1.1",
                                         "1.02.3.4",
                                         "4294967295",
                                         "08.1.1.1",
                                         "[::1]",
                                         "[0:0::1]",
                                         "u:p@h",
                                         "@h",
                                         "h%41",
                                         "hé.example",
                                         "",
                                         "bad host"};
const std::vector<std::string> kPorts = {"",       ":",      ":0",     ":80",
                                         ":8080",  ":0080",  ":65535", ":65536",
                                         ":99999", ":+80",   ":99999999999"};
const std::vector<std::string> kPaths = {"",         "/",        "/a",    "/a/b/",     "/a/../b",
                                         "/./a",     "/a/.",     "/a/..", "/%2e%2e/x", "/a%20b",
                                         "/a;b=c",   "/~u/(x)*", "/a//b", "/.a/..b",   "/a:b@c",
                                         "/a!$&'+,", "/a b",     "/a\\b", "/a<b>",     "/é"};
const std::vector<std::string> kQueries = {"",     "?",        "?q=1", "?a=b&c=d", "?x?y",
                                           "?%zz", "?a/b:c@d", "?a b", "?<>"};
const std::vector<std::string> kFragments = {"", "#", "#f", "#a?b", "#a/b", "#a#b"};

const std::vector<std::string> kAppended = {
    "v1/chat/completions", "/v1/models", "", "a/../b", "./x", "v1/a b", "deployments/gpt-4o/chat"};
const std::vector<std::string> kRelatives = {"openai", "v1/x",
                                             "../up",  "./here",
                                             "/root",  "//other.example/p",
                                             "a?q",    "a#f",
                                             "x:y",    "https://else.example/",
                                             "%41",    ".",
                                             ""};
const std::vector<std::pair<std::string, std::string>> kQueryItems = {
    {"api-version", "2023-05-15"}, {"key", "a b"}, {"a&b", "c=d"}, {"k", ""}, {"é", "ü"}};

// Every operation of `url` against libcurl's.
void expectSameAsCurl(const std::string& text) {
  SCOPED_TRACE(text);
  const std::optional<Url> url = Url::parse(text);
  const std::optional<std::string> want = Curl::parse(text);
  ASSERT_EQ(url.has_value(), want.has_value()) << (want ? *want : "(refused)");
  if (!url) return;
  ASSERT_EQ(url->text(), *want);

  const Curl c(*want);
  EXPECT_EQ(url->host(), c.get(CURLUPART_HOST).value_or(""));
  EXPECT_EQ(url->path(), c.get(CURLUPART_PATH).value_or(""));
  const auto port = c.get(CURLUPART_PORT);
  EXPECT_EQ(url->port(), port ? std::optional<int>(std::stoi(*port)) : std::nullopt);
  for (const std::string& path : kAppended) {
    if (path.find(' ') != std::string::npos) continue;  // Url encodes it; libcurl refuses it
    EXPECT_EQ(url->appendingPath(path).text(), curlAppending(*want, path)) << path;
  }
  for (const std::string& relative : kRelatives) {
    const auto resolved = url->resolving(relative);
    EXPECT_EQ(resolved ? std::optional<std::string>(resolved->text()) : std::nullopt,
              curlResolving(*want, relative))
        << relative;
  }
  for (const auto& [name, value] : kQueryItems)
    EXPECT_EQ(url->withQueryItem(name, value).text(), curlWithQuery(*want, name + "=" + value))
        << name << "=" << value;
}

TEST(Url, AgreesWithLibcurlOnGeneratedUrls) {
  // Every host with every port, then random mixtures of the other pieces.
  for (const std::string& host : kHosts)
    for (const std::string& port : kPorts) expectSameAsCurl("https://" + host + port + "/p");
  std::mt19937 random(20240613);
  auto pick = [&](const std::vector<std::string>& pieces) {
    return pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
  };
  for (int i = 0; i < 3000; ++i) {
    expectSameAsCurl(pick(kSchemes) + "://" + pick(kHosts) + pick(kPorts) + pick(kPaths) +
                     pick(kQueries) + pick(kFragments));
    if (HasFatalFailure()) return;
  }
}

TEST(Url, AgreesWithLibcurlOnTextThatIsNoUrl) {
  for (const char* text :
       {"llm.example.org", "https://", "https:h.example", "https:/h.example/x", "https:///h/x",
        "mailto:x@y", "file:///etc/passwd", " https://h.example", "https://h.example/ ",
        "https://h.example\\x", "://h", "h://", "https//h", "https://[::1", "https://h:/x",
        "https://h.example/a\tb", "https://h.example/a\nb", ""})
    expectSameAsCurl(text);
}

}  // namespace
}  // namespace lumora
