#include "lumora/store/ConversationStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "lumora/platform/Debug.h"
#include "lumora/platform/Localization.h"
#include "lumora/platform/Uuid.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/Features.h"

namespace lumora {
namespace fs = std::filesystem;
namespace {

constexpr const char* kStoreFile = "Lumora.sqlite";
constexpr const char* kOpeningLockFile = "Lumora.sqlite.lock";
constexpr const char* kAppGroup = "group.tech.zorvel.openai";
constexpr const char* kCloudContainer = "iCloud.tech.zorvel.lumora";
constexpr std::chrono::milliseconds kLockTimeout{5000};

// The five entities, one table each, named as the entities are.
constexpr const char* kSchema = R"(
CREATE TABLE Conversation (
  id TEXT, title TEXT, systemPrompt TEXT, model TEXT,
  isArchived INTEGER NOT NULL DEFAULT 0, isPinned INTEGER NOT NULL DEFAULT 0,
  updatedAt INTEGER NOT NULL DEFAULT 0, createdAt INTEGER NOT NULL DEFAULT 0,
  temperature REAL NOT NULL DEFAULT 1.0, trackCount INTEGER NOT NULL DEFAULT 0,
  isKeyboardSelected INTEGER NOT NULL DEFAULT 0, lastMessageId TEXT, draft TEXT,
  emojiIcon TEXT, systemIcon TEXT, placeholder TEXT, shortcut TEXT, template TEXT,
  ttsVoice TEXT);
CREATE TABLE Message (
  id TEXT, chatId TEXT, replyToId TEXT, role TEXT, content TEXT, model TEXT,
  stopReason TEXT, imageURLs TEXT, isStarred INTEGER NOT NULL DEFAULT 0,
  createdAt INTEGER NOT NULL DEFAULT 0);
CREATE TABLE Team (
  name TEXT, domain TEXT, token TEXT, createdAt INTEGER NOT NULL DEFAULT 0);
CREATE TABLE Image (
  id TEXT, role TEXT, prompt TEXT, params TEXT, size TEXT, urls TEXT,
  isStarred INTEGER NOT NULL DEFAULT 0, createdAt INTEGER NOT NULL DEFAULT 0);
CREATE TABLE File (
  id TEXT, data BLOB, date REAL, filetype TEXT, "index" INTEGER NOT NULL DEFAULT 0,
  image INTEGER REFERENCES Image(rowid) ON DELETE SET NULL);
)";

// A lock held past the timeout, worded for the user: SQLite's own "database is locked" says
// nothing about what to do.
std::string busyText() {
  return localized(
      "The conversation store is busy: another program has held it for several "
      "seconds. Try again when it has finished.");
}

// The user's text for a failed statement.
std::string failureText(sqlite3* db, std::string_view detail) {
  const int code = sqlite3_errcode(db) & 0xff;
  if (code == SQLITE_BUSY || code == SQLITE_LOCKED) return busyText();
  return withValues(localized("The conversation store could not be used: {detail}."),
                    {{"detail", detail}});
}

class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) fail();
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int i, const std::optional<std::string>& text) {
    const int rc = text ? sqlite3_bind_text(stmt_, i, text->data(), static_cast<int>(text->size()),
                                            SQLITE_TRANSIENT)
                        : sqlite3_bind_null(stmt_, i);
    if (rc != SQLITE_OK) fail();
  }
  void bind(int i, int64_t value) {
    if (sqlite3_bind_int64(stmt_, i, value) != SQLITE_OK) fail();
  }
  // True while there is a row.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail();
  }
  std::optional<std::string> text(int column) const {
    if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return std::string(data ? data : "", static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }

 private:
  [[noreturn]] void fail() { throw StoreError(failureText(db_, sqlite3_errmsg(db_))); }
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

void execute(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = failureText(db, message ? message : sqlite3_errmsg(db));
    sqlite3_free(message);
    throw StoreError(text);
  }
}

// The error the container reports for a store it cannot open: "Unresolved error", the
// description, then what it is about.
[[noreturn]] void unresolved(const std::string& description, const fs::path& path, int code) {
  throw StoreError("Unresolved error " + description + ", {path: " + path.string() +
                   ", code: " + std::to_string(code) + "}");
}

// Serialises making the container between this system's processes. The one-time move,
// creating the schema and switching to WAL each look at the files and then change them, so two
// processes starting together (the add-on's native host and a command) would each act on what
// they saw: both copy, both create. The lock is an flock on a side file rather than SQLite's
// own, since the move happens before there is a database to lock and the journal mode cannot
// change inside a transaction. Held only while the container is made; the store's reads and
// writes afterwards rely on SQLite's locks alone.
class OpeningLock {
 public:
  OpeningLock(const fs::path& file, std::chrono::milliseconds timeout) {
    fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    // In a directory nobody can write, no store can be created or moved either; opening the
    // store then says what is wrong.
    if (fd_ < 0) return;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (errno == EINTR) continue;
      // A file system without locks: go on as before there was this lock.
      if (errno != EWOULDBLOCK) break;
      // The holder's own steps each wait at most `timeout` for SQLite; this one waits as long.
      if (std::chrono::steady_clock::now() >= deadline) {
        ::close(fd_);
        throw StoreError(busyText());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  ~OpeningLock() {
    if (fd_ >= 0) ::close(fd_);  // releases the lock
  }
  OpeningLock(const OpeningLock&) = delete;
  OpeningLock& operator=(const OpeningLock&) = delete;

 private:
  int fd_ = -1;
};

// Creates the store file 0600 before SQLite opens it, since it holds team tokens.
void createPrivateFile(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  if (fd >= 0) ::close(fd);
}

// A store made by an earlier version or copied in by hand may be readable by others; the store
// and its side files (SQLite gives new ones the store's own mode) are brought to 0600 whenever
// it is opened. A file that is not ours to change is left as it is, since the store can still be
// used.
void makeStoreFilesPrivate(const fs::path& path) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    const std::string file = path.string() + suffix;
    struct stat st;
    if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077) != 0)
      (void)::chmod(file.c_str(), st.st_mode & 0700);
  }
}

// What a store holds before this build uses it.
struct SchemaState {
  int version = 0;
  int64_t tables = 0;
};

// Both read in one transaction, so that they describe one moment of the file: read apart, a
// store another process creates in between would show no version but tables, and look foreign.
SchemaState readSchemaState(sqlite3* db) {
  SchemaState state;
  {
    Statement v(db, "PRAGMA user_version");
    if (v.step()) state.version = static_cast<int>(v.integer(0));
  }
  Statement tables(db, "SELECT count(*) FROM sqlite_master");
  if (tables.step()) state.tables = tables.integer(0);
  return state;
}

// Refuses a store this build cannot use; true when the schema is still to be created.
bool needsSchema(const SchemaState& state, const fs::path& path) {
  if (state.version > kStoreSchemaVersion) {
    unresolved("The conversation store was written by a newer version (schema " +
                   std::to_string(state.version) + "; this one reads " +
                   std::to_string(kStoreSchemaVersion) + ")",
               path, SQLITE_CANTOPEN);
  }
  if (state.version == 0 && state.tables != 0)
    unresolved("The file is a database but not a conversation store", path, SQLITE_NOTADB);
  return state.version == 0;
}

template <typename Work>
auto inTransaction(sqlite3* db, const char* begin, Work work) {
  execute(db, begin);
  try {
    auto result = work();
    execute(db, "COMMIT");
    return result;
  } catch (...) {
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

// Runs `sql` outside a transaction, waiting up to `timeout` for another program's lock. SQLite's
// busy handler does not cover every step: switching the journal mode reads the file's header and
// then upgrades that read to a write, and an upgrade that meets another writer fails at once
// (waiting there could deadlock two upgraders). The statement holds nothing between tries, so
// trying again is safe.
void executeWaiting(sqlite3* db, const char* sql, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    try {
      execute(db, sql);
      return;
    } catch (const StoreError&) {
      if ((sqlite3_errcode(db) & 0xff) != SQLITE_BUSY ||
          std::chrono::steady_clock::now() >= deadline)
        throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

sqlite3* openDatabase(const fs::path& path, bool inMemory, std::chrono::milliseconds lockTimeout) {
  sqlite3* db = nullptr;
  const std::string name = inMemory ? ":memory:" : path.string();
  if (!inMemory) {
    makeDirectories(path.parent_path());
    createPrivateFile(path);
    makeStoreFilesPrivate(path);
  }
  const int rc = sqlite3_open_v2(name.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                 nullptr);
  if (rc != SQLITE_OK) {
    const std::string message = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close(db);
    unresolved(message, path, rc);
  }
  // Before the first statement: every read below may meet another program's lock.
  sqlite3_busy_timeout(db, static_cast<int>(lockTimeout.count()));
  try {
    // A store in use is only read here. Creating the schema takes the write lock first and looks
    // again under it, since another program may have created the store meanwhile; a deferred
    // transaction upgraded to a write would fail at once instead of waiting for that program.
    const SchemaState seen = inTransaction(db, "BEGIN", [&] { return readSchemaState(db); });
    if (needsSchema(seen, path)) {
      inTransaction(db, "BEGIN IMMEDIATE", [&] {
        if (needsSchema(readSchemaState(db), path)) {
          execute(db, kSchema);
          execute(db, ("PRAGMA user_version = " + std::to_string(kStoreSchemaVersion)).c_str());
        }
        return true;
      });
    }
    // Only a store known to be ours is switched to WAL: the switch rewrites the file's header.
    if (!inMemory) executeWaiting(db, "PRAGMA journal_mode=WAL", lockTimeout);
  } catch (const StoreError& e) {
    const std::string what = e.what();
    const int code = sqlite3_errcode(db);
    sqlite3_close(db);
    if (what.rfind("Unresolved error ", 0) == 0) throw;
    unresolved(what, path, code);
  }
  return db;
}

// One-step copy of a store: SQLite's backup into a temporary file beside the destination,
// then a rename. The source is only read.
void copyStore(const fs::path& source, const fs::path& destination) {
  makeDirectories(destination.parent_path());
  const fs::path temporary = destination.string() + ".copying";
  std::error_code ec;
  fs::remove(temporary, ec);
  createPrivateFile(temporary);
  sqlite3* from = nullptr;
  sqlite3* to = nullptr;
  bool ok = sqlite3_open_v2(source.c_str(), &from, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
            sqlite3_open_v2(temporary.c_str(), &to, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_busy_timeout(from, static_cast<int>(kLockTimeout.count()));
    sqlite3_backup* backup = sqlite3_backup_init(to, "main", from, "main");
    ok = backup && sqlite3_backup_step(backup, -1) == SQLITE_DONE;
    if (backup) ok = sqlite3_backup_finish(backup) == SQLITE_OK && ok;
  }
  const std::string message = !ok && to ? sqlite3_errmsg(to) : "";
  sqlite3_close(from);
  sqlite3_close(to);
  if (ok) fs::rename(temporary, destination, ec);
  if (!ok || ec) {
    fs::remove(temporary, ec);
    throw StoreError("Cannot copy the conversation store: " + message);
  }
}

std::string describe(const PersistentContainer::StoreDescription& d) {
  return "<StoreDescription type: " + d.type + ", url: file://" + d.url.string() + ">";
}

}  // namespace

// ---- live objects -----------------------------------------------------------------------------

std::string CDConversation::displayTitle() const {
  return fields_.title ? *fields_.title : localized("New Chat");
}

void CDConversation::setSystemPrompt(std::optional<std::string> value) {
  fields_.systemPrompt = std::move(value);
  promptChanged_ = true;
  changed();
}

void CDConversation::setModel(std::optional<std::string> value) {
  fields_.model = std::move(value);
  modelChanged_ = true;
  changed();
}

std::shared_ptr<void> CDConversation::onChange(std::function<void()> observer) {
  auto token = std::make_shared<std::function<void()>>(std::move(observer));
  observers_.push_back(token);
  return token;
}

void CDConversation::changed() {
  std::erase_if(observers_, [](const auto& observer) { return observer.expired(); });
  // A copy: an observer may add observers or end its own subscription.
  const auto observers = observers_;
  for (const auto& weak : observers)
    if (auto observer = weak.lock()) (*observer)();
}

// ---- the context ------------------------------------------------------------------------------

StoreContext::~StoreContext() = default;

std::vector<std::shared_ptr<CDConversation>> StoreContext::fetchConversations() {
  Statement query(db_,
                  "SELECT rowid, id, title, systemPrompt, model, isArchived, isPinned, updatedAt "
                  "FROM Conversation WHERE isArchived = 0 ORDER BY isPinned DESC, updatedAt DESC");
  std::vector<std::shared_ptr<CDConversation>> result;
  while (query.step()) {
    const int64_t row = query.integer(0);
    CDConversation::Fields fields{query.text(1),         query.text(2),
                                  query.text(3),         query.text(4),
                                  query.integer(5) != 0, query.integer(6) != 0,
                                  query.integer(7)};
    std::shared_ptr<CDConversation> object = objects_[row].lock();
    if (!object) {
      object = std::make_shared<CDConversation>(row, std::move(fields));
      objects_[row] = object;
    } else {
      // What changed elsewhere comes in; what was changed here and not saved stays.
      if (object->promptChanged_) fields.systemPrompt = object->fields_.systemPrompt;
      if (object->modelChanged_) fields.model = object->fields_.model;
      object->fields_ = std::move(fields);
    }
    result.push_back(std::move(object));
  }
  return result;
}

std::vector<CDTeam> StoreContext::fetchTeams() {
  Statement query(db_, "SELECT name, domain, token, createdAt FROM Team ORDER BY createdAt DESC");
  std::vector<CDTeam> teams;
  while (query.step())
    teams.push_back({query.text(0), query.text(1), query.text(2), query.integer(3)});
  return teams;
}

void StoreContext::save() {
  std::vector<std::shared_ptr<CDConversation>> dirty;
  for (auto it = objects_.begin(); it != objects_.end();) {
    auto object = it->second.lock();
    if (!object) {
      it = objects_.erase(it);
      continue;
    }
    if (object->hasChanges()) dirty.push_back(std::move(object));
    ++it;
  }
  if (dirty.empty()) return;
  inTransaction(db_, "BEGIN IMMEDIATE", [&] {
    for (const auto& object : dirty) {
      if (object->promptChanged_) {
        Statement update(db_, "UPDATE Conversation SET systemPrompt = ?1 WHERE rowid = ?2");
        update.bind(1, object->fields_.systemPrompt);
        update.bind(2, object->row_);
        update.step();
      }
      if (object->modelChanged_) {
        Statement update(db_, "UPDATE Conversation SET model = ?1 WHERE rowid = ?2");
        update.bind(1, object->fields_.model);
        update.bind(2, object->row_);
        update.step();
      }
    }
    return true;
  });
  for (const auto& object : dirty) object->promptChanged_ = object->modelChanged_ = false;
}

// ---- editing for the commands -----------------------------------------------------------------

namespace {

int64_t now() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

constexpr const char* kConversationColumns =
    "rowid, id, title, systemPrompt, model, isArchived, isPinned, updatedAt FROM Conversation";

StoreContext::ConversationRow conversationRow(const Statement& q) {
  return {q.integer(0),
          {q.text(1), q.text(2), q.text(3), q.text(4), q.integer(5) != 0, q.integer(6) != 0,
           q.integer(7)}};
}

// Runs `work` in a write transaction. IMMEDIATE: the write lock is taken at the start, where
// SQLite waits for another writer, rather than on the first write, where it would not.
template <typename Work>
auto writing(sqlite3* db, Work work) {
  return inTransaction(db, "BEGIN IMMEDIATE", work);
}

}  // namespace

std::vector<StoreContext::ConversationRow> StoreContext::allConversations() {
  Statement q(db_, (std::string("SELECT ") + kConversationColumns +
                    " ORDER BY isPinned DESC, updatedAt DESC")
                       .c_str());
  std::vector<ConversationRow> rows;
  while (q.step()) rows.push_back(conversationRow(q));
  return rows;
}

std::optional<StoreContext::ConversationRow> StoreContext::conversation(const std::string& id) {
  Statement q(db_, (std::string("SELECT ") + kConversationColumns + " WHERE upper(id) = upper(?1)")
                       .c_str());
  q.bind(1, std::optional<std::string>(id));
  if (!q.step()) return std::nullopt;
  return conversationRow(q);
}

std::string StoreContext::addConversation(const std::optional<std::string>& title,
                                          const std::optional<std::string>& systemPrompt,
                                          const std::optional<std::string>& model) {
  const std::string id = uuid::random();
  return writing(db_, [&] {
    Statement insert(db_,
                     "INSERT INTO Conversation (id, title, systemPrompt, model, createdAt, "
                     "updatedAt) VALUES (?1, ?2, ?3, ?4, ?5, ?5)");
    insert.bind(1, std::optional<std::string>(id));
    insert.bind(2, title);
    insert.bind(3, systemPrompt);
    insert.bind(4, model);
    insert.bind(5, now());
    insert.step();
    return id;
  });
}

bool StoreContext::updateConversation(const std::string& id, const CDConversation::Fields& f) {
  return writing(db_, [&] {
    Statement update(db_,
                     "UPDATE Conversation SET title = ?1, systemPrompt = ?2, model = ?3, "
                     "isArchived = ?4, isPinned = ?5, updatedAt = ?6 WHERE upper(id) = upper(?7)");
    update.bind(1, f.title);
    update.bind(2, f.systemPrompt);
    update.bind(3, f.model);
    update.bind(4, int64_t{f.isArchived});
    update.bind(5, int64_t{f.isPinned});
    update.bind(6, now());
    update.bind(7, std::optional<std::string>(id));
    update.step();
    return sqlite3_changes(db_) > 0;
  });
}

bool StoreContext::removeConversation(const std::string& id) {
  return writing(db_, [&] {
    Statement remove(db_, "DELETE FROM Conversation WHERE upper(id) = upper(?1)");
    remove.bind(1, std::optional<std::string>(id));
    remove.step();
    return sqlite3_changes(db_) > 0;
  });
}

std::vector<StoreContext::TeamRow> StoreContext::allTeams() {
  Statement q(db_, "SELECT rowid, name, domain, token, createdAt FROM Team ORDER BY createdAt DESC");
  std::vector<TeamRow> rows;
  while (q.step())
    rows.push_back({q.integer(0), {q.text(1), q.text(2), q.text(3), q.integer(4)}});
  return rows;
}

int64_t StoreContext::addTeam(const std::optional<std::string>& name, const std::string& domain,
                              const std::string& token) {
  return writing(db_, [&] {
    Statement insert(db_, "INSERT INTO Team (name, domain, token, createdAt) VALUES (?1, ?2, ?3, ?4)");
    insert.bind(1, name);
    insert.bind(2, std::optional<std::string>(domain));
    insert.bind(3, std::optional<std::string>(token));
    insert.bind(4, now());
    insert.step();
    return static_cast<int64_t>(sqlite3_last_insert_rowid(db_));
  });
}

bool StoreContext::removeTeam(int64_t row) {
  return writing(db_, [&] {
    Statement remove(db_, "DELETE FROM Team WHERE rowid = ?1");
    remove.bind(1, row);
    remove.step();
    return sqlite3_changes(db_) > 0;
  });
}

// ---- the container ----------------------------------------------------------------------------

fs::path PersistentContainer::defaultUrl(const Environment& e) {
  return e.dataDirectory / "Lumora" / kStoreFile;
}
fs::path PersistentContainer::appGroupUrl(const Environment& e) {
  return e.dataDirectory / kAppGroup / kStoreFile;
}

PersistentContainer::Environment PersistentContainer::processEnvironment() {
  return {processArguments(), dataDirectory(), copyStore, 1, kLockTimeout};
}

PersistentContainer::~PersistentContainer() {
  context_.reset();
  sqlite3_close(db_);
}

std::unique_ptr<PersistentContainer> PersistentContainer::make(bool inMemory,
                                                               const Environment& e) {
  std::unique_ptr<PersistentContainer> container(new PersistentContainer());
  auto& descriptions = container->descriptions_;
  descriptions.resize(std::max<size_t>(1, e.descriptions));
  for (auto& d : descriptions) d.url = defaultUrl(e);
  if (inMemory) descriptions.front().url = "/dev/null";
  for (const std::string& argument : e.arguments) {
    if (argument == "UITEST" && !inMemory)
      throw StoreError("Unit test should only use in memory core data");
  }
  std::optional<OpeningLock> opening;
  if (!inMemory) {
    makeDirectories(e.dataDirectory);
    try {
      opening.emplace(e.dataDirectory / kOpeningLockFile, e.lockTimeout);
    } catch (const StoreError& busy) {
      unresolved(busy.what(), appGroupUrl(e), SQLITE_BUSY);
    }
    const fs::path defaultPath = descriptions.front().url;
    const fs::path groupPath = appGroupUrl(e);
    debug::line({"[debug] -- default url", "file://" + defaultPath.string()});
    debug::line({"[debug] -- app group url", "file://" + groupPath.string()});
    debug::line({"[debug] -- containers count", std::to_string(descriptions.size())});
    std::error_code ec;
    const bool defaultExists = fs::exists(defaultPath, ec);
    const bool groupExists = fs::exists(groupPath, ec);
    debug::line({"[debug] -- default store exists:", defaultExists ? "true" : "false",
                 defaultPath.string(), "app group store exist:", groupExists ? "true" : "false"});
    descriptions.front().url = groupPath;
    if (defaultExists && !groupExists) {
      debug::line({"[debug] -- need migrate ..."});
      bool failed = false;
      for (const StoreDescription& d : descriptions) {
        debug::line({"[debug] -- migrate description:", describe(d)});
        try {
          e.replaceStore(defaultPath, groupPath);
        } catch (...) {
          descriptions.front().url = defaultPath;  // go on with the old store; next start retries
          failed = true;
          break;
        }
      }
      if (!failed)
        debug::line({"[debug] --change container to use appGroupUrl:",
                     "file://" + descriptions.front().url.string()});
    }
    debug::line({"[debug] container url", "file://" + descriptions.front().url.string()});
    descriptions.front().cloudKitContainer = kCloudContainer;
  }
  container->db_ = openDatabase(descriptions.front().url, inMemory, e.lockTimeout);
  container->context_ = std::make_unique<StoreContext>(container->db_);
  return container;
}

PersistentContainer& PersistentContainer::shared() {
  static std::once_flag once;
  static std::unique_ptr<PersistentContainer> container;
  static std::exception_ptr failure;
  std::call_once(once, [] {
    try {
      container = make(false, processEnvironment());
    } catch (...) {
      failure = std::current_exception();
    }
  });
  if (failure) std::rethrow_exception(failure);
  return *container;
}

}  // namespace lumora
