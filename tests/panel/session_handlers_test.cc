// The host's rules: recipients in the reserved domain and the subject colour.
#include <gtest/gtest.h>

#include "lumora/panel/SessionHandlers.h"

namespace lumora {
namespace {

class Recipients final : public ComposeSession {
 public:
  explicit Recipients(std::vector<std::string> addresses) : addresses_(std::move(addresses)) {}
  const Message* originalMessage() const override { return nullptr; }
  std::vector<std::string> allRecipientAddresses() const override { return addresses_; }

 private:
  std::vector<std::string> addresses_;
};

TEST(SessionHandlers, RecipientsInTheReservedDomainAreMarkedAndRefused) {
  struct Case {
    std::vector<std::string> addresses;
    std::vector<std::string> annotated;
    bool refused;
  };
  const Case cases[] = {
      {{}, {}, false},
      {{"ann@example.org", "bob@example.com"}, {"bob@example.com"}, true},
      {{"a@example.com", "b@example.com", "a@example.com"}, {"a@example.com", "b@example.com"},
       true},
      // The test is on the end of the text as written.
      {{"a@mail.example.com", "b@EXAMPLE.COM", "Ann <ann@example.com>", "c@example.community"},
       {},
       false},
  };
  MainExecutor executor;
  ComposeSessionHandler handler = MailExtension().handlerForComposeSession(Recipients({}));
  for (const Case& c : cases) {
    const Recipients session(c.addresses);
    std::optional<ComposeSessionHandler::Annotations> annotations;
    handler.annotateAddresses(session, executor, [&](auto a) { annotations = std::move(a); });
    EXPECT_FALSE(annotations) << "annotations arrive on the executor";
    executor.drain();
    ASSERT_TRUE(annotations);
    std::vector<std::string> annotated;
    for (const auto& [address, text] : *annotations) {
      annotated.push_back(address);
      EXPECT_EQ(text, "example.com is not a valid domain");
    }
    EXPECT_EQ(annotated, c.annotated);

    int calls = 0;
    handler.canSendMessage(session, [&](const auto& error) {
      ++calls;
      EXPECT_EQ(error.has_value(), c.refused);
      if (error) {
        EXPECT_STREQ(error->what(), "example.com is not a valid recipient domain");
      }
    });
    EXPECT_EQ(calls, 1);
  }
}

TEST(SessionHandlers, SubjectsNamingMarsAreRed) {
  const std::pair<const char*, bool> cases[] = {
      {"Flight to Mars", true}, {"Marshall plan", true}, {"MARS", false},
      {"mars rover", false},    {"", false},
  };
  for (const auto& [subject, red] : cases) {
    std::optional<MessageActionDecision> decision;
    MailExtension().handlerForMessageActions().decideAction(subject,
                                                            [&](auto d) { decision = d; });
    EXPECT_EQ(decision.has_value(), red) << subject;
    if (decision) {
      EXPECT_EQ(decision->backgroundColor, MessageColor::red);
    }
  }
}

}  // namespace
}  // namespace lumora
