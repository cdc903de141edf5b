// Faults of the scripted server itself, checked against an independent HTTP client (the curl
// command) or a raw socket, so that a broken server cannot hide behind our own transport.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "support/Fixtures.h"
#include "support/ScriptedServer.h"

namespace lumora::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct CurlResult {
  int exitCode = -1;
  std::string statusCode;  // from --write-out
  std::string body;        // what curl wrote to its output file
};

// Runs the curl command (no config file, no proxy, bounded in time) with `arguments` appended.
CurlResult runCurl(const std::string& arguments) {
  const std::filesystem::path out = std::filesystem::temp_directory_path() /
                                    ("scripted_server_test." + std::to_string(::getpid()) + ".out");
  std::filesystem::remove(out);
  const std::string command = "curl -q -sS --noproxy '*' --max-time 5 -o '" + out.string() +
                              "' -w '%{http_code}' " + arguments + " 2>/dev/null";
  CurlResult result;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) result.statusCode += buffer;
  const int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (std::filesystem::exists(out)) result.body = readFile(out);
  std::filesystem::remove(out);
  return result;
}

// A plain TCP client, for what curl cannot do on cue: hang up mid-response.
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

// Has CR LF, a lone CR, text that looks like a chunk size line and a last chunk, and every
// byte value but NUL, so that no framing can pass by treating the body as lines or text.
std::string awkwardBody() {
  std::string body = "data: {\"a\":1}\r\n\r\n0\r\n\r\nx\ry\n";
  for (int i = 1; i < 256; ++i) body.push_back(static_cast<char>(i));
  body += "\r\n5\r\nend";
  return body;
}

TEST(ScriptedServer, FramingsDeliverTheBodyExactly) {
  const std::string body = awkwardBody();
  struct Case {
    const char* name;
    Framing framing;
    std::size_t chunkBytes;
  };
  const Case cases[] = {
      {"chunked, 1-byte chunks", Framing::kChunked, 1},
      {"chunked, 7-byte chunks", Framing::kChunked, 7},
      {"chunked, one chunk", Framing::kChunked, 0},
      {"content-length, in pieces", Framing::kContentLength, 5},
      {"close-delimited, in pieces", Framing::kCloseDelimited, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server;
    server.enqueue(Response::stream(body, c.chunkBytes, c.framing));
    CurlResult result = runCurl(server.baseUrl() + "/stream");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.statusCode, "200");
    EXPECT_EQ(result.body, body);
  }
}

TEST(ScriptedServer, OneByteChunksReallyAreOneByteOnTheWire) {
  ScriptedServer server;
  server.enqueue(Response::stream("a\r\nb", 1));
  CurlResult result = runCurl("--raw " + server.baseUrl());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.body, "1\r\na\r\n1\r\n\r\r\n1\r\n\n\r\n1\r\nb\r\n0\r\n\r\n");
}

TEST(ScriptedServer, CutShortResponsesFailInTheClient) {
  const std::string body(100'000, 'z');
  struct Case {
    const char* name;
    Response response;
    int curlExit;
  };
  Case cases[] = {
      // CURLE_PARTIAL_FILE: the body ended before its framing said it would.
      {"content-length", Response::closeMidBody(body, 60'000, Framing::kContentLength), 18},
      {"chunked", Response::closeMidBody(body, 60'000, Framing::kChunked), 18},
      // CURLE_RECV_ERROR: connection reset.
      {"reset", Response::stream(body, 0).reset(), 56},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server;
    server.enqueue(std::move(c.response));
    CurlResult result = runCurl(server.baseUrl());
    EXPECT_EQ(result.exitCode, c.curlExit);
    if (c.curlExit == 18) {
      EXPECT_EQ(result.body, body.substr(0, 60'000));
    }
  }
}

TEST(ScriptedServer, RecordsRequestsAndAnswersFromTheQueueThenTheDefault) {
  ScriptedServer server;
  server.enqueue(Response::json(201, R"({"first":true})"));
  const std::string upload = "line one\r\nline two\x01\xff";
  const std::filesystem::path uploadFile =
      std::filesystem::temp_directory_path() /
      ("scripted_server_test." + std::to_string(::getpid()) + ".up");
  {
    FILE* f = std::fopen(uploadFile.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(upload.data(), 1, upload.size(), f);
    std::fclose(f);
  }

  CurlResult first = runCurl("-H 'X-Trace: abc' --data-binary @" + uploadFile.string() + " '" +
                             server.baseUrl() + "/v1/chat?stream=true'");
  EXPECT_EQ(first.statusCode, "201");
  EXPECT_EQ(first.body, R"({"first":true})");
  // A chunked request body, which curl sends after an Expect: 100-continue.
  CurlResult second = runCurl("-H 'Transfer-Encoding: chunked' --data-binary @" +
                              uploadFile.string() + " " + server.baseUrl() + "/again");
  EXPECT_EQ(second.statusCode, "404");
  std::filesystem::remove(uploadFile);

  ASSERT_TRUE(server.waitForRequests(2, 1s));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].target, "/v1/chat?stream=true");
  EXPECT_EQ(requests[0].header("x-trace"), "abc");
  EXPECT_EQ(requests[0].header("X-Absent"), std::nullopt);
  EXPECT_EQ(requests[0].body, upload);
  EXPECT_EQ(requests[1].target, "/again");
  EXPECT_EQ(requests[1].body, upload);
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
    auto noticed = server.waitForClientDisconnect(1s);
    ASSERT_TRUE(noticed.has_value());
    EXPECT_GE(*noticed, hungUp);
    EXPECT_LT(*noticed - hungUp, 100ms);
  }
}

TEST(ScriptedServer, ClientReadingToTheEndIsNotADisconnect) {
  ScriptedServer server;
  server.enqueue(Response::stream("abc", 1));
  EXPECT_EQ(runCurl(server.baseUrl()).exitCode, 0);
  EXPECT_FALSE(server.lastClientDisconnect().has_value());
}

TEST(ScriptedServer, DestructorDoesNotWaitForSleepsOrIdleClients) {
  auto server = std::make_unique<ScriptedServer>();
  server->enqueue(Response::stallThenSend("first", 10s, "never"));
  // Connections are accepted in order, so once the second client has its head, the server
  // holds this one too.
  RawClient silent(server->port());  // never sends a request
  RawClient sleeping(server->port());
  sleeping.sendRequest();
  ASSERT_FALSE(sleeping.readAtLeast(1).empty());  // the head: the server is now asleep

  const Clock::time_point start = Clock::now();
  server.reset();
  EXPECT_LT(Clock::now() - start, 500ms);
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
