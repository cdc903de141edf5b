#include "terminal/PanelScreen.h"

#include <algorithm>

#include "lumora/panel/MailExtensionView.h"

namespace lumora::terminal {
namespace {

using Kind = Key::Kind;
using Picker = PanelDescription::Picker;

constexpr auto kNoteTime = std::chrono::seconds(2);
// The smallest window the panel is drawn in.
constexpr int kMinRows = 8;
constexpr int kMinColumns = 30;

// The panel's named symbols as characters.
std::string_view glyph(std::string_view symbol) {
  if (symbol == "chevron.left") return "←";
  if (symbol == "wand.and.stars") return "✦";
  if (symbol == "rectangle.portrait.on.rectangle.portrait") return "⧉";
  if (symbol == "stop") return "■";
  if (symbol == "arrow.clockwise") return "↻";
  if (symbol == "text.insert") return "↧";
  return "";
}

// The key of a result page button.
char buttonKey(PanelOperation operation) {
  switch (operation) {
    case PanelOperation::copyOutput: return 'c';
    case PanelOperation::stopGeneration: return 's';
    case PanelOperation::startGeneration: return 'r';
    case PanelOperation::insertOutput: return 'i';
    default: return 0;
  }
}

std::string repeated(std::string_view piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

// `text` followed by blanks up to `width` columns (cut when wider).
std::string padded(std::string_view text, int width) {
  std::string out = truncated(text, width);
  out.append(static_cast<size_t>(std::max(0, width - displayWidth(out))), ' ');
  return out;
}

bool isText(const Key& key, char c) {
  return key.kind == Kind::text && key.text.size() == 1 && key.text[0] == c;
}

bool isGenerateKey(const Key& key) {
  return key.kind == Kind::generate || (key.kind == Kind::control && key.letter == 'g');
}

// Switches what the model reads: the quoted passages or the whole message.
bool isReadingKey(const Key& key) { return key.kind == Kind::control && key.letter == 'r'; }

}  // namespace

PanelScreen::PanelScreen(MailExtensionView& panel, Settings settings)
    : panel_(panel), settings_(std::move(settings)), bounces_(panel.copyBounces()) {}

PanelDescription PanelScreen::describe() const {
  return PanelDescription::describe(panel_, settings_.inChina && settings_.inChina(),
                                    settings_.language);
}

// The editor shows the panel's instruction, except while it holds edits not yet written.
void PanelScreen::syncEditor(const PanelDescription& d) {
  if (d.page != PanelDescription::Page::input || editorDirty_) return;
  if (editorLoaded_ && d.instruction == editorSynced_) return;
  editor_.setText(d.instruction);
  editorSynced_ = d.instruction;
  editorLoaded_ = true;
}

void PanelScreen::commitEdits() {
  if (!editorDirty_) return;
  editorDirty_ = false;
  editorSynced_ = editor_.text();
  panel_.setInstruction(editor_.text());
}

void PanelScreen::run(PanelOperation operation) {
  switch (operation) {
    case PanelOperation::startGeneration:
      commitEdits();
      picker_.close();
      panel_.startGeneration();
      break;
    case PanelOperation::stopGeneration: panel_.stopGeneration(); break;
    case PanelOperation::copyOutput: panel_.copyOutput(); break;
    case PanelOperation::leaveResult: panel_.leaveResult(); break;
    case PanelOperation::switchReading: panel_.switchReading(); break;
    case PanelOperation::insertOutput: panel_.insertOutput(); break;
    default: break;
  }
}

void PanelScreen::choose(const Picker& picker, size_t entry) {
  if (entry >= picker.entries.size() || picker.entries[entry].divider) return;
  // Edits belong to what the editor showed: written before the choice can change that.
  commitEdits();
  const std::string& value = picker.entries[entry].value;
  if (picker.operation == PanelOperation::selectConversation) {
    panel_.setSelectedConversationId(value);
  } else {
    panel_.setPickedModel(value);
  }
}

const Picker* PanelScreen::focusedPicker(const PanelDescription& d) const {
  if (focus_ == Focus::conversations) return &d.conversationPicker;
  if (focus_ == Focus::models) return &d.modelPicker;
  return nullptr;
}

void PanelScreen::moveFocus(int step) {
  constexpr Focus kOrder[] = {Focus::editor, Focus::conversations, Focus::models,
                              Focus::generate};
  const int at = static_cast<int>(std::find(std::begin(kOrder), std::end(kOrder), focus_) -
                                  std::begin(kOrder));
  focus_ = kOrder[(at + step + 4) % 4];
  picker_.close();
}

void PanelScreen::scroll(long lines) {
  const long maxTop = std::max(0L, static_cast<long>(outputLines_.size()) - outputRows_);
  outputTop_ = std::clamp(outputTop_ + lines, 0L, maxTop);
  followEnd_ = outputTop_ >= maxTop;
}

PanelScreen::Outcome PanelScreen::handle(const Key& key) {
  if (key.kind == Kind::control && key.letter == 'q') return Outcome::quit;
  if (key.kind == Kind::control && key.letter == 'c') return Outcome::interrupt;
  if (key.kind == Kind::resize) return Outcome::stay;
  const PanelDescription d = describe();
  syncEditor(d);
  if (key.kind == Kind::click) {
    handleClick(d, key);
    return Outcome::stay;
  }
  return d.page == PanelDescription::Page::input ? handleInput(d, key) : handleResult(d, key);
}

PanelScreen::Outcome PanelScreen::handleInput(const PanelDescription& d, const Key& key) {
  if (picker_.isOpen()) return handlePicker(d, key);
  if (isGenerateKey(key)) {
    run(d.generate.operation);
    return Outcome::stay;
  }
  if (isReadingKey(key)) {
    run(d.reading.toggle.operation);
    return Outcome::stay;
  }
  if (key.kind == Kind::tab || key.kind == Kind::backTab) {
    moveFocus(key.kind == Kind::tab ? 1 : -1);
    return Outcome::stay;
  }
  if (focus_ == Focus::editor) {
    bool edit = true;
    switch (key.kind) {
      case Kind::text: editor_.insert(key.text); break;
      case Kind::enter: editor_.insert("\n"); break;
      case Kind::backspace: editor_.backspace(); break;
      case Kind::deleteForward: editor_.deleteForward(); break;
      case Kind::control:
        edit = key.letter == 'k' || key.letter == 'u' || key.letter == 'w';
        if (key.letter == 'k') editor_.deleteToLineEnd();
        if (key.letter == 'u') editor_.deleteToLineStart();
        if (key.letter == 'w') editor_.deleteWordBackward();
        if (key.letter == 'a') editor_.lineStart();
        if (key.letter == 'e') editor_.lineEnd();
        break;
      default:
        edit = false;
        if (key.kind == Kind::left) editor_.left();
        if (key.kind == Kind::right) editor_.right();
        if (key.kind == Kind::up) editor_.moveLines(-1);
        if (key.kind == Kind::down) editor_.moveLines(1);
        if (key.kind == Kind::wheelUp) editor_.moveLines(-3);
        if (key.kind == Kind::wheelDown) editor_.moveLines(3);
        if (key.kind == Kind::pageUp) editor_.moveLines(-editorRows_);
        if (key.kind == Kind::pageDown) editor_.moveLines(editorRows_);
        if (key.kind == Kind::home) editor_.lineStart();
        if (key.kind == Kind::end) editor_.lineEnd();
        break;
    }
    if (edit) editorDirty_ = true;
    return Outcome::stay;
  }
  if (key.kind == Kind::left || key.kind == Kind::right) {
    moveFocus(key.kind == Kind::right ? 1 : -1);
    return Outcome::stay;
  }
  if (focus_ == Focus::generate) {
    if (key.kind == Kind::enter || isText(key, ' ')) run(d.generate.operation);
    return isText(key, 'q') ? Outcome::quit : Outcome::stay;
  }
  // A picker has the focus: opening keys open it, and typing opens it filtered.
  const Picker* picker = focusedPicker(d);
  if (key.kind == Kind::enter || key.kind == Kind::down || isText(key, ' ')) {
    picker_.open(picker->entries, picker->selection);
  } else if (key.kind == Kind::text) {
    picker_.open(picker->entries, picker->selection);
    picker_.type(picker->entries, key.text);
  }
  return Outcome::stay;
}

PanelScreen::Outcome PanelScreen::handlePicker(const PanelDescription& d, const Key& key) {
  const Picker* picker = focusedPicker(d);
  if (!picker) {
    picker_.close();
    return Outcome::stay;
  }
  const PickerEntries& entries = picker->entries;
  switch (key.kind) {
    case Kind::escape: picker_.close(); break;
    case Kind::enter:
      if (const auto entry = picker_.highlighted(entries)) choose(*picker, *entry);
      picker_.close();
      break;
    case Kind::up: picker_.move(entries, -1); break;
    case Kind::down: picker_.move(entries, 1); break;
    case Kind::wheelUp: picker_.move(entries, -3); break;
    case Kind::wheelDown: picker_.move(entries, 3); break;
    case Kind::pageUp: picker_.move(entries, -10); break;
    case Kind::pageDown: picker_.move(entries, 10); break;
    case Kind::home: picker_.move(entries, -static_cast<int>(entries.size())); break;
    case Kind::end: picker_.move(entries, static_cast<int>(entries.size())); break;
    case Kind::backspace: picker_.erase(entries); break;
    case Kind::text: picker_.type(entries, key.text); break;
    case Kind::tab: moveFocus(1); break;
    case Kind::backTab: moveFocus(-1); break;
    default:
      if (isGenerateKey(key)) run(d.generate.operation);
      break;
  }
  return Outcome::stay;
}

PanelScreen::Outcome PanelScreen::handleResult(const PanelDescription& d, const Key& key) {
  if (isText(key, 'q')) return Outcome::quit;
  for (const auto& button : d.buttons) {
    const bool regenerate =
        button.operation == PanelOperation::startGeneration && isGenerateKey(key);
    if (regenerate || isText(key, buttonKey(button.operation))) {
      run(button.operation);
      return Outcome::stay;
    }
  }
  const bool back = isText(key, 'b') || key.kind == Kind::escape ||
                    key.kind == Kind::backspace || key.kind == Kind::left;
  if (back && d.header.leading == PanelOperation::leaveResult) {
    run(PanelOperation::leaveResult);
    return Outcome::stay;
  }
  const long page = std::max(1, outputRows_ - 1);
  const long everything = static_cast<long>(outputLines_.size()) + 1;
  switch (key.kind) {
    case Kind::up: scroll(-1); break;
    case Kind::down: scroll(1); break;
    case Kind::wheelUp: scroll(-3); break;
    case Kind::wheelDown: scroll(3); break;
    case Kind::pageUp: scroll(-page); break;
    case Kind::pageDown: scroll(page); break;
    case Kind::home: scroll(-everything); break;
    case Kind::end: scroll(everything); break;
    default:
      if (isText(key, ' ')) scroll(page);
      break;
  }
  return Outcome::stay;
}

void PanelScreen::handleClick(const PanelDescription& d, const Key& key) {
  // What was drawn last lies on top.
  const auto hit = std::find_if(hits_.rbegin(), hits_.rend(), [&](const Hit& h) {
    return key.row >= h.top && key.row < h.bottom && key.column >= h.from && key.column < h.to;
  });
  if (hit == hits_.rend()) {
    picker_.close();
    return;
  }
  const Target target = hit->target;
  if (target == Target::list) return;
  if (target != Target::entry) picker_.close();
  switch (target) {
    case Target::back: run(d.header.leading); break;
    case Target::editor: focus_ = Focus::editor; break;
    case Target::conversations:
    case Target::models: {
      const Focus field = target == Target::models ? Focus::models : Focus::conversations;
      const bool wasOpen = focus_ == field && picker_.isOpen();
      focus_ = field;
      if (!wasOpen) picker_.open(focusedPicker(d)->entries, focusedPicker(d)->selection);
      break;
    }
    case Target::generate: run(d.generate.operation); break;
    case Target::reading: run(d.reading.toggle.operation); break;
    case Target::button:
      if (hit->index < d.buttons.size()) run(d.buttons[hit->index].operation);
      break;
    case Target::entry:
      if (const Picker* picker = focusedPicker(d)) choose(*picker, hit->index);
      picker_.close();
      break;
    case Target::list: break;
  }
}

void PanelScreen::draw(Canvas& canvas, Clock::time_point now) {
  hits_.clear();
  cursorRow_ = -1;
  const PanelDescription d = describe();
  syncEditor(d);
  if (d.copyBounces != bounces_) {
    bounces_ = d.copyBounces;
    note_ = settings_.copyNote ? settings_.copyNote() : word("Copied");
    noteUntil_ = now + kNoteTime;
  }
  if (noteUntil_ && now >= *noteUntil_) {
    noteUntil_.reset();
    note_.clear();
  }
  const bool result = d.page == PanelDescription::Page::result;
  if (result != onResult_) {
    onResult_ = result;
    picker_.close();
    followEnd_ = true;
    outputTop_ = 0;
  }

  if (canvas.rows() < kMinRows || canvas.columns() < kMinColumns) {
    canvas.write(0, 0, word("Lumora: too small"), kBold);
    canvas.placeCursor(-1, 0);
    return;
  }
  const int top = drawHeader(canvas, d);
  if (result) {
    drawResult(canvas, d, top);
  } else {
    drawInput(canvas, d, top);
  }
  drawKeys(canvas, d);
  canvas.placeCursor(cursorRow_, cursorColumn_);
}

// The header and the error line; returns the first row below them.
int PanelScreen::drawHeader(Canvas& canvas, const PanelDescription& d) {
  int column = 1;
  if (d.header.leading == PanelOperation::leaveResult) {
    column += canvas.write(0, column, glyph(d.header.symbol), kAccent | kBold);
    hits_.push_back({0, 1, 0, column + 1, Target::back});
  } else {
    column += canvas.write(0, column, glyph(d.header.symbol), kAccent);
  }
  canvas.write(0, column + 1, d.header.title, kBold);
  int row = 1;
  if (d.errorLine) {
    // At most three lines of it, so that the page keeps its room.
    constexpr size_t kMostLines = 3;
    const std::string& text = *d.errorLine;
    const auto lines = wrapLines(text, canvas.columns() - 2);
    for (size_t i = 0; i < lines.size() && i < kMostLines; ++i) {
      std::string_view line =
          std::string_view(text).substr(lines[i].begin, lines[i].contentEnd - lines[i].begin);
      std::string shown(line);
      if (i + 1 == kMostLines && lines.size() > kMostLines)
        shown = truncated(shown + " …", canvas.columns() - 2);
      canvas.write(row++, 1, shown, kError);
    }
  }
  return row;
}

void PanelScreen::drawInput(Canvas& canvas, const PanelDescription& d, int top) {
  const int rows = canvas.rows();
  const int columns = canvas.columns();
  // What the model reads: on one row, or two when the line is long (a sender's long name).
  const std::string& readingText = d.reading.line;
  const auto readingLines = wrapLines(readingText, columns - 2);
  const int pickerRow = rows - 3;
  const bool roomForTwo = pickerRow - 3 >= top + 2;  // the editor keeps a row of text
  const int readingRows = readingLines.size() > 1 && roomForTwo ? 2 : 1;
  const int generateRow = rows - 2;
  const int readingRow = pickerRow - readingRows;
  const int boxBottom = std::max(top + 2, readingRow - 1);

  // The instruction editor in its outline.
  const bool editing = focus_ == Focus::editor && !picker_.isOpen();
  const unsigned border = editing ? kAccent | kBold : kDim;
  std::string title = " ";  // appended, as the field's box below
  title.append(word("Instruction")).append(" ");
  canvas.write(top, 0,
               "╭─" + title + repeated("─", columns - 3 - displayWidth(title)) + "╮", border);
  for (int row = top + 1; row < boxBottom; ++row) {
    canvas.write(row, 0, "│", border);
    canvas.write(row, columns - 1, "│", border);
  }
  canvas.write(boxBottom, 0, "╰" + repeated("─", columns - 2) + "╯", border);
  const int width = columns - 4;
  editorRows_ = std::max(1, boxBottom - top - 1);
  const LineEditor::View& view = editor_.layout(width, editorRows_);
  const std::string_view text = editor_.text();
  for (int i = 0; i < editorRows_ && view.top + static_cast<size_t>(i) < view.lines.size(); ++i) {
    const LineSpan& line = view.lines[view.top + static_cast<size_t>(i)];
    canvas.write(top + 1 + i, 2, text.substr(line.begin, line.contentEnd - line.begin), kPlain,
                 width);
  }
  // Marks on the outline where the text goes on beyond the box.
  if (view.top > 0) canvas.write(top, columns - 3, "▲", border);
  if (view.top + static_cast<size_t>(editorRows_) < view.lines.size())
    canvas.write(boxBottom, columns - 3, "▼", border);
  hits_.push_back({top, boxBottom + 1, 0, columns, Target::editor});
  if (editing) {
    cursorRow_ = top + 1 + view.cursorRow;
    cursorColumn_ = 2 + view.cursorColumn;
  }

  // A click on the reading line switches the reading, as Ctrl-R does.
  for (int i = 0; i < readingRows && i < static_cast<int>(readingLines.size()); ++i) {
    const auto& line = readingLines[static_cast<size_t>(i)];
    std::string shown(readingText.substr(line.begin, line.contentEnd - line.begin));
    if (i + 1 == readingRows && readingLines.size() > static_cast<size_t>(readingRows))
      shown = truncated(shown + " …", columns - 2);
    canvas.write(readingRow + i, 1, shown, kDim, columns - 2);
  }
  hits_.push_back({readingRow, readingRow + readingRows, 0, columns, Target::reading});

  // The two pickers side by side, then Generate.
  const int half = (columns - 2) / 2;
  const int conversationsAt = 1;
  const int modelsAt = 1 + half + 1;
  drawField(canvas, pickerRow, conversationsAt, half - 1, word("Conversation"),
            d.conversationPicker, Focus::conversations);
  drawField(canvas, pickerRow, modelsAt, columns - modelsAt - 1, word("Model"), d.modelPicker,
            Focus::models);

  const std::string generate = "[  " + d.generate.label + "  ]";
  const int generateWidth = displayWidth(generate);
  const int generateAt = std::max(0, (columns - generateWidth) / 2);
  canvas.write(generateRow, generateAt, generate,
               focus_ == Focus::generate ? kReverse | kBold : kAccent | kBold);
  hits_.push_back({generateRow, generateRow + 1, generateAt, generateAt + generateWidth,
                   Target::generate});

  if (picker_.isOpen()) {
    if (const Picker* picker = focusedPicker(d))
      drawPickerList(canvas, *picker, pickerRow,
                     focus_ == Focus::models ? modelsAt : conversationsAt);
  }
}

// One picker as a field of the picker row: its label, then the selected entry's label (blank
// when the selection matches no entry). Returns the columns used.
int PanelScreen::drawField(Canvas& canvas, int row, int column, int width,
                           const std::string& label, const Picker& picker, Focus field) {
  std::string shown;
  for (const auto& entry : picker.entries)
    if (!entry.divider && entry.value == picker.selection) {
      shown = entry.label;
      break;
    }
  const int labelWidth = canvas.write(row, column, label, kDim, width / 3);
  const int at = column + labelWidth + 1;
  const int fieldWidth = std::max(4, width - labelWidth - 1);
  const bool focused = focus_ == field;
  // Appended rather than joined with `+`, which GCC 12 at -O3 takes for an overlapping copy.
  std::string box = "[";
  box.append(padded(shown, fieldWidth - 4)).append(" ▾]");
  canvas.write(row, at, box, focused ? kReverse | kBold : kAccent, fieldWidth);
  hits_.push_back({row, row + 1, column, at + fieldWidth,
                   field == Focus::models ? Target::models : Target::conversations});
  return labelWidth + 1 + fieldWidth;
}

// The open picker: a box over the editor, above its field, with the filter on its first line.
void PanelScreen::drawPickerList(Canvas& canvas, const Picker& picker, int anchorRow,
                                 int anchorColumn) {
  const PickerEntries& entries = picker.entries;
  const std::vector<size_t> shown = filterEntries(entries, picker_.filter());
  const int columns = canvas.columns();
  int widest = 20;
  for (const auto& entry : entries) widest = std::max(widest, displayWidth(entry.label));
  const int width = std::min(columns - 2, widest + 6);
  const int column = std::clamp(anchorColumn, 1, columns - width - 1);
  const int listRows =
      std::max(1, std::min(static_cast<int>(std::max<size_t>(shown.size(), 1)), anchorRow - 4));
  const int top = anchorRow - listRows - 3;
  const int inner = width - 4;

  // A click inside the box but on no entry leaves the list open.
  hits_.push_back({top, top + listRows + 3, column, column + width, Target::list});
  canvas.write(top, column, "╭" + repeated("─", width - 2) + "╮", kAccent);
  canvas.write(top + 1, column, "│ ", kAccent);
  if (picker_.filter().empty()) {
    canvas.write(top + 1, column + 2, padded(word("type to filter"), inner), kDim);
  } else {
    canvas.write(top + 1, column + 2, padded("› " + picker_.filter(), inner), kBold);
  }
  canvas.write(top + 1, column + width - 2, " │", kAccent);
  cursorRow_ = top + 1;
  cursorColumn_ =
      column + 2 + (picker_.filter().empty() ? 0 : std::min(inner, displayWidth("› " + picker_.filter())));

  const std::optional<size_t> highlight = picker_.highlighted(entries);
  long highlightRow = 0;
  for (size_t i = 0; i < shown.size(); ++i)
    if (highlight && shown[i] == *highlight) highlightRow = static_cast<long>(i);
  const long first = std::max(0L, highlightRow - listRows + 1);
  for (int i = 0; i < listRows; ++i) {
    const int row = top + 2 + i;
    canvas.write(row, column, "│ ", kAccent);
    canvas.write(row, column + width - 2, " │", kAccent);
    const size_t at = static_cast<size_t>(first + i);
    if (at >= shown.size()) {
      canvas.write(row, column + 2, padded(shown.empty() && i == 0 ? word("no match") : "", inner),
                   kDim);
      continue;
    }
    const auto& entry = entries[shown[at]];
    if (entry.divider) {
      canvas.write(row, column + 2, repeated("─", inner), kDim);
      continue;
    }
    const bool selected = entry.value == picker.selection;
    const bool lit = highlight && *highlight == shown[at];
    canvas.write(row, column + 2, padded((selected ? "✓ " : "  ") + entry.label, inner),
                 lit ? kReverse : kPlain);
    hits_.push_back({row, row + 1, column + 2, column + 2 + inner, Target::entry, shown[at]});
  }
  canvas.write(top + 2 + listRows, column, "╰" + repeated("─", width - 2) + "╯", kAccent);
}

// The panel's text as drawn: copied from the panel, and wrapped again, only where it grew.
void PanelScreen::updateOutput(const PanelDescription& d, int width) {
  if (d.output.extends(outputFrom_)) {
    d.output.appendSuffix(outputFrom_.size(), output_);
  } else {
    output_ = d.output.str();
    outputReplaced_ = true;
  }
  outputFrom_ = d.output;
  if (outputReplaced_ || width != outputWidth_) {
    outputLines_ = wrapLines(output_, width);
  } else {
    extendLines(outputLines_, output_, width);
  }
  outputWidth_ = width;
  outputReplaced_ = false;
}

void PanelScreen::drawResult(Canvas& canvas, const PanelDescription& d, int top) {
  const int rows = canvas.rows();
  const int columns = canvas.columns();
  const int buttonRow = rows - 2;
  const int width = columns - 3;
  updateOutput(d, width);
  outputRows_ = std::max(1, buttonRow - top);
  const long total = static_cast<long>(outputLines_.size());
  const long maxTop = std::max(0L, total - outputRows_);
  if (followEnd_) outputTop_ = maxTop;
  outputTop_ = std::clamp(outputTop_, 0L, maxTop);
  const std::string_view text = output_;
  for (int i = 0; i < outputRows_ && outputTop_ + i < total; ++i) {
    const LineSpan& line = outputLines_[static_cast<size_t>(outputTop_ + i)];
    canvas.write(top + i, 1, text.substr(line.begin, line.contentEnd - line.begin), kPlain, width);
  }
  // The scroll bar, when there is more than fits.
  if (total > outputRows_) {
    const long thumb = std::max(1L, long{outputRows_} * outputRows_ / total);
    const long at = maxTop == 0 ? 0 : (outputRows_ - thumb) * outputTop_ / maxTop;
    for (int i = 0; i < outputRows_; ++i)
      canvas.write(top + i, columns - 1, i >= at && i < at + thumb ? "┃" : "│",
                   i >= at && i < at + thumb ? kBold : kDim);
  }

  int column = 1;
  for (size_t i = 0; i < d.buttons.size(); ++i) {
    const auto& button = d.buttons[i];
    // The Copy symbol stands out while the copy's note is up.
    const bool bouncing = button.operation == PanelOperation::copyOutput && noteUntil_;
    std::string label = "[";
    label += glyph(button.symbol);
    label += " " + button.label + "]";
    const int used = canvas.write(buttonRow, column, label, bouncing ? kReverse | kBold : kAccent);
    hits_.push_back({buttonRow, buttonRow + 1, column, column + used, Target::button, i});
    column += used + 2;
  }
  const std::string note = d.copying ? word("Copying…") : note_;
  if (!note.empty()) canvas.write(buttonRow, column + 1, note, kBold, columns - column - 2);
}

void PanelScreen::drawKeys(Canvas& canvas, const PanelDescription& d) {
  // Each hint is a key and what it does, or a whole phrase where the "key" is the typing
  // itself. When the row is too short, hints are left out whole, the least needed first (the
  // highest `rank`; among equals the rightmost), never cut in the middle; rank 0 always stays.
  struct Hint {
    std::string key;
    std::string what;
    int rank;
  };
  std::vector<Hint> hints;
  const auto add = [&hints](std::string key, std::string what, int rank) {
    hints.push_back({std::move(key), std::move(what), rank});
  };
  if (d.page == PanelDescription::Page::result) {
    add("↑↓ PgUp PgDn", word("scroll"), 2);
    for (const auto& button : d.buttons)
      add(std::string(1, buttonKey(button.operation)), button.label, 0);
    add("b", word("Back"), 1);
    add("q", word("quit"), 0);
  } else if (picker_.isOpen()) {
    add("↑↓", word("move"), 1);
    add("Enter", word("choose"), 0);
    add("Esc", word("close"), 0);
    add("", word("type to filter"), 2);
  } else {
    if (focus_ == Focus::conversations || focus_ == Focus::models) {
      add("Enter", word("open"), 0);
      add("", word("type to filter"), 2);
    }
    if (focus_ == Focus::generate) add("Enter", d.generate.label, 0);
    add("Tab", word("next field"), 2);
    add("Ctrl-G", d.generate.label, 1);
    add("Ctrl-R", d.reading.toggle.label, 1);
    add(focus_ == Focus::generate ? "q" : "Ctrl-Q", word("quit"), 0);
  }

  const auto text = [](const Hint& hint) {
    std::string out = "  ";
    if (!hint.key.empty()) out.append(hint.key).append(" ");
    return out.append(hint.what);
  };
  int width = 0;
  for (const Hint& hint : hints) width += displayWidth(text(hint));
  while (width > canvas.columns()) {
    auto least = hints.end();
    for (auto it = hints.begin(); it != hints.end(); ++it)
      if (it->rank > 0 && (least == hints.end() || it->rank >= least->rank)) least = it;
    if (least == hints.end()) break;
    width -= displayWidth(text(*least));
    hints.erase(least);
  }
  std::string keys;
  for (const Hint& hint : hints) keys += text(hint);
  canvas.write(canvas.rows() - 1, 0, padded(keys, canvas.columns()), kReverse);
}

std::string PanelScreen::word(std::string_view english) const {
  return localized(english, settings_.language);
}

}  // namespace lumora::terminal
