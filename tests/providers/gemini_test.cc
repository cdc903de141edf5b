// The Gemini client end to end: recorded answers of the service, the request as it leaves,
// written streams for the failures, and what reaches the log.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "lumora/chat/Errors.h"
#include "lumora/platform/Debug.h"
#include "lumora/providers/GeminiClient.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/Fixtures.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using testing::FakeAnswer;
using testing::FakeTransport;

constexpr const char* kKey = "sk-test-gemini-0123456789";

struct Outcome {
  std::vector<std::string> completed;  // of each chunk, in order
  std::string failure;                 // describeFailure text; empty when the stream ended
  bool thrownByCall = false;           // streamChat failed, before any stream
  bool appError = false;               // the failure is an AppError
};

// Cuts `body` into pieces of `size` bytes (0: one piece).
std::vector<std::string> pieces(const std::string& body, size_t size) {
  if (size == 0) return {body};
  std::vector<std::string> out;
  for (size_t at = 0; at < body.size(); at += size) out.push_back(body.substr(at, size));
  return out;
}

class GeminiClientTest : public ::testing::Test {
 protected:
  GeminiClientTest() : shared_(dir_ / "shared.json") { unsetenv("LUMORA_GEMINI_BASE_URL"); }

  Outcome run(FakeAnswer answer, const std::string& model = "gemini-pro") {
    transport_.enqueue(std::move(answer));
    Outcome out;
    std::optional<ChunkStream> stream;
    try {
      stream = GeminiClient(kKey, env_).streamChat(model, {{"user", "hi", std::nullopt}}, 1.0, {});
    } catch (const std::exception& e) {
      out.thrownByCall = true;
      out.failure = describeFailure(e);
      out.appError = dynamic_cast<const AppError*>(&e) != nullptr;
      return out;
    }
    try {
      while (auto chunk = stream->next()) {
        EXPECT_EQ(chunk->model.view(), model);
        EXPECT_FALSE(chunk->finishReason.has_value());
        out.completed.push_back(chunk->completed.str());
      }
    } catch (const std::exception& e) {
      out.failure = describeFailure(e);
      out.appError = dynamic_cast<const AppError*>(&e) != nullptr;
    }
    return out;
  }

  Outcome stream(const std::string& body, int status = 200) {
    return run(FakeAnswer{.status = status, .pieces = {body}});
  }

  nlohmann::json body(const std::string& model, const std::vector<ChatMessage>& messages) {
    return nlohmann::json::parse(GeminiClient(kKey, env_).chatRequest(model, messages, 0.3).body);
  }

  testing::TempDir dir_;
  DefaultsStore shared_;
  FakeTransport transport_;
  ChatEnvironment env_{shared_, transport_};
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
      {"error-400-api-key-invalid-recorded.json", 0, "", "Invalid api key"},
      {"error-400-user-location.json", 0, "", "Unsupported user location"},
      {"error-403-api-not-enabled.json", 0, "",
       "Generative Language API has not been used in project 12345678 before or it is "
       "disabled. Enable it by visiting https://console.developers.google.com/apis/api/"
       "generativelanguage.googleapis.com/overview?project=12345678 then retry. If you enabled "
       "this API recently, wait a few minutes for the action to propagate to our systems and "
       "retry."},
      {"error-404-model-not-found.json", 0, "",
       "models/gemini-5.0-flash is not found for API version v1, or is not supported for "
       "generateContent. Call ListModels to see the list of available models and their "
       "supported methods."},
      {"error-429-quota.json", 0, "",
       "Quota exceeded for quota metric 'Generate Content API requests per minute' and limit "
       "'GenerateContent request limit per minute for a region' of service "
       "'generativelanguage.googleapis.com' for consumer 'project_number:348715329010'."},
      {"error-429-quota-recorded.json", 0, "",
       "You exceeded your current quota, please check your plan and billing details. For more "
       "information on this error, head to: https://ai.google.dev/gemini-api/docs/rate-limits. "
       "To monitor your current usage, head to: https://ai.dev/rate-limit. \n* Quota exceeded "
       "for metric: generativelanguage.googleapis.com/generate_content_paid_tier_input_token_"
       "count, limit: 1000000, model: gemini-2.5-flash\nPlease retry in 48.939935699s."},
  };
  const auto dir = testing::fixturesDir() / "providers" / "gemini";
  std::ifstream tsv(dir / "cases.tsv");
  std::string row;
  std::getline(tsv, row);  // the header
  size_t rows = 0;
  while (std::getline(tsv, row)) {
    std::istringstream fields(row);
    std::string file, status;
    std::getline(fields, file, '\t');
    std::getline(fields, status, '\t');
    ++rows;
    const Case* c = nullptr;
    for (const Case& candidate : cases)
      if (candidate.file == file) c = &candidate;
    if (c == nullptr) {
      ADD_FAILURE() << file << " has no row in this test";
      continue;
    }
    for (size_t piece : {size_t{0}, size_t{5}}) {
      SCOPED_TRACE(file + " piece " + std::to_string(piece));
      const Outcome out = run(FakeAnswer{.status = std::stoi(status),
                                         .pieces = pieces(testing::readFile(dir / file), piece)});
      EXPECT_EQ(out.failure, c->failure);
      EXPECT_EQ(out.thrownByCall, status != "200");
      EXPECT_EQ(out.appError, !c->failure.empty());
      ASSERT_EQ(out.completed.size(), c->chunks);
      if (c->chunks == 0) continue;
      const std::string& last = out.completed.back();
      if (c->size == 0) {
        EXPECT_EQ(last, c->completed);
      } else {
        EXPECT_EQ(last.size(), c->size);
        EXPECT_TRUE(last.starts_with(c->completed)) << last.substr(0, 80);
        EXPECT_TRUE(last.ends_with(c->ends)) << last.substr(last.size() - 80);
      }
    }
  }
  EXPECT_EQ(rows, std::size(cases));
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
      {"gemini-pro-vision", "/v1/models/gemini-pro-vision"},
      {"gemini-1.5-pro", "/v1/models/gemini-1.5-pro"},
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
    const nlohmann::json sent = body("gemini-pro", c.messages);
    EXPECT_EQ(sent, nlohmann::json({{"contents", nlohmann::json::parse(c.contents)}}));
  }
}

TEST_F(GeminiClientTest, ThePlainSessionHasNoProxyButKeepsTheIdleTimeout) {
  shared_.set("httpsProxyUrl", "http://proxy.example.net:3128");
  env_.idleTimeout = std::chrono::milliseconds(1234);
  EXPECT_EQ(stream("").failure, "");
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
  struct Case {
    const char* name;
    std::string body;
    int status;
    std::vector<std::string> completed;
    std::string failure;
  };
  const Case cases[] = {
      {"data: with and without a blank",
       record("a") + R"(data:{"candidates":[{"content":{"parts":[{"text":"b"}]}}]})",
       200,
       {"a", "ab"},
       ""},
      {"no candidates and no block reason: no chunk, and the stream goes on",
       "data: {\"candidates\":[]}\ndata: {\"promptFeedback\":{}}\n" + record("a"),
       200,
       {"a"},
       ""},
      {"a first part that is no text makes no chunk",
       R"(data: {"candidates":[{"content":{"parts":[{"inlineData":{"mime_type":"image/png","data":"QQ=="}},{"text":"x"}]}}]})"
       "\n" +
           record("a"),
       200,
       {"a"},
       ""},
      {"a candidate without content that ended normally",
       record("a") + R"(data: {"candidates":[{"finishReason":"STOP"}]})",
       200,
       {"a"},
       ""},
      {"stopped early: its text is not shown",
       record("a") + record("b", R"(,"finishReason":"MAX_TOKENS")"),
       200,
       {"a"},
       "MAX_TOKENS"},
      {"stopped by safety, without content",
       record("a") + R"(data: {"candidates":[{"finishReason":"SAFETY"}]})",
       200,
       {"a"},
       "SAFETY"},
      {"a finish reason this client does not know counts as stopped early",
       record("a", R"(,"finishReason":"MALFORMED_FUNCTION_CALL")"),
       200,
       {},
       "FINISH_REASON_UNKNOWN"},
      {"blocked with candidates: the user reads the response's text",
       R"(data: {"promptFeedback":{"blockReason":"OTHER"},"candidates":[{"content":{"parts":[{"text":"why"}]}}]})",
       200,
       {},
       "why"},
      {"an error object over several lines with status 200",
       record("a") + errorObject,
       200,
       {"a"},
       "Internal failure"},
      {"other lines at the end are judged as an error object",
       "event: message\n" + record("a") + ": keep-alive\n",
       200,
       {"a"},
       "The server's reply could not be read: the error is not JSON."},
      {"a record with neither key",
       "data: {\"usageMetadata\":{}}\n",
       200,
       {},
       "The server's reply could not be read: Failed to decode GenerateContentResponse; "
       "missing keys 'candidates' and 'promptFeedback'."},
      {"a data line that is no JSON",
       record("a") + "data:\n",
       200,
       {"a"},
       "The server's reply could not be read: a record is not JSON."},
      {"an empty content",
       R"(data: {"candidates":[{"content":{},"finishReason":"MAX_TOKENS"}]})",
       200,
       {},
       "The server's reply could not be read: a candidate's content is empty."},
      {"a content without parts",
       R"(data: {"candidates":[{"content":{"role":"model"},"finishReason":"MAX_TOKENS"}]})",
       200,
       {},
       "The server's reply could not be read: the key \"parts\" is missing."},
      {"a part with neither text nor inline data",
       R"(data: {"candidates":[{"content":{"parts":[{"functionCall":{}}]}}]})",
       200,
       {},
       "The server's reply could not be read: Neither text or inline data was found."},
      {"ill-formed UTF-8 is shown as U+FFFD", record("caf\xe9"), 200, {"caf\uFFFD"}, ""},
      // Errors before the stream.
      {"an ErrorInfo behind other details still counts",
       R"({"error":{"code":400,"message":"m","details":[{"@type":"type.googleapis.com/google.rpc.Help"},)"
       R"({"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"API_KEY_INVALID"}]}})",
       400,
       {},
       "Invalid api key"},
      {"only the first ErrorInfo counts",
       R"({"error":{"message":"m","details":[{"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"X"},)"
       R"({"@type":"type.googleapis.com/google.rpc.ErrorInfo","reason":"API_KEY_INVALID"}]}})",
       400,
       {},
       "m"},
      {"the location message must match in full",
       R"({"error":{"message":"User location is not supported for the API use"}})",
       400,
       {},
       "User location is not supported for the API use"},
      {"a status this client does not know does not fail the decoding",
       R"({"error":{"message":"m","status":"NEW_STATUS"}})",
       503,
       {},
       "m"},
      {"no message", R"({"error":{"code":500}})", 500, {}, "Unknown error."},
      {"a detail without @type",
       R"({"error":{"message":"m","details":[{"reason":"r"}]}})",
       400,
       {},
       "The server's reply could not be read: the key \"@type\" is missing."},
      {"an error body that is no JSON",
       "<html>502 Bad Gateway</html>",
       502,
       {},
       "The server's reply could not be read: the error is not JSON."},
      {"the key in the server's message is masked",
       std::string(R"({"error":{"message":"API key not valid: )") + kKey + "\"}}",
       400,
       {},
       "API key not valid: …6789"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome out = stream(c.body, c.status);
    EXPECT_EQ(out.completed, c.completed);
    EXPECT_EQ(out.failure, c.failure);
    EXPECT_EQ(out.thrownByCall, c.status != 200);
    EXPECT_EQ(out.appError, !c.failure.empty());
  }
}

TEST_F(GeminiClientTest, ConnectionFailuresAndStop) {
  const std::string record =
      "data: {\"candidates\":[{\"content\":{\"parts\":[{\"text\":\"a\"}]}}]}\n";
  const auto lost = std::make_exception_ptr(
      TransportError(TransportError::Code::connectionLost, "The network connection was lost."));

  Outcome out = run(FakeAnswer{.pieces = {record}, .bodyFailure = lost});
  EXPECT_EQ(out.completed, std::vector<std::string>{"a"});
  EXPECT_EQ(out.failure, "The network connection was lost.");
  EXPECT_TRUE(out.appError);

  out = run(
      FakeAnswer{.sendFailure = std::make_exception_ptr(TransportError(
                     TransportError::Code::cannotConnect, "Could not connect to the server."))});
  EXPECT_TRUE(out.thrownByCall);
  EXPECT_EQ(out.failure, "Could not connect to the server.");
  EXPECT_TRUE(out.appError);

  // A stop before the head is the caller's cancellation, not an error of the service.
  transport_.enqueue(FakeAnswer{.headGate = std::make_shared<testing::Gate>()});
  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(GeminiClient(kKey, env_).streamChat("gemini-pro", {}, 1, stop.get_token()),
               CancellationError);

  // A stop while the body is open ends the stream, and what was shown stands; lines that were
  // not data are not judged then.
  auto gate = std::make_shared<testing::Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {record, "event: x\n"}, .bodyGate = gate});
  ChunkStream stream = GeminiClient(kKey, env_).streamChat("gemini-pro", {}, 1, {});
  ASSERT_TRUE(stream.next().has_value());
  std::stop_source consumer;
  consumer.request_stop();
  EXPECT_EQ(stream.next(consumer.get_token()), std::nullopt);
}

TEST_F(GeminiClientTest, LogLinesStayOutOfTheUsersTextAndHideTheKey) {
  std::mutex mutex;
  std::vector<std::string> lines;
  debug::setSink([&](std::string_view line) {
    std::lock_guard lock(mutex);
    lines.emplace_back(line);
  });
  stream(R"(data: {"candidates":[{"finishReason":"NEW_REASON"}]})");
  stream(std::string(R"({"error":{"message":"bad )") + kKey + "\"}}", 401);
  stream("data: {oops}");
  debug::setSink(debug::stdoutSink());

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
  EXPECT_EQ(lines, expected);
}

}  // namespace
}  // namespace lumora
