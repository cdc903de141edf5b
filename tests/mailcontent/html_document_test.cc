// The document's store: text that stands in the source is a span of it and everything else is
// copied, with the arena kept linear in the text however appends interleave.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "lumora/mailcontent/html/Document.h"
#include "support/Fixtures.h"

namespace lumora::html {
namespace {

bool inSource(const Document& document, std::string_view text) {
  const std::string_view source = document.source();
  return !text.empty() && text.data() >= source.data() &&
         text.data() + text.size() <= source.data() + source.size();
}

// Every text and data node below the root, in document order, with whether its characters are
// the source's own.
std::vector<std::pair<std::string, bool>> texts(const Document& document) {
  std::vector<std::pair<std::string, bool>> out;
  std::vector<Node> stack{document.root()};
  while (!stack.empty()) {
    const Node node = stack.back();
    stack.pop_back();
    if (node.kind() == NodeKind::text || node.kind() == NodeKind::data)
      out.emplace_back(node.content(), inSource(document, node.content()));
    for (Node child = node.lastChild(); child; child = child.previousSibling())
      stack.push_back(child);
  }
  return out;
}

TEST(HtmlDocument, TextIsASpanOfTheSourceWhereItStandsThereVerbatim) {
  using Texts = std::vector<std::pair<std::string, bool>>;
  using namespace std::string_literals;
  const struct {
    const char* name;
    std::string html;
    Texts texts;
  } cases[] = {
      {"words and blanks of one run", "<p>Paragraph 1 of the thread</p>",
       {{"Paragraph 1 of the thread", true}}},
      {"line ends between elements", "<p>x</p>\r\n<blockquote>y</blockquote>\r\n",
       {{"x", true}, {"\r\n", true}, {"y", true}, {"\r\n", true}}},
      {"a '<' that starts no tag", "a < b", {{"a < b", true}}},
      {"an '&' that starts no reference", "fish & chips &#; &x", {{"fish & chips &#; &x", true}}},
      {"an end tag inside a title that does not end it", "<title>a</b>c</title>",
       {{"a</b>c", true}}},
      {"script content", "<script>if (a<b) f()</script>", {{"if (a<b) f()", true}}},
      {"a character reference: copied", "a&amp;b", {{"a&b", false}}},
      {"a NUL the body drops joins what stood apart: copied", "a\0b"s, {{"ab", false}}},
      {"an ignored end tag joins what stood apart: copied", "a</span>b", {{"ab", false}}},
      {"a NUL replaced in a title: copied", "<title>a\0</title>"s, {{"a\xEF\xBF\xBD", false}}},
      // A short text's span is held in its node's record, a longer one beside it.
      {"as long as a record holds", std::string(1023, 'a'), {{std::string(1023, 'a'), true}}},
      {"longer than a record holds", std::string(1024, 'a'), {{std::string(1024, 'a'), true}}},
      {"outgrowing its record where it stands",
       std::string(1020, 'a') + " < " + std::string(9, 'b'),
       {{std::string(1020, 'a') + " < " + std::string(9, 'b'), true}}},
      {"outgrowing its record as it is copied",
       std::string(1000, 'a') + "</span>" + std::string(1000, 'b'),
       {{std::string(1000, 'a') + std::string(1000, 'b'), false}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto document = Document::parse(c.html);
    EXPECT_EQ(texts(*document), c.texts);
  }
}

// A text node before a table takes the table's stray text, here character references so that
// it lives in the arena, while each cell adds text of its own behind it. Moving the node's
// whole text for every append would make the arena grow with the square of the rounds.
TEST(HtmlDocument, InterleavedAppendsKeepTheArenaLinear) {
  constexpr size_t kRounds = 20000;
  std::string html = "<table>";
  for (size_t i = 0; i < kRounds; ++i) html += "&amp;<td>&lt;</td>";
  const auto document = Document::parse(html);
  const Node body = document->root().select("body").get(0);
  ASSERT_EQ(body.firstChild().kind(), NodeKind::text);
  EXPECT_EQ(body.firstChild().content(), std::string(kRounds, '&'));
  const std::string text = body.text(false);
  EXPECT_EQ(text, std::string(kRounds, '&') + std::string(kRounds, '<'));
  EXPECT_LE(document->arenaBytes(), 4 * text.size());
}

TEST(HtmlDocument, ElementsOfUnknownTagsKeepTheirNames) {
  const auto document =
      Document::parse("<x-quote>a</x-quote><x-quotes>b</x-quotes><X-QUOTE>c</x-quote>");
  const Elements quotes = document->root().select("x-quote");
  ASSERT_EQ(quotes.size(), 2u);
  EXPECT_EQ(quotes.get(0).text(true), "a");
  EXPECT_EQ(quotes.get(1).tagName(), "x-quote");
  EXPECT_EQ(quotes.get(1).text(true), "c");
  EXPECT_EQ(document->root().tagName(), "#root");
}

// A reader of the text keeps only class and id; the text of every element is the same, in the
// corpus's HTML replies as in markup made for it.
TEST(HtmlDocument, KeepingClassAndIdAloneChangesNoText) {
  std::vector<std::string> sources = {
      "<div class=\"a b\" id=\"x\" style=\"color:red\"><a href=\"u\">link</a></div>",
      "<font style=a>1<font style=b>2<font style=c>3<font style=d>4</font></font></font></font>"
      "<p>after</p>",
  };
  for (const std::string& file : testing::mailCorpusFiles("html-fragment"))
    sources.push_back(testing::readFile(testing::mailCorpusDir() / file));
  for (const std::string& source : sources) {
    const auto all = Document::parse(source);
    const auto light = Document::parse(source, Document::Attributes::classAndId);
    EXPECT_EQ(light->root().text(false), all->root().text(false));
    Elements divs = light->root().select("div");
    for (size_t i = 0; i < divs.size(); ++i)
      for (const Attribute& a : divs.get(i).attributes())
        EXPECT_TRUE(a.name == "class" || a.name == "id") << a.name;
  }
  const auto light = Document::parse(sources[0], Document::Attributes::classAndId);
  const Node div = light->root().select("div").get(0);
  ASSERT_EQ(div.attributes().size(), 2u);
  EXPECT_EQ(div.attributes()[0], (Attribute{"class", "a b"}));
  EXPECT_EQ(div.attributes()[1], (Attribute{"id", "x"}));
}

}  // namespace
}  // namespace lumora::html
