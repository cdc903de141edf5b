// Replays fuzz inputs through the targets without libFuzzer, so that the normal build and the
// sanitizer builds run them as tests: the seed corpus, and every input that once made a target
// fail, kept under fuzz/regressions/TARGET.
//
// Usage: lumora_fuzz_replay TARGET PATH...   (a PATH may be a file or a directory of files)
// Exit status 0 when every input ran; a failing input ends the process the way it fails.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "ReplayTargets.h"  // generated: kTargets, one entry per fuzz/NAME.cc

namespace {

std::vector<std::filesystem::path> inputs(const std::vector<std::filesystem::path>& paths) {
  std::vector<std::filesystem::path> files;
  for (const auto& path : paths) {
    if (!std::filesystem::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "Usage: lumora_fuzz_replay TARGET PATH...\n");
    return 2;
  }
  const std::string_view name = argv[1];
  const auto target = std::find_if(std::begin(kTargets), std::end(kTargets),
                                   [&](const ReplayTarget& t) { return t.name == name; });
  if (target == std::end(kTargets)) {
    std::fprintf(stderr, "lumora_fuzz_replay: no target %s\n", argv[1]);
    return 2;
  }
  std::vector<std::filesystem::path> paths;
  for (int i = 2; i < argc; ++i)
    if (std::filesystem::exists(argv[i])) paths.emplace_back(argv[i]);
  const auto files = inputs(paths);
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::fprintf(stderr, "%s\n", file.c_str());
    target->run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%s: %zu inputs replayed\n", argv[1], files.size());
  return files.empty() ? 1 : 0;
}
