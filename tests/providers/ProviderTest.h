// What the provider clients' tests share: a client over an in-memory transport, and what a
// stream came to as the user sees it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Debug.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/Fixtures.h"
#include "support/TempDir.h"

namespace lumora::testing {

// The number of chunks, the last text, every finish reason, and the failure's text for the
// user (empty when the stream ended).
struct StreamOutcome {
  size_t chunks = 0;
  std::string completed;
  std::vector<std::string> finishReasons;
  std::string failure;
  bool operator==(const StreamOutcome&) const = default;

  void take(const StreamChunk& chunk) {
    ++chunks;
    completed = chunk.completed.str();
    if (chunk.finishReason) finishReasons.push_back(*chunk.finishReason);
  }
};

// `lines` straight through a client's reader.
inline StreamOutcome readLines(LineReader& reader, const std::vector<std::string>& lines) {
  StreamOutcome out;
  try {
    for (const std::string& line : lines)
      if (auto chunk = reader.line(line)) out.take(*chunk);
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

// The recorded status of each file of a provider's recordings, from their own cases.tsv.
inline std::map<std::string, int> recordedStatuses(const std::filesystem::path& recordings) {
  std::map<std::string, int> out;
  std::istringstream table(readFile(recordings / "cases.tsv"));
  std::string file, status, rest;
  std::getline(table, rest);  // the column names
  while (std::getline(table, file, '\t') && std::getline(table, status, '\t') &&
         std::getline(table, rest))
    out[file] = std::stoi(status);
  return out;
}

// Keeps the debug lines written while it lives, from any thread.
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

// A client of type Client over a FakeTransport, with the built-in endpoints.
template <typename Client>
class ProviderTest : public ::testing::Test {
 protected:
  explicit ProviderTest(std::string model)
      : model_(std::move(model)), shared_(dir_ / "shared.json") {
    for (const char* name : {"CLAUDE", "GEMINI", "REKA"})
      unsetenv(("LUMORA_" + std::string(name) + "_BASE_URL").c_str());
  }

  virtual Client client() = 0;

  // A call whose answer the transport already holds (a bare 200 when it holds none). Every
  // chunk carries the requested model.
  StreamOutcome start(const std::vector<ChatMessage>& messages = {{"user", "Hi", {}}},
                      double temperature = 1.0, std::stop_token stop = {}) {
    StreamOutcome out;
    try {
      ChunkStream stream = client().streamChat(model_, messages, temperature, stop);
      while (auto chunk = stream.next()) {
        out.take(*chunk);
        EXPECT_EQ(chunk->model.view(), model_);
      }
    } catch (const std::exception& e) {
      out.failure = describeFailure(e);
    }
    return out;
  }
  StreamOutcome run(FakeAnswer answer,
                    const std::vector<ChatMessage>& messages = {{"user", "Hi", {}}},
                    double temperature = 1.0) {
    transport_.enqueue(std::move(answer));
    return start(messages, temperature);
  }

  nlohmann::json body(const std::vector<ChatMessage>& messages, double temperature = 1.0) {
    return nlohmann::json::parse(client().chatRequest(model_, messages, temperature).body);
  }

  // A stop before the head fails the call; a consumer's stop while the body stays open, after
  // the chunk of `firstPiece`, ends its iteration at once.
  void expectCancellation(const std::string& firstPiece, const std::string& firstText) {
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_EQ(start({{"user", "u", {}}}, 1, stopped.get_token()).failure,
              "The operation was cancelled.");

    transport_.enqueue(FakeAnswer{.pieces = {firstPiece}, .bodyGate = std::make_shared<Gate>()});
    ChunkStream stream = client().streamChat(model_, {{"user", "u", {}}}, 1, {});
    const auto first = stream.next();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->completed.str(), firstText);
    EXPECT_FALSE(stream.next(stopped.get_token()).has_value());
  }

  std::string model_;
  TempDir dir_;
  DefaultsStore shared_;
  FakeTransport transport_;
  ChatEnvironment env_{shared_, transport_};
};

}  // namespace lumora::testing
