// What the command says and returns when it is used wrongly or cannot deliver: lost output is a
// failure, a mistyped id or an empty message is named, a key can be stored without appearing on
// the command line.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

#include "support/LumoraHome.h"

namespace lumora {
namespace {

using testing::LumoraHome;
using testing::ProcessResult;

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

TEST(OutputThatCannotBeWritten, FailsTheCommandWithTheReason) {
  LumoraHome home;
  ASSERT_EQ(home.run({"settings", "set", "apiKey", "sk-output-test-0001"}).status, 0);
  const auto message = home.path() / "m.eml";
  std::ofstream(message) << "From: a@example.org\nSubject: hi\n\n<blockquote>Q</blockquote>\n";
  struct Case {
    std::vector<std::string> args;
    const char* redirection;
    std::string reason;
  };
  const Case cases[] = {
      {{"settings", "list"}, "> /dev/full", "No space left on device"},
      {{"models"}, "> /dev/full", "No space left on device"},
      {{"reply", "--dry-run", "--model", "gpt-4o", message.string()}, "> /dev/full",
       "No space left on device"},
      {{"settings", "list"}, ">&-", "standard output is closed"},
      {{"route", "gpt-4o"}, ">&-", "standard output is closed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.redirection);
    const ProcessResult r = home.runRedirected(c.args, c.redirection);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumora: cannot write the output: " + c.reason + "\n");
  }
  // Nothing to write, nothing lost.
  EXPECT_EQ(home.runRedirected({"settings", "set", "fontSize", "12"}, ">&-").status, 0);
  // A closed standard output does not become a file the command opens: the settings stay JSON.
  EXPECT_EQ(home.runRedirected({"settings", "set", "mailReading", "message"}, ">&-").status, 0);
  EXPECT_EQ(home.run({"settings", "get", "mailReading"}).out, "message\n");
}

TEST(CommandLineMistakes, AreNamedAndChangeNothing) {
  LumoraHome home;
  ASSERT_EQ(home.run({"settings", "set", "apiKey", "sk-mistakes-test-0001"}).status, 0);
  const auto empty = home.path() / "empty.eml";
  std::ofstream{empty};
  struct Case {
    std::vector<std::string> args;
    std::string input;
    int status;
    std::string line;
  };
  const Case cases[] = {
      {{"reply", "--dry-run", "--conversation", "0D5F0C1E-0000-4000-8000-000000000000"},
       "",
       2,
       "lumora: no conversation has the id \"0D5F0C1E-0000-4000-8000-000000000000\"; 'lumora "
       "conversations list' shows them"},
      {{"reply", "--dry-run", "-"},
       "",
       1,
       "lumora: the message is empty: standard input holds nothing (without MESSAGE the reply is "
       "to a new mail)"},
      {{"reply", "--dry-run", empty.string()},
       "",
       1,
       "lumora: the message is empty: " + empty.string() +
           " holds nothing (without MESSAGE the reply is to a new mail)"},
      {{"route", ""}, "", 2, "lumora: MODEL is empty"},
      {{"route", "gpt-9"}, "", 0, "openai"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    const ProcessResult r = home.run(c.args, {}, c.input);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(firstLine(c.status == 0 ? r.out : r.err), c.line);
  }
  EXPECT_EQ(home.run({"route", "gpt-9"}).out,
            "openai\ngpt-9 is not in the catalogue. openai is the first of your services that "
            "takes a model named like it, so the request goes there; whether the model exists "
            "is for that service to say.\n");

  // A conversation named in another letter case is the same one.
  const std::string id = firstLine(
      home.run({"conversations", "add", "--title", "T", "--instruction", "Be brief", "--model",
                "gpt-4o"})
          .out);
  std::string lower = id;
  for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  const ProcessResult run = home.run({"reply", "--dry-run", "--conversation", lower});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("Be brief"), std::string::npos) << run.out;

  // Its time reads as a time.
  const std::string shown = home.run({"conversations", "show", id}).out;
  const size_t at = shown.find("updatedAt: ");
  ASSERT_NE(at, std::string::npos) << shown;
  const std::string stamp = firstLine(shown.substr(at + 11));
  EXPECT_EQ(stamp.size(), 25u) << stamp;  // 2026-11-25T22:47:22+01:00
  EXPECT_EQ(stamp[10], 'T') << stamp;
  EXPECT_EQ(stamp[22], ':') << stamp;
}

// Settings that cannot be written (a read-only or missing configuration directory) do not stop a
// reply: the default model the panel would keep is used for this run only.
TEST(CommandLineMistakes, AReplyNeedsNoWritableSettings) {
  LumoraHome home;
  std::filesystem::create_directories(home.path() / "config");
  std::ofstream(home.path() / "config" / "lumora") << "not a directory";
  const ProcessResult r = home.run({"reply", "--dry-run", "-"}, {},
                                   "From: a@example.org\n\n<blockquote>Q</blockquote>\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("\"model\""), std::string::npos) << r.out;
}

TEST(SettingsFromStandardInput, KeepTheKeyOffTheCommandLine) {
  LumoraHome home;
  struct Case {
    std::string input;
    int status;
    std::string stored;
  };
  const Case cases[] = {
      {"sk-from-stdin-0001\n", 0, "sk-from-stdin-0001"},
      {"sk-from-stdin-0002\r\nsecond line\n", 0, "sk-from-stdin-0002"},
      {"sk-no-line-end-0003", 0, "sk-no-line-end-0003"},
      {"", 2, "sk-no-line-end-0003"},  // nothing read: the stored key stays
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    const ProcessResult r = home.run({"settings", "set", "apiKey", "-"}, {}, c.input);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, "");
    std::ifstream file(firstLine(home.run({"settings", "path"}).out));
    EXPECT_EQ(nlohmann::json::parse(file).value("apiKey", ""), c.stored);
  }
}

}  // namespace
}  // namespace lumora
