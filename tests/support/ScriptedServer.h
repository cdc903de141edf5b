// A loopback HTTP/1.1 server whose responses are scripted step by step, so that tests and
// benchmarks can make a server stream, stall, cut a body short or reset the connection on purpose.
//
// Each connection carries one request and one response; every response says
// `Connection: close`. Each incoming request takes the next queued response, or a copy of the
// default one when the queue is empty.
//
// Thread-safety: every member function may be called from any thread while the server runs.
// The server serves on its own threads: one accepts, one per connection serves.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace lumora::testing {

using Headers = std::vector<std::pair<std::string, std::string>>;

// How the end of a response body is told to the client.
enum class Framing {
  kContentLength,   // Content-Length: the total of all kSend steps, unless a header sets it
  kChunked,         // Transfer-Encoding: chunked; each kSend step is one chunk
  kCloseDelimited,  // no length at all: the body ends when the server closes
};

// One thing the server does while replying.
struct Step {
  enum class Kind {
    kSend,   // send bytes() (one chunk when chunked; an empty send is skipped)
    kSleep,  // wait `duration`, watching for the client hanging up
    kClose,  // close the connection at once, leaving the framing unfinished
    kReset,  // reset the connection (RST) at once
  };

  Kind kind = Kind::kSend;
  // kSend: the bytes [offset, offset + length) of *data. Shared, so that copying a response
  // (the default one is copied for every request) costs nothing per byte.
  std::shared_ptr<const std::string> data;
  std::size_t offset = 0;
  std::size_t length = 0;
  std::chrono::milliseconds duration{0};  // kSleep

  std::string_view bytes() const;
};

// A scripted reply. The head (status line, `headers`, the framing's header, Connection: close)
// goes out before the first step, after `headDelay`. When the steps run out, the framing is
// finished (the last chunk when chunked) and the connection is closed.
struct Response {
  int status = 200;
  // When set, sent as it stands in place of the status line made from `status` (no line end),
  // for servers that send a malformed one.
  std::string statusLine;
  Headers headers;  // sent in this order; a Content-Length here wins
  Framing framing = Framing::kContentLength;
  // A stall before the head, watched like a sleep step (for "no head arrives" cases).
  std::chrono::milliseconds headDelay{0};
  std::vector<Step> steps;

  // Appenders, for writing a script in one expression.
  Response& header(std::string name, std::string value);
  Response& send(std::string bytes);
  Response& sleep(std::chrono::milliseconds duration);
  Response& close();
  Response& reset();

  // `status` with a JSON body and Content-Length.
  static Response json(int status, std::string body);
  // 200 with `body` cut into pieces of `chunkBytes` (0: one piece), one send step each, with a
  // sleep of `gap` between pieces when `gap` is positive. Consecutive sends with no sleep
  // between them leave in one write; a client sees pieces apart only with a gap.
  static Response stream(std::string body, std::size_t chunkBytes,
                         Framing framing = Framing::kChunked,
                         std::chrono::milliseconds gap = std::chrono::milliseconds{0});
  // 200 that sends the head and `before`, is silent for `stall`, then sends `after`.
  static Response stallThenSend(std::string before, std::chrono::milliseconds stall,
                                std::string after, Framing framing = Framing::kChunked);
  // 200 that declares all of `body` (Content-Length or chunked) but sends only its first
  // `sentBytes`, then closes. Close-delimited, the client cannot tell this from a whole body.
  static Response closeMidBody(std::string body, std::size_t sentBytes,
                               Framing framing = Framing::kContentLength);
};

struct RecordedRequest {
  std::string method;
  std::string target;  // path and query, as sent
  Headers headers;     // in the order received
  std::string body;    // as long as its Content-Length says

  // The value of the first header named `name` (ASCII case-insensitive), or nullopt.
  std::optional<std::string> header(std::string_view name) const;
};

class ScriptedServer {
 public:
  // Listens on 127.0.0.1 on a port the system picks. Throws std::system_error if it cannot.
  ScriptedServer();
  // Stops at once: sleeps are cut short and connections still open are closed.
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::uint16_t port() const { return port_; }
  std::string baseUrl() const;  // "http://127.0.0.1:PORT"

  void enqueue(Response response);
  // Initially 404 with a short text body.
  void setDefaultResponse(Response response);

  // Every complete request received so far, in arrival order.
  std::vector<RecordedRequest> requests() const;
  // True once at least `n` requests have been recorded; false after `timeout`.
  bool waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const;

  // When the server last noticed a client hang up while a response was under way: in a head
  // delay or a sleep step (the peer closed or shut down its sending side), or when a send
  // failed; not set by a client that reads its response to the end. Waits until it is set (at
  // once if it already is); nullopt after `timeout`.
  std::optional<std::chrono::steady_clock::time_point> waitForClientDisconnect(
      std::chrono::milliseconds timeout) const;

 private:
  struct Connection {
    std::thread thread;
    bool done = false;  // guarded by mutex_
  };

  void acceptLoop();
  void serve(int fd, Connection* connection);
  Response takeResponse();
  void record(RecordedRequest request);
  void noteDisconnect(std::chrono::steady_clock::time_point when);

  int listenFd_ = -1;
  int wakeFd_ = -1;  // an eventfd that turns readable, for good, when the server stops
  std::uint16_t port_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::deque<Response> queue_;
  Response defaultResponse_;
  std::vector<RecordedRequest> requests_;
  std::optional<std::chrono::steady_clock::time_point> lastDisconnect_;
  std::list<Connection> connections_;  // touched by the accepting thread, then the destructor

  std::thread acceptor_;
};

}  // namespace lumora::testing
