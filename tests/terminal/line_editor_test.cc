// The instruction editor: whole characters over UTF-8, lines, and the view that follows the
// cursor.
#include <gtest/gtest.h>

#include "terminal/LineEditor.h"

namespace lumora::terminal {
namespace {

// The text with "|" where the cursor is.
std::string shown(const LineEditor& editor) {
  const std::string& text = editor.text();
  std::string out(text, 0, editor.cursor());
  out += '|';
  out.append(text, editor.cursor());
  return out;
}

TEST(LineEditor, EditsWholeCharacters) {
  LineEditor editor;
  for (const char* piece : {"a", "e\xCC\x81", "中", "👍🏽", "\n", "b"}) editor.insert(piece);
  EXPECT_EQ(shown(editor), "ae\xCC\x81中👍🏽\nb|");
  editor.backspace();
  editor.backspace();  // the line end
  EXPECT_EQ(shown(editor), "ae\xCC\x81中👍🏽|");
  editor.backspace();  // the emoji with its skin tone at once
  EXPECT_EQ(shown(editor), "ae\xCC\x81中|");
  editor.left();
  editor.left();  // over 中, then over e and its accent
  EXPECT_EQ(shown(editor), "a|e\xCC\x81中");
  editor.deleteForward();
  EXPECT_EQ(shown(editor), "a|中");
  editor.right();
  editor.right();  // stops at the end
  EXPECT_EQ(shown(editor), "a中|");

  // A letter typed before a combining accent takes it: the cursor goes past both.
  editor.setText("\xCC\x81x");
  editor.lineStart();
  editor.insert("e");
  EXPECT_EQ(shown(editor), "e\xCC\x81|x");

  // CR LF is one line end.
  editor.setText("one\r\ntwo");
  editor.lineStart();
  editor.backspace();
  EXPECT_EQ(shown(editor), "one|two");
}

TEST(LineEditor, DeletesWordsAndLineParts) {
  struct Row {
    std::string text;
    size_t cursor;  // moved left this many characters from the end
    void (LineEditor::*operation)();
    std::string expected;
  };
  const Row rows[] = {
      {"reply politely  ", 0, &LineEditor::deleteWordBackward, "reply |"},
      {"回复 邮件", 0, &LineEditor::deleteWordBackward, "回复 |"},
      {"line\n", 0, &LineEditor::deleteWordBackward, "line|"},
      {"first\nsecond", 3, &LineEditor::deleteToLineEnd, "first\nsec|"},
      {"first\nsecond", 7, &LineEditor::deleteToLineEnd, "first|second"},
      {"first\nsecond", 3, &LineEditor::deleteToLineStart, "first\n|ond"},
      {"first\nsecond", 0, &LineEditor::lineStart, "first\n|second"},
  };
  for (const Row& row : rows) {
    LineEditor editor;
    editor.setText(row.text);
    for (size_t i = 0; i < row.cursor; ++i) editor.left();
    (editor.*row.operation)();
    EXPECT_EQ(shown(editor), row.expected) << row.text;
  }
}

TEST(LineEditor, MovesByDisplayLinesKeepingTheColumn) {
  LineEditor editor;
  // At width 6 the first line wraps after its blank: "abcd " "ef", then "中文字", then "xy".
  editor.setText("abcd ef\n中文字\nxy");
  editor.layout(6, 10);
  editor.moveLines(-1);  // column 2 of the wide line: after one wide character
  EXPECT_EQ(shown(editor), "abcd ef\n中|文字\nxy");
  editor.right();
  editor.moveLines(1);  // column 4 wanted, "xy" is shorter
  EXPECT_EQ(shown(editor), "abcd ef\n中文字\nxy|");
  editor.moveLines(-1);  // the wanted column is kept
  EXPECT_EQ(shown(editor), "abcd ef\n中文|字\nxy");
  editor.moveLines(-2);
  EXPECT_EQ(shown(editor), "abcd| ef\n中文字\nxy");
  editor.left();
  editor.moveLines(2);  // column 3 falls inside 文: the cursor stays before it
  EXPECT_EQ(shown(editor), "abcd ef\n中|文字\nxy");
  editor.moveLines(-5);
  EXPECT_EQ(editor.cursor(), 0u);
  editor.moveLines(9);
  EXPECT_EQ(editor.cursor(), editor.text().size());
}

TEST(LineEditor, TheViewFollowsTheCursor) {
  LineEditor editor;
  std::string text;
  for (int i = 0; i < 10; ++i) text += "line " + std::to_string(i) + "\n";
  editor.setText(text);
  LineEditor::View view = editor.layout(20, 4);
  EXPECT_EQ(view.lines.size(), 11u);
  EXPECT_EQ(view.top, 7u);  // the cursor on the last, empty line
  EXPECT_EQ(view.cursorRow, 3);
  EXPECT_EQ(view.cursorColumn, 0);
  editor.moveLines(-9);
  view = editor.layout(20, 4);
  EXPECT_EQ(view.top, 1u);
  EXPECT_EQ(view.cursorRow, 0);

  // A cursor where a wrapped line ends stands at the start of the next line.
  editor.setText("中文字符");
  editor.left();
  editor.left();
  view = editor.layout(5, 3);
  EXPECT_EQ(view.cursorRow, 1);
  EXPECT_EQ(view.cursorColumn, 0);
}

}  // namespace
}  // namespace lumora::terminal
