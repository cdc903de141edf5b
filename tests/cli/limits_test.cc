// The size limits of one run, end to end: a message past "maxMessageMiB" is refused before it
// is read whole, a reply past "maxReplyMiB" is cut off with its text so far kept, a request
// past "maxRequestMiB" is never sent.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/FakeTransport.h"
#include "support/Process.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using testing::ProcessOptions;
using testing::ProcessResult;
using testing::Response;
using testing::ScriptedServer;
using testing::sseRecord;

class LimitsTest : public ::testing::Test {
 protected:
  LimitsTest() {
    // The real sendmail's stand-in prints what it was given.
    std::ofstream(home_ / "sendmail") << "#!/bin/sh\ncat\n";
    std::filesystem::permissions(home_ / "sendmail", std::filesystem::perms::owner_all);
    lumora({"settings", "set", "apiKey", "sk-test-limits-0123456789"});
    std::ofstream(home_ / "message.eml", std::ios::binary) << message(20'000);
  }

  ProcessResult lumora(std::vector<std::string> args, std::string input = {}) {
    args.insert(args.begin(), LUMORA_BINARY);
    ProcessOptions options;
    options.setEnv = {{"XDG_CONFIG_HOME", (home_ / "config").string()},
                      {"XDG_DATA_HOME", (home_ / "data").string()},
                      {"LUMORA_OPENAI_BASE_URL", server_.baseUrl()},
                      {"LUMORA_SENDMAIL", (home_ / "sendmail").string()}};
    options.unsetEnv = {"LUMORA_DEBUG", "https_proxy", "http_proxy", "HTTPS_PROXY"};
    options.input = std::move(input);
    return testing::runProcess(args, options);
  }

  // A plain message of about `bytes` bytes with one quoted passage.
  static std::string message(size_t bytes) {
    std::string m =
        "From: a@example.org\r\nSubject: Long\r\nContent-Type: text/html\r\n\r\n"
        "<blockquote>Quoted</blockquote>";
    while (m.size() < bytes) m += "<p>filler text</p>\r\n";
    return m;
  }

  std::string file() const { return (home_ / "message.eml").string(); }

  testing::TempDir home_;
  ScriptedServer server_;
};

TEST_F(LimitsTest, AMessagePastTheLimitIsRefusedWhereverItComesFrom) {
  const std::string refusal =
      "lumora: the message is larger than 10485 bytes, the limit of the setting "
      "\"maxMessageMiB\" (lumora settings set maxMessageMiB N)\n";
  struct Case {
    const char* name;
    const char* limit;  // nullptr: unset
    std::vector<std::string> args;
    bool fromStandardInput;
    int status;
    std::string err;
  };
  const std::vector<std::string> dryRun = {"reply", "--dry-run", "--model", "gpt-4o"};
  const auto with = [](std::vector<std::string> args, const std::string& last) {
    args.push_back(last);
    return args;
  };
  const Case cases[] = {
      {"a file under the default", nullptr, with(dryRun, file()), false, 0, ""},
      {"a file past the limit", "0.01", with(dryRun, file()), false, 1, refusal},
      {"standard input past the limit", "0.01", with(dryRun, "-"), true, 1, refusal},
      {"the sendmail wrapper too", "0.01", {"sendmail", "bo@example.org"}, true, 1, refusal},
      {"a limit that is no size reads as the default", "0", with(dryRun, file()), false, 0, ""},
      {"standard input under a limit", "0.02", with(dryRun, "-"), true, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.limit && std::string_view(c.limit) == "0") {
      // The command refuses to store it; another program may have.
      const std::string own = lumora({"settings", "path"}).out;
      const std::string path = own.substr(own.find('\n') + 1, own.rfind('\n') - own.find('\n') - 1);
      std::ofstream(path) << R"({"maxMessageMiB": 0})";
    } else if (c.limit) {
      ASSERT_EQ(lumora({"settings", "set", "maxMessageMiB", c.limit}).status, 0);
    } else {
      lumora({"settings", "unset", "maxMessageMiB"});
    }
    const ProcessResult r = lumora(c.args, c.fromStandardInput ? message(20'000) : "");
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.status != 0) {
      EXPECT_EQ(r.err, c.err);
    }
  }
}

// Mail still goes out when the command's own settings cannot be read: the limit is then its
// default.
TEST_F(LimitsTest, AnUnreadableSettingsFileDoesNotStopTheWrapper) {
  const auto own = home_ / "config" / "lumora" / "tech.zorvel.lumora.json";
  ASSERT_TRUE(std::filesystem::exists(own.parent_path()));
  std::ofstream(own) << "{ not json";
  const ProcessResult r = lumora({"sendmail", "bo@example.org"}, "Subject: Hi\r\n\r\nHello\r\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Hello"), std::string::npos) << r.out;
}

TEST_F(LimitsTest, AReplyPastTheLimitIsCutOffWithItsTextKept) {
  std::string body;
  for (int i = 0; i < 100; ++i) body += sseRecord("0123456789");
  server_.enqueue(Response::stream(body + "data: [DONE]\n\n", 64));
  ASSERT_EQ(lumora({"settings", "set", "maxReplyMiB", "0.0005"}).status, 0);  // 524 bytes
  const ProcessResult r = lumora({"reply", "--model", "gpt-4o", file()});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "lumora: The reply passed 524 bytes, the limit of the setting \"maxReplyMiB\"; it "
            "was cut off there.\n");
  std::string kept;
  for (int i = 0; i < 52; ++i) kept += "0123456789";
  EXPECT_EQ(r.out, kept + "\n");
}

// Quotations nested `depth` deep, each with a paragraph of `paragraph` bytes: every passage
// holds the text of those inside it, so the passages come to about depth² / 2 paragraphs.
std::string nestedQuotations(size_t depth, size_t paragraph) {
  std::string m =
      "From: a@example.org\r\nSubject: Nested\r\nContent-Type: text/html\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n";
  const std::string text(paragraph, 'q');
  for (size_t i = 0; i < depth; ++i) m += "<blockquote>" + text + "\r\n";
  return m;
}

TEST_F(LimitsTest, ARequestPastItsBudgetFailsTheRunAndNothingIsSent) {
  // 150 levels of 4 KB: 45 MB of passages from a 600 KB message.
  std::ofstream(home_ / "nested.eml", std::ios::binary) << nestedQuotations(150, 4000);
  const std::string nested = (home_ / "nested.eml").string();
  const std::string gathered =
      "lumora: The request would be more than 1 MiB, the limit of the setting \"maxRequestMiB\" "
      "(lumora settings set maxRequestMiB N); nothing was sent.\n";
  const std::string measured = "bytes, more than 10485 bytes, the limit of the setting "
                               "\"maxRequestMiB\" (lumora settings set maxRequestMiB N); nothing "
                               "was sent.\n";
  struct Case {
    const char* name;
    const char* limit;  // nullptr: unset
    std::vector<std::string> args;
    int status;
    std::string err;  // the whole of standard error, or its end after "lumora: The request is N "
    bool measuredWhole;
  };
  const Case cases[] = {
      {"nested quotations, dry run", "1", {"reply", "--dry-run", "--model", "gpt-4o", nested}, 1,
       gathered, false},
      {"nested quotations, sent", "1", {"reply", "--model", "gpt-4o", nested}, 1, gathered, false},
      {"the whole message measured as the request", "0.01",
       {"reply", "--model", "gpt-4o", "--read", "message", file()}, 1, measured, true},
      {"the same under the default budget", nullptr,
       {"reply", "--dry-run", "--model", "gpt-4o", "--read", "message", file()}, 0, "", false},
      {"the passages of ordinary mail", "0.01",
       {"reply", "--dry-run", "--model", "gpt-4o", file()}, 0, "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.limit) {
      ASSERT_EQ(lumora({"settings", "set", "maxRequestMiB", c.limit}).status, 0);
    } else {
      lumora({"settings", "unset", "maxRequestMiB"});
    }
    const ProcessResult r = lumora(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.status == 0) continue;
    EXPECT_EQ(r.out, "");
    if (c.measuredWhole) {
      EXPECT_TRUE(r.err.starts_with("lumora: The request is ")) << r.err;
      EXPECT_TRUE(r.err.ends_with(c.err)) << r.err;
    } else {
      EXPECT_EQ(r.err, c.err);
    }
  }
  EXPECT_TRUE(server_.requests().empty());
}

}  // namespace
}  // namespace lumora
