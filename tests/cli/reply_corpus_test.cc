// `lumora reply --dry-run` on real replies from many mail programs: the user message that would
// be sent is pinned (its length and FNV-1a hash where it holds quoted passages, since the
// messages are not ours to copy), and every message of the corpus runs to a request or to a
// clear failure, never to a crash.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/Fixtures.h"
#include "support/Process.h"
#include "support/TempDir.h"

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
    testing::ProcessOptions options;
    options.setEnv["XDG_CONFIG_HOME"] = (home_ / "config").string();
    options.setEnv["XDG_DATA_HOME"] = (home_ / "data").string();
    options.unsetEnv = {"LUMORA_DEBUG", "OPENAI_API_KEY"};
    const auto path = testing::fixturesDir() / "mail-corpus" / file;
    return testing::runProcess({LUMORA_BINARY, "reply", "--dry-run", path.string()}, options);
  }
  testing::TempDir home_;
};

enum class Expect { passages, instructionAlone, failure };

TEST_F(ReplyCorpusTest, TheUserMessageOfRealReplies) {
  struct Case {
    const char* file;
    Expect expect;
    std::string pinned;  // passages: length and hash; failure: the line on standard error
  };
  const Case cases[] = {
      {"list-archive-openbmc/applemail-qp-texthtml-773a72f989.eml", Expect::passages, "2931:55d85a6333199c2f"},
      {"list-archive-openbmc/ibmverse-qp-texthtml-e889407978.eml", Expect::passages, "1743:f2273902ef7930cd"},
      {"list-archive-openbmc/lotusdomino-qp-texthtml-668aaacf15.eml", Expect::passages, "1815:9d23f32228200ce8"},
      {"list-archive-openbmc/thunderbird-deep-nesting-12-d14164f80b.eml", Expect::passages, "94756:e0792651bd74efc1"},
      {"mailgun-talon/standard_replies/sparrow.eml", Expect::passages, "50:33d85d13fabe07b3"},
      {"list-archive-openbmc/applemail-qp-alternative-370bbe19be.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/applemail-qp-signed-d83a8a5dd4.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/coremail-base64-alternative-691e680a5a.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/evolution-qp-alternative-dd3e07fe6b.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/foxmail-qp-related-85b935300f.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/gmail-base64-alternative-3ae09a66ca.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/gmail-qp-alternative-b007397bf2.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/gmail-qp-related-dd24d9cdfb.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/iphone-qp-alternative-a7dc2c0d86.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/k9-qp-alternative-88d76aab21.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/macoutlook-base64-alternative-634abb99f6.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/openxchange-qp-alternative-8a442a5c99.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/outlook-base64-alternative-a4b2917fc7.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/outlook-divRplyFwdMsg-qp-alternative-gb2312-subject-ad3bd73d27.eml", Expect::failure, "lumora: A part of the message is not valid UTF-8 text."},
      {"list-archive-openbmc/outlook16-qp-alternative-85ed478528.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/qqmail-base64-alternative-ec86ad6e3d.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/thunderbird-7bit-alternative-e603a28625.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/thunderbird-8bit-alternative-3a6dc4a281.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/thunderbird-base64-alternative-bed48ef893.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/thunderbird-qp-signed-9ac7162f67.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/yandex-base64-texthtml-a7f1a1f7ff.eml", Expect::instructionAlone, ""},
      {"list-archive-openbmc/zoho-qp-alternative-8c4ef0d4d6.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/applemail-qp-mixedfooter-465d739b99.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/fastmail-qp-mixedfooter-24d2d8c8a3.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/gmail-nocte-mixedfooter-9ab67065ec.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/gmail-outlookquote-base64-mixedfooter-4e7ad3ee92.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/gmail-qp-mixedfooter-cfd6048ddd.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/iphone-7bit-mixedfooter-95ae797190.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/iphone-qp-mixedfooter-d74fafde2e.eml", Expect::instructionAlone, ""},
      {"list-archive-usrp-users/mailru-base64-mixedfooter-16f96518ac.eml", Expect::instructionAlone, ""},
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

}  // namespace
}  // namespace lumora
