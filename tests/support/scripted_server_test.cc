// Faults of the scripted server itself that the tests over it would not show: the bytes on the
// wire, noticing a hang-up, stopping, and bodies too large for one write. Checked with a raw
// socket, so that a broken server cannot hide behind our own transport.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "support/ScriptedServer.h"

namespace lumora::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A plain TCP client, which sees the bytes as sent and can hang up on cue.
class RawClient {
 public:
  explicit RawClient(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    timeval limit{5, 0};  // a server fault fails the test instead of hanging it
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~RawClient() { hangUp(); }

  bool connected() const { return connected_; }
  void sendRequest(const std::string& target = "/") {
    const std::string request = "GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(::send(fd_, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
  }
  // Reads until `n` bytes have arrived in all, or the stream ends.
  std::string readAtLeast(std::size_t n) {
    std::string received;
    char buffer[64 * 1024];
    while (received.size() < n) {
      ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      received.append(buffer, static_cast<std::size_t>(got));
    }
    return received;
  }
  // Reads to the end of the stream and returns how many bytes came, keeping only the last few:
  // storing megabytes would time this machine's page faults rather than the server.
  std::size_t drain(std::string& tail) {
    std::size_t total = 0;
    char buffer[64 * 1024];
    while (true) {
      ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      total += static_cast<std::size_t>(got);
      tail.append(buffer, static_cast<std::size_t>(got));
      if (tail.size() > 64) tail.erase(0, tail.size() - 64);
    }
    return total;
  }
  void hangUp() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
  bool connected_ = false;
};

TEST(ScriptedServer, OneByteChunksReallyAreOneByteOnTheWire) {
  ScriptedServer server;
  server.enqueue(Response::stream("a\r\nb", 1));
  RawClient client(server.port());
  client.sendRequest();
  const std::string response = client.readAtLeast(SIZE_MAX);
  EXPECT_TRUE(response.ends_with("\r\n\r\n1\r\na\r\n1\r\n\r\r\n1\r\n\n\r\n1\r\nb\r\n0\r\n\r\n"))
      << response;
}

TEST(ScriptedServer, NoticesAClientHangingUpMidResponse) {
  struct Case {
    const char* name;
    Response response;
    std::size_t readBeforeHangUp;
  };
  Response beforeHead = Response::json(200, "{}");
  beforeHead.headDelay = 5s;
  Case cases[] = {
      {"stalled before the head", std::move(beforeHead), 0},
      {"stalled after the head", Response::stallThenSend("data: 1\n\n", 5s, "data: 2\n\n"), 1},
      // Larger than the socket buffers on both ends, so that the server is still sending.
      {"blocked sending a large body", Response::stream(std::string(24 << 20, 'L'), 64 * 1024),
       1 << 20},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server;
    server.enqueue(std::move(c.response));
    RawClient client(server.port());
    ASSERT_TRUE(client.connected());
    client.sendRequest();
    ASSERT_TRUE(server.waitForRequests(1, 1s));
    ASSERT_GE(client.readAtLeast(c.readBeforeHangUp).size(), c.readBeforeHangUp);
    const Clock::time_point hungUp = Clock::now();
    client.hangUp();
    auto noticed = server.waitForClientDisconnect(1s);  // the script would go on for seconds
    ASSERT_TRUE(noticed.has_value());
    EXPECT_GE(*noticed, hungUp);
  }
}

TEST(ScriptedServer, ClientReadingToTheEndIsNotADisconnect) {
  ScriptedServer server;
  server.enqueue(Response::stream("abc", 1));
  RawClient client(server.port());
  client.sendRequest();
  EXPECT_TRUE(client.readAtLeast(SIZE_MAX).ends_with("0\r\n\r\n"));
  EXPECT_FALSE(server.waitForClientDisconnect(200ms).has_value());
}

// A destructor that waited would hang the test until its time limit.
TEST(ScriptedServer, DestructorDoesNotWaitForSleepsOrIdleClients) {
  auto server = std::make_unique<ScriptedServer>();
  server->enqueue(Response::stallThenSend("first", 10min, "never"));
  // Connections are accepted in order, so once the second client has its head, the server
  // holds this one too.
  RawClient silent(server->port());  // never sends a request
  RawClient sleeping(server->port());
  sleeping.sendRequest();
  ASSERT_FALSE(sleeping.readAtLeast(1).empty());  // the head: the server is now asleep
  server.reset();
}

TEST(ScriptedServer, ServesA22MegabyteBodyWhole) {
  const std::size_t size = 22 << 20;
  for (std::size_t chunkBytes : {std::size_t{64 * 1024}, std::size_t{100}}) {
    SCOPED_TRACE(chunkBytes);
    ScriptedServer server;
    server.enqueue(Response::stream(std::string(size, 'b'), chunkBytes));
    RawClient client(server.port());
    client.sendRequest();
    std::string tail;
    const std::size_t received = client.drain(tail);
    // Its speed is measured where speed is measured: bench/stream.
    EXPECT_GT(received, size);
    EXPECT_TRUE(tail.ends_with("\r\n0\r\n\r\n"));
  }
}

}  // namespace
}  // namespace lumora::testing
