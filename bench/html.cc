// How fast HTML goes through parse + select("blockquote") + text(), against gumbo (Google's C
// parser, driven to do the same work) and Python's lxml.html, on the same sources in one run;
// and how each grows on hostile markup.
//
// The report (see bench/README.md):
//   1. every HTML part of the mail corpus (text/html leaves decoded in their charset, and the
//      HTML fragments of the corpus): MB/s for each parser and the ratios;
//   2. hostile sources of 1, 4 and 16 MB: time, and time per MB against the 1 MB case (near 1
//      when linear), for this parser and for gumbo.
#include <gumbo.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "lumora/mailcontent/html/Document.h"
#include "lumora/mailcontent/mime/Mime.h"
#include "lumora/platform/Text.h"
#include "Common.h"
#include "support/Fixtures.h"

namespace {

using lumora::bench::median;
using lumora::bench::seconds;

[[noreturn]] void die(const std::string& what) { lumora::bench::die("bench_html", what); }

// ---- the work, three ways ------------------------------------------------------------------

size_t ours(const std::string& html) {
  const auto document = lumora::html::Document::parseUnowned(html);
  const auto quotes = document->root().select("blockquote");
  size_t length = 0;
  for (size_t i = 0; i < quotes.size(); ++i) length += quotes.get(i).text(true).size();
  return length + quotes.size();
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r'; }

// The same work with gumbo: find every blockquote, gather its text with whitespace collapsed.
size_t gumbo(const std::string& html) {
  GumboOutput* output = gumbo_parse_with_options(&kGumboDefaultOptions, html.data(), html.size());
  size_t length = 0, count = 0;
  std::vector<const GumboNode*> stack{output->root};
  while (!stack.empty()) {
    const GumboNode* node = stack.back();
    stack.pop_back();
    if (node->type != GUMBO_NODE_ELEMENT) continue;
    const GumboVector& children = node->v.element.children;
    for (unsigned i = children.length; i-- > 0;)
      stack.push_back(static_cast<const GumboNode*>(children.data[i]));
    if (node->v.element.tag != GUMBO_TAG_BLOCKQUOTE) continue;
    ++count;
    std::string text;
    std::vector<const GumboNode*> inner{node};
    while (!inner.empty()) {
      const GumboNode* n = inner.back();
      inner.pop_back();
      if (n->type == GUMBO_NODE_TEXT || n->type == GUMBO_NODE_WHITESPACE) {
        for (const char* p = n->v.text.text; *p; ++p) {
          if (!isSpace(*p))
            text += *p;
          else if (text.empty() || text.back() != ' ')
            text += ' ';
        }
      } else if (n->type == GUMBO_NODE_ELEMENT) {
        const GumboVector& kids = n->v.element.children;
        for (unsigned i = kids.length; i-- > 0;)
          inner.push_back(static_cast<const GumboNode*>(kids.data[i]));
      }
    }
    length += text.size();
  }
  gumbo_destroy_output(&kGumboDefaultOptions, output);
  return length + count;
}

constexpr const char* kLxmlScript = R"(
import struct, sys, time
import lxml.html
path, runs = sys.argv[1], int(sys.argv[2])
sources = []
with open(path, 'rb') as f:
    data = f.read()
at = 0
while at < len(data):
    (n,) = struct.unpack_from('<I', data, at)
    sources.append(data[at + 4:at + 4 + n].decode('utf-8', 'surrogateescape'))
    at += 4 + n
def once():
    total = 0
    for s in sources:
        try:
            doc = lxml.html.document_fromstring(s)
        except Exception:
            continue
        for q in doc.iter('blockquote'):
            total += len(' '.join(q.text_content().split()))
    return total
)";

double lxmlRound(const std::vector<std::string>& sources, int runs) {
  char data[] = "/tmp/lumora-bench-html-XXXXXX";
  const int fd = mkstemp(data);
  if (fd < 0) die("cannot write the sources for lxml");
  for (const std::string& s : sources) {
    const uint32_t n = static_cast<uint32_t>(s.size());
    if (write(fd, &n, 4) != 4 || write(fd, s.data(), n) != static_cast<ssize_t>(n))
      die("cannot write the sources for lxml");
  }
  close(fd);
  const double result =
      lumora::bench::pythonSeconds(kLxmlScript, std::string(data) + " " + std::to_string(runs));
  unlink(data);
  return result;
}

// Every HTML source of the corpus: text/html leaves decoded in their charset, and the files
// that are HTML already.
std::vector<std::string> corpusHtml() try {
  const auto dir = lumora::testing::mailCorpusDir();
  std::vector<std::string> sources;
  for (const std::string& file : lumora::testing::mailCorpusFiles("html-fragment"))
    sources.push_back(lumora::testing::readFile(dir / file));
  for (const std::string& file : lumora::testing::mailCorpusFiles("message")) {
    try {
      const lumora::Mime mime = lumora::MimeParser::parse(lumora::testing::readFile(dir / file));
      std::vector<const lumora::Mime*> stack{&mime};
      while (!stack.empty()) {
        const lumora::Mime* node = stack.back();
        stack.pop_back();
        for (const lumora::Mime& part : node->content().parts()) stack.push_back(&part);
        const auto* body = node->content().body();
        const auto& type = node->header().contentType;
        if (!body || !type || type->mimeType().kind != lumora::MimeType::Kind::text) continue;
        if (!lumora::text::equalsIgnoringCase(type->subtype, "html")) continue;
        std::optional<std::string_view> charset;
        if (auto it = type->parameters.find("charset"); it != type->parameters.end())
          charset = it->second;
        try {
          sources.push_back(body->decodedContentString(charset));
        } catch (const lumora::Error&) {
          try {
            sources.push_back(body->decodedContentData());  // as bytes, as a browser would try
          } catch (const lumora::Error&) {
          }
        }
      }
    } catch (const lumora::Error&) {
    }
  }
  return sources;
} catch (const std::runtime_error& e) {
  die(e.what());
}

// One gumbo parse in a child process, since gumbo may abort or run for hours on hostile
// markup: seconds taken, or a negative number (-1 timed out after `limit` s, -2 crashed).
double gumboInChild(const std::string& html, unsigned limit) {
  int fds[2];
  if (pipe(fds) != 0) die("pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    alarm(limit);
    const double t = seconds([&] { gumbo(html); });
    (void)!write(fds[1], &t, sizeof t);
    _exit(0);
  }
  close(fds[1]);
  double t = -2;
  if (read(fds[0], &t, sizeof t) != sizeof t) t = -2;
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) t = WTERMSIG(status) == SIGALRM ? -1 : -2;
  return t;
}

// ---- hostile sources ------------------------------------------------------------------------

std::string repeated(const std::string& piece, size_t bytes) {
  std::string s;
  s.reserve(bytes + piece.size());
  while (s.size() < bytes) s += piece;
  return s;
}

std::string manyAttributes(size_t bytes) {
  std::string s = "<div";
  for (size_t i = 0; s.size() < bytes; ++i) s += " a" + std::to_string(i) + "=x";
  return s + ">text</div>";
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5;
  bool corpus = true, hostile = true, withGumbo = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--runs" && i + 1 < argc) {
      runs = std::clamp(std::atoi(argv[++i]), 1, 1000);
    } else if (arg == "--only" && i + 1 < argc) {
      const std::string only = argv[++i];
      corpus = only == "corpus";
      hostile = only == "hostile";
    } else if (arg == "--no-gumbo-hostile") {
      withGumbo = false;
    } else {
      std::fprintf(stderr, "usage: bench_html [--runs N] [--only corpus|hostile] "
                           "[--no-gumbo-hostile]\n");
      return 2;
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // Keep freed memory in the allocator between rounds (see bench/README.md).
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 30);

  if (corpus) {
    const auto sources = corpusHtml();
    size_t bytes = 0;
    for (const auto& s : sources) bytes += s.size();
    const double mb = static_cast<double>(bytes) / 1e6;
    size_t a = 0, b = 0;
    std::vector<double> oursTimes, gumboTimes;
    for (int r = 0; r < runs; ++r) {
      oursTimes.push_back(seconds([&] {
        for (const auto& s : sources) a += ours(s);
      }));
      gumboTimes.push_back(seconds([&] {
        for (const auto& s : sources) b += gumbo(s);
      }));
    }
    const double lxml = lxmlRound(sources, runs);
    const double o = median(oursTimes), g = median(gumboTimes);
    std::printf("corpus HTML: %zu sources, %.1f MB, %d rounds (checksums %zu %zu)\n",
                sources.size(), mb, runs, a % 1000, b % 1000);
    std::printf("  lumora  %8.1f ms/round  %7.1f MB/s\n", o * 1e3, mb / o);
    std::printf("  gumbo   %8.1f ms/round  %7.1f MB/s   lumora/gumbo throughput: %.2f\n",
                g * 1e3, mb / g, g / o);
    if (lxml > 0)
      std::printf("  lxml    %8.1f ms/round  %7.1f MB/s   lumora/lxml throughput: %.2f\n",
                  lxml * 1e3, mb / lxml, lxml / o);
    else
      std::printf("  lxml: not measured (/usr/bin/python3 with lxml failed)\n");
  }

  if (hostile) {
    struct Hostile {
      const char* name;
      std::function<std::string(size_t)> make;
    };
    const Hostile cases[] = {
        {"<div> never closed", [](size_t n) { return repeated("<div>", n); }},
        {"<b><i><div></b> misnested", [](size_t n) { return repeated("<b><i><div>x</b>", n); }},
        {"nested <blockquote>", [](size_t n) { return repeated("<blockquote>q", n); }},
        {"<a> never closed", [](size_t n) { return repeated("<a href=x>y", n); }},
        {"<table> never closed", [](size_t n) { return repeated("<table><tr><td>x", n); }},
        {"one tag, many attributes", manyAttributes},
    };
    const size_t sizes[3] = {1u << 20, 4u << 20, 16u << 20};
    std::printf("hostile sources: median of %d rounds; time per MB at 4 and 16 MB over 1 MB\n",
                runs);
    for (const Hostile& h : cases) {
      for (const bool isGumbo : {false, true}) {
        if (isGumbo && !withGumbo) continue;
        double times[3] = {0, 0, 0};
        std::string stopped;
        for (int s = 0; s < 3 && stopped.empty(); ++s) {
          const std::string html = h.make(sizes[s]);
          if (isGumbo) {
            times[s] = gumboInChild(html, 60);
            if (times[s] == -1) stopped = "over 60 s";
            if (times[s] == -2) stopped = "crashed";
            if (!stopped.empty()) stopped += " at " + std::to_string(sizes[s] >> 20) + " MB";
            continue;
          }
          std::vector<double> t;
          for (int r = 0; r < runs; ++r) t.push_back(seconds([&] { ours(html); }));
          times[s] = median(t);
        }
        std::printf("  %-28s %-6s", h.name, isGumbo ? "gumbo" : "lumora");
        for (const double t : times) {
          if (t > 0)
            std::printf(" %9.1fms", t * 1e3);
          else
            std::printf(" %11s", "-");
        }
        if (stopped.empty())
          std::printf("   %.2f, %.2f\n", times[1] / 4 / times[0], times[2] / 16 / times[0]);
        else
          std::printf("   %s\n", stopped.c_str());
      }
    }
  }
  return 0;
}
