// `lumora-native-host` as Thunderbird runs it: a process with the port on its standard input and
// output, streaming a reply from a loopback server, and ending when the port closes mid-stream.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "lumora/platform/Base64.h"
#include "support/FakeTransport.h"
#include "support/LumoraHome.h"
#include "support/ScriptedServer.h"

namespace lumora::nativehost {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

// The host process, spoken to as the browser does.
class HostProcess {
 public:
  explicit HostProcess(const std::map<std::string, std::string>& environment) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
      unsetenv("LUMORA_DEBUG");
      execl(LUMORA_NATIVE_HOST, LUMORA_NATIVE_HOST, "manifest.json", "lumora@zorvel.tech", nullptr);
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    toHost_ = in[1];
    fromHost_ = out[0];
  }
  ~HostProcess() {
    closePort();
    if (fromHost_ >= 0) close(fromHost_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  void send(const json& message) {
    const std::string payload = message.dump();
    const auto length = static_cast<uint32_t>(payload.size());
    std::string frame(4, '\0');
    std::memcpy(frame.data(), &length, 4);
    frame += payload;
    ASSERT_EQ(write(toHost_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
  }

  // The next message, or null when none comes within `timeout` or the port ends.
  json receive(std::chrono::milliseconds timeout = 10s) {
    uint32_t length = 0;
    if (!readExactly(reinterpret_cast<char*>(&length), 4, timeout)) return nullptr;
    std::string payload(length, '\0');
    if (!readExactly(payload.data(), length, timeout)) return nullptr;
    return json::parse(payload);
  }

  // Messages until one satisfies `done`; false when the port ends or goes quiet first.
  bool receiveUntil(const std::function<bool(const json&)>& done) {
    for (json m = receive(); !m.is_null(); m = receive())
      if (done(m)) return true;
    return false;
  }

  // The browser's end of the host's output goes away; its input stays open.
  void closeOutput() {
    if (fromHost_ >= 0) close(fromHost_);
    fromHost_ = -1;
  }

  void closePort() {
    if (toHost_ >= 0) close(toHost_);
    toHost_ = -1;
  }

  // The exit status, or -1 when the process is still running after `timeout`.
  int waitForExit(std::chrono::milliseconds timeout) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < until) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(10ms);
    }
    return -1;
  }

 private:
  bool readExactly(char* buffer, size_t size, std::chrono::milliseconds timeout) {
    size_t done = 0;
    while (done < size) {
      pollfd p{fromHost_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return false;
      const ssize_t got = read(fromHost_, buffer + done, size - done);
      if (got <= 0) return false;
      done += static_cast<size_t>(got);
    }
    return true;
  }

  pid_t pid_ = -1;
  int toHost_ = -1;
  int fromHost_ = -1;
};

// The host in `home`, its OpenAI requests going to `server`.
std::map<std::string, std::string> hostEnvironment(const testing::LumoraHome& home,
                                                   const testing::ScriptedServer& server) {
  return {{"XDG_CONFIG_HOME", (home.path() / "config").string()},
          {"XDG_DATA_HOME", (home.path() / "data").string()},
          {"LUMORA_OPENAI_BASE_URL", server.baseUrl()}};
}

TEST(NativeHostProcessTest, StreamsAReplyAndEndsWhenThePortClosesMidStream) {
  testing::LumoraHome home;
  ASSERT_EQ(home.run({"settings", "set", "apiKey", "sk-test-0000"}).status, 0);
  testing::ScriptedServer server;
  server.enqueue(testing::Response::stream(
      testing::sseRecord("Dear ") + testing::sseRecord("Ann,") + "data: [DONE]\n\n", 0));
  server.enqueue(testing::Response::stallThenSend(testing::sseRecord("Partly"), 60s, ""));
  HostProcess host(hostEnvironment(home, server));

  const std::string message =
      "From: a@example.org\r\nContent-Type: text/plain\r\n\r\nNothing quoted here.\r\n";
  host.send({{"type", "open"}, {"messageSize", message.size()}, {"language", "en"}});
  host.send({{"type", "messageData"}, {"data", "RnJvbTog"}});  // a first piece: "From: "
  host.send({{"type", "messageData"}, {"data", message.substr(6)}});
  // That second piece was not Base64: the open is refused with a clear error, and a new open
  // as a new mail works.
  ASSERT_TRUE(host.receiveUntil([](const json& m) { return m["type"] == "error"; }));
  host.send({{"type", "open"}});
  ASSERT_TRUE(host.receiveUntil([](const json& m) { return m["type"] == "state"; }));

  std::string page;
  const auto follow = [&page](const json& m) {
    if (m["type"] == "output") {
      if (m["reset"].get<bool>()) page.clear();
      page += m["text"].get<std::string>();
    }
    return m["type"] == "state" && m["page"] == "result" &&
           m["header"]["title"] == "Lumora";  // the run has ended
  };
  host.send({{"type", "operation"}, {"name", "startGeneration"}});
  ASSERT_TRUE(host.receiveUntil(follow));
  EXPECT_EQ(page, "Dear Ann,");

  // Regenerate; the port closes while the server is silent mid-stream. The host stops the
  // run, lets the server go, and ends.
  host.send({{"type", "operation"}, {"name", "startGeneration"}});
  ASSERT_TRUE(host.receiveUntil([&](const json& m) {
    follow(m);
    return page == "Partly";
  }));
  host.closePort();
  EXPECT_EQ(host.waitForExit(10s), 0);
  EXPECT_TRUE(server.waitForClientDisconnect(10s).has_value());
}

// The output closed while the input stays open (the browser's end of the pipe gone first): the
// host stops the run at its next word instead of streaming into nothing, and ends.
TEST(NativeHostProcessTest, EndsWhenItsOutputClosesWhileTheInputStaysOpen) {
  testing::LumoraHome home;
  ASSERT_EQ(home.run({"settings", "set", "apiKey", "sk-test-0000"}).status, 0);
  testing::ScriptedServer server;
  std::string body;
  for (int i = 0; i < 400; ++i) body += testing::sseRecord("word ");
  // A record every 50 ms: 20 seconds of reply.
  server.enqueue(testing::Response::stream(body, testing::sseRecord("word ").size(),
                                           testing::Framing::kChunked, 50ms));
  HostProcess host(hostEnvironment(home, server));
  host.send({{"type", "open"}});
  ASSERT_TRUE(host.receiveUntil([](const json& m) { return m["type"] == "state"; }));
  host.send({{"type", "operation"}, {"name", "startGeneration"}});
  ASSERT_TRUE(host.receiveUntil([](const json& m) { return m["type"] == "output"; }));
  host.closeOutput();
  EXPECT_EQ(host.waitForExit(5s), 0);
  EXPECT_TRUE(server.waitForClientDisconnect(5s).has_value());
}

// A message of nested quotations, whose passages would make a request of 10 MB, fails the run
// in the panel's error line before anything is sent; the reading line said so beforehand.
TEST(NativeHostProcessTest, ARequestPastItsBudgetIsNeverSent) {
  testing::LumoraHome home;
  ASSERT_EQ(home.run({"settings", "set", "apiKey", "sk-test-0000"}).status, 0);
  ASSERT_EQ(home.run({"settings", "set", "maxRequestMiB", "1"}).status, 0);
  testing::ScriptedServer server;
  HostProcess host(hostEnvironment(home, server));
  std::string message =
      "From: a@example.org\r\nContent-Type: text/html\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n";
  for (int i = 0; i < 100; ++i) message += "<blockquote>" + std::string(2000, 'q') + "\r\n";
  host.send({{"type", "open"}, {"messageSize", message.size()}, {"language", "en"}});
  host.send({{"type", "messageData"}, {"data", base64::encode(message)}});
  const std::string refusal =
      "The request would be more than 1 MiB, the limit of the setting \"maxRequestMiB\" "
      "(lumora settings set maxRequestMiB N); nothing was sent.";
  json state;
  ASSERT_TRUE(host.receiveUntil([&](const json& m) {
    if (m["type"] != "state") return false;
    state = m;
    return true;
  }));
  EXPECT_NE(state["reading"]["line"].get<std::string>().find(refusal), std::string::npos)
      << state.dump();
  host.send({{"type", "operation"}, {"name", "startGeneration"}});
  ASSERT_TRUE(host.receiveUntil(
      [&](const json& m) { return m["type"] == "state" && m["error"] == refusal; }));
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace lumora::nativehost
