// What the panel shows, as data: which page is up, which controls stand on it, the texts they
// carry (translated), and which operation each one calls. Computed from the panel's state
// each time a front-end draws; the front-end decides nothing but how it looks.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lumora/chat/ReplyText.h"
#include "lumora/platform/Localization.h"

namespace lumora {

class MailExtensionView;

// What a control does when used.
enum class PanelOperation {
  none,                // not a control
  leaveResult,         // the back button
  startGeneration,     // Generate, Regenerate
  stopGeneration,      // Stop
  copyOutput,          // Copy
  setInstruction,      // the instruction editor
  selectConversation,  // the conversation picker
  selectModel,         // the model picker (the stored selection)
  setConversationModel,  // the model picker of a chosen conversation
  switchReading,       // what the model reads: the quoted passages or the whole message
  insertOutput,        // Insert: the finished reply into the mail being written
};

struct PanelDescription {
  enum class Page { input, result };

  struct Header {
    PanelOperation leading;  // leaveResult (the back button) or none (the symbol)
    std::string symbol;      // "chevron.left" or "wand.and.stars"
    std::string title;       // "Writing..." while generating, else "Lumora"
  };

  struct PickerEntry {
    std::string label;
    std::string value;     // what selecting it writes
    bool divider = false;  // a separator, not an entry
  };
  struct Picker {
    PanelOperation operation;
    std::vector<PickerEntry> entries;
    std::string selection;  // the value selected now; may match no entry
  };

  struct Button {
    std::string label;
    std::string symbol;
    PanelOperation operation;
  };

  Page page = Page::input;
  Header header;
  std::optional<std::string> errorLine;

  // The input page.
  std::string instruction;
  Picker conversationPicker;
  Picker modelPicker;
  Button generate;
  // What the model will read of the message, and the control that switches the reading.
  struct Reading {
    std::string line;
    bool wholeMessage = false;  // the whole-message reading is chosen
    Button toggle;              // switchReading, labelled with the reading it switches to
  };
  Reading reading;

  // The result page.
  ReplyText output;
  std::vector<Button> buttons;  // Copy, Insert (where the draft can take it), Stop or Regenerate
  // Changes at every copy; a front-end bounces the Copy symbol when it does.
  unsigned copyBounces = 0;
  // A copy is under way ("Copying…" beside the buttons); Copy does nothing meanwhile.
  bool copying = false;
  // The same for Insert; `insertions` changes at every reply put into the draft.
  bool inserting = false;
  unsigned insertions = 0;

  // The line that says what the model reads, for `summary`.
  static std::string readingLine(const MailExtensionView& panel, Language language);

  // `inChina` picks the model list; `language` the fixed words.
  static PanelDescription describe(const MailExtensionView& panel, bool inChina,
                                   Language language = userLanguage());
};

}  // namespace lumora
