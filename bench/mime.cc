// How fast whole messages go through the MIME parse, measured against Python's `email` package
// on the same mail in the same run, and how the parse grows on hostile structure.
//
// The report (see bench/README.md):
//   1. the mail corpus (every message of ../shared/fixtures/mail-corpus): parse, walk every
//      part and undo each leaf's transfer encoding, median of --runs rounds; then the same
//      corpus through email.message_from_bytes with the default policy, walking every part and
//      decoding each payload; both as MB/s and their ratio;
//   2. hostile messages of 1, 4 and 16 MB (deep nesting, many parts, one boundary for every
//      level, long delimiter-like lines): median time, and time per MB against the 1 MB case,
//      which stays near 1 when the parse is linear;
//   3. a 10 MB message of 10,000 parts.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "lumora/mailcontent/mime/Mime.h"
#include "Common.h"
#include "support/Fixtures.h"

namespace {

using lumora::bench::median;
using lumora::bench::seconds;

[[noreturn]] void die(const std::string& what) { lumora::bench::die("bench_mime", what); }

// Parses, walks every part and undoes the transfer encoding of every leaf; returns the decoded
// bytes so that nothing is optimised away.
size_t parseAndDecode(const std::string& message) {
  size_t decoded = 0;
  try {
    const lumora::Mime mime = lumora::MimeParser::parse(message);
    std::vector<const lumora::Mime*> stack{&mime};
    while (!stack.empty()) {
      const lumora::Mime* node = stack.back();
      stack.pop_back();
      for (const lumora::Mime& part : node->content().parts()) stack.push_back(&part);
      if (const lumora::MimeBody* body = node->content().body()) {
        try {
          decoded += body->decodedContentData().size();
        } catch (const lumora::Error&) {
        }
      }
    }
  } catch (const lumora::Error&) {
  }
  return decoded;
}

std::filesystem::path corpusDir() { return lumora::testing::mailCorpusDir(); }

std::vector<std::string> loadCorpus() {
  std::vector<std::string> messages;
  try {
    for (const std::string& file : lumora::testing::mailCorpusFiles("message"))
      messages.push_back(lumora::testing::readFile(corpusDir() / file));
  } catch (const std::runtime_error& e) {
    die(e.what());
  }
  return messages;
}

constexpr const char* kPythonScript = R"(
import email, os, sys, time
from email import policy
root, runs = sys.argv[1], int(sys.argv[2])
messages = []
with open(os.path.join(root, 'manifest.tsv')) as manifest:
    next(manifest)
    for line in manifest:
        fields = line.split('\t')
        if fields[1] == 'message':
            with open(os.path.join(root, fields[0]), 'rb') as f:
                messages.append(f.read())
def once():
    for raw in messages:
        try:
            message = email.message_from_bytes(raw, policy=policy.default)
            for part in message.walk():
                if not part.is_multipart():
                    part.get_payload(decode=True)
        except Exception:
            pass
)";

// Median seconds per round of the corpus through Python, or a negative number when Python is
// not there.
double pythonRound(int runs) {
  return lumora::bench::pythonSeconds(
      kPythonScript, std::string("'").append(corpusDir().string()) + "' " + std::to_string(runs));
}

// ---- hostile messages ----------------------------------------------------------------------

std::string deepNesting(size_t bytes) {
  std::string message;
  std::vector<std::string> closing;
  size_t closingBytes = 0;
  for (size_t level = 0; message.size() + closingBytes < bytes; ++level) {
    const std::string b = std::string("n").append(std::to_string(level)) + "_";
    message += "Content-Type: multipart/mixed; boundary=" + b + "\n\n--" + b + "\n";
    closing.push_back("--" + b + "--\n\n");
    closingBytes += closing.back().size();
  }
  message += "\ninnermost\n";
  for (auto it = closing.rbegin(); it != closing.rend(); ++it) message += *it;
  return message;
}

std::string oneBoundaryEveryLevel(size_t bytes) {
  std::string message;
  while (message.size() < bytes) message += "Content-Type: multipart/mixed; boundary=n\n\n--n\n";
  return message + "\ninnermost\n--n--\n";
}

std::string manyParts(size_t bytes, size_t parts) {
  const size_t body = bytes / parts > 80 ? bytes / parts - 80 : 1;
  std::string message = "Content-Type: multipart/mixed; boundary=b\n\n";
  std::string line;
  for (size_t i = 0; i < body; i += 76) line += std::string(std::min<size_t>(75, body - i), 'x') + "\n";
  for (size_t i = 0; i < parts; ++i)
    message += "--b\nContent-Type: text/plain\nContent-Transfer-Encoding: 7bit\n\n" + line;
  return message + "--b--\n";
}

// Lines that begin like the delimiter of a long boundary and break off at its end.
std::string nearDelimiters(size_t bytes) {
  const std::string boundary(70, 'q');
  std::string message = "Content-Type: multipart/mixed; boundary=" + boundary + "\n\n--" +
                        boundary + "\n\n";
  const std::string near = "--" + boundary.substr(0, 69) + "x\n";
  while (message.size() < bytes) message += near;
  return message + "--" + boundary + "--\n";
}

struct Options {
  int runs = 5;
  bool corpus = true;
  bool hostile = true;
};

[[noreturn]] void usage() {
  std::fprintf(stderr, "usage: bench_mime [--runs N] [--only corpus|hostile]\n");
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      options.runs = std::clamp(std::atoi(argv[++i]), 1, 1000);
    } else if (arg == "--only" && i + 1 < argc) {
      const std::string only = argv[++i];
      if (only != "corpus" && only != "hostile") usage();
      options.corpus = only == "corpus";
      options.hostile = only == "hostile";
    } else {
      usage();
    }
  }

  // The allocator keeps what the rounds free instead of handing it back to the kernel, so each
  // round measures the parse and not the first touch of fresh pages, which costs several
  // microseconds a page on these machines and would make the larger messages look worse than
  // the parse is.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);

  if (options.corpus) {
    const auto messages = loadCorpus();
    size_t bytes = 0;
    for (const auto& m : messages) bytes += m.size();
    size_t sink = 0;
    std::vector<double> ours;
    for (int r = 0; r < options.runs; ++r)
      ours.push_back(seconds([&] {
        for (const auto& m : messages) sink += parseAndDecode(m);
      }));
    const double python = pythonRound(options.runs);
    const double mb = static_cast<double>(bytes) / 1e6;
    std::printf("corpus: %zu messages, %.1f MB, %d rounds each (checksum %zu)\n",
                messages.size(), mb, options.runs, sink % 1000);
    std::printf("  lumora        %8.1f ms/round  %8.1f MB/s\n", median(ours) * 1e3,
                mb / median(ours));
    if (python > 0) {
      std::printf("  python email  %8.1f ms/round  %8.1f MB/s\n", python * 1e3, mb / python);
      std::printf("  ratio (lumora throughput / python throughput): %.1f\n", python / median(ours));
    } else {
      std::printf("  python email: not measured (/usr/bin/python3 failed)\n");
    }
  }

  if (options.hostile) {
    struct Hostile {
      const char* name;
      std::function<std::string(size_t)> make;
    };
    const Hostile cases[] = {
        {"deep nesting", deepNesting},
        {"one boundary every level", oneBoundaryEveryLevel},
        {"many parts (1 KB each)", [](size_t bytes) { return manyParts(bytes, bytes / 1024); }},
        {"near-delimiter lines", nearDelimiters},
    };
    std::printf("hostile messages: median of %d parses\n", options.runs);
    std::printf("  %-26s %10s %10s %10s   %s\n", "", "1 MB", "4 MB", "16 MB",
                "time per MB against 1 MB (4, 16)");
    for (const Hostile& h : cases) {
      double perMb[3];
      double times[3];
      const size_t sizes[3] = {1u << 20, 4u << 20, 16u << 20};
      for (int s = 0; s < 3; ++s) {
        const std::string message = h.make(sizes[s]);
        std::vector<double> runs;
        for (int r = 0; r < options.runs; ++r)
          runs.push_back(seconds([&] { (void)lumora::MimeParser::parse(message); }));
        times[s] = median(runs);
        perMb[s] = times[s] / (static_cast<double>(message.size()) / (1 << 20));
      }
      std::printf("  %-26s %8.1fms %8.1fms %8.1fms   %.2f, %.2f\n", h.name, times[0] * 1e3,
                  times[1] * 1e3, times[2] * 1e3, perMb[1] / perMb[0], perMb[2] / perMb[0]);
    }
    const std::string tenThousand = manyParts(10'000'000, 10'000);
    std::vector<double> runs;
    for (int r = 0; r < options.runs; ++r)
      runs.push_back(seconds([&] { (void)parseAndDecode(tenThousand); }));
    std::printf("  %.1f MB with 10,000 parts, parsed and decoded: %.1f ms\n",
                tenThousand.size() / 1e6, median(runs) * 1e3);
  }
  return 0;
}
