// The text of a quotation: selection of blockquote elements and the whitespace and block rules
// of text(), on small documents.
#include <gtest/gtest.h>

#include "lumora/mailcontent/html/Document.h"

namespace lumora::html {
namespace {

// The text of the whole body of `html`.
std::string bodyText(std::string_view html) {
  const auto document = Document::parse(std::string(html));
  const Elements bodies = document->root().select("body");
  return bodies.size() ? bodies.get(0).text(true) : std::string("<no body>");
}

TEST(HtmlText, WhitespaceAndBlocks) {
  struct Case {
    const char* name;
    std::string html;
    std::string text;
  };
  const Case cases[] = {
      {"paragraphs", "<p>a</p><p>b</p>", "a b"},
      {"a block sets a space before, not behind", "<div>a</div>b", "ab"},
      {"text before a block", "a<div>b</div>", "a b"},
      {"br", "a<br>b", "a b"},
      {"s, ins and del are blocks here", "a<s>b</s>a<ins>b</ins>a<del>b</del>", "a ba ba b"},
      {"inline tags set nothing", "a<b>b</b>", "ab"},
      {"a block at the start", "<br><div>a</div>", "a"},
      {"runs of whitespace", "a \t\n\r\n  b", "a b"},
      {"leading whitespace is trimmed", "  \n a", "a"},
      {"pre keeps blanks", "<pre>a  b</pre>", "a  b"},
      {"pre keeps them a level down", "<pre><b>a  b</b></pre>", "a  b"},
      {"not two levels down", "<pre><b><i>a  b</i></b></pre>", "a b"},
      {"pre then a paragraph", "<pre>a\n</pre><p>b</p>", "a\n b"},
      {"the line feed behind a pre start tag stays", "x<pre>\na</pre>", "x \na"},
      {"... and a leading one is trimmed", "<pre>\na</pre>", "a"},
      {"script and style add a space but no text", "a<script>x()</script>b<style>p{}</style>c",
       "a b c"},
      {"a comment separates nothing", "a<!-- x -->b", "ab"},
      {"nbsp stays in the middle", "a&nbsp; b", "a\u00a0 b"},
      {"nbsp at the start with a letter at the end", "&nbsp;a", "\u00a0a"},
      {"nbsp at the start with a blank at the end", "&nbsp;a ", "a"},
      {"a link adds its text only", "<a href=\"http://example.org\">here</a>", "here"},
      {"character references", "&amp;&lt;&#65;&#x42;&notin;", "&<AB\u2209"},
      {"CR stays a character", "<pre>a\r\nb</pre>", "a\r\nb"},
      {"template content counts", "<template>a</template>", "a"},
      {"svg content counts", "a<svg><text>b</text></svg>", "a b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(bodyText(c.html), c.text);
  }
}

TEST(HtmlText, Blockquotes) {
  struct Case {
    const char* name;
    std::string html;
    std::vector<std::string> texts;
  };
  const Case cases[] = {
      {"nested: outer first, texts overlap", "<blockquote>a<blockquote>b</blockquote></blockquote>",
       {"a b", "b"}},
      {"empty", "<blockquote></blockquote>", {""}},
      {"upper case tag", "<BLOCKQUOTE>x</BLOCKQUOTE>", {"x"}},
      {"closes an open p", "<p>a<blockquote>b</blockquote>c", {"b"}},
      {"unclosed takes the rest", "<blockquote>a<div>b", {"a b"}},
      {"damaged attributes", "<blockquote type=3D\"cite\" style=3D\"margin:0\">q</blockquote>",
       {"q"}},
      {"isindex alone", "<blockquote><isindex></blockquote>",
       {"self is a searchable index. Enter search keywords:"}},
      {"isindex prompt", "<blockquote><isindex prompt=\"Find:\"></blockquote>", {"Find:"}},
      {"isindex ignored inside a form", "<form><blockquote><isindex></blockquote>", {""}},
      {"none", "<p>no quote</p>", {}},
      {"empty source", "", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto document = Document::parse(c.html);
    const Elements quotes = document->root().select("blockquote");
    std::vector<std::string> texts;
    for (size_t i = 0; i < quotes.size(); ++i) texts.push_back(quotes.get(i).text(true));
    EXPECT_EQ(texts, c.texts);
  }
  EXPECT_THROW(Document::parse("x")->root().select("div > p"), std::invalid_argument);
}

// Deep and broken markup must neither recurse nor grow without bound.
TEST(HtmlText, HostileMarkupParsesAndKeepsEveryText) {
  std::string html;
  for (int i = 0; i < 100000; ++i) html += "<blockquote>q";
  const auto document = Document::parse(html);
  EXPECT_EQ(document->root().select("blockquote").size(), 100000u);
  std::string misnested;
  for (int i = 0; i < 20000; ++i) misnested += "<b><i><div>x</b>";
  const std::string text = Document::parse(misnested)->root().text(true);
  EXPECT_EQ(std::count(text.begin(), text.end(), 'x'), 20000);
}

// Past the nesting limit an element is closed early to make room, even a table cell or row
// that its insertion mode still counts on. The end tags that would close it must then find
// nothing to pop, not empty the stack: what follows stays in the div around the table.
TEST(HtmlText, CellsClosedAtTheNestingLimitLeaveTheStackStanding) {
  const auto divs = [](int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += "<div>";
    return s;
  };
  struct Case {
    const char* name;
    std::string html;
    std::string text;
    size_t cells;
  };
  const Case cases[] = {
      {"the cell closed, then the table's end", divs(506) + "<table><tr><td><b>x</table><p>y",
       "x y", 1},
      {"the row closed, then the cell's, row's and table's ends",
       // The table stays open, since no row is left to close, so the paragraph is put before it.
       divs(507) + "<table><tr><td>a<b>x</td>y</tr>z</table><p>w", "w axyz", 1},
      {"the cell closed, then a new cell", divs(505) + "<table><tr><td><b>x<td>y</table><p>z",
       "x y z", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto document = Document::parse(c.html);
    EXPECT_EQ(document->root().select("body").get(0).text(true), c.text);
    EXPECT_EQ(document->root().select("td").size(), c.cells);
    const Elements paragraphs = document->root().select("p");
    ASSERT_EQ(paragraphs.size(), 1u);
    EXPECT_EQ(paragraphs.get(0).parent().tagName(), "div");
  }
}

}  // namespace
}  // namespace lumora::html
