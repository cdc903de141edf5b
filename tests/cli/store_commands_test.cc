// `lumora conversations` and `lumora teams` on a real store, and the store shared by the
// command and a panel at the same time.
#include <gtest/gtest.h>

#include <thread>

#include "lumora/store/ConversationStore.h"
#include "support/LumoraHome.h"

namespace lumora {
namespace {

class StoreCommandsTest : public ::testing::Test {
 protected:
  testing::ProcessResult lumora(std::vector<std::string> args) { return home_.run(std::move(args)); }
  std::string out(std::vector<std::string> args) {
    const auto r = lumora(std::move(args));
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  }
  testing::LumoraHome home_;
};

TEST_F(StoreCommandsTest, ConversationsFromAddToRemove) {
  std::string id = out({"conversations", "add", "--title", "Polite", "--instruction",
                        "Reply politely.", "--model", "claude-2"});
  ASSERT_FALSE(id.empty());
  id.pop_back();
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(id[14], '4') << "a version 4 UUID";
  std::string other = out({"conversations", "add"});
  other.pop_back();
  out({"conversations", "pin", id});
  EXPECT_EQ(out({"conversations", "list"}),
            id + "\tPolite\tclaude-2\tpinned\t-\n" + other + "\tNew Chat\t-\t-\t-\n");
  out({"conversations", "edit", id, "--instruction", "Be brief.\nAlways.", "--model", "gpt-4o"});
  const std::string shown = out({"conversations", "show", id});
  EXPECT_NE(shown.find("model: gpt-4o\n"), std::string::npos);
  EXPECT_TRUE(shown.ends_with("instruction: Be brief.\nAlways.\n")) << shown;
  // Ids are matched in any letter case, as the settings hold them.
  std::string lower = id;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  out({"conversations", "archive", lower});
  EXPECT_NE(out({"conversations", "list"}).find("\tarchived\n"), std::string::npos);
  out({"conversations", "rm", id});
  EXPECT_EQ(out({"conversations", "list"}), other + "\tNew Chat\t-\t-\t-\n");

  const auto missing = lumora({"conversations", "show", id});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "lumora: No conversation has the id " + id + ".\n");
  EXPECT_EQ(lumora({"conversations", "add", "--colour", "red"}).status, 2);
  EXPECT_EQ(lumora({"conversations"}).status, 2);
}

TEST_F(StoreCommandsTest, TeamsWithTheirTokensMasked) {
  EXPECT_EQ(out({"teams", "add", " ops.example.org ", "team-secret-9876", "--name", "Ops"}), "1\n");
  EXPECT_EQ(out({"teams", "list"}), "1\tOps\tops.example.org\t…9876\n");
  EXPECT_EQ(lumora({"teams", "add", "x.example", "  "}).status, 2);
  EXPECT_EQ(lumora({"teams", "rm", "7"}).status, 1);
  out({"teams", "rm", "1"});
  EXPECT_EQ(out({"teams", "list"}), "");
}

TEST_F(StoreCommandsTest, AStoredConversationIsThePresetOfAReply) {
  std::string id = out({"conversations", "add", "--title", "French", "--instruction",
                        "Answer in French.", "--model", "gpt-4o-mini"});
  id.pop_back();
  const std::string example = std::string(LUMORA_SOURCE_DIR) + "/examples/reply-to-meeting.eml";
  for (const std::vector<std::string>& how :
       {std::vector<std::string>{"reply", "--dry-run", "--conversation", id, example},
        std::vector<std::string>{"reply", "--dry-run", example}}) {
    if (how.size() == 3) out({"settings", "set", "mailSelectedConversationId", id});
    const std::string request = out(how);
    EXPECT_NE(request.find("\"model\": \"gpt-4o-mini\""), std::string::npos) << request;
    EXPECT_NE(request.find("\"content\": \"Answer in French.\""), std::string::npos) << request;
  }
  // An archived conversation is no preset: the instruction of the settings applies.
  out({"conversations", "archive", id});
  EXPECT_EQ(out({"reply", "--dry-run", example}).find("Answer in French."), std::string::npos);
}

// A panel (this process) saving edits while the command adds conversations from other
// processes: every write lands, and nobody sees "database is locked".
TEST_F(StoreCommandsTest, APanelAndTheCommandShareTheStore) {
  out({"conversations", "add", "--title", "edited by the panel"});
  PersistentContainer::Environment environment = PersistentContainer::processEnvironment();
  environment.arguments = {"lumora"};
  environment.dataDirectory = home_.dataDirectory();
  auto panel = PersistentContainer::make(false, environment);
  auto conversation = panel->viewContext().fetchConversations().front();

  std::vector<std::thread> commands;
  std::vector<testing::ProcessResult> results(6);
  for (size_t i = 0; i < results.size(); ++i)
    commands.emplace_back([&, i] {
      results[i] = lumora({"conversations", "add", "--title", "from the command " + std::to_string(i)});
    });
  for (int edit = 0; edit < 30; ++edit) {
    conversation->setSystemPrompt("edit " + std::to_string(edit));
    panel->viewContext().save();
    panel->viewContext().fetchConversations();
  }
  for (auto& t : commands) t.join();
  for (const auto& r : results) EXPECT_EQ(r.status, 0) << r.err;
  const auto all = panel->viewContext().allConversations();
  EXPECT_EQ(all.size(), 7u);
  const auto mine = panel->viewContext().fetchConversations();
  const auto it = std::find_if(mine.begin(), mine.end(), [](const auto& c) {
    return c->title() == "edited by the panel";
  });
  ASSERT_NE(it, mine.end());
  EXPECT_EQ((*it)->systemPrompt(), "edit 29");
}

}  // namespace
}  // namespace lumora
