// The Claude client: recorded Anthropic streams end to end, the request as the server gets
// it, the lax line rule, and the faults of a stream.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "lumora/providers/ClaudeClient.h"
#include "providers/ProviderTest.h"
#include "support/Fixtures.h"

namespace lumora {
namespace {

using nlohmann::json;
using testing::FakeAnswer;
using testing::StreamOutcome;

constexpr const char* kKey = "sk-test-claude-0123456789";
constexpr const char* kModel = "claude-3-5-sonnet-latest";

std::filesystem::path recordings() { return testing::fixturesDir() / "providers" / "anthropic"; }

// The recorded status of each file, from the recordings' own table.
std::map<std::string, int> recordedStatuses() {
  std::map<std::string, int> out;
  std::istringstream table(testing::readFile(recordings() / "cases.tsv"));
  std::string row;
  std::getline(table, row);  // the column names
  while (std::getline(table, row)) {
    std::istringstream fields(row);
    std::string file, status;
    if (std::getline(fields, file, '\t') && std::getline(fields, status, '\t'))
      out[file] = std::stoi(status);
  }
  return out;
}

class ClaudeClientTest : public testing::ProviderTest<ClaudeClient> {
 protected:
  ClaudeClientTest() : ProviderTest(kModel) {}
  ClaudeClient client() override { return ClaudeClient(kKey, false, env_); }
};

TEST_F(ClaudeClientTest, EveryRecordingGivesItsTextOrItsError) {
  struct Case {
    std::string file;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"ok-stream-basic.sse", {3, "Hello there!", {}, ""}},
      // The final data line has no line end; it is read all the same (and yields nothing).
      {"ok-stream-padded.sse", {1, "1\n2\n3", {}, ""}},
      // A ping between deltas is one more record without text.
      {"ok-stream-ping-midstream.sse", {3, "1\n2\n3\n4\n5", {}, ""}},
      // A refusal sends no delta: the reply stays empty and the stream just ends.
      {"ok-stream-refusal.sse", {0, "", {}, ""}},
      // The in-stream error record has the shape of an error body, with no code.
      {"error-event-overloaded.sse", {0, "", {}, "Error : Overloaded"}},
      {"error-401-authentication.json", {0, "", {}, "Error : invalid x-api-key"}},
      {"error-400-prompt-too-long.json",
       {0, "", {}, "Error : prompt is too long: 3333404 tokens > 200000 maximum"}},
  };
  const auto statuses = recordedStatuses();
  for (const auto& entry : std::filesystem::directory_iterator(recordings())) {
    const std::string name = entry.path().filename().string();
    if (name == "cases.tsv") continue;
    EXPECT_TRUE(std::ranges::any_of(cases, [&](const Case& c) { return c.file == name; }))
        << name << " has no row here";
  }
  for (const Case& c : cases) {
    ASSERT_TRUE(statuses.contains(c.file)) << c.file;
    const std::string recorded = testing::readFile(recordings() / c.file);
    for (size_t piece : {size_t{0}, size_t{1}, size_t{9}}) {
      SCOPED_TRACE(c.file + " in pieces of " + std::to_string(piece));
      EXPECT_EQ(run(FakeAnswer{.status = statuses.at(c.file),
                               .pieces = testing::pieces(recorded, piece)}),
                c.expected);
    }
  }
}

TEST_F(ClaudeClientTest, TheRequestAsSent) {
  run(FakeAnswer{},
      {{"system", "Be brief.", {}},
       {"user", "Hi", {}},
       {"assistant", "Hello!", {}},
       {"user", "Look", std::vector<std::string>{"\xff\xd8\xff"}}},
      5);
  ASSERT_EQ(transport_.requests().size(), 1u);
  const HttpRequest r = transport_.requests()[0];
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.url, "https://api.anthropic.com/v1/messages");
  EXPECT_EQ(r.headers, (HttpHeaders{{"x-api-key", kKey},
                                    {"anthropic-version", "2023-06-01"},
                                    {"content-type", "application/json"}}));
  EXPECT_EQ(r.body, R"({"model":"claude-3-5-sonnet-latest","messages":[)"
                    R"({"role":"user","content":[{"type":"text","text":"Hi"}]},)"
                    R"({"role":"assistant","content":[{"type":"text","text":"Hello!"}]},)"
                    R"({"role":"user","content":[{"type":"image","source":{"type":"base64",)"
                    R"("media_type":"image/jpeg","data":"/9j/"}},{"type":"text","text":"Look"}]}],)"
                    R"("system":"Be brief.","max_tokens":4096,"stream":true,"temperature":5.0})");
  // The cloud's token goes the same way.
  EXPECT_EQ(ClaudeClient("tok-cloud-0001", true, env_).chatRequest(kModel, {}, 1).headers[0],
            (std::pair<std::string, std::string>{"x-api-key", "tok-cloud-0001"}));
}

TEST_F(ClaudeClientTest, SystemTextNormalisationAndImageBlocks) {
  const auto text = [](const std::string& t) { return json{{"type", "text"}, {"text", t}}; };
  const auto image = [](const std::string& data) {
    return json{{"type", "image"},
                {"source", {{"type", "base64"}, {"media_type", "image/jpeg"}, {"data", data}}}};
  };
  const auto user = [](json content) { return json{{"role", "user"}, {"content", content}}; };
  using Images = std::vector<std::string>;
  struct Case {
    const char* name;
    std::vector<ChatMessage> messages;
    std::optional<std::string> system;
    json messages_;
  };
  const Case cases[] = {
      {"system beside, two user turns merged",
       {{"system", "S", {}}, {"user", "a", {}}, {"user", "b", {}}},
       "S",
       json::array({user({text("a\n\nb")})})},
      {"the first of two system turns",
       {{"system", "S1", {}}, {"system", "S2", {}}, {"user", "u", {}}},
       "S1",
       json::array({user({text("u")})})},
      {"a system turn between keeps user turns apart",
       {{"user", "a", {}}, {"system", "S", {}}, {"user", "b", {}}},
       "S",
       json::array({user({text("a")}), user({text("b")})})},
      {"an empty system text is sent",
       {{"system", "", {}}, {"user", "u", {}}},
       "",
       json::array({user({text("u")})})},
      {"no system turn, no system key",
       {{"user", "u", {}}},
       std::nullopt,
       json::array({user({text("u")})})},
      {"a blank turn goes with its image, and does not split its neighbours",
       {{"user", "a", {}}, {"assistant", " \n\t", Images{"x"}}, {"user", "b", {}}},
       std::nullopt,
       json::array({user({text("a\n\nb")})})},
      {"merged texts are not trimmed",
       {{"user", "a ", {}}, {"user", " b", {}}},
       std::nullopt,
       json::array({user({text("a \n\n b")})})},
      {"three images: labels from 0",
       {{"user", "see", Images{"ab", "cd", "ef"}}},
       std::nullopt,
       json::array({user({text("Image 0:"), image("YWI="), text("Image 1:"), image("Y2Q="),
                          text("Image 2:"), image("ZWY="), text("see")})})},
      {"an empty image list is a plain turn",
       {{"user", "u", Images{}}},
       std::nullopt,
       json::array({user({text("u")})})},
      {"a merged turn takes over the images of the later one",
       {{"user", "a", {}}, {"user", "b", Images{"ab"}}},
       std::nullopt,
       json::array({user({image("YWI="), text("a\n\nb")})})},
      {"merged images are appended",
       {{"user", "a", Images{"ab"}}, {"user", "b", Images{"cd"}}},
       std::nullopt,
       json::array({user(
           {text("Image 0:"), image("YWI="), text("Image 1:"), image("Y2Q="), text("a\n\nb")})})},
      {"roles go out as they came, an assistant turn first too",
       {{"assistant", "x", {}}, {"user", "y", {}}},
       std::nullopt,
       json::array({{{"role", "assistant"}, {"content", {text("x")}}}, user({text("y")})})},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const json b = body(c.messages);
    EXPECT_EQ(b["messages"], c.messages_);
    if (c.system) {
      EXPECT_EQ(b["system"], *c.system);
    } else {
      EXPECT_FALSE(b.contains("system"));
    }
  }
}

TEST_F(ClaudeClientTest, TemperatureIsSentUnclampedAndShownClamped) {
  for (double t : {5.0, -1.0, 0.7}) {
    SCOPED_TRACE(t);
    const json b = body({{"user", "u", {}}}, t);
    EXPECT_EQ(b["temperature"].get<double>(), t);
    EXPECT_EQ(b["max_tokens"], 4096);
    EXPECT_EQ(b["stream"], true);
  }
  // JSON has no number for NaN: the call fails before anything is sent.
  EXPECT_EQ(start({{"user", "u", {}}}, std::nan("")).failure,
            "The request could not be written: the temperature is not a finite number.");
  EXPECT_EQ(transport_.requests().size(), 0u);

  testing::DebugCapture debug;
  run(FakeAnswer{.status = 401, .pieces = {"{\"error\":\n{\"message\":\"no\"}}"}},
      {{"user", "u", {}}}, 5);
  const auto lines = debug.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "[debug] request model: claude-3-5-sonnet-latest temperature 2.0 "
            "https://api.anthropic.com/v1/messages");
  EXPECT_EQ(lines[1], "result {\"error\":{\"message\":\"no\"}}");
}

// Line by line through one stream's reader.
TEST_F(ClaudeClientTest, TheLineRule) {
  const std::string delta =
      R"({"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hi"}})";
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"a delta, padded, with white space around the line",
       {" \tdata: " + delta.substr(0, delta.size() - 1) + "    }  "},
       {1, "Hi", {}, ""}},
      {"texts are appended untrimmed",
       {"data: " + delta,
        R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":" \n"}})"},
       {2, "Hi \n", {}, ""}},
      {"event lines and lines of no known prefix", {"event: content_block_delta", delta}, {}},
      {"an empty object", {"data: {}"}, {}},
      {"a data line with nothing behind the prefix", {"data:", "data: ", "data:x"}, {}},
      {"without the blank the JSON loses its first character", {"data:" + delta}, {}},
      {"the sixth character is removed whole, even when it is not one byte",
       {"data:\xc3\xa9" + delta},
       {1, "Hi", {}, ""}},
      {"records without text: start, ping, stop, message delta",
       {R"(data: {"type":"content_block_start","index":0,"content_block":{"type":"text","text":""}})",
        R"(data: {"type": "ping"})",
        R"(data: {"type":"message_delta","delta":{"stop_reason":"end_turn"},"usage":{"output_tokens":6}})",
        R"(data: {"type":"message_stop"})"},
       {}},
      {"deltas that carry no text: tool input, thinking",
       {R"(data: {"type":"content_block_delta","index":1,"delta":{"type":"input_json_delta","partial_json":"{\"a\""}})",
        R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"thinking_delta","thinking":"hm"}})"},
       {}},
      {"a key of the wrong type, or null",
       {R"(data: {"type":"content_block_delta","index":"0","delta":{"type":"t","text":"x"}})",
        R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"t","text":null}})",
        R"(data: {"type":"content_block_delta","index":0.5,"delta":{"type":"t","text":"x"}})"},
       {}},
      {"lines that are no JSON at all", {"data: {broken", "data: [1,2", "data: \"x\""}, {}},
      {"bytes that are not UTF-8 are shown as U+FFFD",
       {"data: {\"type\":\"t\",\"index\":0,\"delta\":{\"type\":\"t\",\"text\":\"caf\xe9\"}}"},
       {1, "caf\xef\xbf\xbd", {}, ""}},
      {"an error record ends the stream; what came before stands",
       {"data: " + delta,
        R"(data: {"type":"error","error":{"type":"overloaded_error","message":"Overloaded"}})",
        "data: " + delta},
       {1, "Hi", {}, "Error : Overloaded"}},
      {"an error record with a code",
       {R"(data: {"error":{"code":"busy","message":"Try later"}})"},
       {0, "", {}, "Error busy: Try later"}},
      {"an error whose code is a number is neither shape and is passed over",
       {R"(data: {"error":{"code":529,"message":"Overloaded"}})", "data: " + delta},
       {1, "Hi", {}, ""}},
      {"an error object without message is passed over",
       {R"(data: {"type":"error","error":{"type":"overloaded_error"}})"},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto reader = ClaudeClient::lineReader(kModel);
    EXPECT_EQ(testing::readLines(*reader, c.lines), c.expected);
  }
}

TEST_F(ClaudeClientTest, FaultsOfTheResponse) {
  const std::string delta =
      "event: content_block_delta\n"
      R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hi"}})"
      "\n\n";
  struct Case {
    const char* name;
    FakeAnswer answer;
    StreamOutcome expected;
  };
  Case cases[] = {
      {"429 with an error body spread over lines",
       {.status = 429,
        .pieces = {"{\"type\":\"error\",\n\"error\":{\"type\":\"rate_limit_error\",\n\"message\":"
                   "\"Number of request tokens has exceeded your per-minute rate limit\"}}"}},
       {0, "", {}, "Error : Number of request tokens has exceeded your per-minute rate limit"}},
      {"500 with an HTML body",
       {.status = 500, .pieces = {"<html><body>Internal Server Error</body></html>"}},
       {0, "", {}, "Unexpected http code 500"}},
      {"529 with an empty body", {.status = 529}, {0, "", {}, "Unexpected http code 529"}},
      {"a stream that ends without its stop record keeps its text",
       {.status = 200, .pieces = {delta}},
       {1, "Hi", {}, ""}},
      {"the connection breaks mid-stream",
       {.status = 200,
        .pieces = {delta},
        .bodyFailure = std::make_exception_ptr(TransportError(TransportError::Code::connectionLost,
                                                              "The network connection was lost."))},
       {1, "Hi", {}, "The network connection was lost."}},
      {"the connection breaks while an error body is read",
       {.status = 401,
        .pieces = {"{\"error\":"},
        .bodyFailure = std::make_exception_ptr(TransportError(TransportError::Code::connectionLost,
                                                              "The network connection was lost."))},
       {0, "", {}, "The network connection was lost."}},
      {"no connection at all",
       {.sendFailure = std::make_exception_ptr(TransportError(TransportError::Code::cannotConnect,
                                                              "Could not connect to the server."))},
       {0, "", {}, "Could not connect to the server."}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(run(std::move(c.answer)), c.expected);
  }
}

TEST_F(ClaudeClientTest, CancellationBeforeTheHeadAndMidStream) {
  ClaudeClient client(kKey, false, env_);
  testing::expectCancellation(
      transport_,
      [&](std::stop_token stop) {
        return client.streamChat(kModel, {{"user", "u", {}}}, 1, stop);
      },
      R"(data: {"type":"d","index":0,"delta":{"type":"t","text":"Hi"}})"
      "\n",
      "Hi");
}

TEST_F(ClaudeClientTest, ModelNamesItAnswers) {
  const ClaudeClient client(kKey, false, env_);
  for (const char* yes : {"claude-3-opus-20240229", "claude", "claude2"})
    EXPECT_TRUE(client.supportsModel(yes)) << yes;
  for (const char* no : {"Claude-3", " claude-3", "anthropic/claude-3", "gpt-4o"})
    EXPECT_FALSE(client.supportsModel(no)) << no;
}

// Over a real socket: the path, the headers as they arrive, and a recorded stream in pieces.
TEST(ClaudeOverTheWire, TheServerReceivesTheRequestAndStreamsBack) {
  const auto [out, r] = testing::overTheWire(
      "LUMORA_CLAUDE_BASE_URL",
      testing::Response::stream(testing::readFile(recordings() / "ok-stream-basic.sse"), 40),
      [](const ChatEnvironment& env) {
        return ClaudeClient(kKey, false, env).streamChat(kModel, {{"user", "Hi", {}}}, 1, {});
      },
      kModel);
  EXPECT_EQ(out, (StreamOutcome{3, "Hello there!", {}, ""}));
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.target, "/v1/messages");
  EXPECT_EQ(r.header("x-api-key"), kKey);
  EXPECT_EQ(r.header("anthropic-version"), "2023-06-01");
  EXPECT_EQ(r.header("content-type"), "application/json");
  EXPECT_NE(r.header("Accept"), "text/event-stream");
  EXPECT_EQ(json::parse(r.body)["messages"][0]["content"][0]["text"], "Hi");
}

}  // namespace
}  // namespace lumora
