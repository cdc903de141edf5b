// What the provider clients' tests share: a client environment over an in-memory transport,
// and the outcome of a stream as the user sees it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "lumora/chat/ChunkStream.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Debug.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora::testing {

// What a stream came to: how many chunks, the last chunk's text, every finish reason, and the
// failure's text for the user (empty when the stream ended normally).
struct StreamOutcome {
  size_t chunks = 0;
  std::string completed;
  std::vector<std::string> finishReasons;
  std::string failure;
  bool operator==(const StreamOutcome&) const = default;
};

inline void PrintTo(const StreamOutcome& o, std::ostream* os) {
  *os << "{chunks " << o.chunks << ", completed \"" << o.completed << "\", finish [";
  for (const std::string& r : o.finishReasons) *os << r << ";";
  *os << "], failure \"" << o.failure << "\"}";
}

// Starts a stream with `start` and takes every chunk; a failure of the call or of the stream
// ends up in `failure`. Every chunk must carry `model` and count only as a whole text.
inline StreamOutcome drain(const std::function<ChunkStream()>& start, const std::string& model) {
  StreamOutcome out;
  try {
    ChunkStream stream = start();
    while (auto chunk = stream.next()) {
      ++out.chunks;
      out.completed = chunk->completed.str();
      if (chunk->finishReason) out.finishReasons.push_back(*chunk->finishReason);
      EXPECT_EQ(chunk->model.view(), model);
    }
  } catch (const std::exception& e) {
    out.failure = describeFailure(e);
  }
  return out;
}

// The same for lines handed straight to a client's reader.
inline StreamOutcome readLines(LineReader& reader, const std::vector<std::string>& lines) {
  StreamOutcome out;
  try {
    for (const std::string& line : lines) {
      if (auto chunk = reader.line(line)) {
        ++out.chunks;
        out.completed = chunk->completed.str();
        if (chunk->finishReason) out.finishReasons.push_back(*chunk->finishReason);
      }
    }
    reader.end();
  } catch (const std::exception& e) {
    out.failure = describeFailure(e);
  }
  return out;
}

// `body` cut into pieces of `size` bytes; 0 keeps it whole.
inline std::vector<std::string> pieces(const std::string& body, size_t size) {
  if (size == 0) return {body};
  std::vector<std::string> out;
  for (size_t at = 0; at < body.size(); at += size) out.push_back(body.substr(at, size));
  return out;
}

// Keeps every debug line written while it lives, from any thread.
class DebugCapture {
 public:
  DebugCapture() {
    debug::setSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~DebugCapture() { debug::setSink(debug::stdoutSink()); }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A stop before the response head fails the call with the cancellation's text; a stop of the
// consumer while the body stays open, after the chunk of `firstPiece`, ends its iteration at
// once. `start` makes the client's call.
inline void expectCancellation(FakeTransport& transport,
                               const std::function<ChunkStream(std::stop_token)>& start,
                               const std::string& firstPiece, const std::string& firstText) {
  std::stop_source before;
  before.request_stop();
  try {
    start(before.get_token());
    ADD_FAILURE() << "no failure";
  } catch (const std::exception& e) {
    EXPECT_EQ(describeFailure(e), "The operation was cancelled.");
  }

  transport.enqueue(FakeAnswer{.pieces = {firstPiece}, .bodyGate = std::make_shared<Gate>()});
  ChunkStream stream = start({});
  const auto first = stream.next();
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->completed.str(), firstText);
  std::stop_source consumer;
  consumer.request_stop();
  EXPECT_FALSE(stream.next(consumer.get_token()).has_value());
}

struct WireExchange {
  StreamOutcome outcome;
  RecordedRequest request;  // the one request, as the server received it
};

// One call over a real socket: the variable `endpointVariable` points the client's endpoint at
// a loopback server that answers with `response`. `start` makes the call in the environment it
// is given.
inline WireExchange overTheWire(const char* endpointVariable, Response response,
                                const std::function<ChunkStream(const ChatEnvironment&)>& start,
                                const std::string& model) {
  for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) unsetenv(name);
  ScriptedServer server;
  setenv(endpointVariable, server.baseUrl().c_str(), 1);
  server.enqueue(std::move(response));
  TempDir dir;
  DefaultsStore shared(dir.path() / "shared.json");
  const ChatEnvironment env{shared, defaultTransport()};
  WireExchange out;
  out.outcome = drain([&] { return start(env); }, model);
  unsetenv(endpointVariable);
  const auto requests = server.requests();
  EXPECT_EQ(requests.size(), 1u);
  if (!requests.empty()) out.request = requests.front();
  return out;
}

// A client environment over a FakeTransport, with the built-in endpoints. Subclasses make
// their client for `model`.
template <typename Client>
class ProviderTest : public ::testing::Test {
 protected:
  explicit ProviderTest(std::string model)
      : model_(std::move(model)), shared_(dir_ / "shared.json") {
    unsetenv("LUMORA_CLAUDE_BASE_URL");
    unsetenv("LUMORA_REKA_BASE_URL");
  }

  virtual Client client() = 0;

  // The stream of a call whose answer the transport already holds (a bare 200 when it holds
  // none), or that fails before anything is sent.
  StreamOutcome start(const std::vector<ChatMessage>& messages = {{"user", "Hi", {}}},
                      double temperature = 1.0, std::stop_token stop = {}) {
    Client c = client();
    return drain([&] { return c.streamChat(model_, messages, temperature, stop); }, model_);
  }
  StreamOutcome run(FakeAnswer answer,
                    const std::vector<ChatMessage>& messages = {{"user", "Hi", {}}},
                    double temperature = 1.0) {
    transport_.enqueue(std::move(answer));
    return start(messages, temperature);
  }

  // The request body the client builds.
  nlohmann::json body(const std::vector<ChatMessage>& messages, double temperature = 1.0) {
    return nlohmann::json::parse(client().chatRequest(model_, messages, temperature).body);
  }

  std::string model_;
  TempDir dir_;
  DefaultsStore shared_;
  FakeTransport transport_;
  ChatEnvironment env_{shared_, transport_};
};

}  // namespace lumora::testing
