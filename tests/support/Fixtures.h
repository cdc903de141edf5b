// Where the shared fixtures live, and reading them byte for byte.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::testing {

// $LUMORA_FIXTURES_DIR when set and not empty; otherwise the directory the build was
// configured with.
std::filesystem::path fixturesDir();

// The whole file, byte for byte (no newline translation). Throws std::runtime_error naming
// the path when it cannot be read.
std::string readFile(const std::filesystem::path& path);

// The mail corpus: fixturesDir()/mail-corpus.
std::filesystem::path mailCorpusDir();
// The corpus's files of `kind` ("message", "html-fragment", ...), as paths relative to
// mailCorpusDir(), in the manifest's order. Throws std::runtime_error when the manifest is
// missing.
std::vector<std::string> mailCorpusFiles(std::string_view kind);

}  // namespace lumora::testing
