// The Claude client: recorded Anthropic streams end to end, the request it sends, the lax line
// rule, and the faults of a response.
#include <gtest/gtest.h>

#include <cmath>

#include "lumora/providers/ClaudeClient.h"
#include "providers/ProviderTest.h"

namespace lumora {
namespace {

using nlohmann::json;
using testing::FakeAnswer;
using testing::StreamOutcome;

constexpr const char* kKey = "sk-test-claude-0123456789";
constexpr const char* kModel = "claude-3-5-sonnet-latest";

class ClaudeClientTest : public testing::ProviderTest<ClaudeClient> {
 protected:
  ClaudeClientTest() : ProviderTest(kModel) {}
  ClaudeClient client() override { return ClaudeClient(kKey, false, env_); }
};

std::filesystem::path recordings() { return testing::fixturesDir() / "providers" / "anthropic"; }

TEST_F(ClaudeClientTest, EveryRecordingGivesItsTextOrItsError) {
  const std::map<std::string, StreamOutcome> expected = {
      {"ok-stream-basic.sse", {3, "Hello there!", {}, ""}},
      // Padding inside the JSON is white space like any other; the last line has no line end.
      {"ok-stream-padded.sse", {1, "1\n2\n3", {}, ""}},
      // A ping between deltas is one more record without text.
      {"ok-stream-ping-midstream.sse", {3, "1\n2\n3\n4\n5", {}, ""}},
      // A refusal sends no delta: the reply stays empty and the stream just ends.
      {"ok-stream-refusal.sse", {0, "", {}, ""}},
      // An overloaded server's error event has the shape of an error body, without code.
      {"error-event-overloaded.sse", {0, "", {}, "Error : Overloaded"}},
      {"error-401-authentication.json", {0, "", {}, "Error : invalid x-api-key"}},
      {"error-400-prompt-too-long.json",
       {0, "", {}, "Error : prompt is too long: 3333404 tokens > 200000 maximum"}},
  };
  const auto statuses = testing::recordedStatuses(recordings());
  for (const auto& entry : std::filesystem::directory_iterator(recordings())) {
    const std::string file = entry.path().filename().string();
    if (file == "cases.tsv") continue;
    ASSERT_TRUE(expected.contains(file) && statuses.contains(file)) << file;
    const std::string recorded = testing::readFile(entry.path());
    for (size_t piece : {size_t{0}, size_t{1}, size_t{9}}) {
      SCOPED_TRACE(file + " in pieces of " + std::to_string(piece));
      EXPECT_EQ(run({.status = statuses.at(file), .pieces = testing::pieces(recorded, piece)}),
                expected.at(file));
    }
  }
}

TEST_F(ClaudeClientTest, TheRequestAsSent) {
  run({},
      {{"system", "Be brief."},
       {"user", "Hi"},
       {"user", "Look", std::vector<std::string>{"\xff\xd8\xff"}}},
      5);
  ASSERT_EQ(transport_.requests().size(), 1u);
  const HttpRequest r = transport_.requests()[0];
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.url, "https://api.anthropic.com/v1/messages");
  EXPECT_EQ(r.headers, (HttpHeaders{{"x-api-key", kKey},
                                    {"anthropic-version", "2023-06-01"},
                                    {"content-type", "application/json"}}));
  EXPECT_EQ(r.body, R"({"model":"claude-3-5-sonnet-latest","messages":[{"role":"user","content":[)"
                    R"({"type":"image","source":{"type":"base64","media_type":"image/jpeg",)"
                    R"("data":"/9j/"}},{"type":"text","text":"Hi\n\nLook"}]}],)"
                    R"("system":"Be brief.","max_tokens":4096,"stream":true,"temperature":5.0})");
  // The cloud's token goes the same way.
  EXPECT_EQ(ClaudeClient("tok-cloud-0001", true, env_).chatRequest(kModel, {}, 1).headers[0],
            (std::pair<std::string, std::string>{"x-api-key", "tok-cloud-0001"}));
}

// The body's system text and messages in brief: "[S] user: Image 0: <YWI=> text;".
std::string brief(const json& body) {
  std::string out = body.contains("system")
                        ? std::string("[").append(body["system"].get<std::string>()) + "] "
                        : "";
  for (const json& message : body["messages"]) {
    out += message["role"].get<std::string>() + ":";
    for (const json& block : message["content"]) {
      out += block["type"] == "text"
                 ? std::string(" ").append(block["text"].get<std::string>())
                 : std::string(" <").append(block["source"]["data"].get<std::string>()) + ">";
    }
    out += ";";
  }
  return out;
}

TEST_F(ClaudeClientTest, SystemTextNormalisationAndImageBlocks) {
  using Images = std::vector<std::string>;
  const std::pair<std::vector<ChatMessage>, std::string> cases[] = {
      {{{"system", "S"}, {"user", "a"}, {"user", "b"}}, "[S] user: a\n\nb;"},
      {{{"system", "S1"}, {"system", "S2"}, {"user", "u"}}, "[S1] user: u;"},
      // The system turn stood between the two when they were merged.
      {{{"user", "a"}, {"system", "S"}, {"user", "b"}}, "[S] user: a;user: b;"},
      {{{"system", ""}, {"user", "u"}}, "[] user: u;"},
      {{{"user", "u", Images{}}}, "user: u;"},
      // A blank turn goes with its image, and its neighbours meet.
      {{{"user", "a"}, {"assistant", " \n\t", Images{"x"}}, {"user", "b"}}, "user: a\n\nb;"},
      {{{"user", "a "}, {"user", " b"}}, "user: a \n\n b;"},
      {{{"assistant", "x"}, {"user", "y"}}, "assistant: x;user: y;"},
      {{{"user", "see", Images{"ab", "cd", "ef"}}},
       "user: Image 0: <YWI=> Image 1: <Y2Q=> Image 2: <ZWY=> see;"},
      {{{"user", "a", Images{"ab"}}, {"user", "b", Images{"cd"}}},
       "user: Image 0: <YWI=> Image 1: <Y2Q=> a\n\nb;"},
  };
  for (const auto& [messages, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(brief(body(messages)), expected);
  }
}

TEST_F(ClaudeClientTest, TemperatureIsSentUnclampedAndShownClamped) {
  for (double t : {5.0, -1.0, 0.7}) EXPECT_EQ(body({{"user", "u"}}, t)["temperature"], t);
  // JSON has no number for NaN: the call fails before anything is sent.
  EXPECT_EQ(start({{"user", "u"}}, std::nan("")).failure,
            "The request could not be written: the temperature is not a finite number.");
  EXPECT_EQ(transport_.requests().size(), 0u);

  testing::DebugCapture debug;
  run({.status = 401, .pieces = {"{\"error\":\n{\"message\":\"no\"}}"}}, {{"user", "u"}}, 5);
  EXPECT_EQ(debug.lines(), (std::vector<std::string>{
                               "[debug] request model: claude-3-5-sonnet-latest temperature 2.0 "
                               "https://api.anthropic.com/v1/messages",
                               "result {\"error\":{\"message\":\"no\"}}"}));
}

TEST_F(ClaudeClientTest, TheLineRule) {
  const std::string delta =
      R"({"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hi"}})";
  const std::string overloaded =
      R"(data: {"type":"error","error":{"type":"overloaded_error","message":"Overloaded"}})";
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"padded, white space around",
       {" data: " + delta.substr(0, delta.size() - 1) + "  } "},
       {1, "Hi", {}, ""}},
      {"texts are appended untrimmed",
       {"data: " + delta, R"(data: {"type":"d","index":0,"delta":{"type":"t","text":" \n"}})"},
       {2, "Hi \n", {}, ""}},
      {"lines that are not data", {"event: content_block_delta", delta}, {}},
      {"nothing behind the prefix, or an empty object", {"data:", "data:x", "data: {}"}, {}},
      {"without the blank the JSON loses its brace", {"data:" + delta}, {}},
      {"the sixth character goes whole, however many bytes",
       {"data:\xc3\xa9" + delta},
       {1, "Hi", {}, ""}},
      {"records without text",
       {R"(data: {"type":"content_block_start","index":0,"content_block":{"type":"text"}})",
        R"(data: {"type":"message_delta","delta":{"stop_reason":"end_turn"}})",
        R"(data: {"type":"content_block_delta","index":1,"delta":{"type":"input_json_delta","partial_json":"{"}})",
        R"(data: {"type":"d","index":"0","delta":{"type":"t","text":"x"}})",
        R"(data: {"type":"d","index":0,"delta":{"type":"t","text":null}})"},
       {}},
      {"no JSON at all", {"data: {broken", "data: [1,2"}, {}},
      {"bytes that are not UTF-8 become U+FFFD",
       {"data: {\"type\":\"t\",\"index\":0,\"delta\":{\"type\":\"t\",\"text\":\"caf\xe9\"}}"},
       {1, "caf\xef\xbf\xbd", {}, ""}},
      {"an error record ends the stream; the text before stands",
       {"data: " + delta, overloaded, "data: " + delta},
       {1, "Hi", {}, "Error : Overloaded"}},
      {"an error record with a code",
       {R"(data: {"error":{"code":"busy","message":"Later"}})"},
       {0, "", {}, "Error busy: Later"}},
      {"error objects of neither shape are passed over",
       {R"(data: {"error":{"code":529,"message":"Overloaded"}})",
        R"(data: {"error":{"type":"overloaded_error"}})"},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(testing::readLines(*ClaudeClient::lineReader(kModel), c.lines), c.expected);
  }
}

TEST_F(ClaudeClientTest, FaultsOfTheResponse) {
  const std::string delta =
      "event: content_block_delta\n"
      R"(data: {"type":"content_block_delta","index":0,"delta":{"type":"text_delta","text":"Hi"}})"
      "\n\n";
  const auto lost = std::make_exception_ptr(
      TransportError(TransportError::Code::connectionLost, "The network connection was lost."));
  const std::pair<FakeAnswer, StreamOutcome> cases[] = {
      {{.status = 429,
        .pieces = {R"({"type":"error","error":{"type":"rate_limit_error",)",
                   "\n"
                   R"("message":"Rate limited"}})"}},
       {0, "", {}, "Error : Rate limited"}},
      {{.status = 500, .pieces = {"<html><body>Internal Server Error</body></html>"}},
       {0, "", {}, "Unexpected http code 500"}},
      // No stop record is looked for: the end of the body ends the stream.
      {{.pieces = {delta}}, {1, "Hi", {}, ""}},
      {{.pieces = {delta}, .bodyFailure = lost}, {1, "Hi", {}, "The network connection was lost."}},
  };
  for (const auto& [answer, expected] : cases) EXPECT_EQ(run(answer), expected);
  expectCancellation(delta, "Hi");
}

}  // namespace
}  // namespace lumora
