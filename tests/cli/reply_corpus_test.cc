// `lumora reply --dry-run` on real replies from many mail programs: the user message that would
// be sent is pinned (its length and FNV-1a hash where it holds quoted passages, since the
// messages are not ours to copy), and every message of the corpus runs to a request or to a
// clear failure, never to a crash.
#include <gtest/gtest.h>

#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "lumora/mailcontent/MailReader.h"
#include "support/Fixtures.h"
#include "support/LumoraHome.h"

namespace lumora {
namespace {

constexpr const char* kInstruction = "You're my assistant, please reply this email";

std::string lengthAndHash(const std::string& text) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  std::ostringstream out;
  out << text.size() << ':' << std::hex << std::setw(16) << std::setfill('0') << hash;
  return out.str();
}

class ReplyCorpusTest : public ::testing::Test {
 protected:
  testing::ProcessResult dryRun(const std::string& file) {
    return home_.run({"reply", "--dry-run", (testing::mailCorpusDir() / file).string()});
  }
  testing::LumoraHome home_;
};

enum class Expect { passages, instructionAlone, failure };

TEST_F(ReplyCorpusTest, TheUserMessageOfRealReplies) {
  struct Case {
    const char* file;
    Expect expect;
    std::string pinned;  // passages: length and hash; failure: the line on standard error
  };
  // The messages without passages are a few of each structure: every message of the corpus
  // runs below as well.
  const Case cases[] = {
      {"list-archive-openbmc/applemail-qp-texthtml-773a72f989.eml", Expect::passages, "2931:55d85a6333199c2f"},
      {"list-archive-openbmc/ibmverse-qp-texthtml-e889407978.eml", Expect::passages, "1743:f2273902ef7930cd"},
      {"list-archive-openbmc/lotusdomino-qp-texthtml-668aaacf15.eml", Expect::passages, "1815:9d23f32228200ce8"},
      {"list-archive-openbmc/thunderbird-deep-nesting-12-d14164f80b.eml", Expect::passages, "94756:e0792651bd74efc1"},
      {"list-archive-openbmc/coremail-base64-alternative-691e680a5a.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/foxmail-qp-related-85b935300f.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/outlook-divRplyFwdMsg-qp-alternative-gb2312-subject-ad3bd73d27.eml", Expect::failure, "lumora: A part of the message is not valid UTF-8 text."},
      {"list-archive-openbmc/thunderbird-8bit-alternative-3a6dc4a281.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/thunderbird-qp-signed-9ac7162f67.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/yandex-base64-texthtml-a7f1a1f7ff.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/gmail-outlookquote-base64-mixedfooter-4e7ad3ee92.eml", Expect::instructionAlone, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const testing::ProcessResult r = dryRun(c.file);
    if (c.expect == Expect::failure) {
      EXPECT_EQ(r.status, 1);
      EXPECT_EQ(r.err, c.pinned + "\n");
      continue;
    }
    ASSERT_EQ(r.status, 0) << r.err;
    const auto request = nlohmann::json::parse(r.out);
    const auto& messages = request["body"]["messages"];
    const std::string user = messages.back()["content"];
    EXPECT_EQ(messages.back()["role"], "user");
    if (c.expect == Expect::instructionAlone) {
      EXPECT_EQ(user, kInstruction);
    } else {
      EXPECT_EQ(lengthAndHash(user), c.pinned) << user.substr(0, 300);
      // With passages, the instruction goes first as the system message.
      EXPECT_EQ(messages.front()["role"], "system");
    }
  }
  // A reply from the talon fixtures (Apache-2.0), pinned in full.
  const testing::ProcessResult sparrow = dryRun("mailgun-talon/standard_replies/sparrow.eml");
  EXPECT_EQ(nlohmann::json::parse(sparrow.out)["body"]["messages"].back()["content"],
            "Hello On Apr 3, 2012, at 4:19 PM, bob wrote: Hi\nHi");  // the inner quote again
}

TEST_F(ReplyCorpusTest, EveryMessageRunsToARequestOrAClearFailure) {
  size_t requests = 0, failures = 0;
  for (const std::string& file : testing::mailCorpusFiles("message")) {
    SCOPED_TRACE(file);
    const testing::ProcessResult r = dryRun(file);
    ASSERT_TRUE(r.status == 0 || r.status == 1) << "exit " << r.status << "\n" << r.err;
    if (r.status == 0) {
      EXPECT_TRUE(nlohmann::json::accept(r.out)) << r.out;
      ++requests;
    } else {
      EXPECT_TRUE(r.err.starts_with("lumora: ") && r.err.ends_with("\n")) << r.err;
      ++failures;
    }
  }
  EXPECT_EQ(requests + failures, 301u);
  EXPECT_GE(requests, 250u);
}

// The whole-message reading through the command, on our own messages: the instruction as the
// system message and the reading as the one user message; the quoted reading, asked for or not,
// sends what it always sent.
TEST_F(ReplyCorpusTest, TheWholeMessageReadingThroughTheCommand) {
  const std::filesystem::path dir =
      std::filesystem::path(LUMORA_SOURCE_DIR) / "tests/mailcontent/reading/messages";
  size_t read = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".eml") continue;
    SCOPED_TRACE(entry.path().filename().string());
    ++read;
    const std::string file = entry.path().string();
    const testing::ProcessResult whole =
        home_.run({"reply", "--model", "gpt-4o", "--read", "message", "--dry-run", file});
    ASSERT_EQ(whole.status, 0) << whole.err;
    EXPECT_EQ(whole.err, "");  // the reading line is for a terminal only
    const auto messages = nlohmann::json::parse(whole.out)["body"]["messages"];
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0]["role"], "system");
    EXPECT_EQ(messages[0]["content"], kInstruction);
    EXPECT_EQ(messages[1]["role"], "user");
    EXPECT_EQ(messages[1]["content"], MailReader::read(testing::readFile(entry.path())).text);

    const testing::ProcessResult quoted =
        home_.run({"reply", "--model", "gpt-4o", "--read", "quoted", "--dry-run", file});
    const testing::ProcessResult plain = home_.run({"reply", "--model", "gpt-4o", "--dry-run", file});
    EXPECT_EQ(quoted.status, plain.status);
    EXPECT_EQ(quoted.out, plain.out);
    EXPECT_EQ(quoted.err, plain.err);
  }
  EXPECT_GE(read, 30u);
}

TEST_F(ReplyCorpusTest, TheReadingComesFromTheSettingAndAnUnknownOneSendsNothing) {
  const std::string file = (std::filesystem::path(LUMORA_SOURCE_DIR) /
                            "tests/mailcontent/reading/messages/01-plain-question.eml")
                               .string();
  ASSERT_EQ(home_.run({"settings", "set", "mailReading", "message"}).status, 0);
  const auto body = [](const testing::ProcessResult& r) {
    return nlohmann::json::parse(r.out)["body"]["messages"];
  };
  const auto stored = body(home_.run({"reply", "--model", "gpt-4o", "--dry-run", file}));
  EXPECT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored.back()["content"], MailReader::read(testing::readFile(file)).text);
  // The option wins over the setting.
  const auto quoted = body(home_.run({"reply", "--model", "gpt-4o", "--read=quoted", "--dry-run", file}));
  EXPECT_EQ(quoted.size(), 1u);
  EXPECT_EQ(quoted[0]["content"], kInstruction);
  for (const std::string bad : {"--read=whole", "--read"}) {
    const testing::ProcessResult r = home_.run({"reply", bad, "--dry-run", file});
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_EQ(r.out, "");
    EXPECT_TRUE(r.err.starts_with("lumora: --read takes quoted or message\n")) << r.err;
  }
}

}  // namespace
}  // namespace lumora
