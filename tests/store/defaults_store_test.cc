#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <thread>

#include "lumora/platform/Errors.h"
#include "lumora/store/DefaultsStore.h"
#include "store/MemoryTempDir.h"
#include "support/Fixtures.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using nlohmann::json;
using storetest::MemoryTempDir;
using storetest::writeFile;
using testing::readFile;

mode_t modeOf(const std::filesystem::path& p) {
  struct stat st;
  EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
  return st.st_mode & 07777;
}

TEST(DefaultsCoercionTest, LenientReadsOfStoredValues) {
  struct Row {
    json stored;
    std::optional<std::string> text;
    std::optional<bool> flag;
    std::optional<int64_t> integer;
    std::optional<double> number;
  };
  const Row rows[] = {
      {"abc", "abc", std::nullopt, std::nullopt, std::nullopt},
      {"YES", "YES", true, std::nullopt, std::nullopt},
      {" no ", " no ", false, std::nullopt, std::nullopt},
      {"True", "True", true, std::nullopt, std::nullopt},
      {"0", "0", false, 0, 0.0},
      {" -2 ", " -2 ", true, -2, -2.0},
      {"3.7", "3.7", true, 3, 3.7},
      {"1e3", "1e3", true, 1000, 1000.0},
      {"nan", "nan", std::nullopt, std::nullopt, std::nullopt},
      {"0x10", "0x10", std::nullopt, std::nullopt, std::nullopt},
      {"", "", std::nullopt, std::nullopt, std::nullopt},
      {42, "42", true, 42, 42.0},
      {0, "0", false, 0, 0.0},
      {-1.9, "-1.9", true, -1, -1.9},
      {1e300, "1e+300", true, std::nullopt, 1e300},
      {18446744073709551615u, "18446744073709551615", true, std::nullopt, 18446744073709551615.0},
      {true, "true", true, 1, 1.0},
      {false, "false", false, 0, 0.0},
      {nullptr, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
      {json::array({"a"}), std::nullopt, std::nullopt, std::nullopt, std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.stored.dump());
    EXPECT_EQ(defaults::asString(row.stored), row.text);
    EXPECT_EQ(defaults::asBool(row.stored), row.flag);
    EXPECT_EQ(defaults::asInteger(row.stored), row.integer);
    EXPECT_EQ(defaults::asNumber(row.stored), row.number);
  }
}

TEST(DefaultsStoreTest, MissingFileIsAnEmptyStoreAndAbsentBoolReadsFalse) {
  MemoryTempDir dir;
  DefaultsStore store(dir / "none/suite.json");
  EXPECT_EQ(store.value("a"), std::nullopt);
  EXPECT_FALSE(store.boolean("a"));
  EXPECT_EQ(store.all(), json::object());
  store.remove("a");  // nothing to remove: nothing is created
  EXPECT_FALSE(std::filesystem::exists(dir / "none"));
}

// Only writes lock: a reader in a directory it cannot write (a read-only configuration) reads,
// and creates nothing where it can.
TEST(DefaultsStoreTest, ReadsTakeNoLockAndCreateNothing) {
  MemoryTempDir dir;
  writeFile(dir / "cfg/suite.json", R"({"a": 1})");
  const bool enforced = ::geteuid() != 0;  // the superuser writes regardless of the mode
  if (enforced) ::chmod((dir / "cfg").c_str(), 0500);
  DefaultsStore store(dir / "cfg/suite.json");
  EXPECT_EQ(store.integer("a"), 1);
  EXPECT_EQ(store.all(), json({{"a", 1}}));
  if (enforced) {
    EXPECT_THROW(store.set("a", 2), FileError);
  }
  ::chmod((dir / "cfg").c_str(), 0700);
  size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir / "cfg"))
    ++entries;
  EXPECT_EQ(entries, 1u) << "no lock file, no temporary";
}

TEST(DefaultsStoreTest, WritesCreatePrivateDirectoryAndFile) {
  MemoryTempDir dir;
  writeFile(dir / "old/suite.json", "{\"keep\": 1}");
  ::chmod((dir / "old/suite.json").c_str(), 0644);
  writeFile(dir / "same/suite.json", "{\"keep\": 1}");
  ::chmod((dir / "same/suite.json").c_str(), 0644);
  DefaultsStore fresh(dir / "a/b/suite.json");
  DefaultsStore existing(dir / "old/suite.json");

  fresh.set("k", "v");
  existing.set("k", true);
  DefaultsStore(dir / "same/suite.json").set("keep", 1);  // changes nothing, yet tightens

  EXPECT_EQ(modeOf(dir / "a"), 0700u);
  EXPECT_EQ(modeOf(dir / "a/b"), 0700u);
  EXPECT_EQ(modeOf(dir / "a/b/suite.json"), 0600u);
  EXPECT_EQ(modeOf(dir / "a/b/suite.json.lock"), 0600u);
  EXPECT_EQ(modeOf(dir / "old/suite.json"), 0600u);  // a rewrite tightens a loose file
  EXPECT_EQ(modeOf(dir / "same/suite.json"), 0600u);
  EXPECT_EQ(json::parse(readFile(dir / "old/suite.json")), json({{"keep", 1}, {"k", true}}));
  EXPECT_EQ(DefaultsStore(dir / "a/b/suite.json").string("k"), "v");
}

TEST(DefaultsStoreTest, ChangesBehindTheStoresBackAreSeenAtTheNextRead) {
  // On a disk file system, which hands a freed inode number to the next new file.
  testing::TempDir dir;
  const auto file = dir / "suite.json";
  DefaultsStore store(file);
  writeFile(file, R"({"k": "aaaa"})");
  EXPECT_EQ(store.string("k"), "aaaa");

  // Rewritten in place with another size.
  writeFile(file, R"({"k": "bbbbbb"})");
  EXPECT_EQ(store.string("k"), "bbbbbb");

  // Replaced twice by rename, the last version with the size and modification time of the one
  // read last: only the file's identity tells them apart, and the file system may hand the
  // freed inode number of that version to the newest file.
  struct stat seen;
  ASSERT_EQ(::stat(file.c_str(), &seen), 0);
  const struct timespec times[2] = {seen.st_atim, seen.st_mtim};
  writeFile(dir / "next.json", R"({"k": "xxxxxxxxxxxxxxxxxxxx"})");
  std::filesystem::rename(dir / "next.json", file);
  writeFile(dir / "next.json", R"({"k": "cccccc"})");
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir / "next.json").c_str(), times, 0), 0);
  std::filesystem::rename(dir / "next.json", file);
  EXPECT_EQ(store.string("k"), "cccccc");

  // Written through another store on the same file, as another process would.
  DefaultsStore(file).set("k", "dddd");
  EXPECT_EQ(store.string("k"), "dddd");

  std::filesystem::remove(file);
  EXPECT_EQ(store.value("k"), std::nullopt);
}

TEST(DefaultsStoreTest, SymbolicLinksAreFollowedAndNeverReplaced) {
  namespace fs = std::filesystem;
  struct Row {
    const char* name;
    std::vector<std::pair<std::string, std::string>> links;  // link, what it points to
    std::string written;  // the file written through "suite.json"; empty: refused
    std::string refusal;  // what the error says then
  };
  const Row rows[] = {
      {"to a file", {{"suite.json", "dotfiles/suite.json"}}, "dotfiles/suite.json", ""},
      {"to a file not made yet", {{"suite.json", "dotfiles/new.json"}}, "dotfiles/new.json", ""},
      {"through a chain",
       {{"suite.json", "middle.json"}, {"middle.json", "dotfiles/new.json"}},
       "dotfiles/new.json",
       ""},
      {"into a directory that does not exist",
       {{"suite.json", "nowhere/suite.json"}},
       "",
       "whose directory does not exist"},
      {"in a loop",
       {{"suite.json", "other.json"}, {"other.json", "suite.json"}},
       "",
       "leads to itself"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    MemoryTempDir dir;
    writeFile(dir / "dotfiles/suite.json", R"({"a": 1})");
    for (const auto& [link, to] : row.links) fs::create_symlink(to, dir / link);
    DefaultsStore store(dir / "suite.json");
    if (row.written.empty()) {
      try {
        store.set("b", 2);
        ADD_FAILURE() << "written";
      } catch (const FileError& e) {
        EXPECT_NE(std::string(e.what()).find(row.refusal), std::string::npos) << e.what();
      }
    } else {
      store.set("b", 2);
      json expected = {{"b", 2}};
      if (row.written == "dotfiles/suite.json") expected["a"] = 1;
      EXPECT_EQ(json::parse(readFile(dir / row.written)), expected);
      EXPECT_EQ(modeOf(dir / row.written), 0600u);
      EXPECT_EQ(store.integer("b"), 2);
    }
    for (const auto& [link, to] : row.links) {
      EXPECT_TRUE(fs::is_symlink(dir / link)) << link;
      EXPECT_EQ(fs::read_symlink(dir / link), to);
    }
  }
}

// A writer killed between creating its temporary and the rename leaves a whole copy of the
// settings behind. The next write removes such copies of its own file once they are old enough
// that no live write can own them, and nothing else.
TEST(DefaultsStoreTest, TemporariesOfKilledWritesAreRemovedByTheNextWrite) {
  struct Row {
    const char* name;
    bool old;
    bool directory;
    bool removed;
  };
  const Row rows[] = {
      {".suite.json.Ab3dE9", true, false, true},    // left by a killed write
      {".suite.json.zzzzzz", true, false, true},    // likewise
      {".suite.json.LIVE01", false, false, false},  // a write under way elsewhere
      {".other.json.Ab3dE9", true, false, false},   // another suite's
      {".suite.json.Ab3dE", true, false, false},    // not mkstemp's six characters
      {".suite.json.Ab3dE90", true, false, false},  // likewise
      {".suite.json.Ab-dE9", true, false, false},   // likewise
      {"suite.json.Ab3dE9", true, false, false},    // not hidden
      {".suite.json.DIRECT", true, true, false},    // not a file
  };
  MemoryTempDir dir;
  writeFile(dir / "suite.json", R"({"a": 1})");
  const auto twoMinutesAgo = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() -
                                                                  std::chrono::minutes(2));
  for (const Row& row : rows) {
    const auto path = dir / row.name;
    if (row.directory) {
      std::filesystem::create_directory(path);
    } else {
      writeFile(path, R"({"apiKey": "sk-left-behind"})");
    }
    if (row.old) {
      const struct timespec times[2] = {{twoMinutesAgo, 0}, {twoMinutesAgo, 0}};
      ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
  }
  DefaultsStore(dir / "suite.json").set("b", 2);
  for (const Row& row : rows)
    EXPECT_EQ(std::filesystem::exists(dir / row.name), !row.removed) << row.name;
}

TEST(DefaultsStoreTest, BadFilesAreReportedAndNeverOverwritten) {
  struct Row {
    const char* name;
    std::string content;
    std::string problem;  // what follows "The settings file PATH"
  };
  const Row rows[] = {
      {"syntax", "{\"a\": 1,\n \"b\": }", " is not valid JSON (line 2, column 7)."},
      {"not UTF-8", "{\"a\": \"\xff\"}", " is not valid JSON (line 1, column 8)."},
      {"number out of range", "{\"a\": " + std::string(400, '3') + "}",
       " holds a number too large to read."},
      {"array", "[1, 2]", " holds a JSON array, not an object."},
      {"empty", "", " is empty, not a JSON object."},
      {"blank", " \n\t", " is empty, not a JSON object."},
      {"deep", "{\"a\": " + std::string(200, '[') + std::string(200, ']') + "}",
       " nests values deeper than 128 levels."},
      {"huge", "{\"a\": \"" + std::string(DefaultsStore::kMaxFileSize, 'x') + "\"}",
       " is larger than 16 MiB."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    MemoryTempDir dir;
    const auto file = dir / "suite.json";
    writeFile(file, row.content);
    DefaultsStore store(file);
    const std::string expected = "The settings file " + file.string() + row.problem;
    for (int attempt = 0; attempt < 2; ++attempt) {  // the second one comes from the cache
      try {
        store.value("a");
        ADD_FAILURE() << "read did not throw";
      } catch (const FileError& e) {
        EXPECT_EQ(e.what(), expected);
      }
    }
    try {
      store.set("a", 2);
      ADD_FAILURE() << "write did not throw";
    } catch (const FileError& e) {
      EXPECT_EQ(e.what(), expected + " It was left unchanged.");
    }
    EXPECT_THROW(store.remove("a"), FileError);
    EXPECT_TRUE(readFile(file) == row.content);

    // Once repaired, the file reads again: the error is not remembered past the change.
    writeFile(file, R"({"a": 3})");
    EXPECT_EQ(store.integer("a"), 3);
  }
}

TEST(DefaultsStoreTest, NonRegularFilesAreRefusedWithoutBlocking) {
  MemoryTempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo.json").c_str(), 0600), 0);
  std::filesystem::create_directory(dir / "dir.json");
  for (const char* name : {"fifo.json", "dir.json"}) {
    DefaultsStore store(dir / name);
    try {
      store.value("a");
      ADD_FAILURE() << name;
    } catch (const FileError& e) {
      EXPECT_EQ(e.what(), "The settings file " + (dir / name).string() + " is not a regular file.");
    }
  }
}

TEST(DefaultsStoreTest, TextNotInUtf8IsRefusedBeforeAnythingIsWritten) {
  MemoryTempDir dir;
  DefaultsStore store(dir / "suite.json");
  store.set("a", "ok");
  const std::string before = readFile(dir / "suite.json");
  EXPECT_THROW(store.set("b", "\xff"), DecodingError);
  EXPECT_EQ(readFile(dir / "suite.json"), before);
}

TEST(DefaultsStoreTest, ThreadsSharingOneStoreLoseNothing) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 50;
  MemoryTempDir dir;
  DefaultsStore store(dir / "suite.json");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 0; i < kWrites; ++i) {
        const std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        store.set(key, i);
        EXPECT_EQ(store.integer(key), i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(DefaultsStore(dir / "suite.json").all().size(), size_t{kThreads * kWrites});
}

TEST(DefaultsStoreTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kWrites = 1000;
  MemoryTempDir dir;
  const auto file = dir / "cfg/suite.json";
  const auto started = std::chrono::steady_clock::now();
  std::vector<std::thread> writers;
  for (const char* prefix : {"first", "second"}) {
    writers.emplace_back([&file, prefix] {
      const testing::ProcessResult r = testing::runProcess(
          {LUMORA_TEST_TOOL_settings_writer, file.string(), prefix, std::to_string(kWrites)},
          {.timeout = std::chrono::minutes(2)});
      EXPECT_EQ(r.status, 0) << r.err;
    });
  }
  for (std::thread& writer : writers) writer.join();
  const auto elapsed = std::chrono::steady_clock::now() - started;
  RecordProperty(
      "milliseconds",
      std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count()));

  const json all = DefaultsStore(file).all();
  EXPECT_EQ(all.size(), 2u * kWrites);
  for (const char* prefix : {"first", "second"}) {
    for (int i = 0; i < kWrites; ++i) {
      const std::string key = std::string(prefix) + "-" + std::to_string(i);
      ASSERT_EQ(all.value(key, json()), json(i)) << key;
    }
  }
  // No temporary file is left behind.
  for (const auto& entry : std::filesystem::directory_iterator(dir / "cfg")) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
  }
}

}  // namespace
}  // namespace lumora
