// Writes COUNT keys "PREFIX-i" = i into the defaults suite in FILE, one write at a time, as a
// second process competing with another for the same file.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lumora/platform/Errors.h"
#include "lumora/store/DefaultsStore.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: settings_writer FILE PREFIX COUNT\n");
    return 2;
  }
  lumora::DefaultsStore store(argv[1]);
  const std::string prefix = argv[2];
  const int count = std::atoi(argv[3]);
  try {
    for (int i = 0; i < count; ++i) store.set(prefix + "-" + std::to_string(i), i);
  } catch (const lumora::Error& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}
