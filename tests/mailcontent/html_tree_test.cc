// The tree construction against the public HTML5 conformance suite: every case is parsed, its
// tree dumped in the suite's format and compared. Cases where this parser differs on purpose
// are listed, each with its reason, in html_tree_known_differences.tsv; the test fails on any
// other difference, and on a listed case that no longer differs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "lumora/mailcontent/html/Document.h"
#include "support/Fixtures.h"

namespace lumora::html {
namespace {

struct TreeCase {
  std::string file;
  int index = 0;  // from 1, in its file
  std::string data;
  std::string expected;
  std::optional<std::string> fragmentContext;
  bool scriptOn = false;
};

std::vector<TreeCase> readCases(const std::filesystem::path& path) {
  const std::string content = testing::readFile(path);
  std::vector<TreeCase> cases;
  size_t at = content.find("#data\n");
  int index = 0;
  while (at != std::string::npos) {
    size_t next = content.find("\n\n#data\n", at);
    const std::string block =
        content.substr(at, next == std::string::npos ? std::string::npos : next + 1 - at);
    TreeCase c;
    c.file = path.filename().string();
    c.index = ++index;
    const size_t errors =
        block.compare(6, 8, "#errors\n") == 0 ? 5 : block.find("\n#errors\n");  // empty data
    c.data = block.substr(6, errors > 6 ? errors - 6 : 0);
    if (const size_t f = block.find("\n#document-fragment\n"); f != std::string::npos) {
      const size_t start = f + 20;
      c.fragmentContext = block.substr(start, block.find('\n', start) - start);
    }
    c.scriptOn = block.find("\n#script-on\n") != std::string::npos;
    const size_t doc = block.find("\n#document\n");
    c.expected = doc == std::string::npos ? "" : block.substr(doc + 11);
    while (!c.expected.empty() && c.expected.back() == '\n') c.expected.pop_back();
    cases.push_back(std::move(c));
    at = next == std::string::npos ? std::string::npos : next + 2;
  }
  return cases;
}

// The suite's dump of the children of `root`.
std::string dump(Node root) {
  std::string out;
  std::vector<std::pair<Node, int>> stack;
  for (Node child = root.lastChild(); child; child = child.previousSibling())
    stack.emplace_back(child, 0);
  while (!stack.empty()) {
    const auto [node, depth] = stack.back();
    stack.pop_back();
    const std::string indent = "| " + std::string(static_cast<size_t>(depth) * 2, ' ');
    if (!out.empty()) out += '\n';
    switch (node.kind()) {
      case NodeKind::element: {
        out += indent + "<" + std::string(node.tagName()) + ">";
        std::map<std::string, std::string> sorted;
        for (const Attribute& a : node.attributes()) sorted.emplace(a.name, a.value);
        for (const auto& [name, value] : sorted)
          out += "\n" + indent + "  " + name + "=\"" + value + "\"";
        for (Node child = node.lastChild(); child; child = child.previousSibling())
          stack.emplace_back(child, depth + 1);
        break;
      }
      case NodeKind::text:
      case NodeKind::data:
        out += indent + "\"" + std::string(node.content()) + "\"";
        break;
      case NodeKind::comment:
        out += indent + "<!-- " + std::string(node.content()) + " -->";
        break;
      case NodeKind::doctype: {
        out += indent + "<!DOCTYPE " + std::string(node.doctypeName());
        if (!node.publicId().empty() || !node.systemId().empty())
          out += " \"" + std::string(node.publicId()) + "\" \"" + std::string(node.systemId()) + "\"";
        out += ">";
        break;
      }
    }
  }
  return out;
}

std::string actualTree(const TreeCase& c) {
  if (c.fragmentContext) {
    const auto document = Document::parseFragment(c.data, *c.fragmentContext);
    return dump(document->root().firstChild());
  }
  return dump(Document::parse(c.data)->root());
}

// True when `name` matches `pattern`, in which one '*' stands for any run of characters.
bool matches(std::string_view pattern, std::string_view name) {
  const size_t star = pattern.find('*');
  if (star == std::string_view::npos) return pattern == name;
  const std::string_view head = pattern.substr(0, star), tail = pattern.substr(star + 1);
  return name.size() >= head.size() + tail.size() && name.starts_with(head) &&
         name.ends_with(tail);
}

// "file<TAB>index<TAB>reason" per line; '#' starts a comment. The file may be a pattern with
// one '*' that matches exactly one file of `files`.
std::map<std::pair<std::string, int>, std::string> knownDifferences(
    const std::vector<std::filesystem::path>& files) {
  std::ifstream in(std::filesystem::path(LUMORA_SOURCE_DIR) / "tests" / "mailcontent" /
                   "html_tree_known_differences.tsv");
  std::map<std::pair<std::string, int>, std::string> known;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t a = line.find('\t'), b = line.find('\t', a + 1);
    const std::string pattern = line.substr(0, a);
    std::vector<std::string> named;
    for (const auto& file : files)
      if (matches(pattern, file.filename().string())) named.push_back(file.filename().string());
    EXPECT_EQ(named.size(), 1u) << pattern << " must name exactly one file";
    if (named.size() != 1) continue;
    known[{named.front(), std::stoi(line.substr(a + 1, b - a - 1))}] = line.substr(b + 1);
  }
  return known;
}

TEST(HtmlTreeConstruction, ConformanceSuite) {
  const auto dir = testing::fixturesDir() / "html5lib-tests" / "tree-construction";
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    if (entry.path().extension() == ".dat") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty());
  const auto known = knownDifferences(files);
  std::set<std::pair<std::string, int>> seenKnown;
  size_t passedAll = 0, totalAll = 0, knownAll = 0;
  for (const auto& path : files) {
    size_t passed = 0, total = 0, listed = 0;
    for (const TreeCase& c : readCases(path)) {
      const auto key = std::make_pair(c.file, c.index);
      const auto reason = known.find(key);
      // Scripting is off in this parser: cases written for scripting on are not its own.
      const std::string actual = c.scriptOn ? "" : actualTree(c);
      const bool same = !c.scriptOn && actual == c.expected;
      if (reason != known.end()) {
        seenKnown.insert(key);
        ++listed;
        EXPECT_FALSE(same) << c.file << " #" << c.index
                           << " is listed as a known difference but passes";
        continue;
      }
      ++total;
      if (same) {
        ++passed;
      } else {
        ADD_FAILURE() << c.file << " #" << c.index << "\ninput:\n"
                      << c.data << "\nexpected:\n"
                      << c.expected << "\nactual:\n"
                      << actual;
      }
    }
    std::cout << path.filename().string() << ": " << passed << "/" << total << " passed, "
              << listed << " known differences\n";
    passedAll += passed;
    totalAll += total;
    knownAll += listed;
  }
  std::cout << "all: " << passedAll << "/" << totalAll << " passed, " << knownAll
            << " known differences\n";
  for (const auto& [key, reason] : known)
    EXPECT_TRUE(seenKnown.count(key)) << key.first << " #" << key.second << " is listed but gone";
}

}  // namespace
}  // namespace lumora::html
