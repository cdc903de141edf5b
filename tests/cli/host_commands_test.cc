// The host rules as commands, as a mail client calls them: the sendmail wrapper in front of a
// stand-in sendmail that records what it was given.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/Fixtures.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

class HostCommands : public ::testing::Test {
 protected:
  HostCommands() {
    // Records its arguments and its input, and exits 3 so that the status is seen to pass.
    std::ofstream(dir_ / "sendmail") << "#!/bin/sh\n"
                                        "printf '%s\\n' \"$@\" > \""
                                     << (dir_ / "args").string() << "\"\ncat > \""
                                     << (dir_ / "message").string() << "\"\nexit 3\n";
    chmod((dir_ / "sendmail").c_str(), 0700);
  }
  testing::ProcessResult lumora(std::vector<std::string> args, std::string input = {}) {
    args.insert(args.begin(), LUMORA_BINARY);
    testing::ProcessOptions options;
    options.setEnv["LUMORA_SENDMAIL"] = (dir_ / "sendmail").string();
    options.setEnv["XDG_CONFIG_HOME"] = (dir_ / "config").string();
    options.input = std::move(input);
    return testing::runProcess(args, options);
  }
  std::string sent(const char* file) {
    return std::filesystem::exists(dir_ / file) ? testing::readFile(dir_ / file) : "(not run)";
  }
  testing::TempDir dir_;
};

TEST_F(HostCommands, SendmailAddsTheHeaderAndPassesEverythingElseOn) {
  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string message;
    std::string delivered;
  };
  const std::string header = "X-CustomHeader: This ia a custom header.";
  const Case cases[] = {
      {"CR LF, recipients as arguments", {"-oem", "-oi", "--", "ann@example.org"},
       "From: me@example.org\r\nTo: ann@example.org\r\n\r\nHello\r\n\r\nBye\r\n",
       "From: me@example.org\r\nTo: ann@example.org\r\n" + header + "\r\n\r\nHello\r\n\r\nBye\r\n"},
      {"LF, body bytes untouched", {"-f", "me@example.org", "bob@example.net"},
       "Subject: x\n\n\xff\xfe binary\n\n", "Subject: x\n" + header + "\n\n\xff\xfe binary\n\n"},
      {"headers only", {"-t"}, "To: ann@example.org", "To: ann@example.org\n" + header + "\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(dir_ / "args");
    const auto r = lumora([&] {
      std::vector<std::string> a{"sendmail"};
      a.insert(a.end(), c.args.begin(), c.args.end());
      return a;
    }(), c.message);
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(sent("message"), c.delivered);
    std::string args;
    for (const std::string& a : c.args) args += a + "\n";
    EXPECT_EQ(sent("args"), args);
  }
}

TEST_F(HostCommands, SendmailRefusesTheReservedDomainAndSendsNothing) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{"--", "ann@example.org", "bob@example.com"}, "To: ann@example.org\n\nHi\n"},
      // With -t the recipients come from the message's To, Cc and Bcc.
      {{"-t"}, "To: ann@example.org\nCc: \"Doe, Bob\" <x@y.org>,\n bob@example.com\n\nHi\n"},
      {{"-oi", "-t"}, "To: ann@example.org\nBCC: bob@example.com\n\nHi\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    std::vector<std::string> args{"sendmail"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto r = lumora(args, c.message);
    EXPECT_EQ(r.status, 65);
    EXPECT_EQ(r.err, "example.com is not a valid recipient domain\n");
    EXPECT_EQ(sent("message"), "(not run)");
  }
}

TEST_F(HostCommands, RecipientsHeadersAndColour) {
  auto r = lumora({"check-recipients", "ann@example.org", "bob@example.com", "c@sub.example.com"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "bob@example.com: example.com is not a valid domain\n");
  EXPECT_EQ(r.err, "example.com is not a valid recipient domain\n");
  EXPECT_EQ(lumora({"check-recipients", "ann@example.org"}).status, 0);
  EXPECT_EQ(lumora({"check-recipients"}).status, 2);

  EXPECT_EQ(lumora({"headers"}).out, "X-CustomHeader: This ia a custom header.\n");
  r = lumora({"colour", "Photos from Mars"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "red\n");
  r = lumora({"colour", "photos from mars"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
}

}  // namespace
}  // namespace lumora

namespace lumora {
namespace {

// A sendmail that stops reading and still says it succeeded has not sent the message: the mail
// client must hear of it.
TEST_F(HostCommands, ASendmailThatReadsOnlyPartOfTheMessageFails) {
  std::ofstream(dir_ / "sendmail", std::ios::trunc) << "#!/bin/sh\nhead -c 100 > /dev/null\nexit 0\n";
  std::string message = "From: me@example.org\r\nTo: ann@example.org\r\n\r\n";
  message.resize(4 << 20, 'x');
  const auto r = lumora({"sendmail", "--", "ann@example.org"}, message);
  EXPECT_EQ(r.status, 74);
  EXPECT_NE(r.err.find("exited without reading the whole message"), std::string::npos) << r.err;
  // One that reads it all is believed.
  std::ofstream(dir_ / "sendmail", std::ios::trunc) << "#!/bin/sh\ncat > /dev/null\nexit 0\n";
  EXPECT_EQ(lumora({"sendmail", "--", "ann@example.org"}, message).status, 0);
}

}  // namespace
}  // namespace lumora
