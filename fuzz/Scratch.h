// A directory of the fuzzing process's own, for targets that read and write files, removed when
// the process ends (replays end normally; libFuzzer's runs end by exit too). Making it also
// turns debug output off, which would otherwise flood the fuzzer's log.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "lumora/platform/Debug.h"

namespace lumora::fuzzing {

inline const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "lumora-fuzz-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    debug::setSink({});
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(scratch(), ignored);
    });
    return std::filesystem::path(pattern);
  }();
  return dir;
}

}  // namespace lumora::fuzzing
