// The conversation store: where it lies, the one-time move into the shared location, opening
// foreign or damaged files, and the panel's reads and edits.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <thread>

#include "lumora/platform/Debug.h"
#include "lumora/store/ConversationStore.h"
#include "store/MemoryTempDir.h"
#include "support/Fixtures.h"
#include "support/Process.h"
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

// Runs `work(i)` in `count` forked processes that wait at one gate and are let through together,
// as programs started at one moment. What each failed one said, or its exit status.
std::vector<std::string> inProcessesAtOnce(int count, const std::function<void(int)>& work) {
  int gate[2];
  if (::pipe(gate) != 0) return {"pipe failed"};
  std::vector<std::pair<pid_t, int>> children;  // pid, the read end of its report
  for (int i = 0; i < count; ++i) {
    int report[2];
    if (::pipe(report) != 0) break;
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(gate[1]);
      ::close(report[0]);
      char c;
      while (::read(gate[0], &c, 1) < 0 && errno == EINTR) {
      }
      std::string failure;
      try {
        work(i);
      } catch (const std::exception& e) {
        failure = e.what();
      } catch (...) {
        failure = "an exception that is not a std::exception";
      }
      if (!failure.empty()) (void)!::write(report[1], failure.data(), failure.size());
      ::_exit(failure.empty() ? 0 : 1);
    }
    ::close(report[1]);
    children.emplace_back(pid, report[0]);
  }
  ::close(gate[0]);
  ::close(gate[1]);  // opens the gate: every child's read ends at once
  std::vector<std::string> failures;
  for (const auto& [pid, report] : children) {
    std::string said;
    char buffer[512];
    ssize_t n;
    while ((n = ::read(report, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
      if (n > 0) said.append(buffer, static_cast<size_t>(n));
    ::close(report);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
      failures.push_back(said.empty() ? "exit status " + std::to_string(status) : said);
  }
  if (children.size() != static_cast<size_t>(count)) failures.push_back("fork failed");
  return failures;
}

// The add-on's native host and a command started together on a store that does not exist yet,
// or that is still to be moved from the private location: every process opens the same store,
// and nothing one of them writes is lost.
TEST_F(StoreTest, ProcessesStartingTogetherAllUseOneStore) {
  constexpr int kProcesses = 8;
  constexpr int kRounds = 50;
  const fs::path privateStore = PersistentContainer::defaultUrl(environment());
  makeStore(privateStore, "private");
  storetest::MemoryTempDir memory;  // the rounds are many: no disk syncs
  Environment e = environment();

  struct Case {
    const char* name;
    bool privateStore;
  };
  for (const Case& c : {Case{"no store yet", false}, Case{"a private store to move", true}}) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> failures;
    for (int round = 0; round < kRounds; ++round) {
      e.dataDirectory = memory / ("round-" + std::to_string(round));
      if (c.privateStore) {
        fs::create_directories(PersistentContainer::defaultUrl(e).parent_path());
        fs::copy_file(privateStore, PersistentContainer::defaultUrl(e));
      }
      // Half of them write, half only read.
      for (std::string& failure : inProcessesAtOnce(kProcesses, [&e](int i) {
             auto container = PersistentContainer::make(false, e);
             auto& context = container->viewContext();
             if (i % 2 == 0) {
               context.addConversation("process " + std::to_string(i), std::nullopt, std::nullopt);
             } else {
               context.fetchConversations();
               context.fetchTeams();
             }
           })) {
        failures.push_back("round " + std::to_string(round) + ": " + failure);
      }
      auto container = PersistentContainer::make(false, e);
      EXPECT_EQ(container->viewContext().allConversations().size(),
                static_cast<size_t>(kProcesses / 2 + (c.privateStore ? 1 : 0)))
          << "round " << round;
      EXPECT_EQ(container->persistentStoreDescriptions().front().url,
                PersistentContainer::appGroupUrl(e));
      container.reset();
      fs::remove_all(e.dataDirectory);
    }
    EXPECT_TRUE(failures.empty()) << failures.size() << " failed, the first: " << failures.front();
  }
}

// The same through the real command: writes, reads and a reply's dry run, all started together
// on a store and settings that do not exist yet.
TEST(StoreCommandsAtOnceTest, EveryCommandStartedTogetherOnANewStoreSucceeds) {
  constexpr int kRounds = 4;
  const std::vector<std::vector<std::string>> commands = {
      {"conversations", "add", "--title", "t"},
      {"conversations", "list"},
      {"teams", "list"},
      {"reply", "--dry-run"},
  };
  storetest::MemoryTempDir memory;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path home = memory / ("round-" + std::to_string(round));
    storetest::writeFile(home / "config/lumora/group.tech.zorvel.openai.json",
                         R"({"apiKey": "sk-test"})");
    std::vector<std::thread> runs;
    for (int i = 0; i < 8; ++i) {
      runs.emplace_back([&, i] {
        std::vector<std::string> argv = {LUMORA_BINARY};
        const auto& command = commands[static_cast<size_t>(i) % commands.size()];
        argv.insert(argv.end(), command.begin(), command.end());
        const testing::ProcessResult r =
            testing::runProcess(argv, {.setEnv = {{"XDG_CONFIG_HOME", (home / "config").string()},
                                                  {"XDG_DATA_HOME", (home / "data").string()},
                                                  {"HOME", home.string()}},
                                       .unsetEnv = {"LUMORA_DEBUG", "OPENAI_API_KEY"}});
        EXPECT_EQ(r.status, 0) << command[0] << " " << command[1] << ": " << r.err;
      });
    }
    for (std::thread& run : runs) run.join();
  }
}

// Another program writing a store that is still in the rollback journal: the switch to WAL
// waits for it as every other step does, instead of failing at its first try.
TEST_F(StoreTest, TheSwitchToWalWaitsForAnotherProgramsWrite) {
  const Environment e = environment();
  const fs::path path = PersistentContainer::appGroupUrl(e);
  makeStore(path, "kept");
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  // The other program waits for locks as ours do: its commit needs the moment when the store
  // being opened holds none, and without a wait it would fail whenever that one is reading.
  sqlite3_busy_timeout(other, 5000);
  sql(other, "PRAGMA journal_mode=DELETE");
  sql(other, "BEGIN IMMEDIATE");
  sql(other, "INSERT INTO Team (domain) VALUES ('a.example')");
  std::thread writer([other] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sql(other, "COMMIT");
  });
  std::unique_ptr<PersistentContainer> container;
  EXPECT_NO_THROW(container = PersistentContainer::make(false, e));
  writer.join();
  sqlite3_close(other);
  ASSERT_TRUE(container);
  EXPECT_EQ(titleIn(*container), "kept");
  EXPECT_EQ(container->viewContext().fetchTeams().size(), 1u);
  sqlite3_stmt* mode = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(container->viewContext().database(), "PRAGMA journal_mode", -1,
                               &mode, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(mode), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(mode, 0)), "wal");
  sqlite3_finalize(mode);
}

// A store left readable by others (an older version, a copy made by hand) holds team tokens:
// opening it makes the store and its side files private.
TEST_F(StoreTest, AnExistingStoreAndItsSideFilesAreMadePrivate) {
  const Environment e = environment();
  const fs::path path = PersistentContainer::appGroupUrl(e);
  makeStore(path, "t");
  sqlite3* other = nullptr;  // holds the WAL and its index open, as a running panel would
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  sql(other, "INSERT INTO Team (domain, token) VALUES ('a.example', 'secret')");
  const std::vector<fs::path> files = {path, path.string() + "-wal", path.string() + "-shm"};
  for (const fs::path& file : files) {
    ASSERT_TRUE(fs::exists(file)) << file;
    fs::permissions(file, fs::perms(0644));
  }
  auto container = PersistentContainer::make(false, e);
  for (const fs::path& file : files)
    EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms(0600)) << file;
  sqlite3_close(other);
}

}  // namespace
}  // namespace lumora
