// The Gemini client end to end: recorded answers of the service, the request as it leaves,
// written streams for the failures, and what reaches the log.
#include <fstream>
#include <sstream>

#include "lumora/providers/GeminiClient.h"
#include "providers/ProviderTest.h"
#include "support/Fixtures.h"
#include "support/ScriptedServer.h"

namespace lumora {
namespace {

using testing::FakeAnswer;
using testing::StreamOutcome;

constexpr const char* kKey = "sk-test-gemini-0123456789";

class GeminiClientTest : public testing::ProviderTest<GeminiClient> {
 protected:
  GeminiClientTest() : ProviderTest("gemini-pro") {}
  GeminiClient client() override { return GeminiClient(kKey, env_); }
};

// Every recorded answer of the service, with the status it came with, whole and in small
// pieces (the CR LF line ends then fall across pieces).
TEST_F(GeminiClientTest, EveryRecordedAnswer) {
  struct Case {
    std::string file;
    size_t chunks;
    std::string completed;  // the whole reply, or its start when `size` is set
    std::string failure;
    size_t size = 0;        // the reply's bytes, for replies too long to write out
    std::string ends = "";  // the reply's end, with `size`
  };
  const Case cases[] = {
      {"ok-stream-short.sse", 3, "The capital of Wyoming is **Cheyenne**.\n", ""},
      {"ok-stream-long.sse", 36, "Okay, let's dive into the world of cats and dogs!", "", 8845,
       "specific breeds, training techniques, or health conditions.\n"},
      // finishMessage is a known key that is not read.
      {"ok-stream-finish-message.sse", 2, "Hello world!", ""},
      // Thought summaries are text parts like any other: they are shown, before the answer.
      {"ok-stream-thinking.sse", 5, "**Exploring Sky Color**\n\nI've zeroed in on the core", "",
       1396, "in all directions, making the sky appear blue to our eyes."},
      {"ok-stream-utf8.sse", 4, "秋风瑟瑟，叶落纷纷，\n西风残照", "", 633, "领悟秋天的哲理。"},
      // The last record's empty text still makes a chunk, with the text unchanged.
      {"ok-stream-empty-text-part.sse", 2, "1", ""},
      {"ok-stream-recorded.sse", 1, "1, 2, 3", ""},
      // No candidates, so no text: the user reads the error's own description.
      {"blocked-prompt-safety.sse", 0, "", "The prompt was blocked (SAFETY)."},
      {"blocked-prompt-safety-with-message.sse", 0, "", "The prompt was blocked (SAFETY)."},
      // The service's citations carry no "license", which a citation requires: the first
      // record with citations fails the stream before the RECITATION record is reached.
      {"stopped-recitation.sse", 3, "text1text2text3",
       "The server's reply could not be read: the key \"license\" is missing."},
      {"error-400-api-key-invalid.json", 0, "", "Invalid api key"},
      {"error-400-user-location.json", 0, "", "Unsupported user location"},
      // Any other error: the service's own message, as it is.
      {"error-429-quota-recorded.json", 0, "",
       "You exceeded your current quota, please check your plan and billing details. For more "
       "information on this error, head to: https://ai.google.dev/gemini-api/docs/rate-limits. "
       "To monitor your current usage, head to: https://ai.dev/rate-limit. \n* Quota exceeded "
       "for metric: generativelanguage.googleapis.com/generate_content_paid_tier_input_token_"
       "count, limit: 1000000, model: gemini-2.5-flash\nPlease retry in 48.939935699s."},
  };
  const auto dir = testing::fixturesDir() / "providers" / "gemini";
  const auto statuses = testing::recordedStatuses(dir);
  for (const Case& c : cases) {
    for (size_t piece : {size_t{0}, size_t{5}}) {
      SCOPED_TRACE(c.file + " piece " + std::to_string(piece));
      const StreamOutcome out =
          run({.status = statuses.at(c.file),
               .pieces = testing::pieces(testing::readFile(dir / c.file), piece)});
      EXPECT_EQ(out.failure, c.failure);
      EXPECT_EQ(out.finishReasons, std::vector<std::string>{});
      ASSERT_EQ(out.chunks, c.chunks);
      if (c.size == 0) {
        EXPECT_EQ(out.completed, c.completed);
      } else {
        EXPECT_EQ(out.completed.size(), c.size);
        EXPECT_TRUE(out.completed.starts_with(c.completed)) << out.completed.substr(0, 80);
        EXPECT_TRUE(out.completed.ends_with(c.ends)) << out.completed.substr(c.size - 80);
      }
    }
  }
}

TEST_F(GeminiClientTest, RequestAsTheServerReceivesIt) {
  testing::ScriptedServer server;
  server.enqueue(testing::Response::stream(
      testing::readFile(testing::fixturesDir() / "providers/gemini/ok-stream-short.sse"), 9,
      testing::Framing::kChunked, std::chrono::milliseconds(1)));
  setenv("LUMORA_GEMINI_BASE_URL", server.baseUrl().c_str(), 1);
  ChatEnvironment real{shared_, defaultTransport()};
  const std::vector<ChatMessage> messages = {
      {"system", "Be brief", std::nullopt},
      {"user", "Hi", std::vector<std::string>{"\xff\xd8\xff"}}};
  ChunkStream stream = GeminiClient(kKey, real).streamChat("gemini-pro", messages, 0.2, {});
  std::string completed;
  while (auto chunk = stream.next()) completed = chunk->completed.str();
  unsetenv("LUMORA_GEMINI_BASE_URL");

  EXPECT_EQ(completed, "The capital of Wyoming is **Cheyenne**.\n");
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const testing::RecordedRequest& r = requests.front();
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.target, "/v1/models/gemini-pro:streamGenerateContent?alt=sse");
  EXPECT_EQ(r.header("x-goog-api-key"), kKey);
  EXPECT_EQ(r.header("x-goog-api-client"), "genai-cpp/0.4.8");
  EXPECT_EQ(r.header("Content-Type"), "application/json");
  EXPECT_EQ(r.header("Authorization"), std::nullopt);
  // No generation_config, no safety_settings: the temperature is not sent.
  EXPECT_EQ(r.body, R"({"contents":[{"role":"user","parts":[{"text":"Be brief\n\nHi"},)"
                    R"({"inline_data":{"mime_type":"image/jpeg","data":"/9j/"}}]}]})");
}

TEST_F(GeminiClientTest, ApiVersionAndResourceName) {
  const std::pair<const char*, const char*> cases[] = {
      {"gemini-1.5-pro-latest", "/v1beta/models/gemini-1.5-pro-latest"},
      {"gemini-1.5-flash-latest", "/v1beta/models/gemini-1.5-flash-latest"},
      {"gemini-pro", "/v1/models/gemini-pro"},
      {"gemini-1.5-pro-latest-2", "/v1/models/gemini-1.5-pro-latest-2"},
      {"tunedModels/gemini-x", "/v1/tunedModels/gemini-x"},  // a "/" keeps the name as it is
  };
  for (auto [model, path] : cases) {
    SCOPED_TRACE(model);
    EXPECT_EQ(GeminiClient(kKey, env_).chatRequest(model, {}, 1).url,
              "https://generativelanguage.googleapis.com" + std::string(path) +
                  ":streamGenerateContent?alt=sse");
  }
}

TEST_F(GeminiClientTest, MessagesFoldIntoAlternatingTurns) {
  using Images = std::optional<std::vector<std::string>>;
  struct Case {
    const char* name;
    std::vector<ChatMessage> messages;
    const char* contents;
  };
  const Case cases[] = {
      {"system, user, assistant",
       {{"system", "s", {}}, {"user", "u", {}}, {"assistant", "a", {}}},
       R"([{"role":"user","parts":[{"text":"s\n\nu"}]},{"role":"model","parts":[{"text":"a"}]}])"},
      {"two assistants",
       {{"user", "u", {}}, {"assistant", "a1", {}}, {"assistant", "a2", {}}},
       R"([{"role":"user","parts":[{"text":"u"}]},{"role":"model","parts":[{"text":"a1\n\na2"}]}])"},
      {"images in order, older first",
       {{"user", "one", Images{{"A"}}}, {"user", "two", Images{{"B", "C"}}}},
       R"([{"role":"user","parts":[{"text":"one\n\ntwo"},
           {"inline_data":{"mime_type":"image/jpeg","data":"QQ=="}},
           {"inline_data":{"mime_type":"image/jpeg","data":"Qg=="}},
           {"inline_data":{"mime_type":"image/jpeg","data":"Qw=="}}]}])"},
      {"images of the later message only",
       {{"system", "", {}}, {"user", "", Images{{"B"}}}},
       R"([{"role":"user","parts":[{"text":"\n\n"},
           {"inline_data":{"mime_type":"image/jpeg","data":"Qg=="}}]}])"},
      {"the first message stays first, whatever its side",
       {{"assistant", "a", {}}, {"system", "s", {}}},
       R"([{"role":"model","parts":[{"text":"a"}]},{"role":"user","parts":[{"text":"s"}]}])"},
      {"no messages", {}, "[]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const nlohmann::json sent = body(c.messages);
    EXPECT_EQ(sent, nlohmann::json({{"contents", nlohmann::json::parse(c.contents)}}));
  }
}

TEST_F(GeminiClientTest, ThePlainSessionHasNoProxyButKeepsTheIdleTimeout) {
  shared_.set("httpsProxyUrl", "http://proxy.example.net:3128");
  env_.idleTimeout = std::chrono::milliseconds(1234);
  EXPECT_EQ(run({}).failure, "");
  const auto sessions = transport_.sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_FALSE(sessions.front().httpsProxy.has_value());
  EXPECT_EQ(sessions.front().idleTimeout, std::chrono::milliseconds(1234));
}

// Streams written for these cases, each a rule of the reading or of the check.
TEST_F(GeminiClientTest, WrittenStreams) {
  const auto record = [](const std::string& text, const std::string& more = "") {
    return R"(data: {"candidates":[{"content":{"role":"model","parts":[{"text":")" + text +
           R"("}]})" + more + "}]}\n\n";
  };
  const std::string errorObject =
      "{\n  \"error\": {\n    \"code\": 500,\n    \"message\": \"Internal failure\",\n"
      "    \"status\": \"INTERNAL\"\n  }\n}\n";
  const std::string notRead = "The server's reply could not be read: ";
  struct Case {
    const char* name;
    std::string body;
    int status;
    StreamOutcome expected;
  };
  const Case cases[] = {
      {"data: with and without a blank",
       record("a") + R"(data:{"candidates":[{"content":{"parts":[{"text":"b"}]}}]})",
       200,
       {2, "ab", {}, ""}},
      {"no candidates and no block reason: no chunk, and the stream goes on",
       "data: {\"candidates\":[]}\ndata: {\"promptFeedback\":{}}\n" + record("a"),
       200,
       {1, "a", {}, ""}},
      {"a first part that is no text makes no chunk",
       R"(data: {"candidates":[{"content":{"parts":[{"inlineData":{"mime_type":"image/png","data":"QQ=="}},{"text":"x"}]}}]})"
       "\n" +
           record("a"),
       200,
       {1, "a", {}, ""}},
      {"a candidate without content that ended normally",
       record("a") + R"(data: {"candidates":[{"finishReason":"STOP"}]})",
       200,
       {1, "a", {}, ""}},
      {"stopped early: its text is not shown",
       record("a") + record("b", R"(,"finishReason":"MAX_TOKENS")"),
       200,
       {1, "a", {}, "MAX_TOKENS"}},
      {"stopped by safety, without content",
       record("a") + R"(data: {"candidates":[{"finishReason":"SAFETY"}]})",
       200,
       {1, "a", {}, "SAFETY"}},
      {"a finish reason this client does not know counts as stopped early",
       record("a", R"(,"finishReason":"MALFORMED_FUNCTION_CALL")"),
       200,
       {0, "", {}, "FINISH_REASON_UNKNOWN"}},
      {"blocked with candidates: the user reads the response's text",
       R"(data: {"promptFeedback":{"blockReason":"OTHER"},"candidates":[{"content":{"parts":[{"text":"why"}]}}]})",
       200,
       {0, "", {}, "why"}},
      {"an error object over several lines with status 200",
       record("a") + errorObject,
       200,
       {1, "a", {}, "Internal failure"}},
      {"other lines at the end are judged as an error object",
       "event: message\n" + record("a") + ": keep-alive\n",
       200,
       {1, "a", {}, notRead + "the error is not JSON."}},
      {"a record with neither key",
       "data: {\"usageMetadata\":{}}\n",
       200,
       {0,
        "",
        {},
        notRead + "Failed to decode GenerateContentResponse; missing keys 'candidates' and "
                  "'promptFeedback'."}},
      {"a data line that is no JSON",
       record("a") + "data:\n",
       200,
       {1, "a", {}, notRead + "a record is not JSON."}},
      {"an empty content",
       R"(data: {"candidates":[{"content":{},"finishReason":"MAX_TOKENS"}]})",
       200,
       {0, "", {}, notRead + "a candidate's content is empty."}},
      {"a content without parts",
       R"(data: {"candidates":[{"content":{"role":"model"},"finishReason":"MAX_TOKENS"}]})",
       200,
       {0, "", {}, notRead + "the key \"parts\" is missing."}},
      {"a part with neither text nor inline data",
       R"(data: {"candidates":[{"content":{"parts":[{"functionCall":{}}]}}]})",
       200,
       {0, "", {}, notRead + "Neither text or inline data was found."}},
      {"ill-formed UTF-8 is shown as U+FFFD", record("caf\xe9"), 200, {1, "caf\uFFFD", {}, ""}},
      // Errors before the stream.
      {"an ErrorInfo behind other details still counts",
       R"({"error":{"code":400,"message":"m","details":[{"@type":"type.googleapis.com/google.rpc.Help"},)"
       R"({"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"API_KEY_INVALID"}]}})",
       400,
       {0, "", {}, "Invalid api key"}},
      {"only the first ErrorInfo counts",
       R"({"error":{"message":"m","details":[{"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"X"},)"
       R"({"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"API_KEY_INVALID"}]}})",
       400,
       {0, "", {}, "m"}},
      {"the location message must match in full",
       R"({"error":{"message":"User location is not supported for the API use"}})",
       400,
       {0, "", {}, "User location is not supported for the API use"}},
      {"a status this client does not know does not fail the decoding",
       R"({"error":{"message":"m","status":"NEW_STATUS"}})",
       503,
       {0, "", {}, "m"}},
      {"a detail without @type",
       R"({"error":{"message":"m","details":[{"reason":"r"}]}})",
       400,
       {0, "", {}, notRead + "the key \"@type\" is missing."}},
      {"an error body that is no JSON",
       "<html>502 Bad Gateway</html>",
       502,
       {0, "", {}, notRead + "the error is not JSON."}},
      {"the key in the server's message is masked",
       std::string(R"({"error":{"message":"API key not valid: )") + kKey + "\"}}",
       400,
       {0, "", {}, "API key not valid: …6789"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(run({.status = c.status, .pieces = {c.body}}), c.expected);
  }
}

TEST_F(GeminiClientTest, ConnectionFailuresAndStop) {
  const std::string record =
      "data: {\"candidates\":[{\"content\":{\"parts\":[{\"text\":\"a\"}]}}]}\n";
  const auto lost = std::make_exception_ptr(
      TransportError(TransportError::Code::connectionLost, "The network connection was lost."));
  EXPECT_EQ(run({.pieces = {record}, .bodyFailure = lost}),
            (StreamOutcome{1, "a", {}, "The network connection was lost."}));
  EXPECT_EQ(run({.sendFailure = std::make_exception_ptr(TransportError(
                     TransportError::Code::cannotConnect, "Could not connect to the server."))})
                .failure,
            "Could not connect to the server.");
  // Lines that were not data are not judged when the consumer stops.
  expectCancellation(record + "event: x\n", "a");
}

TEST_F(GeminiClientTest, LogLinesStayOutOfTheUsersTextAndHideTheKey) {
  testing::DebugCapture debug;
  run({.pieces = {R"(data: {"candidates":[{"finishReason":"NEW_REASON"}]})"}});
  run({.status = 401, .pieces = {std::string(R"({"error":{"message":"bad )") + kKey + "\"}}"}});
  run({.pieces = {"data: {oops}"}});
  const std::vector<std::string> expected = {
      R"([GoogleGenerativeAI] Stream response: data: {"candidates":[{"finishReason":"NEW_REASON"}]})",
      R"([GoogleGenerativeAI] Unrecognized FinishReason with value "NEW_REASON".)",
      "[GoogleGenerativeAI] The server responded with an error: HTTP 401",
      "[GoogleGenerativeAI] Response payload: {\"error\":{\"message\":\"bad …6789\"}}\n",
      "[GoogleGenerativeAI] Stream response: data: {oops}",
      "[GoogleGenerativeAI] JSON response:  {oops}",
      "[GoogleGenerativeAI] Error decoding server JSON: The server's reply could not be read: a "
      "record is not JSON.",
  };
  EXPECT_EQ(debug.lines(), expected);
}

}  // namespace
}  // namespace lumora
