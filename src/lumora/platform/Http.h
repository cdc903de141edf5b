// The HTTP transport: one request, its response head, then its body as it arrives.
//
// The chat clients only see these interfaces; CurlTransport is the real one, tests may put a
// fake in its place. A request is made for one use; nothing is pooled between requests.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace lumora {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  HttpHeaders headers;  // in the order they are sent
  std::string body;

  // The value of the first header named `name` (ASCII case-insensitive), or nullopt.
  std::optional<std::string> header(std::string_view name) const;
};

// How a session connects: the HTTPS proxy and the idle timeout.
struct SessionConfiguration {
  struct Proxy {
    std::string host;  // percent-encoded; an IPv6 literal keeps its brackets
    int port = 0;
    // The proxy's own credentials (percent-decoded), for its Basic authentication; empty for
    // none. They go to the proxy alone, never to the server behind it.
    std::string user;
    std::string password;
  };
  // Used for https URLs only. When absent, libcurl's usual environment (https_proxy, no_proxy)
  // stays in force; when present, plain http URLs go out directly.
  std::optional<Proxy> httpsProxy;
  // The request fails when no byte arrives for this long, while connecting, while waiting for
  // the head, or between two pieces of the body. It is not a cap on a long stream.
  std::chrono::milliseconds idleTimeout{60'000};
};

// A response whose head has arrived. Its body has not been read yet.
class HttpResponse {
 public:
  virtual ~HttpResponse() = default;
  virtual int status() const = 0;
  virtual const HttpHeaders& headers() const = 0;

  // Reads the body to its end, handing each piece to `onBytes` as it arrives, on the calling
  // thread. `onCaughtUp`, if given, is called whenever every byte received so far has been
  // handed over and the transport is about to wait for more (a reader that batches its output
  // passes it on there, so nothing it holds waits on the network). Returns when the server has
  // ended the body, or when `stop` is requested (the transfer is then aborted within
  // milliseconds). Throws TransportError when the connection fails or stalls; an exception
  // thrown by a callback aborts the transfer and propagates.
  virtual void readBody(const std::function<void(std::string_view)>& onBytes, std::stop_token stop,
                        const std::function<void()>& onCaughtUp = {}) = 0;
};

class HttpTransport {
 public:
  virtual ~HttpTransport() = default;

  // Sends `request` and blocks until the response head has arrived. Throws TransportError when
  // it cannot, and CancellationError when `stop` is requested first.
  virtual std::unique_ptr<HttpResponse> send(const HttpRequest& request,
                                             const SessionConfiguration& session,
                                             std::stop_token stop) = 0;
};

// The process's libcurl transport.
HttpTransport& defaultTransport();

// Starts loading libcurl for the default transport on a thread of its own and returns at once,
// so that a command about to send overlaps the load with the rest of its start. The first
// request waits for the load to end, and reports a failure to load as ever. The caller keeps
// the thread until it returns from the command: the process must not end while the library's
// initialisation runs, and the thread's destructor waits for it.
[[nodiscard]] std::jthread prepareDefaultTransport();

}  // namespace lumora
