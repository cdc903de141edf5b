// The Reka client: the cut of the history, the request it sends, the line rule and the faults
// of a response.
//
// No recording of this API's stream exists. The streams here are written for these tests from
// the records the client reads: {"type", "text", "finish_reason"} on data lines, with
// "event: message" lines before them and "[DONE]" at the end.
#include <gtest/gtest.h>

#include <cmath>

#include "lumora/providers/RekaClient.h"
#include "providers/ProviderTest.h"

namespace lumora {
namespace {

using nlohmann::json;
using testing::FakeAnswer;
using testing::StreamOutcome;

constexpr const char* kKey = "sk-test-reka-0123456789";
constexpr const char* kModel = "reka-core";

class RekaClientTest : public testing::ProviderTest<RekaClient> {
 protected:
  RekaClientTest() : ProviderTest(kModel) {}
  RekaClient client() override { return RekaClient(kKey, env_); }
};

std::string record(const std::string& text, const std::string& finish = "") {
  json r = {{"type", "model"}, {"text", text}};
  if (!finish.empty()) r["finish_reason"] = finish;
  return "event: message\ndata: " + r.dump() + "\n\n";
}

TEST_F(RekaClientTest, TheRequestAsSent) {
  run({}, {{"system", "Be brief."}, {"user", "Hi"}}, 0.5);
  ASSERT_EQ(transport_.requests().size(), 1u);
  const HttpRequest r = transport_.requests()[0];
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.url, "https://api.reka.ai/chat");
  EXPECT_EQ(r.headers, (HttpHeaders{{"Authorization", std::string("Bearer ") + kKey},
                                    {"Content-Type", "application/json"},
                                    {"Accept", "text/event-stream"}}));
  EXPECT_EQ(r.body,
            R"({"model_name":"reka-core","conversation_history":[{"type":"human","text":"Hi"}],)"
            R"("stream":true,"temperature":0.5})");
}

TEST_F(RekaClientTest, TheHistoryIsCutToAStrictAlternation) {
  using Images = std::vector<std::string>;
  const std::pair<std::vector<ChatMessage>, std::string> cases[] = {
      {{{"system", "S"}, {"user", "a"}, {"user", "b"}, {"assistant", "c"}, {"user", "d"}},
       R"([{"type":"human","text":"a"},{"type":"model","text":"c"},{"type":"human","text":"d"}])"},
      {{{"user", "a"}, {"assistant", "b"}}, R"([{"type":"human","text":"a"}])"},
      {{{"assistant", "x"}, {"user", "a"}}, R"([{"type":"human","text":"a"}])"},
      // The image is on a turn the cut dropped; an empty list is no image either.
      {{{"user", "a", Images{}}, {"user", "b", Images{"ab"}}}, R"([{"type":"human","text":"a"}])"},
      {{{"user", "a"}, {"assistant", "c"}, {"user", "d", Images{"\xff\xd8\xff", "ab"}}},
       R"([{"role":"user","content":[{"type":"text","text":"a"}]},)"
       R"({"role":"assistant","content":[{"type":"text","text":"c"}]},)"
       R"({"role":"user","content":[{"type":"text","text":"d"},)"
       R"({"type":"image_url","image_url":{"url":"data:image/jpeg;base64,/9j/"}},)"
       R"({"type":"image_url","image_url":{"url":"data:image/jpeg;base64,YWI="}}]}])"},
  };
  for (const auto& [messages, history] : cases) {
    SCOPED_TRACE(history);
    EXPECT_EQ(body(messages)["conversation_history"], json::parse(history));
  }
  // Without a single user turn nothing is left to answer, and nothing is sent.
  for (const auto& messages : std::vector<std::vector<ChatMessage>>{
           {}, {{"system", "S"}, {"assistant", "x"}}, {{"User", "capitalised"}}}) {
    EXPECT_EQ(start(messages).failure,
              "There is no message of yours in this conversation for Reka to answer.");
  }
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(RekaClientTest, TemperatureIsClampedAndShown) {
  for (auto [given, sent] :
       std::vector<std::pair<double, double>>{{-1, 0}, {0.7, 0.7}, {3, 2}, {std::nan(""), 0}}) {
    EXPECT_EQ(body({{"user", "u"}}, given)["temperature"], sent) << given;
  }

  testing::DebugCapture debug;
  run({.pieces = {"event: message\n", "data: {\"type\":\"model\",\"text\":\"Hi\"}\n"}},
      {{"user", "u"}}, 3);
  run({.status = 500, .pieces = {"<html>\n<b>down</b>\n</html>"}});
  EXPECT_EQ(debug.lines(),
            (std::vector<std::string>{
                "[debug] request model: reka-core temperature 2.0 https://api.reka.ai/chat",
                "[debug] process line event: message",
                "[debug] process line data: {\"type\":\"model\",\"text\":\"Hi\"}",
                "[debug] request model: reka-core temperature 1.0 https://api.reka.ai/chat",
                "[debug][api error] <html><b>down</b></html>"}));
}

TEST_F(RekaClientTest, TheLineRule) {
  const std::string notRead = "The server's reply could not be read: ";
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"each text replaces the one before, longer or shorter",
       {R"(data: {"type":"model","text":"Hello"})", R"(data: {"type":"model","text":"He"})"},
       {2, "He", {}, ""}},
      {"a record without text repeats the last and hands on its finish reason",
       {R"(data: {"type":"model","text":"Hi"})",
        R"(data: {"type":"model","finish_reason":"stop"})"},
       {2, "Hi", {"stop"}, ""}},
      {"markers, wherever they end a line", {"event: message", "data: [DONE]", "id: 7 [DONE]"}, {}},
      {"no prefix, white space around, and the key as written only",
       {R"(  {"type":"model","text":"x"}  )",
        R"(data:{"type":"model","text":"y","finishReason":"stop"})"},
       {2, "y", {}, ""}},
      {"an error record; the text before stands",
       {R"(data: {"type":"model","text":"Hi"})", R"(data: {"error":{"message":"Overloaded"}})"},
       {1, "Hi", {}, "Error : Overloaded"}},
      {"another event line",
       {"event: ping"},
       {0, "", {}, notRead + "a line is not JSON: \"event: ping\"."}},
      {"a long line is quoted in part",
       {"data: " + std::string(100, 'x')},
       {0, "", {}, notRead + "a line is not JSON: \" " + std::string(79, 'x') + "…\"."}},
      {"no type", {R"({"text":"x"})"}, {0, "", {}, notRead + "the key \"type\" is missing."}},
      {"text of another type",
       {R"({"type":"m","text":5})"},
       {0, "", {}, notRead + "\"text\" is not a string."}},
      {"JSON that is no object",
       {"data: 5"},
       {0, "", {}, notRead + "a record is not a JSON object."}},
      {"bytes that are not UTF-8 become U+FFFD",
       {"data: {\"type\":\"model\",\"text\":\"caf\xe9\"}"},
       {1, "caf\xef\xbf\xbd", {}, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(testing::readLines(*RekaClient::lineReader(kModel), c.lines), c.expected);
  }
}

TEST_F(RekaClientTest, FaultsOfTheResponse) {
  const std::string stream = record("Hel") + record("Hello") + record("Hello!", "stop");
  const auto lost = std::make_exception_ptr(
      TransportError(TransportError::Code::connectionLost, "The network connection was lost."));
  const std::pair<FakeAnswer, StreamOutcome> cases[] = {
      {{.pieces = testing::pieces(stream + "data: [DONE]\n\n", 7)}, {3, "Hello!", {"stop"}, ""}},
      // Neither a finish reason nor [DONE] ends the stream: the end of the body does.
      {{.pieces = {record("Hi", "stop") + record("Hi again")}}, {2, "Hi again", {"stop"}, ""}},
      {{.pieces = {record("Hel")}}, {1, "Hel", {}, ""}},
      {{.pieces = {record("Hel") +
                   "data: {\"error\":{\"code\":\"busy\",\"message\":\"Later\"}}\n"}},
       {1, "Hel", {}, "Error busy: Later"}},
      {{.pieces = {record("Hel")}, .bodyFailure = lost},
       {1, "Hel", {}, "The network connection was lost."}},
      {{.status = 401,
        .pieces = {R"({"error":{"message":"Invalid API key","code":"unauthorized"}})"}},
       {0, "", {}, "Error unauthorized: Invalid API key"}},
      {{.status = 429, .pieces = {R"({"detail":"Too many requests"})"}},
       {0, "", {}, "Unexpected http code 429"}},
  };
  for (const auto& [answer, expected] : cases) EXPECT_EQ(run(answer), expected);
  expectCancellation(record("Hi"), "Hi");
}

}  // namespace
}  // namespace lumora
