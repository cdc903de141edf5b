// The terminal panel's screen drawn on a canvas in memory: its key hints in both languages.
#include <gtest/gtest.h>

#include <map>

#include "lumora/panel/Conversations.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/platform/Pasteboard.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"
#include "terminal/PanelScreen.h"
#include "terminal/TextLayout.h"

namespace lumora::terminal {
namespace {

using lumora::testing::FakeAnswer;
using lumora::testing::FakeTransport;
using lumora::testing::Gate;
using lumora::testing::sseRecord;

// Keeps each row as last written at its first column, which is how the hint bar is drawn.
class MemoryCanvas final : public Canvas {
 public:
  MemoryCanvas(int rows, int columns) : rows_(rows), columns_(columns) {}
  int rows() const override { return rows_; }
  int columns() const override { return columns_; }
  int write(int row, int column, std::string_view text, unsigned, int maxColumns) override {
    int used = 0;
    cells(text, std::min(maxColumns, columns_ - column), &used);
    if (column == 0) rowText_[row] = std::string(text);
    return used;
  }
  void placeCursor(int, int) override {}
  // The bottom row without the blanks that fill it out.
  std::string hintBar() const {
    auto it = rowText_.find(rows_ - 1);
    if (it == rowText_.end()) return {};
    std::string bar = it->second;
    bar.erase(bar.find_last_not_of(' ') + 1);
    return bar;
  }

 private:
  int rows_, columns_;
  std::map<int, std::string> rowText_;
};

class NoConversations final : public ConversationSource {
 public:
  std::vector<std::shared_ptr<CDConversation>> fetchConversations() override { return {}; }
  void save() override {}
};

class KeptDraft final : public DraftInserter {
 public:
  void insert(const std::string&) override {}
};

Key control(char letter) {
  Key key;
  key.kind = Key::Kind::control;
  key.letter = letter;
  return key;
}

Key press(Key::Kind kind) {
  Key key;
  key.kind = kind;
  return key;
}

// A panel on a new mail with its screen, in one language.
class Screen {
 public:
  explicit Screen(Language language) : shared_(dir_ / "shared.json"), own_(dir_ / "own.json") {
    shared_.set("apiKey", "sk-test-0000");
    panel_ = MailExtensionView::make({
        .executor = executor_,
        .session = session_,
        .ownDefaults = own_,
        .environment = ChatEnvironment{shared_, transport_},
        .pasteboard = pasteboard_,
        .conversations = conversations_,
        .defaultModel = [] { return std::string("gpt-4o"); },
        .quotedTexts = [](std::string_view) { return std::vector<std::string>{}; },
        .inserter = &draft_,  // so that a written reply offers Insert
    });
    panel_->panelDidAppear();
    screen_.emplace(*panel_, PanelScreen::Settings{.inChina = [] { return false; },
                                                   .copyNote = {},
                                                   .language = language});
  }
  ~Screen() {
    if (gate_) gate_->open();
  }

  void keys(const std::vector<Key>& keys) {
    for (const Key& key : keys) screen_->handle(key);
    screen_->commitEdits();
    executor_.drain();
  }

  // A reply under way: its first words in, the rest held back.
  void generating() {
    gate_ = std::make_shared<Gate>();
    transport_.enqueue(FakeAnswer{.pieces = {sseRecord("Dear Ann,")}, .bodyGate = gate_});
    keys({control('g')});
    gate_->awaitWaiter();
    ASSERT_TRUE(executor_.runUntil([&] { return !panel_->output().empty(); },
                                   std::chrono::seconds(5)));
  }

  void finished() {
    generating();
    gate_->open();
    ASSERT_TRUE(
        executor_.runUntil([&] { return panel_->latestRunEnded(); }, std::chrono::seconds(5)));
  }

  std::string hintBar(int columns) {
    MemoryCanvas canvas(24, columns);
    screen_->draw(canvas, PanelScreen::Clock::now());
    return canvas.hintBar();
  }

 private:
  lumora::testing::TempDir dir_;
  DefaultsStore shared_;
  DefaultsStore own_;
  MainExecutor executor_;
  FakeTransport transport_;
  MemoryPasteboard pasteboard_;
  NoConversations conversations_;
  KeptDraft draft_;
  SimpleComposeSession session_;
  std::shared_ptr<MailExtensionView> panel_;
  std::optional<PanelScreen> screen_;
  std::shared_ptr<Gate> gate_;
};

// The hints of a bar: each begins after two blanks.
size_t hintCount(std::string_view bar) {
  size_t count = 0;
  for (size_t at = bar.find("  "); at != std::string_view::npos; at = bar.find("  ", at + 2))
    ++count;
  return count;
}

// The bottom row in every state of the page, in both languages. Wide, the English bar is the
// one scripts and users have always seen. At 80 columns, in either language, it fits whole:
// hints are left out rather than cut, the keys that leave, choose or act on the focused control
// stay, and the translation leaves out no more than the English does.
TEST(PanelScreen, TheHintBarFitsIn80ColumnsInEveryLanguage) {
  enum class Run { none, generating, finished };
  struct Case {
    const char* state;
    std::vector<Key> keys;
    Run run;
    std::string english;  // wide
    // Hints that always stay: a key and its English word.
    std::vector<std::pair<std::string, std::string>> kept;
  };
  const Key tab = press(Key::Kind::tab);
  const Key enter = press(Key::Kind::enter);
  const Key reading = control('r');
  const Case cases[] = {
      {"the editor",
       {},
       Run::none,
       "  Tab next field  Ctrl-G Generate  Ctrl-R Read the whole message  Ctrl-Q quit",
       {{"Ctrl-Q", "quit"}}},
      {"the editor, reading the whole message",
       {reading},
       Run::none,
       "  Tab next field  Ctrl-G Generate  Ctrl-R Read only the quoted passages  Ctrl-Q quit",
       {{"Ctrl-Q", "quit"}}},
      {"the conversation picker",
       {reading, tab},
       Run::none,
       "  Enter open  type to filter  Tab next field  Ctrl-G Generate  Ctrl-R Read only the "
       "quoted passages  Ctrl-Q quit",
       {{"Enter", "open"}, {"Ctrl-Q", "quit"}}},
      {"the model picker",
       {tab, tab},
       Run::none,
       "  Enter open  type to filter  Tab next field  Ctrl-G Generate  Ctrl-R Read the whole "
       "message  Ctrl-Q quit",
       {{"Enter", "open"}, {"Ctrl-Q", "quit"}}},
      {"Generate",
       {reading, tab, tab, tab},
       Run::none,
       "  Enter Generate  Tab next field  Ctrl-G Generate  Ctrl-R Read only the quoted passages  "
       "q quit",
       {{"Enter", "Generate"}, {"q", "quit"}}},
      {"an open picker",
       {tab, enter},
       Run::none,
       "  ↑↓ move  Enter choose  Esc close  type to filter",
       {{"Enter", "choose"}, {"Esc", "close"}}},
      {"a reply being written",
       {},
       Run::generating,
       "  ↑↓ PgUp PgDn scroll  c Copy  s Stop  b Back  q quit",
       {{"c", "Copy"}, {"s", "Stop"}, {"q", "quit"}}},
      {"a reply written",
       {},
       Run::finished,
       "  ↑↓ PgUp PgDn scroll  c Copy  i Insert  r Regenerate  b Back  q quit",
       {{"c", "Copy"}, {"i", "Insert"}, {"r", "Regenerate"}, {"q", "quit"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.state);
    size_t englishHints = 0;
    for (const Language language : {Language::english, Language::simplifiedChinese}) {
      SCOPED_TRACE(language == Language::english ? "English" : "Chinese");
      Screen screen(language);
      screen.keys(c.keys);
      if (c.run == Run::generating) screen.generating();
      if (c.run == Run::finished) screen.finished();
      const std::string wide = screen.hintBar(200);
      const std::string bar = screen.hintBar(80);
      if (language == Language::english) {
        EXPECT_EQ(wide, c.english);
        // What fits is drawn as it always was.
        if (displayWidth(c.english) <= 80) {
          EXPECT_EQ(bar, c.english);
        }
        englishHints = hintCount(bar);
      } else {
        EXPECT_GE(hintCount(bar), englishHints) << bar;
      }
      EXPECT_LE(displayWidth(bar), 80) << bar;
      EXPECT_EQ(bar.find("…"), std::string::npos) << "a hint cut short: " << bar;
      for (const auto& [key, word] : c.kept)
        EXPECT_NE(bar.find("  " + key + " " + localized(word, language)), std::string::npos)
            << bar;
    }
  }
}

}  // namespace
}  // namespace lumora::terminal
