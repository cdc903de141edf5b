// The Reka client: the cut of the history, the request as the server gets it, the line rule
// and the faults of a stream.
//
// No recording of this API's stream exists. The streams here are written for these tests from
// the records the client reads: {"type", "text", "finish_reason"} on data lines, with
// "event: message" lines and a closing "[DONE]" between and after them.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "lumora/providers/RekaClient.h"
#include "providers/ProviderTest.h"

namespace lumora {
namespace {

using nlohmann::json;
using testing::FakeAnswer;
using testing::StreamOutcome;

constexpr const char* kKey = "sk-test-reka-0123456789";
constexpr const char* kModel = "reka-core";

std::string record(const std::string& text, const std::string& finish = "") {
  json r = {{"type", "model"}, {"text", text}};
  if (!finish.empty()) r["finish_reason"] = finish;
  return "event: message\ndata: " + r.dump() + "\n\n";
}

class RekaClientTest : public testing::ProviderTest<RekaClient> {
 protected:
  RekaClientTest() : ProviderTest(kModel) {}
  RekaClient client() override { return RekaClient(kKey, env_); }
};

TEST_F(RekaClientTest, TheRequestAsSent) {
  run(FakeAnswer{}, {{"system", "Be brief.", {}}, {"user", "Hi", {}}}, 0.5);
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
  const auto plain = [](const char* type, const char* text) {
    return json{{"type", type}, {"text", text}};
  };
  using Images = std::vector<std::string>;
  struct Case {
    const char* name;
    std::vector<ChatMessage> messages;
    json history;
  };
  const Case cases[] = {
      {"system dropped, the second of two user turns dropped",
       {{"system", "S", {}},
        {"user", "a", {}},
        {"user", "b", {}},
        {"assistant", "c", {}},
        {"user", "d", {}}},
       {plain("human", "a"), plain("model", "c"), plain("human", "d")}},
      {"a last assistant turn goes",
       {{"user", "a", {}}, {"assistant", "b", {}}},
       {plain("human", "a")}},
      {"an assistant turn before the first user turn goes",
       {{"assistant", "x", {}}, {"user", "a", {}}},
       {plain("human", "a")}},
      {"two assistant turns in a row: the second goes, and the user turn after it is taken",
       {{"user", "a", {}}, {"assistant", "b", {}}, {"assistant", "c", {}}, {"user", "d", {}}},
       {plain("human", "a"), plain("model", "b"), plain("human", "d")}},
      {"an image on a dropped turn changes nothing",
       {{"user", "a", {}}, {"user", "b", Images{"ab"}}},
       {plain("human", "a")}},
      {"an empty image list changes nothing", {{"user", "a", Images{}}}, {plain("human", "a")}},
      {"an image on a kept turn puts every turn in the image form",
       {{"user", "a", {}}, {"assistant", "c", {}}, {"user", "d", Images{"\xff\xd8\xff", "ab"}}},
       json::parse(R"([
           {"role":"user","content":[{"type":"text","text":"a"}]},
           {"role":"assistant","content":[{"type":"text","text":"c"}]},
           {"role":"user","content":[{"type":"text","text":"d"},
             {"type":"image_url","image_url":{"url":"data:image/jpeg;base64,/9j/"}},
             {"type":"image_url","image_url":{"url":"data:image/jpeg;base64,YWI="}}]}])")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(body(c.messages)["conversation_history"], c.history);
  }
}

TEST_F(RekaClientTest, AConversationWithoutAUserTurnFailsBeforeSending) {
  for (const auto& messages : std::vector<std::vector<ChatMessage>>{
           {}, {{"system", "S", {}}, {"assistant", "x", {}}}, {{"User", "capitalised", {}}}}) {
    EXPECT_EQ(start(messages).failure,
              "There is no message of yours in this conversation for Reka to answer.");
  }
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(RekaClientTest, TemperatureIsClampedAndShown) {
  const std::pair<double, double> cases[] = {{-1, 0}, {0, 0}, {0.7, 0.7},
                                             {2, 2},  {3, 2}, {std::nan(""), 0}};
  for (auto [given, sent] : cases) {
    SCOPED_TRACE(given);
    const json b = body({{"user", "u", {}}}, given);
    EXPECT_EQ(b["temperature"].get<double>(), sent);
    EXPECT_EQ(b["stream"], true);
    EXPECT_FALSE(b.contains("request_output_len"));
  }

  testing::DebugCapture debug;
  run(FakeAnswer{.pieces = {"event: message\n", "data: {\"type\":\"model\",\"text\":\"Hi\"}\n"}},
      {{"user", "u", {}}}, 3);
  run(FakeAnswer{.status = 500, .pieces = {"<html>\n<b>down</b>\n</html>"}});
  EXPECT_EQ(debug.lines(),
            (std::vector<std::string>{
                "[debug] request model: reka-core temperature 2.0 https://api.reka.ai/chat",
                "[debug] process line event: message",
                "[debug] process line data: {\"type\":\"model\",\"text\":\"Hi\"}",
                "[debug] request model: reka-core temperature 1.0 https://api.reka.ai/chat",
                "[debug][api error] <html><b>down</b></html>"}));
}

// Line by line through one stream's reader.
TEST_F(RekaClientTest, TheLineRule) {
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"each text replaces the one before",
       {R"(data: {"type":"model","text":"Hel"})", R"(data: {"type":"model","text":"Hello"})"},
       {2, "Hello", {}, ""}},
      {"nothing is compared: a shorter text replaces a longer one",
       {R"(data: {"type":"model","text":"Hello"})", R"(data: {"type":"model","text":"He"})"},
       {2, "He", {}, ""}},
      {"a record without text repeats the last and hands on its finish reason",
       {R"(data: {"type":"model","text":"Hi"})",
        R"(data: {"type":"model","text":null,"finish_reason":"stop"})"},
       {2, "Hi", {"stop"}, ""}},
      {"the markers yield nothing, wherever they end a line",
       {"event: message", "data: [DONE]", "[DONE]", "id: 7 event: message"},
       {}},
      {"without the prefix, and with white space around",
       {R"(  {"type":"model","text":"x"}  )",
        "\tdata:"
        R"({"type":"model","text":"y"})"},
       {2, "y", {}, ""}},
      {"the finish reason is read by its wire key only",
       {R"(data: {"type":"model","text":"x","finishReason":"stop"})"},
       {1, "x", {}, ""}},
      {"an error record fails the stream; what came before stands",
       {R"(data: {"type":"model","text":"Hi"})", R"(data: {"error":{"message":"Overloaded"}})"},
       {1, "Hi", {}, "Error : Overloaded"}},
      {"another event line fails the stream",
       {"event: ping"},
       {0, "", {}, "The server's reply could not be read: a line is not JSON: \"event: ping\"."}},
      {"a record without type",
       {R"(data: {"text":"x"})"},
       {0, "", {}, "The server's reply could not be read: the key \"type\" is missing."}},
      {"text of the wrong type",
       {R"(data: {"type":"model","text":5})"},
       {0, "", {}, "The server's reply could not be read: \"text\" is not a string."}},
      {"JSON that is no object",
       {"data: 5"},
       {0, "", {}, "The server's reply could not be read: a record is not a JSON object."}},
      {"a long line is quoted only in part",
       {"data: " + std::string(100, 'x')},
       {0,
        "",
        {},
        "The server's reply could not be read: a line is not JSON: \" " + std::string(79, 'x') +
            "…\"."}},
      {"bytes that are not UTF-8 are shown as U+FFFD",
       {"data: {\"type\":\"model\",\"text\":\"caf\xe9\"}"},
       {1, "caf\xef\xbf\xbd", {}, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto reader = RekaClient::lineReader(kModel);
    EXPECT_EQ(testing::readLines(*reader, c.lines), c.expected);
  }
}

TEST_F(RekaClientTest, FaultsOfTheResponse) {
  const std::string stream = record("Hel") + record("Hello") + record("Hello!", "stop");
  struct Case {
    const char* name;
    FakeAnswer answer;
    StreamOutcome expected;
  };
  Case cases[] = {
      {"a whole stream, in small pieces",
       {.pieces = testing::pieces(stream + "data: [DONE]\n\n", 7)},
       {3, "Hello!", {"stop"}, ""}},
      {"the end of the body, not the finish reason, ends the stream",
       {.pieces = {record("Hello!", "stop") + record("Hello! Again")}},
       {2, "Hello! Again", {"stop"}, ""}},
      {"a stream that ends without a finish reason or [DONE] keeps its text",
       {.pieces = {record("Hel")}},
       {1, "Hel", {}, ""}},
      {"an error record mid-stream",
       {.pieces = {record("Hel") +
                   "data: {\"error\":{\"code\":\"busy\",\"message\":\"Later\"}}\n"}},
       {1, "Hel", {}, "Error busy: Later"}},
      {"401 with an error body",
       {.status = 401,
        .pieces = {R"({"error":{"message":"Invalid API key","code":"unauthorized"}})"}},
       {0, "", {}, "Error unauthorized: Invalid API key"}},
      {"429 with a body of another shape",
       {.status = 429, .pieces = {R"({"detail":"Too many requests"})"}},
       {0, "", {}, "Unexpected http code 429"}},
      {"500 with an HTML body",
       {.status = 500, .pieces = {"<html>oops</html>"}},
       {0, "", {}, "Unexpected http code 500"}},
      {"the connection breaks mid-stream",
       {.pieces = {record("Hel")},
        .bodyFailure = std::make_exception_ptr(TransportError(TransportError::Code::connectionLost,
                                                              "The network connection was lost."))},
       {1, "Hel", {}, "The network connection was lost."}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(run(std::move(c.answer)), c.expected);
  }
}

TEST_F(RekaClientTest, CancellationBeforeTheHeadAndMidStream) {
  RekaClient client(kKey, env_);
  testing::expectCancellation(
      transport_,
      [&](std::stop_token stop) {
        return client.streamChat(kModel, {{"user", "u", {}}}, 1, stop);
      },
      record("Hi"), "Hi");
}

TEST_F(RekaClientTest, ModelNamesItAnswers) {
  const RekaClient client(kKey, env_);
  for (const char* yes : {"reka-core", "reka-flash", "reka"})
    EXPECT_TRUE(client.supportsModel(yes));
  for (const char* no : {"Reka-core", " reka", "gpt-4o"}) EXPECT_FALSE(client.supportsModel(no));
}

// Over a real socket: the path and the headers as they arrive, and a stream in pieces.
TEST(RekaOverTheWire, TheServerReceivesTheRequestAndStreamsBack) {
  const auto [out, r] = testing::overTheWire(
      "LUMORA_REKA_BASE_URL",
      testing::Response::stream(record("Hel") + record("Hello", "stop"), 10),
      [](const ChatEnvironment& env) {
        return RekaClient(kKey, env).streamChat(kModel, {{"user", "Hi", {}}}, 1, {});
      },
      kModel);
  EXPECT_EQ(out, (StreamOutcome{2, "Hello", {"stop"}, ""}));
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.target, "/chat");
  EXPECT_EQ(r.header("Authorization"), std::string("Bearer ") + kKey);
  EXPECT_EQ(r.header("Content-Type"), "application/json");
  EXPECT_EQ(r.header("Accept"), "text/event-stream");
  EXPECT_EQ(json::parse(r.body)["conversation_history"][0]["text"], "Hi");
}

}  // namespace
}  // namespace lumora
