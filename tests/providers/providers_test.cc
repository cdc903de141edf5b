// Real servers' streams and error bodies, recorded, through the clients that read them: the
// OpenAI-compatible family, Groq and Ollama.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "lumora/providers/AzureOpenAIClient.h"
#include "lumora/providers/BearerServiceClients.h"
#include "lumora/providers/GroqClient.h"
#include "lumora/providers/LumoraCloudClient.h"
#include "lumora/providers/OllamaClient.h"
#include "lumora/providers/OpenAICompatibleClient.h"
#include "providers/ProviderTest.h"
#include "support/ScriptedServer.h"

namespace lumora {
namespace {

using testing::FakeAnswer;
using testing::StreamOutcome;

class RecordedProviders : public ::testing::Test {
 protected:
  RecordedProviders() : settings_(dir_ / "shared.json") {}

  std::unique_ptr<LLMClient> client(std::string_view provider) {
    if (provider == "azure-openai")
      return std::make_unique<AzureOpenAIClient>("az-key-0001", "https://corp.openai.azure.com",
                                                 std::vector<AzureDeployment>{}, environment_);
    if (provider == "groq") return std::make_unique<GroqClient>("groq-key-0001", environment_);
    if (provider == "mistral") return std::make_unique<MistralClient>("mistral-0001", environment_);
    if (provider == "cloud") return std::make_unique<LumoraCloudClient>("t-0001", environment_);
    if (provider == "ollama")
      return std::make_unique<OllamaClient>("http://localhost:11434", environment_);
    return std::make_unique<OpenRouterClient>("router-0001", environment_);
  }

  // `provider`'s client reading `body`, sent with `status`.
  StreamOutcome run(std::string_view provider, const std::string& body, int status = 200) {
    transport_.enqueue(FakeAnswer{.status = status, .pieces = {body}});
    StreamOutcome out;
    try {
      ChunkStream stream = client(provider)->streamChat("gpt-4o", {{"user", "x", {}}}, 1.0, {});
      while (auto chunk = stream.next()) out.take(*chunk);
    } catch (const std::exception& e) {
      out.failure = describeFailure(e);
    }
    return out;
  }

  testing::TempDir dir_;
  DefaultsStore settings_;
  testing::FakeTransport transport_;
  ChatEnvironment environment_{.sharedDefaults = settings_, .transport = transport_};
};

// Every recorded stream and error body of these providers, with the status it was recorded
// with. Documentation excerpts carry "..." placeholder lines, which fail a stream like any
// line that is no record; the rows pin that, with what came before it kept.
TEST_F(RecordedProviders, EveryRecordingGivesItsTextOrItsError) {
  struct Case {
    std::string file;
    int status;
    StreamOutcome expected;
  };
  const std::string placeholder =
      "The server's reply could not be read: a line is not JSON: \"...\".";
  const Case cases[] = {
      // Azure's first record has empty id, model and object and no choices: still a record.
      {"azure-openai/ok-stream-prompt-filter.sse", 200, {6, "Oi!", {"stop"}, ""}},
      // Azure's code is a string, so its error is an API error with the code shown.
      {"azure-openai/error-401-access-denied.json",
       401,
       {0,
        "",
        {},
        "Error 401: Access denied due to invalid subscription key or wrong API endpoint. Make "
        "sure to provide a valid key for an active subscription and use a correct regional API "
        "endpoint for your resource."}},
      {"azure-openai/doc-async-filter-pass.sse", 200, {5, "Color is a", {}, placeholder}},
      {"groq/ok-stream.sse", 200, {6, "Olá!", {"stop"}, ""}},
      // Groq's error arrives as an "event: error" line before its data: that line is no record
      // and fails the stream first, with the reasoning-only deltas' text kept.
      {"groq/error-midstream-event-error.sse",
       200,
       {85,
        "maybe",
        {},
        "The server's reply could not be read: a line is not JSON: \"event: error\"."}},
      // Padding fields on Mistral's records are ignored.
      {"mistral/ok-stream.sse", 200, {4, "1, 2, 3", {"stop"}, ""}},
      // Mistral's {"detail": ...} and flat error objects are not OpenAI error bodies.
      {"mistral/error-401-invalid-api-key.json", 401, {0, "", {}, "Unexpected http code 401"}},
      {"ollama/ok-chat-stream.ndjson",
       200,
       {22, "Okay, here we go!\n\n1, 2, 3, 4, 5\n", {"Finished"}, ""}},
      // Records of another endpoint, and the error line after them, are not chat records.
      {"ollama/doc-error-midstream.ndjson",
       200,
       {0, "", {}, "The server's reply could not be read: the key \"message\" is missing."}},
      {"ollama/error-404-model-not-found.json", 404, {0, "", {}, "HTTP 404"}},
      // OpenRouter's keep-alive comments are passed over; its repeated finish reason is
      // handed on each time.
      {"openrouter/ok-stream-keepalive.sse", 200, {3, "1\n2\n3", {"stop", "stop"}, ""}},
      {"openrouter/ok-stream-empty-deltas.sse", 200, {5, "test response", {"stop"}, ""}},
      // OpenRouter's error codes are numbers, which an OpenAI error body does not have.
      {"openrouter/error-429-rate-limit.json", 429, {0, "", {}, "Unexpected http code 429"}},
      {"openrouter/doc-keepalive-comment.txt", 200, {}},
      {"openrouter/doc-midstream-error.sse",
       200,
       {0, "", {}, "Error server_error: Provider disconnected unexpectedly"}},
      // With a numeric code the error record is no error body, but it is a record whose
      // finish reason says "error".
      {"openrouter/doc-midstream-error-429.sse", 200, {1, "", {"error"}, ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string provider = c.file.substr(0, c.file.find('/'));
    EXPECT_EQ(
        run(provider, testing::readFile(testing::fixturesDir() / "providers" / c.file), c.status),
        c.expected);
  }
}

// The request as the server receives it, per client.
TEST(ProviderRequests, WhatEachClientSends) {
  testing::TempDir dir;
  DefaultsStore settings(dir / "shared.json");
  testing::ScriptedServer server;
  server.setDefaultResponse(testing::Response::stream("", 64));
  const std::string base = server.baseUrl();
  for (const char* name : {"GROQ", "MISTRAL", "OPENROUTER", "CLOUD"})
    setenv(("LUMORA_" + std::string(name) + "_BASE_URL").c_str(), (base + "/fixed").c_str(), 1);
  ChatEnvironment environment{.sharedDefaults = settings, .transport = defaultTransport()};
  using Make = std::function<std::unique_ptr<LLMClient>()>;
  using nlohmann::json;
  struct Case {
    const char* name;
    Make make;
    std::string model;
    double temperature;
    std::string target;
    std::vector<std::pair<std::string, std::optional<std::string>>> headers;  // nullopt: absent
    json body;                      // these keys with these values
    std::vector<std::string> absent;  // and not these keys
  };
  const std::vector<ChatMessage> messages = {{"system", "Be brief.", std::nullopt},
                                             {"user", "Hello", std::nullopt}};
  const json plainMessages = json::parse(
      R"([{"role":"system","content":"Be brief."},{"role":"user","content":"Hello"}])");
  const auto azure = [&](std::vector<AzureDeployment> deployments) -> Make {
    return [&, deployments] {
      return std::make_unique<AzureOpenAIClient>("az-key-0001", base + "/azure", deployments,
                                                 environment);
    };
  };
  const Make router = [&] {
    return std::make_unique<OpenRouterClient>("router-0001", environment);
  };
  const Make groq = [&] { return std::make_unique<GroqClient>("groq-key-0001", environment); };
  const auto compatible = [&](std::string path, std::string key, std::string header) -> Make {
    return [&, path, key, header] {
      return std::make_unique<OpenAICompatibleClient>(base + "/llm", path, key, header,
                                                      std::vector<std::string>{}, environment);
    };
  };
  // clang-format off
  const Case cases[] = {
      {"Azure: the deployment serving the model, dots kept in the body", azure({{"gpt-35-turbo",
       "chat-prod"}}), "gpt-3.5-turbo", 2.5,
       "/azure/openai/deployments/chat-prod/chat/completions?api-version=2024-02-01", {{"api-key",
       "az-key-0001"}, {"Authorization", std::nullopt}, {"Accept", "text/event-stream"}}, {{"model",
       "gpt-3.5-turbo"}, {"temperature", 2.0}, {"stream", true}, {"messages", plainMessages}},
       {"max_tokens"}},
      {"Azure without deployments: the name without its dots", azure({}), "gpt-4.1", 0.5,
       "/azure/openai/deployments/gpt-41/chat/completions?api-version=2024-02-01", {}, {}, {}},
      {"compatible: the usual path and a bearer key", compatible("", "sk-llm-0001", ""), "local-7b",
       -1, "/llm/v1/chat/completions", {{"Authorization", "Bearer sk-llm-0001"}}, {{"model",
       "local-7b"}, {"temperature", 0.0}}, {}},
      {"compatible: its own path and header carry the bare key", compatible("/api/chat",
       "sk-llm-0001", "api-key"), "m", 1, "/llm/api/chat", {{"api-key", "sk-llm-0001"},
       {"Authorization", std::nullopt}}, {}, {}},
      {"compatible: a header differing only in case is another header", compatible("",
       "sk-llm-0001", "authorization"), "m", 1, "/llm/v1/chat/completions", {{"authorization",
       "sk-llm-0001"}}, {}, {}},
      {"compatible: no key, no header", compatible("", "", "api-key"), "m", 1,
       "/llm/v1/chat/completions", {{"api-key", std::nullopt}, {"Authorization", std::nullopt}}, {},
       {}},
      {"Mistral", [&] { return std::make_unique<MistralClient>("mistral-0001", environment); },
       "mistral-large-latest", 1, "/fixed/v1/chat/completions", {{"Authorization",
       "Bearer mistral-0001"}}, {{"model", "mistral-large-latest"}}, {}},
      {"OpenRouter names the provider; one Claude name loses its date", router,
       "claude-3-5-sonnet-20240620", 1, "/fixed/v1/chat/completions", {{"Authorization",
       "Bearer router-0001"}}, {{"model", "anthropic/claude-3.5-sonnet"}}, {}},
      {"OpenRouter: gemini", router, "gemini-pro", 1, "/fixed/v1/chat/completions", {}, {{"model",
       "google/gemini-pro"}}, {}},
      {"OpenRouter: a name with a provider already", router, "meta-llama/llama-3-70b", 1,
       "/fixed/v1/chat/completions", {}, {{"model", "meta-llama/llama-3-70b"}}, {}},
      {"Groq: its model's token limit, temperature clamped", groq, "mixtral-8x7b-32768", 3,
       "/fixed/openai/v1/chat/completions", {{"Authorization", "Bearer groq-key-0001"}, {"Accept",
       "text/event-stream"}}, {{"max_tokens", 32768}, {"temperature", 2.0}, {"messages",
       plainMessages}}, {}},
      {"Groq: another name is sent with 4096", groq, "llama-3.1-8b-instant", 1,
       "/fixed/openai/v1/chat/completions", {}, {{"max_tokens", 4096}}, {}},
      // No Accept of its own: the transport's default goes out.
      {"Ollama: the address joined as written, no Accept, the temperature as given",
       [&] { return std::make_unique<OllamaClient>(" " + base + "/ ", environment); }, "llama3",
       1.7, "//api/chat", {{"Accept", "*/*"}, {"Authorization", std::nullopt}, {"Content-Type",
       "application/json"}}, {{"model", "llama3"}, {"temperature", 1.7}, {"stream", true}},
       {"max_tokens"}},
      {"the cloud: its own body, temperature 0 whatever is asked",
       [&] { return std::make_unique<LumoraCloudClient>("cloud-0001", environment); }, "gpt-4o",
       1.5, "/fixed/1/chat", {{"Authorization", "Bearer cloud-0001"}, {"Accept",
       "text/event-stream"}}, {{"model", "gpt-4o"}, {"temperature", 0.0}, {"maxTokens", 4096},
       {"stream", true}, {"messages", plainMessages}}, {"max_tokens"}},
      {"the cloud without a token", [&] { return std::make_unique<LumoraCloudClient>(std::nullopt,
       environment); }, "gpt-4o", 1, "/fixed/1/chat", {{"Authorization", std::nullopt}}, {}, {}},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t before = server.requests().size();
    c.make()->streamChat(c.model, messages, c.temperature, {});
    ASSERT_EQ(server.requests().size(), before + 1);
    const testing::RecordedRequest r = server.requests().back();
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, c.target);
    for (const auto& [name, value] : c.headers) EXPECT_EQ(r.header(name), value) << name;
    const json body = json::parse(r.body);
    for (const auto& [key, value] : c.body.items()) EXPECT_EQ(body[key], value) << key;
    for (const std::string& key : c.absent) EXPECT_FALSE(body.contains(key)) << key;
  }
}

// Images: the cloud sends data URLs beside each message's text, an empty list as an empty
// list, and no key for a message without images.
TEST_F(RecordedProviders, TheCloudSendsImagesAsDataUrls) {
  const HttpRequest request =
      LumoraCloudClient("t", environment_)
          .chatRequest("gpt-4o",
                       {{"user", "a", std::vector<std::string>{"\xff", "ab"}},
                        {"user", "b", std::vector<std::string>{}},
                        {"system", "c", std::nullopt}},
                       1);
  const auto messages = nlohmann::json::parse(request.body)["messages"];
  EXPECT_EQ(messages[0]["images"],
            nlohmann::json({"data:image/jpeg;base64,/w==", "data:image/jpeg;base64,YWI="}));
  EXPECT_EQ(messages[1]["images"], nlohmann::json::array());
  EXPECT_FALSE(messages[2].contains("images"));
}

// What each family reads in the middle of a stream: an error record, a line it cannot read,
// the end marker and the keep-alive comment.
TEST_F(RecordedProviders, LinesEachClientReadsOrRefuses) {
  struct Case {
    const char* provider;
    std::string body;
    std::string completed;
    std::string failure;
  };
  const std::string delta =
      R"(data: {"id":"1","object":"c","created":1,"model":"m","choices":[{"delta":{"content":"Hi"}}]})"
      "\n\n";
  const Case cases[] = {
      {"openrouter", delta + ": OPENROUTER PROCESSING\n\ndata: [DONE]\n\n", "Hi", ""},
      {"groq", delta + ": OPENROUTER PROCESSING\n\n", "Hi",
       "The server's reply could not be read: a line is not JSON: \": OPENROUTER PROCESSING\"."},
      {"mistral", delta + R"(data: {"error":{"message":"overloaded"}})" "\n\n", "Hi",
       "Error : overloaded"},
      {"ollama",
       R"({"model":"m","created_at":"t","message":{"role":"assistant","content":"Hi"},"done":false})"
       "\n"
       R"({"error":"out of memory"})" "\n",
       "Hi", "The server's reply could not be read: the key \"model\" is missing."},
      {"ollama",
       R"({"model":"m","message":{"role":"assistant","content":"Hi"},"done":false})" "\n", "",
       "The server's reply could not be read: the key \"createdAt\" is missing."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.provider + (": " + c.body));
    const StreamOutcome out = run(c.provider, c.body);
    EXPECT_EQ(out.completed, c.completed);
    EXPECT_EQ(out.failure, c.failure);
  }
}

// The cloud's answers: its own error records in the stream and as bodies, the quota code, and
// records of other shapes.
TEST_F(RecordedProviders, TheCloudsErrorsInTheStreamAndAsBodies) {
  struct Case {
    int status;
    std::string body;
    std::string completed;
    std::string failure;
  };
  const Case cases[] = {
      {200,
       "data: {\"model\":\"m\",\"delta\":\"Hel\"}\n\n{\"model\":\"m\",\"delta\":\"lo\"}\n"
       "data: {\"model\":\"m\",\"finish_reason\":\"stop\"}\ndata: [DONE]\n",
       "Hello", ""},
      {200, "data: {\"model\":\"m\",\"delta\":\"Hi\"}\ndata: {\"code\":42,\"error\":\"busy\"}\n",
       "Hi", "busy"},
      {200, "data: {\"model\":\"m\",\"delta\":\"Hi\"}\nevent: message\n", "Hi",
       "The server's reply could not be read: a line is not JSON: \"event: message\"."},
      {200, "data:\n", "", "The server's reply could not be read: a line is not JSON: \"\"."},
      {429, R"({"code":42,"error":"Too many requests"})", "", "42: Too many requests"},
      {402, R"({"error":{"code":"cloud_insufficient_quota","message":"Pay up"}})", "",
       "Insufficient Quota"},
      {400, R"({"error":{"code":"bad","message":"Bad model"}})", "", "Bad model"},
      {500, "<html>oops</html>", "", "HTTP 500"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const StreamOutcome out = run("cloud", c.body, c.status);
    EXPECT_EQ(out.completed, c.completed);
    EXPECT_EQ(out.failure, c.failure);
  }
}

}  // namespace
}  // namespace lumora
