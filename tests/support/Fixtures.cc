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

}  // namespace lumora::testing
