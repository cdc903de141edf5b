#include "lumora/store/DefaultsStore.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <utility>
#include <vector>

#include "lumora/platform/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace lumora {
namespace {

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~Fd() { reset(); }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// What identifies one version of the file without reading it.
struct Stamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  time_t mtimeSeconds = 0;
  long mtimeNanoseconds = 0;

  static Stamp of(const struct stat& st) {
    return {st.st_dev, st.st_ino, st.st_size, st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
  }
  bool operator==(const Stamp&) const = default;
};

std::string describeErrno(int error) { return std::system_category().message(error); }

std::string fileText(const fs::path& file) { return "The settings file " + file.string(); }

[[noreturn]] void throwSystem(const std::string& action, const fs::path& file, int error) {
  throw FileError("Cannot " + action + " the settings file " + file.string() + ": " +
                  describeErrno(error) + ".");
}

// nlohmann's parser keeps its own stack, but copying and serialising a value recurse once per
// level, so a few MiB of '[' would exhaust the stack later on. Such text is refused before it
// is parsed. Only brackets outside strings count; syntax is left to the parser.
bool nestsTooDeep(std::string_view text) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > DefaultsStore::kMaxDepth) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

bool isBlank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

// The position of a parse error as a person would look for it. The parser's own message is not
// used: it quotes the text around the error, which may be a credential.
std::string position(std::string_view text, size_t byte) {
  const size_t end = std::min(byte > 0 ? byte - 1 : 0, text.size());
  size_t line = 1;
  size_t lineStart = 0;
  for (size_t i = 0; i < end; ++i) {
    if (text[i] == '\n') {
      ++line;
      lineStart = i + 1;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(end - lineStart + 1);
}

std::string readBounded(int fd, const fs::path& file) {
  std::string text;
  char buffer[1 << 16];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throwSystem("read", file, errno);
    }
    if (n == 0) return text;
    if (text.size() + static_cast<size_t>(n) > DefaultsStore::kMaxFileSize) {
      throw FileError(fileText(file) + " is larger than 16 MiB.");
    }
    text.append(buffer, static_cast<size_t>(n));
  }
}

// The object held by `text`, or the reason why there is none.
std::pair<std::shared_ptr<const json>, std::string> parseSuite(const std::string& text,
                                                               const fs::path& file) {
  if (isBlank(text)) return {nullptr, fileText(file) + " is empty, not a JSON object."};
  if (nestsTooDeep(text)) {
    return {nullptr, fileText(file) + " nests values deeper than " +
                         std::to_string(DefaultsStore::kMaxDepth) + " levels."};
  }
  json parsed;
  try {
    parsed = json::parse(text);
  } catch (const json::parse_error& e) {
    return {nullptr, fileText(file) + " is not valid JSON (" + position(text, e.byte) + ")."};
  } catch (const json::exception&) {
    // A number beyond the range of a double: valid JSON that cannot be read.
    return {nullptr, fileText(file) + " holds a number too large to read."};
  }
  if (!parsed.is_object()) {
    return {nullptr, fileText(file) + " holds a JSON " + parsed.type_name() + ", not an object."};
  }
  return {std::make_shared<const json>(std::move(parsed)), ""};
}

}  // namespace

// One version of the file as read. The descriptor of that version stays open while it is
// cached: as long as it is, the kernel cannot hand its inode number to a new file, so a file
// replaced by rename always differs in its stamp even within one tick of the file clock.
struct DefaultsStore::Snapshot {
  Stamp stamp;
  Fd held;
  std::shared_ptr<const json> object;  // null when the file is missing or bad
  std::string error;                   // why the file is bad; empty otherwise

  // The file at `file` as it is now. Content that is not a suite is reported in `error`;
  // failures to read at all throw.
  static std::unique_ptr<Snapshot> load(const fs::path& file) {
    auto snapshot = std::make_unique<Snapshot>();
    // O_NONBLOCK so that a FIFO put in the file's place cannot stall the open.
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
      if (errno == ENOENT) return snapshot;
      throwSystem("open", file, errno);
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) throwSystem("read", file, errno);
    snapshot->stamp = Stamp::of(st);
    if (!S_ISREG(st.st_mode)) {
      snapshot->error = fileText(file) + " is not a regular file.";
    } else if (static_cast<uintmax_t>(st.st_size) > kMaxFileSize) {
      snapshot->error = fileText(file) + " is larger than 16 MiB.";
    } else {
      try {
        std::tie(snapshot->object, snapshot->error) = parseSuite(readBounded(fd.get(), file), file);
      } catch (const FileError& e) {
        snapshot->error = e.what();  // grew past the bound while being read
      }
    }
    snapshot->held = std::move(fd);
    return snapshot;
  }

  bool missing() const { return !held; }
};

DefaultsStore::DefaultsStore(std::filesystem::path file) : path_(std::move(file)) {}

DefaultsStore::~DefaultsStore() = default;

std::shared_ptr<const json> DefaultsStore::current() const {
  static const auto empty = std::make_shared<const json>(json::object());
  std::lock_guard lock(mutex_);
  struct stat st;
  if (::stat(path_.c_str(), &st) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) throwSystem("read", path_, errno);
    cache_.reset();
    return empty;
  }
  if (!cache_ || cache_->missing() || cache_->stamp != Stamp::of(st)) {
    cache_ = Snapshot::load(path_);
  }
  if (!cache_->error.empty()) throw FileError(cache_->error);
  return cache_->object ? cache_->object : empty;
}

std::optional<json> DefaultsStore::value(std::string_view key) const {
  const auto object = current();
  const auto it = object->find(key);
  if (it == object->end()) return std::nullopt;
  return *it;
}

std::optional<std::string> DefaultsStore::string(std::string_view key) const {
  const auto v = value(key);
  if (!v) return std::nullopt;
  std::optional<std::string> text = defaults::asString(*v);
  // Any text in the settings may be a URL with a password or a key in it (a proxy, a gateway,
  // an endpoint with "?api-key="): from here on, whatever shows it shows them masked.
  if (text) redact::registerUrlSecrets(*text);
  return text;
}

bool DefaultsStore::boolean(std::string_view key) const {
  const auto v = value(key);
  return v ? defaults::asBool(*v).value_or(false) : false;
}

std::optional<int64_t> DefaultsStore::integer(std::string_view key) const {
  const auto v = value(key);
  return v ? defaults::asInteger(*v) : std::nullopt;
}

std::optional<double> DefaultsStore::number(std::string_view key) const {
  const auto v = value(key);
  return v ? defaults::asNumber(*v) : std::nullopt;
}

json DefaultsStore::all() const { return *current(); }

void DefaultsStore::set(std::string_view key, const json& value) { change(key, &value); }

void DefaultsStore::remove(std::string_view key) { change(key, nullptr); }

namespace {

// The file a write replaces. A symbolic link (settings kept with other dotfiles) is followed to
// the file it names, which is then written in place of the link, so that the link survives the
// rename; a link whose file does not exist yet is followed too, and the file made there. Links
// are read one at a time, as the kernel follows them, to its limit of 40.
fs::path writeTarget(const fs::path& file) {
  constexpr int kMaxLinks = 40;
  fs::path path = file;
  for (int links = 0; links <= kMaxLinks; ++links) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
      if (errno != ENOENT && errno != ENOTDIR) throwSystem("write", file, errno);
      if (links == 0) return path;  // its directories are made when missing
      // Directories are made for the command's own files only, not wherever a link points.
      std::error_code ec;
      if (!fs::is_directory(path.parent_path(), ec)) {
        throw FileError(fileText(file) + " is a symbolic link to " + path.string() +
                        ", whose directory does not exist.");
      }
      return path;
    }
    if (!S_ISLNK(st.st_mode)) return path;
    std::error_code ec;
    const fs::path next = fs::read_symlink(path, ec);
    if (ec) throwSystem("write", file, ec.value());
    path = next.is_absolute() ? next : path.parent_path() / next;
  }
  throw FileError(fileText(file) + " is a symbolic link that leads to itself or through more " +
                  "than " + std::to_string(kMaxLinks) + " links.");
}

// Whether `name` is one of the temporaries that writes of `target` make: "." + its name + "."
// + the six letters and digits of mkstemp.
bool isTemporaryOf(std::string_view name, const std::string& prefix) {
  constexpr size_t kRandom = 6;
  if (name.size() != prefix.size() + kRandom || !name.starts_with(prefix)) return false;
  return std::all_of(
      name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      });
}

// Removes what earlier writes of `target` left behind when they were killed between creating
// their temporary and renaming it: whole copies of the settings, credentials included.
//
// Called under the suite's lock, where no writer of this system is between those two steps, so
// every such file is stale. The age is required all the same: the lock is only as good as its
// file, and a lock file removed while held (a tidied directory) lets a second writer in beside
// the first, whose temporary then must not vanish before its rename. A minute is far beyond the
// milliseconds a write takes, and costs only that a stale file stays a minute longer. Best
// effort: a write never fails because of this.
void removeStaleTemporaries(const fs::path& target) {
  constexpr time_t kStaleAfterSeconds = 60;
  const std::string prefix = "." + target.filename().string() + ".";
  const fs::path directory = target.parent_path().empty() ? "." : target.parent_path();
  const time_t now = ::time(nullptr);
  std::error_code ec;
  for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& entry = it->path();
    if (!isTemporaryOf(entry.filename().native(), prefix)) continue;
    struct stat st;
    if (::lstat(entry.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (now - st.st_mtime >= kStaleAfterSeconds) ::unlink(entry.c_str());
  }
}

Fd lockSuite(const fs::path& file) {
  const fs::path lockPath = file.string() + ".lock";
  Fd fd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) throwSystem("lock", file, errno);
  while (::flock(fd.get(), LOCK_EX) != 0) {
    if (errno != EINTR) throwSystem("lock", file, errno);
  }
  return fd;  // closing it releases the lock
}

void writeAll(int fd, std::string_view text, const fs::path& file) {
  while (!text.empty()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throwSystem("write", file, errno);
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

}  // namespace

void DefaultsStore::change(std::string_view key, const json* value) {
  if (value) {
    try {
      (void)value->dump();
    } catch (const json::type_error&) {
      throw DecodingError("The value for \"" + std::string(key) + "\" is not valid UTF-8.");
    }
  }
  const fs::path target = writeTarget(path_);
  std::error_code ec;
  // Removing from a suite that does not exist changes nothing, so it creates nothing either.
  if (!value && !fs::exists(target, ec)) return;
  makeDirectories(target.parent_path());
  const Fd lock = lockSuite(target);
  removeStaleTemporaries(target);

  // Under the lock, the file on disk is the truth: what this process cached may be stale.
  std::unique_ptr<Snapshot> now = Snapshot::load(target);
  if (!now->error.empty()) throw FileError(now->error + " It was left unchanged.");
  // A file others can read is made private even when this write changes nothing in it.
  if (struct stat st; now->held && ::fstat(now->held.get(), &st) == 0 && (st.st_mode & 077) != 0)
    (void)::fchmod(now->held.get(), st.st_mode & 0700);
  json object = now->object ? *now->object : json::object();
  const auto it = object.find(key);
  if (value) {
    if (it != object.end() && *it == *value) return;
    object[std::string(key)] = *value;
  } else {
    if (it == object.end()) return;
    object.erase(it);
  }
  const std::string text = object.dump(2) + "\n";

  const fs::path directory = target.parent_path();
  std::string temporary = (directory / ("." + target.filename().string() + ".XXXXXX")).string();
  Fd out(::mkostemp(temporary.data(), O_CLOEXEC));  // 0600 from the start
  if (!out) throwSystem("write", target, errno);
  auto snapshot = std::make_unique<Snapshot>();
  try {
    if (::fchmod(out.get(), 0600) != 0) throwSystem("write", target, errno);
    writeAll(out.get(), text, target);
    if (::fsync(out.get()) != 0) throwSystem("write", target, errno);
    struct stat st;
    if (::fstat(out.get(), &st) != 0) throwSystem("write", target, errno);
    snapshot->stamp = Stamp::of(st);
    if (::rename(temporary.c_str(), target.c_str()) != 0) throwSystem("replace", target, errno);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  // The directory is not synced: after a power loss the rename may be undone, which leaves the
  // previous complete version. The file itself is synced before the rename, so the name never
  // points at a file whose data did not reach the disk. Syncing both would double the time a
  // writer holds the lock, for nothing a settings change needs.

  snapshot->held = std::move(out);
  snapshot->object = std::make_shared<const json>(std::move(object));
  // path_ may be a link to `target`; its stat() follows the link to this very inode.
  std::lock_guard guard(mutex_);
  cache_ = std::move(snapshot);
}

namespace defaults {
namespace {

std::string_view trimmed(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1);
}

// A string that is wholly a number: an integer when it has the form of one, else a double.
std::optional<json> numberInText(std::string_view text) {
  text = trimmed(text);
  if (text.empty()) return std::nullopt;
  const char* first = text.data();
  const char* last = first + text.size();
  if (*first == '+') ++first;
  int64_t integer = 0;
  if (auto [end, error] = std::from_chars(first, last, integer);
      error == std::errc() && end == last) {
    return json(integer);
  }
  double real = 0;
  if (auto [end, error] = std::from_chars(first, last, real);
      error == std::errc() && end == last && std::isfinite(real)) {
    return json(real);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> asString(const json& value) {
  switch (value.type()) {
    case json::value_t::string:
      return value.get<std::string>();
    case json::value_t::boolean:
      return value.get<bool>() ? "true" : "false";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
      return value.dump();
    case json::value_t::null:
    case json::value_t::object:
    case json::value_t::array:
    case json::value_t::binary:
    case json::value_t::discarded:
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<bool> asBool(const json& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (!value.is_string()) return std::nullopt;
  const std::string_view text = trimmed(value.get_ref<const std::string&>());
  if (text::equalsIgnoringCase(text, "true") || text::equalsIgnoringCase(text, "yes")) return true;
  if (text::equalsIgnoringCase(text, "false") || text::equalsIgnoringCase(text, "no")) return false;
  if (const auto number = numberInText(text)) return asBool(*number);
  return std::nullopt;
}

std::optional<int64_t> asInteger(const json& value) {
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<int64_t>();
  if (value.is_number_unsigned()) {
    const uint64_t u = value.get<uint64_t>();
    if (u > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(u);
  }
  if (value.is_number_float()) {
    const double d = std::trunc(value.get<double>());
    // 2^63 itself is out of range; every double below it converts exactly.
    if (!std::isfinite(d) || d < -9223372036854775808.0 || d >= 9223372036854775808.0) {
      return std::nullopt;
    }
    return static_cast<int64_t>(d);
  }
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_string()) {
    if (const auto number = numberInText(value.get_ref<const std::string&>())) {
      return asInteger(*number);
    }
  }
  return std::nullopt;
}

std::optional<double> asNumber(const json& value) {
  if (value.is_number()) return value.get<double>();
  if (value.is_boolean()) return value.get<bool>() ? 1.0 : 0.0;
  if (value.is_string()) {
    if (const auto number = numberInText(value.get_ref<const std::string&>())) {
      return number->get<double>();
    }
  }
  return std::nullopt;
}

}  // namespace defaults

namespace {

// $VARIABLE/lumora when it is an absolute path (the XDG rules ignore a relative value, so a
// stray one cannot move the files around), else ~/FALLBACK/lumora.
fs::path xdgDirectory(const char* variable, const char* fallback) {
  const char* xdg = std::getenv(variable);
  if (xdg && xdg[0] == '/') return fs::path(xdg) / "lumora";
  return homeDirectory(std::string("HOME or ") + variable) / fallback / "lumora";
}

}  // namespace

fs::path homeDirectory(std::string_view instead) {
  std::string home;
  if (const char* env = std::getenv("HOME"); env && env[0] != '\0') {
    home = env;
  } else {
    struct passwd entry;
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir)
      home = found->pw_dir;
  }
  if (home.empty()) {
    throw FileError("Cannot find the home directory for Lumora's files: set " +
                    std::string(instead) + ".");
  }
  return home;
}

void makeDirectories(const fs::path& directory) {
  std::error_code ec;
  if (directory.empty() || fs::is_directory(directory, ec)) return;
  makeDirectories(directory.parent_path());
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    throw FileError("Cannot create the directory " + directory.string() + ": " +
                    describeErrno(errno) + ".");
  }
}

std::filesystem::path configDirectory() { return xdgDirectory("XDG_CONFIG_HOME", ".config"); }
std::filesystem::path dataDirectory() { return xdgDirectory("XDG_DATA_HOME", ".local/share"); }

DefaultsStore& sharedDefaults() {
  static DefaultsStore store(configDirectory() / (std::string(kSharedSuiteName) + ".json"));
  return store;
}

DefaultsStore& ownDefaults() {
  static DefaultsStore store(configDirectory() / (std::string(kOwnDomainName) + ".json"));
  return store;
}

}  // namespace lumora
