// Holds the wire decoder's reading of stream lines against their reading through the whole tree:
// for any bytes, both must give the same record, the same error or both find no JSON. The input
// is split at its line feeds and one decoder reads the lines in turn, as a stream's reader does,
// so a line read as a repeat of the record before it is held against its reading on its own. A
// difference stops the run.
#include <cstdio>
#include <cstdlib>

#include "support/StreamLineOutcome.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  lumora::WireDecoder decoder;
  while (true) {
    const size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    const std::string fast =
        lumora::testing::outcomeOf([&] { return decoder.streamLine(line); });
    const std::string tree = lumora::testing::treeOutcome(line);
    if (fast != tree) {
      std::fprintf(stderr, "readings differ\n  without a tree: %s\n  through the tree: %s\n",
                   fast.c_str(), tree.c_str());
      std::abort();
    }
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  return 0;
}
