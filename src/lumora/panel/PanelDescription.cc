#include "lumora/panel/PanelDescription.h"

#include "lumora/models/ConversationModel.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/platform/Text.h"
#include "lumora/platform/Uuid.h"

namespace lumora {

std::string PanelDescription::readingLine(const MailExtensionView& panel, Language language) {
  using Kind = MailExtensionView::ReadingSummary::Kind;
  const MailExtensionView::ReadingSummary& s = panel.readingSummary();
  const std::string characters = text::groupedCount(s.characters);
  const std::string count = text::groupedCount(s.passages);
  const std::string earlier = text::groupedCount(s.earlier);
  const auto say = [&](std::string_view english) {
    return withValues(localized(english, language), {{"characters", characters},
                                                      {"count", s.kind == Kind::passages ? count : earlier},
                                                      {"sender", s.sender},
                                                      {"reason", s.failure}});
  };
  std::string line;
  switch (s.kind) {
    case Kind::newMail:
      return say("A new mail: the model gets your instruction alone");
    case Kind::passages:
      return say(s.passages == 1 ? "The model reads: 1 quoted passage ({characters} characters)"
                                 : "The model reads: {count} quoted passages ({characters} characters)");
    case Kind::noPassages:
      return say("This mail quotes nothing: the model gets your instruction alone");
    case Kind::unreadable:
      return say("The quoted passages cannot be read: {reason}");
    case Kind::emptyMessage:
      return say("This message holds no text: the model gets your instruction alone");
    case Kind::draft:
      line = say(s.earlier > 0
                     ? "The model reads: your draft and the message it answers ({characters} characters)"
                     : "The model reads: your draft ({characters} characters)");
      break;
    case Kind::message:
      if (s.sender.empty()) {
        line = say(s.earlier == 0 ? "The model reads: the message ({characters} characters)"
                   : s.earlier == 1
                       ? "The model reads: the message and 1 earlier message ({characters} characters)"
                       : "The model reads: the message and {count} earlier messages ({characters} "
                         "characters)");
      } else {
        line = say(s.earlier == 0
                       ? "The model reads: the message from {sender} ({characters} characters)"
                   : s.earlier == 1
                       ? "The model reads: the message from {sender} and 1 earlier message "
                         "({characters} characters)"
                       : "The model reads: the message from {sender} and {count} earlier messages "
                         "({characters} characters)");
      }
      break;
  }
  if (s.shortened) line.append(" ").append(localized("The oldest part was left out to fit.", language));
  return line;
}

PanelDescription PanelDescription::describe(const MailExtensionView& panel, bool inChina,
                                           Language language) {
  const auto word = [language](std::string_view english) { return localized(english, language); };
  PanelDescription d;
  const bool result = panel.showsResult();
  d.page = result ? Page::result : Page::input;
  d.header = result ? Header{PanelOperation::leaveResult, "chevron.left", ""}
                    : Header{PanelOperation::none, "wand.and.stars", ""};
  d.header.title = word(panel.generating() ? "Writing..." : "Lumora");
  if (!panel.errorMessage().empty()) d.errorLine = panel.errorMessage();

  if (!result) {
    d.instruction = panel.instruction();

    d.conversationPicker.operation = PanelOperation::selectConversation;
    d.conversationPicker.entries.push_back({word("Prompt"), "", false});
    d.conversationPicker.entries.push_back({"", "", true});
    for (const auto& conversation : panel.conversations()) {
      std::string value;
      if (conversation->id()) value = uuid::canonical(*conversation->id()).value_or("");
      const auto& title = conversation->title();
      d.conversationPicker.entries.push_back({title ? *title : word("New Chat"), value, false});
    }
    d.conversationPicker.selection = panel.selectedConversationId();

    d.modelPicker.operation = panel.selectedConversation() ? PanelOperation::setConversationModel
                                                           : PanelOperation::selectModel;
    for (const ConversationModel model : ConversationModel::pickerModels(inChina))
      d.modelPicker.entries.push_back({model.displayName(), std::string(model.rawValue()), false});
    d.modelPicker.selection = panel.pickedModel();

    d.generate = {word("Generate"), "", PanelOperation::startGeneration};

    d.reading.line = readingLine(panel, language);
    d.reading.wholeMessage = panel.reading() == MailExtensionView::Reading::message;
    d.reading.toggle = {word(d.reading.wholeMessage ? "Read only the quoted passages"
                                                    : "Read the whole message"),
                        "", PanelOperation::switchReading};
  } else {
    d.output = panel.output();
    d.buttons.push_back({word("Copy"), "rectangle.portrait.on.rectangle.portrait",
                         PanelOperation::copyOutput});
    // Insert takes the finished reply only: not while it is still being written.
    if (panel.canInsert() && !panel.generating() && !panel.output().empty())
      d.buttons.push_back({word("Insert"), "text.insert", PanelOperation::insertOutput});
    if (panel.generating()) {
      d.buttons.push_back({word("Stop"), "stop", PanelOperation::stopGeneration});
    } else {
      d.buttons.push_back(
          {word("Regenerate"), "arrow.clockwise", PanelOperation::startGeneration});
    }
  }
  d.copyBounces = panel.copyBounces();
  d.copying = panel.copying();
  d.inserting = panel.inserting();
  d.insertions = panel.insertions();
  return d;
}

}  // namespace lumora
