// A defaults suite: key-value preferences kept as one JSON object in one file.
//
// Several processes share a suite (the panel, the `lumora` command, the companion chat
// application), so the store holds no authority of its own. Every read looks at the file as it
// is now: one stat() while the file is unchanged, a fresh parse when its identity (device,
// inode), size or modification time differs. Every write takes an advisory lock (flock on the
// sibling file NAME.lock), re-reads the file, changes one key and replaces the file atomically
// (temporary file in the same directory, fsync, rename), so concurrent writers never lose each
// other's keys and a reader never sees half a file. Reads take no lock and write nothing, so a
// read-only configuration reads. Files are written 0600, and a write that changes nothing still
// makes a file others could read 0600; a missing directory is created 0700 (existing
// directories are left as their owner set them). A write also removes the temporaries of this
// file that writers killed before their rename left behind, once they are a minute old. A file
// that is a symbolic link is written where the link points, created there when missing; the
// link stays. A link into a missing directory, or in a loop, is refused with FileError.
//
// Thread-safe: any thread may read and write. Writers wait for the lock for as long as another
// writer holds it; a writer holds it for one read-modify-write only.
//
// Errors: a missing file is an empty store. A file that exists but is not a JSON object (bad
// syntax, another JSON type, empty, larger than kMaxFileSize, nested deeper than kMaxDepth, not
// a regular file) makes every read throw FileError naming the file and what is wrong, and every
// write throw the same without touching the file. Other failures of the file system throw
// FileError too; a failed write leaves the file as it was.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace lumora {

class DefaultsStore {
 public:
  // Files larger than this are refused rather than read: real settings are a few KiB.
  static constexpr uintmax_t kMaxFileSize = 16u << 20;
  // Deeper nesting is refused: copying and writing a value recurse once per level.
  static constexpr int kMaxDepth = 128;

  // A store over `file`, which need not exist yet. Nothing is read until the first access.
  explicit DefaultsStore(std::filesystem::path file);
  ~DefaultsStore();
  DefaultsStore(const DefaultsStore&) = delete;
  DefaultsStore& operator=(const DefaultsStore&) = delete;

  const std::filesystem::path& path() const { return path_; }

  // Reads. nullopt (false for boolean) when the key is absent or its value does not coerce;
  // the coercions are those of the functions in namespace `defaults` below.
  std::optional<nlohmann::json> value(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::optional<int64_t> integer(std::string_view key) const;
  std::optional<double> number(std::string_view key) const;

  // The whole suite as one JSON object, read at one moment.
  nlohmann::json all() const;

  // Writes. Visible to the next read in every process once they return. A value holding text
  // that is not valid UTF-8 cannot be stored: DecodingError, nothing written.
  void set(std::string_view key, const nlohmann::json& value);
  // Removing an absent key writes nothing.
  void remove(std::string_view key);

 private:
  struct Snapshot;

  std::shared_ptr<const nlohmann::json> current() const;
  void change(std::string_view key, const nlohmann::json* value);

  const std::filesystem::path path_;
  mutable std::mutex mutex_;
  mutable std::unique_ptr<Snapshot> cache_;
};

// Lenient reads of stored values, so that a value written by hand or by another program in a
// near form still reads as meant. Nothing else coerces: arrays, objects and null give nullopt.
namespace defaults {

// A string as it is; an integer in decimal; a double in its shortest exact form ("1.5", "1.0");
// a bool as "true" or "false".
std::optional<std::string> asString(const nlohmann::json& value);

// A bool as it is; a number is true when non-zero; a string is true when it is "true" or "yes"
// (any case) or a number other than zero, false when it is "false", "no" (any case) or zero,
// nullopt otherwise.
std::optional<bool> asBool(const nlohmann::json& value);

// An integer as it is (nullopt above INT64_MAX); a finite double truncated toward zero when in
// range; a bool as 1 or 0; a string that is wholly a number, read as such.
std::optional<int64_t> asInteger(const nlohmann::json& value);

// Any number; a bool as 1 or 0; a string that is wholly a finite number.
std::optional<double> asNumber(const nlohmann::json& value);

}  // namespace defaults

// The names of the two suites, which are also the base names of their files.
inline constexpr std::string_view kSharedSuiteName = "group.tech.zorvel.openai";
inline constexpr std::string_view kOwnDomainName = "tech.zorvel.lumora";

// The user's home directory: HOME, then the password database. FileError, naming `instead` as
// what to set, when there is none.
std::filesystem::path homeDirectory(std::string_view instead = "HOME");

// $XDG_CONFIG_HOME/lumora when XDG_CONFIG_HOME is an absolute path, else ~/.config/lumora
// (HOME, then the password database). FileError when no home directory can be found.
std::filesystem::path configDirectory();
// Creates the missing directories of `directory`, each 0700, as Lumora's files are private.
// FileError when one cannot be made.
void makeDirectories(const std::filesystem::path& directory);

// Where the conversation store lies: $XDG_DATA_HOME/lumora, else ~/.local/share/lumora.
std::filesystem::path dataDirectory();

// The suite shared with the companion application ("group.tech.zorvel.openai.json") and the
// command's own domain ("tech.zorvel.lumora.json"), both in configDirectory() as it is at first
// use. Made once per process on first use (thread-safe) and kept for the process's life.
// Library code takes a DefaultsStore& instead of calling these, so tests can use other files.
DefaultsStore& sharedDefaults();
DefaultsStore& ownDefaults();

}  // namespace lumora
