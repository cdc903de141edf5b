// Holds the wire decoder's reading of a stream line without a tree against its reading through
// the whole tree: for any bytes, both must give the same record, the same error or both find
// no JSON. A difference stops the run.
#include <cstdio>
#include <cstdlib>

#include "support/StreamLineOutcome.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const std::string fast = lumora::testing::streamLineOutcome(line);
  const std::string tree = lumora::testing::treeOutcome(line);
  if (fast != tree) {
    std::fprintf(stderr, "readings differ\n  without a tree: %s\n  through the tree: %s\n",
                 fast.c_str(), tree.c_str());
    std::abort();
  }
  return 0;
}
