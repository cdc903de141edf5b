// Helpers of the settings tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "support/TempDir.h"

namespace lumora::storetest {

// A temporary directory on a memory file system when there is one.
class MemoryTempDir : public testing::TempDir {
 public:
  MemoryTempDir() : TempDir(Where::memory) {}
};
// Replaces `file` with `text`, creating its directory; as a hand edit or another program would.
inline void writeFile(const std::filesystem::path& file, const std::string& text) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace lumora::storetest
