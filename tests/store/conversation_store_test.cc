// The conversation store: where it lies, the one-time move into the shared location, opening
// foreign or damaged files, and the panel's reads and edits.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "lumora/platform/Debug.h"
#include "lumora/store/ConversationStore.h"
#include "support/Fixtures.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

namespace fs = std::filesystem;
using Environment = PersistentContainer::Environment;

void sql(sqlite3* db, const std::string& statement) {
  char* error = nullptr;
  ASSERT_EQ(sqlite3_exec(db, statement.c_str(), nullptr, nullptr, &error), SQLITE_OK) << error;
}

class StoreTest : public ::testing::Test {
 protected:
  StoreTest() {
    debug::setSink([this](std::string_view line) { lines_.emplace_back(line); });
  }
  ~StoreTest() override { debug::setSink(debug::stdoutSink()); }

  Environment environment(bool copyFails = false) {
    Environment e = PersistentContainer::processEnvironment();
    e.arguments = {"lumora"};
    e.dataDirectory = dir_.path() / "data";
    if (copyFails) {
      e.replaceStore = [](const fs::path&, const fs::path&) {
        throw StoreError("the copy failed");
      };
    }
    return e;
  }
  // A store at `path` with one conversation titled `title`, made elsewhere and moved there.
  void makeStore(const fs::path& path, const std::string& title) {
    Environment scratch = environment();
    scratch.dataDirectory = dir_.path() / ("scratch-" + title);
    auto container = PersistentContainer::make(false, scratch);
    sql(container->viewContext().database(),
        "INSERT INTO Conversation (id, title) VALUES ('" + title + "-id', '" + title + "')");
    container.reset();  // the last connection closing folds the WAL into the file
    fs::create_directories(path.parent_path());
    fs::rename(PersistentContainer::appGroupUrl(scratch), path);
    fs::remove_all(scratch.dataDirectory);
    lines_.clear();
  }
  std::string titleIn(PersistentContainer& container) {
    const auto conversations = container.viewContext().fetchConversations();
    return conversations.empty() ? "" : conversations.front()->displayTitle();
  }

  testing::TempDir dir_;
  std::vector<std::string> lines_;
};

TEST_F(StoreTest, TheMigrationDecision) {
  struct Case {
    const char* name;
    bool privateStore, groupStore, copyFails;
    std::string opened;  // "group" or "private"
    std::string title;   // of the conversation found there
    bool migrated;
  };
  const Case cases[] = {
      {"no store anywhere: a new one in the group", false, false, false, "group", "", false},
      {"only the group's", false, true, false, "group", "group", false},
      {"both: the private one is ignored", true, true, false, "group", "group", false},
      {"only the private one: copied", true, false, false, "group", "private", true},
      {"only the private one and the copy fails: used where it is", true, false, true, "private",
       "private", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(dir_.path() / "data");
    const Environment e = environment(c.copyFails);
    if (c.groupStore) makeStore(PersistentContainer::appGroupUrl(e), "group");
    if (c.privateStore) makeStore(PersistentContainer::defaultUrl(e), "private");
    auto container = PersistentContainer::make(false, e);
    const auto& first = container->persistentStoreDescriptions().front();
    EXPECT_EQ(first.url, c.opened == "group" ? PersistentContainer::appGroupUrl(e)
                                             : PersistentContainer::defaultUrl(e));
    EXPECT_EQ(first.cloudKitContainer, "iCloud.tech.zorvel.lumora");
    EXPECT_EQ(titleIn(*container), c.title);
    const bool triedToMigrate =
        std::find(lines_.begin(), lines_.end(), "[debug] -- need migrate ...") != lines_.end();
    EXPECT_EQ(triedToMigrate, c.privateStore && !c.groupStore);
    const bool changed = std::any_of(lines_.begin(), lines_.end(), [](const std::string& l) {
      return l.starts_with("[debug] --change container to use appGroupUrl:");
    });
    EXPECT_EQ(changed, c.migrated);
    if (c.privateStore) {
      EXPECT_TRUE(fs::exists(PersistentContainer::defaultUrl(e)));  // kept
    }
    EXPECT_EQ(lines_.back(), "[debug] container url file://" + first.url.string());
    EXPECT_EQ((fs::status(first.url).permissions() & fs::perms::all),
              fs::perms::owner_read | fs::perms::owner_write);
    container.reset();
    // A migration succeeds at most once: the next start finds the group's store.
    if (c.migrated) {
      lines_.clear();
      auto again = PersistentContainer::make(false, e);
      EXPECT_EQ(std::count(lines_.begin(), lines_.end(), "[debug] -- need migrate ..."), 0);
    }
    lines_.clear();
  }
}

TEST_F(StoreTest, InMemoryAndTheTestGuard) {
  Environment e = environment();
  auto memory = PersistentContainer::make(true, e);
  EXPECT_EQ(memory->persistentStoreDescriptions().front().url, "/dev/null");
  EXPECT_FALSE(memory->persistentStoreDescriptions().front().cloudKitContainer);
  EXPECT_TRUE(lines_.empty());
  e.arguments = {"lumora", "UITEST"};
  try {
    PersistentContainer::make(false, e);
    ADD_FAILURE();
  } catch (const StoreError& error) {
    EXPECT_STREQ(error.what(), "Unit test should only use in memory core data");
  }
  EXPECT_FALSE(fs::exists(dir_.path() / "data")) << "no file touched";
  EXPECT_NO_THROW(PersistentContainer::make(true, e));
}

TEST_F(StoreTest, EveryDescriptionIsMigratedInTurn) {
  Environment e = environment();
  makeStore(PersistentContainer::defaultUrl(e), "private");
  int copies = 0;
  const auto copy = e.replaceStore;
  e.replaceStore = [&](const fs::path& from, const fs::path& to) {
    ++copies;
    copy(from, to);
  };
  e.descriptions = 2;
  auto container = PersistentContainer::make(false, e);
  EXPECT_EQ(copies, 2);
  EXPECT_EQ(container->persistentStoreDescriptions()[0].url, PersistentContainer::appGroupUrl(e));
  EXPECT_EQ(container->persistentStoreDescriptions()[1].url, PersistentContainer::defaultUrl(e));
}

TEST_F(StoreTest, ForeignAndDamagedFilesAreReportedAndKept) {
  const Environment e = environment();
  const fs::path store = PersistentContainer::appGroupUrl(e);
  fs::create_directories(store.parent_path());
  struct Case {
    const char* name;
    std::function<void()> write;
  };
  const Case cases[] = {
      {"not a database", [&] { std::ofstream(store) << std::string(4096, 'x'); }},
      {"another program's database",
       [&] {
         sqlite3* db = nullptr;
         sqlite3_open(store.c_str(), &db);
         sql(db, "CREATE TABLE notes (text TEXT)");
         sqlite3_close(db);
       }},
      {"a newer schema",
       [&] {
         sqlite3* db = nullptr;
         sqlite3_open(store.c_str(), &db);
         sql(db, "CREATE TABLE Conversation (id TEXT); PRAGMA user_version = 7");
         sqlite3_close(db);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(store);
    c.write();
    const std::string before = testing::readFile(store);
    try {
      PersistentContainer::make(false, e);
      ADD_FAILURE() << "opened";
    } catch (const StoreError& error) {
      EXPECT_TRUE(std::string(error.what()).starts_with("Unresolved error ")) << error.what();
      EXPECT_NE(std::string(error.what()).find(store.string()), std::string::npos);
    }
    EXPECT_TRUE(testing::readFile(store) == before) << "never overwritten";
  }
}

TEST_F(StoreTest, PresetsAndTeamsAsThePanelReadsThem) {
  auto container = PersistentContainer::make(false, environment());
  sql(container->viewContext().database(),
      "INSERT INTO Conversation (id, title, isPinned, updatedAt, isArchived) VALUES "
      "('a', 'old pinned', 1, 10, 0), ('b', 'new pinned', 1, 20, 0), ('c', 'newest', 0, 99, 0),"
      "('d', 'archived', 1, 50, 1), (NULL, NULL, 0, 5, 0);"
      "INSERT INTO Team (name, domain, token, createdAt) VALUES ('first', 'a.example', 't1', 1),"
      "('second', 'b.example', NULL, 2)");
  std::vector<std::string> titles;
  for (const auto& c : container->viewContext().fetchConversations())
    titles.push_back(c->displayTitle() + "/" + c->id().value_or(""));
  EXPECT_EQ(titles, (std::vector<std::string>{"new pinned/b", "old pinned/a", "newest/c",
                                              "New Chat/"}));
  const auto teams = container->viewContext().fetchTeams();
  ASSERT_EQ(teams.size(), 2u);
  EXPECT_EQ(teams[0].name, "second");
  EXPECT_FALSE(teams[0].token);
}

TEST_F(StoreTest, EditsAreLiveSavedAndMergedWithOtherWriters) {
  const Environment e = environment();
  auto panel = PersistentContainer::make(false, e);
  sql(panel->viewContext().database(),
      "INSERT INTO Conversation (id, title, systemPrompt, model) VALUES ('a', 't', 'old', 'gpt-4o')");
  auto fetched = panel->viewContext().fetchConversations();
  auto again = panel->viewContext().fetchConversations();
  ASSERT_EQ(fetched.front(), again.front()) << "one live object per conversation";
  int changes = 0;
  auto subscription = fetched.front()->onChange([&] { ++changes; });
  fetched.front()->setSystemPrompt("new");
  EXPECT_EQ(again.front()->systemPrompt(), "new");
  EXPECT_EQ(changes, 1);
  subscription.reset();
  fetched.front()->setSystemPrompt("new");
  EXPECT_EQ(changes, 1) << "no notice once the subscription has ended";

  // Another process edits the model meanwhile; the unsaved instruction here stays.
  auto command = PersistentContainer::make(false, e);
  auto theirs = command->viewContext().fetchConversations();
  theirs.front()->setModel("claude-2");
  command->viewContext().save();
  panel->viewContext().fetchConversations();
  EXPECT_EQ(fetched.front()->model(), "claude-2");
  EXPECT_EQ(fetched.front()->systemPrompt(), "new");

  panel->viewContext().save();
  EXPECT_FALSE(fetched.front()->hasChanges());
  EXPECT_EQ(command->viewContext().fetchConversations().front()->systemPrompt(), "new");
}

// Another program holding the write lock past the timeout: a clear error, nothing lost.
TEST_F(StoreTest, ALockHeldTooLongIsReportedInWordsAndTheEditWaits) {
  Environment e = environment();
  e.lockTimeout = std::chrono::milliseconds(50);
  auto container = PersistentContainer::make(false, e);
  container->viewContext().addConversation("t", "old", std::nullopt);
  auto conversation = container->viewContext().fetchConversations().front();

  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(PersistentContainer::appGroupUrl(e).c_str(), &other), SQLITE_OK);
  sql(other, "BEGIN IMMEDIATE");
  conversation->setSystemPrompt("new");
  try {
    container->viewContext().save();
    ADD_FAILURE() << "the save went through a held lock";
  } catch (const StoreError& error) {
    const std::string text = error.what();
    EXPECT_NE(text.find("another program"), std::string::npos) << text;
    EXPECT_EQ(text.find("database is locked"), std::string::npos) << text;
  }
  EXPECT_TRUE(conversation->hasChanges());
  EXPECT_EQ(conversation->systemPrompt(), "new");

  sql(other, "ROLLBACK");
  sqlite3_close(other);
  container->viewContext().save();
  EXPECT_EQ(container->viewContext().conversation(*conversation->id())->fields.systemPrompt, "new");
}

}  // namespace
}  // namespace lumora
