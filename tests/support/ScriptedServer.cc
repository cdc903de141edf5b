#include "support/ScriptedServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace lumora::testing {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxHeadBytes = 1 << 20;
constexpr std::size_t kMaxBodyBytes = std::size_t{1} << 30;

char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return lowerAscii(x) == lowerAscii(y);
         });
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::optional<std::string> findHeader(const Headers& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoreCase(key, name)) return value;
  }
  return std::nullopt;
}

std::string_view reasonPhrase(int status) {
  static constexpr std::pair<int, std::string_view> kPhrases[] = {{200, "OK"},
                                                                  {201, "Created"},
                                                                  {400, "Bad Request"},
                                                                  {401, "Unauthorized"},
                                                                  {404, "Not Found"},
                                                                  {429, "Too Many Requests"},
                                                                  {500, "Internal Server Error"},
                                                                  {502, "Bad Gateway"},
                                                                  {503, "Service Unavailable"}};
  for (const auto& [code, phrase] : kPhrases)
    if (code == status) return phrase;
  return "Status";
}

std::system_error systemError(const char* what) {
  return std::system_error(errno, std::generic_category(), what);
}

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

enum class Io { kOk, kPeerGone, kStopped };

// One accepted socket (non-blocking) and everything the server reads from it. Every wait polls
// the wake descriptor too, so that no connection outlives the server's destructor.
class Conn {
 public:
  Conn(int fd, int wakeFd) : fd_(fd), wakeFd_(wakeFd) {}

  // Reads the next request, as the clients here write them: no request is malformed.
  Io readRequest(RecordedRequest& request);
  // Sends every byte of `bytes`.
  Io sendAll(std::string_view bytes);
  // Waits `duration`, ending early when the peer hangs up or the server stops.
  Io sleepFor(std::chrono::milliseconds duration);
  // Closes so that the client sees the end of the stream: a FIN, not an RST.
  void closeGracefully();
  // Closes with an RST: the client's next read fails.
  void resetConnection();

 private:
  // Waits until `fd_` reports one of `events` or the server stops; -1 waits without limit.
  Io waitFor(short events, int timeoutMs, short& revents);
  Io fill();
  Io readLine(std::string& line);
  Io readExact(std::size_t n, std::string& out);

  UniqueFd fd_;
  int wakeFd_;
  std::string buffer_;
  std::size_t pos_ = 0;  // consumed prefix of buffer_
};

Io Conn::waitFor(short events, int timeoutMs, short& revents) {
  std::array<pollfd, 2> fds{pollfd{fd_.get(), events, 0}, pollfd{wakeFd_, POLLIN, 0}};
  while (true) {
    int n = ::poll(fds.data(), fds.size(), timeoutMs);
    if (n < 0 && errno == EINTR) continue;
    if (fds[1].revents != 0) return Io::kStopped;
    revents = n > 0 ? fds[0].revents : 0;
    return Io::kOk;
  }
}

Io Conn::fill() {
  std::array<char, 64 * 1024> scratch;
  while (true) {
    ssize_t n = ::recv(fd_.get(), scratch.data(), scratch.size(), 0);
    if (n > 0) {
      buffer_.append(scratch.data(), static_cast<std::size_t>(n));
      return Io::kOk;
    }
    if (n == 0) return Io::kPeerGone;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Io::kPeerGone;
    short revents = 0;
    if (Io io = waitFor(POLLIN, -1, revents); io != Io::kOk) return io;
  }
}

Io Conn::readLine(std::string& line) {
  std::size_t searched = pos_;
  while (true) {
    std::size_t end = buffer_.find("\r\n", searched);
    if (end != std::string::npos) {
      line.assign(buffer_, pos_, end - pos_);
      pos_ = end + 2;
      return Io::kOk;
    }
    if (buffer_.size() - pos_ > kMaxHeadBytes) return Io::kPeerGone;
    // A CR at the end may be half of a CR LF that the next read completes.
    searched = buffer_.size() > pos_ ? buffer_.size() - 1 : pos_;
    if (Io io = fill(); io != Io::kOk) return io;
  }
}

Io Conn::readExact(std::size_t n, std::string& out) {
  while (buffer_.size() - pos_ < n) {
    if (Io io = fill(); io != Io::kOk) return io;
  }
  out.append(buffer_, pos_, n);
  pos_ += n;
  return Io::kOk;
}

Io Conn::readRequest(RecordedRequest& request) {
  std::string line;
  if (Io io = readLine(line); io != Io::kOk) return io;
  const std::size_t space = line.find(' ');
  request.method = line.substr(0, space);
  request.target = line.substr(space + 1, line.find(' ', space + 1) - space - 1);
  while (true) {
    if (Io io = readLine(line); io != Io::kOk) return io;
    if (line.empty()) break;
    const std::size_t colon = line.find(':');
    request.headers.emplace_back(line.substr(0, colon),
                                 trim(std::string_view(line).substr(colon + 1)));
  }
  std::size_t length = 0;
  if (auto value = request.header("Content-Length"))
    std::from_chars(value->data(), value->data() + value->size(), length);
  return readExact(std::min(length, kMaxBodyBytes), request.body);
}

Io Conn::sendAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    if (errno == EINTR) continue;
    // Any other failure (EPIPE, ECONNRESET) means the client is gone.
    if (errno != EAGAIN && errno != EWOULDBLOCK) return Io::kPeerGone;
    // A client that hangs up while the send buffer is full shows up as POLLERR or POLLHUP;
    // send then reports it.
    short revents = 0;
    if (Io io = waitFor(POLLOUT, -1, revents); io != Io::kOk) return io;
  }
  return Io::kOk;
}

Io Conn::sleepFor(std::chrono::milliseconds duration) {
  const Clock::time_point deadline = Clock::now() + duration;
  while (true) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Io::kOk;
    short revents = 0;
    int timeoutMs = static_cast<int>(std::min<std::int64_t>(left.count(), INT_MAX));
    if (Io io = waitFor(POLLIN | POLLRDHUP, timeoutMs, revents); io != Io::kOk) return io;
    if ((revents & (POLLERR | POLLHUP | POLLRDHUP)) != 0) return Io::kPeerGone;
    if ((revents & POLLIN) != 0) {
      // Bytes after the request are not expected; drop them, but notice an end of stream.
      std::array<char, 4096> scratch;
      ssize_t n = ::recv(fd_.get(), scratch.data(), scratch.size(), 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
        return Io::kPeerGone;
      }
    }
  }
}

void Conn::closeGracefully() {
  // Unread input at close() makes the kernel send an RST, which can discard what the client has
  // not read yet; drop it first, then send the FIN ahead of the close.
  std::array<char, 4096> scratch;
  while (::recv(fd_.get(), scratch.data(), scratch.size(), MSG_DONTWAIT) > 0) {
  }
  ::shutdown(fd_.get(), SHUT_WR);
  ::close(fd_.release());
}

void Conn::resetConnection() {
  linger abortive{1, 0};
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  ::close(fd_.release());
}

std::string head(const Response& response) {
  std::string out = response.statusLine;
  if (out.empty()) {
    out = "HTTP/1.1 " + std::to_string(response.status) + " ";
    out += reasonPhrase(response.status);
  }
  out += "\r\n";
  for (const auto& [name, value] : response.headers) out += name + ": " + value + "\r\n";
  switch (response.framing) {
    case Framing::kContentLength:
      if (!findHeader(response.headers, "Content-Length")) {
        std::size_t total = 0;
        for (const Step& step : response.steps) total += step.length;
        out += "Content-Length: " + std::to_string(total) + "\r\n";
      }
      break;
    case Framing::kChunked:
      out += "Transfer-Encoding: chunked\r\n";
      break;
    case Framing::kCloseDelimited:
      break;
  }
  if (!findHeader(response.headers, "Connection")) out += "Connection: close\r\n";
  out += "\r\n";
  return out;
}

// Gathers consecutive sends, framed, into writes of up to 256 KiB: a 22 MB body in small
// chunks would otherwise cost a system call per chunk. Bounded, so that the first bytes of a
// long run leave before the last are even looked at.
class Writer {
 public:
  Writer(Conn& conn, bool chunked) : conn_(conn), chunked_(chunked) {}

  Io add(std::string_view bytes) {
    if (bytes.empty()) return Io::kOk;  // an empty chunk would end a chunked body
    if (!chunked_) return addRaw(bytes);
    std::array<char, 16> size;
    buffer_.append(size.data(),
                   std::to_chars(size.data(), size.data() + size.size(), bytes.size(), 16).ptr);
    buffer_.append("\r\n").append(bytes).append("\r\n");
    return buffer_.size() < kFlushBytes ? Io::kOk : flush();
  }

  Io addRaw(std::string_view bytes) {
    buffer_.append(bytes);
    return buffer_.size() < kFlushBytes ? Io::kOk : flush();
  }

  Io flush() {
    Io io = conn_.sendAll(buffer_);
    buffer_.clear();
    return io;
  }

 private:
  static constexpr std::size_t kFlushBytes = 256 * 1024;

  Conn& conn_;
  bool chunked_;
  std::string buffer_;
};

// Plays `response` on `conn`. Returns kOk once the connection is closed by the script.
Io play(Conn& conn, const Response& response) {
  if (response.headDelay.count() > 0) {
    if (Io io = conn.sleepFor(response.headDelay); io != Io::kOk) return io;
  }
  const bool chunked = response.framing == Framing::kChunked;
  const std::string headText = head(response);
  Writer writer(conn, chunked);
  if (Io io = writer.addRaw(headText); io != Io::kOk) return io;
  for (const Step& step : response.steps) {
    switch (step.kind) {
      case Step::Kind::kSend:
        if (Io io = writer.add(step.bytes()); io != Io::kOk) return io;
        break;
      case Step::Kind::kSleep:
        if (Io io = writer.flush(); io != Io::kOk) return io;
        if (Io io = conn.sleepFor(step.duration); io != Io::kOk) return io;
        break;
      case Step::Kind::kClose:
        if (Io io = writer.flush(); io != Io::kOk) return io;
        conn.closeGracefully();
        return Io::kOk;
      case Step::Kind::kReset:
        // What was sent before the reset reaches the client only if it left before the RST,
        // so flush first.
        if (Io io = writer.flush(); io != Io::kOk) return io;
        conn.resetConnection();
        return Io::kOk;
    }
  }
  if (chunked) {
    if (Io io = writer.addRaw("0\r\n\r\n"); io != Io::kOk) return io;
  }
  if (Io io = writer.flush(); io != Io::kOk) return io;
  conn.closeGracefully();
  return Io::kOk;
}

std::shared_ptr<const std::string> share(std::string bytes) {
  return std::make_shared<const std::string>(std::move(bytes));
}

Step sendStep(std::shared_ptr<const std::string> data, std::size_t offset, std::size_t length) {
  Step step;
  step.kind = Step::Kind::kSend;
  step.data = std::move(data);
  step.offset = offset;
  step.length = length;
  return step;
}

}  // namespace

std::string_view Step::bytes() const {
  if (!data) return {};
  return std::string_view(*data).substr(offset, length);
}

Response& Response::header(std::string name, std::string value) {
  headers.emplace_back(std::move(name), std::move(value));
  return *this;
}

Response& Response::send(std::string bytes) {
  std::size_t size = bytes.size();
  steps.push_back(sendStep(share(std::move(bytes)), 0, size));
  return *this;
}

Response& Response::sleep(std::chrono::milliseconds duration) {
  Step step;
  step.kind = Step::Kind::kSleep;
  step.duration = duration;
  steps.push_back(std::move(step));
  return *this;
}

Response& Response::close() {
  Step step;
  step.kind = Step::Kind::kClose;
  steps.push_back(std::move(step));
  return *this;
}

Response& Response::reset() {
  Step step;
  step.kind = Step::Kind::kReset;
  steps.push_back(std::move(step));
  return *this;
}

Response Response::json(int status, std::string body) {
  Response response;
  response.status = status;
  response.header("Content-Type", "application/json");
  response.send(std::move(body));
  return response;
}

Response Response::stream(std::string body, std::size_t chunkBytes, Framing framing,
                          std::chrono::milliseconds gap) {
  Response response;
  response.framing = framing;
  const std::size_t size = body.size();
  const std::size_t piece = chunkBytes == 0 ? std::max<std::size_t>(size, 1) : chunkBytes;
  auto shared = share(std::move(body));
  response.steps.reserve(2 * (size / piece + 1));
  for (std::size_t offset = 0; offset < size; offset += piece) {
    if (offset > 0 && gap.count() > 0) response.sleep(gap);
    response.steps.push_back(sendStep(shared, offset, std::min(piece, size - offset)));
  }
  return response;
}

Response Response::stallThenSend(std::string before, std::chrono::milliseconds stall,
                                 std::string after, Framing framing) {
  Response response;
  response.framing = framing;
  response.send(std::move(before)).sleep(stall).send(std::move(after));
  return response;
}

Response Response::closeMidBody(std::string body, std::size_t sentBytes, Framing framing) {
  Response response;
  response.framing = framing;
  if (framing == Framing::kContentLength) {
    response.header("Content-Length", std::to_string(body.size()));
  }
  body.resize(std::min(sentBytes, body.size()));
  response.send(std::move(body)).close();
  return response;
}

std::optional<std::string> RecordedRequest::header(std::string_view name) const {
  return findHeader(headers, name);
}

ScriptedServer::ScriptedServer() {
  defaultResponse_.status = 404;
  defaultResponse_.header("Content-Type", "text/plain").send("no scripted response left\n");

  UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (listener.get() < 0) throw systemError("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw systemError("bind 127.0.0.1");
  }
  if (::listen(listener.get(), 128) != 0) throw systemError("listen");
  socklen_t length = sizeof address;
  if (::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw systemError("getsockname");
  }
  port_ = ntohs(address.sin_port);
  UniqueFd wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (wake.get() < 0) throw systemError("eventfd");

  listenFd_ = listener.release();
  wakeFd_ = wake.release();
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  std::uint64_t one = 1;
  // The counter stays non-zero, so every poll on it, now or later, returns at once.
  [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
  acceptor_.join();
  for (Connection& connection : connections_) connection.thread.join();
  ::close(listenFd_);
  ::close(wakeFd_);
}

std::string ScriptedServer::baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

void ScriptedServer::enqueue(Response response) {
  std::lock_guard lock(mutex_);
  queue_.push_back(std::move(response));
}

void ScriptedServer::setDefaultResponse(Response response) {
  std::lock_guard lock(mutex_);
  defaultResponse_ = std::move(response);
}

std::vector<RecordedRequest> ScriptedServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

bool ScriptedServer::waitForRequests(std::size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
}

std::optional<Clock::time_point> ScriptedServer::waitForClientDisconnect(
    std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return lastDisconnect_.has_value(); });
  return lastDisconnect_;
}

void ScriptedServer::acceptLoop() {
  std::array<pollfd, 2> fds{pollfd{listenFd_, POLLIN, 0}, pollfd{wakeFd_, POLLIN, 0}};
  while (true) {
    if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    if ((fds[0].revents & POLLIN) == 0) continue;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) continue;
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    // Finished connection threads are joined here, so that a long benchmark does not pile
    // them up until the destructor.
    std::list<Connection> finished;
    {
      std::lock_guard lock(mutex_);
      for (auto it = connections_.begin(); it != connections_.end();) {
        auto next = std::next(it);
        if (it->done) finished.splice(finished.end(), connections_, it);
        it = next;
      }
      connections_.emplace_back();
    }
    for (Connection& connection : finished) connection.thread.join();
    Connection* connection = &connections_.back();
    connection->thread = std::thread([this, fd, connection] { serve(fd, connection); });
  }
}

void ScriptedServer::serve(int fd, Connection* connection) {
  {
    Conn conn(fd, wakeFd_);
    RecordedRequest request;
    if (conn.readRequest(request) == Io::kOk) {
      Response response = takeResponse();
      record(std::move(request));
      if (play(conn, response) == Io::kPeerGone) noteDisconnect(Clock::now());
    }
  }
  std::lock_guard lock(mutex_);
  connection->done = true;
}

Response ScriptedServer::takeResponse() {
  std::lock_guard lock(mutex_);
  if (queue_.empty()) return defaultResponse_;
  Response response = std::move(queue_.front());
  queue_.pop_front();
  return response;
}

void ScriptedServer::record(RecordedRequest request) {
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(std::move(request));
  }
  changed_.notify_all();
}

void ScriptedServer::noteDisconnect(Clock::time_point when) {
  {
    std::lock_guard lock(mutex_);
    lastDisconnect_ = when;
  }
  changed_.notify_all();
}

}  // namespace lumora::testing
