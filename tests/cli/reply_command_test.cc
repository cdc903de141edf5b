// `lumora reply` end to end: the real binary against a loopback server.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/FakeTransport.h"
#include "support/Process.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using testing::ProcessOptions;
using testing::ProcessResult;
using testing::Response;
using testing::ScriptedServer;
using testing::sseRecord;

constexpr const char* kKey = "sk-test-reply-abcdef123456";

class ReplyCommandTest : public ::testing::Test {
 protected:
  ReplyCommandTest() { settings({"set", "apiKey", kKey}); }

  ~ReplyCommandTest() override {
    // Whatever a run printed, a credential never appears in clear.
    for (const ProcessResult& r : runs_) {
      EXPECT_EQ(r.out.find(kKey), std::string::npos) << r.out;
      EXPECT_EQ(r.err.find(kKey), std::string::npos) << r.err;
    }
  }

  ProcessResult lumora(std::vector<std::string> args, ProcessOptions options = {}) {
    args.insert(args.begin(), LUMORA_BINARY);
    options.setEnv["XDG_CONFIG_HOME"] = (home_ / "config").string();
    options.setEnv["XDG_DATA_HOME"] = (home_ / "data").string();
    options.setEnv["LUMORA_OPENAI_BASE_URL"] = server_.baseUrl();
    options.unsetEnv = {"LUMORA_DEBUG", "https_proxy", "http_proxy", "HTTPS_PROXY"};
    ProcessResult r = testing::runProcess(args, options);
    runs_.push_back(r);
    return r;
  }

  ProcessResult settings(std::vector<std::string> args) {
    args.insert(args.begin(), "settings");
    return lumora(args);
  }

  std::string writeMessage(const std::string& bytes) {
    const auto path = home_ / "message.eml";
    std::ofstream(path, std::ios::binary) << bytes;
    return path.string();
  }

  testing::TempDir home_;
  ScriptedServer server_;
  std::vector<ProcessResult> runs_;
};

TEST_F(ReplyCommandTest, StreamsTheReplyAndEndsWithOneLineFeed) {
  server_.enqueue(
      Response::stream(sseRecord("Dear Ann,") + sseRecord("\nthanks!", "stop") + "data: [DONE]\n\n",
                       16, testing::Framing::kChunked, 5ms));
  const ProcessResult r = lumora({"reply", "--model", "gpt-4o"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "Dear Ann,\nthanks!\n");
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(server_.requests().size(), 1u);
  const auto body = nlohmann::json::parse(server_.requests()[0].body);
  EXPECT_EQ(body["model"], "gpt-4o");
  EXPECT_EQ(body["messages"],
            nlohmann::json::parse(
                R"([{"role":"user","content":"You're my assistant, please reply this email"}])"));
}

TEST_F(ReplyCommandTest, OptionsApplyToThisRunOnly) {
  server_.setDefaultResponse(Response::stream(sseRecord("ok"), 64));
  lumora({"reply", "--model=gpt-4.1", "--instruction", "Say no politely", "-"},
         ProcessOptions{.input = "From: a@example.org\r\nSubject: hi\r\n\r\nHello\r\n"});
  const auto body = nlohmann::json::parse(server_.requests().at(0).body);
  EXPECT_EQ(body["model"], "gpt-4.1");
  EXPECT_EQ(body["messages"][0]["content"], "Say no politely");
  EXPECT_EQ(settings({"get", "mailDefaultPrompt"}).out,
            "You're my assistant, please reply this email\n");
}

TEST_F(ReplyCommandTest, AFailureKeepsTheTextAndSaysWhyOnStandardError) {
  server_.enqueue(Response::closeMidBody(sseRecord("Half a") + sseRecord(" reply"), 200));
  ProcessResult r = lumora({"reply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Half a\n");
  EXPECT_EQ(r.err, "lumora: The network connection was lost.\n");

  server_.enqueue(Response::json(
      401,
      R"({"error":{"message":"Incorrect API key provided: sk-test-reply-abcdef123456.","code":"invalid_api_key"}})"));
  r = lumora({"reply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "lumora: Error invalid_api_key: Incorrect API key provided: …3456.\n");
}

TEST_F(ReplyCommandTest, SigintStopsTheRunKeepingTheTextSoFar) {
  server_.enqueue(Response::stallThenSend(sseRecord("Started"), 10s, sseRecord(" never")));
  bool sent = false;
  const auto began = std::chrono::steady_clock::now();
  const ProcessResult r =
      lumora({"reply"}, ProcessOptions{.onOutput = [&](pid_t pid, const std::string& out) {
               if (!sent && out.find("Started") != std::string::npos) {
                 sent = true;
                 kill(pid, SIGINT);
               }
             }});
  EXPECT_TRUE(sent);
  EXPECT_EQ(r.status, 130);
  EXPECT_EQ(r.out, "Started\n");
  EXPECT_LT(std::chrono::steady_clock::now() - began, 5s);
  EXPECT_TRUE(server_.waitForClientDisconnect(2s).has_value());
}

TEST_F(ReplyCommandTest, DryRunShowsTheRequestWithCredentialsMasked) {
  settings({"set", "customApiDomain", "llm.example.org"});
  settings({"set", "customApiDomainSendKey", "true"});
  const ProcessResult r = lumora({"reply", "--dry-run", "--debug", "--model", "gpt-4o"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(server_.requests().empty());
  const auto out = nlohmann::json::parse(r.out);
  EXPECT_EQ(out["service"], "llm.example.org");
  EXPECT_EQ(out["method"], "POST");
  EXPECT_EQ(out["url"], "https://llm.example.org/v1/chat/completions");
  EXPECT_EQ(out["headers"]["Authorization"], "Bearer …3456");
  EXPECT_EQ(out["body"]["model"], "gpt-4o");
  EXPECT_NE(r.err.find("[debug] streaming using customDomain(domain: \"llm.example.org\", apiKey: "
                       "\"…3456\", sendKey: true)"),
            std::string::npos)
      << r.err;
}

// libcurl is loaded by the first request only: where it cannot be loaded, a dry run works as
// ever and a real run says what is missing, having sent nothing.
TEST_F(ReplyCommandTest, WithoutLibcurlADryRunWorksAndARunSaysWhatIsMissing) {
  const auto libraries = home_ / "lib";
  std::filesystem::create_directories(libraries);
  std::ofstream(libraries / "libcurl.so.4") << "not a library";
  const ProcessOptions broken{.setEnv = {{"LD_LIBRARY_PATH", libraries.string()}}};

  const ProcessResult dry = lumora({"reply", "--dry-run", "--model", "gpt-4o"}, broken);
  EXPECT_EQ(dry.status, 0) << dry.err;
  EXPECT_EQ(nlohmann::json::parse(dry.out)["url"], server_.baseUrl() + "/v1/chat/completions");

  const ProcessResult run = lumora({"reply", "--model", "gpt-4o"}, broken);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_TRUE(run.err.starts_with("lumora: The network library could not be loaded (")) << run.err;
  EXPECT_TRUE(run.err.ends_with("). Install the package libcurl4.\n")) << run.err;
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(ReplyCommandTest, UsageErrorsAndUnreadableInput) {
  EXPECT_EQ(lumora({"reply", "--model"}).status, 2);
  EXPECT_EQ(lumora({"reply", "--frobnicate"}).status, 2);
  EXPECT_EQ(lumora({"reply", "a", "b"}).status, 2);
  const ProcessResult missing = lumora({"reply", (home_ / "nope.eml").string()});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot read"), std::string::npos);
  const ProcessResult help = lumora({"reply", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--dry-run"), std::string::npos);
}

TEST_F(ReplyCommandTest, ABrokenSettingsFileIsReportedAndKept) {
  const auto file = home_ / "config" / "lumora" / "group.tech.zorvel.openai.json";
  std::ofstream(file, std::ios::trunc) << "{\"apiKey\": ";
  const ProcessResult r = lumora({"reply"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("group.tech.zorvel.openai.json"), std::string::npos) << r.err;
  std::ifstream in(file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "{\"apiKey\": ");
}

// A stored team is a chat service of its own: gpt names go to its server, under its path, with
// its token, ahead of the OpenAI key.
TEST_F(ReplyCommandTest, AStoredTeamAnswersTheOpenAIFamily) {
  constexpr const char* kToken = "team-token-reply-7777";
  ASSERT_EQ(lumora({"teams", "add", server_.baseUrl() + "/team", kToken}).status, 0);
  server_.enqueue(Response::stream(sseRecord("From the team.", "stop") + "data: [DONE]\n\n", 64));
  const ProcessResult r = lumora({"reply", "--model", "gpt-4o"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "From the team.\n");
  ASSERT_EQ(server_.requests().size(), 1u);
  const auto request = server_.requests()[0];
  EXPECT_EQ(request.target, "/team/v1/chat/completions");
  EXPECT_EQ(request.header("Authorization"), std::string("Bearer ") + kToken);
}

}  // namespace
}  // namespace lumora
