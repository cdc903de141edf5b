// The panel on a character grid: draws the panel's description and turns keys into the
// panel's operations. Everything it shows comes from the description; what it keeps itself is
// only how the terminal is being used: which control has the focus, the editor's cursor, an
// open picker's filter, how far the reply is scrolled, and a copy's note.
//
// Lives on the main executor's thread, like the panel.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lumora/panel/PanelDescription.h"
#include "terminal/Canvas.h"
#include "terminal/LineEditor.h"
#include "terminal/PickerList.h"

namespace lumora {
class MailExtensionView;
}

namespace lumora::terminal {

class PanelScreen {
 public:
  using Clock = std::chrono::steady_clock;

  struct Settings {
    // The model list's region, asked at every drawing.
    std::function<bool()> inChina;
    // The note shown after each copy: "Copied", or where the text went instead.
    std::function<std::string()> copyNote;
    Language language = Language::english;
  };

  PanelScreen(MailExtensionView& panel, Settings settings);

  enum class Outcome { stay, quit, interrupt };
  // Handles one key. Edits of the instruction are kept until commitEdits(), so that a burst of
  // typing (or a paste) is written once.
  Outcome handle(const Key& key);
  void commitEdits();

  void draw(Canvas& canvas, Clock::time_point now);
  // When the screen must be drawn again though nothing changed (a note running out).
  std::optional<Clock::time_point> nextChange() const { return noteUntil_; }

 private:
  enum class Focus { editor, conversations, models, generate };
  enum class Target { back, editor, conversations, models, generate, reading, button, entry, list };
  // Where a click lands: rows [top, bottom) and columns [from, to).
  struct Hit {
    int top, bottom, from, to;
    Target target;
    size_t index = 0;
  };

  PanelDescription describe() const;
  void syncEditor(const PanelDescription& d);
  Outcome handleInput(const PanelDescription& d, const Key& key);
  Outcome handlePicker(const PanelDescription& d, const Key& key);
  Outcome handleResult(const PanelDescription& d, const Key& key);
  void handleClick(const PanelDescription& d, const Key& key);
  void run(PanelOperation operation);
  void choose(const PanelDescription::Picker& picker, size_t entry);
  void moveFocus(int step);
  const PanelDescription::Picker* focusedPicker(const PanelDescription& d) const;
  void scroll(long lines);

  int drawHeader(Canvas& canvas, const PanelDescription& d);
  void drawInput(Canvas& canvas, const PanelDescription& d, int top);
  int drawField(Canvas& canvas, int row, int column, int width, const std::string& label,
                const PanelDescription::Picker& picker, Focus field);
  void drawPickerList(Canvas& canvas, const PanelDescription::Picker& picker, int anchorRow,
                      int anchorColumn);
  void drawResult(Canvas& canvas, const PanelDescription& d, int top);
  void drawKeys(Canvas& canvas, const PanelDescription& d);
  void updateOutput(const PanelDescription& d, int width);
  // A text of the screen's own in the panel's language.
  std::string word(std::string_view english) const;

  MailExtensionView& panel_;
  Settings settings_;
  std::vector<Hit> hits_;
  int cursorRow_ = -1;  // where the terminal's cursor goes, when a text is being typed
  int cursorColumn_ = 0;

  // The input page.
  Focus focus_ = Focus::editor;
  LineEditor editor_;
  std::string editorSynced_;  // the instruction as last read from or written to the panel
  bool editorDirty_ = false;  // edited since
  bool editorLoaded_ = false;
  PickerList picker_;         // the focused picker's list, when open
  int editorRows_ = 1;

  // The result page.
  bool onResult_ = false;
  std::string output_;       // the reply as drawn, kept in step with the panel's text
  ReplyText outputFrom_;
  std::vector<LineSpan> outputLines_;
  bool outputReplaced_ = true;  // not an extension of the text the lines were made for
  int outputWidth_ = 0;
  long outputTop_ = 0;
  bool followEnd_ = true;    // the view stays at the end while the reply grows
  int outputRows_ = 1;

  // After a copy.
  unsigned bounces_ = 0;
  std::string note_;
  std::optional<Clock::time_point> noteUntil_;
};

}  // namespace lumora::terminal
