#include "support/Fixtures.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#ifndef LUMORA_FIXTURES_DIR
#error "LUMORA_FIXTURES_DIR must name the fixtures directory (see tests/CMakeLists.txt)"
#endif

namespace lumora::testing {

std::filesystem::path fixturesDir() {
  // An override lets a test run against another copy of the fixtures without reconfiguring.
  if (const char* fromEnvironment = std::getenv("LUMORA_FIXTURES_DIR");
      fromEnvironment != nullptr && *fromEnvironment != '\0') {
    return fromEnvironment;
  }
  return LUMORA_FIXTURES_DIR;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path.string());
  std::string contents{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) throw std::runtime_error("cannot read " + path.string());
  return contents;
}

std::filesystem::path mailCorpusDir() { return fixturesDir() / "mail-corpus"; }

std::vector<std::string> mailCorpusFiles(std::string_view kind) {
  std::ifstream manifest(mailCorpusDir() / "manifest.tsv");
  if (!manifest) throw std::runtime_error("no mail corpus at " + mailCorpusDir().string());
  std::vector<std::string> files;
  std::string line;
  std::getline(manifest, line);  // the header row
  while (std::getline(manifest, line)) {
    const size_t tab = line.find('\t');
    const size_t next = line.find('\t', tab + 1);
    if (tab != std::string::npos && line.substr(tab + 1, next - tab - 1) == kind)
      files.push_back(line.substr(0, tab));
  }
  return files;
}

}  // namespace lumora::testing
