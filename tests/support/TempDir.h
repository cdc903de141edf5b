// A directory that exists for one test and is removed with everything in it afterwards.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace lumora::testing {

class TempDir {
 public:
  // `memory`: on a memory file system when the machine has one, for tests that write many
  // times; what they test is logic and locking, and a virtual disk's fsync (several
  // milliseconds each) would only make them slow.
  enum class Where { disk, memory };

  explicit TempDir(Where where = Where::disk) {
    std::error_code ec;
    const bool shm = where == Where::memory && std::filesystem::is_directory("/dev/shm", ec) &&
                     ::access("/dev/shm", W_OK) == 0;
    const std::filesystem::path base =
        shm ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path();
    std::string pattern = (base / "lumora-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace lumora::testing
