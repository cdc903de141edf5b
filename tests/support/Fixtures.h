// Where the shared fixtures live, and reading them byte for byte.
#pragma once

#include <filesystem>
#include <string>

namespace lumora::testing {

// $LUMORA_FIXTURES_DIR when set and not empty; otherwise the directory the build was
// configured with.
std::filesystem::path fixturesDir();

// The whole file, byte for byte (no newline translation). Throws std::runtime_error naming
// the path when it cannot be read.
std::string readFile(const std::filesystem::path& path);

}  // namespace lumora::testing
