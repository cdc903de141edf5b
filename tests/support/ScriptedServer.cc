#include "support/ScriptedServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
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
  switch (status) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 202:
      return "Accepted";
    case 204:
      return "No Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 408:
      return "Request Timeout";
    case 413:
      return "Content Too Large";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Status";
  }
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

  // Reads the next request. Returns kOk with `error` set when the request is malformed.
  Io readRequest(RecordedRequest& request, std::string& error);
  // Sends every byte of `pieces`, in as few system calls as the kernel allows.
  // `pieces` is used up in the process.
  Io sendAll(iovec* pieces, std::size_t count);
  // Waits `duration`, ending early when the peer hangs up or the server stops.
  Io sleepFor(std::chrono::milliseconds duration);
  // Closes so that the client sees the end of the stream: a FIN, not an RST.
  void closeGracefully();
  void resetConnection();

 private:
  // Waits until `fd_` reports one of `events` or the server stops; -1 waits without limit.
  Io waitFor(short events, int timeoutMs, short& revents);
  Io fill();
  Io readLine(std::string& line);
  Io readExact(std::size_t n, std::string& out);
  Io readChunkedBody(std::string& body, std::string& error);

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

Io Conn::readChunkedBody(std::string& body, std::string& error) {
  std::string line;
  while (true) {
    if (Io io = readLine(line); io != Io::kOk) return io;
    std::string_view size = trim(std::string_view(line).substr(0, line.find(';')));
    std::size_t n = 0;
    auto [end, ec] = std::from_chars(size.data(), size.data() + size.size(), n, 16);
    if (size.empty() || ec != std::errc() || end != size.data() + size.size() ||
        n > kMaxBodyBytes - body.size()) {
      error = "bad chunk size line in the request body: \"" + line + "\"";
      return Io::kOk;
    }
    if (n == 0) break;
    if (Io io = readExact(n, body); io != Io::kOk) return io;
    if (Io io = readLine(line); io != Io::kOk) return io;
    if (!line.empty()) {
      error = "a request body chunk is longer than its size line says";
      return Io::kOk;
    }
  }
  do {  // trailer fields, which nothing here needs
    if (Io io = readLine(line); io != Io::kOk) return io;
  } while (!line.empty());
  return Io::kOk;
}

Io Conn::readRequest(RecordedRequest& request, std::string& error) {
  std::string line;
  if (Io io = readLine(line); io != Io::kOk) return io;
  {
    std::string_view rest = line;
    std::size_t sp1 = rest.find(' ');
    std::size_t sp2 = sp1 == std::string_view::npos ? sp1 : rest.find(' ', sp1 + 1);
    if (sp2 == std::string_view::npos || sp1 == 0 || sp2 == sp1 + 1 ||
        !rest.substr(sp2 + 1).starts_with("HTTP/1.")) {
      error = "bad request line: \"" + line + "\"";
      return Io::kOk;
    }
    request.method = rest.substr(0, sp1);
    request.target = rest.substr(sp1 + 1, sp2 - sp1 - 1);
    request.version = rest.substr(sp2 + 1);
  }
  while (true) {
    if (Io io = readLine(line); io != Io::kOk) return io;
    if (line.empty()) break;
    std::size_t colon = line.find(':');
    if (line.front() == ' ' || line.front() == '\t' || colon == std::string::npos || colon == 0 ||
        trim(std::string_view(line).substr(0, colon)).size() != colon) {
      error = "bad header line: \"" + line + "\"";
      return Io::kOk;
    }
    request.headers.emplace_back(line.substr(0, colon),
                                 trim(std::string_view(line).substr(colon + 1)));
  }

  // libcurl waits up to a second for this before sending a large or chunked body.
  if (auto expect = request.header("Expect"); expect && equalsIgnoreCase(*expect, "100-continue")) {
    constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    iovec piece{const_cast<char*>(kContinue.data()), kContinue.size()};
    if (Io io = sendAll(&piece, 1); io != Io::kOk) return io;
  }

  if (auto coding = request.header("Transfer-Encoding")) {
    if (!equalsIgnoreCase(*coding, "chunked")) {
      error = "unsupported request transfer coding: \"" + *coding + "\"";
      return Io::kOk;
    }
    return readChunkedBody(request.body, error);
  }
  if (auto length = request.header("Content-Length")) {
    std::size_t n = 0;
    auto [end, ec] = std::from_chars(length->data(), length->data() + length->size(), n);
    if (length->empty() || ec != std::errc() || end != length->data() + length->size() ||
        n > kMaxBodyBytes) {
      error = "bad Content-Length: \"" + *length + "\"";
      return Io::kOk;
    }
    return readExact(n, request.body);
  }
  return Io::kOk;
}

Io Conn::sendAll(iovec* pieces, std::size_t count) {
  std::size_t first = 0;
  while (first < count) {
    if (pieces[first].iov_len == 0) {
      ++first;
      continue;
    }
    msghdr message{};
    message.msg_iov = pieces + first;
    message.msg_iovlen = std::min<std::size_t>(count - first, IOV_MAX);
    ssize_t sent = ::sendmsg(fd_.get(), &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      // Any other failure (EPIPE, ECONNRESET) means the client is gone.
      if (errno != EAGAIN && errno != EWOULDBLOCK) return Io::kPeerGone;
      // A client that hangs up while the send buffer is full shows up as POLLERR or POLLHUP;
      // sendmsg then reports it.
      short revents = 0;
      if (Io io = waitFor(POLLOUT, -1, revents); io != Io::kOk) return io;
      continue;
    }
    auto remaining = static_cast<std::size_t>(sent);
    while (remaining > 0) {
      iovec& piece = pieces[first];
      std::size_t used = std::min(remaining, piece.iov_len);
      piece.iov_base = static_cast<char*>(piece.iov_base) + used;
      piece.iov_len -= used;
      remaining -= used;
      if (piece.iov_len == 0) ++first;
    }
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
  std::string out = "HTTP/1.1 " + std::to_string(response.status) + " ";
  out += response.reason.empty() ? reasonPhrase(response.status) : response.reason;
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
      if (!findHeader(response.headers, "Transfer-Encoding")) {
        out += "Transfer-Encoding: chunked\r\n";
      }
      break;
    case Framing::kCloseDelimited:
    case Framing::kRaw:
      break;
  }
  if (!findHeader(response.headers, "Connection")) out += "Connection: close\r\n";
  out += "\r\n";
  return out;
}

// Gathers consecutive sends into one sendmsg per IOV_MAX pieces: a 22 MB body in small chunks
// would otherwise cost a system call per chunk. Bounded, so that the first bytes of a long run
// leave before the last are even looked at.
class Writer {
 public:
  Writer(Conn& conn, bool chunked) : conn_(conn), chunked_(chunked) {}

  // `bytes` must stay alive until the next flush().
  Io add(std::string_view bytes) {
    if (bytes.empty()) return Io::kOk;  // an empty chunk would end a chunked body
    if (!chunked_) return addRaw(bytes);
    if (count_ + 3 > iov_.size()) {
      if (Io io = flush(); io != Io::kOk) return io;
    }
    std::array<char, 24>& line = sizeLines_[lines_++];
    char* end = std::to_chars(line.data(), line.data() + line.size() - 2, bytes.size(), 16).ptr;
    *end++ = '\r';
    *end++ = '\n';
    push({line.data(), static_cast<std::size_t>(end - line.data())});
    push(bytes);
    push(kCrLf);
    return Io::kOk;
  }

  Io addRaw(std::string_view bytes) {
    if (bytes.empty()) return Io::kOk;
    if (count_ + 1 > iov_.size()) {
      if (Io io = flush(); io != Io::kOk) return io;
    }
    push(bytes);
    return Io::kOk;
  }

  Io flush() {
    Io io = conn_.sendAll(iov_.data(), count_);
    count_ = 0;
    lines_ = 0;
    return io;
  }

 private:
  static constexpr std::string_view kCrLf = "\r\n";
  static constexpr std::size_t kMaxPieces = IOV_MAX;

  void push(std::string_view bytes) {
    iov_[count_++] = iovec{const_cast<char*>(bytes.data()), bytes.size()};
  }

  Conn& conn_;
  bool chunked_;
  std::array<iovec, kMaxPieces> iov_;
  std::size_t count_ = 0;
  std::array<std::array<char, 24>, kMaxPieces / 3> sizeLines_;
  std::size_t lines_ = 0;
};

// Plays `response` on `conn`. Returns kOk once the connection is closed by the script.
Io play(Conn& conn, const Response& response) {
  if (response.headDelay.count() > 0) {
    if (Io io = conn.sleepFor(response.headDelay); io != Io::kOk) return io;
  }
  const bool chunked = response.framing == Framing::kChunked;
  const std::string headText = response.framing == Framing::kRaw ? "" : head(response);
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

std::optional<Clock::time_point> ScriptedServer::lastClientDisconnect() const {
  std::lock_guard lock(mutex_);
  return lastDisconnect_;
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
    std::string error;
    Io io = conn.readRequest(request, error);
    if (io == Io::kOk && !error.empty()) {
      Response rejection;
      rejection.status = 400;
      rejection.header("Content-Type", "text/plain").send(error + "\n");
      play(conn, rejection);
    } else if (io == Io::kOk) {
      request.receivedAt = Clock::now();
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
