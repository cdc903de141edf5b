// The libcurl transport. This and Url.cc are the only files that speak to libcurl, and they
// reach it through the table of CurlLibrary.h: the library is loaded by the first request.
//
// Each request gets one easy handle inside its own multi handle. The multi handle is there for
// one reason: curl_multi_poll can be woken from another thread (curl_multi_wakeup), so a stop
// takes effect at once instead of at libcurl's once-a-second progress tick. The idle timeout is
// kept here too, with millisecond precision, rather than through CURLOPT_LOW_SPEED_*.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "lumora/platform/CurlLibrary.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Http.h"
#include "lumora/platform/Text.h"

namespace lumora {

std::optional<std::string> HttpRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (text::equalsIgnoringCase(key, name)) return value;
  return std::nullopt;
}

namespace {

using Clock = std::chrono::steady_clock;

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

// The user's words for what went wrong, with libcurl's detail where it adds something.
// `requestSent`: the request went out, so a refusal of the protocol is about the reply (a
// status that is not three digits, say), not about the URL.
TransportError transportError(const curl::Api& lib, CURLcode code, const char* detail,
                              bool requestSent) {
  using C = TransportError::Code;
  auto make = [&](C c, std::string text) {
    if (detail && *detail) text += " (" + std::string(detail) + ")";
    return TransportError(c, std::move(text));
  };
  switch (code) {
    case CURLE_COULDNT_CONNECT:
      return make(C::cannotConnect, "Could not connect to the server.");
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return make(C::cannotFindHost, "A server with the specified hostname could not be found.");
    case CURLE_OPERATION_TIMEDOUT:
      return TransportError(C::timedOut, "The request timed out.");
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      // libcurl's detail here is about framing, which tells the user nothing more.
      return TransportError(C::connectionLost, "The network connection was lost.");
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
      return make(C::secureConnection,
                  "An SSL error has occurred and a secure connection to the server cannot be "
                  "made.");
    case CURLE_WEIRD_SERVER_REPLY:
      return make(C::badServerResponse, "The server's reply is not valid HTTP.");
    case CURLE_UNSUPPORTED_PROTOCOL:
      if (requestSent) return make(C::badServerResponse, "The server's reply is not valid HTTP.");
      [[fallthrough]];
    case CURLE_URL_MALFORMAT:
      return make(C::badURL, "unsupported URL");
    default:
      return make(C::other,
                  std::string("The network request failed: ") + lib.easy_strerror(code) + ".");
  }
}

class CurlResponse final : public HttpResponse {
 public:
  CurlResponse(const curl::Api& lib, const HttpRequest& request,
               const SessionConfiguration& session)
      : lib_(lib), idleTimeout_(session.idleTimeout) {
    easy_ = lib_.easy_init();
    multi_ = lib_.multi_init();
    if (!easy_ || !multi_) {
      close();
      throw TransportError(TransportError::Code::other, "Out of memory.");
    }
    errorBuffer_[0] = '\0';

    lib_.easy_setopt(easy_, CURLOPT_URL, request.url.c_str());
    lib_.easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
    lib_.easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 0L);
    lib_.easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
    lib_.easy_setopt(easy_, CURLOPT_BUFFERSIZE, 256L * 1024L);
    lib_.easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::max<int64_t>(1, idleTimeout_.count())));
    lib_.easy_setopt(easy_, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    lib_.easy_setopt(easy_, CURLOPT_HEADERFUNCTION, &CurlResponse::onHeader);
    lib_.easy_setopt(easy_, CURLOPT_HEADERDATA, this);
    lib_.easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &CurlResponse::onWrite);
    lib_.easy_setopt(easy_, CURLOPT_WRITEDATA, this);

    if (request.method == "GET") {
      lib_.easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    } else {
      if (request.method == "POST") {
        lib_.easy_setopt(easy_, CURLOPT_POST, 1L);
      } else {
        lib_.easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request.method.c_str());
      }
      lib_.easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE,
                       static_cast<curl_off_t>(request.body.size()));
      lib_.easy_setopt(easy_, CURLOPT_POSTFIELDS, request.body.data());
    }

    for (const auto& [name, value] : request.headers) {
      // libcurl drops a header given as "Name:" with nothing after it; "Name;" sends it empty.
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      headerList_ = lib_.slist_append(headerList_, line.c_str());
    }
    // A 100-continue round trip only delays small JSON bodies.
    headerList_ = lib_.slist_append(headerList_, "Expect:");
    lib_.easy_setopt(easy_, CURLOPT_HTTPHEADER, headerList_);

    if (session.httpsProxy) {
      const bool https = request.url.size() >= 8 &&
                         std::equal(request.url.begin(), request.url.begin() + 8, "https://",
                                    [](char a, char b) { return std::tolower(a) == b; });
      if (https) {
        proxy_ =
            "http://" + session.httpsProxy->host + ":" + std::to_string(session.httpsProxy->port);
        lib_.easy_setopt(easy_, CURLOPT_PROXY, proxy_.c_str());
        if (!session.httpsProxy->user.empty() || !session.httpsProxy->password.empty()) {
          lib_.easy_setopt(easy_, CURLOPT_PROXYUSERNAME, session.httpsProxy->user.c_str());
          lib_.easy_setopt(easy_, CURLOPT_PROXYPASSWORD, session.httpsProxy->password.c_str());
          lib_.easy_setopt(easy_, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
        }
      } else {
        // The configured proxy replaces the environment's, and it is for HTTPS alone.
        lib_.easy_setopt(easy_, CURLOPT_PROXY, "");
      }
    }
    lib_.multi_add_handle(multi_, easy_);
    lastActivity_ = Clock::now();
  }

  ~CurlResponse() override { close(); }

  int status() const override { return status_; }
  const HttpHeaders& headers() const override { return headers_; }

  // Drives the transfer until the head has arrived.
  void awaitHead(std::stop_token stop) { drive(stop, /*untilHead=*/true); }

  void readBody(const std::function<void(std::string_view)>& onBytes, std::stop_token stop,
                const std::function<void()>& onCaughtUp) override {
    sink_ = &onBytes;
    caughtUp_ = onCaughtUp ? &onCaughtUp : nullptr;
    if (paused_) {
      // Hands over what libcurl held back while the head was awaited, then goes on.
      paused_ = false;
      if (easy_) lib_.easy_pause(easy_, CURLPAUSE_CONT);
    }
    drive(stop, /*untilHead=*/false);
    sink_ = nullptr;
    caughtUp_ = nullptr;
  }

 private:
  static size_t onHeader(char* data, size_t size, size_t count, void* self) {
    auto* r = static_cast<CurlResponse*>(self);
    const size_t n = size * count;
    r->active_ = true;
    std::string_view line(data, n);
    if (line.starts_with("HTTP/")) {
      r->headers_.clear();
      r->status_ = 0;
      const size_t space = line.find(' ');
      if (space != std::string_view::npos) {
        // A status is three digits; a longer run from a broken server must not overflow.
        int status = 0;
        for (size_t i = space + 1; i < line.size() && i <= space + 3 &&
                                   std::isdigit(static_cast<unsigned char>(line[i]));
             ++i)
          status = status * 10 + (line[i] - '0');
        r->status_ = status;
      }
      return n;
    }
    line = trimmed(line);
    if (line.empty()) {
      // The blank line ends a head; an interim 1xx head is followed by the real one.
      if (r->status_ >= 200) r->headDone_ = true;
      return n;
    }
    const size_t colon = line.find(':');
    if (colon != std::string_view::npos)
      r->headers_.emplace_back(std::string(trimmed(line.substr(0, colon))),
                               std::string(trimmed(line.substr(colon + 1))));
    return n;
  }

  static size_t onWrite(char* data, size_t size, size_t count, void* self) {
    auto* r = static_cast<CurlResponse*>(self);
    const size_t n = size * count;
    r->active_ = true;
    r->headDone_ = true;
    if (!r->sink_) {
      // The body's reader is not there yet: libcurl keeps the bytes until it is, so they are
      // neither copied here nor read ahead of the reader.
      r->paused_ = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    try {
      (*r->sink_)(std::string_view(data, n));
    } catch (...) {
      // Exceptions must not cross libcurl: keep it and abort the transfer.
      r->sinkError_ = std::current_exception();
      return 0;
    }
    return n;
  }

  void drive(std::stop_token stop, bool untilHead) {
    std::stop_callback wake(stop, [this] {
      std::lock_guard lock(wakeMutex_);
      if (multi_) lib_.multi_wakeup(multi_);
    });
    while (true) {
      if (!finished_) {
        int running = 0;
        lib_.multi_perform(multi_, &running);
        while (CURLMsg* msg = lib_.multi_info_read(multi_, &running)) {
          if (msg->msg == CURLMSG_DONE) {
            finished_ = true;
            result_ = msg->data.result;
          }
        }
      }
      if (sinkError_) {
        close();
        std::rethrow_exception(std::exchange(sinkError_, nullptr));
      }
      if (untilHead && headDone_) return;
      if (finished_ && caughtUp_) (*caughtUp_)();
      if (finished_) {
        if (result_ != CURLE_OK) {
          long requestBytes = 0;
          lib_.easy_getinfo(easy_, CURLINFO_REQUEST_SIZE, &requestBytes);
          throw transportError(lib_, result_, errorBuffer_, requestBytes > 0);
        }
        if (untilHead && !headDone_ && status_ < 200)
          throw TransportError(TransportError::Code::connectionLost,
                               "The network connection was lost.");
        return;
      }
      if (stop.stop_requested()) {
        close();
        if (untilHead) throw CancellationError();
        return;
      }
      // Bytes that came during this round count as activity now: reading the clock once per
      // round rather than per piece (a stream of small records has thousands a second).
      const auto now = Clock::now();
      if (std::exchange(active_, false)) lastActivity_ = now;
      const auto idle = now - lastActivity_;
      if (idle >= idleTimeout_) {
        close();
        throw TransportError(TransportError::Code::timedOut, "The request timed out.");
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(idleTimeout_ - idle);
      const int waitMs = static_cast<int>(std::clamp<int64_t>(left.count() + 1, 1, 1000));
      if (caughtUp_) {
        // Caught up only when nothing more is readable now: a fast stream is handed on in
        // bursts, a slow one at every piece.
        int ready = 0;
        lib_.multi_poll(multi_, nullptr, 0, 0, &ready);
        if (ready > 0) continue;
        (*caughtUp_)();
      }
      lib_.multi_poll(multi_, nullptr, 0, waitMs, nullptr);
    }
  }

  // Ends the transfer now: the connection is closed, so the server stops sending.
  void close() {
    std::lock_guard lock(wakeMutex_);
    if (multi_ && easy_) lib_.multi_remove_handle(multi_, easy_);
    if (easy_) lib_.easy_cleanup(easy_);
    if (multi_) lib_.multi_cleanup(multi_);
    if (headerList_) lib_.slist_free_all(headerList_);
    easy_ = nullptr;
    multi_ = nullptr;
    headerList_ = nullptr;
    finished_ = true;
  }

  const curl::Api& lib_;
  CURL* easy_ = nullptr;
  CURLM* multi_ = nullptr;
  curl_slist* headerList_ = nullptr;
  std::mutex wakeMutex_;  // a stop may arrive from another thread while close() runs
  std::string proxy_;
  char errorBuffer_[CURL_ERROR_SIZE];

  std::chrono::milliseconds idleTimeout_;
  Clock::time_point lastActivity_;
  bool active_ = false;  // a byte came since lastActivity_ was set
  int status_ = 0;
  HttpHeaders headers_;
  bool headDone_ = false;
  bool finished_ = false;
  CURLcode result_ = CURLE_OK;
  bool paused_ = false;
  const std::function<void(std::string_view)>* sink_ = nullptr;
  const std::function<void()>* caughtUp_ = nullptr;
  std::exception_ptr sinkError_;
};

class CurlTransport final : public HttpTransport {
 public:
  std::unique_ptr<HttpResponse> send(const HttpRequest& request,
                                     const SessionConfiguration& session,
                                     std::stop_token stop) override {
    // The first request loads libcurl; a process that sends nothing never does.
    auto response = std::make_unique<CurlResponse>(curl::api(), request, session);
    response->awaitHead(stop);
    return response;
  }
};

}  // namespace

HttpTransport& defaultTransport() {
  static CurlTransport transport;
  return transport;
}

std::jthread prepareDefaultTransport() {
  return std::jthread([] {
    try {
      curl::api();
    } catch (const TransportError&) {
      // Said again, to the user, by the first request.
    }
  });
}

}  // namespace lumora
