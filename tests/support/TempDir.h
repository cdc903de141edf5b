// A directory that exists for one test and is removed with everything in it afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace lumora::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumora-test-XXXXXX").string();
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
