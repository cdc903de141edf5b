// The conversation store shared with the companion chat application: one SQLite database
// (WAL mode, schema versioned with user_version; see docs/formats.md) holding conversations,
// messages, images with their files, and teams. This system reads conversations (the panel's
// presets) and teams (self-hosted servers for the route), and writes only a conversation's
// instruction and model.
//
// PersistentContainer finds the store, moves an older private store into the shared location
// once, and opens it; StoreContext is the one place that reads and writes it. Processes of this
// system make their containers one at a time (an flock on Lumora.sqlite.lock beside the two
// locations), so that several starting together on a store that is not there yet, or still to be
// moved, all end up with the same one; opening brings the store's files to 0600. Every wait for
// another program's lock lasts up to the container's lock timeout.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/Errors.h"

struct sqlite3;

namespace lumora {

// A store that cannot be opened, read or written: corrupt, locked too long, or of a newer
// schema. The store is never overwritten because of one.
class StoreError : public Error {
 public:
  using Error::Error;
};

// A stored conversation, live: reads give the current value, a write is seen at once by every
// reader of this object and waits in memory for the next save.
class CDConversation {
 public:
  struct Fields {
    std::optional<std::string> id;  // UUID text
    std::optional<std::string> title;
    std::optional<std::string> systemPrompt;
    std::optional<std::string> model;
    bool isArchived = false;
    bool isPinned = false;
    int64_t updatedAt = 0;
  };
  explicit CDConversation(int64_t row, Fields fields) : row_(row), fields_(std::move(fields)) {}

  const std::optional<std::string>& id() const { return fields_.id; }
  // The label in the picker: the title, or "New Chat" without one.
  std::string displayTitle() const;
  const std::optional<std::string>& title() const { return fields_.title; }
  const std::optional<std::string>& systemPrompt() const { return fields_.systemPrompt; }
  const std::optional<std::string>& model() const { return fields_.model; }
  bool isArchived() const { return fields_.isArchived; }
  bool isPinned() const { return fields_.isPinned; }
  int64_t updatedAt() const { return fields_.updatedAt; }

  void setSystemPrompt(std::optional<std::string> value);
  void setModel(std::optional<std::string> value);
  // Calls `observer` after every write of an attribute, for as long as the returned token
  // lives.
  [[nodiscard]] std::shared_ptr<void> onChange(std::function<void()> observer);
  bool hasChanges() const { return promptChanged_ || modelChanged_; }

 private:
  friend class StoreContext;
  void changed();
  int64_t row_;
  Fields fields_;
  bool promptChanged_ = false;
  bool modelChanged_ = false;
  std::vector<std::weak_ptr<std::function<void()>>> observers_;
};

struct CDTeam {
  std::optional<std::string> name;
  std::optional<std::string> domain;
  std::optional<std::string> token;
  int64_t createdAt = 0;
};

// The one connection to the store. Not thread-safe: it belongs to the main executor.
class StoreContext {
 public:
  explicit StoreContext(sqlite3* db) : db_(db) {}
  ~StoreContext();
  StoreContext(const StoreContext&) = delete;
  StoreContext& operator=(const StoreContext&) = delete;

  // Conversations not archived, pinned first, then the most recently updated. Objects already
  // handed out are the same objects, refreshed from the store: changes written by another
  // process appear, while an attribute changed here and not saved keeps its value in memory.
  std::vector<std::shared_ptr<CDConversation>> fetchConversations();
  // Every team, the newest first.
  std::vector<CDTeam> fetchTeams();
  // Writes the pending changes of the conversations handed out. Throws StoreError; the changes
  // then stay pending and go with the next save.
  void save();

  sqlite3* database() const { return db_; }

  // ---- what the `conversations` and `teams` commands do in the companion's place ----------
  struct ConversationRow {
    int64_t row = 0;
    CDConversation::Fields fields;
  };
  struct TeamRow {
    int64_t row = 0;
    CDTeam team;
  };
  // Every conversation, archived ones too, in the panel's order.
  std::vector<ConversationRow> allConversations();
  // The conversation whose id is `id` in any letter case.
  std::optional<ConversationRow> conversation(const std::string& id);
  // Stores a new conversation with a new id (returned), created and updated now.
  std::string addConversation(const std::optional<std::string>& title,
                              const std::optional<std::string>& systemPrompt,
                              const std::optional<std::string>& model);
  // Writes the conversation's fields as given and marks it updated now. False when no
  // conversation has that id.
  bool updateConversation(const std::string& id, const CDConversation::Fields& fields);
  bool removeConversation(const std::string& id);
  std::vector<TeamRow> allTeams();  // newest first
  int64_t addTeam(const std::optional<std::string>& name, const std::string& domain,
                  const std::string& token);
  bool removeTeam(int64_t row);

 private:
  sqlite3* db_;
  std::map<int64_t, std::weak_ptr<CDConversation>> objects_;
};

class PersistentContainer {
 public:
  struct StoreDescription {
    std::filesystem::path url;
    std::string type = "SQLite";
    std::map<std::string, std::string> options;
    // Mirroring to the user's cloud account has no counterpart here: recorded, without effect.
    std::optional<std::string> cloudKitContainer;
  };

  struct Environment {
    std::vector<std::string> arguments;   // the process's arguments
    std::filesystem::path dataDirectory;  // where both locations lie
    // Copies the store from `source` to `destination` in one step (all or nothing); leaves
    // the source. Throws on failure. Tests replace it to make the copy fail.
    std::function<void(const std::filesystem::path& source,
                       const std::filesystem::path& destination)>
        replaceStore;
    size_t descriptions = 1;  // more than one only in tests
    // How long a read or write waits for another program's lock before it fails with
    // StoreError. Tests shorten it.
    std::chrono::milliseconds lockTimeout{5000};
  };
  static Environment processEnvironment();

  // The process's container, made on first use from processEnvironment(). Throws StoreError
  // (and keeps throwing) when the store cannot be opened.
  static PersistentContainer& shared();

  // Finds, migrates and opens the store. `inMemory` keeps it in memory and touches no file.
  static std::unique_ptr<PersistentContainer> make(bool inMemory, const Environment& environment);

  ~PersistentContainer();
  const std::vector<StoreDescription>& persistentStoreDescriptions() const {
    return descriptions_;
  }
  StoreContext& viewContext() { return *context_; }

  // The two locations.
  static std::filesystem::path defaultUrl(const Environment& environment);
  static std::filesystem::path appGroupUrl(const Environment& environment);

 private:
  PersistentContainer() = default;
  std::vector<StoreDescription> descriptions_;
  sqlite3* db_ = nullptr;
  std::unique_ptr<StoreContext> context_;
};

// The schema this build writes and reads; a store of a higher version is refused.
inline constexpr int kStoreSchemaVersion = 1;

}  // namespace lumora
