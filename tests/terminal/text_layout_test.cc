// Text on the character grid: widths, wrapping and what reaches the screen.
#include <gtest/gtest.h>

#include <random>

#include "terminal/TextLayout.h"

namespace lumora::terminal {
namespace {

// The drawn part of each line.
std::vector<std::string> wrapped(std::string_view text, int width) {
  std::vector<std::string> out;
  const std::vector<LineSpan> lines = wrapLines(text, width);
  size_t expectedBegin = 0;
  for (const LineSpan& line : lines) {
    // Lines follow each other without gaps, and each fits.
    EXPECT_EQ(line.begin, expectedBegin) << text;
    EXPECT_LE(line.begin, line.contentEnd);
    EXPECT_LE(line.contentEnd, line.end);
    expectedBegin = line.end;
    const std::string_view content = text.substr(line.begin, line.contentEnd - line.begin);
    EXPECT_LE(displayWidth(content), std::max(width, 2)) << content;
    out.emplace_back(content);
  }
  EXPECT_EQ(lines.back().end, text.size());
  return out;
}

TEST(TextLayout, CharactersTakeTheirColumns) {
  struct Row {
    std::string text;
    size_t length;
    int width;
  };
  const Row rows[] = {
      {"a", 1, 1},
      {"é", 2, 1},                            // precomposed
      {"e\xCC\x81", 3, 1},                    // e and a combining acute: one character
      {"中", 3, 2},
      {"😀", 4, 2},
      {"👍🏽", 8, 4},                          // with its skin tone, a cell each
      {"\xCC\x81", 2, 1},                     // a mark alone gets a blank to sit on
      {"\x1b", 1, 1},                         // shown as U+FFFD
      {"\xff", 1, 1},                         // not UTF-8: U+FFFD
      {"a\xE2\x80\x8D\n", 4, 1},              // a joiner never swallows the line end
  };
  for (const Row& row : rows) {
    const Character c = characterAt(row.text, 0);
    EXPECT_EQ(c.length, row.length) << row.text;
    EXPECT_EQ(c.width, row.width) << row.text;
  }
  EXPECT_EQ(characterAt("\t", 0, 0).width, 4);
  EXPECT_EQ(characterAt("\t", 0, 6).width, 2);
  EXPECT_TRUE(characterAt("\r\n", 0).lineEnd);
  EXPECT_EQ(characterAt("\r\n", 0).length, 2u);
  EXPECT_EQ(displayWidth("ab中😀"), 6);
}

TEST(TextLayout, WrapsAtBlanksWideCharactersAndLineEnds) {
  struct Row {
    std::string text;
    int width;
    std::vector<std::string> lines;
  };
  const Row rows[] = {
      {"", 10, {""}},
      {"hello world foo", 11, {"hello world", "foo"}},  // the blank that overflows goes
      {"hello world", 8, {"hello ", "world"}},
      {"abcdefghij", 4, {"abcd", "efgh", "ij"}},      // a word wider than the line
      {"中文字符测试", 5, {"中文", "字符", "测试"}},
      {"ab 中文", 4, {"ab ", "中文"}},
      {"see 中文字符 now", 8, {"see 中文", "字符 now"}},
      {"😀😀😀", 4, {"😀😀", "😀"}},
      {"one\ntwo\n", 10, {"one", "two", ""}},
      {"a\r\nb\rc", 10, {"a", "b", "c"}},
      {"x\ty z", 6, {"x\ty ", "z"}},                 // the tab reaches column 4
      {"e\xCC\x81t\xC3\xA9", 2, {"e\xCC\x81t", "\xC3\xA9"}},
      {"wide", 0, {"wi", "de"}},                     // never narrower than two columns
  };
  for (const Row& row : rows) EXPECT_EQ(wrapped(row.text, row.width), row.lines) << row.text;
}

TEST(TextLayout, WrappingALongReplyKeepsEveryByte) {
  std::string text;
  for (int i = 0; i < 200; ++i) text += i % 7 == 0 ? "段落。\n" : "word 字 😀 ";
  for (int width : {2, 3, 17, 80}) {
    const auto lines = wrapped(text, width);
    EXPECT_GT(lines.size(), 1u);
  }
}

// A reply grows piece by piece, cut anywhere (inside a character, between CR and LF): the lines
// brought up to date at each step are the lines of the whole text.
TEST(TextLayout, ExtendingLinesGivesTheLinesOfTheWholeText) {
  const std::string pieces[] = {"word ", "中文", "\r", "\n", "e", "\xCC\x81", "😀", "\xE2\x80\x8D",
                                "\t", " ", "   ", "longwordlongword", "。"};
  for (unsigned seed = 1; seed <= 40; ++seed) {
    std::mt19937 random(seed);
    std::string whole;
    for (int i = 0; i < 300; ++i) whole += pieces[random() % std::size(pieces)];
    for (int width : {2, 5, 13, 40}) {
      std::vector<LineSpan> lines = wrapLines("", width);
      for (size_t size = 0; size < whole.size();) {
        size = std::min(whole.size(), size + 1 + random() % 9);
        const std::string_view prefix = std::string_view(whole).substr(0, size);
        extendLines(lines, prefix, width);
        const std::vector<LineSpan> expected = wrapLines(prefix, width);
        ASSERT_EQ(lines.size(), expected.size()) << "seed " << seed << " width " << width;
        for (size_t i = 0; i < lines.size(); ++i) {
          ASSERT_EQ(lines[i].begin, expected[i].begin) << "seed " << seed << " line " << i;
          ASSERT_EQ(lines[i].contentEnd, expected[i].contentEnd) << "seed " << seed;
          ASSERT_EQ(lines[i].end, expected[i].end) << "seed " << seed;
        }
      }
    }
  }
}

TEST(TextLayout, CellsAreSafeAndFit) {
  struct Row {
    std::string text;
    int maxColumns;
    std::wstring cells;
    int columns;
  };
  const Row rows[] = {
      {"a\x1b[2Jb", 10, L"a\uFFFD[2Jb", 6},  // no terminal command gets through
      {"\xC2\x9B" "31m", 10, L"\uFFFD31m", 4},   // nor the one-byte CSI
      {"bad\xff", 10, L"bad\uFFFD", 4},
      {"中中", 3, L"中", 2},                     // a wide character that would not fit
      {"a\tb", 10, L"a   b", 5},
      {"one\ntwo", 10, L"one", 3},
      {"\xCC\x81x", 10, L" \u0301x", 2},
  };
  for (const Row& row : rows) {
    int columns = -1;
    EXPECT_EQ(cells(row.text, row.maxColumns, &columns), row.cells) << row.text;
    EXPECT_EQ(columns, row.columns) << row.text;
  }
  EXPECT_EQ(truncated("Hello world", 8), "Hello w…");
  EXPECT_EQ(truncated("中文字符", 5), "中文…");
  EXPECT_EQ(truncated("short", 8), "short");
}

}  // namespace
}  // namespace lumora::terminal
