// The memory both readings of a message take, on the shapes that cost the most per byte: each
// shape at 4 and 16 MB, read in a child process forked while this one is small, its peak
// resident memory (ru_maxrss) set against the bound that docs/configuration.md gives (4 times
// the message plus 10 MB), and the growth from 4 to 16 MB (4.0 when the memory is linear).
//
//   quoted:  MailParser::quotedTexts within the request budget of the default "maxRequestMiB",
//            as the panel gathers the passages;
//   message: MailReader::read with its default budget of characters.
//
// See bench/README.md.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Children.h"
#include "Common.h"
#include "lumora/mailcontent/MailParser.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Errors.h"
#include "mailcontent/MemoryShapes.h"

namespace {

using lumora::bench::median;

[[noreturn]] void die(const std::string& what) { lumora::bench::die("bench_memory", what); }

constexpr double kMB = 1e6;
constexpr double kMiB = 1024.0 * 1024.0;
constexpr size_t kRequestBudget = size_t{8} << 20;  // the default of "maxRequestMiB"

// ---- the shapes ------------------------------------------------------------------------------

struct Shape {
  const char* name;
  std::function<std::string(size_t)> make;
};

const std::vector<Shape>& shapes() {
  using namespace lumora::testing;
  static const std::vector<Shape> all = {
      {"sibling parts of 10 bytes", siblingParts},
      {"sibling parts with a header field", siblingPartsWithHeaders},
      {"nested multiparts", nestedMultiparts},
      {"header of short lines", headerLines},
      {"one long header field", longHeader},
      {"a parameter every 5 bytes", manyParameters},
      {"HTML <blockquote>q nested", [](size_t n) { return htmlShape("<blockquote>q", n); }},
      {"HTML <div> never closed", [](size_t n) { return htmlShape("<div>", n); }},
  };
  return all;
}

// ---- one reading in a child ----------------------------------------------------------------

enum class Reading { quoted, message };

using lumora::bench::maxResidentKiB;
using lumora::bench::writeInChild;

struct ChildPeak {
  long withFileKiB = 0;  // holding the message
  long peakKiB = 0;      // after the reading
  bool ok = false;
  bool tooLarge = false;  // the quoted reading stopped at the request budget
  char error[200] = "";
};

// The child reads the file, reads the message and reports its peak.
ChildPeak readInChild(const std::string& path, Reading reading) {
  const auto peak = lumora::bench::inChild<ChildPeak>([&] {
    ChildPeak r;
    std::string raw;
    r.ok = lumora::bench::readWholeFile(path, raw);
    r.withFileKiB = maxResidentKiB();
    if (!r.ok) return r;
    try {
      if (reading == Reading::quoted) {
        r.tooLarge = !lumora::MailParser::quotedTexts(raw, kRequestBudget).complete;
      } else {
        (void)lumora::MailReader::read(raw);
      }
    } catch (const lumora::Error& e) {
      // A message the quoted reading refuses is a result too: what it took counts.
      std::snprintf(r.error, sizeof r.error, "%s", e.what());
    } catch (const std::exception& e) {
      r.ok = false;
      std::snprintf(r.error, sizeof r.error, "%s", e.what());
    }
    r.peakKiB = maxResidentKiB();
    return r;
  });
  if (peak) return *peak;
  ChildPeak failed;
  std::snprintf(failed.error, sizeof failed.error, "the child ended abnormally");
  return failed;
}

struct Measure {
  double size = 0;     // bytes
  double peak = 0;     // MiB, the whole child
  double reading = 0;  // MiB, the peak over the child holding the message
  bool tooLarge = false;
  std::string note;
};

Measure measure(const Shape& shape, size_t bytes, Reading reading, int runs) {
  const std::string path = writeInChild([&] { return shape.make(bytes); });
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) die("the generated message is gone");
  Measure m;
  m.size = static_cast<double>(st.st_size);
  std::vector<double> peaks, readings;
  for (int r = 0; r < runs; ++r) {
    const ChildPeak c = readInChild(path, reading);
    if (!c.ok) die(std::string("reading ") + shape.name + " failed: " + c.error);
    peaks.push_back(c.peakKiB / 1024.0);
    readings.push_back((c.peakKiB - c.withFileKiB) / 1024.0);
    m.tooLarge = c.tooLarge;
    m.note = c.error;
  }
  unlink(path.c_str());
  m.peak = median(peaks);
  m.reading = median(readings);
  return m;
}

void usage() {
  std::fputs(
      "usage: bench_memory [--runs N] [--only quoted|message] [--sizes A,B (MB)]\n"
      "  each shape at 4 and 16 MB, read in forked children (median of N, default 3)\n",
      stderr);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 3;
  bool quoted = true, message = true;
  size_t small = 4, large = 16;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      runs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--only" && i + 1 < argc) {
      const std::string only = argv[++i];
      if (only != "quoted" && only != "message") usage();
      quoted = only == "quoted";
      message = only == "message";
    } else if (arg == "--sizes" && i + 1 < argc) {
      if (std::sscanf(argv[++i], "%zu,%zu", &small, &large) != 2 || small == 0 || large == 0)
        usage();
    } else {
      usage();
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  lumora::debug::setSink({});  // the quoted reading writes the HTML as a debug line
  // A reading that runs away fails within seconds instead of taking the shared machine's
  // memory with it.
  rlimit space{};
  if (getrlimit(RLIMIT_AS, &space) == 0 && space.rlim_cur > (4ull << 30)) {
    space.rlim_cur = 4ull << 30;
    setrlimit(RLIMIT_AS, &space);
  }

  std::printf(
      "peak resident memory (ru_maxrss) of one reading in a forked child, median of %d; bound: "
      "4 x the message + 10 MB\n",
      runs);
  std::printf("  %-36s %-8s %9s %10s %10s %-7s %10s %8s %8s\n", "shape", "reading", "size", "peak",
              "bound", "", "reading", "/ size", "16 / 4");
  int over = 0;
  for (const Shape& shape : shapes()) {
    for (const Reading reading : {Reading::quoted, Reading::message}) {
      if ((reading == Reading::quoted && !quoted) || (reading == Reading::message && !message))
        continue;
      const char* name = reading == Reading::quoted ? "quoted" : "message";
      Measure at[2];
      const size_t sizes[2] = {small, large};
      for (int k = 0; k < 2; ++k) {
        at[k] = measure(shape, sizes[k] * 1'000'000, reading, runs);
        const double bound = (4 * at[k].size + 10 * kMB) / kMiB;
        // Passages that stopped at the request budget hold up to that budget, by design.
        const double budget = at[k].tooLarge ? kRequestBudget / kMiB : 0;
        const bool met = at[k].peak <= bound;
        const bool metWithBudget = !met && at[k].peak <= bound + budget;
        if (!met && !metWithBudget) ++over;
        char growth[16] = "";
        if (k == 1) std::snprintf(growth, sizeof growth, "%.2f", at[1].reading / at[0].reading);
        std::printf("  %-36s %-8s %6.2f MB %6.1f MiB %6.1f MiB %-7s %6.1f MiB %6.2f x %8s%s\n",
                    k == 0 ? shape.name : "", k == 0 ? name : "", at[k].size / kMB, at[k].peak,
                    bound,
                    met             ? "met"
                    : metWithBudget ? "met*"
                                    : "NOT met",
                    at[k].reading, at[k].reading / (at[k].size / kMiB), growth,
                    at[k].tooLarge       ? "  (passages stopped at the request budget)"
                    : at[k].note.empty() ? ""
                                         : ("  (" + at[k].note.substr(0, 60) + ")").c_str());
      }
    }
  }
  std::printf(
      "  (peak: the whole child; reading: the peak over the child holding the message, and that "
      "over the message's size; 16 / 4: the reading's memory at 16 MB over that at 4 MB;\n"
      "   met*: within the bound plus the request budget, which the passages fill when they stop "
      "at it)\n");
  std::printf("%d of the rows over the bound\n", over);
  return 0;
}
